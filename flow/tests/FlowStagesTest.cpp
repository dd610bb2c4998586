// flowblur: the per-pixel stages against slow references, and their edge cases.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "runtime/PLWidePath.h"
#include "flow/tests/FlowTestSupport.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestWorkers.h"

using flowtest::At;
using flowtest::MakeFloat;
using namespace pltest;

namespace {

float RefGradient(float left, float centre, float right, bool hasLeft, bool hasRight) {
  float sum = 0.0f;
  float n = 0.0f;
  if (hasLeft) {
    sum = sum + (centre - left);
    n = n + 1.0f;
  }
  if (hasRight) {
    sum = sum + (right - centre);
    n = n + 1.0f;
  }
  return sum / n;  // 0 / 0 on a line of one sample: not a number
}

// Bit for bit, except that any NaN matches any NaN (a line of one sample has no gradient; which
// NaN it holds is not part of the rule).
::testing::AssertionResult SameUpToNaN(const PLImage* got, const PLImage* want) {
  for (int32_t y = 0; y < want->height; ++y)
    for (int32_t x = 0; x < want->width; ++x)
      for (int32_t c = 0; c < want->channels; ++c) {
        const float a = Sample(got, x, y, c), b = Sample(want, x, y, c);
        if (std::memcmp(&a, &b, 4) != 0 && !(std::isnan(a) && std::isnan(b)))
          return ::testing::AssertionFailure() << a << " for " << b << " at " << x << "," << y;
      }
  return ::testing::AssertionSuccess();
}

// Gradients and moments, as two stages and in one pass on both loops (plain, and wide where
// the processor has AVX2), against the reference: lines of one sample (whose NaN gradients
// take the plain loop on both paths), widths around the groups of eight, heights with and
// without rows above and below, every layout, an infinite sample, 1, 3 and 8 workers. The
// two loops agree to the byte, NaN bits included.
TEST(FlowGradients, SeparateAndFusedStagesOnBothLoopsMatchTheReference) {
  const int32_t sizes[][2] = {{1, 5},  {6, 1},  {2, 2},  {9, 1},   {10, 2},
                              {17, 5}, {26, 1}, {26, 5}, {37, 21}, {64, 130}};
  int32_t trial = 0;
  for (const auto& sz : sizes)
    for (int32_t workers : {1, 3, 8}) {
      const int32_t w = sz[0], h = sz[1];
      const Layout l = kLayouts[trial++ % 4];
      TestImage image = MakeImage(w, h, 1, PLFloat, l);
      FillRandom(image.get(), 300 + trial, 0.0f, 255.0f);
      Set(image.get(), w / 2, h / 2, 0, std::numeric_limits<float>::infinity());
      TestImage want[3] = {MakeImage(w, h, 1, PLFloat), MakeImage(w, h, 1, PLFloat),
                           MakeImage(w, h, 3, PLFloat)};
      auto at = [&](int32_t x, int32_t y) { return Sample(image.get(), x, y, 0); };
      for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
          const float c = at(x, y);
          const float l = x > 0 ? at(x - 1, y) : 0.0f, r = x < w - 1 ? at(x + 1, y) : 0.0f;
          const float u = y > 0 ? at(x, y - 1) : 0.0f, d = y < h - 1 ? at(x, y + 1) : 0.0f;
          const float a = RefGradient(l, c, r, x > 0, x < w - 1);
          const float b = RefGradient(u, c, d, y > 0, y < h - 1);
          Set(want[0].get(), x, y, 0, a);
          Set(want[1].get(), x, y, 0, b);
          Set(want[2].get(), x, y, 0, a * a);
          Set(want[2].get(), x, y, 1, b * a);
          Set(want[2].get(), x, y, 2, b * b);
        }
      // 0: the two stages; 1 and 2: one pass on the plain and the wide loop.
      std::vector<TestImage> gx, gy, st;
      for (int32_t i = 0; i < 3; ++i) {
        gx.push_back(MakeImage(w, h, 1, PLFloat, l));
        gy.push_back(MakeImage(w, h, 1, PLFloat, l));
        st.push_back(MakeImage(w, h, 3, PLFloat, l));
      }
      PLTestUseWorkers(workers);
      ComputeGradients(gx[0].get(), gy[0].get(), image.get());
      ComputeMoments(st[0].get(), gx[0].get(), gy[0].get());
      for (int32_t wide = 0; wide < 2; ++wide)
        ComputeGradientsAndMomentsOnPath(wide, gx[1 + wide].get(), gy[1 + wide].get(),
                                         st[1 + wide].get(), image.get());
      PLTestUseWorkers(1);
      // Gradients to the bit, NaN included. A moment of two NaNs (the infinite sample on a
      // one-row image) takes the sign of whichever operand the compiler puts first, which an
      // unoptimised build orders otherwise: moments agree up to NaN.
      EXPECT_EQ(PixelBytes(gx[0].get()), PixelBytes(gx[1].get()));
      EXPECT_TRUE(SameUpToNaN(st[0].get(), st[1].get())) << w << "x" << h;
      for (std::vector<TestImage>* out : {&gx, &gy})
        EXPECT_EQ(PixelBytes((*out)[1].get()), PixelBytes((*out)[2].get())) << w << "x" << h;
      EXPECT_TRUE(SameUpToNaN(st[1].get(), st[2].get())) << w << "x" << h;
      for (int32_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(SameUpToNaN(gx[i].get(), want[0].get())) << w << "x" << h << " " << i;
        EXPECT_TRUE(SameUpToNaN(gy[i].get(), want[1].get())) << w << "x" << h << " " << i;
        EXPECT_TRUE(SameUpToNaN(st[i].get(), want[2].get())) << w << "x" << h << " " << i;
        EXPECT_TRUE(PaddingUntouched(st[i]));
      }
    }
}

