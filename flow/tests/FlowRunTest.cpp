// flowblur: whole runs of the estimator: known motions, repeatability, workers, bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "flow/tests/FlowTestSupport.h"
#include "image/PLImageCopy.h"
#include "tests/support/PLTestWorkers.h"

using flowtest::At;
using flowtest::MakeTextured;

namespace {

struct FlowStats {
  double meanU = 0, meanV = 0, worst = 0;
  double within = 0;  // share of pixels within `tolerance` of the expected vector
};

FlowStats Measure(const PLImage* flow, double du, double dv, int32_t margin, double tolerance) {
  FlowStats s;
  int64_t n = 0, good = 0;
  for (int32_t y = margin; y < flow->height - margin; ++y)
    for (int32_t x = margin; x < flow->width - margin; ++x) {
      const double u = At(flow, x, y, 0), v = At(flow, x, y, 1);
      s.meanU += u;
      s.meanV += v;
      const double e = std::hypot(u - du, v - dv);
      s.worst = std::max(s.worst, e);
      if (e <= tolerance) ++good;
      ++n;
    }
  s.meanU /= n;
  s.meanV /= n;
  s.within = static_cast<double>(good) / n;
  return s;
}

bool AllZero(const PLImage* flow) {
  for (int32_t y = 0; y < flow->height; ++y)
    for (int32_t x = 0; x < flow->width; ++x)
      if (At(flow, x, y, 0) != 0.0f || At(flow, x, y, 1) != 0.0f) return false;
  return true;
}

// A textured image moved by a sub-pixel vector is found in the delivered (forward) sign.
// Tolerance: the images are 8-bit (quantisation noise of half a level on slopes of a few
// levels a pixel), the 2x2 solve stops where |det| <= 40 and the last smoothing of the flow
// mixes 11 pixels, so the estimate carries a small bias (measured: 0.03 px in u, 0.05 px in
// v, no pixel off by more than 0.07 px). We ask the mean within 0.08 px and 95% of the
// pixels within 0.2 px, away from a border band as wide as the largest kernel (15 taps)
// plus the motion, where the one-sided gradients and renormalised kernels act.
struct Motion {
  int32_t w, h, channels, dataType, mode;
  double du, dv, su, sv;  // su, sv: working-size pixels per input pixel
  int32_t margin;
};

TEST(FlowRun, KnownTranslationsAreFound) {
  // Mode 1 works at half size: corner-aligned halving scales by 127/255 and 99/199.
  const Motion motions[] = {{240, 180, 3, PLUChar, 0, 2.3, -1.6, 1.0, 1.0, 24},
                            {256, 200, 1, PLFloat, 1, -4.6, 3.2, 127.0 / 255, 99.0 / 199, 14}};
  for (const Motion& m : motions) {
    auto a = MakeTextured(m.w, m.h, m.channels, m.dataType, 0, 0);
    auto b = MakeTextured(m.w, m.h, m.channels, m.dataType, m.du, m.dv);
    PLOpticalFlowUChar flow(m.w, m.h, m.mode, 0, 0, 12);
    flow.SetLevelFactor(0.7f);
    PLImage out(flow.workWidth, flow.workHeight, 2, PLFloat, 1);  // a flipped destination
    flow.ComputeFlow(&out, a.get(), b.get(), 1, 1, 0, nullptr);
    const FlowStats s = Measure(&out, m.du * m.su, m.dv * m.sv, m.margin, 0.2);
    EXPECT_NEAR(s.meanU, m.du * m.su, 0.08) << "mode " << m.mode;
    EXPECT_NEAR(s.meanV, m.dv * m.sv, 0.08) << "mode " << m.mode;
    EXPECT_GT(s.within, 0.95) << "worst " << s.worst;
    EXPECT_TRUE(pltest::SamePixels(&out, flow.flowPyramid[0]));  // written row by row
  }
}

// The flow of a fixed synthetic pair, hashed. The value was recorded from the
// straightforward implementation of this folder (scalar stages, one patch evaluation at a
// time, each sweep pixel by pixel), before any optimisation, with the filter and image
// operations as they stood then; every faster form must reproduce it to the bit. Should a
// filter or image operation beneath change its bits on purpose, re-record it from the
// straightforward form (git history of flow/PLFlowPropagate.cpp).
TEST(FlowRun, RegressionHashOfAFixedPair) {
  auto a = MakeTextured(200, 150, 3, PLUChar, 0, 0);
  auto b = MakeTextured(200, 150, 3, PLUChar, 3.7, 1.2);
  PLOpticalFlowUChar exact(200, 150, 0, 0, 0, 12);
  exact.SetLevelFactor(0.7f);
  exact.ComputeFlow(nullptr, a.get(), b.get(), 1, 1, 0, nullptr);
  EXPECT_EQ(flowtest::Hash(exact.flowPyramid[0]), 0x9d39aaad5d091c64ull) << std::hex
      << flowtest::Hash(exact.flowPyramid[0]);
  // A second run on the same object leaves nothing behind that changes the first's result.
  exact.ComputeFlow(nullptr, a.get(), b.get(), 1, 1, 0, nullptr);
  EXPECT_EQ(flowtest::Hash(exact.flowPyramid[0]), 0x9d39aaad5d091c64ull);
}

TEST(FlowRun, IdenticalForAnyWorkerCount) {
  auto a = MakeTextured(300, 260, 3, PLUChar, 0, 0);
  auto b = MakeTextured(300, 260, 3, PLUChar, -2.2, 1.4);
  for (int32_t smoothing : {0, 1, 2})  // box, Gaussian, narrower Gaussian; one with the edge mix
    pltest::ExpectSameForAllWorkers([&] {
      PLOpticalFlowUChar flow(300, 260, 0, 0, 0, 12);
      flow.SetLevelFactor(0.7f);
      flow.ComputeFlow(nullptr, a.get(), b.get(), 1, smoothing, 0, nullptr, smoothing == 0);
      return pltest::PixelBytes(flow.flowPyramid[0]);
    });
}

// ---- Bad input ---------------------------------------------------------------------------

std::string RunCapturing(PLOpticalFlowUChar* flow, PLImage* out, const PLImage* a,
                         const PLImage* b) {
  testing::internal::CaptureStderr();
  flow->ComputeFlow(out, a, b, 1, 1, 0, nullptr);
  return testing::internal::GetCapturedStderr();
}

TEST(FlowBadInput, IncompatibleInputsDoNothing) {
  PLOpticalFlowUChar flow(32, 32, 0, 0, 0, 12);
  Clear(flow.flowPyramid[0]);
  auto a = MakeTextured(32, 32, 3, PLUChar, 0, 0);
  auto otherSize = MakeTextured(32, 31, 3, PLUChar, 0, 0);
  auto otherType = MakeTextured(32, 32, 3, PLUShort, 0, 0);
  auto otherChannels = MakeTextured(32, 32, 4, PLUChar, 0, 0);
  PLImage longs(32, 32, 3, PLLong, 0);
  const std::string message = "calculating flow, incompatible inputs!\n";
  EXPECT_EQ(RunCapturing(&flow, nullptr, a.get(), otherSize.get()), message);
  EXPECT_EQ(RunCapturing(&flow, nullptr, a.get(), otherType.get()), message);
  EXPECT_EQ(RunCapturing(&flow, nullptr, otherChannels.get(), a.get()), message);
  EXPECT_EQ(RunCapturing(&flow, nullptr, &longs, &longs), message);
  EXPECT_EQ(RunCapturing(&flow, nullptr, nullptr, a.get()), message);

  EXPECT_FALSE(std::signbit(At(flow.flowPyramid[0], 0, 0, 0)));  // no run: no sign flip
}

TEST(FlowBadInput, UnknownModeRunsOnZeroLumaAndDeliversZero) {
  auto a = MakeTextured(40, 30, 3, PLUChar, 0, 0);
  auto b = MakeTextured(40, 30, 3, PLUChar, 2, 1);
  PLOpticalFlowUChar flow(40, 30, 7, 0, 0, 2);
  flow.ComputeFlow(nullptr, a.get(), b.get(), 1, 1, 0, nullptr);
  EXPECT_TRUE(AllZero(flow.flowPyramid[0]));
  EXPECT_EQ(At(flow.firstPyramid[0], 20, 15), 0.0f);
}

TEST(FlowBadInput, WrongFlowOutIsReportedAndClipped) {
  auto a = MakeTextured(40, 30, 1, PLUChar, 0, 0);
  auto b = MakeTextured(40, 30, 1, PLUChar, 1.2, 0.3);
  PLOpticalFlowUChar flow(40, 30, 0, 0, 0, 12);
  const std::string message = "calculating flow, incompatible inputs!\n";
  auto small = flowtest::MakeFloat(7, 5, 2, 9.0f);
  EXPECT_EQ(RunCapturing(&flow, small.get(), a.get(), b.get()), message);
  for (int32_t y = 0; y < 5; ++y)
    for (int32_t x = 0; x < 7; ++x)
      ASSERT_EQ(At(small.get(), x, y, 1), At(flow.flowPyramid[0], x, y, 1));
  auto large = flowtest::MakeFloat(50, 31, 2, 9.0f);
  EXPECT_EQ(RunCapturing(&flow, large.get(), a.get(), b.get()), message);
  EXPECT_EQ(At(large.get(), 39, 29, 0), At(flow.flowPyramid[0], 39, 29, 0));
  EXPECT_EQ(At(large.get(), 45, 30, 0), 9.0f);
  auto three = flowtest::MakeFloat(40, 30, 3, 9.0f);
  EXPECT_EQ(RunCapturing(&flow, three.get(), a.get(), b.get()), message);
  EXPECT_EQ(At(three.get(), 3, 3, 0), 9.0f);  // not a flow image: left alone
  // flowOut that is level 0 itself: no message, no copy.
  EXPECT_EQ(RunCapturing(&flow, flow.flowPyramid[0], a.get(), b.get()), "");
}

// Mismatched and empty inputs are reported once per level-0 build and nothing is read.
TEST(FlowBadInput, InputSizeMismatchIsReportedThreeTimes) {
  PLOpticalFlowUChar flow(64, 48, 1, 0, 0, 12);
  auto a = MakeTextured(40, 30, 3, PLUChar, 0, 0);
  PLImage empty("none", 0);  // no pixels at all
  empty.dataType = PLUChar;
  const std::string thrice =
      "incorrect with and height\nincorrect with and height\nincorrect with and height\n";
  EXPECT_EQ(RunCapturing(&flow, nullptr, a.get(), a.get()), thrice);
  EXPECT_EQ(RunCapturing(&flow, nullptr, &empty, &empty), thrice);
  auto big = MakeTextured(100, 90, 3, PLUChar, 0, 0);  // mode 0 reads only what fits
  PLOpticalFlowUChar zero(64, 48, 0, 0, 0, 12);
  RunCapturing(&zero, nullptr, big.get(), big.get());
  RunCapturing(&zero, nullptr, a.get(), a.get());
}

TEST(FlowBadInput, TwoChannelsAndOutOfRangeFloatGiveNoLuma) {
  PLOpticalFlowUChar flow(24, 20, 0, 0, 0, 12);
  PLImage* level0 = flow.firstPyramid[0];
  auto two = flowtest::MakeFloat(24, 20, 2, 0.5f);
  pltest::Fill(level0, -7.0);
  for (int32_t type : {PLUChar, PLUShort, PLFloat}) {
    PLImage pair(24, 20, 2, type, 0);
    pltest::FillRandom(&pair, 4);
    flow.ConvertToLuma(level0, &pair, 0);
    EXPECT_EQ(At(level0, 5, 5), -7.0f) << type;
  }
  EXPECT_EQ(RunCapturing(&flow, nullptr, two.get(), two.get()), "");  // accepted, no luma
  auto f = flowtest::MakeFloat(24, 20, 1, 0.5f);
  f->whitePoint = 255.0f;
  testing::internal::CaptureStderr();
  flow.ConvertToLuma(level0, f.get(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            " floating image input to PLOpticalFlowUChar is not in correct range\n");
}

TEST(FlowBadInput, TinyWorkingSizesRunSafely) {
  for (int32_t mode = 0; mode <= 3; ++mode)
    for (int32_t w = 1; w <= 6; ++w)
      for (int32_t h = 1; h <= 6; ++h) {
        const int32_t iw = w << mode, ih = h << mode;
        auto a = MakeTextured(iw, ih, 3, PLUChar, 0, 0);
        auto b = MakeTextured(iw, ih, 3, PLUChar, 0.6, -0.4);
        PLOpticalFlowUChar flow(iw, ih, mode, 0, 0, 2);
        ASSERT_EQ(flow.workWidth, w);
        for (float factor : {1.0f, 0.7f, 0.0f, std::nanf("")}) {
          flow.SetLevelFactor(factor);
          flow.ComputeFlow(nullptr, a.get(), b.get(), 1, 1, 0, nullptr, true);
          const PLImage* f = flow.flowPyramid[0];
          for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) {
              // No flow from a factor of 0 or NaN, nor from 0.7 on a single level.
              if (!(factor > 0.0f) || (factor < 0.71f && flow.numLevels == 1)) {
                ASSERT_EQ(At(f, x, y, 0), 0.0f) << w << "x" << h;
              }
              ASSERT_FALSE(std::isnan(At(f, x, y, 0))) << mode << " " << w << "x" << h;
            }
        }
      }
}

// ---- Masks, hints, the step-by-step entries ---------------------------------------------

TEST(FlowSteps, AllValidMasksChangeNothing) {
  auto a = MakeTextured(96, 72, 3, PLUChar, 0, 0);
  auto b = MakeTextured(96, 72, 3, PLUChar, 1.7, -0.9);
  PLImage white(96, 72, 1, PLUChar, 0);
  FillColor(&white, 1.0f, 1.0f, 1.0f, 1.0f);
  PLOpticalFlowUChar plain(96, 72, 0, 0, 0, 12);
  plain.SetLevelFactor(0.7f);
  plain.ComputeFlow(nullptr, a.get(), b.get(), 1, 1, 0, nullptr);
  PLOpticalFlowUChar masked(96, 72, 0, 0, 1, 12);
  masked.SetLevelFactor(0.7f);
  masked.BuildMaskPyramid(&white, 0);
  masked.BuildMaskPyramid(&white, 1);
  EXPECT_EQ(At(masked.GetFirstMask(), 0, 0), 1.0f);
  masked.BuildPyramidForSide(b.get(), a.get(), b.get(), 1, false);
  masked.BuildPyramidForSide(a.get(), nullptr, nullptr, 0, false);
  masked.ComputeFlowFromPyramids(nullptr, 1, 1, 0, nullptr);
  EXPECT_TRUE(pltest::SamePixels(plain.flowPyramid[0], masked.flowPyramid[0]));
  // Ignoring the masks puts them back afterwards.
  PLImage** first = masked.firstMaskPyramid;
  masked.ComputeFlowIgnoringMasks(nullptr, a.get(), b.get(), 1, 1, 0, nullptr, false);
  EXPECT_EQ(masked.firstMaskPyramid, first);
  EXPECT_EQ(masked.useMasks, 1);
  EXPECT_TRUE(pltest::SamePixels(plain.flowPyramid[0], masked.flowPyramid[0]));
  masked.SolvePyramidIgnoringMasks(nullptr, 1, 0, nullptr);  // on the pyramids left as they are
  EXPECT_EQ(masked.useMasks, 1);
  EXPECT_TRUE(pltest::SamePixels(plain.flowPyramid[0], masked.flowPyramid[0]));
}

// Mode 1 halves the mask through binarised blurs: the one invalid pixel stays invalid at
// its place on level 0, and every level holds only 0 and 1.
TEST(FlowSteps, InvalidMaskAreaGrowsDownThePyramid) {
  PLImage mask(96, 72, 1, PLUChar, 0);
  FillColor(&mask, 1.0f, 0, 0, 0);
  mask.PixelAddress(40, 30)[0] = 0;
  PLOpticalFlowUChar flow(96, 72, 1, 0, 1, 12);
  flow.BuildMaskPyramid(&mask, 1);
  EXPECT_EQ(At(flow.secondMaskPyramid[0], 20, 15), 0.0f);
  EXPECT_EQ(At(flow.secondMaskPyramid[0], 0, 0), 1.0f);
  for (int32_t level = 0; level < flow.numLevels; ++level) {
    const PLImage* m = flow.secondMaskPyramid[level];
    for (int32_t y = 0; y < m->height; ++y)
      for (int32_t x = 0; x < m->width; ++x)
        ASSERT_TRUE(At(m, x, y) == 0.0f || At(m, x, y) == 1.0f);
  }
}

TEST(FlowSteps, SwapInputsSolvesTheReverseFlow) {
  auto a = MakeTextured(128, 96, 1, PLUChar, 0, 0);
  auto b = MakeTextured(128, 96, 1, PLUChar, 2.0, 1.0);
  PLOpticalFlowUChar flow(128, 96, 0, 0, 0, 12);
  flow.SetLevelFactor(0.7f);
  flow.BuildPyramidForSide(a.get(), nullptr, nullptr, 0, false);
  flow.BuildPyramidForSide(b.get(), nullptr, nullptr, 1, false);
  flow.PrefilterPyramids(1);
  flow.SwapInputs();
  flow.SolvePyramid(nullptr, 1, 0, nullptr);
  const FlowStats s = Measure(flow.flowPyramid[0], -2.0, -1.0, 20, 0.25);
  EXPECT_NEAR(s.meanU, -2.0, 0.08);
  EXPECT_NEAR(s.meanV, -1.0, 0.08);
}

TEST(FlowHintsRun, HintRoundingAndSign) {
  PLOpticalFlowUChar flow(21, 21, 0, 1, 0, 2);  // workMaxX 20
  flow.ClearFlowHints();
  // 3.5 rounds up to pixel 4; given forward (+2, -1) in a 40-wide system: x scale 0.5.
  flow.AddFlowHint(7.0f, 8.0f, 11.0f, 6.0f, 40.0f, 40.0f);
  flow.AddFlowHint(7.0f, 8.0f, 13.0f, 6.0f, 40.0f, 40.0f);
  flow.AddFlowHint(-50.0f, 8.0f, 0.0f, 0.0f, 40.0f, 40.0f);  // outside: dropped
  flow.AddFlowHint(std::nanf(""), 8.0f, 0.0f, 0.0f, 40.0f, 40.0f);
  EXPECT_EQ(At(flow.GetHintWeight(), 4, 4), 2.0f);
  flow.PinFlowHint(10.0f, 10.0f, 20.0f, 20.0f);
  flow.FinishFlowHints();
  EXPECT_EQ(At(flow.GetHintWeight(), 4, 4), 1.0f);
  EXPECT_EQ(At(flow.GetHintFlow(), 4, 4, 0), -2.5f);  // mean of 2 and 3, internal sign
  EXPECT_EQ(At(flow.GetHintFlow(), 4, 4, 1), 1.0f);
  EXPECT_EQ(At(flow.GetHintWeight(), 10, 10), 1.0f);
  EXPECT_EQ(At(flow.GetHintFlow(), 10, 10, 0), -0.0f);
  EXPECT_GT(At(flow.hintWeightPyramid[1], 2, 2), 0.0f);
  EXPECT_LT(At(flow.hintWeightPyramid[1], 2, 2), 1.0f);
  // A run with hints: the hinted pixel leaves with the hint as its delivered flow.
  auto a = MakeTextured(21, 21, 1, PLUChar, 0, 0);
  flow.ComputeFlow(nullptr, a.get(), a.get(), 0, 1, 0, nullptr);
  EXPECT_EQ(At(flow.flowPyramid[0], 4, 4, 0), 2.5f);
  EXPECT_EQ(At(flow.flowPyramid[0], 4, 4, 1), -1.0f);
}

// A view over an image, as the one-shot entry takes them.
struct View {
  NuvImageInternal wrap;
  NuvImage view;
  explicit View(PLImage* image) : wrap(image) { view.Attach(&wrap); }
};

TEST(FlowOneShot, StatusesAndResult) {
  auto a = MakeTextured(64, 48, 3, PLUChar, 0, 0);
  auto b = MakeTextured(64, 48, 3, PLUChar, 1.0, 0.0);
  auto c = MakeTextured(64, 48, 1, PLUChar, 0, 0);
  auto out = flowtest::MakeFloat(32, 24, 2);
  View va(a.get()), vb(b.get()), vc(c.get()), vf(out.get());
  EXPECT_EQ(ComputeFlowOneShot(nullptr, &va.view, &vb.view, 1, nullptr), 5);
  EXPECT_EQ(ComputeFlowOneShot(&vf.view, &va.view, &vb.view, 0, nullptr), 5);  // 64x48 expected
  EXPECT_EQ(ComputeFlowOneShot(&vf.view, &va.view, &vc.view, 1, nullptr), 5);
  EXPECT_EQ(ComputeFlowOneShot(&vf.view, &va.view, &vb.view, 1, nullptr), 0);
  PLOpticalFlowUChar same(64, 48, 1, 0, 0, 2);
  same.ComputeFlow(nullptr, a.get(), b.get(), 1, 1, 0, nullptr, false);
  EXPECT_TRUE(pltest::SamePixels(same.flowPyramid[0], out.get()));
}

}  // namespace

