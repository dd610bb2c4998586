// flowblur tests: the flow dissolve: messages and refusals, each style against its literal
// rule, the agreement map, pyramid blends, failures and worker counts.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>

#include "dissolve/PLFlowDissolve.h"
#include "fill/PLPyramid.h"
#include "runtime/NuvMem.h"
#include "tests/support/PLTestImages.h"
#include "warp/PLWarp.h"

using namespace pltest;

namespace {

// A smooth flow with an interior that moves by up to `amount` pixels.
TestImage SmoothFlow(int32_t w, int32_t h, float amount, float phase) {
  TestImage f = MakeImage(w, h, 2, PLFloat, 1, 8);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      Set(f.get(), x, y, 0, amount * std::sin(0.11f * x + phase) * std::cos(0.07f * y));
      Set(f.get(), x, y, 1, 0.6f * amount * std::cos(0.05f * x - phase));
    }
  return f;
}

TestImage Picture(int32_t w, int32_t h, int32_t channels, uint32_t seed) {
  TestImage p = MakeImage(w, h, channels, PLUChar, seed % 2, 3);
  FillRandom(p.get(), seed);
  return p;
}

// The literal dissolve of two UChar images by f.
TestImage Dissolved(const PLImage* a, const PLImage* b, float f) {
  TestImage d = MakeImage(a->width, a->height, a->channels, PLUChar);
  for (int32_t y = 0; y < a->height; ++y)
    for (int32_t x = 0; x < a->width; ++x)
      for (int32_t c = 0; c < a->channels; ++c) {
        const int32_t p = static_cast<int32_t>(Get(a, x, y, c));
        const int32_t q = static_cast<int32_t>(Get(b, x, y, c));
        Set(d.get(), x, y, c, std::trunc(static_cast<float>(p) + (q - p) * f + 0.5f));
      }
  return d;
}

TestImage Warped(const PLImage* src, const PLImage* flow, float amount) {
  TestImage d = MakeImage(src->width, src->height, src->channels, PLUChar);
  Fill(d.get(), 0.0);
  EXPECT_EQ(Warp(d.get(), src, flow, 1, 0, 0, nullptr, 1, 0, 0.0f, amount), 1);
  return d;
}

std::string Stderr(float t, PLImage* dst, const PLImage* a, PLImage* fa, const PLImage* b,
                PLImage* fb, int32_t style) {
  ::testing::internal::CaptureStderr();
  PLFlowDissolve(t, dst, a, fa, b, fb, style);
  return ::testing::internal::GetCapturedStderr();
}

// ---- Entry rules -------------------------------------------------------------------------

TEST(FlowDissolve, MessagesAndRefusalsLeaveTheDestination) {
  TestImage a = Picture(24, 20, 4, 1), b = Picture(24, 20, 4, 2);
  TestImage fa = SmoothFlow(24, 20, 3, 0), fb = SmoothFlow(24, 20, 3, 1);
  TestImage dst = MakeImage(24, 20, 4, PLUChar);
  Fill(dst.get(), 77.0);
  TestImage floatA = MakeImage(24, 20, 4, PLFloat);
  TestImage small = Picture(23, 20, 4, 3);
  const std::string what = "PLFlowDissolve what?\n";
  EXPECT_EQ(Stderr(1, dst.get(), floatA.get(), fa.get(), b.get(), fb.get(), 3),
            "PLFlowDissolve only supports unsigned char\n");
  EXPECT_EQ(Stderr(1, dst.get(), a.get(), nullptr, b.get(), nullptr, 2), what);
  EXPECT_EQ(Stderr(1, dst.get(), a.get(), fa.get(), b.get(), nullptr, 3), what);
  EXPECT_EQ(Stderr(1, dst.get(), a.get(), fa.get(), b.get(), nullptr, 5), what);
  EXPECT_EQ(Stderr(1, dst.get(), small.get(), fa.get(), b.get(), fb.get(), 2),
            "PLFlowDissolve: images do not match\n");
  EXPECT_EQ(Stderr(0.2f, dst.get(), a.get(), fa.get(), b.get(), nullptr, 1), "");
  // A style above 6 only zeroes the borders of both flows.
  EXPECT_EQ(Stderr(0.5f, dst.get(), a.get(), fa.get(), b.get(), fb.get(), 7), "");
  EXPECT_EQ(Get(fb.get(), 0, 7, 1), 0.0);
  EXPECT_EQ(Get(fa.get(), 23, 19, 0), 0.0);
  EXPECT_NE(Get(fb.get(), 1, 7, 1), 0.0);
  for (int32_t y = 0; y < 20; ++y)
    for (int32_t x = 0; x < 24; ++x) ASSERT_EQ(Get(dst.get(), x, y, 2), 77.0);
}

