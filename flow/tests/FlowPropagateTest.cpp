// flowblur: the propagation sweeps, through the entry and on both row loops (plain, and the
// eight-lane one where AVX2 runs), against a slow reference.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "flow/PLFlowSweep.h"
#include "flow/tests/FlowTestSupport.h"
#include "runtime/PLWidePath.h"
#include "tests/support/PLTestWorkers.h"

using flowtest::At;
using pltest::Get;
using pltest::Set;

namespace {

// ---- The slow reference: every rule spelt out, no shortcuts ------------------------------

struct Ref {
  const PLImage* a;
  const PLImage* b;
  const PLImage* ma;  // null without masks
  const PLImage* mb;
  int32_t w, h;

  bool Patch(int32_t x, int32_t y, float u, float v, float* e) const {
    const float sx = x - u, sy = y - v;
    if (std::isnan(sx) || std::isnan(sy)) return false;  // our choice: NaN is outside
    if (sx > w - 2 || sy > h - 2) return false;
    int32_t ix, iy;
    float tx, ty;
    if (sx == static_cast<float>(w - 2)) {
      tx = 1.0f;
      ix = w - 3;
    } else {
      ix = static_cast<int32_t>(sx);
      tx = sx - ix;
    }
    if (sy == static_cast<float>(h - 2)) {
      ty = 1.0f;
      iy = h - 3;
    } else {
      iy = static_cast<int32_t>(sy);
      ty = sy - iy;
    }
    if (ix < 1 || iy < 1) return false;
    if (mb)
      for (int32_t j = iy - 1; j <= iy + 2; ++j)
        for (int32_t i = ix - 1; i <= ix + 2; ++i)
          if (static_cast<double>(At(mb, i, j)) < 0.95) return false;
    const float w00 = 1 - tx - ty + tx * ty, w10 = tx - tx * ty, w01 = ty - tx * ty,
                w11 = tx * ty;
    float sum = 0.0f;
    for (int32_t j = 0; j < 3; ++j)
      for (int32_t i = 0; i < 3; ++i) {
        const float s = w00 * At(b, ix - 1 + i, iy - 1 + j) + w10 * At(b, ix + i, iy - 1 + j) +
                        w01 * At(b, ix - 1 + i, iy + j) + w11 * At(b, ix + i, iy + j);
        const float d = At(a, x - 1 + i, y - 1 + j) - s;
        sum += d * d;
      }
    *e = sum;
    return true;
  }

  void Pixel(PLImage* flow, int32_t x, int32_t y, int32_t nx, int32_t ny) const {
    const float u = At(flow, x, y, 0), v = At(flow, x, y, 1);
    const float sx = x - u, sy = y - v;
    if (std::isnan(sx) || std::isnan(sy)) return;
    if (sx < 0 || sx > w - 1 || sy < 0 || sy > h - 1) return;
    if (ma)
      for (int32_t j = y - 1; j <= y + 1; ++j)
        for (int32_t i = x - 1; i <= x + 1; ++i)
          if (static_cast<double>(At(ma, i, j)) < 0.95) return;
    float e0, e1;
    if (!Patch(x, y, u, v, &e0)) return;
    const float gu = At(flow, nx, ny, 0), gv = At(flow, nx, ny, 1);
    if (Patch(x, y, gu, gv, &e1) && e1 < e0) {
      At(flow, x, y, 0) = gu;
      At(flow, x, y, 1) = gv;
    }
  }

  void Sweeps(PLImage* flow) const {
    for (int32_t y = 1; y <= h - 2; ++y)
      for (int32_t x = 1; x <= w - 2; ++x) Pixel(flow, x, y, x - 1, y);
    for (int32_t y = 1; y <= h - 2; ++y)
      for (int32_t x = w - 2; x >= 1; --x) Pixel(flow, x, y, x + 1, y);
    for (int32_t x = 1; x <= w - 2; ++x)
      for (int32_t y = 1; y <= h - 2; ++y) Pixel(flow, x, y, x, y - 1);
    for (int32_t x = 1; x <= w - 2; ++x)
      for (int32_t y = h - 2; y >= 1; --y) Pixel(flow, x, y, x, y + 1);
  }
};

// A second image that is the first moved by two or three columns, and a flow mixing that
// motion (in runs, so that candidates win), random, far, NaN and infinite vectors, targets
// exactly on the second-to-last column and row (the sliding cell) and one past the left
// edge; with masks, a few invalid samples in each.
void FillScene(PLImage* a, PLImage* b, PLImage* f, PLImage* ma, PLImage* mb,
               std::mt19937& rng) {
  const int32_t w = a->width, h = a->height;
  pltest::FillRandom(a, rng(), 0.0f, 256.0f);
  std::uniform_real_distribution<float> near(-6.0f, 6.0f), far(-60.0f, 60.0f);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const int32_t shift = y > h / 2 ? 3 : 2;
      Set(b, x, y, 0, x >= shift ? Get(a, x - shift, y, 0) : 17.0);
      const uint32_t r = rng() % 20;
      float u = near(rng), v = near(rng) * 0.67f;
      if (r < 6)
        u = -static_cast<float>(shift), v = 0.0f;
      else if (r < 8)
        u = far(rng), v = far(rng);
      else if (r < 10)
        u = static_cast<float>(x - (w - 2)), v = static_cast<float>(rng() % 5) - 2.0f;
      else if (r < 11)
        v = static_cast<float>(y - (h - 2));
      else if (r < 12)
        u = static_cast<float>(x + 1), v = 0.0f;
      else if (r == 12)
        u = std::numeric_limits<float>::quiet_NaN();
      else if (r == 13)
        v = -std::numeric_limits<float>::infinity();
      Set(f, x, y, 0, u);
      Set(f, x, y, 1, v);
      if (!ma) continue;
      Set(ma, x, y, 0, rng() % 97 == 0 ? 0.5 : 1.0);
      Set(mb, x, y, 0, rng() % 89 == 0 ? 0.0 : 1.0);
    }
}

