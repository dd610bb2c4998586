// flowblur: the luma of RGB rows (8-bit, 16-bit, Float), four pixels side by side in AVX2 lanes.
#include "flow/PLFlowPrivate.h"

#if !defined(FLOWBLUR_PLAIN_ONLY)

#include <immintrin.h>

#include <cstring>

#include "runtime/PLWideBegin.h"

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

// The plain loop forms (0.3 c0 + 0.59 c1) + 0.11 c2 in double from the 16-bit samples,
// divides by 257.0 in double and narrows once; each lane does the same.
int32_t LumaRowRGB16Wide(float* d, const unsigned char* s, int32_t w) {
  // Channel c of pixels 0 and 1 (bytes 0..11 of four pixels) into lanes 0 and 1, and of
  // pixels 2 and 3 (bytes 12..23, moved down to 0..11) into lanes 2 and 3, zero-extended.
  const __m128i low[3] = {
      _mm_setr_epi8(0, 1, -1, -1, 6, 7, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1),
      _mm_setr_epi8(2, 3, -1, -1, 8, 9, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1),
      _mm_setr_epi8(4, 5, -1, -1, 10, 11, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1)};
  const __m128i high[3] = {
      _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, 0, 1, -1, -1, 6, 7, -1, -1),
      _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, 2, 3, -1, -1, 8, 9, -1, -1),
      _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, 4, 5, -1, -1, 10, 11, -1, -1)};
  const __m256d k[3] = {_mm256_set1_pd(0.3), _mm256_set1_pd(0.59), _mm256_set1_pd(0.11)};
  const __m256d white = _mm256_set1_pd(257.0);
  int32_t x = 0;
  for (; x + 4 <= w; x += 4, s += 24) {
    // Exactly the 24 bytes of the four pixels: never past the row.
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
    const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(s + 16));
    const __m128i upper = _mm_alignr_epi8(b, a, 12);
    __m256d c[3];
    for (int32_t ch = 0; ch < 3; ++ch)
      c[ch] = _mm256_cvtepi32_pd(
          _mm_or_si128(_mm_shuffle_epi8(a, low[ch]), _mm_shuffle_epi8(upper, high[ch])));
    const __m256d sum = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(k[0], c[0]),
                                                    _mm256_mul_pd(k[1], c[1])),
                                      _mm256_mul_pd(k[2], c[2]));
    _mm_storeu_ps(d + x, _mm256_cvtpd_ps(_mm256_div_pd(sum, white)));
  }
  return x;
}

// The same for Float samples, multiplied by 255.0 in double instead of divided.
int32_t LumaRowRGBFloatWide(float* d, const unsigned char* s, int32_t w) {
  const __m256d k[3] = {_mm256_set1_pd(0.3), _mm256_set1_pd(0.59), _mm256_set1_pd(0.11)};
  const __m256d scale = _mm256_set1_pd(255.0);
  int32_t x = 0;
  for (; x + 4 <= w; x += 4, s += 48) {
    // Exactly the twelve samples of the four pixels, by three loads (a row may sit at any
    // address): r0 g0 b0 r1 | g1 b1 r2 g2 | b2 r3 g3 b3, then split by channel.
    const __m128 v0 = _mm_loadu_ps(reinterpret_cast<const float*>(s));
    const __m128 v1 = _mm_loadu_ps(reinterpret_cast<const float*>(s + 16));
    const __m128 v2 = _mm_loadu_ps(reinterpret_cast<const float*>(s + 32));
    const __m128 r23 = _mm_shuffle_ps(v1, v2, _MM_SHUFFLE(1, 1, 2, 2));    // r2 r2 r3 r3
    const __m128 g01 = _mm_shuffle_ps(v0, v1, _MM_SHUFFLE(0, 0, 1, 1));    // g0 g0 g1 g1
    const __m128 g23 = _mm_shuffle_ps(v1, v2, _MM_SHUFFLE(2, 2, 3, 3));    // g2 g2 g3 g3
    const __m128 b01 = _mm_shuffle_ps(v0, v1, _MM_SHUFFLE(1, 1, 2, 2));    // b0 b0 b1 b1
    const __m256d c[3] = {
        _mm256_cvtps_pd(_mm_shuffle_ps(v0, r23, _MM_SHUFFLE(2, 0, 3, 0))),
        _mm256_cvtps_pd(_mm_shuffle_ps(g01, g23, _MM_SHUFFLE(2, 0, 2, 0))),
        _mm256_cvtps_pd(_mm_shuffle_ps(b01, v2, _MM_SHUFFLE(3, 0, 2, 0)))};
    const __m256d sum = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(k[0], c[0]),
                                                    _mm256_mul_pd(k[1], c[1])),
                                      _mm256_mul_pd(k[2], c[2]));
    _mm_storeu_ps(d + x, _mm256_cvtpd_ps(_mm256_mul_pd(sum, scale)));
  }
  return x;
}

}  // namespace plflow

#include "runtime/PLWideEnd.h"

#endif  // FLOWBLUR_PLAIN_ONLY
