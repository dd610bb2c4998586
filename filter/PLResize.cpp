// flowblur: corner-aligned bilinear resize between images of any size and working type.
#include "filter/PLResize.h"

#include <immintrin.h>

#include <type_traits>

#include "filter/PLFilterPrivate.h"
#include "image/PLDispatch.h"
#include "runtime/NuvMP.h"
#include "runtime/PLWidePath.h"
#include "runtime/PLWidePick.h"

using plfilter::LoadSample;
using plfilter::StoreWrapped;

namespace {

// Columns are handled in blocks whose source offsets and fractions are worked out once per
// worker and block, on the stack: they depend on x alone.
constexpr int32_t kResizeColumnBlock = 1024;

#if !defined(FLOWBLUR_PLAIN_ONLY)
// A 1-channel Float row from Float, white points equal, for columns x0 .. x1 - 1 while
// eight remain (run only where PLWideAvailable); returns the first column left to the plain
// loop. Lane l does the plain loop's operations for column x + l in their order.
__attribute__((target("avx2"))) int32_t ResizeRowFloatWide(
    float* out, const unsigned char* upperRow, const unsigned char* lowerRow,
    const int32_t* columnOffset, const float* columnFraction, int32_t x0, int32_t x1,
    float ty, int32_t sourceLastColumn) {
  const __m256 tyv = _mm256_set1_ps(ty);
  const float* upper = reinterpret_cast<const float*>(upperRow);
  const float* lower = reinterpret_cast<const float*>(lowerRow);
  int32_t x = x0;
  for (; x + 8 <= x1; x += 8) {
    const __m256i at = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(columnOffset + (x - x0)));
    const __m256 tx = _mm256_loadu_ps(columnFraction + (x - x0));
    // The cells are in order. When the eight lanes' cells lie among sixteen source samples of
    // the row (away from its end, reducing by up to about two), they come from four whole
    // loads and lane permutations instead of four gathers.
    const int32_t first = columnOffset[x - x0] / 4;
    const int32_t last = columnOffset[x - x0 + 7] / 4;
    __m256 p00, p10, p01, p11;
    if (last - first <= 14 && first + 15 <= sourceLastColumn) {
      const __m256i index = _mm256_sub_epi32(_mm256_srli_epi32(at, 2), _mm256_set1_epi32(first));
      PLPickCells16(upper + first, lower + first, index, &p00, &p10, &p01, &p11);
    } else {
      p00 = _mm256_i32gather_ps(upper, at, 1);
      p10 = _mm256_i32gather_ps(upper + 1, at, 1);
      p01 = _mm256_i32gather_ps(lower, at, 1);
      p11 = _mm256_i32gather_ps(lower + 1, at, 1);
    }
    const __m256 a = _mm256_add_ps(_mm256_mul_ps(_mm256_sub_ps(p10, p00), tx), p00);
    const __m256 b = _mm256_add_ps(_mm256_mul_ps(_mm256_sub_ps(p11, p01), tx), p01);
    _mm256_storeu_ps(out + (x - x0), _mm256_add_ps(_mm256_mul_ps(_mm256_sub_ps(b, a), tyv), a));
  }
  return x;
}
#endif

// The source offsets and fractions of columns x0 .. x1 - 1.
void PlanColumns(int32_t x0, int32_t x1, float scaleX, int32_t sourceLastColumn,
                 int32_t pixelBytes, int32_t* columnOffset, float* columnFraction) {
  for (int32_t x = x0; x < x1; ++x) {
    const PLResizeCell cell = PLResizeCellOf(x, scaleX, sourceLastColumn);
    columnOffset[x - x0] = cell.index * pixelBytes;
    columnFraction[x - x0] = cell.t;
  }
}

