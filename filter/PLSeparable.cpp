// flowblur: separable convolution with symmetric half-weights over NuvImage views.
#include "filter/PLSeparable.h"

#include <emmintrin.h>

#include <cstring>

#include "filter/PLFilterPrivate.h"
#include "image/PLDispatch.h"
#include "runtime/NuvMP.h"

using plfilter::LoadSample;
using plfilter::StoreClamped;

void ExpandKernel(ExpandedKernel* expanded, const SeparableKernel* kernel) {
  std::memset(expanded, 0, sizeof(ExpandedKernel));
  expanded->count = kernel->count;
  for (int32_t k = 0; k < kernel->count; ++k)
    for (int32_t lane = 0; lane < 4; ++lane) expanded->lanes[k * 4 + lane] = kernel->weights[k];
}

namespace {

// Marker lanes of the multi-channel line buffers: a tap whose lane equals the marker is
// outside the line. Four-channel Float images need markers that a matte of -1.0 alone
// would not give away, hence a different value per lane.
template <class T, int32_t C>
struct LineMarkers {
  static constexpr float lanes[4] = {-1.0f, -1.0f, -1.0f, -1.0f};
};
template <>
struct LineMarkers<float, 4> {
  static constexpr float lanes[4] = {-3.0f, -1415.0f, -9265.0f, -1.0f};
};

// One channel: four outputs side by side in the middle run, outside taps by index.
template <class T>
void ConvolveLineGray(const unsigned char* input, unsigned char* output, int32_t n,
                      int32_t spacing, const SeparableKernel* kernel,
                      const ExpandedKernel* expanded) {
  float line[kSeparableLineMax];
  const int32_t c = kernel->count;
  const float* w = kernel->weights;
  // Copy the line out first: the column pass runs in place.
  for (int32_t j = 0; j < c; ++j) line[j] = 0.0f;
  const unsigned char* in = input;
  for (int32_t j = 0; j < n; ++j, in += spacing) line[c + j] = LoadSample<T>(in);
  for (int32_t j = 0; j < c; ++j) line[c + n + j] = 0.0f;
  const float* p = line + c;  // p[-c .. n + c - 1] are valid

  const int32_t head = c < n ? c : n;
  const int32_t middle = n - 2 * c > 0 ? n - 2 * c : 0;
  const int32_t tailStart = head + middle;

  auto border = [&](int32_t i) {
    float sum = p[i] * w[0];
    float norm = w[0];
    for (int32_t k = c - 1; k >= 1; --k) {
      float wr = (i + k <= n - 1) ? w[k] : 0.0f;
      float wl = (i - k >= 0) ? w[k] : 0.0f;
      norm = norm + wr + wl;
      sum = sum + p[i + k] * wr + p[i - k] * wl;
    }
    StoreClamped<T>(output + static_cast<intptr_t>(i) * spacing, sum / norm);
  };

  for (int32_t i = 0; i < head; ++i) border(i);

  int32_t i = head;
  const int32_t middleEnd = head + middle;
  const __m128 w0 = _mm_loadu_ps(expanded->lanes);
  for (; i + 4 <= middleEnd; i += 4) {
    __m128 value = _mm_mul_ps(w0, _mm_loadu_ps(p + i));
    for (int32_t k = c - 1; k >= 1; --k) {
      __m128 pair = _mm_add_ps(_mm_loadu_ps(p + i + k), _mm_loadu_ps(p + i - k));
      value = _mm_add_ps(_mm_mul_ps(_mm_loadu_ps(expanded->lanes + 4 * k), pair), value);
    }
    float out[4];
    _mm_storeu_ps(out, value);
    for (int32_t lane = 0; lane < 4; ++lane)
      StoreClamped<T>(output + static_cast<intptr_t>(i + lane) * spacing, out[lane]);
  }
  for (; i < middleEnd; ++i) {
    float value = w[0] * p[i];
    for (int32_t k = c - 1; k >= 1; --k) value = w[k] * (p[i + k] + p[i - k]) + value;
    StoreClamped<T>(output + static_cast<intptr_t>(i) * spacing, value);
  }

  for (int32_t t = tailStart; t < n; ++t) border(t);
}

// Two to four channels: one pixel of four lanes per vector, outside taps by marker lanes.
template <class T, int32_t C>
void ConvolveLineLanes(const unsigned char* input, unsigned char* output, int32_t n,
                       int32_t spacing, const SeparableKernel* kernel,
                       const ExpandedKernel* expanded) {
  float line[kSeparableLineMax * 4];
  const int32_t c = kernel->count;
  const float* markers = LineMarkers<T, C>::lanes;
  const __m128 marker = _mm_loadu_ps(markers);
  for (int32_t j = 0; j < c; ++j) _mm_storeu_ps(line + 4 * j, marker);
  const unsigned char* in = input;
  for (int32_t j = 0; j < n; ++j, in += spacing) {
    float* s = line + 4 * (c + j);
    for (int32_t lane = 0; lane < 4; ++lane)
      s[lane] = lane < C ? LoadSample<T>(in + lane * sizeof(T)) : 0.0f;
  }
  for (int32_t j = 0; j < c; ++j) _mm_storeu_ps(line + 4 * (c + n + j), marker);
  const float* p = line + 4 * c;  // pixel j at p + 4 * j, j in -c .. n + c - 1

  const int32_t head = c < n ? c : n;
  const int32_t middle = n - 2 * c > 0 ? n - 2 * c : 0;
  const int32_t middleEnd = head + middle;
  const __m128 w0 = _mm_loadu_ps(expanded->lanes);

  auto store = [&](int32_t i, __m128 value) {
    float out[4];
    _mm_storeu_ps(out, value);
    unsigned char* o = output + static_cast<intptr_t>(i) * spacing;
    for (int32_t lane = 0; lane < C; ++lane) StoreClamped<T>(o + lane * sizeof(T), out[lane]);
  };
  // The centre tap always counts; taps k >= 1 drop out lane by lane where the sample equals
  // that lane's marker.
  auto border = [&](int32_t i) {
    __m128 sum = _mm_mul_ps(_mm_loadu_ps(p + 4 * i), w0);
    __m128 norm = w0;
    for (int32_t k = c - 1; k >= 1; --k) {
      const __m128 wk = _mm_loadu_ps(expanded->lanes + 4 * k);
      const __m128 pr = _mm_loadu_ps(p + 4 * (i + k));
      const __m128 pl = _mm_loadu_ps(p + 4 * (i - k));
      const __m128 wr = _mm_andnot_ps(_mm_cmpeq_ps(pr, marker), wk);
      const __m128 wl = _mm_andnot_ps(_mm_cmpeq_ps(pl, marker), wk);
      norm = _mm_add_ps(_mm_add_ps(norm, wr), wl);
      sum = _mm_add_ps(_mm_add_ps(sum, _mm_mul_ps(pr, wr)), _mm_mul_ps(pl, wl));
    }
    store(i, _mm_div_ps(sum, norm));
  };

  for (int32_t i = 0; i < head; ++i) border(i);
  for (int32_t i = head; i < middleEnd; ++i) {
    __m128 value = _mm_mul_ps(w0, _mm_loadu_ps(p + 4 * i));
    for (int32_t k = c - 1; k >= 1; --k) {
      __m128 pair = _mm_add_ps(_mm_loadu_ps(p + 4 * (i + k)), _mm_loadu_ps(p + 4 * (i - k)));
      value = _mm_add_ps(_mm_mul_ps(_mm_loadu_ps(expanded->lanes + 4 * k), pair), value);
    }
    store(i, value);
  }
  for (int32_t i = middleEnd; i < n; ++i) border(i);
}

// One line of n samples, `spacing` bytes apart, from input to output (which may coincide).
template <class T, int32_t C>
void ConvolveSeparableLine(const unsigned char* input, unsigned char* output, int32_t n,
                           int32_t spacing, const SeparableKernel* kernel,
                           const ExpandedKernel* expanded) {
  if constexpr (C == 1)
    ConvolveLineGray<T>(input, output, n, spacing, kernel, expanded);
  else
    ConvolveLineLanes<T, C>(input, output, n, spacing, kernel, expanded);
}

template <class T, int32_t C>
void RowWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const unsigned char* source = args->Next<const unsigned char*>();
  unsigned char* destination = args->Next<unsigned char*>();
  const int32_t width = args->Next<int32_t>();
  const int32_t rowBytes = args->Next<int32_t>();
  const SeparableKernel* kernel = args->Next<const SeparableKernel*>();
  const ExpandedKernel* expanded = args->Next<const ExpandedKernel*>();
  const int32_t pixelBytes = static_cast<int32_t>(sizeof(T)) * C;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    int32_t offset = y * rowBytes;
    ConvolveSeparableLine<T, C>(source + offset, destination + offset, width, pixelBytes,
                                kernel, expanded);
  }
}

