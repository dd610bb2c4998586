// flowblur: the four directional propagation sweeps that repair the flow field.
#include <emmintrin.h>

#include <cstdint>

#include "flow/PLFlowPrivate.h"
#include "flow/PLOpticalFlowUChar.h"
#include "image/PLImageCopy.h"

using plflow::FView;

namespace {

// What one sweep needs, shared read-only by its workers (the flow is written only along
// each worker's own lines).
struct SweepImages {
  FView first;
  FView second;
  FView flow;
  FView cache;  // 2 floats a pixel: error of the pixel's own flow, and its state
  const float* firstMaskBase;  // null without masks
  intptr_t firstMaskStep;
  const float* secondMaskBase;
  intptr_t secondMaskStep;
  int32_t w;
  int32_t h;
};

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
constexpr float kUnknown = 0.0f;
constexpr float kValid = 1.0f;
constexpr float kSkipped = 2.0f;

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

// Sweeps 1 and 2: each work item is a row y = 1 + item, walked along x.
template <bool kMasked, int32_t kStep>
void RowSweepWorker(int32_t, uint8_t, int32_t firstItem, int32_t lastItem, NuvMPArgs* args) {
  const SweepImages& im = *args->Next<const SweepImages*>();
  for (int32_t y = 1 + firstItem; y <= 1 + lastItem; ++y) {
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
// column's order and reads memory in rows.
template <bool kMasked, int32_t kStep>
void ColumnSweepWorker(int32_t, uint8_t, int32_t firstItem, int32_t lastItem,
                       NuvMPArgs* args) {
  const SweepImages& im = *args->Next<const SweepImages*>();
  const int32_t first = 1 + firstItem;
  const int32_t last = 1 + lastItem;
  for (int32_t i = 1; i <= im.h - 2; ++i) {
    const int32_t y = kStep > 0 ? i : im.h - 1 - i;
    float* row = im.flow.Row(y);
    const float* previous = im.flow.Row(y - kStep);
    float* cache = im.cache.Row(y);
    for (int32_t x = first; x <= last; ++x)
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
                 flow->height};
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
