// flowblur: the luma of 8-bit RGB rows, four pixels side by side in AVX2 lanes.
#include "flow/PLFlowPrivate.h"

#if !defined(FLOWBLUR_PLAIN_ONLY)

#include <immintrin.h>

#include <cstring>

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

namespace plflow {

// The plain loop adds the table products (0.3 c0 + 0.59 c1) + 0.11 c2 in double, each
// product the double multiplication itself; here each lane makes the same three products
// and sums in that order, and narrows to float the same way.
int32_t LumaRowRGB8Wide(float* d, const unsigned char* s, int32_t w) {
  const __m128i pickR = _mm_setr_epi8(0, -1, -1, -1, 3, -1, -1, -1, 6, -1, -1, -1, 9, -1, -1, -1);
  const __m128i pickG = _mm_setr_epi8(1, -1, -1, -1, 4, -1, -1, -1, 7, -1, -1, -1, 10, -1, -1, -1);
  const __m128i pickB = _mm_setr_epi8(2, -1, -1, -1, 5, -1, -1, -1, 8, -1, -1, -1, 11, -1, -1, -1);
  const __m256d k0 = _mm256_set1_pd(0.3);
  const __m256d k1 = _mm256_set1_pd(0.59);
  const __m256d k2 = _mm256_set1_pd(0.11);
  int32_t x = 0;
  for (; x + 4 <= w; x += 4, s += 12) {
    // Exactly the twelve bytes of the four pixels: never past the row.
    int32_t tail;
    std::memcpy(&tail, s + 8, 4);
    const __m128i v = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s)),
                                         _mm_cvtsi32_si128(tail));
    const __m256d c0 = _mm256_cvtepi32_pd(_mm_shuffle_epi8(v, pickR));
    const __m256d c1 = _mm256_cvtepi32_pd(_mm_shuffle_epi8(v, pickG));
    const __m256d c2 = _mm256_cvtepi32_pd(_mm_shuffle_epi8(v, pickB));
    const __m256d sum = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(k0, c0), _mm256_mul_pd(k1, c1)),
                                      _mm256_mul_pd(k2, c2));
    _mm_storeu_ps(d + x, _mm256_cvtpd_ps(sum));
  }
  return x;
}

}  // namespace plflow

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#endif  // FLOWBLUR_PLAIN_ONLY
