// flowblur: the four directional propagation sweeps that repair the flow field.
#include <emmintrin.h>

#include <cstdint>

#include "runtime/PLWidePath.h"
#include "flow/PLFlowPrivate.h"
#include "flow/PLFlowSweep.h"
#include "flow/PLOpticalFlowUChar.h"
#include "image/PLImageCopy.h"

using plflow::FView;
using plflow::SweepImages;

namespace {

// The 3x3 block of the first image around (x, y): three rows, lanes x - 1 .. x + 1 (lane 3
// is 0). Read once per pixel and shared by both patch evaluations. Each row is read as two
// floats and one, never past its third sample.
struct FirstBlock {
  __m128 row[3];
};
inline __m128 Load3(const float* p) {
  const __m128 lo = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(p));
  return _mm_movelh_ps(lo, _mm_load_ss(p + 2));
}
inline void LoadFirstBlock(const SweepImages& im, int32_t x, int32_t y, FirstBlock* a) {
  for (int32_t j = 0; j < 3; ++j) a->row[j] = Load3(im.first.Row(y - 1 + j) + x - 1);
}

// Sum of squared differences between the 3x3 block of the first image at (x, y) and the
// 3x3 block of the second image around (x - u, y - v), all nine resampled with one
// fractional offset from the 4x4 block that holds them. Returns false when invalid.
// The upper bound (w - 2) is tighter by one than the pixel's own in-frame test; the only
// lower bound is ix, iy >= 1. A NaN position is invalid.
//
// The nine samples of a patch row are formed side by side in the lanes of one vector, each
// lane with exactly the operations of the scalar rule
//   s = ((w00 B(i, j) + w10 B(i + 1, j)) + w01 B(i, j + 1)) + w11 B(i + 1, j + 1),
// and the squares are summed one by one in raster order, so the result is that of the
// scalar rule to the bit.
template <bool kMasked>
__attribute__((always_inline)) inline bool PatchError(const SweepImages& im, const FirstBlock& a, int32_t x, int32_t y,
                       float u, float v, float* error) {
  const float sx = static_cast<float>(x) - u;
  const float sy = static_cast<float>(y) - v;
  const float maxX = static_cast<float>(im.w - 2);
  const float maxY = static_cast<float>(im.h - 2);
  if (!(sx <= maxX) || !(sy <= maxY)) return false;
  int32_t ix, iy;
  float tx, ty;
  if (sx == maxX) {
    tx = 1.0f;
    ix = im.w - 3;
  } else {
    if (!(sx >= 1.0f)) return false;  // trunc(sx) < 1, and no truncation of huge values
    ix = static_cast<int32_t>(sx);
    tx = sx - static_cast<float>(ix);
  }
  if (sy == maxY) {
    ty = 1.0f;
    iy = im.h - 3;
  } else {
    if (!(sy >= 1.0f)) return false;
    iy = static_cast<int32_t>(sy);
    ty = sy - static_cast<float>(iy);
  }
  if (ix < 1 || iy < 1) return false;
  if (kMasked) {
    for (int32_t j = -1; j <= 2; ++j) {
      const float* m = im.secondMaskBase + (iy + j) * im.secondMaskStep;
      for (int32_t i = -1; i <= 2; ++i)
        if (static_cast<double>(m[ix + i]) < 0.95) return false;
    }
  }
  const float txty = tx * ty;
  const __m128 w00 = _mm_set1_ps(1.0f - tx - ty + txty);
  const __m128 w10 = _mm_set1_ps(tx - txty);
  const __m128 w01 = _mm_set1_ps(ty - txty);
  const __m128 w11 = _mm_set1_ps(txty);
  // The 4x4 block: columns ix - 1 .. ix + 2 (all inside, since ix <= w - 3), rows
  // iy - 1 .. iy + 2; each `r` is the same row one column on.
  const float* b = im.second.Row(iy - 1) + (ix - 1);
  const intptr_t step = im.second.step;
  const __m128 l0 = _mm_loadu_ps(b);
  const __m128 l1 = _mm_loadu_ps(b + step);
  const __m128 l2 = _mm_loadu_ps(b + 2 * step);
  const __m128 l3 = _mm_loadu_ps(b + 3 * step);
  const __m128 r0 = _mm_shuffle_ps(l0, l0, _MM_SHUFFLE(3, 3, 2, 1));
  const __m128 r1 = _mm_shuffle_ps(l1, l1, _MM_SHUFFLE(3, 3, 2, 1));
  const __m128 r2 = _mm_shuffle_ps(l2, l2, _MM_SHUFFLE(3, 3, 2, 1));
  const __m128 r3 = _mm_shuffle_ps(l3, l3, _MM_SHUFFLE(3, 3, 2, 1));
  const __m128 w00l1 = _mm_mul_ps(w00, l1);  // rows 1 and 2 serve two patch rows each
  const __m128 w00l2 = _mm_mul_ps(w00, l2);
  const __m128 w10r1 = _mm_mul_ps(w10, r1);
  const __m128 w10r2 = _mm_mul_ps(w10, r2);
  const __m128 s0 = _mm_add_ps(
      _mm_add_ps(_mm_add_ps(_mm_mul_ps(w00, l0), _mm_mul_ps(w10, r0)), _mm_mul_ps(w01, l1)),
      _mm_mul_ps(w11, r1));
  const __m128 s1 = _mm_add_ps(_mm_add_ps(_mm_add_ps(w00l1, w10r1), _mm_mul_ps(w01, l2)),
                               _mm_mul_ps(w11, r2));
  const __m128 s2 = _mm_add_ps(_mm_add_ps(_mm_add_ps(w00l2, w10r2), _mm_mul_ps(w01, l3)),
                               _mm_mul_ps(w11, r3));
  const __m128 d0 = _mm_sub_ps(a.row[0], s0);
  const __m128 d1 = _mm_sub_ps(a.row[1], s1);
  const __m128 d2 = _mm_sub_ps(a.row[2], s2);
  alignas(16) float q[12];
  _mm_store_ps(q, _mm_mul_ps(d0, d0));
  _mm_store_ps(q + 4, _mm_mul_ps(d1, d1));
  _mm_store_ps(q + 8, _mm_mul_ps(d2, d2));
  // 0 + q(0, 0) is q(0, 0) itself: a square is never -0.
  float sum = q[0];
  sum = sum + q[1];
  sum = sum + q[2];
  sum = sum + q[4];
  sum = sum + q[5];
  sum = sum + q[6];
  sum = sum + q[8];
  sum = sum + q[9];
  sum = sum + q[10];
  *error = sum;
  return true;
}