TEST(FlowGradients, GateZeroesPixelsNextToInvalidOnes) {
  auto gx = MakeFloat(6, 5, 1, 3.0f);
  auto gy = MakeFloat(6, 5, 1, 4.0f);
  auto mask = MakeFloat(6, 5, 1, 1.0f);
  At(mask.get(), 2, 2) = 0.94f;
  At(mask.get(), 5, 0) = 0.0f;
  At(mask.get(), 0, 4) = 0.9500001f;  // at or above 0.95 (double) is valid
  GateGradients(gx.get(), gy.get(), mask.get());
  for (int32_t y = 0; y < 5; ++y)
    for (int32_t x = 0; x < 6; ++x) {
      const bool gated = (std::abs(x - 2) + std::abs(y - 2) <= 1) ||
                         (std::abs(x - 5) + std::abs(y - 0) <= 1);
      EXPECT_EQ(At(gx.get(), x, y), gated ? 0.0f : 3.0f) << x << "," << y;
      EXPECT_EQ(At(gy.get(), x, y), gated ? 0.0f : 4.0f) << x << "," << y;
    }
}

// Flows that put targets inside, on the last column and row exactly (the sliding cell),
// just outside, far outside, at the corners, and at NaN and infinity.
void FillTrickyFlow(PLImage* flow, std::mt19937& rng) {
  std::uniform_real_distribution<float> pick(0.0f, 1.0f), near(-3.0f, 3.0f), far(-60.0f, 60.0f);
  for (int32_t y = 0; y < flow->height; ++y)
    for (int32_t x = 0; x < flow->width; ++x) {
      const float p = pick(rng);
      float u = near(rng), v = near(rng);
      if (p < 0.2f) u = far(rng), v = far(rng);
      else if (p < 0.25f) u = static_cast<float>(x - flow->width + 1);  // target on the last column
      else if (p < 0.3f) v = static_cast<float>(y - flow->height + 1);  // on the last row
      else if (p < 0.32f) u = std::numeric_limits<float>::quiet_NaN();
      else if (p < 0.34f) v = std::numeric_limits<float>::infinity();
      else if (p < 0.4f) u = 0.0f, v = 0.0f;
      Set(flow, x, y, 0, u);
      Set(flow, x, y, 1, v);
    }
  Set(flow, 0, 0, 0, 0.0f);
  Set(flow, flow->width - 1, flow->height - 1, 1, 0.0f);
  Set(flow, flow->width - 1, flow->height - 1, 0, 0.0f);
}

