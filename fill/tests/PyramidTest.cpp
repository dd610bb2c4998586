// flowblur tests: Laplacian, Gaussian and step pyramids; expansion, reconstruction and the
// multiband blend.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "fill/PLPyramid.h"
#include "fill/PLSingleChannelFill.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;
using LevelStack = class PLSingleChannelFill;

namespace {

float At(const PLImage* level, int32_t x, int32_t y) {
  return static_cast<float>(Get(level, x, y, 0));
}

// Expand and the single channel fill's Upsample as written: corner-aligned bilinear; a
// one-column target reads column 0.
void RefExpand(PLImage* dst, const PLImage* src) {
  const float sx =
      dst->width == 1 ? 0.0f : 1.0f / ((dst->width - 1.0f) / static_cast<float>(src->width - 1));
  const float sy = 1.0f / ((dst->height - 1.0f) / static_cast<float>(src->height - 1));
  for (int32_t y = 0; y < dst->height; ++y)
    for (int32_t x = 0; x < dst->width; ++x)
      for (int32_t c = 0; c < dst->channels; ++c)
        Set(dst, x, y, c, Bilinear(src, x * sx, y * sy, c));
}

TEST(Pyramid, LevelCountsAndSizes) {
  const int32_t cases[][3] = {{20, 20, 2}, {19, 1000, 1}, {1000, 19, 1}, {40, 40, 3}, {1, 1, 1},
                              {100, 45, 3}};
  for (auto& c : cases) {
    LaplacePyramid p(c[0], c[1]);
    EXPECT_EQ(p.numLevels(), c[2]) << c[0] << "x" << c[1];
    EXPECT_EQ(GaussPyramid(c[0], c[1]).levelCount, c[2]);
    const PLImage* top = p.levels[c[2] - 1];
    EXPECT_TRUE(top->width == c[0] >> (c[2] - 1) && top->height == c[1] >> (c[2] - 1));
  }
  for (int32_t length : {19, 20, 39, 40, 1000})
    EXPECT_EQ(GaussStepOneDPyramid(length).levelCount, LaplacePyramid(length, length).levelCount);
  EXPECT_THROW(LaplacePyramid(0, 5), PLErr);
  EXPECT_THROW(GaussStepOneDPyramid(-3), PLErr);
}

// Expand on one channel, Upsample on two; flipped and padded images.
TEST(Pyramid, ExpandAndUpsampleMatchReference) {
  const int32_t sizes[][4] = {{10, 10, 20, 21}, {12, 7, 25, 14}, {2, 2, 5, 3}, {9, 4, 9, 4},
                              {4, 3, 9, 7},     {8, 5, 17, 10},  {2, 2, 5, 5}, {3, 2, 1, 4}};
  for (auto& z : sizes)
    for (int32_t upsample = z[2] == 1; upsample < 2; ++upsample) {  // Expand needs 2 columns
      TestImage src = MakeImage(z[0], z[1], 1 + upsample, PLFloat, upsample, 4 * upsample);
      TestImage got = MakeImage(z[2], z[3], 1 + upsample, PLFloat, 1 - upsample, 4);
      TestImage want = MakeImage(z[2], z[3], 1 + upsample, PLFloat);
      FillRandom(src.get(), z[0] * 31 + z[3]);
      if (upsample)
        LevelStack::Upsample(got.get(), src.get());
      else
        Expand(got.get(), src.get());
      RefExpand(want.get(), src.get());
      EXPECT_TRUE(SamePixels(got.get(), want.get()) && PaddingUntouched(got))
          << z[0] << "x" << z[1] << " -> " << z[2] << "x" << z[3] << " upsample " << upsample;
    }
  PLImage one(1, 5, 1, PLFloat, 0), dst(4, 4, 1, PLFloat, 0), rgb(3, 3, 3, PLFloat, 0);
  EXPECT_THROW(Expand(&dst, &one), PLErr);
  EXPECT_THROW(Expand(&one, &dst), PLErr);
  EXPECT_THROW(Expand(&dst, &rgb), PLErr);
  PLImage u8(4, 4, 1, PLUChar, 0), f(2, 2, 1, PLFloat, 0), f2(4, 4, 2, PLFloat, 0);
  for (PLImage* bad : {&u8, &f2}) {
    try {
      LevelStack::Upsample(bad, &f);
      ADD_FAILURE() << "accepted";
    } catch (PLErr e) {
      EXPECT_EQ(e, PLErrParameter);
    }
  }
}

// Each band is the low-pass level less the expansion of the next; the top is low-pass.
TEST(Pyramid, LaplaceLevelsAreGaussDifferences) {
  TestImage image = MakeImage(83, 61, 3, PLUShort, 1, 6);
  FillRandom(image.get(), 11);
  LaplacePyramid lap(83, 61);
  GaussPyramid gauss(83, 61);
  lap.Build(image.get(), 2);
  gauss.Build(image.get(), 2);
  ASSERT_EQ(lap.levelCount, 3);
  EXPECT_EQ(At(gauss.levels[0], 5, 7), Get(image.get(), 5, 7, 2));
  const int32_t top = lap.levelCount - 1;
  EXPECT_TRUE(SamePixels(lap.levels[top], gauss.levels[top]));
  for (int32_t i = 0; i < top; ++i) {
    PLImage up(gauss.levels[i]->width, gauss.levels[i]->height, 1, PLFloat, 0);
    RefExpand(&up, gauss.levels[i + 1]);
    for (int32_t y = 0; y < up.height; ++y)
      for (int32_t x = 0; x < up.width; ++x)
        ASSERT_EQ(At(lap.levels[i], x, y), At(gauss.levels[i], x, y) - At(&up, x, y)) << i;
  }
}

class RoundTrip : public ::testing::TestWithParam<int32_t> {};

// Build then Reconstruct gives the channel back within the rounding; other channels stay.
TEST_P(RoundTrip, ReturnsTheChannel) {
  const int32_t type = GetParam();
  const int32_t sizes[][2] = {{20, 20}, {19, 1000}, {57, 33}, {1, 1}, {130, 24}};
  for (auto& z : sizes)
    for (int32_t channel = 0; channel < 2; ++channel) {
      TestImage image = MakeImage(z[0], z[1], 2, type, channel, 2);
      FillRandom(image.get(), z[0] + channel);
      TestImage out = MakeImage(z[0], z[1], 2, type);
      CopyPixels(out.get(), image.get());
      LaplacePyramid p(z[0], z[1]);
      p.Build(image.get(), channel);
      if (type == PLUChar) Set(out.get(), 0, 0, channel, 0);  // must be rewritten
      p.Reconstruct(out.get(), channel);
      const double tolerance = p.levelCount == 1 ? 0.0 : 1.0;  // one level: exact copy
      for (int32_t y = 0; y < z[1]; ++y)
        for (int32_t x = 0; x < z[0]; ++x) {
          ASSERT_NEAR(Get(out.get(), x, y, channel), Get(image.get(), x, y, channel), tolerance)
              << z[0] << "x" << z[1] << " at " << x << "," << y;
          ASSERT_EQ(Get(out.get(), x, y, 1 - channel), Get(image.get(), x, y, 1 - channel));
        }
      if (p.levelCount == 1) continue;  // the levels were used up: a second call differs
      TestImage again = MakeImage(z[0], z[1], 2, type);
      CopyPixels(again.get(), out.get());
      p.Reconstruct(again.get(), channel);
      EXPECT_FALSE(SamePixels(again.get(), out.get()));
    }
}

INSTANTIATE_TEST_SUITE_P(Types, RoundTrip, ::testing::Values(PLUChar, PLUShort));

std::string Stderr(const std::function<void()>& call) {
  ::testing::internal::CaptureStderr();
  call();
  return ::testing::internal::GetCapturedStderr();
}

TEST(Pyramid, MismatchesPrintAndDoNothing) {
  TestImage image = MakeImage(30, 30, 1, PLUChar), floats = MakeImage(30, 30, 1, PLFloat);
  Fill(image.get(), 9);
  LaplacePyramid p(30, 31), q(30, 30);
  GaussStepOneDPyramid step(30);
  const std::string message = "can't make laplacian pyramid\n";
  EXPECT_EQ(Stderr([&] { p.Build(image.get(), 0); }), message);
  EXPECT_EQ(Stderr([&] { p.Reconstruct(image.get(), 0); }), message);
  EXPECT_EQ(Stderr([&] { q.Build(floats.get(), 0); }), message);
  EXPECT_EQ(Stderr([&] { q.Build(image.get(), 1); }), message);  // no channel 1
  EXPECT_EQ(Stderr([&] { BlendPyramids(0.5f, image.get(), 0, &q, &p, &step); }), message);
  EXPECT_EQ(Get(image.get(), 4, 4, 0), 9);
  // One sample: the level is constant, the stretch has nothing to span.
  EXPECT_EQ(Stderr([] { GaussStepOneDPyramid flat(1); }), "what?\n");
}

TEST(Pyramid, StepCurves) {
  GaussStepOneDPyramid step(300);
  ASSERT_EQ(step.levelCount, 5);
  for (int32_t l = 0; l < step.levelCount; ++l) {
    const PLImage* curve = step.levels[l];
    for (int32_t x = 1; x < curve->width; ++x)  // a rising step stretched to 0 .. 1
      ASSERT_GE(At(curve, x, 0), At(curve, x - 1, 0)) << l;
    EXPECT_EQ(step.Lookup(0.0f, l), 0.0f);
    EXPECT_EQ(step.Lookup(1.0f, l), 1.0f);
    const float t = 0.37f, p = curve->lastColumn * t;
    const int32_t i = static_cast<int32_t>(p);
    EXPECT_EQ(StepValue(&step, l, t),
              (At(curve, i + 1, 0) - At(curve, i, 0)) * (p - i) + At(curve, i, 0));
    EXPECT_EQ(step.Lookup(t, l), StepValue(&step, l, t));
  }
  // The coarser the level, the softer the step relative to its width.
  EXPECT_GT(step.Lookup(0.4f, 4), step.Lookup(0.4f, 0));
  // Outside the domain: the ends, the nearest level, NaN for NaN.
  EXPECT_EQ(StepValue(&step, 0, 7.0f), 1.0f);
  EXPECT_EQ(StepValue(&step, 0, -3.0f), 0.0f);
  EXPECT_EQ(StepValue(&step, 99, 0.3f), StepValue(&step, 4, 0.3f));
  EXPECT_TRUE(std::isnan(StepValue(&step, 0, NAN)));
}

}  // namespace