// ---- Styles 0 to 3 -----------------------------------------------------------------------

// Style 0 cuts to imageA from t = 0.5 on (any channel count); style 2 is the plain dissolve
// (a flow is required though unused: either will do); style 1 pushes the nearer image,
// imageA at t = 0.5; style 3 dissolves both warps.
TEST(FlowDissolve, StylesZeroToThreeAreTheirLiteralRules) {
  for (int32_t channels = 1; channels <= 4; ++channels) {
    TestImage a = Picture(11, 5, channels, 3), b = Picture(11, 5, channels, 4);
    TestImage dst = MakeImage(11, 5, channels, PLUChar, 1, 5);
    for (float t : {0.5f, 0.4999f}) {
      PLFlowDissolve(t, dst.get(), a.get(), nullptr, b.get(), nullptr, 0);
      EXPECT_TRUE(SamePixels(dst.get(), (t >= 0.5f ? a : b).get()));
    }
    EXPECT_TRUE(PaddingUntouched(dst));
  }
  TestImage a = Picture(40, 30, 4, 7), b = Picture(40, 30, 4, 8);
  TestImage fa = SmoothFlow(40, 30, 4, 0.3f), fb = SmoothFlow(40, 30, 4, 1.7f);
  TestImage dst = MakeImage(40, 30, 4, PLUChar, 1, 4);
  PLFlowDissolve(0.5f, dst.get(), a.get(), fa.get(), b.get(), fb.get(), 7);  // zero borders
  for (float t : {0.5f, 0.8f, 0.2f, 0.0f, 0.25f, 0.37f, 0.9f, 1.0f}) {
    PLImage* onlyFlow[2] = {t < 0.3f ? nullptr : fa.get(), t < 0.3f ? fb.get() : nullptr};
    PLFlowDissolve(t, dst.get(), a.get(), onlyFlow[0], b.get(), onlyFlow[1], 2);
    EXPECT_TRUE(SamePixels(dst.get(), Dissolved(a.get(), b.get(), 1.0f - t).get())) << t;
    Fill(dst.get(), 0.0);
    PLFlowDissolve(t, dst.get(), a.get(), fa.get(), b.get(), fb.get(), 1);
    TestImage wa = Warped(a.get(), fa.get(), 1.0f - t), wb = Warped(b.get(), fb.get(), t);
    EXPECT_TRUE(SamePixels(dst.get(), (t >= 0.5f ? wa : wb).get())) << t;
    PLFlowDissolve(t, dst.get(), a.get(), fa.get(), b.get(), fb.get(), 3);
    EXPECT_TRUE(SamePixels(dst.get(), Dissolved(wa.get(), wb.get(), 1.0f - t).get())) << t;
  }
  EXPECT_TRUE(PaddingUntouched(dst));
}

// ---- Style 4 -------------------------------------------------------------------------------

