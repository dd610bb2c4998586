// flowblur: the four directional propagation sweeps that repair the flow field.
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
  const float* firstMaskBase;  // null without masks
  intptr_t firstMaskStep;
  const float* secondMaskBase;
  intptr_t secondMaskStep;
  int32_t w;
  int32_t h;
};

// Sum of squared differences between the 3x3 block of the first image at (x, y) and the
// 3x3 block of the second image around (x - u, y - v), all nine resampled with one
// fractional offset from the 4x4 block that holds them. Returns false when invalid.
// The upper bound (w - 2) is tighter by one than the pixel's own in-frame test; the only
// lower bound is ix, iy >= 1. A NaN position is invalid.
template <bool kMasked>
inline bool PatchError(const SweepImages& im, int32_t x, int32_t y, float u, float v,
                       float* error) {
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
  const float w00 = 1.0f - tx - ty + tx * ty;
  const float w10 = tx - tx * ty;
  const float w01 = ty - tx * ty;
  const float w11 = tx * ty;
  float sum = 0.0f;
  for (int32_t j = 0; j < 3; ++j) {
    const float* b0 = im.second.Row(iy - 1 + j);
    const float* b1 = im.second.Row(iy + j);
    const float* a = im.first.Row(y - 1 + j);
    for (int32_t i = 0; i < 3; ++i) {
      const float s = w00 * b0[ix - 1 + i] + w10 * b0[ix + i] + w01 * b1[ix - 1 + i] +
                      w11 * b1[ix + i];
      const float d = a[x - 1 + i] - s;
      sum = sum + d * d;
    }
  }
  *error = sum;
  return true;
}

// One pixel of any sweep: tries the neighbour's current flow (nx, ny) at (x, y).
template <bool kMasked>
inline void TryNeighbour(const SweepImages& im, int32_t x, int32_t y, int32_t nx, int32_t ny) {
  float* f = im.flow.Row(y) + 2 * x;
  const float u = f[0];
  const float v = f[1];
  const float sx = static_cast<float>(x) - u;
  const float sy = static_cast<float>(y) - v;
  if (!plflow::InFrame(sx, sy, static_cast<float>(im.w - 1), static_cast<float>(im.h - 1)))
    return;
  if (kMasked) {
    for (int32_t j = -1; j <= 1; ++j) {
      const float* m = im.firstMaskBase + (y + j) * im.firstMaskStep;
      for (int32_t i = -1; i <= 1; ++i)
        if (static_cast<double>(m[x + i]) < 0.95) return;
    }
  }
  float e0, e1;
  if (!PatchError<kMasked>(im, x, y, u, v, &e0)) return;
  const float* g = im.flow.Row(ny) + 2 * nx;
  const float gu = g[0];
  const float gv = g[1];
  if (PatchError<kMasked>(im, x, y, gu, gv, &e1) && e1 < e0) {
    f[0] = gu;
    f[1] = gv;
  }
}

// Sweeps 1 and 2: each work item is a row y = 1 + item, walked along x.
template <bool kMasked, int32_t kStep>
void RowSweepWorker(int32_t, uint8_t, int32_t firstItem, int32_t lastItem, NuvMPArgs* args) {
  const SweepImages& im = *args->Next<const SweepImages*>();
  for (int32_t y = 1 + firstItem; y <= 1 + lastItem; ++y) {
    if (kStep > 0) {
      for (int32_t x = 1; x <= im.w - 2; ++x) TryNeighbour<kMasked>(im, x, y, x - 1, y);
    } else {
      for (int32_t x = im.w - 2; x >= 1; --x) TryNeighbour<kMasked>(im, x, y, x + 1, y);
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
  if (kStep > 0) {
    for (int32_t y = 1; y <= im.h - 2; ++y)
      for (int32_t x = 1 + firstItem; x <= 1 + lastItem; ++x)
        TryNeighbour<kMasked>(im, x, y, x, y - 1);
  } else {
    for (int32_t y = im.h - 2; y >= 1; --y)
      for (int32_t x = 1 + firstItem; x <= 1 + lastItem; ++x)
        TryNeighbour<kMasked>(im, x, y, x, y + 1);
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
  if (skip) return;
  const PLImage* flow = flowPyramid[level];
  SweepImages im{FView(firstPyramid[level]), FView(secondPyramid[level]), FView(flow),
                 nullptr, 0, nullptr, 0, flow->width, flow->height};
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