// The residual, masked and unmasked, on both loops (plain, and wide where the processor has
// AVX2), on sizes that leave every count of pixels to the wide loop's plain tail, with
// flipped and padded layouts, NaN in the second image, and 1, 2 and 8 workers.
TEST(FlowResidual, BothLoopsMatchTheReferenceMaskedAndUnmasked) {
  std::mt19937 rng(17);
  const int32_t sizes[][2] = {{2, 2}, {8, 3}, {9, 5}, {23, 17}, {64, 130}, {101, 33}};
  int32_t trial = 0;
  for (const auto& sz : sizes)
    for (int32_t workers : {1, 2, 8}) {
      const int32_t w = sz[0], h = sz[1];
      auto layout = [&](int32_t k) { return kLayouts[(trial + k) % 4]; };
      TestImage first = MakeImage(w, h, 1, PLFloat, layout(0));
      TestImage second = MakeImage(w, h, 1, PLFloat, layout(1));
      TestImage gx = MakeImage(w, h, 1, PLFloat, layout(2));
      TestImage gy = MakeImage(w, h, 1, PLFloat, layout(3));
      TestImage flow = MakeImage(w, h, 2, PLFloat, layout(1));
      TestImage mask = MakeImage(w, h, 1, PLFloat, layout(0));
      FillRandom(first.get(), rng(), 0.0f, 255.0f);
      FillRandom(second.get(), rng(), 0.0f, 255.0f);
      FillRandom(gx.get(), rng(), -40.0f, 40.0f);
      FillRandom(gy.get(), rng(), -40.0f, 40.0f);
      Fill(mask.get(), 1.0);
      Set(mask.get(), w / 3, h / 3, 0, 0.0);
      Set(second.get(), w / 2, h / 2, 0, std::numeric_limits<float>::quiet_NaN());
      FillTrickyFlow(flow.get(), rng);
      const int32_t masked = trial++ % 2;
      TestImage want = MakeImage(w, h, 2, PLFloat);
      for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
          const float sx = x - Sample(flow.get(), x, y, 0);
          const float sy = y - Sample(flow.get(), x, y, 1);
          float p = 0.0f, q = 0.0f;
          if (sx >= 0 && sx <= w - 1 && sy >= 0 && sy <= h - 1) {
            const float s = pltest::Bilinear(second.get(), sx, sy, 0);
            if (!masked || static_cast<double>(pltest::Bilinear(mask.get(), sx, sy, 0)) >= 0.999) {
              const float d = s - Sample(first.get(), x, y, 0);
              p = Sample(gx.get(), x, y, 0) * d;
              q = d * Sample(gy.get(), x, y, 0);
            }
          }
          Set(want.get(), x, y, 0, p);
          Set(want.get(), x, y, 1, q);
        }
      for (bool wide : {false, true}) {
        if (wide && !PLWideAvailable()) continue;
        TestImage got = MakeImage(w, h, 2, PLFloat, layout(2));
        PLTestUseWorkers(workers);
        ComputeResidualOnPath(wide, got.get(), first.get(), second.get(), gx.get(), gy.get(),
                              flow.get(), masked, mask.get());
        PLTestUseWorkers(1);
        EXPECT_TRUE(SamePixels(got.get(), want.get()))
            << w << "x" << h << " workers " << workers << " wide " << wide << " masked " << masked;
        EXPECT_TRUE(PaddingUntouched(got));
      }
    }
}

// With det = b*b - a*c, a step only where |det| > 40 strictly.
TEST(FlowUpdate, StrictFortyAndTheSignOfTheDeterminant) {
  const float cases[][7] = {
      // a, b, c, p, q, then u and v after the update from (1, 1)
      {0, 0, 0, 1e6f, 0, 1, 1},     // flat: no step however large the residual
      {8, 0, 5, 10, 0, 1, 1},       // det = -40 exactly: no step
      {9, 0, 4.5f, 9, 4.5f, 2, 2},  // det = -40.5: u += (0 - 4.5 * 9) / -40.5, v likewise
      {1, 7, 9, 0, 3, 1, 1},        // det = 49 - 9 = +40 exactly: no step
  };
  auto flow = MakeFloat(4, 1, 2, 1.0f), s = MakeFloat(4, 1, 3), r = MakeFloat(4, 1, 2);
  for (int32_t x = 0; x < 4; ++x)
    for (int32_t i = 0; i < 5; ++i) At(i < 3 ? s.get() : r.get(), x, 0, i % 3) = cases[x][i];
  UpdateFlow(flow.get(), s.get(), r.get());
  for (int32_t x = 0; x < 4; ++x) {
    EXPECT_EQ(At(flow.get(), x, 0, 0), cases[x][5]) << x;
    EXPECT_EQ(At(flow.get(), x, 0, 1), cases[x][6]) << x;
  }
}

