// flowblur: the motion-blur row renderers, one template for every pixel layout and border rule.
#include <emmintrin.h>

#include <cmath>
#include <cstring>
#include <type_traits>

#include "blur/PLBlurWide.h"
#include "blur/PLMotionBlur.h"
#include "image/PLPixelConvert.h"

namespace {

// The four accumulator lanes of one pixel: channel i in lane i, lanes at and beyond the
// channel count zero. Every sum and bilinear mix below is one four-wide operation on it;
// each lane sees exactly the scalar rule's operations in the scalar rule's order.
typedef __m128 Lanes;

// Hardware truncation toward zero (cvttss2si): out of range or NaN gives 0x80000000,
// like PLTruncToInt32, without a branch and without undefined behaviour.
inline int32_t TruncToInt32(float f) { return _mm_cvttss_si32(_mm_set_ss(f)); }

// One pixel's C samples as float lanes. Loads go through byte copies or unaligned
// vector loads: padded host rows need not keep samples aligned.
template <class T, int32_t C>
inline Lanes LoadLanes(const unsigned char* p) {
  if constexpr (std::is_same<T, float>::value) {
    if constexpr (C == 1) {
      return _mm_castsi128_ps(_mm_cvtsi32_si128(PLLoad<int32_t>(p)));
    } else if constexpr (C == 2) {
      return _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    } else if constexpr (C == 3) {
      __m128 low = _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
      __m128 third = _mm_castsi128_ps(_mm_cvtsi32_si128(PLLoad<int32_t>(p + 8)));
      return _mm_movelh_ps(low, third);
    } else {
      return _mm_loadu_ps(reinterpret_cast<const float*>(p));
    }
  } else {
    // Integer samples: gather the C samples into the low bytes of a register (in registers:
    // a byte-wise copy through memory would stall the wide reload), widen, convert.
    uint64_t bits;
    if constexpr (sizeof(T) == 1) {
      if constexpr (C == 1) bits = p[0];
      else if constexpr (C == 2) bits = PLLoad<uint16_t>(p);
      else if constexpr (C == 3) bits = PLLoad<uint16_t>(p) | (uint64_t{p[2]} << 16);
      else bits = PLLoad<uint32_t>(p);
    } else {
      if constexpr (C == 1) bits = PLLoad<uint16_t>(p);
      else if constexpr (C == 2) bits = PLLoad<uint32_t>(p);
      else if constexpr (C == 3) bits = PLLoad<uint32_t>(p) | (uint64_t{PLLoad<uint16_t>(p + 4)} << 32);
      else bits = PLLoad<uint64_t>(p);
    }
    __m128i v = _mm_cvtsi64_si128(static_cast<int64_t>(bits));
    const __m128i zero = _mm_setzero_si128();
    if constexpr (sizeof(T) == 1) v = _mm_unpacklo_epi8(v, zero);
    v = _mm_unpacklo_epi16(v, zero);
    return _mm_cvtepi32_ps(v);
  }
}

// Stores the low `Bytes` bytes of `bits` (little-endian) from registers, in whole stores.
template <int32_t Bytes, class U>
inline void StoreLow(unsigned char* d, U bits) {
  if constexpr (Bytes == 1) {
    d[0] = static_cast<uint8_t>(bits);
  } else if constexpr (Bytes == 2) {
    PLStore<uint16_t>(d, static_cast<uint16_t>(bits));
  } else if constexpr (Bytes == 3) {
    PLStore<uint16_t>(d, static_cast<uint16_t>(bits));
    d[2] = static_cast<uint8_t>(bits >> 16);
  } else if constexpr (Bytes == 4) {
    PLStore<uint32_t>(d, static_cast<uint32_t>(bits));
  } else if constexpr (Bytes == 6) {
    PLStore<uint32_t>(d, static_cast<uint32_t>(bits));
    PLStore<uint16_t>(d + 4, static_cast<uint16_t>(static_cast<uint64_t>(bits) >> 32));
  } else {
    static_assert(Bytes == 8, "1 to 4 samples of 1 or 2 bytes");
    PLStore<uint64_t>(d, static_cast<uint64_t>(bits));
  }
}

// Stores the first C lanes as the pixel's samples, finishing by type: Float as it is,
// integers as (float)(int)(x + 0.5) clamped to the type's range, low end first.
template <class T, int32_t C>
inline void StoreLanes(unsigned char* d, Lanes average) {
  if constexpr (std::is_same<T, float>::value) {
    if constexpr (C == 1) {
      PLStore<int32_t>(d, _mm_cvtsi128_si32(_mm_castps_si128(average)));  // d may be unaligned
    } else if constexpr (C == 2) {
      _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm_castps_si128(average));
    } else if constexpr (C == 3) {
      _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm_castps_si128(average));
      int32_t third = _mm_cvtsi128_si32(_mm_castps_si128(_mm_movehl_ps(average, average)));
      PLStore<int32_t>(d + 8, third);
    } else {
      _mm_storeu_ps(reinterpret_cast<float*>(d), average);
    }
  } else {
    constexpr float kHigh = sizeof(T) == 1 ? 255.0f : 65535.0f;
    Lanes rounded = _mm_cvtepi32_ps(_mm_cvttps_epi32(average + 0.5f));
    rounded = _mm_max_ps(rounded, _mm_setzero_ps());
    rounded = _mm_min_ps(rounded, _mm_set1_ps(kHigh));
    __m128i q = _mm_cvttps_epi32(rounded);  // exact: whole numbers in range
    if constexpr (sizeof(T) == 1) {
      q = _mm_packs_epi32(q, q);  // 0..255 passes the signed 16-bit pack unchanged
      q = _mm_packus_epi16(q, q);
      StoreLow<C>(d, static_cast<uint32_t>(_mm_cvtsi128_si32(q)));
    } else {
      // No unsigned 32-to-16 pack in the base instruction set: shift into the signed
      // range, pack, and flip the top bit back.
      q = _mm_sub_epi32(q, _mm_set1_epi32(32768));
      q = _mm_packs_epi32(q, q);
      q = _mm_xor_si128(q, _mm_set1_epi16(static_cast<int16_t>(0x8000)));
      StoreLow<2 * C>(d, static_cast<uint64_t>(_mm_cvtsi128_si64(q)));
    }
  }
}

