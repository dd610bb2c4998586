// flowblur: the propagation sweeps' wide loops, eight pixels side by side in AVX2 lanes.
#include "flow/PLFlowSweep.h"

#if !defined(FLOWBLUR_PLAIN_ONLY)

#include <immintrin.h>

#include "runtime/PLWideBegin.h"

namespace plflow {
namespace {

typedef __m256 F8;

inline F8 Set(float f) { return _mm256_set1_ps(f); }
inline F8 Select(F8 mask, F8 yes, F8 no) { return _mm256_blendv_ps(no, yes, mask); }
inline F8 Pair(__m128 lo, __m128 hi) {
  return _mm256_insertf128_ps(_mm256_castps128_ps256(lo), hi, 1);
}
// Four 8-lane vectors whose lane k (and k + 4) hold element k of four rows, turned into
// four vectors by element: the 4x4 transpose in each half.
inline void Transpose4(F8* c) {
  const F8 t0 = _mm256_unpacklo_ps(c[0], c[1]);
  const F8 t1 = _mm256_unpacklo_ps(c[2], c[3]);
  const F8 t2 = _mm256_unpackhi_ps(c[0], c[1]);
  const F8 t3 = _mm256_unpackhi_ps(c[2], c[3]);
  c[0] = _mm256_shuffle_ps(t0, t1, _MM_SHUFFLE(1, 0, 1, 0));
  c[1] = _mm256_shuffle_ps(t0, t1, _MM_SHUFFLE(3, 2, 3, 2));
  c[2] = _mm256_shuffle_ps(t2, t3, _MM_SHUFFLE(1, 0, 1, 0));
  c[3] = _mm256_shuffle_ps(t2, t3, _MM_SHUFFLE(3, 2, 3, 2));
}
// Three floats, never read past the third (lane 3 is 0).
inline __m128 Load3(const float* p) {
  const __m128 lo = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(p));
  return _mm_movelh_ps(lo, _mm_load_ss(p + 2));
}

struct Eval8 {
  F8 valid;
  F8 error;
};
// The four-lane patch error with eight lanes: lane l evaluates the patch of pixel
// (x[l], y[l]) for the vector (u[l], v[l]); invalid lanes are read at the safe cell (1, 1).
// `a[3 j + i]`, lane l, is first(x[l] - 1 + i, y[l] - 1 + j).
__attribute__((always_inline)) inline Eval8 PatchError8(const SweepImages& im, F8 fx, F8 fy,
                                                        F8 u, F8 v, const F8* a) {
  const F8 one = Set(1.0f);
  const F8 maxX = Set(static_cast<float>(im.w - 2));
  const F8 maxY = Set(static_cast<float>(im.h - 2));
  const F8 sx = _mm256_sub_ps(fx, u);
  const F8 sy = _mm256_sub_ps(fy, v);
  const F8 eqX = _mm256_cmp_ps(sx, maxX, _CMP_EQ_OQ);
  const F8 eqY = _mm256_cmp_ps(sy, maxY, _CMP_EQ_OQ);
  const F8 okX = _mm256_and_ps(_mm256_cmp_ps(sx, maxX, _CMP_LE_OS),
                               _mm256_or_ps(eqX, _mm256_cmp_ps(sx, one, _CMP_GE_OS)));
  const F8 okY = _mm256_and_ps(_mm256_cmp_ps(sy, maxY, _CMP_LE_OS),
                               _mm256_or_ps(eqY, _mm256_cmp_ps(sy, one, _CMP_GE_OS)));
  Eval8 r;
  r.valid = _mm256_and_ps(okX, okY);
  const __m256i ixT = _mm256_cvttps_epi32(sx);
  const __m256i iyT = _mm256_cvttps_epi32(sy);
  const F8 txT = _mm256_sub_ps(sx, _mm256_cvtepi32_ps(ixT));
  const F8 tyT = _mm256_sub_ps(sy, _mm256_cvtepi32_ps(iyT));
  const __m256i eqXi = _mm256_castps_si256(eqX);
  const __m256i eqYi = _mm256_castps_si256(eqY);
  const __m256i validi = _mm256_castps_si256(r.valid);
  const __m256i oneI = _mm256_set1_epi32(1);
  __m256i ix = _mm256_blendv_epi8(ixT, _mm256_set1_epi32(im.w - 3), eqXi);
  __m256i iy = _mm256_blendv_epi8(iyT, _mm256_set1_epi32(im.h - 3), eqYi);
  ix = _mm256_blendv_epi8(oneI, ix, validi);
  iy = _mm256_blendv_epi8(oneI, iy, validi);
  const F8 tx = Select(eqX, one, txT);
  const F8 ty = Select(eqY, one, tyT);
  const F8 txty = _mm256_mul_ps(tx, ty);
  const F8 w00 = _mm256_add_ps(_mm256_sub_ps(_mm256_sub_ps(one, tx), ty), txty);
  const F8 w10 = _mm256_sub_ps(tx, txty);
  const F8 w01 = _mm256_sub_ps(ty, txty);
  const F8 w11 = txty;
  alignas(32) int32_t ixs[8];
  alignas(32) int32_t iys[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(ixs), ix);
  _mm256_store_si256(reinterpret_cast<__m256i*>(iys), iy);
  const intptr_t step = im.second.step;
  const float* b[8];
  for (int32_t l = 0; l < 8; ++l) b[l] = im.second.Row(iys[l] - 1) + (ixs[l] - 1);
  // t[j][i], lane l: second(ix[l] - 1 + i, iy[l] - 1 + j).
  F8 t[4][4];
  for (int32_t j = 0; j < 4; ++j) {
    for (int32_t k = 0; k < 4; ++k)
      t[j][k] = Pair(_mm_loadu_ps(b[k] + j * step), _mm_loadu_ps(b[k + 4] + j * step));
    Transpose4(t[j]);
  }
  F8 sum = _mm256_setzero_ps();
  for (int32_t j = 0; j < 3; ++j) {
    for (int32_t i = 0; i < 3; ++i) {
      const F8 s = _mm256_add_ps(
          _mm256_add_ps(
              _mm256_add_ps(_mm256_mul_ps(w00, t[j][i]), _mm256_mul_ps(w10, t[j][i + 1])),
              _mm256_mul_ps(w01, t[j + 1][i])),
          _mm256_mul_ps(w11, t[j + 1][i + 1]));
      const F8 d = _mm256_sub_ps(a[3 * j + i], s);
      const F8 q = _mm256_mul_ps(d, d);
      sum = (i == 0 && j == 0) ? q : _mm256_add_ps(sum, q);  // 0 + q is q: never -0
    }
  }
  r.error = sum;
  return r;
}

struct Lanes8 {
  F8 u, v, e, state;
};
// The four-lane neighbour rule with eight lanes; `blocks(a)` fills the first image's
// blocks only when a lane needs them.
template <bool kFirstSweep, class Blocks>
__attribute__((always_inline)) inline Lanes8 TryNeighbour8(const SweepImages& im, F8 fx, F8 fy,
                                                           Lanes8 p, F8 gu, F8 gv,
                                                           Blocks blocks) {
  const F8 unknown = Set(kSweepUnknown);
  const F8 valid = Set(kSweepValid);
  const F8 skipped = Set(kSweepSkipped);
  const F8 equal = _mm256_and_ps(_mm256_cmp_ps(p.u, gu, _CMP_EQ_OQ),
                                 _mm256_cmp_ps(p.v, gv, _CMP_EQ_OQ));
  if (kFirstSweep) p.state = unknown;
  const F8 needE0 = _mm256_andnot_ps(equal, _mm256_cmp_ps(p.state, unknown, _CMP_EQ_OQ));
  F8 a[9];
  bool haveBlocks = false;
  if (_mm256_movemask_ps(needE0)) {
    blocks(a);
    haveBlocks = true;
    const F8 zero = _mm256_setzero_ps();
    const F8 sx = _mm256_sub_ps(fx, p.u);
    const F8 sy = _mm256_sub_ps(fy, p.v);
    const F8 inFrame = _mm256_and_ps(
        _mm256_and_ps(_mm256_cmp_ps(sx, zero, _CMP_GE_OS),
                      _mm256_cmp_ps(sx, Set(static_cast<float>(im.w - 1)), _CMP_LE_OS)),
        _mm256_and_ps(_mm256_cmp_ps(sy, zero, _CMP_GE_OS),
                      _mm256_cmp_ps(sy, Set(static_cast<float>(im.h - 1)), _CMP_LE_OS)));
    const Eval8 e0 = PatchError8(im, fx, fy, p.u, p.v, a);
    const F8 ok = _mm256_and_ps(inFrame, e0.valid);
    p.e = Select(_mm256_and_ps(needE0, ok), e0.error, p.e);
    p.state = Select(needE0, Select(ok, valid, skipped), p.state);
  }
  const F8 tryIt = _mm256_andnot_ps(equal, _mm256_cmp_ps(p.state, valid, _CMP_EQ_OQ));
  if (_mm256_movemask_ps(tryIt)) {
    if (!haveBlocks) blocks(a);
    const Eval8 e1 = PatchError8(im, fx, fy, gu, gv, a);
    const F8 take = _mm256_and_ps(_mm256_and_ps(tryIt, e1.valid),
                                  _mm256_cmp_ps(e1.error, p.e, _CMP_LT_OS));
    p.u = Select(take, gu, p.u);
    p.v = Select(take, gv, p.v);
    p.e = Select(take, e1.error, p.e);
  }
  return p;
}

// Interleaved pairs of eight consecutive pixels, split by channel, and back.
inline void LoadPairs(const float* p, F8* c0, F8* c1) {
  const F8 lo = _mm256_loadu_ps(p);
  const F8 hi = _mm256_loadu_ps(p + 8);
  // By half: lanes 0 1 4 5 | 2 3 6 7; the 64-bit swap puts them in order.
  const F8 e = _mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(2, 0, 2, 0));
  const F8 o = _mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1));
  *c0 = _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(e), _MM_SHUFFLE(3, 1, 2, 0)));
  *c1 = _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(o), _MM_SHUFFLE(3, 1, 2, 0)));
}
inline void StorePairs(float* p, F8 c0, F8 c1) {
  const F8 lo = _mm256_unpacklo_ps(c0, c1);  // pixels 0 1 | 4 5
  const F8 hi = _mm256_unpackhi_ps(c0, c1);  // pixels 2 3 | 6 7
  _mm256_storeu_ps(p, _mm256_permute2f128_ps(lo, hi, 0x20));
  _mm256_storeu_ps(p + 8, _mm256_permute2f128_ps(lo, hi, 0x31));
}
// One pixel in each of eight rows whose starts lie `rowIndex` floats from rows[0].
inline void GatherPairs(float* const* rows, __m256i rowIndex, int32_t x, F8* c0, F8* c1) {
  const float* at = rows[0] + 2 * x;
  *c0 = _mm256_i32gather_ps(at, rowIndex, 4);
  *c1 = _mm256_i32gather_ps(at + 1, rowIndex, 4);
}
// The same by eight loads, for rows too far apart for 32-bit indices.
inline void GatherPairs(float* const* rows, int32_t x, F8* c0, F8* c1) {
  *c0 = _mm256_setr_ps(rows[0][2 * x], rows[1][2 * x], rows[2][2 * x], rows[3][2 * x],
                       rows[4][2 * x], rows[5][2 * x], rows[6][2 * x], rows[7][2 * x]);
  *c1 = _mm256_setr_ps(rows[0][2 * x + 1], rows[1][2 * x + 1], rows[2][2 * x + 1],
                       rows[3][2 * x + 1], rows[4][2 * x + 1], rows[5][2 * x + 1],
                       rows[6][2 * x + 1], rows[7][2 * x + 1]);
}
inline void ScatterPairs(float* const* rows, int32_t x, F8 c0, F8 c1) {
  alignas(32) float a0[8];
  alignas(32) float a1[8];
  _mm256_store_ps(a0, c0);
  _mm256_store_ps(a1, c1);
  for (int32_t l = 0; l < 8; ++l) {
    rows[l][2 * x] = a0[l];
    rows[l][2 * x + 1] = a1[l];
  }
}

}  // namespace

