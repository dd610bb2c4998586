// flowblur: the per-pixel stages against slow references, and their edge cases.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "flow/tests/FlowTestSupport.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestWorkers.h"

using flowtest::At;
using flowtest::MakeFloat;

namespace {

// A pseudo-random float image in 0..255.
std::unique_ptr<PLImage> Noise(int32_t w, int32_t h, int32_t channels, uint32_t seed,
                               int32_t flipped = 0) {
  std::unique_ptr<PLImage> image(new PLImage(w, h, channels, PLFloat, flipped));
  pltest::FillRandom(image.get(), seed, 0.0f, 255.0f);
  return image;
}

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
  return sum / n;
}

TEST(FlowGradients, MatchReferenceOnFlippedInput) {
  auto image = Noise(37, 21, 1, 7, 1);
  auto gx = MakeFloat(37, 21, 1);
  auto gy = MakeFloat(37, 21, 1);
  ComputeGradients(gx.get(), gy.get(), image.get());
  for (int32_t y = 0; y < 21; ++y)
    for (int32_t x = 0; x < 37; ++x) {
      const float c = At(image.get(), x, y);
      const float l = x > 0 ? At(image.get(), x - 1, y) : 0.0f;
      const float r = x < 36 ? At(image.get(), x + 1, y) : 0.0f;
      const float u = y > 0 ? At(image.get(), x, y - 1) : 0.0f;
      const float d = y < 20 ? At(image.get(), x, y + 1) : 0.0f;
      ASSERT_EQ(At(gx.get(), x, y), RefGradient(l, c, r, x > 0, x < 36)) << x << "," << y;
      ASSERT_EQ(At(gy.get(), x, y), RefGradient(u, c, d, y > 0, y < 20)) << x << "," << y;
    }
}

TEST(FlowGradients, OnePixelWideIsNotANumber) {
  auto image = Noise(1, 5, 1, 3);
  auto gx = MakeFloat(1, 5, 1);
  auto gy = MakeFloat(1, 5, 1);
  ComputeGradients(gx.get(), gy.get(), image.get());
  for (int32_t y = 0; y < 5; ++y) {
    EXPECT_TRUE(std::isnan(At(gx.get(), 0, y)));
    EXPECT_FALSE(std::isnan(At(gy.get(), 0, y)));
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

TEST(FlowMoments, Products) {
  auto gx = Noise(9, 4, 1, 1);
  auto gy = Noise(9, 4, 1, 2);
  auto s = MakeFloat(9, 4, 3);
  ComputeMoments(s.get(), gx.get(), gy.get());
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 9; ++x) {
      const float a = At(gx.get(), x, y), b = At(gy.get(), x, y);
      EXPECT_EQ(At(s.get(), x, y, 0), a * a);
      EXPECT_EQ(At(s.get(), x, y, 1), b * a);
      EXPECT_EQ(At(s.get(), x, y, 2), b * b);
    }
}

TEST(FlowResidual, MatchesReferenceMaskedAndUnmasked) {
  const int32_t w = 23, h = 17;
  auto first = Noise(w, h, 1, 11);
  auto second = Noise(w, h, 1, 12, 1);
  auto gx = Noise(w, h, 1, 13);
  auto gy = Noise(w, h, 1, 14);
  auto flow = MakeFloat(w, h, 2);
  auto mask = MakeFloat(w, h, 1, 1.0f);
  At(mask.get(), 7, 7) = 0.0f;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      At(flow.get(), x, y, 0) = 3.7f * std::sin(0.9f * x + y);
      At(flow.get(), x, y, 1) = 2.9f * std::cos(0.7f * y - x);
    }
  // Exact corners: a target at (w - 1, h - 1) is in the frame and reads the corner pixel.
  At(flow.get(), w - 1, h - 1, 0) = 0.0f;
  At(flow.get(), w - 1, h - 1, 1) = 0.0f;
  At(flow.get(), 0, 0, 0) = 0.0f;
  At(flow.get(), 0, 0, 1) = 0.0f;
  At(flow.get(), 5, 5, 0) = std::nanf("");  // not a number: outside
  for (int32_t masked = 0; masked < 2; ++masked) {
    auto r = MakeFloat(w, h, 2, 99.0f);
    ComputeResidual(r.get(), first.get(), second.get(), gx.get(), gy.get(), flow.get(), masked,
                    mask.get());
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        const float sx = x - At(flow.get(), x, y, 0);
        const float sy = y - At(flow.get(), x, y, 1);
        float p = 0.0f, q = 0.0f;
        if (sx >= 0 && sx <= w - 1 && sy >= 0 && sy <= h - 1) {
          const float s = pltest::Bilinear(second.get(), sx, sy, 0);
          if (!masked || static_cast<double>(pltest::Bilinear(mask.get(), sx, sy, 0)) >= 0.999) {
            const float d = s - At(first.get(), x, y);
            p = At(gx.get(), x, y) * d;
            q = d * At(gy.get(), x, y);
          }
        }
        ASSERT_EQ(At(r.get(), x, y, 0), p) << x << "," << y << " masked " << masked;
        ASSERT_EQ(At(r.get(), x, y, 1), q) << x << "," << y;
      }
    const float dCorner = At(second.get(), w - 1, h - 1) - At(first.get(), w - 1, h - 1);
    EXPECT_EQ(At(r.get(), w - 1, h - 1, 0), At(gx.get(), w - 1, h - 1) * dCorner);
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

TEST(FlowUpsample, ConstantFlowScalesByTheGridRatio) {
  auto src = MakeFloat(3, 3, 2);
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 3; ++x) At(src.get(), x, y, 0) = 1.0f;
  auto five = MakeFloat(5, 5, 2, 7.0f);
  UpsampleFlow(five.get(), src.get());
  auto six = MakeFloat(6, 5, 2, 7.0f);
  UpsampleFlow(six.get(), src.get());
  for (int32_t y = 0; y < 5; ++y) {
    for (int32_t x = 0; x < 5; ++x) {
      EXPECT_EQ(At(five.get(), x, y, 0), 2.0f);
      EXPECT_EQ(At(five.get(), x, y, 1), 0.0f);
    }
    for (int32_t x = 0; x < 6; ++x) EXPECT_EQ(At(six.get(), x, y, 0), 2.5f);
  }
}