// Addressing of one view, resolved once per call. Row y lies at row0 + y * step, which
// is the rowOrder rule (y, or lastRow - y, times rowBytes) with the branch taken once.
struct ViewRows {
  unsigned char* row0;
  int32_t step;     // signed distance from row y to row y + 1
  int32_t below;    // the view's rowStep: the row under a bilinear cell
  int32_t lastColumn;
  int32_t lastRow;
  int32_t width;
  int32_t height;

  explicit ViewRows(const NuvImage* v)
      : row0(v->rowOrder == 1 ? v->data : v->data + v->lastRow * v->rowBytes),
        step(v->rowOrder == 1 ? v->rowBytes : -v->rowBytes),
        below(v->rowStep),
        lastColumn(v->lastColumn),
        lastRow(v->lastRow),
        width(v->width),
        height(v->height) {}
  unsigned char* Row(int32_t y) const { return row0 + y * step; }
};

// One direction of the walk: `count` samples from (px, py), stepping by (dx, dy).
template <class T, int32_t C, bool CountOutside, bool Bilinear>
inline void Walk(const ViewRows& s, float px, float py, float dx, float dy, int32_t count,
                 Lanes& lanes, uint32_t& counter) {
  constexpr int32_t kPixelBytes = C * static_cast<int32_t>(sizeof(T));
  const float w = static_cast<float>(s.width);
  const float h = static_cast<float>(s.height);
  for (int32_t i = 0; i < count; ++i) {
    if constexpr (Bilinear) {
      if (0.0f <= px && px < w && 0.0f <= py && py < h) {
        int32_t ix = static_cast<int32_t>(px);  // px, py in range: plain truncation is safe
        float tx = px - static_cast<float>(ix);
        int32_t iy = static_cast<int32_t>(py);
        float ty = py - static_cast<float>(iy);
        // Slide the cell back at the last column or row, so the four-pixel read stays in.
        if (ix >= s.lastColumn) {
          ix = s.lastColumn - 1;
          tx = 1.0f;
        }
        if (iy >= s.lastRow) {
          iy = s.lastRow - 1;
          ty = 1.0f;
        }
        const unsigned char* up = s.Row(iy) + ix * kPixelBytes;
        const unsigned char* low = up + s.below;
        Lanes p = LoadLanes<T, C>(up);
        Lanes right = LoadLanes<T, C>(up + kPixelBytes);
        Lanes lower = LoadLanes<T, C>(low);
        Lanes lowerRight = LoadLanes<T, C>(low + kPixelBytes);
        Lanes a = tx * (right - p) + p;
        Lanes b = tx * (lowerRight - lower) + lower;
        lanes = lanes + (ty * (b - a) + a);
        ++counter;
      } else if constexpr (CountOutside) {
        ++counter;  // outside acts as black: it counts, adds nothing
      } else {
        return;
      }
    } else {
      // Truncation, not floor: a position just above -1 still reads column or row 0.
      int32_t ix = TruncToInt32(px);
      int32_t iy = TruncToInt32(py);
      if (ix >= 0 && ix < s.width && iy >= 0 && iy < s.height) {
        lanes = lanes + LoadLanes<T, C>(s.Row(iy) + ix * kPixelBytes);
        ++counter;
      } else if constexpr (CountOutside) {
        ++counter;
      } else {
        return;
      }
    }
    // Repeated addition, not recomputed from i: the position drifts as the rule says.
    px += dx;
    py += dy;
  }
}