template <int32_t kStep>
void RowSweep8(const SweepImages& im, int32_t y0) {
  const bool first = kStep > 0;
  float* flow[8];
  float* cache[8];
  const float* img[10];  // first-image rows y0 - 1 .. y0 + 8
  for (int32_t l = 0; l < 8; ++l) {
    flow[l] = im.flow.Row(y0 + l);
    cache[l] = im.cache.Row(y0 + l);
  }
  for (int32_t r = 0; r < 10; ++r) img[r] = im.first.Row(y0 - 1 + r);
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const F8 fy = _mm256_cvtepi32_ps(_mm256_add_epi32(_mm256_set1_epi32(y0), lane));
  const int32_t xBegin = kStep > 0 ? 1 : im.w - 2;
  const int32_t xEnd = kStep > 0 ? im.w - 1 : 0;
  // Row l of each image lies l steps from row 0: one index vector serves flow and cache
  // alike when the steps are equal and seven of them fit in 32 bits.
  const intptr_t step = im.flow.step;
  const bool indexed = step == im.cache.step && step < (intptr_t{1} << 27) &&
                       step > -(intptr_t{1} << 27);
  const __m256i rowIndex =
      _mm256_mullo_epi32(lane, _mm256_set1_epi32(indexed ? static_cast<int32_t>(step) : 0));
  auto gather = [&](float* const* rows, int32_t x, F8* c0, F8* c1) {
    if (indexed)
      GatherPairs(rows, rowIndex, x, c0, c1);
    else
      GatherPairs(rows, x, c0, c1);
  };
  F8 gu, gv;
  gather(flow, xBegin - kStep, &gu, &gv);
  for (int32_t x = xBegin; x != xEnd; x += kStep) {
    Lanes8 p;
    gather(flow, x, &p.u, &p.v);
    gather(cache, x, &p.e, &p.state);
    auto blocks = [&](F8* a) {
      __m128 rows[10];
      for (int32_t r = 0; r < 10; ++r) rows[r] = Load3(img[r] + x - 1);
      for (int32_t j = 0; j < 3; ++j) {
        F8 c[4];
        for (int32_t k = 0; k < 4; ++k) c[k] = Pair(rows[j + k], rows[j + k + 4]);
        Transpose4(c);
        a[3 * j] = c[0];
        a[3 * j + 1] = c[1];
        a[3 * j + 2] = c[2];
      }
    };
    const F8 fx = Set(static_cast<float>(x));
    const Lanes8 q = first ? TryNeighbour8<true>(im, fx, fy, p, gu, gv, blocks)
                           : TryNeighbour8<false>(im, fx, fy, p, gu, gv, blocks);
    ScatterPairs(flow, x, q.u, q.v);
    ScatterPairs(cache, x, q.e, q.state);
    gu = q.u;  // the next pixel's candidate is this pixel's flow as it now stands
    gv = q.v;
  }
}
template void RowSweep8<1>(const SweepImages&, int32_t);
template void RowSweep8<-1>(const SweepImages&, int32_t);