// The error of each pixel's own flow is a function of that flow alone (and of images that
// the sweeps do not change), so it is kept from one sweep to the next in a cache of two
// floats a pixel: the error, and a state: kUnknown, kValid, or kSkipped (own target out of
// the frame, a first-mask sample below 0.95, or an invalid patch). The first sweep writes
// the state of every interior pixel, so no clearing is needed; a pixel that takes a
// candidate takes its error with it. Only the number of patch evaluations changes.
constexpr float kUnknown = plflow::kSweepUnknown;
constexpr float kValid = plflow::kSweepValid;
constexpr float kSkipped = plflow::kSweepSkipped;

// One pixel of any sweep: the pixel's flow f, the neighbour's current flow g, the pixel's
// cache entry c.
template <bool kMasked, bool kFirstSweep>
__attribute__((always_inline)) inline void TryNeighbour(const SweepImages& im, int32_t x,
                                                        int32_t y, float* f, const float* g,
                                                        float* c) {
  const float u = f[0];
  const float v = f[1];
  const float gu = g[0];
  const float gv = g[1];
  // An equal candidate gives an equal error and never wins (a tie keeps the pixel's own).
  // Equal as floats is enough: +0 and -0 give the same target, and NaN is never equal.
  if (u == gu && v == gv) {
    if (kFirstSweep) c[1] = kUnknown;
    return;
  }
  const float state = kFirstSweep ? kUnknown : c[1];
  if (state == kSkipped) return;
  FirstBlock a;
  LoadFirstBlock(im, x, y, &a);
  float e0;
  float e1 = 0.0f;
  if (state == kValid) {
    e0 = c[0];
  } else {
    const float sx = static_cast<float>(x) - u;
    const float sy = static_cast<float>(y) - v;
    bool skipped =
        !plflow::InFrame(sx, sy, static_cast<float>(im.w - 1), static_cast<float>(im.h - 1));
    if (kMasked && !skipped) {
      for (int32_t j = -1; j <= 1; ++j) {
        const float* m = im.firstMaskBase + (y + j) * im.firstMaskStep;
        for (int32_t i = -1; i <= 1; ++i)
          if (static_cast<double>(m[x + i]) < 0.95) skipped = true;
      }
    }
    if (skipped || !PatchError<kMasked>(im, a, x, y, u, v, &e0)) {
      c[1] = kSkipped;
      return;
    }
    c[0] = e0;
    c[1] = kValid;
  }
  // Whether the candidate wins is data-dependent and poorly predicted: select, not branch.
  const bool take = PatchError<kMasked>(im, a, x, y, gu, gv, &e1) && e1 < e0;
  f[0] = take ? gu : u;
  f[1] = take ? gv : v;
  c[0] = take ? e1 : e0;
}