// The row and pixel loop with one sampling path: flow lookup, half-vector, copy test,
// sample count and step, the walk both ways and the finish.
template <class T, int32_t C, bool CountOutside, bool Bilinear>
void BlurRowsPath(int32_t x0, int32_t x1, int32_t yFirst, int32_t yLast, NuvImage* dst,
                  const NuvImage* src, const NuvImage* flow, NuvIdleAndProgressClass* progress,
                  float amount) {
  constexpr int32_t kPixelBytes = C * static_cast<int32_t>(sizeof(T));
  const ViewRows s(src);
  const ViewRows f(flow);
  const ViewRows d(dst);
  // Ratio of last indices: first and last pixels of source and flow coincide.
  const float sx = static_cast<float>(flow->lastColumn) / static_cast<float>(src->lastColumn);
  const float sy = static_cast<float>(flow->lastRow) / static_cast<float>(src->lastRow);
  // 0.5 splits the motion into two halves; dividing by sx, sy carries a flow vector from
  // the flow's grid to the source's.
  const float gx = (0.5f / sx) * amount;
  const float gy = (0.5f / sy) * amount;
  // Bilinear sampling blurs even sub-pixel motion; nearest only once it spans a pixel.
  const float copyBelow = Bilinear ? 1e-6f : 1.0f;

  const float yEnd = static_cast<float>(yLast);
  const float xStart = static_cast<float>(x0);
  const float xEnd = static_cast<float>(x1);
  for (float y = static_cast<float>(yFirst); y <= yEnd; y += 1.0f) {
    if (yLast > yFirst)
      progress->Progress((y - static_cast<float>(yFirst)) / static_cast<float>(yLast - yFirst));
    const int32_t yi = static_cast<int32_t>(y);
    unsigned char* out = d.Row(yi) + x0 * kPixelBytes;
    const unsigned char* srcRow = s.Row(yi);

    int32_t iy;
    float ty;
    PLBlurFlowRowCell(y, sy, f.lastRow, &iy, &ty);
    const unsigned char* flowUp = f.Row(iy);
    const unsigned char* flowLow = flowUp + f.below;

    for (float x = xStart; x <= xEnd; x += 1.0f, out += kPixelBytes) {
      const float fx = sx * x;
      int32_t ix = static_cast<int32_t>(fx);
      float tx = fx - static_cast<float>(ix);
      if (ix >= f.lastColumn) {
        ix = f.lastColumn - 1;
        tx = 1.0f;
      }
      const unsigned char* ul = flowUp + ix * 8;
      const unsigned char* ll = flowLow + ix * 8;
      float u, v;
      {
        const float ulu = PLLoad<float>(ul), uru = PLLoad<float>(ul + 8);
        const float llu = PLLoad<float>(ll), lru = PLLoad<float>(ll + 8);
        const float a = tx * (uru - ulu) + ulu;
        const float b = tx * (lru - llu) + llu;
        u = ty * (b - a) + a;
      }
      {
        const float ulv = PLLoad<float>(ul + 4), urv = PLLoad<float>(ul + 12);
        const float llv = PLLoad<float>(ll + 4), lrv = PLLoad<float>(ll + 12);
        const float a = tx * (urv - ulv) + ulv;
        const float b = tx * (lrv - llv) + llv;
        v = ty * (b - a) + a;
      }
      const float hx = gx * u;
      const float hy = gy * v;
      const float m = hx * hx + hy * hy;
      if (m < copyBelow) {
        // Copied unchanged, with no conversion: floats keep every bit.
        std::memcpy(out, srcRow + static_cast<int32_t>(x) * kPixelBytes, kPixelBytes);
        continue;
      }
      const float len = std::sqrt(m);
      // Safe truncation: an infinite or absurd vector gives 0x80000000 and so n = 2.
      int32_t n = TruncToInt32(len + 1.0f);
      float dx, dy;
      if (n < 2) {
        n = 2;
        dx = hx;
        dy = hy;
      } else {
        dx = hx / static_cast<float>(n - 1);
        dy = hy / static_cast<float>(n - 1);
      }

      Lanes lanes = _mm_setzero_ps();
      uint32_t counter = 0;  // up to 2n - 1 samples: n may exceed 2^30
      if constexpr (Bilinear) {
        Walk<T, C, CountOutside, true>(s, x, y, dx, dy, n, lanes, counter);
        Walk<T, C, CountOutside, true>(s, x - dx, y - dy, -dx, -dy, n - 1, lanes, counter);
      } else {
        Walk<T, C, CountOutside, false>(s, x + 0.5f, y + 0.5f, dx, dy, n, lanes, counter);
        Walk<T, C, CountOutside, false>(s, (x + (-dx)) + 0.5f, (y + (-dy)) + 0.5f, -dx, -dy,
                                        n - 1, lanes, counter);
      }
      // The pixel itself is the first forward sample and lies inside: counter >= 1.
      const float inv = 1.0f / static_cast<float>(counter);
      StoreLanes<T, C>(out, lanes * inv);
    }
  }
}

