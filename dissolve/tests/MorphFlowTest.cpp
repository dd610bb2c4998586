// flowblur tests: the morph flow: level geometry, hints, the plain pass, and the scatter
// pass against a literal sequential splat.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "dissolve/PLMorphFlow.h"
#include "filter/PLKernels.h"
#include "flow/PLFlowStages.h"
#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

namespace {

constexpr auto& F = Sample;

// ---- Level geometry ----------------------------------------------------------------------

struct LevelCase {
  int32_t width, height, mode, minLevelSize;
  std::vector<std::pair<int32_t, int32_t>> sizes;  // the numLevels levels the solve uses
};

class MorphLevels : public ::testing::TestWithParam<LevelCase> {};

TEST_P(MorphLevels, CountAndSizes) {
  const LevelCase& c = GetParam();
  PLMorphFlow morph(c.width, c.height, c.mode, c.minLevelSize);
  ASSERT_EQ(morph.errorCode, 0);
  ASSERT_EQ(morph.numLevels, static_cast<int32_t>(c.sizes.size()));
  EXPECT_EQ(morph.startLevel, morph.numLevels - 1);
  EXPECT_EQ(morph.workMaxX, static_cast<float>(c.sizes[0].first - 1));
  for (int32_t l = 0; l <= morph.numLevels; ++l) {
    // One level beyond those used, of max(2, half).
    const int32_t w = l < morph.numLevels ? c.sizes[l].first
                                          : std::max(2, c.sizes[l - 1].first / 2);
    const int32_t h = l < morph.numLevels ? c.sizes[l].second
                                          : std::max(2, c.sizes[l - 1].second / 2);
    PLImage** pyramids[4] = {morph.flowPyramid, morph.hintFlowPyramid, morph.hintWeightPyramid,
                             morph.scratchPyramid};
    for (int32_t i = 0; i < 4; ++i) {
      const PLImage* p = pyramids[i][l];
      EXPECT_TRUE(p->width == w && p->height == h && p->dataType == PLFloat &&
                  p->channels == (i < 2 ? 2 : 1))
          << "level " << l << " pyramid " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MorphLevels,
    ::testing::Values(
        // Down to 2x2 with the smallest minimum.
        LevelCase{100, 100, 0, 2, {{100, 100}, {50, 50}, {25, 25}, {12, 12}, {6, 6}, {3, 3}, {2, 2}}},
        // The count stops at the minimum while the images keep halving.
        LevelCase{100, 100, 0, 10, {{100, 100}, {50, 50}, {25, 25}, {12, 12}, {6, 6}}},
        // Mode 1 halves the input; uneven sides reach the floor of 2 at different times.
        LevelCase{200, 20, 1, 2, {{100, 10}, {50, 5}, {25, 2}, {12, 2}, {6, 2}, {3, 2}, {2, 2}}},
        // A minimum larger than the working size: two levels.
        LevelCase{10, 10, 3 + 4, 40, {{10, 10}, {5, 5}}},
        LevelCase{2, 2, 0, 2, {{2, 2}, {2, 2}}}));

TEST(MorphFlow, WorkingSizeBelowTwoIsRefused) {
  PLMorphFlow quiet(0, 1, 50, 0, 2);
  EXPECT_EQ(quiet.errorCode, PLErrParameter);
  EXPECT_EQ(quiet.flowPyramid, nullptr);
  // A failed object does nothing when used.
  quiet.AddHint(0, 0, 1, 1, 1, 1);
  TestImage out = MakeImage(1, 50, 2, PLFloat);
  Fill(out.get(), 7.0);
  quiet.SolveFromHints(out.get(), nullptr, 0);
  EXPECT_EQ(Get(out.get(), 0, 0, 0), 7.0);
  EXPECT_THROW(PLMorphFlow(7, 3, 1, 2), PLErr);  // mode 1: 3 x 1
}

// ---- Hints and the plain pass --------------------------------------------------------------

// A fresh object of w x h, mode 0, with the given hints (source coordinates = working grid).
std::unique_ptr<PLMorphFlow> WithHints(int32_t w, int32_t h, int32_t minLevelSize,
                                       const std::vector<std::vector<float>>& hints) {
  std::unique_ptr<PLMorphFlow> m(new PLMorphFlow(w, h, 0, minLevelSize));
  m->ClearHints();
  for (const auto& p : hints)
    m->AddHint(p[0], p[1], p[2], p[3], static_cast<float>(w - 1), static_cast<float>(h - 1));
  m->FinishHints();
  return m;
}

TEST(MorphFlow, HintsAreMeanedAndOutsidePointsDropped) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  auto m = WithHints(20, 10, 2,
                     {{4.4f, 3.0f, 6.4f, 2.0f},   // pixel (4, 3), moves (2, -1)
                      {3.6f, 3.2f, 7.6f, 4.2f},   // pixel (4, 3) too, moves (4, 1)
                      {3.5f, 9.0f, 3.5f, 9.0f},   // 3.5 rounds up to pixel 4
                      {-1.6f, 1, 0, 0},           // outside on every side, or NaN
                      {19.5f, 1, 0, 0},
                      {1, 9.5f, 0, 0},
                      {nan, 1, 0, 0},
                      {1e30f, 1e30f, 0, 0}});
  const PLImage* f = m->hintFlowPyramid[0];
  const PLImage* w = m->hintWeightPyramid[0];
  double total = 0.0;
  for (int32_t y = 0; y < 10; ++y)
    for (int32_t x = 0; x < 20; ++x) total += Get(w, x, y, 0);
  EXPECT_EQ(total, 2.0);
  EXPECT_EQ(F(w, 4, 3, 0), 1.0f);
  EXPECT_FLOAT_EQ(F(f, 4, 3, 0), 3.0f);
  EXPECT_NEAR(F(f, 4, 3, 1), 0.0f, 1e-6f);
  EXPECT_EQ(F(w, 4, 9, 0), 1.0f);
  EXPECT_EQ(F(f, 4, 9, 0), 0.0f);
}

// A flowOut of its own layout (flipped, padded), filled so that unwritten pixels show.
TestImage Output(const PLMorphFlow& m) {
  TestImage out = MakeImage(m.workWidth, m.workHeight, 2, PLFloat, 1, 12);
  Fill(out.get(), -999.0);
  return out;
}

TEST(MorphFlow, SingleHintSurvivesExactlyInThePlainPass) {
  for (float factor : {1.0f, 0.7f}) {
    auto m = WithHints(64, 48, 2, {{10, 20, 13.5f, 18.25f}, {50, 40, 48, 40}});
    m->SetLevelFactor(factor);
    TestImage out = Output(*m);
    m->SolveFromHints(out.get(), nullptr, 0);
    EXPECT_EQ(F(out.get(), 10, 20, 0), 3.5f);
    EXPECT_EQ(F(out.get(), 10, 20, 1), -1.75f);
    EXPECT_EQ(F(out.get(), 50, 40, 0), -2.0f);
    EXPECT_EQ(F(out.get(), 50, 40, 1), 0.0f);
    // The hints spread: a neighbour follows the nearer hint, in the same direction.
    EXPECT_GT(F(out.get(), 12, 20, 0), 0.0f);
    EXPECT_LT(F(out.get(), 12, 20, 1), 0.0f);
    EXPECT_LT(F(out.get(), 48, 40, 0), 0.0f);
    EXPECT_TRUE(PaddingUntouched(out));
    EXPECT_TRUE(SamePixels(out.get(), m->flowPyramid[0]));
  }
}

// Without hints every weight is 0: what the start level held, blurred and carried down the
// levels (scaled by the grid ratios, 99 in all from 2 to 100 pixels), in both passes.
TEST(MorphFlow, WithoutHintsOnlyThePyramidContentRemains) {
  for (uint8_t scatter : {0, 1}) {
    auto m = WithHints(100, 100, 2, {});
    TestImage out = Output(*m);
    m->SolveFromHints(out.get(), nullptr, scatter);
    for (int32_t y = 0; y < 100; y += 11)
      for (int32_t x = 0; x < 100; x += 7) {
        EXPECT_EQ(F(out.get(), x, y, 0), 0.0f);
        EXPECT_EQ(F(out.get(), x, y, 1), 0.0f);
      }
    // As if a previous run had started at level 0: the top level is not cleared this time.
    m->startLevel = 0;
    const int32_t top = m->numLevels - 1;
    Fill(m->flowPyramid[top], 0.0);
    for (int32_t y = 0; y < 2; ++y)
      for (int32_t x = 0; x < 2; ++x) Set(m->flowPyramid[top], x, y, 0, 0.5);
    m->SolveFromHints(out.get(), nullptr, scatter);
    for (int32_t y = 0; y < 100; y += 3)
      for (int32_t x = 0; x < 100; x += 3) {
        EXPECT_NEAR(F(out.get(), x, y, 0), 49.5f, 1e-3f) << x << ", " << y;
        EXPECT_EQ(F(out.get(), x, y, 1), 0.0f);
      }
  }
}

TEST(MorphFlow, InterruptionIsPassedOn) {
  auto m = WithHints(40, 30, 2, {{5, 5, 9, 9}});
  NuvIdleAndProgressClass progress(nullptr);
  progress.SetInterrupted(true);
  try {
    m->SolveFromHints(nullptr, &progress, 1);
    ADD_FAILURE() << "no interruption";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrInterrupted);
  }
}

// ---- The scatter pass --------------------------------------------------------------------

// Level-0 hints of a few kinds: scattered, on the last column with and without earlier
// hints in the row, and one on the last column of row 0 with nothing before it.
std::vector<std::vector<float>> ScatterHints(int32_t w, int32_t h, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<std::vector<float>> hints;
  auto rnd = [&](float lo, float hi) {
    return lo + (hi - lo) * static_cast<float>(rng() % 10000) / 10000.0f;
  };
  const float last = static_cast<float>(w - 1);
  hints.push_back({last, 0, last - 3, 2});
  for (int32_t i = 0; i < 60; ++i) {
    const float x = static_cast<float>(rng() % (w - 1));
    const float y = static_cast<float>(rng() % h);
    hints.push_back({x, y, x + rnd(-6, 6), y + rnd(-4, 4)});
  }
  for (int32_t i = 0; i < 12; ++i) {
    const float y = static_cast<float>(rng() % h);
    hints.push_back({last, y, last + rnd(-5, 1), y + rnd(-3, 3)});
  }
  return hints;
}

// The splat as written, one row after another on one thread, with the tap weights carried
// from pixel to pixel and from row to row (zero before the first hinted pixel).
void ReferenceSplat(const PLMorphFlow& m, PLImage* t, PLImage* weight,
                    PLImage* flow) {
  const PLImage* w0 = m.hintWeightPyramid[0];
  const PLImage* f0 = m.hintFlowPyramid[0];
  const float kx = static_cast<float>(weight->width - 1) / static_cast<float>(w0->width - 1);
  const float ky = static_cast<float>(weight->height - 1) / static_cast<float>(w0->height - 1);
  float a = 0, b = 0, c = 0, d = 0;
  auto add = [&](int32_t ix, int32_t iy, float u, float v) {
    const float taps[4] = {a, b, c, d};
    const int32_t px[4] = {ix, ix + 1, ix, ix + 1};
    const int32_t py[4] = {iy, iy, iy + 1, iy + 1};
    for (int32_t k = 0; k < 4; ++k) {
      Set(t, px[k], py[k], 0, F(t, px[k], py[k], 0) + taps[k]);
      Set(weight, px[k], py[k], 0, F(weight, px[k], py[k], 0) + 1.0f);
      Set(flow, px[k], py[k], 0, F(flow, px[k], py[k], 0) + u);
      Set(flow, px[k], py[k], 1, F(flow, px[k], py[k], 1) + v);
    }
  };
  for (int32_t y = 0; y < w0->height; ++y) {
    const float fy = static_cast<float>(y) * ky;
    int32_t iy = static_cast<int32_t>(fy);
    float ty = fy - std::floor(fy);
    if (iy >= weight->height - 1) iy = weight->height - 2, ty = 1.0f;
    for (int32_t x = 0; x < w0->width - 1; ++x) {
      if (F(w0, x, y, 0) == 0.0f) continue;
      const float fx = kx * static_cast<float>(x);
      const int32_t ix = static_cast<int32_t>(fx);
      const float tx = fx - static_cast<float>(ix);
      a = (1 - tx) * (1 - ty), b = tx - tx * ty, c = ty - tx * ty, d = tx * ty;
      add(ix, iy, F(f0, x, y, 0), F(f0, x, y, 1));
    }
    const int32_t x = w0->width - 1;
    if (F(w0, x, y, 0) == 0.0f) continue;
    int32_t ix = static_cast<int32_t>(kx * static_cast<float>(x));
    if (ix >= weight->width - 1) ix = weight->width - 2;
    add(ix, iy, F(f0, x, y, 0), F(f0, x, y, 1));
  }
}

// Working 200 x 150 with minimum 50: levels 200x150, 100x75, 50x37; the scatter pass starts
// at 50x37. Each coarse level's hint images and the start level's flow are compared with the
// literal splat followed by the stated blurs, normalisation and relaxation.
TEST(MorphFlow, ScatterPassMatchesSequentialSplat) {
  const int32_t w = 200, h = 150;
  const auto hints = ScatterHints(w, h, 5);
  auto m = WithHints(w, h, 50, hints);
  ASSERT_EQ(m->numLevels, 3);
  // The level-0 hints as the splat reads them, kept before the solve clears them.
  auto ref = WithHints(w, h, 50, hints);
  m->SolveFromHints(nullptr, nullptr, 1);
  for (int32_t level = 2; level >= 1; --level) {
    const PLImage* mine = m->hintWeightPyramid[level];
    const int32_t lw = mine->width, lh = mine->height;
    TestImage t = MakeImage(lw, lh, 1, PLFloat);
    TestImage weight = MakeImage(lw, lh, 1, PLFloat);
    TestImage flow = MakeImage(lw, lh, 2, PLFloat);
    Fill(t.get(), 0.0);
    Fill(weight.get(), 0.0);
    Fill(flow.get(), 0.0);
    ReferenceSplat(*ref, t.get(), weight.get(), flow.get());
    TestImage start = MakeImage(lw, lh, 2, PLFloat);
    if (level == 2) {
      Fill(start.get(), 0.0);
      ApplyHints(start.get(), flow.get(), weight.get(), 1);
      PLGaussBlur(start.get(), 0, 5.0f);
    }
    PLGaussBlur(t.get(), 0, 1.95f);
    PLGaussBlur(flow.get(), 0, 1.95f);
    PLGaussBlur(weight.get(), 0, 1.95f);
    for (int32_t y = 0; y < lh; ++y)
      for (int32_t x = 0; x < lw; ++x) {
        const float wt = F(weight.get(), x, y, 0);
        if (!(wt > 0.0f)) continue;
        const float s = 1.0f / wt;
        Set(flow.get(), x, y, 0, F(flow.get(), x, y, 0) * s);
        Set(flow.get(), x, y, 1, F(flow.get(), x, y, 1) * s);
        Set(t.get(), x, y, 0, F(t.get(), x, y, 0) * s * 2.0f);
      }
    EXPECT_TRUE(SamePixels(mine, weight.get())) << "level " << level;
    EXPECT_TRUE(SamePixels(m->hintFlowPyramid[level], flow.get())) << "level " << level;
    if (level != 2) continue;
    for (int32_t i = 0; i < 2; ++i) {
      for (int32_t twice = 0; twice < 2; ++twice)
        for (int32_t y = 0; y < lh; ++y)
          for (int32_t x = 0; x < lw; ++x) {
            if (!(F(weight.get(), x, y, 0) > 0.0f)) continue;
            for (int32_t c = 0; c < 2; ++c) {
              const float f = F(start.get(), x, y, c);
              Set(start.get(), x, y, c,
                  f + (F(flow.get(), x, y, c) - f) * F(t.get(), x, y, 0));
            }
          }
      PLGaussBlur(start.get(), 0, 2.5f);
    }
    EXPECT_TRUE(SamePixels(m->flowPyramid[2], start.get()));
  }
  // Level 0 was refilled from the hints it had just cleared: none are left.
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) ASSERT_EQ(F(m->hintWeightPyramid[0], x, y, 0), 0.0f);
}

// The whole solve, both passes, with levels tall enough for 8 workers.
TEST(MorphFlow, SameBytesForAllWorkers) {
  const auto hints = ScatterHints(300, 260, 9);
  for (uint8_t scatter : {0, 1})
    for (float factor : {1.0f, 0.7f})
      ExpectSameForAllWorkers([&] {
        auto m = WithHints(300, 260, 12, hints);
        m->SetLevelFactor(factor);
        TestImage out = Output(*m);
        m->SolveFromHints(out.get(), nullptr, scatter);
        return PixelBytes(out.get());
      });
}

}  // namespace