// ---- Four pixels at once (unmasked sweeps on levels of at least 4x4) ----------------------
//
// Four patch errors side by side, one per lane: lane l evaluates the patch of pixel
// (x[l], y[l]) for the vector (u[l], v[l]), with every operation of the scalar rule in the
// same order, and the nine squares summed in raster order down the lanes. Lanes that are
// invalid are read at the safe cell (1, 1), which needs a level of at least 4x4, and their
// results are ignored. `a` holds the first image's 3x3 blocks: a[3 j + i], lane l, is
// first(x[l] - 1 + i, y[l] - 1 + j). Returns the valid lanes as a mask.
struct Eval4 {
  __m128 valid;
  __m128 error;
};
__attribute__((always_inline)) inline Eval4 PatchError4(const SweepImages& im, __m128 fx,
                                                        __m128 fy, __m128 u, __m128 v,
                                                        const __m128* a) {
  const __m128 one = _mm_set1_ps(1.0f);
  const __m128 maxX = _mm_set1_ps(static_cast<float>(im.w - 2));
  const __m128 maxY = _mm_set1_ps(static_cast<float>(im.h - 2));
  const __m128 sx = _mm_sub_ps(fx, u);
  const __m128 sy = _mm_sub_ps(fy, v);
  // sx <= w - 2 (false for NaN), and either exactly w - 2 or at least 1 (trunc >= 1).
  const __m128 eqX = _mm_cmpeq_ps(sx, maxX);
  const __m128 eqY = _mm_cmpeq_ps(sy, maxY);
  const __m128 okX = _mm_and_ps(_mm_cmple_ps(sx, maxX), _mm_or_ps(eqX, _mm_cmpge_ps(sx, one)));
  const __m128 okY = _mm_and_ps(_mm_cmple_ps(sy, maxY), _mm_or_ps(eqY, _mm_cmpge_ps(sy, one)));
  Eval4 r;
  r.valid = _mm_and_ps(okX, okY);
  // Truncation of the lanes in range; lanes out of range give the indefinite integer and
  // are replaced below (the vector conversion has no undefined case).
  const __m128i ixT = _mm_cvttps_epi32(sx);
  const __m128i iyT = _mm_cvttps_epi32(sy);
  const __m128 txT = _mm_sub_ps(sx, _mm_cvtepi32_ps(ixT));
  const __m128 tyT = _mm_sub_ps(sy, _mm_cvtepi32_ps(iyT));
  const __m128i eqXi = _mm_castps_si128(eqX);
  const __m128i eqYi = _mm_castps_si128(eqY);
  const __m128i validi = _mm_castps_si128(r.valid);
  const __m128i oneI = _mm_set1_epi32(1);
  __m128i ix = _mm_or_si128(_mm_and_si128(eqXi, _mm_set1_epi32(im.w - 3)),
                            _mm_andnot_si128(eqXi, ixT));
  __m128i iy = _mm_or_si128(_mm_and_si128(eqYi, _mm_set1_epi32(im.h - 3)),
                            _mm_andnot_si128(eqYi, iyT));
  ix = _mm_or_si128(_mm_and_si128(validi, ix), _mm_andnot_si128(validi, oneI));
  iy = _mm_or_si128(_mm_and_si128(validi, iy), _mm_andnot_si128(validi, oneI));
  const __m128 tx = _mm_or_ps(_mm_and_ps(eqX, one), _mm_andnot_ps(eqX, txT));
  const __m128 ty = _mm_or_ps(_mm_and_ps(eqY, one), _mm_andnot_ps(eqY, tyT));
  const __m128 txty = _mm_mul_ps(tx, ty);
  const __m128 w00 = _mm_add_ps(_mm_sub_ps(_mm_sub_ps(one, tx), ty), txty);
  const __m128 w10 = _mm_sub_ps(tx, txty);
  const __m128 w01 = _mm_sub_ps(ty, txty);
  const __m128 w11 = txty;
  alignas(16) int32_t ixs[4];
  alignas(16) int32_t iys[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(ixs), ix);
  _mm_store_si128(reinterpret_cast<__m128i*>(iys), iy);
  const intptr_t step = im.second.step;
  const float* b0 = im.second.Row(iys[0] - 1) + (ixs[0] - 1);
  const float* b1 = im.second.Row(iys[1] - 1) + (ixs[1] - 1);
  const float* b2 = im.second.Row(iys[2] - 1) + (ixs[2] - 1);
  const float* b3 = im.second.Row(iys[3] - 1) + (ixs[3] - 1);
  // t[j][i], lane l: second(ix[l] - 1 + i, iy[l] - 1 + j).
  __m128 t[4][4];
  for (int32_t j = 0; j < 4; ++j) {
    t[j][0] = _mm_loadu_ps(b0 + j * step);
    t[j][1] = _mm_loadu_ps(b1 + j * step);
    t[j][2] = _mm_loadu_ps(b2 + j * step);
    t[j][3] = _mm_loadu_ps(b3 + j * step);
    _MM_TRANSPOSE4_PS(t[j][0], t[j][1], t[j][2], t[j][3]);
  }
  __m128 sum = _mm_setzero_ps();
  for (int32_t j = 0; j < 3; ++j) {
    for (int32_t i = 0; i < 3; ++i) {
      const __m128 s = _mm_add_ps(
          _mm_add_ps(_mm_add_ps(_mm_mul_ps(w00, t[j][i]), _mm_mul_ps(w10, t[j][i + 1])),
                     _mm_mul_ps(w01, t[j + 1][i])),
          _mm_mul_ps(w11, t[j + 1][i + 1]));
      const __m128 d = _mm_sub_ps(a[3 * j + i], s);
      const __m128 q = _mm_mul_ps(d, d);
      sum = (i == 0 && j == 0) ? q : _mm_add_ps(sum, q);  // 0 + q is q: never -0
    }
  }
  r.error = sum;
  return r;
}