// Columns x0 .. x1 - 1 of one destination row from its two source rows.
template <class D, class S, int32_t C, bool Scaled>
void ResizeRow(unsigned char* out, const unsigned char* upperRow, const unsigned char* lowerRow,
               int32_t pixelBytes, const int32_t* columnOffset, const float* columnFraction,
               int32_t x0, int32_t x1, float ty, float ratio, bool wide,
               int32_t sourceLastColumn) {
  (void)wide;  // read only by the one member with a wide loop
  (void)sourceLastColumn;
  int32_t x = x0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
  if constexpr (std::is_same<D, float>::value && std::is_same<S, float>::value && C == 1 &&
                !Scaled) {
    if (wide) {
      x = ResizeRowFloatWide(reinterpret_cast<float*>(out), upperRow, lowerRow, columnOffset,
                             columnFraction, x0, x1, ty, sourceLastColumn);
      out += (x - x0) * static_cast<int32_t>(sizeof(D) * C);
    }
  }
#endif
  for (; x < x1; ++x, out += sizeof(D) * C) {
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

// One loop per destination type D, source type S, channel count C and white-point form.
template <class D, class S, int32_t C, bool Scaled>
void ResizeWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* destination = args->Next<PLImage*>();
  const PLImage* source = args->Next<const PLImage*>();
  const float scaleX = *args->Next<const float*>();
  const float scaleY = *args->Next<const float*>();
  const float ratio = *args->Next<const float*>();
  const int32_t width = destination->width;
  const int32_t pixelBytes = source->bytesPerPixel;
  const bool wide = args->Next<int32_t>() != 0;
  int32_t columnOffset[kResizeColumnBlock];
  float columnFraction[kResizeColumnBlock];
  for (int32_t x0 = 0; x0 < width; x0 += kResizeColumnBlock) {
    const int32_t x1 = x0 + kResizeColumnBlock < width ? x0 + kResizeColumnBlock : width;
    PlanColumns(x0, x1, scaleX, source->lastColumn, pixelBytes, columnOffset, columnFraction);
    for (int32_t y = firstRow; y <= lastRow; ++y) {
      const PLResizeCell cy = PLResizeCellOf(y, scaleY, source->lastRow);
      const unsigned char* upperRow = source->Row(cy.index);
      ResizeRow<D, S, C, Scaled>(
          destination->Row(y) + x0 * static_cast<int32_t>(sizeof(D) * C), upperRow,
          upperRow + source->rowStep, pixelBytes, columnOffset, columnFraction, x0, x1, cy.t,
          ratio, wide, source->lastColumn);
    }
  }
}

}  // namespace

void PLResizeBilinear(PLImage* destination, const PLImage* source) {
  PLResizeBilinearOnPath(PLWideChosen(), destination, source);
}

float PLResizeScale(int32_t sourceLength, int32_t destinationLength) {
  return (static_cast<float>(sourceLength) - 1.0f) / static_cast<float>(destinationLength - 1);
}

PLResizeCell PLResizeCellOf(int32_t i, float scale, int32_t sourceLast) {
  const float f = static_cast<float>(i) * scale;
  PLResizeCell cell{static_cast<int32_t>(f), 0.0f};
  cell.t = f - static_cast<float>(cell.index);
  // Slide the cell back at the last sample, so the reads stay inside.
  if (cell.index >= sourceLast) {
    cell.index = sourceLast - 1;
    cell.t = 1.0f;
  }
  return cell;
}

void PLResizeFloatRowsHere(const FloatRows& source, int32_t sourceWidth, int32_t sourceHeight,
                           float* output, ptrdiff_t outputStep, int32_t width, int32_t height,
                           int32_t from, int32_t to, bool wide) {
  if (from >= to || width < 2 || height < 2 || sourceWidth < 2 || sourceHeight < 2) return;
  wide = wide && PLWideAvailable();
  const float scaleX = PLResizeScale(sourceWidth, width);
  const float scaleY = PLResizeScale(sourceHeight, height);
  int32_t columnOffset[kResizeColumnBlock];
  float columnFraction[kResizeColumnBlock];
  for (int32_t x0 = 0; x0 < width; x0 += kResizeColumnBlock) {
    const int32_t x1 = x0 + kResizeColumnBlock < width ? x0 + kResizeColumnBlock : width;
    PlanColumns(x0, x1, scaleX, sourceWidth - 1, 4, columnOffset, columnFraction);
    for (int32_t y = from; y < to; ++y) {
      const PLResizeCell cy = PLResizeCellOf(y, scaleY, sourceHeight - 1);
      const float* upper = source.first + (cy.index - source.top) * source.step;
      ResizeRow<float, float, 1, false>(
          reinterpret_cast<unsigned char*>(output + (y - from) * outputStep + x0),
          reinterpret_cast<const unsigned char*>(upper),
          reinterpret_cast<const unsigned char*>(upper + source.step), 4, columnOffset,
          columnFraction, x0, x1, cy.t, 1.0f, wide, sourceWidth - 1);
    }
  }
}

void PLResizeBilinearOnPath(bool wide, PLImage* destination, const PLImage* source) {
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

  const float scaleX = PLResizeScale(source->width, destination->width);
  const float scaleY = PLResizeScale(source->height, destination->height);
  const float ratio = destination->whitePoint / source->whitePoint;
  const bool scaled = destination->whitePoint != source->whitePoint;
  const int32_t rows = destination->height;
  const int32_t useWide = wide && PLWideAvailable() ? 1 : 0;

  PLDispatch(destination->dataType, destination->channels, [&](auto dtag) {
    using D = typename decltype(dtag)::Type;
    constexpr int32_t C = decltype(dtag)::Channels;
    PLDispatchType(source->dataType, [&](auto stag) {
      using S = typename decltype(stag)::Type;
      const int32_t threads = NuvMPThreadsForRows(rows);
      if (scaled)
        NuvMPFork(threads, rows, ResizeWorker<D, S, C, true>, destination, source, &scaleX,
                  &scaleY, &ratio, useWide);
      else
        NuvMPFork(threads, rows, ResizeWorker<D, S, C, false>, destination, source, &scaleX,
                  &scaleY, &ratio, useWide);
    });
  });
}
