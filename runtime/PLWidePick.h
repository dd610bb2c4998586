// flowblur: picking samples from a short stretch of a row by lane, for the wide loops whose
// eight lanes read neighbouring samples (cheaper than a gather: whole loads and permutations).
#pragma once
#if !defined(FLOWBLUR_PLAIN_ONLY)
#include <immintrin.h>

// Lane l: the sample at index[l] (0 to 15) of the sixteen in lo (0 to 7) and hi (8 to 15).
__attribute__((target("avx2"), always_inline)) inline __m256 PLPickOf16(__m256 lo, __m256 hi,
                                                                       __m256i index) {
  const __m256 high = _mm256_castsi256_ps(_mm256_cmpgt_epi32(index, _mm256_set1_epi32(7)));
  return _mm256_blendv_ps(_mm256_permutevar8x32_ps(lo, index),
                          _mm256_permutevar8x32_ps(hi, index), high);
}
#endif