inline __m128 Select(__m128 mask, __m128 yes, __m128 no) {
  return _mm_or_ps(_mm_and_ps(mask, yes), _mm_andnot_ps(mask, no));
}

// The rule of TryNeighbour for four pixels, given their flows (u, v), candidates (gu, gv),
// cache errors and states, all by lane. Returns the new flows and cache entries.
struct Lanes {
  __m128 u, v, e, state;
};
// `blocks(a)` fills the first image's blocks; it is called only when a lane needs them.
template <bool kFirstSweep, class Blocks>
__attribute__((always_inline)) inline Lanes TryNeighbour4(const SweepImages& im, __m128 fx,
                                                          __m128 fy, Lanes p, __m128 gu,
                                                          __m128 gv, Blocks blocks) {
  const __m128 unknown = _mm_set1_ps(kUnknown);
  const __m128 valid = _mm_set1_ps(kValid);
  const __m128 skipped = _mm_set1_ps(kSkipped);
  const __m128 equal = _mm_and_ps(_mm_cmpeq_ps(p.u, gu), _mm_cmpeq_ps(p.v, gv));
  if (kFirstSweep) p.state = unknown;
  // Lanes whose own error is still unknown and that have a different candidate.
  const __m128 needE0 = _mm_andnot_ps(equal, _mm_cmpeq_ps(p.state, unknown));
  __m128 a[9];
  bool haveBlocks = false;
  if (_mm_movemask_ps(needE0)) {
    blocks(a);
    haveBlocks = true;
    const __m128 zero = _mm_setzero_ps();
    const __m128 sx = _mm_sub_ps(fx, p.u);
    const __m128 sy = _mm_sub_ps(fy, p.v);
    const __m128 inFrame = _mm_and_ps(
        _mm_and_ps(_mm_cmpge_ps(sx, zero), _mm_cmple_ps(sx, _mm_set1_ps(static_cast<float>(im.w - 1)))),
        _mm_and_ps(_mm_cmpge_ps(sy, zero), _mm_cmple_ps(sy, _mm_set1_ps(static_cast<float>(im.h - 1)))));
    const Eval4 e0 = PatchError4(im, fx, fy, p.u, p.v, a);
    const __m128 ok = _mm_and_ps(inFrame, e0.valid);
    p.e = Select(_mm_and_ps(needE0, ok), e0.error, p.e);
    p.state = Select(needE0, Select(ok, valid, skipped), p.state);
  }
  const __m128 tryIt = _mm_andnot_ps(equal, _mm_cmpeq_ps(p.state, valid));
  if (_mm_movemask_ps(tryIt)) {
    if (!haveBlocks) blocks(a);
    const Eval4 e1 = PatchError4(im, fx, fy, gu, gv, a);
    const __m128 take = _mm_and_ps(_mm_and_ps(tryIt, e1.valid), _mm_cmplt_ps(e1.error, p.e));
    p.u = Select(take, gu, p.u);
    p.v = Select(take, gv, p.v);
    p.e = Select(take, e1.error, p.e);
  }
  return p;
}