// A one-level estimator whose level images the test fills by hand.
std::unique_ptr<PLOpticalFlowUChar> Estimator(int32_t w, int32_t h, int32_t masks) {
  return std::unique_ptr<PLOpticalFlowUChar>(new PLOpticalFlowUChar(w, h, 0, 0, masks, 1000));
}

// The estimator's entry (its own level images, with and without masks) and both row loops
// (flipped and padded layouts, a cache holding what another stage left in it) against the
// reference, for 1, 2, 3 and 8 workers: sizes with no interior, and sizes that leave every
// count of rows and columns to the four-lane and one-lane tails.
TEST(FlowPropagate, EntryAndBothRowLoopsMatchTheReference) {
  pltest::WorkerGuard guard;
  std::mt19937 rng(29);
  const int32_t sizes[][2] = {{3, 2},   {2, 6},   {4, 9},   {5, 12},   {11, 11},
                              {13, 30}, {27, 19}, {70, 41}, {150, 140}};
  int32_t trial = 0;
  for (const auto& sz : sizes)
    for (int32_t masks : {0, 1})
      for (int32_t workers : kPLTestWorkerCounts) {
        const int32_t w = sz[0], h = sz[1];
        auto layout = [&](int32_t k) { return pltest::kLayouts[(trial + k) % 4]; };
        ++trial;
        auto est = Estimator(w, h, masks);
        PLImage* ma = masks ? est->firstMaskPyramid[0] : nullptr;
        PLImage* mb = masks ? est->secondMaskPyramid[0] : nullptr;
        pltest::TestImage first = pltest::MakeImage(w, h, 1, PLFloat, layout(0));
        pltest::TestImage second = pltest::MakeImage(w, h, 1, PLFloat, layout(1));
        pltest::TestImage start = pltest::MakeImage(w, h, 2, PLFloat, layout(2));
        FillScene(first.get(), second.get(), start.get(), ma, mb, rng);
        pltest::TestImage want = pltest::MakeImage(w, h, 2, PLFloat);
        pltest::CopyPixels(want.get(), start.get());
        Ref{first.get(), second.get(), ma, mb, w, h}.Sweeps(want.get());
        if (w > 5) {  // on the narrowest levels few candidates can be evaluated at all
          EXPECT_FALSE(pltest::SamePixels(want.get(), start.get())) << "no work at " << w;
        }
        pltest::CopyPixels(est->firstPyramid[0], first.get());
        pltest::CopyPixels(est->secondPyramid[0], second.get());
        pltest::CopyPixels(est->flowPyramid[0], start.get());
        PLTestUseWorkers(workers);
        est->PropagateFlow(0, false, nullptr);
        PLTestUseWorkers(1);
        EXPECT_TRUE(pltest::SamePixels(est->flowPyramid[0], want.get()))
            << "entry " << w << "x" << h << " workers " << workers << " masks " << masks;
        for (bool wide : {false, true}) {
          if (masks || (wide && !PLWideAvailable())) continue;  // the row loops take no masks
          pltest::TestImage flow = pltest::MakeImage(w, h, 2, PLFloat, layout(wide + 3));
          pltest::TestImage cache = pltest::MakeImage(w, h, 2, PLFloat, layout(wide));
          pltest::FillRandom(cache.get(), rng(), -5.0f, 5.0f);
          pltest::CopyPixels(flow.get(), start.get());
          PLTestUseWorkers(workers);
          plflow::PropagateSweepsOnPath(wide, flow.get(), first.get(), second.get(),
                                        cache.get());
          PLTestUseWorkers(1);
          EXPECT_TRUE(pltest::SamePixels(flow.get(), want.get()))
              << w << "x" << h << " workers " << workers << " wide " << wide;
        }
      }
}

}  // namespace