// ---- The all-outside rule ----------------------------------------------------------------

// Drives the flow through hand-set hint pyramids (weights only at the hinted levels, where the
// rule is skipped; it applies from the next level on), on two identical images, where no step
// can change a flow whose targets lie outside. `fields` holds, per level from the coarsest,
// the internal u of every pixel, or null for no hint.
std::unique_ptr<PLOpticalFlowUChar> RunWithHintedFields(int32_t size,
                                                        std::vector<float (*)(int32_t x)> fields) {
  std::unique_ptr<PLOpticalFlowUChar> flow(new PLOpticalFlowUChar(size, size, 0, 1, 0, 12));
  EXPECT_EQ(flow->numLevels, static_cast<int32_t>(fields.size()));
  for (int32_t level = 0; level < flow->numLevels; ++level) {
    Clear(flow->hintFlowPyramid[level]);
    Clear(flow->hintWeightPyramid[level]);
    float (*u)(int32_t) = fields[flow->numLevels - 1 - level];
    if (!u) continue;
    const int32_t n = flow->hintFlowPyramid[level]->width;
    for (int32_t y = 0; y < n; ++y)
      for (int32_t x = 0; x < n; ++x) {
        At(flow->hintFlowPyramid[level], x, y, 0) = u(x);
        At(flow->hintWeightPyramid[level], x, y) = 1.0f;
      }
  }
  auto a = MakeTextured(size, size, 1, PLUChar, 0, 0);
  flow->ComputeFlow(nullptr, a.get(), a.get(), 1, 1, 0, nullptr);
  return flow;
}