// Structure moments near the step threshold (|det| = 40 exactly, NaN) among random ones, so
// that lanes of one group differ in whether they step.
void FillMoments(PLImage* s, PLImage* r, std::mt19937& rng) {
  std::uniform_real_distribution<float> any(-30.0f, 30.0f);
  for (int32_t y = 0; y < s->height; ++y)
    for (int32_t x = 0; x < s->width; ++x) {
      float a = any(rng), b = any(rng), c = any(rng);
      switch (rng() % 5) {
        case 0: a = 8.0f, b = 0.0f, c = 5.0f; break;              // det = -40: no step
        case 1: a = 1.0f, b = 7.0f, c = 9.0f; break;              // det = +40: no step
        case 2: a = std::numeric_limits<float>::quiet_NaN(); break;  // no step
        default: break;
      }
      At(s, x, y, 0) = a, At(s, x, y, 1) = b, At(s, x, y, 2) = c;
      At(r, x, y, 0) = any(rng), At(r, x, y, 1) = any(rng);
    }
}

// Widths that leave every count of lanes after the last whole group of eight. Stages fork
// only where each worker gets 16 rows or more: worker checks need 128 rows for eight.
constexpr int32_t kWidths[] = {1, 7, 8, 9, 15, 16, 21, 34};

TEST(FlowUpdate, SameOnBothLoopsAndAllWorkerCounts) {
  std::mt19937 rng(19);
  for (int32_t w : kWidths) {
    auto s = MakeFloat(w, 130, 3), r = MakeFloat(w, 130, 2);
    FillMoments(s.get(), r.get(), rng);
    auto start = MakeFloat(w, 130, 2);
    FillRandom(start.get(), 5 + w, -4.0f, 4.0f);
    auto run = [&](bool wide) {
      auto flow = MakeFloat(w, 130, 2);
      CopyPixels(flow.get(), start.get());
      UpdateFlowOnPath(wide, flow.get(), s.get(), r.get());
      return PixelBytes(flow.get());
    };
    const std::vector<unsigned char> plain = run(false);
    EXPECT_FALSE(plain == PixelBytes(start.get())) << "width " << w << ": no pixel stepped";
    EXPECT_TRUE(plain == run(true)) << "width " << w;
    ExpectSameForAllWorkers([&] { return run(true); });
  }
}

// Corner-aligned bilinear reads, the vectors scaled by the grid ratios, on both loops and for
// every worker count: sources from 2x2 up, destination widths from the list above (130 rows
// from the largest source).
TEST(FlowUpsample, BothLoopsMatchTheReferenceAndRefuseBadShapes) {
  const int32_t sources[][2] = {{2, 2}, {3, 4}, {5, 3}, {7, 5}, {12, 7}};
  for (const auto& sz : sources)
    for (int32_t w : kWidths) {
      if (w < sz[0]) continue;
      const int32_t h = sz[1] == 7 ? 130 : 2 * sz[1] + 1;
      auto src = MakeFloat(sz[0], sz[1], 2);
      FillRandom(src.get(), 31 + w, -9.0f, 9.0f);
      auto want = MakeFloat(w, h, 2);
      const float kx = (w - 1.0f) / (sz[0] - 1.0f), ky = (h - 1.0f) / (sz[1] - 1.0f);
      for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
          for (int32_t c = 0; c < 2; ++c)
            At(want.get(), x, y, c) =
                pltest::Bilinear(src.get(), x * (1.0f / kx), y * (1.0f / ky), c) *
                (c == 0 ? kx : ky);
      for (bool wide : {false, true})
        ExpectSameForAllWorkers([&] {
          auto dst = MakeFloat(w, h, 2);
          UpsampleFlowOnPath(wide, dst.get(), src.get());
          EXPECT_TRUE(SamePixels(dst.get(), want.get()))
              << sz[0] << "x" << sz[1] << " to width " << w << " wide " << wide;
          return PixelBytes(dst.get());
        });
    }
  auto src = MakeFloat(7, 5, 2), dst = MakeFloat(15, 11, 2);
  PLImage uchar(5, 5, 2, PLUChar, 0);
  EXPECT_THROW(UpsampleFlow(&uchar, src.get()), PLErr);
  auto three = MakeFloat(9, 9, 3);
  EXPECT_THROW(UpsampleFlow(three.get(), src.get()), PLErr);
  auto thin = MakeFloat(1, 5, 2);
  EXPECT_THROW(UpsampleFlow(dst.get(), thin.get()), PLErr);
}

