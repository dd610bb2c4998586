// flowblur: field interpolation: line replication, line average and two edge-directed
// interpolations, parallel over columns, with a serial border pass.
#include "fill/InterpolateField.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include <emmintrin.h>

#include "image/PLDispatch.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "runtime/NuvMP.h"

namespace {

constexpr int32_t kChannels = 4;

// Methods 3 and 4 hold a pixel's four samples in the lanes of one vector, as floats. Each
// lane does what the scalar rule does, in its order: sums of samples in float, left to
// right (for UChar and UShort that is exact, since at most four samples below 2^16 stay
// below 2^24, so it equals the integer sum), then in double the products by the factors
// and their sum, then the store. So the vector and the scalar rule give the same bits.
using FieldPixel = __m128;

// Rows of wrapped images may sit at any address: unaligned loads and stores throughout.
template <class T>
inline FieldPixel LoadPixel(const unsigned char* row, int32_t x) {
  const unsigned char* p = row + x * (kChannels * static_cast<int32_t>(sizeof(T)));
  if constexpr (std::is_same<T, float>::value) {
    return _mm_loadu_ps(reinterpret_cast<const float*>(p));
  } else if constexpr (std::is_same<T, uint16_t>::value) {
    __m128i words = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(words, _mm_setzero_si128()));
  } else {
    __m128i bytes = _mm_cvtsi32_si128(PLLoad<int32_t>(p));
    __m128i words = _mm_unpacklo_epi8(bytes, _mm_setzero_si128());
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(words, _mm_setzero_si128()));
  }
}

// d(p, q): colour channels only, in float, (|p0 - q0| + |p1 - q1|) + |p2 - q2|.
inline float Distance(FieldPixel p, FieldPixel q) {
  const __m128 d = _mm_and_ps(_mm_sub_ps(p, q), _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF)));
  const float d0 = _mm_cvtss_f32(d);
  const float d1 = _mm_cvtss_f32(_mm_shuffle_ps(d, d, 1));
  const float d2 = _mm_cvtss_f32(_mm_shuffle_ps(d, d, 2));
  return d0 + d1 + d2;
}

// Float sums of samples, left to right.
inline FieldPixel Sum(FieldPixel a, FieldPixel b) { return _mm_add_ps(a, b); }
inline FieldPixel Sum(FieldPixel a, FieldPixel b, FieldPixel c) { return Sum(Sum(a, b), c); }
inline FieldPixel Sum(FieldPixel a, FieldPixel b, FieldPixel c, FieldPixel d) {
  return Sum(Sum(a, b, c), d);
}

// An output pixel in double: lanes 0, 1 and lanes 2, 3.
struct FieldWide {
  __m128d lo;
  __m128d hi;
};
inline FieldWide Times(FieldPixel sum, double factor) {
  const __m128d k = _mm_set1_pd(factor);
  return {_mm_mul_pd(_mm_cvtps_pd(sum), k), _mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(sum, sum)), k)};
}
inline FieldWide Plus(FieldWide a, FieldWide b) {
  return {_mm_add_pd(a.lo, b.lo), _mm_add_pd(a.hi, b.hi)};
}

// Integer types add 0.5 and truncate; Float keeps the value. The samples are not negative
// and the factors of every formula sum to 1.0 at most (0.999 for the thirds), so an integer
// result lies in the type's range and needs no clamp.
template <class T>
inline void StoreSample(unsigned char* p, double v) {
  if constexpr (std::is_same<T, float>::value)
    PLStore<float>(p, static_cast<float>(v));
  else
    PLStore<T>(p, static_cast<T>(static_cast<int32_t>(v + 0.5)));
}
template <class T>
inline void StorePixel(unsigned char* o, FieldWide v) {
  if constexpr (std::is_same<T, float>::value) {
    _mm_storeu_ps(reinterpret_cast<float*>(o), _mm_movelh_ps(_mm_cvtpd_ps(v.lo), _mm_cvtpd_ps(v.hi)));
  } else {
    const __m128d half = _mm_set1_pd(0.5);
    const __m128i lo = _mm_cvttpd_epi32(_mm_add_pd(v.lo, half));
    const __m128i hi = _mm_cvttpd_epi32(_mm_add_pd(v.hi, half));
    int32_t lanes[kChannels];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(lanes), _mm_unpacklo_epi64(lo, hi));
    for (int32_t c = 0; c < kChannels; ++c) PLStore<T>(o + c * sizeof(T), static_cast<T>(lanes[c]));
  }
}