// Interleaved pairs (two floats a pixel) of four consecutive pixels, split by channel.
inline void LoadPairs(const float* p, __m128* c0, __m128* c1) {
  const __m128 lo = _mm_loadu_ps(p);
  const __m128 hi = _mm_loadu_ps(p + 4);
  *c0 = _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(2, 0, 2, 0));
  *c1 = _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1));
}
inline void StorePairs(float* p, __m128 c0, __m128 c1) {
  _mm_storeu_ps(p, _mm_unpacklo_ps(c0, c1));
  _mm_storeu_ps(p + 4, _mm_unpackhi_ps(c0, c1));
}
// The same for one pixel in each of four rows.
inline void GatherPairs(float* const* rows, int32_t x, __m128* c0, __m128* c1) {
  *c0 = _mm_setr_ps(rows[0][2 * x], rows[1][2 * x], rows[2][2 * x], rows[3][2 * x]);
  *c1 = _mm_setr_ps(rows[0][2 * x + 1], rows[1][2 * x + 1], rows[2][2 * x + 1],
                    rows[3][2 * x + 1]);
}
inline void ScatterPairs(float* const* rows, int32_t x, __m128 c0, __m128 c1) {
  alignas(16) float a0[4];
  alignas(16) float a1[4];
  _mm_store_ps(a0, c0);
  _mm_store_ps(a1, c1);
  for (int32_t l = 0; l < 4; ++l) {
    rows[l][2 * x] = a0[l];
    rows[l][2 * x + 1] = a1[l];
  }
}

