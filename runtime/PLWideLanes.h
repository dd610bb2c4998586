// flowblur: short names for the eight-lane AVX2 vectors of the wide loops, for the files that
// hold such loops (run only where PLWideChosen(), runtime/PLWidePath.h).
#pragma once
#if !defined(FLOWBLUR_PLAIN_ONLY)
#include <immintrin.h>

#include <cstdint>

namespace plwide {

typedef __m256 F8;
typedef __m256i I8;

__attribute__((target("avx2"), always_inline)) inline F8 Set(float f) {
  return _mm256_set1_ps(f);
}
__attribute__((target("avx2"), always_inline)) inline I8 SetI(int32_t i) {
  return _mm256_set1_epi32(i);
}
__attribute__((target("avx2"), always_inline)) inline F8 AsF(I8 v) {
  return _mm256_castsi256_ps(v);
}
__attribute__((target("avx2"), always_inline)) inline I8 AsI(F8 v) {
  return _mm256_castps_si256(v);
}
// `yes` in the lanes of `mask`, `no` elsewhere.
__attribute__((target("avx2"), always_inline)) inline F8 Blend(F8 no, F8 yes, F8 mask) {
  return _mm256_blendv_ps(no, yes, mask);
}
__attribute__((target("avx2"), always_inline)) inline I8 BlendI(I8 no, I8 yes, I8 mask) {
  return AsI(_mm256_blendv_ps(AsF(no), AsF(yes), AsF(mask)));
}
__attribute__((target("avx2"), always_inline)) inline bool Any(I8 mask) {
  return _mm256_movemask_ps(AsF(mask)) != 0;
}

}  // namespace plwide

#endif