// The rows rebuilt by methods 2 to 4 and the border pass: from the first rebuilt row
// upward in steps of 2. Height is at least 2 (checked at the entry).
struct RowWalk {
  int32_t first;
  int32_t lastRow;
  RowWalk(const PLImage* image, int32_t field)
      : first(field == 2 ? image->lastRow - 1 : image->lastRow), lastRow(image->lastRow) {}
  int32_t Above(int32_t y) const { return y - 1 < 0 ? y + 1 : y - 1; }
  int32_t Below(int32_t y) const { return y + 1 > lastRow ? y - 1 : y + 1; }
};

// Line average of one pixel, in double.
template <class T>
inline void AveragePixel(unsigned char* out, const unsigned char* above,
                         const unsigned char* below, int32_t x) {
  const int32_t offset = x * (kChannels * static_cast<int32_t>(sizeof(T)));
  for (int32_t c = 0; c < kChannels; ++c) {
    const int32_t at = offset + c * static_cast<int32_t>(sizeof(T));
    double a = static_cast<double>(PLLoad<T>(above + at));
    double b = static_cast<double>(PLLoad<T>(below + at));
    StoreSample<T>(out + at, (a + b) * 0.5);
  }
}

// Method 3 at one column: A is the row above, B the row below; m, 0, p the columns x - 1,
// x and x + 1.
template <class T>
inline void EdgeThreePixel(unsigned char* o, FieldPixel am, FieldPixel a0, FieldPixel ap,
                           FieldPixel bm, FieldPixel b0, FieldPixel bp) {
  const float v = Distance(a0, b0);
  const float l = Distance(a0, bm);
  const float r = Distance(a0, bp);
  const float p = Distance(am, b0);
  const float q = Distance(ap, b0);
  FieldWide out;
  // kept: strict against v and l, "not above" against the others; the mix decides ties,
  // and a tidier symmetric test would pick other directions on them.
  if (l < v && l < r && !(l > p) && !(l > q)) {
    out = Times(Sum(b0, bm, a0), 0.333);
  } else if (r < v && r < l && !(r > p) && !(r > q)) {
    out = Times(Sum(b0, bp, a0), 0.333);
  } else if (p < v && p < l && !(p > r) && !(p > q)) {
    out = Times(Sum(b0, bm, am), 0.333);
  } else if (q < v && q < l && !(q > r) && !(q > p)) {
    out = Times(Sum(bp, ap, b0), 0.333);
  } else {
    const float e = Distance(am, bm);
    const float f = Distance(ap, bp);
    // kept: 0.333, 0.334 and 0.166, not thirds and sixths; the bits depend on them.
    if (e == f)
      out = Times(Sum(b0, a0), 0.5);
    else if (std::fabs(e - v) < std::fabs(f - v))
      out = Plus(Times(Sum(b0, a0), 0.334), Times(Sum(am, bm), 0.166));
    else
      out = Plus(Times(Sum(b0, a0), 0.334), Times(Sum(bp, ap), 0.166));
  }
  StorePixel<T>(o, out);
}