template <class T, int32_t C>
void ColumnWorker(int32_t, uint8_t, int32_t firstColumn, int32_t lastColumn, NuvMPArgs* args) {
  unsigned char* destination = args->Next<unsigned char*>();
  const int32_t height = args->Next<int32_t>();
  const int32_t rowBytes = args->Next<int32_t>();
  const SeparableKernel* kernel = args->Next<const SeparableKernel*>();
  const ExpandedKernel* expanded = args->Next<const ExpandedKernel*>();
  const int32_t pixelBytes = static_cast<int32_t>(sizeof(T)) * C;
  for (int32_t x = firstColumn; x <= lastColumn; ++x) {
    unsigned char* column = destination + x * pixelBytes;
    ConvolveSeparableLine<T, C>(column, column, height, rowBytes, kernel, expanded);
  }
}

// One member per (type, channels): rows then columns by mode.
template <class T, int32_t C>
int32_t ConvolveSeparableMember(const unsigned char* source, unsigned char* destination,
                                int32_t width, int32_t height, int32_t rowBytes,
                                const SeparableKernel* kernel, uint32_t mode) {
  const int32_t rowThreads = NuvMPThreadsForRows(height);
  const int32_t columnThreads = NuvMPThreadsForRows(width);
  ExpandedKernel expanded;
  ExpandKernel(&expanded, kernel);
  if (mode < 2)
    NuvMPFork(rowThreads, height, RowWorker<T, C>, source, destination, width, rowBytes, kernel,
              &expanded);
  // The fork has joined: the column pass sees finished rows.
  if (mode == 0 || mode == 2)
    NuvMPFork(columnThreads, width, ColumnWorker<T, C>, destination, height, rowBytes, kernel,
              &expanded);
  return 0;
}

}  // namespace

int32_t ConvolveSeparable(const NuvImage* source, NuvImage* destination,
                          const SeparableKernel* kernel, uint32_t mode) {
  const int32_t width = source->width;
  const int32_t height = source->height;
  const int32_t c = kernel->count;
  if (mode > 2 || width <= 0 || height <= 0) return 0;
  // Outside the line buffer or the record: refuse before anything is written.
  if (c < 0 || c > kSeparableKernelMax) return PLErrParameter;
  const bool rows = mode < 2;
  const bool columns = mode == 0 || mode == 2;
  if (rows && width + 2 * c > kSeparableLineMax) return PLErrParameter;
  if (columns && height + 2 * c > kSeparableLineMax) return PLErrParameter;

  const unsigned char* sourceData = source->data;
  unsigned char* destinationData = destination->data;
  const int32_t rowBytes = source->rowBytes;
  PLDispatch(source->pixelType, source->GetChannels(), [&](auto tag) {
    using T = typename decltype(tag)::Type;
    constexpr int32_t C = decltype(tag)::Channels;
    ConvolveSeparableMember<T, C>(sourceData, destinationData, width, height, rowBytes, kernel,
                                  mode);
  });
  return 0;
}
