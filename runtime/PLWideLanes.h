// flowblur: short names for the eight-lane AVX2 vectors of the wide loops, for the files that
// hold such loops (run only where PLWideChosen(), runtime/PLWidePath.h).
#pragma once
#if !defined(FLOWBLUR_PLAIN_ONLY)
#include <immintrin.h>

#include <cstdint>

namespace plwide {

typedef __m256 F8;
typedef __m256i I8;

__attribute__((target("avx2"), always_inline)) inline F8 Set(float f) { return _mm256_set1_ps(f); }
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

// The bilinear cell rule by lane: i = trunc(p), t = p - i; at or beyond the last index the
// cell slides back by one with t = 1.
__attribute__((target("avx2"), always_inline)) inline void CellOf(F8 p, int32_t last, I8* i,
                                                                  F8* t) {
  *i = _mm256_cvttps_epi32(p);
  *t = _mm256_sub_ps(p, _mm256_cvtepi32_ps(*i));
  const I8 slide = _mm256_cmpgt_epi32(*i, SetI(last - 1));
  *i = _mm256_min_epi32(*i, SetI(last - 1));  // the slid index where `slide`
  *t = Blend(*t, Set(1.0f), AsF(slide));
}

// Four bytes at each lane's byte offset from `base`, for offsets up to lastWord + 3 (the
// offset of the data's last four bytes plus three): a pixel of fewer than four bytes at the
// very end has no four bytes after it, so the last word is read and shifted down instead.
__attribute__((target("avx2"), always_inline)) inline I8 WordAt(const unsigned char* base,
                                                                int32_t lastWord, I8 off) {
  const I8 at = _mm256_min_epi32(off, SetI(lastWord));
  const I8 shift = _mm256_slli_epi32(_mm256_sub_epi32(off, at), 3);
  const I8 word = _mm256_i32gather_epi32(reinterpret_cast<const int*>(base), at, 1);
  return _mm256_srlv_epi32(word, shift);
}

}  // namespace plwide

#endif