TEST(FlowHints, ApplyReplaceAndPull) {
  auto flow = MakeFloat(3, 1, 2, 2.0f);
  auto hint = MakeFloat(3, 1, 2, 6.0f);
  auto weight = MakeFloat(3, 1, 1);
  At(weight.get(), 1, 0) = 2.0f;
  At(weight.get(), 2, 0) = 0.5f;
  auto pulled = MakeFloat(3, 1, 2, 2.0f);
  ApplyHints(flow.get(), hint.get(), weight.get(), 1);
  EXPECT_EQ(At(flow.get(), 0, 0, 0), 2.0f);  // weight 0: untouched
  EXPECT_EQ(At(flow.get(), 1, 0, 1), 3.0f);
  EXPECT_EQ(At(flow.get(), 2, 0, 0), 12.0f);
  EXPECT_FALSE(HasHintWeight(nullptr, 0));
  ApplyHints(pulled.get(), hint.get(), weight.get(), 0);
  EXPECT_EQ(At(pulled.get(), 1, 0, 0), 2.0f + (6.0f - 2.0f * 2.0f));
  EXPECT_EQ(At(pulled.get(), 2, 0, 1), 2.0f + (6.0f - 0.5f * 2.0f));
}

TEST(FlowHelpers, ScaleXYAndItsAnd) {
  auto f = MakeFloat(3, 2, 2, 2.0f);
  ScaleXY(f.get(), -1.0f, 0.5f);
  EXPECT_EQ(At(f.get(), 2, 1, 0), -2.0f);
  EXPECT_EQ(At(f.get(), 2, 1, 1), 1.0f);
  // Refused only when both the channel count and the type are wrong.
  PLImage u(3, 2, 3, PLUShort, 0);
  std::memset(u.data, 0x11, u.rowBytes * 2);
  testing::internal::CaptureStderr();
  ScaleXY(&u, 2.0f, 2.0f);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error in ScaleXY!\n");
  EXPECT_EQ(u.data[0], 0x11);
  auto three = MakeFloat(3, 2, 3, 1.0f);  // one wrong: walked as pairs of floats
  testing::internal::CaptureStderr();
  ScaleXY(three.get(), 2.0f, 3.0f);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(At(three.get(), 0, 0, 0), 2.0f);
  EXPECT_EQ(At(three.get(), 0, 0, 1), 3.0f);
  EXPECT_EQ(At(three.get(), 0, 0, 2), 2.0f);
}

TEST(FlowHelpers, Binarise) {
  // The float nearest 0.9999 lies just above it, and the threshold is taken in double.
  const float in[] = {0.9999f, 0.9998f, 7.0f, -1.0f};
  const float out[] = {static_cast<double>(0.9999f) >= 0.9999 ? 1.0f : 0.0f, 0.0f, 1.0f, 0.0f};
  auto m = MakeFloat(4, 1, 1);
  for (int32_t x = 0; x < 4; ++x) At(m.get(), x, 0) = in[x];
  Binarise(m.get());
  for (int32_t x = 0; x < 4; ++x) EXPECT_EQ(At(m.get(), x, 0), out[x]) << in[x];
}

}  // namespace