int32_t ColumnRow8(const SweepImages& im, int32_t x, int32_t last, int32_t y, float* row,
                   const float* previous, float* cache) {
  const F8 fy = Set(static_cast<float>(y));
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  for (; x + 7 <= last; x += 8) {
    Lanes8 p;
    F8 gu, gv;
    LoadPairs(row + 2 * x, &p.u, &p.v);
    LoadPairs(previous + 2 * x, &gu, &gv);
    LoadPairs(cache + 2 * x, &p.e, &p.state);
    const int32_t x0 = x;
    auto blocks = [&](F8* a) {
      for (int32_t j = 0; j < 3; ++j) {
        const float* f = im.first.Row(y - 1 + j) + x0 - 1;  // up to x0 + 8 <= w - 1
        for (int32_t i = 0; i < 3; ++i) a[3 * j + i] = _mm256_loadu_ps(f + i);
      }
    };
    const F8 fx = _mm256_cvtepi32_ps(_mm256_add_epi32(_mm256_set1_epi32(x), lane));
    const Lanes8 q = TryNeighbour8<false>(im, fx, fy, p, gu, gv, blocks);
    StorePairs(row + 2 * x, q.u, q.v);
    StorePairs(cache + 2 * x, q.e, q.state);
  }
  return x;
}

}  // namespace plflow

#include "runtime/PLWideEnd.h"

#endif  // FLOWBLUR_PLAIN_ONLY