// Method 4 at one column: columns x - 2 .. x + 2 of the row above (a) and below (b).
template <class T>
inline void EdgeFivePixel(unsigned char* o, FieldPixel am2, FieldPixel am1, FieldPixel a0,
                          FieldPixel ap1, FieldPixel ap2, FieldPixel bm2, FieldPixel bm1,
                          FieldPixel b0, FieldPixel bp1, FieldPixel bp2) {
  const float m[5] = {Distance(b0, a0), Distance(bm1, a0), Distance(bp1, a0), Distance(b0, am1),
                      Distance(b0, ap1)};
  // kept: index 4 stands first and only a strictly smaller distance wins, so ties keep 4
  // before 0 and 0 before 1, 2, 3.
  int32_t best = 4;
  for (int32_t i = 0; i < 4; ++i)
    if (m[i] < m[best]) best = i;
  FieldWide out;
  switch (best) {
    case 0: out = Times(Sum(a0, b0), 0.5); break;
    case 1: out = Plus(Times(Sum(am1, bm2, b0, ap1), 0.1), Times(Sum(bm1, a0), 0.3)); break;
    case 2: out = Plus(Times(Sum(am1, bp2, b0, ap1), 0.1), Times(Sum(bp1, a0), 0.3)); break;
    case 3: out = Plus(Times(Sum(am2, bm1, bp1, a0), 0.1), Times(Sum(b0, am1), 0.3)); break;
    default: out = Plus(Times(Sum(ap2, bm1, bp1, a0), 0.1), Times(Sum(b0, ap1), 0.3)); break;
  }
  StorePixel<T>(o, out);
}

// Method 1, any data type: whole pixels copied from the kept neighbour, this worker's
// columns only.
void ReplicateColumns(int32_t /*thread*/, uint8_t /*reporter*/, int32_t firstColumn,
                      int32_t lastColumn, NuvMPArgs* args) {
  PLImage* image = args->Next<PLImage*>();
  const int32_t field = *args->Next<const int32_t*>();
  const int32_t offset = firstColumn * image->bytesPerPixel;
  const size_t bytes = static_cast<size_t>(lastColumn - firstColumn + 1) * image->bytesPerPixel;
  const int32_t from = field == 2 ? -1 : 1;
  for (int32_t y = field == 2 ? image->lastRow - 1 : image->lastRow - 2; y >= 1; y -= 2)
    std::memmove(image->Row(y) + offset, image->Row(y + from) + offset, bytes);
}

// Methods 2 to 4 over this worker's columns, bottom rebuilt row first. Method 3 stops one
// column short of the image's last (its right neighbour does not exist; the border pass
// writes that column), method 4 two short of each side.
template <class T, int32_t M>
void FieldColumns(int32_t /*thread*/, uint8_t /*reporter*/, int32_t firstColumn,
                  int32_t lastColumn, NuvMPArgs* args) {
  PLImage* image = args->Next<PLImage*>();
  const int32_t field = *args->Next<const int32_t*>();
  const RowWalk walk(image, field);
  int32_t x0 = firstColumn, x1 = lastColumn;
  if (M == 3) {
    if (x0 < 1) x0 = 1;
    if (x1 > image->lastColumn - 1) x1 = image->lastColumn - 1;
  } else if (M == 4) {
    if (x0 < 2) x0 = 2;
    if (x1 > image->width - 3) x1 = image->width - 3;
  }
  constexpr int32_t pixelBytes = kChannels * static_cast<int32_t>(sizeof(T));
  for (int32_t y = walk.first; y >= 0; y -= 2) {
    const unsigned char* above = image->Row(walk.Above(y));
    const unsigned char* below = image->Row(walk.Below(y));
    unsigned char* out = image->Row(y);
    if constexpr (M == 2) {
      for (int32_t x = x0; x <= x1; ++x) AveragePixel<T>(out, above, below, x);
    } else if constexpr (M == 3) {
      if (x0 > x1) continue;
      // The neighbours slide along in registers; each pixel is loaded once.
      FieldPixel am = LoadPixel<T>(above, x0 - 1), a0 = LoadPixel<T>(above, x0);
      FieldPixel bm = LoadPixel<T>(below, x0 - 1), b0 = LoadPixel<T>(below, x0);
      for (int32_t x = x0; x <= x1; ++x) {
        const FieldPixel ap = LoadPixel<T>(above, x + 1), bp = LoadPixel<T>(below, x + 1);
        EdgeThreePixel<T>(out + x * pixelBytes, am, a0, ap, bm, b0, bp);
        am = a0, a0 = ap, bm = b0, b0 = bp;
      }
    } else {
      if (x0 > x1) continue;
      FieldPixel a0 = LoadPixel<T>(above, x0 - 2), a1 = LoadPixel<T>(above, x0 - 1),
                 a2 = LoadPixel<T>(above, x0), a3 = LoadPixel<T>(above, x0 + 1);
      FieldPixel b0 = LoadPixel<T>(below, x0 - 2), b1 = LoadPixel<T>(below, x0 - 1),
                 b2 = LoadPixel<T>(below, x0), b3 = LoadPixel<T>(below, x0 + 1);
      for (int32_t x = x0; x <= x1; ++x) {
        const FieldPixel a4 = LoadPixel<T>(above, x + 2), b4 = LoadPixel<T>(below, x + 2);
        EdgeFivePixel<T>(out + x * pixelBytes, a0, a1, a2, a3, a4, b0, b1, b2, b3, b4);
        a0 = a1, a1 = a2, a2 = a3, a3 = a4;
        b0 = b1, b1 = b2, b2 = b3, b3 = b4;
      }
    }
  }
}