#if defined(FLOWBLUR_PLAIN_ONLY)
constexpr bool kWideBuilt = false;
#else
constexpr bool kWideBuilt = true;
#endif

// A whole member: its local progress object, then one of the complete pixel loops: plain or
// wide (same bytes), bilinear or nearest.
template <class T, int32_t C, bool CountOutside>
void BlurRows(PLBlurPath path, int32_t x0, int32_t x1, int32_t yFirst, int32_t yLast,
              NuvImage* dst, const NuvImage* src, const NuvImage* flow,
              uint8_t bilinearSampling, NuvIdleAndProgressClass* progress, float amount) {
  NuvIdleAndProgressClass local(progress);
  if constexpr (kWideBuilt) {
    if (path == PLBlurPath::kWide && PLBlurWideAvailable()) {
      if (bilinearSampling)
        BlurRowsWidePath<T, C, CountOutside, true>(x0, x1, yFirst, yLast, dst, src, flow, &local,
                                                   amount);
      else
        BlurRowsWidePath<T, C, CountOutside, false>(x0, x1, yFirst, yLast, dst, src, flow, &local,
                                                    amount);
      return;
    }
  }
  if (bilinearSampling)
    BlurRowsPath<T, C, CountOutside, true>(x0, x1, yFirst, yLast, dst, src, flow, &local, amount);
  else
    BlurRowsPath<T, C, CountOutside, false>(x0, x1, yFirst, yLast, dst, src, flow, &local, amount);
}

}  // namespace

