// flowblur: input preparation: the luma table, level-0 chains, the edge mix, the high-pass
// prefilter, the reduction, progress reports and interruption of a run.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "filter/PLKernels.h"
#include "flow/PLFlowPrivate.h"
#include "flow/tests/FlowTestSupport.h"
#include "image/PLImageCopy.h"

using flowtest::At;

namespace {

// The luma of one pixel of the type's example values (the first `channels` of them).
float Luma(int32_t type, int32_t channels, uint8_t yuv) {
  const double examples[3][4] = {{100, 200, 50, 77}, {40000, 1234, 65535, 999},
                                 {0.25f, 0.8f, 0.1f, 0.5f}};
  pltest::TestImage source = pltest::MakeImage(1, 1, channels, type);
  for (int32_t c = 0; c < channels; ++c) pltest::Set(source.get(), 0, 0, c, examples[type][c]);
  PLOpticalFlowUChar flow(1, 1, 0, 0, 0, 12);
  At(flow.firstPyramid[0], 0, 0) = -12345.0f;
  flow.ConvertToLuma(flow.firstPyramid[0], source.get(), yuv);
  return At(flow.firstPyramid[0], 0, 0);
}

// Each cell of the table written out once more, by hand, with the example pixels above (RGB
// without YUV: the rows test below).
TEST(FlowLuma, EveryCellOfTheTable) {
  const double w16 = 0.3 * 40000 + 0.59 * 1234 + 0.11 * 65535;
  const double wf = 0.3 * static_cast<double>(0.25f) + 0.59 * static_cast<double>(0.8f) +
                    0.11 * static_cast<double>(0.1f);
  const struct {
    int32_t type, channels;
    uint8_t yuv;
    float want;
  } cells[] = {
      {PLUChar, 1, 0, 100.0f},
      {PLUChar, 1, 1, 100.0f},
      {PLUChar, 3, 1, ((100.0f / 257.0f - 16.0f) * 255.0f) / 219.0f},
      {PLUChar, 4, 0, 0.3f * 100.0f + 0.59f * 200.0f + 0.11f * 50.0f},
      {PLUChar, 4, 1, ((200.0f - 16.0f) * 255.0f) / 219.0f},
      {PLUShort, 1, 0, 40000.0f / 257.0f},
      {PLUShort, 1, 1, 40000.0f / 257.0f},
      {PLUShort, 3, 1, ((40000.0f / 257.0f) * 255.0f) / 219.0f},
      {PLUShort, 4, 0, static_cast<float>(w16 / 257.0)},
      {PLUShort, 4, 1, ((1234.0f / 257.0f - 16.0f) * 255.0f) / 219.0f},
      {PLFloat, 1, 0, 0.25f * 255.0f},
      {PLFloat, 1, 1, 0.25f * 255.0f},
      {PLFloat, 3, 1, (0.25f * 255.0f * 255.0f) / 219.0f},
      {PLFloat, 4, 0, static_cast<float>(wf * 255.0)},
      {PLFloat, 4, 1, ((0.8f * 255.0f - 16.0f) * 255.0f) / 219.0f},
  };
  for (const auto& cell : cells)
    EXPECT_EQ(Luma(cell.type, cell.channels, cell.yuv), cell.want)
        << cell.type << " " << cell.channels << " yuv " << int(cell.yuv);
}

// 8-bit, 16-bit and Float RGB rows (a group of lanes where AVX2 runs, the plain loop for the
// rest) against the double formula, on widths 1 to 19 whose rows are exactly the pixels' bytes
// and end the buffer, so that a read past a row is an AddressSanitizer error.
TEST(FlowLuma, RGBRowsOfEveryTypeAndWidthAgainstTheDoubleFormula) {
  std::mt19937 rng(48);
  for (int32_t type : {PLUChar, PLUShort, PLFloat})
    for (int32_t w = 1; w <= 19; ++w) {
      const int32_t rowBytes = 3 * w * PLBytesPerSample(type);
      std::vector<unsigned char> bytes(static_cast<size_t>(rowBytes) * 5);
      PLImage rgb(bytes.data(), w, 5, rowBytes, 3, type, 1);
      pltest::FillRandom(&rgb, rng());
      if (type == PLUChar) bytes[0] = bytes[1] = bytes[2] = 255;  // the table's last cells
      PLOpticalFlowUChar flow(w, 5, 0, 0, 0, 12);
      flow.ConvertToLuma(flow.firstPyramid[0], &rgb, 0);
      for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < w; ++x) {
          const double sum = 0.3 * pltest::Get(&rgb, x, y, 0) +
                             0.59 * pltest::Get(&rgb, x, y, 1) + 0.11 * pltest::Get(&rgb, x, y, 2);
          const double scaled = type == PLUChar    ? sum
                                : type == PLUShort ? sum / 257.0
                                                   : sum * 255.0;
          ASSERT_EQ(At(flow.firstPyramid[0], x, y), static_cast<float>(scaled))
              << type << " width " << w << " x " << x;
        }
    }
}

