// flowblur: the full-weight separable convolution, one channel at a time, in place.
#include "filter/PLConvolveFull.h"

#include <cstring>

#include "filter/PLFilterPrivate.h"
#include "image/PLDispatch.h"
#include "runtime/NuvMP.h"

using plfilter::LoadSample;
using plfilter::StoreWrapped;

namespace {

// Keeps every size and offset of a run in 32 bits.
constexpr float kFullRadiusMax = 1048576.0f;

struct FullRun {
  int32_t count;
  const float* weights;
  int32_t half;
  float* scratch;      // slots * 2 lines
  int32_t lineFloats;  // floats per scratch line
};

// One channel of one row or column of n samples, `step` bytes apart, in place.
template <class T>
void FullLine(unsigned char* first, int32_t step, int32_t n, const FullRun* run, float* in,
              float* out) {
  const int32_t half = run->half;
  const int32_t count = run->count;
  const float* w = run->weights;
  unsigned char* p = first;
  for (int32_t j = 0; j < n; ++j, p += step) in[j] = LoadSample<T>(p);
  // With a fractional radius the middle reads up to two samples past the line: keep them
  // zero, whatever an earlier, longer line left there.
  const int32_t past = count - 2 * half - 1;
  for (int32_t j = 0; j < past; ++j) in[n + j] = 0.0f;

  // Head: only the taps that exist, renormalised.
  for (int32_t i = 0; i < half && i < n; ++i) {
    float sum = 0.0f;
    float norm = 0.0f;
    for (int32_t j = 0; j <= i + half && j < n; ++j) {
      const float wj = w[half - i + j];
      sum = sum + wj * in[j];
      norm = norm + wj;
    }
    out[i] = sum / norm;
  }
  // Tail: from the last sample downward; where it meets the head it overwrites it.
  if (n - half >= 0) {
    for (int32_t i = n - half; i <= n - 1; ++i) {
      float sum = 0.0f;
      float norm = 0.0f;
      for (int32_t j = n - 1; j >= i - half && j >= 0; --j) {
        const float wj = w[j - i + half];
        sum = sum + wj * in[j];
        norm = norm + wj;
      }
      out[i] = sum / norm;
    }
  }
  // Middle: all count taps from i - half, no division. With count = 2 * half + 3 this reaches
  // further right than left, which shifts the middle by one sample: intended.
  for (int32_t i = half; i < n - half; ++i) {
    const float* src = in + (i - half);
    float value = 0.0f;
    for (int32_t t = 0; t < count; ++t) value = value + src[t] * w[t];
    out[i] = value;
  }
  p = first;
  for (int32_t j = 0; j < n; ++j, p += step) StoreWrapped<T>(p, out[j]);
}

template <class T>
void FullRowWorker(int32_t thread, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* image = args->Next<PLImage*>();
  const int32_t* channel = args->Next<const int32_t*>();
  const FullRun* run = args->Next<const FullRun*>();
  float* in = run->scratch + static_cast<size_t>(thread) * 2 * run->lineFloats;
  float* out = in + run->lineFloats;
  const int32_t sampleOffset = *channel * image->bytesPerSample;
  for (int32_t y = firstRow; y <= lastRow; ++y)
    FullLine<T>(image->Row(y) + sampleOffset, image->bytesPerPixel, image->width, run, in, out);
}

template <class T>
void FullColumnWorker(int32_t thread, uint8_t, int32_t firstColumn, int32_t lastColumn,
                      NuvMPArgs* args) {
  PLImage* image = args->Next<PLImage*>();
  const int32_t* channel = args->Next<const int32_t*>();
  const FullRun* run = args->Next<const FullRun*>();
  float* in = run->scratch + static_cast<size_t>(thread) * 2 * run->lineFloats;
  float* out = in + run->lineFloats;
  const int32_t sampleOffset = *channel * image->bytesPerSample;
  for (int32_t x = firstColumn; x <= lastColumn; ++x)
    FullLine<T>(image->PixelAddress(x, 0) + sampleOffset, image->rowStep, image->height, run, in,
                out);
}

}  // namespace

void PLConvolveFull(PLImage* image, int32_t count, const float* weights, int32_t mode,
                    float radius) {
  if (radius < 0.001f) return;
  if (!(radius < kFullRadiusMax)) throw PLErrParameter;
  const int32_t half = static_cast<int32_t>(radius);
  // The head and tail index the weights up to 2 * half, the middle reads at most two
  // samples past a line: anything else would leave the caller's array or the scratch.
  if (weights == nullptr || count < 2 * half + 1 || count > 2 * half + 3) throw PLErrParameter;
  const bool rows = mode == 0 || mode == 2;
  const bool columns = mode == 0 || mode >= 3;
  if (!rows && !columns) return;
  if (image->data == nullptr || image->width <= 0 || image->height <= 0) return;
  if (image->dataType != PLUChar && image->dataType != PLUShort && image->dataType != PLFloat)
    return;

  const int32_t width = image->width;
  const int32_t height = image->height;
  const int32_t rowThreads = NuvMPThreadsForRows(height);
  const int32_t columnThreads = NuvMPThreadsForRows(width);
  const int32_t slots = rowThreads > columnThreads ? rowThreads : columnThreads;
  FullRun run;
  run.count = count;
  run.weights = weights;
  run.half = half;
  run.lineFloats = (width > height ? width : height) + 20 + 2 * half;
  const uint64_t floats = static_cast<uint64_t>(slots) * 2 * static_cast<uint64_t>(run.lineFloats);
  run.scratch = static_cast<float*>(NuvMemAlloc(floats * sizeof(float)));
  std::memset(run.scratch, 0, floats * sizeof(float));

  int32_t error = 0;
  try {
    PLDispatchType(image->dataType, [&](auto tag) {
      using T = typename decltype(tag)::Type;
      // The channel index is shared with the workers by reference.
      int32_t channel = 0;
      for (channel = 0; channel < image->channels; ++channel) {
        if (rows) NuvMPFork(rowThreads, height, FullRowWorker<T>, image, &channel, &run);
        if (columns)
          NuvMPFork(columnThreads, width, FullColumnWorker<T>, image, &channel, &run);
      }
    });
  } catch (PLErr& e) {
    error = e;
  }
  NuvMemFree(run.scratch);
  if (error != 0) throw static_cast<PLErr>(error);
}
