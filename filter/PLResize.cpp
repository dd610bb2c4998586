// flowblur: corner-aligned bilinear resize between images of any size and working type.
#include "filter/PLResize.h"

#include "filter/PLFilterPrivate.h"
#include "image/PLDispatch.h"
#include "runtime/NuvMP.h"

using plfilter::LoadSample;
using plfilter::StoreWrapped;

namespace {

// Columns are handled in blocks whose source offsets and fractions are worked out once per
// worker and block, on the stack: they depend on x alone.
constexpr int32_t kResizeColumnBlock = 1024;

// One loop per destination type D, source type S, channel count C and white-point form.
template <class D, class S, int32_t C, bool Scaled>
void ResizeWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* destination = args->Next<PLImage*>();
  const PLImage* source = args->Next<const PLImage*>();
  const float scaleX = *args->Next<const float*>();
  const float scaleY = *args->Next<const float*>();
  const float ratio = *args->Next<const float*>();
  const int32_t width = destination->width;
  const int32_t sourceLastColumn = source->lastColumn;
  const int32_t sourceLastRow = source->lastRow;
  const int32_t pixelBytes = source->bytesPerPixel;
  const int32_t rowStep = source->rowStep;
  int32_t columnOffset[kResizeColumnBlock];
  float columnFraction[kResizeColumnBlock];
  for (int32_t x0 = 0; x0 < width; x0 += kResizeColumnBlock) {
    const int32_t x1 = x0 + kResizeColumnBlock < width ? x0 + kResizeColumnBlock : width;
    for (int32_t x = x0; x < x1; ++x) {
      const float fx = static_cast<float>(x) * scaleX;
      int32_t ix = static_cast<int32_t>(fx);
      float tx = fx - static_cast<float>(ix);
      // Slide the cell back at the last column, so the reads stay inside.
      if (ix >= sourceLastColumn) {
        ix = sourceLastColumn - 1;
        tx = 1.0f;
      }
      columnOffset[x - x0] = ix * pixelBytes;
      columnFraction[x - x0] = tx;
    }
    for (int32_t y = firstRow; y <= lastRow; ++y) {
      const float fy = static_cast<float>(y) * scaleY;
      const int32_t iy0 = static_cast<int32_t>(fy);
      float ty = fy - static_cast<float>(iy0);
      int32_t iy = iy0;
      // The same at the last row.
      if (iy >= sourceLastRow) {
        iy = sourceLastRow - 1;
        ty = 1.0f;
      }
      const unsigned char* upperRow = source->Row(iy);
      const unsigned char* lowerRow = upperRow + rowStep;
      unsigned char* out = destination->Row(y) + x0 * static_cast<int32_t>(sizeof(D) * C);
      for (int32_t x = x0; x < x1; ++x, out += sizeof(D) * C) {
        const float tx = columnFraction[x - x0];
        const unsigned char* p = upperRow + columnOffset[x - x0];
        const unsigned char* right = p + pixelBytes;
        const unsigned char* lower = lowerRow + columnOffset[x - x0];
        const unsigned char* lowerRight = lower + pixelBytes;
        for (int32_t c = 0; c < C; ++c) {
          const int32_t o = c * static_cast<int32_t>(sizeof(S));
          const float p00 = LoadSample<S>(p + o);
          const float p10 = LoadSample<S>(right + o);
          const float p01 = LoadSample<S>(lower + o);
          const float p11 = LoadSample<S>(lowerRight + o);
          const float a = (p10 - p00) * tx + p00;
          const float b = (p11 - p01) * tx + p01;
          float v = (b - a) * ty + a;
          if constexpr (Scaled) v = v * ratio;
          StoreWrapped<D>(out + c * sizeof(D), v);
        }
      }
    }
  }
}

}  // namespace

void PLResizeBilinear(PLImage* destination, const PLImage* source) {
  if (destination->channels != source->channels) throw PLErrParameter;
  auto working = [](int32_t type) { return type == PLUChar || type == PLUShort || type == PLFloat; };
  if (!working(destination->dataType) || !working(source->dataType) ||
      destination->channels < 1 || destination->channels > 4)
    return;
  if (destination->width <= 0 || destination->height <= 0) return;
  // Outside the corner-aligned grid's domain: a destination of size 1 has no scale, a source
  // of size 1 has no neighbour to read.
  if (destination->width < 2 || destination->height < 2 || source->width < 2 ||
      source->height < 2 || destination->data == nullptr || source->data == nullptr)
    throw PLErrParameter;

  const float scaleX = (static_cast<float>(source->width) - 1.0f) /
                       static_cast<float>(destination->width - 1);
  const float scaleY = (static_cast<float>(source->height) - 1.0f) /
                       static_cast<float>(destination->height - 1);
  const float ratio = destination->whitePoint / source->whitePoint;
  const bool scaled = destination->whitePoint != source->whitePoint;
  const int32_t rows = destination->height;

  PLDispatch(destination->dataType, destination->channels, [&](auto dtag) {
    using D = typename decltype(dtag)::Type;
    constexpr int32_t C = decltype(dtag)::Channels;
    PLDispatchType(source->dataType, [&](auto stag) {
      using S = typename decltype(stag)::Type;
      const int32_t threads = NuvMPThreadsForRows(rows);
      if (scaled)
        NuvMPFork(threads, rows, ResizeWorker<D, S, C, true>, destination, source, &scaleX,
                  &scaleY, &ratio);
      else
        NuvMPFork(threads, rows, ResizeWorker<D, S, C, false>, destination, source, &scaleX,
                  &scaleY, &ratio);
    });
  });
}
