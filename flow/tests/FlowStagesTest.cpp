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

// Gradients and moments, as two stages and in one pass, against the reference on lines of
// one sample, small and odd sizes, every layout, an infinite sample, and 1, 3 and 8 workers.
TEST(FlowGradients, SeparateAndFusedStagesMatchTheReference) {
  const int32_t sizes[][2] = {{1, 5}, {6, 1}, {2, 2}, {37, 21}, {64, 70}};
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
      TestImage gx[2] = {MakeImage(w, h, 1, PLFloat, l), MakeImage(w, h, 1, PLFloat, l)};
      TestImage gy[2] = {MakeImage(w, h, 1, PLFloat, l), MakeImage(w, h, 1, PLFloat, l)};
      TestImage st[2] = {MakeImage(w, h, 3, PLFloat, l), MakeImage(w, h, 3, PLFloat, l)};
      PLTestUseWorkers(workers);
      ComputeGradients(gx[0].get(), gy[0].get(), image.get());
      ComputeMoments(st[0].get(), gx[0].get(), gy[0].get());
      ComputeGradientsAndMoments(gx[1].get(), gy[1].get(), st[1].get(), image.get());
      PLTestUseWorkers(1);
      EXPECT_EQ(PixelBytes(gx[0].get()), PixelBytes(gx[1].get()));  // NaN bits included
      EXPECT_EQ(PixelBytes(st[0].get()), PixelBytes(st[1].get()));
      for (int32_t fused = 0; fused < 2; ++fused) {
        EXPECT_TRUE(SameUpToNaN(gx[fused].get(), want[0].get())) << w << "x" << h << " " << fused;
        EXPECT_TRUE(SameUpToNaN(gy[fused].get(), want[1].get())) << w << "x" << h << " " << fused;
        EXPECT_TRUE(SameUpToNaN(st[fused].get(), want[2].get())) << w << "x" << h << " " << fused;
        EXPECT_TRUE(PaddingUntouched(st[fused]));
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
  const int32_t sizes[][2] = {{2, 2}, {8, 3}, {9, 5}, {23, 17}, {64, 40}, {101, 33}};
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

TEST(FlowUpdate, StrictFortyAndTheSignOfTheDeterminant) {
  auto flow = MakeFloat(4, 1, 2, 1.0f);
  auto s = MakeFloat(4, 1, 3);
  auto r = MakeFloat(4, 1, 2);
  // det = b*b - a*c. Pixel 0: a=c=0 flat, no step however large the residual.
  At(r.get(), 0, 0, 0) = 1e6f;
  // Pixel 1: det = -40 exactly: no step.
  At(s.get(), 1, 0, 0) = 8.0f;
  At(s.get(), 1, 0, 2) = 5.0f;
  At(r.get(), 1, 0, 0) = 10.0f;
  // Pixel 2: det = -40.5: a step.
  At(s.get(), 2, 0, 0) = 9.0f;
  At(s.get(), 2, 0, 2) = 4.5f;
  At(s.get(), 2, 0, 1) = 0.0f;
  At(r.get(), 2, 0, 0) = 9.0f;
  At(r.get(), 2, 0, 1) = 4.5f;
  // Pixel 3: det = 49 - 9 = +40 exactly: no step.
  At(s.get(), 3, 0, 0) = 1.0f;
  At(s.get(), 3, 0, 1) = 7.0f;
  At(s.get(), 3, 0, 2) = 9.0f;
  At(r.get(), 3, 0, 1) = 3.0f;
  UpdateFlow(flow.get(), s.get(), r.get());
  EXPECT_EQ(At(flow.get(), 0, 0, 0), 1.0f);
  EXPECT_EQ(At(flow.get(), 1, 0, 0), 1.0f);
  EXPECT_EQ(At(flow.get(), 3, 0, 1), 1.0f);
  // u += (b q - c p) / det = (0 - 4.5 * 9) / -40.5 = 1; v += (b p - a q) / det = 1.
  EXPECT_EQ(At(flow.get(), 2, 0, 0), 2.0f);
  EXPECT_EQ(At(flow.get(), 2, 0, 1), 2.0f);
}

TEST(FlowUpsample, MatchesReferenceAndRefusesBadShapes) {
  auto src = MakeFloat(7, 5, 2);
  FillRandom(src.get(), 21, 0.0f, 255.0f);
  auto dst = MakeFloat(15, 11, 2);
  UpsampleFlow(dst.get(), src.get());
  const float kx = 14.0f / 6.0f, ky = 10.0f / 4.0f;
  for (int32_t y = 0; y < 11; ++y)
    for (int32_t x = 0; x < 15; ++x) {
      const float fx = x * (1.0f / kx), fy = y * (1.0f / ky);
      for (int32_t c = 0; c < 2; ++c) {
        const float v = pltest::Bilinear(src.get(), fx, fy, c) * (c == 0 ? kx : ky);
        ASSERT_EQ(At(dst.get(), x, y, c), v) << x << "," << y << "," << c;
      }
    }
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
  auto pulled = flowtest::Snapshot(flow.get());
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
  auto m = MakeFloat(4, 1, 1);
  At(m.get(), 0, 0) = 0.9999f;  // the float nearest 0.9999 lies just above it
  At(m.get(), 1, 0) = 0.9998f;
  At(m.get(), 2, 0) = 7.0f;
  At(m.get(), 3, 0) = -1.0f;
  Binarise(m.get());
  EXPECT_EQ(At(m.get(), 0, 0), static_cast<double>(0.9999f) >= 0.9999 ? 1.0f : 0.0f);
  EXPECT_EQ(At(m.get(), 1, 0), 0.0f);
  EXPECT_EQ(At(m.get(), 2, 0), 1.0f);
  EXPECT_EQ(At(m.get(), 3, 0), 0.0f);
}

}  // namespace