// flowB read at the target returns the point to (x + e, y): lo and hi for widths 320 and
// 1000, the linear fall between them, and the zero rules.
TEST(FlowDissolve, AgreementMapBounds) {
  struct Case { int32_t width; float e, expected; };
  const Case cases[] = {{320, 0.5f, 1.0f},     {320, 6.5f, 0.5f},   {320, 12.5f, 0.0f},
                        {320, 11.5f, 0.0454545f}, {1000, 3.0f, 1.0f}, {1000, 20.0625f, 0.5f},
                        {1000, 36.9f, 0.0029520f}, {1000, 37.5f, 0.0f}};
  for (const Case& k : cases) {
    TestImage fa = MakeImage(k.width, 4, 2, PLFloat), fb = MakeImage(k.width, 4, 2, PLFloat);
    Fill(fa.get(), 0.0);
    Fill(fb.get(), 0.0);
    for (int32_t x = 0; x < k.width; ++x) {
      Set(fa.get(), x, 1, 0, 2.0);
      for (int32_t y = 0; y < 4; ++y) Set(fb.get(), x, y, 0, -2.0 - k.e);
    }
    Set(fa.get(), 5, 1, 1, std::numeric_limits<float>::quiet_NaN());
    Set(fa.get(), 7, 1, 0, -8.0);  // target left of the frame
    TestImage c = MakeImage(k.width, 4, 1, PLFloat, 1, 4);
    PLFlowAgreement(c.get(), fa.get(), fb.get());
    EXPECT_NEAR(Get(c.get(), 100, 1, 0), k.expected, 1e-6) << k.width << " " << k.e;
    EXPECT_EQ(Get(c.get(), 5, 1, 0), 0.0);
    EXPECT_EQ(Get(c.get(), 7, 1, 0), 0.0);
    EXPECT_EQ(Get(c.get(), k.width - 1, 2, 0), 0.0);  // last column
    EXPECT_EQ(Get(c.get(), 100, 3, 0), 0.0);          // last row
    EXPECT_EQ(Get(c.get(), k.width - 3, 1, 0), 0.0);  // target at or past lastColumn
  }
}

// Flows that agree only at the border: the middle becomes a cut (at t = 0.3 it shows the
// warp of imageB). Where they agree the warped map is infinite (the warp's average rule
// divides by a count read as a subnormal float), its bilinear read NaN, and a NaN share
// stores 0. Flows smaller than the images read the map's corner, where they agree, at every
// pixel: all 0.
TEST(FlowDissolve, AgreementStyleCutsWhereFlowsDisagree) {
  const float t = 0.3f;
  TestImage a = Picture(64, 64, 4, 9), b = Picture(64, 64, 4, 10);
  for (int32_t flowSize : {64, 32}) {
    TestImage fa = MakeImage(flowSize, flowSize, 2, PLFloat);
    TestImage fb = MakeImage(flowSize, flowSize, 2, PLFloat);
    for (PLImage* f : {fa.get(), fb.get()})
      for (int32_t y = 0; y < flowSize; ++y)
        for (int32_t x = 0; x < flowSize; ++x) Set(f, x, y, 0, 3.0), Set(f, x, y, 1, 0.0);
    TestImage dst = MakeImage(64, 64, 4, PLUChar);
    PLFlowDissolve(t, dst.get(), a.get(), fa.get(), b.get(), fb.get(), 4);
    TestImage plain = MakeImage(64, 64, 4, PLUChar);
    PLFlowDissolve(t, plain.get(), a.get(), fa.get(), b.get(), fb.get(), 3);
    if (flowSize == 32) {
      for (int32_t y = 0; y < 64; ++y)
        for (int32_t x = 0; x < 64; ++x) ASSERT_EQ(Get(dst.get(), x, y, 1), 0.0);
      continue;
    }
    EXPECT_EQ(Get(dst.get(), 0, 30, 2), 0.0);
    TestImage wb = Warped(b.get(), fb.get(), t);
    int32_t differ = 0;
    for (int32_t y = 24; y < 40; ++y)
      for (int32_t x = 24; x < 40; ++x)
        for (int32_t c = 0; c < 4; ++c) {
          ASSERT_EQ(Get(dst.get(), x, y, c), Get(wb.get(), x, y, c)) << x << ", " << y;
          differ += Get(plain.get(), x, y, c) != Get(wb.get(), x, y, c);
        }
    EXPECT_GT(differ, 500);
  }
}

// ---- Styles 5 and 6 ----------------------------------------------------------------------

