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

// The four corners of eight bilinear cells from sixteen samples of two rows: lane l's cell
// has its left column index[l] (0 to 14) counted from `upper` and `lower`.
__attribute__((target("avx2"), always_inline)) inline void PLPickCells16(
    const float* upper, const float* lower, __m256i index, __m256* upperLeft,
    __m256* upperRight, __m256* lowerLeft, __m256* lowerRight) {
  const __m256i right = _mm256_add_epi32(index, _mm256_set1_epi32(1));
  const __m256 upperLo = _mm256_loadu_ps(upper), upperHi = _mm256_loadu_ps(upper + 8);
  const __m256 lowerLo = _mm256_loadu_ps(lower), lowerHi = _mm256_loadu_ps(lower + 8);
  *upperLeft = PLPickOf16(upperLo, upperHi, index);
  *upperRight = PLPickOf16(upperLo, upperHi, right);
  *lowerLeft = PLPickOf16(lowerLo, lowerHi, index);
  *lowerRight = PLPickOf16(lowerLo, lowerHi, right);
}
#endif