// Level 0 of mode 0 is the luma itself, read in the input's own row order.
TEST(FlowInput, ModeZeroLevelZeroIsUnblurredLuma) {
  auto top = flowtest::MakeTextured(40, 30, 1, PLUChar, 0, 0);
  PLImage flipped(40, 30, 1, PLUChar, 1);
  for (int32_t y = 0; y < 30; ++y) std::memcpy(flipped.Row(y), top->Row(y), 40);
  PLOpticalFlowUChar flow(40, 30, 0, 0, 0, 12);
  flow.BuildLevelZero(flow.firstPyramid, &flipped);
  for (int32_t y = 0; y < 30; ++y)
    for (int32_t x = 0; x < 40; ++x)
      ASSERT_EQ(At(flow.firstPyramid[0], x, y), static_cast<float>(top->Row(y)[x]));
}

TEST(FlowInput, EdgeMixOnAConstantImageHalvesIt) {
  PLImage grey(48, 40, 3, PLUChar, 0);
  FillColor(&grey, 100.0f / 255.0f, 100.0f / 255.0f, 100.0f / 255.0f, 0);
  PLOpticalFlowUChar flow(48, 40, 0, 0, 0, 12);
  flow.BuildInputPyramid(flow.firstPyramid, &grey, true, nullptr);
  // (100 + 0) * 0.5; the Gaussian's float weights sum to 1 only within a few ulps, so the
  // blurred grey is 100 give or take 1e-4 and its gradient all but 0.
  for (int32_t level = 0; level < flow.numLevels; ++level)
    EXPECT_NEAR(At(flow.firstPyramid[level], 3, 3), 50.0f, 1e-3) << level;
  // A hard step saturates the magnitude: (value + 255) * 0.5 near it.
  PLImage step(48, 40, 1, PLUChar, 0);
  for (int32_t y = 0; y < 40; ++y)
    for (int32_t x = 0; x < 48; ++x) step.Row(y)[x] = x < 24 ? 0 : 200;
  flow.BuildInputPyramid(flow.secondPyramid, &step, true, nullptr);
  EXPECT_GT(At(flow.secondPyramid[0], 24, 20), 127.5f + 50.0f);
  EXPECT_EQ(At(flow.secondPyramid[0], 2, 20), 0.0f);
}

// The resize refuses axes of length 1; the estimator's reduction maps such an axis to its
// first sample and keeps the corner-aligned rule on the other.
TEST(FlowInput, ReductionAlongAnAxisOfOne) {
  auto src = flowtest::MakeFloat(5, 3, 1);
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 5; ++x) At(src.get(), x, y) = 10.0f * x + y;
  auto column = flowtest::MakeFloat(1, 2, 1, -1.0f);
  plflow::Reduce(column.get(), src.get());
  EXPECT_EQ(At(column.get(), 0, 0), 0.0f);
  EXPECT_EQ(At(column.get(), 0, 1), 2.0f);
  auto thin = flowtest::MakeFloat(1, 3, 1);
  for (int32_t y = 0; y < 3; ++y) At(thin.get(), 0, y) = 5.0f + y;
  auto wide = flowtest::MakeFloat(4, 2, 1, -1.0f);
  plflow::Reduce(wide.get(), thin.get());
  for (int32_t x = 0; x < 4; ++x) {
    EXPECT_EQ(At(wide.get(), x, 0), 5.0f);
    EXPECT_EQ(At(wide.get(), x, 1), 7.0f);
  }
  auto regular = flowtest::MakeFloat(3, 2, 1, -1.0f);  // both axes of 2 or more: the resize
  plflow::Reduce(regular.get(), src.get());
  EXPECT_EQ(At(regular.get(), 2, 1), 42.0f);
}