template <class T, int32_t C>
void BlurRowsStopAtEdge(int32_t x0, int32_t x1, int32_t yFirst, int32_t yLast, NuvImage* dst,
                        const NuvImage* src, const NuvImage* flow, uint8_t bilinearSampling,
                        NuvIdleAndProgressClass* progress, float amount) {
  BlurRows<T, C, false>(PLBlurChosenPath(), x0, x1, yFirst, yLast, dst, src, flow,
                        bilinearSampling, progress, amount);
}

template <class T, int32_t C>
void BlurRowsCountOutside(int32_t x0, int32_t x1, int32_t yFirst, int32_t yLast, NuvImage* dst,
                          const NuvImage* src, const NuvImage* flow, uint8_t bilinearSampling,
                          NuvIdleAndProgressClass* progress, float amount) {
  BlurRows<T, C, true>(PLBlurChosenPath(), x0, x1, yFirst, yLast, dst, src, flow,
                       bilinearSampling, progress, amount);
}

template <class T, int32_t C>
void BlurRowsOnPath(PLBlurPath path, bool countOutside, int32_t x0, int32_t x1, int32_t yFirst,
                    int32_t yLast, NuvImage* dst, const NuvImage* src, const NuvImage* flow,
                    uint8_t bilinearSampling, NuvIdleAndProgressClass* progress, float amount) {
  if (countOutside)
    BlurRows<T, C, true>(path, x0, x1, yFirst, yLast, dst, src, flow, bilinearSampling, progress,
                         amount);
  else
    BlurRows<T, C, false>(path, x0, x1, yFirst, yLast, dst, src, flow, bilinearSampling,
                          progress, amount);
}

// The 24 members: 3 sample types x 4 channel counts x 2 border rules.
#define PL_BLUR_MEMBERS(T, C)                                                                 \
  template void BlurRowsStopAtEdge<T, C>(int32_t, int32_t, int32_t, int32_t, NuvImage*,       \
                                         const NuvImage*, const NuvImage*, uint8_t,           \
                                         NuvIdleAndProgressClass*, float);                    \
  template void BlurRowsCountOutside<T, C>(int32_t, int32_t, int32_t, int32_t, NuvImage*,     \
                                           const NuvImage*, const NuvImage*, uint8_t,         \
                                           NuvIdleAndProgressClass*, float);                    \
  template void BlurRowsOnPath<T, C>(PLBlurPath, bool, int32_t, int32_t, int32_t, int32_t,    \
                                     NuvImage*, const NuvImage*, const NuvImage*, uint8_t,    \
                                     NuvIdleAndProgressClass*, float);
#define PL_BLUR_MEMBERS_ALL_CHANNELS(T) \
  PL_BLUR_MEMBERS(T, 1) PL_BLUR_MEMBERS(T, 2) PL_BLUR_MEMBERS(T, 3) PL_BLUR_MEMBERS(T, 4)
PL_BLUR_MEMBERS_ALL_CHANNELS(uint8_t)
PL_BLUR_MEMBERS_ALL_CHANNELS(uint16_t)
PL_BLUR_MEMBERS_ALL_CHANNELS(float)