// After methods 3 and 4: the outer `band` columns of each side of every rebuilt row get
// the line average, outside in. Columns that do not exist on a narrow image are skipped.
template <class T>
void BorderPass(PLImage* image, int32_t field, int32_t band) {
  const RowWalk walk(image, field);
  for (int32_t y = walk.first; y >= 0; y -= 2) {
    const unsigned char* above = image->Row(walk.Above(y));
    const unsigned char* below = image->Row(walk.Below(y));
    unsigned char* out = image->Row(y);
    for (int32_t i = 0; i < band; ++i) {
      const int32_t left = i, right = image->lastColumn - i;
      if (left <= image->lastColumn) AveragePixel<T>(out, above, below, left);
      if (right >= 0) AveragePixel<T>(out, above, below, right);
    }
  }
}

}  // namespace

void InterpolateField(PLImage* dst, const PLImage* src, int32_t method, int32_t field) {
  if (DifferentLayout(dst, src)) return;
  if (src->channels != kChannels) return;
  CopyRows(dst, src);
  if (dst->channels != kChannels) return;
  if (method == PLFieldNone || field == 1) return;
  if (method < PLFieldReplicate || method > PLFieldEdgeFive) return;
  // One row has no neighbour to rebuild from (the walk would leave the image).
  if (dst->height < 2) return;

  NuvMPWorker worker = nullptr;
  if (method == PLFieldReplicate) {
    worker = ReplicateColumns;
  } else {
    PLDispatchType(dst->dataType, [&](auto tag) {
      using T = typename decltype(tag)::Type;
      worker = method == PLFieldAverage  ? FieldColumns<T, 2>
               : method == PLFieldEdgeThree ? FieldColumns<T, 3>
                                            : FieldColumns<T, 4>;
    });
  }
  if (!worker) return;  // methods 2 to 4 on a type outside the three: the copy stands

  // Columns, not rows: each worker owns a band of columns of every rebuilt row and reads
  // only the kept rows, which nobody writes.
  const int32_t threads = NuvMPThreadsForRows(dst->width);
  NuvMPFork(threads, dst->width, worker, dst, &field);

  if (method == PLFieldEdgeThree || method == PLFieldEdgeFive) {
    const int32_t band = method == PLFieldEdgeThree ? 1 : 2;
    PLDispatchType(dst->dataType, [&](auto tag) {
      using T = typename decltype(tag)::Type;
      BorderPass<T>(dst, field, band);
    });
  }
}