// The first halving made in bands against the three whole-image stages it stands for, to
// the byte: source types and layouts, YUV, heights around the band and across eight
// workers, NaN and infinite samples (whose NaN bits depend on the blur's pair order), both
// loops and every worker count. Where the stages would refuse or print, it declines.
TEST(FlowInput, BandedHalvingIsTheStagesToTheByte) {
  pltest::WorkerGuard guard;
  struct Case {
    int32_t w, h, channels, type;
    uint8_t yuv;
    pltest::Layout layout;
  };
  std::vector<Case> cases = {{203, 117, 3, PLUChar, 0, pltest::kPlain},
                             {48, 300, 3, PLUChar, 0, pltest::kFlipped},
                             {64, 5, 4, PLUShort, 1, pltest::kPaddedFlipped},
                             {37, 71, 1, PLFloat, 0, pltest::kFlipped},
                             {17, 4, 4, PLUChar, 1, pltest::kPlain}};
  for (int32_t type : {PLUChar, PLUShort, PLFloat})  // every member of the banded loop
    for (int32_t channels : {1, 3, 4})
      for (uint8_t yuv : {0, 1}) cases.push_back({41, 45, channels, type, yuv, pltest::kPadded});
  for (const Case& k : cases) {
    pltest::TestImage source = pltest::MakeImage(k.w, k.h, k.channels, k.type, k.layout);
    pltest::FillRandom(source.get(), static_cast<uint32_t>(k.w + k.h));
    if (k.type == PLFloat) {
      pltest::Set(source.get(), 3, 2, 0, std::nan(""));
      pltest::Set(source.get(), 30, 40, 0, -INFINITY);
      pltest::Set(source.get(), 31, 40, 0, INFINITY);
    }
    PLOpticalFlowUChar flow(k.w, k.h, 0, 0, 0, 12);
    auto luma = flowtest::MakeFloat(k.w, k.h, 1);
    flow.ConvertToLuma(luma.get(), source.get(), k.yuv);
    PLBinomial5Blur(luma.get());
    auto want = flowtest::MakeFloat(k.w / 2, k.h / 2, 1);
    plflow::Reduce(want.get(), luma.get());
    for (bool wide : {true, false})
      pltest::ExpectSameForAllWorkers([&] {
        auto got = flowtest::MakeFloat(k.w / 2, k.h / 2, 1, -7.0f);
        EXPECT_TRUE(plflow::LumaBlurReduce(got.get(), source.get(), k.yuv, wide));
        EXPECT_TRUE(pltest::PixelBytes(got.get()) == pltest::PixelBytes(want.get()))
            << k.w << "x" << k.h << " type " << k.type << " wide " << wide;
        return pltest::PixelBytes(got.get());
      });
  }
  pltest::TestImage twoChannels = pltest::MakeImage(20, 20, 2, PLUChar);
  pltest::TestImage hdr = pltest::MakeImage(20, 20, 3, PLFloat);
  hdr->whitePoint = 2.0f;
  pltest::TestImage column = pltest::MakeImage(1, 20, 3, PLUChar);
  auto dest = flowtest::MakeFloat(10, 10, 1, -7.0f);
  for (const PLImage* refused : {twoChannels.get(), hdr.get(), column.get()})
    EXPECT_FALSE(plflow::LumaBlurReduce(dest.get(), refused, 0, true));
  EXPECT_EQ(At(dest.get(), 5, 5), -7.0f);
}

// ---- Progress ----------------------------------------------------------------------------

struct Recorder : NuvIdleAndProgressClass {
  Recorder() : NuvIdleAndProgressClass(nullptr) {}
  std::vector<float> reports;
  void Progress(float f) override {
    reports.push_back(f);
    NuvIdleAndProgressClass::Progress(f);
  }
};

TEST(FlowProgress, ReportsPerLevelAndTheFinalThird) {
  auto a = flowtest::MakeTextured(96, 64, 1, PLUChar, 0, 0);
  auto b = flowtest::MakeTextured(96, 64, 1, PLUChar, 1, 0);
  PLOpticalFlowUChar flow(96, 64, 0, 0, 0, 12);  // 96x64, 48x32, 24x16: 3 levels
  ASSERT_EQ(flow.numLevels, 3);
  flow.SetLevelFactor(0.7f);  // starts at level 1
  Recorder first;
  flow.ComputeFlow(nullptr, a.get(), b.get(), 1, 1, 0, &first);
  // Per level: 4 Idle before the iterations, 4 per iteration, 4 for the sweeps, 1 Progress.
  EXPECT_EQ(first.reports.size(), 2u * 21u);
  // The first run's estimate counted the 3 levels of a new object.
  const float all = 96 * 64 + 48 * 32 + 24 * 16;
  EXPECT_EQ(first.reports.back(), (96.0f * 64.0f + 48.0f * 32.0f) / (3.0f * all));
  Recorder second;
  flow.ComputeFlow(nullptr, a.get(), b.get(), 1, 1, 0, &second);
  EXPECT_EQ(second.reports.back(), (48.0f * 32.0f + 96.0f * 64.0f) /
                                       (3.0f * (48.0f * 32.0f) + 3.0f * (96.0f * 64.0f)));
  Recorder skipped;
  flow.ComputeFlow(nullptr, a.get(), b.get(), 1, 1, 1, &skipped);
  EXPECT_EQ(skipped.reports.size(), 2u * 17u);
  NuvIdleAndProgressClass interrupted(nullptr);
  interrupted.SetInterrupted(true);
  try {
    flow.ComputeFlow(nullptr, a.get(), a.get(), 1, 1, 0, &interrupted);
    FAIL() << "no interruption";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrInterrupted);
  }
}

}  // namespace