float FarLeft(int32_t) { return -100.0f; }
float PlusOne(int32_t x) { return static_cast<float>(x + 1); }

TEST(FlowAllOutside, DroppedLevelsTheAddedFlowAndTheRuleAppliedOnlyOnce) {
  // A level whose every pixel samples outside is dropped; on identical images the levels
  // below stay zero, which the final sign flip turns into negative zeros.
  auto dropped = RunWithHintedFields(48, {FarLeft, nullptr, nullptr});  // 12, 24, 48
  EXPECT_EQ(At(dropped->flowPyramid[2], 5, 5, 0), -100.0f);  // hinted: the rule skipped there
  EXPECT_TRUE(AllZero(dropped->flowPyramid[1]));             // about -209 everywhere: dropped
  EXPECT_TRUE(AllZero(dropped->flowPyramid[0]));
  EXPECT_TRUE(std::signbit(At(dropped->flowPyramid[0], 10, 10, 0)));
  // Internal u = x + 1: sampling at x - u = -1 is outside everywhere, but the rule adds the
  // flow (x + u = 2x + 1), finds pixels inside, and keeps the field.
  auto added = RunWithHintedFields(48, {PlusOne, nullptr, nullptr});
  EXPECT_GT(At(added->flowPyramid[1], 3, 3, 0), 4.0f);
  EXPECT_LT(At(added->flowPyramid[0], 6, 6, 0), -8.0f);  // delivered sign
  // Level 3: u = x + 1, which passes the test at level 2. Level 1: u = -100 everywhere,
  // which carries level 0 wholly outside; once passed, the rule is never applied again.
  auto once = RunWithHintedFields(96, {PlusOne, nullptr, FarLeft, nullptr});  // 12 .. 96
  EXPECT_GT(At(once->flowPyramid[2], 3, 3, 0), 4.0f);
  EXPECT_GT(At(once->flowPyramid[0], 50, 50, 0), 150.0f);  // about +202, delivered sign
}
