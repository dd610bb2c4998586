// flowblur: the gather warp's bilinear read of 8-bit images, eight pixels of a row side by side
// in AVX2 lanes, each lane doing the plain loop's operations in its order.
#include "retime/NuvChronar4Private.h"

#if !defined(FLOWBLUR_PLAIN_ONLY)

#include <immintrin.h>

#include "runtime/PLWideBegin.h"
#include "runtime/PLWideLanes.h"

namespace {

using namespace plwide;

// a + (b - a) * t, the plain loop's mix.
inline F8 Mix(F8 a, F8 b, F8 t) { return _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a), t)); }

// The flow sample at byte `at` of each lane's cell in both flow rows, mixed as the plain loop.
inline F8 FlowAt(const chronar::GatherWideRow& r, I8 off, F8 t, int32_t at) {
  const float* f0 = reinterpret_cast<const float*>(r.flow0 + at);
  const float* f1 = reinterpret_cast<const float*>(r.flow1 + at);
  const I8 right = _mm256_add_epi32(off, SetI(r.flowBpp));
  const F8 top = Mix(_mm256_i32gather_ps(f0, off, 1), _mm256_i32gather_ps(f0, right, 1), t);
  const F8 bottom = Mix(_mm256_i32gather_ps(f1, off, 1), _mm256_i32gather_ps(f1, right, 1), t);
  return Mix(top, bottom, Set(r.flowT));
}

// Byte c of each lane's word, as a float.
inline F8 Byte(I8 word, int32_t c) {
  return _mm256_cvtepi32_ps(_mm256_and_si256(_mm256_srli_epi32(word, 8 * c), SetI(0xff)));
}

// The plain loop's clamp into 0 .. last (NaN gives 0).
inline F8 Clamp(F8 p, float last) {
  const F8 positive = _mm256_cmp_ps(p, _mm256_setzero_ps(), _CMP_GT_OQ);
  return _mm256_and_ps(Blend(p, Set(last), _mm256_cmp_ps(p, Set(last), _CMP_GT_OQ)), positive);
}

}  // namespace

namespace chronar {

template <int32_t C>
int32_t GatherRowWide(const GatherWideRow& r) {
  const F8 iotaF = _mm256_setr_ps(0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f);
  const F8 yv = Set(static_cast<float>(r.y));
  int32_t x = 0;
  for (; x + 8 <= r.width; x += 8) {
    const I8 off = _mm256_loadu_si256(reinterpret_cast<const I8*>(r.columnOffset + x));
    const F8 t = _mm256_loadu_ps(r.columnT + x);
    const F8 u = FlowAt(r, off, t, 0);
    const F8 v = FlowAt(r, off, t, 4);
    F8 px = _mm256_add_ps(_mm256_add_ps(Set(static_cast<float>(x)), iotaF),
                          _mm256_mul_ps(Set(r.share), _mm256_mul_ps(u, Set(r.toDstX))));
    F8 py = _mm256_add_ps(yv, _mm256_mul_ps(Set(r.share), _mm256_mul_ps(v, Set(r.toDstY))));
    const F8 zero = _mm256_setzero_ps();
    const F8 inside = _mm256_and_ps(_mm256_and_ps(_mm256_cmp_ps(px, zero, _CMP_GE_OQ),
                                                  _mm256_cmp_ps(px, Set(r.lastX), _CMP_LE_OQ)),
                                    _mm256_and_ps(_mm256_cmp_ps(py, zero, _CMP_GE_OQ),
                                                  _mm256_cmp_ps(py, Set(r.lastY), _CMP_LE_OQ)));
    const int32_t insideBits = _mm256_movemask_ps(inside);
    if (r.mask) {
      const __m128i words = _mm_packs_epi32(_mm256_castsi256_si128(AsI(inside)),
                                            _mm256_extracti128_si256(AsI(inside), 1));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(r.mask + x), _mm_packs_epi16(words, words));
    }
    const int32_t written = r.clampOutside ? 0xff : insideBits;
    if (written == 0) continue;
    // Outside lanes are clamped in; where they are not written they read the clamped place
    // too, which lies inside the source.
    px = Blend(Clamp(px, r.lastX), px, inside);
    py = Blend(Clamp(py, r.lastY), py, inside);
    I8 ix, iy;
    F8 tx, ty;
    CellOf(px, r.srcLastColumn, &ix, &tx);  // px and py are never negative here
    CellOf(py, r.srcLastRow, &iy, &ty);
    const I8 up =
        _mm256_add_epi32(_mm256_add_epi32(SetI(r.srcRow0), _mm256_mullo_epi32(iy, SetI(r.srcStep))),
                         _mm256_mullo_epi32(ix, SetI(r.srcBpp)));
    const I8 low = _mm256_add_epi32(up, SetI(r.srcStep));
    const I8 w00 = WordAt(r.srcBase, r.srcLastWord, up),
             w10 = WordAt(r.srcBase, r.srcLastWord, _mm256_add_epi32(up, SetI(r.srcBpp)));
    const I8 w01 = WordAt(r.srcBase, r.srcLastWord, low),
             w11 = WordAt(r.srcBase, r.srcLastWord, _mm256_add_epi32(low, SetI(r.srcBpp)));
    alignas(32) int32_t result[C][8];
    for (int32_t c = 0; c < C; ++c) {
      const F8 top = Mix(Byte(w00, c), Byte(w10, c), tx);
      const F8 bottom = Mix(Byte(w01, c), Byte(w11, c), tx);
      // The store rule: + 0.5, truncated, 255 at and above, 0 for anything not above 0.
      const F8 rounded = _mm256_add_ps(Mix(top, bottom, ty), Set(0.5f));
      const I8 sample = _mm256_cvttps_epi32(_mm256_min_ps(rounded, Set(255.0f)));
      _mm256_store_si256(reinterpret_cast<I8*>(result[c]),
                         _mm256_and_si256(sample, AsI(_mm256_cmp_ps(rounded, zero, _CMP_GT_OQ))));
    }
    unsigned char* out = r.out + x * r.srcBpp;
    for (int32_t l = 0; l < 8; ++l, out += C)
      if (written & (1 << l))
        for (int32_t c = 0; c < C; ++c) out[c] = static_cast<unsigned char>(result[c][l]);
  }
  return x;
}

template int32_t GatherRowWide<1>(const GatherWideRow&);
template int32_t GatherRowWide<2>(const GatherWideRow&);
template int32_t GatherRowWide<3>(const GatherWideRow&);
template int32_t GatherRowWide<4>(const GatherWideRow&);

}  // namespace chronar

#include "runtime/PLWideEnd.h"

#endif  // FLOWBLUR_PLAIN_ONLY
