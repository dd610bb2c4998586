// flowblur: the float-to-half rule sixteen samples at a time in AVX2 lanes.
#include "shell/SparkPack.h"

#if !defined(FLOWBLUR_PLAIN_ONLY)

#include <immintrin.h>

#include "runtime/PLWideBegin.h"

namespace {

typedef __m256i I8;

inline I8 Set(int32_t v) { return _mm256_set1_epi32(v); }
inline I8 Choose(I8 mask, I8 yes, I8 no) { return _mm256_blendv_epi8(no, yes, mask); }

// SparkFloatToHalf by lane: each of its three ways worked out for every lane, and the lane's
// own taken. Integer operations only, so every bit is the rule's.
inline I8 ToHalf8(I8 f) {
  const I8 h = _mm256_and_si256(_mm256_srli_epi32(f, 16), Set(0x8000));
  const I8 x = _mm256_and_si256(_mm256_srli_epi32(f, 23), Set(0xFF));
  const I8 m = _mm256_and_si256(f, Set(0x7FFFFF));
  const I8 e = _mm256_sub_epi32(x, Set(112));
  // Below a normal half (e <= 0): the mantissa with its hidden bit shifted down by 1 - e and
  // rounded on bit 12; nothing, sign included, below 2^-25 (e < -10). Lanes of the other
  // ways shift by 0 or by a negative count (which gives 0); their result is not taken.
  I8 v = _mm256_srlv_epi32(_mm256_or_si256(m, Set(0x800000)), _mm256_sub_epi32(Set(1), e));
  v = _mm256_add_epi32(v, _mm256_and_si256(_mm256_slli_epi32(v, 1), Set(0x2000)));
  const I8 small = _mm256_andnot_si256(_mm256_cmpgt_epi32(Set(-10), e),
                                       _mm256_or_si256(h, _mm256_srli_epi32(v, 13)));
  // Infinity (m = 0) or NaN: a NaN keeps its top ten mantissa bits, and is at least 1.
  const I8 t = _mm256_srli_epi32(m, 13);
  const I8 nanBits = _mm256_or_si256(
      t, _mm256_and_si256(_mm256_cmpeq_epi32(t, _mm256_setzero_si256()), Set(1)));
  const I8 special = _mm256_or_si256(
      _mm256_or_si256(h, Set(0x7C00)),
      _mm256_andnot_si256(_mm256_cmpeq_epi32(m, _mm256_setzero_si256()), nanBits));
  // Normal: bit 12 adds 0x2000, whose carry out of the mantissa steps the exponent up and
  // leaves a mantissa that shifts to 0, as the rule's; an exponent of 31 or more is infinity.
  const I8 r = _mm256_add_epi32(_mm256_or_si256(_mm256_slli_epi32(e, 23), m),
                                _mm256_and_si256(_mm256_slli_epi32(f, 1), Set(0x2000)));
  const I8 exponent = _mm256_srli_epi32(r, 23);
  const I8 normal = Choose(_mm256_cmpgt_epi32(exponent, Set(30)), _mm256_or_si256(h, Set(0x7C00)),
                           _mm256_or_si256(_mm256_or_si256(h, _mm256_slli_epi32(exponent, 10)),
                                           _mm256_and_si256(_mm256_srli_epi32(r, 13),
                                                            Set(0x3FF))));
  return Choose(_mm256_cmpgt_epi32(Set(1), e), small,
                Choose(_mm256_cmpeq_epi32(x, Set(0xFF)), special, normal));
}

}  // namespace

uint64_t SparkFloatsToHalvesWide(unsigned char* dst, const unsigned char* src, uint64_t n) {
  uint64_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const I8 a = ToHalf8(_mm256_loadu_si256(reinterpret_cast<const I8*>(src + 4 * i)));
    const I8 b = ToHalf8(_mm256_loadu_si256(reinterpret_cast<const I8*>(src + 4 * i + 32)));
    // Every result fits in 16 bits, so the saturating pack changes none; it works by
    // 128-bit halves, which the 64-bit permute puts back in order.
    const I8 packed = _mm256_permute4x64_epi64(_mm256_packus_epi32(a, b), 0xD8);
    _mm256_storeu_si256(reinterpret_cast<I8*>(dst + 2 * i), packed);
  }
  return i;
}

#include "runtime/PLWideEnd.h"

#endif  // FLOWBLUR_PLAIN_ONLY