// Four rows of a row sweep side by side: each lane walks its own row with its own chain.
template <int32_t kStep>
void RowSweep4(const SweepImages& im, int32_t y0) {
  const bool first = kStep > 0;
  float* flow[4];
  float* cache[4];
  const float* img[6];  // first-image rows y0 - 1 .. y0 + 4
  for (int32_t l = 0; l < 4; ++l) {
    flow[l] = im.flow.Row(y0 + l);
    cache[l] = im.cache.Row(y0 + l);
  }
  for (int32_t r = 0; r < 6; ++r) img[r] = im.first.Row(y0 - 1 + r);
  const __m128 fy = _mm_setr_ps(static_cast<float>(y0), static_cast<float>(y0 + 1),
                                static_cast<float>(y0 + 2), static_cast<float>(y0 + 3));
  const int32_t xBegin = kStep > 0 ? 1 : im.w - 2;
  const int32_t xEnd = kStep > 0 ? im.w - 1 : 0;
  __m128 gu, gv;
  GatherPairs(flow, xBegin - kStep, &gu, &gv);
  for (int32_t x = xBegin; x != xEnd; x += kStep) {
    Lanes p;
    GatherPairs(flow, x, &p.u, &p.v);
    GatherPairs(cache, x, &p.e, &p.state);
    // The 3x3 blocks of the four rows: row vectors (columns x - 1 .. x + 1), turned into
    // column vectors by lane.
    auto blocks = [&](__m128* a) {
      __m128 rows[6];
      for (int32_t r = 0; r < 6; ++r) rows[r] = Load3(img[r] + x - 1);
      for (int32_t j = 0; j < 3; ++j) {
        __m128 c0 = rows[j], c1 = rows[j + 1], c2 = rows[j + 2], c3 = rows[j + 3];
        _MM_TRANSPOSE4_PS(c0, c1, c2, c3);
        a[3 * j] = c0;
        a[3 * j + 1] = c1;
        a[3 * j + 2] = c2;
      }
    };
    const __m128 fx = _mm_set1_ps(static_cast<float>(x));
    const Lanes q = first ? TryNeighbour4<true>(im, fx, fy, p, gu, gv, blocks)
                          : TryNeighbour4<false>(im, fx, fy, p, gu, gv, blocks);
    ScatterPairs(flow, x, q.u, q.v);
    ScatterPairs(cache, x, q.e, q.state);
    gu = q.u;  // the next pixel's candidate is this pixel's flow as it now stands
    gv = q.v;
  }
}

// Four neighbouring columns of a column sweep, one row of them.
__attribute__((always_inline)) inline void ColumnStep4(const SweepImages& im, int32_t x0,
                                                       int32_t y, float* row,
                                                       const float* previous, float* cache) {
  Lanes p;
  __m128 gu, gv;
  LoadPairs(row + 2 * x0, &p.u, &p.v);
  LoadPairs(previous + 2 * x0, &gu, &gv);
  LoadPairs(cache + 2 * x0, &p.e, &p.state);
  auto blocks = [&](__m128* a) {
    for (int32_t j = 0; j < 3; ++j) {
      const float* f = im.first.Row(y - 1 + j) + x0 - 1;  // up to x0 + 4 <= w - 1
      for (int32_t i = 0; i < 3; ++i) a[3 * j + i] = _mm_loadu_ps(f + i);
    }
  };
  const __m128 fx = _mm_setr_ps(static_cast<float>(x0), static_cast<float>(x0 + 1),
                                static_cast<float>(x0 + 2), static_cast<float>(x0 + 3));
  const Lanes q =
      TryNeighbour4<false>(im, fx, _mm_set1_ps(static_cast<float>(y)), p, gu, gv, blocks);
  StorePairs(row + 2 * x0, q.u, q.v);
  StorePairs(cache + 2 * x0, q.e, q.state);
}

// Sweeps 1 and 2: each work item is a row y = 1 + item, walked along x. Unmasked, on a
// level of at least 4x4, eight rows go side by side where the wide loops are chosen, then
// four; the rest one by one.
template <bool kMasked, int32_t kStep>
void RowSweepWorker(int32_t, uint8_t, int32_t firstItem, int32_t lastItem, NuvMPArgs* args) {
  const SweepImages& im = *args->Next<const SweepImages*>();
  int32_t y = 1 + firstItem;
#if !defined(FLOWBLUR_PLAIN_ONLY)
  if (!kMasked && im.w >= 4 && im.h >= 4 && im.wide)
    for (; y + 7 <= 1 + lastItem; y += 8) plflow::RowSweep8<kStep>(im, y);
#endif
  if (!kMasked && im.w >= 4 && im.h >= 4)
    for (; y + 3 <= 1 + lastItem; y += 4) RowSweep4<kStep>(im, y);
  for (; y <= 1 + lastItem; ++y) {
    float* row = im.flow.Row(y);
    float* cache = im.cache.Row(y);
    if (kStep > 0) {
      for (int32_t x = 1; x <= im.w - 2; ++x)
        TryNeighbour<kMasked, true>(im, x, y, row + 2 * x, row + 2 * (x - 1), cache + 2 * x);
    } else {
      for (int32_t x = im.w - 2; x >= 1; --x)
        TryNeighbour<kMasked, false>(im, x, y, row + 2 * x, row + 2 * (x + 1), cache + 2 * x);
    }
  }
}