TEST(FlowUpsample, MatchesReferenceAndRefusesBadShapes) {
  auto src = Noise(7, 5, 2, 21);
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
  ApplyHints(pulled.get(), hint.get(), weight.get(), 0);
  EXPECT_EQ(At(pulled.get(), 1, 0, 0), 2.0f + (6.0f - 2.0f * 2.0f));
  EXPECT_EQ(At(pulled.get(), 2, 0, 1), 2.0f + (6.0f - 0.5f * 2.0f));
}

TEST(FlowHints, HasHintWeight) {
  EXPECT_FALSE(HasHintWeight(nullptr, 0));
  auto w = MakeFloat(4, 3, 1);
  PLImage* pyramid[1] = {w.get()};
  EXPECT_FALSE(HasHintWeight(pyramid, 0));
  At(w.get(), 3, 2) = 1e-30f;
  EXPECT_TRUE(HasHintWeight(pyramid, 0));
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

// Every row-parallel stage gives the same bytes for any worker count.
TEST(FlowStagesWorkers, IdenticalForAllCounts) {
  const int32_t w = 64, h = 160;
  auto image = Noise(w, h, 1, 5);
  auto second = Noise(w, h, 1, 6);
  auto flowIn = Noise(w, h, 2, 8);
  std::vector<uint64_t> hashes;
  for (int32_t workers : kPLTestWorkerCounts) {
    PLTestUseWorkers(workers);
    auto gx = MakeFloat(w, h, 1), gy = MakeFloat(w, h, 1), s = MakeFloat(w, h, 3);
    auto r = MakeFloat(w, h, 2);
    auto flow = flowtest::Snapshot(flowIn.get());
    ComputeGradients(gx.get(), gy.get(), image.get());
    ComputeMoments(s.get(), gx.get(), gy.get());
    SmoothStage(s.get(), true, 1);
    ComputeResidual(r.get(), image.get(), second.get(), gx.get(), gy.get(), flow.get(), 0,
                    nullptr);
    SmoothStage(r.get(), true, 2);
    UpdateFlow(flow.get(), s.get(), r.get());
    SmoothStage(flow.get(), false, 0);
    auto fine = MakeFloat(2 * w - 1, 2 * h, 2);
    UpsampleFlow(fine.get(), flow.get());
    hashes.push_back(flowtest::Hash(fine.get()) ^ (flowtest::Hash(r.get()) << 1));
  }
  PLTestUseWorkers(1);
  for (uint64_t hsh : hashes) EXPECT_EQ(hsh, hashes[0]);
}

}  // namespace