// A smaller side below 20 gives one level: every sample is b + (a - b) * w, w the step of
// level 0 at t, clamped and rounded. Style 5 with zero flows warps nothing.
TEST(FlowDissolve, SmallImagesBlendAtOneRate) {
  for (int32_t style : {5, 6})
    for (int32_t channels = (style == 5 ? 4 : 1); channels <= 4; ++channels) {
      TestImage a = Picture(27, 19, channels, 11), b = Picture(27, 19, channels, 12);
      // Opaque, so that the warp of style 5 copies every pixel as it is.
      if (channels == 4)
        for (int32_t y = 0; y < 19; ++y)
          for (int32_t x = 0; x < 27; ++x) Set(a.get(), x, y, 3, 255), Set(b.get(), x, y, 3, 255);
      TestImage zero = MakeImage(27, 19, 2, PLFloat);
      Fill(zero.get(), 0.0);
      TestImage dst = MakeImage(27, 19, channels, PLUChar, 1, 3);
      const float t = 0.4f;
      PLFlowDissolve(t, dst.get(), a.get(), zero.get(), b.get(), zero.get(), style);
      GaussStepOneDPyramid steps(19);
      ASSERT_EQ(steps.numLevels(), 1);
      const float w = steps.Lookup(t, 0);
      for (int32_t y = 0; y < 19; ++y)
        for (int32_t x = 0; x < 27; ++x)
          for (int32_t c = 0; c < channels; ++c) {
            const float p = static_cast<float>(Get(a.get(), x, y, c));
            const float q = static_cast<float>(Get(b.get(), x, y, c));
            const float v = std::fmin(std::fmax(q + (p - q) * w, 0.0f), 255.0f);
            ASSERT_EQ(Get(dst.get(), x, y, c), std::trunc(v + 0.5f)) << style;
          }
      EXPECT_TRUE(PaddingUntouched(dst));
    }
}

// ---- Failures and workers ----------------------------------------------------------------

void* FailLarge(void* limit, uint64_t size) {
  return size > *static_cast<uint64_t*>(limit) ? nullptr : std::malloc(size);
}
void FreeBlock(void*, void* block) { std::free(block); }

TEST(FlowDissolve, FailuresInsideAStyleLeaveAsOutOfMemory) {
  TestImage a = Picture(200, 100, 4, 15), b = Picture(200, 100, 4, 16);
  TestImage fa = SmoothFlow(200, 100, 3, 0), fb = SmoothFlow(200, 100, 3, 1);
  TestImage dst = MakeImage(200, 100, 4, PLUChar);
  uint64_t limit = 40000;  // below one 200 x 100 picture
  for (int32_t style : {3, 4, 5, 6}) {
    NuvMemSetHooks(&limit, FailLarge, FreeBlock);
    PLErr caught = PLErrNone;
    try {
      PLFlowDissolve(0.5f, dst.get(), a.get(), fa.get(), b.get(), fb.get(), style);
    } catch (PLErr& err) {
      caught = err;
    }
    NuvMemSetHooks(nullptr, nullptr, nullptr);
    EXPECT_EQ(caught, PLErrOutOfMemory) << style;
  }
  // A map too wide for the Gaussian blur raises PLErrParameter inside style 4.
  TestImage wa = Picture(16380, 2, 4, 19), wb = Picture(16380, 2, 4, 20);
  TestImage wfa = SmoothFlow(16380, 2, 1, 0), wfb = SmoothFlow(16380, 2, 1, 0);
  TestImage wdst = MakeImage(16380, 2, 4, PLUChar);
  try {
    PLFlowDissolve(0.5f, wdst.get(), wa.get(), wfa.get(), wb.get(), wfb.get(), 4);
    ADD_FAILURE() << "no failure";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrOutOfMemory);
  }
}

TEST(FlowDissolve, WarpAndPyramidStylesSameForAllWorkers) {
  TestImage a = Picture(150, 140, 4, 17), b = Picture(150, 140, 4, 18);
  for (int32_t style : {3, 4, 5, 6})
    ExpectSameForAllWorkers([&] {
      TestImage fa = SmoothFlow(150, 140, 5, 0.2f), fb = SmoothFlow(150, 140, 5, 2.2f);
      TestImage dst = MakeImage(150, 140, 4, PLUChar);
      PLFlowDissolve(0.35f, dst.get(), a.get(), fa.get(), b.get(), fb.get(), style);
      return PixelBytes(dst.get());
    });
}

}  // namespace