// Sweeps 3 and 4: each work item is a column x = 1 + item, walked along y. Columns are
// independent, so a worker walks its band of columns row by row, which keeps each
// column's order and reads memory in rows; unmasked, eight (wide) or four columns go side by
// side.
template <bool kMasked, int32_t kStep>
void ColumnSweepWorker(int32_t, uint8_t, int32_t firstItem, int32_t lastItem,
                       NuvMPArgs* args) {
  const SweepImages& im = *args->Next<const SweepImages*>();
  const int32_t first = 1 + firstItem;
  const int32_t last = 1 + lastItem;
  const bool wide = !kMasked && im.w >= 4 && im.h >= 4;
#if !defined(FLOWBLUR_PLAIN_ONLY)
  const bool wider = wide && im.wide;
#endif
  for (int32_t i = 1; i <= im.h - 2; ++i) {
    const int32_t y = kStep > 0 ? i : im.h - 1 - i;
    float* row = im.flow.Row(y);
    const float* previous = im.flow.Row(y - kStep);
    float* cache = im.cache.Row(y);
    int32_t x = first;
#if !defined(FLOWBLUR_PLAIN_ONLY)
    if (wider) x = plflow::ColumnRow8(im, x, last, y, row, previous, cache);
#endif
    if (wide)
      for (; x + 3 <= last; x += 4) ColumnStep4(im, x, y, row, previous, cache);
    for (; x <= last; ++x)
      TryNeighbour<kMasked, false>(im, x, y, row + 2 * x, previous + 2 * x, cache + 2 * x);
  }
}

template <bool kMasked>
void RunSweeps(const SweepImages& im, NuvIdleAndProgressClass* progress) {
  const SweepImages* p = &im;
  PLForkImageRows(im.h - 2, RowSweepWorker<kMasked, 1>, p);
  progress->Idle();
  PLForkImageRows(im.h - 2, RowSweepWorker<kMasked, -1>, p);
  progress->Idle();
  PLForkImageRows(im.w - 2, ColumnSweepWorker<kMasked, 1>, p);
  progress->Idle();
  PLForkImageRows(im.w - 2, ColumnSweepWorker<kMasked, -1>, p);
  progress->Idle();
}

}  // namespace

void plflow::PropagateSweepsOnPath(bool wide, PLImage* flow, const PLImage* first,
                                   const PLImage* second, PLImage* cache) {
  const SweepImages im{FView(first), FView(second), FView(flow), FView(cache), nullptr, 0,
                       nullptr, 0, flow->width, flow->height, wide && PLWideAvailable()};
  NuvIdleAndProgressClass local(nullptr);
  RunSweeps<false>(im, &local);
}

void PLOpticalFlowUChar::PropagateFlow(int32_t level, bool skip,
                                       NuvIdleAndProgressClass* progress) {
  if (skip || !flowPyramid) return;
  const PLImage* flow = flowPyramid[level];
  // The level's residual is free here (each iteration rewrites it before reading it), and
  // serves as the cache of errors.
  SweepImages im{FView(firstPyramid[level]),
                 FView(secondPyramid[level]),
                 FView(flow),
                 FView(residualPyramid[level]),
                 nullptr,
                 0,
                 nullptr,
                 0,
                 flow->width,
                 flow->height,
                 PLWideChosen()};
  const bool masked = firstMaskPyramid && secondMaskPyramid;
  if (masked) {
    const FView fm(firstMaskPyramid[level]);
    const FView sm(secondMaskPyramid[level]);
    im.firstMaskBase = fm.base;
    im.firstMaskStep = fm.step;
    im.secondMaskBase = sm.base;
    im.secondMaskStep = sm.step;
  }
  // A sweep with no work items (a line shorter than 3) forks nothing, but Idle follows
  // every sweep all the same.
  NuvIdleAndProgressClass local(nullptr);
  NuvIdleAndProgressClass* report = progress ? progress : &local;
  if (masked)
    RunSweeps<true>(im, report);
  else
    RunSweeps<false>(im, report);
}
