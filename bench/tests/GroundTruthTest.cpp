// flowblur: tests of the quality harness's ground truth: true blurs of still and translating
// scenes against their closed forms, frame coding, PSNR and endpoint error.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "bench/GroundTruth.h"

namespace flowblur {
namespace {

// A pixel-cell pattern: the value of cell i, deterministic and irregular.
double Cell(int64_t i, int32_t c) {
  uint32_t h = static_cast<uint32_t>(i) * 0x9E3779B1u + static_cast<uint32_t>(c) * 0x85EBCA77u;
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  h ^= h >> 12;
  return (h & 0xFFu) / 255.0;
}

// Cells one pixel wide translating along x (or y) at `speed` pixels a frame: the value at
// (x, y, t) is Cell(floor(p - speed t)), p the coordinate along the motion.
class CellScene : public QualityScene {
 public:
  CellScene(double speed, bool vertical) : speed_(speed), vertical_(vertical) {}
  int32_t Width() const override { return 41; }
  int32_t Height() const override { return 19; }
  void Sample(double t, double x, double y, float rgb[3]) const override {
    double p = vertical_ ? y : x;
    int64_t cell = static_cast<int64_t>(std::floor(p - speed_ * t));
    for (int c = 0; c < 3; ++c) rgb[c] = static_cast<float>(Cell(cell, c));
  }
  void Motion(double, std::vector<float>* uv) const override {
    uv->assign(static_cast<size_t>(Width()) * Height() * 2, 0.0f);
    for (size_t i = 0; i < uv->size(); i += 2) (*uv)[i + (vertical_ ? 1 : 0)] = float(speed_);
  }
  // The closed form: the mean over the shutter of Cell(floor(s)) for s from p - speed t1 to
  // p - speed t0, i.e. the integral of the piecewise-constant pattern divided by its length.
  double Analytic(double p, double t0, double t1, int32_t c) const {
    double lo = std::min(p - speed_ * t1, p - speed_ * t0);
    double hi = std::max(p - speed_ * t1, p - speed_ * t0);
    double sum = 0.0;
    for (int64_t i = static_cast<int64_t>(std::floor(lo)); i < hi; ++i) {
      double a = std::max(lo, double(i)), b = std::min(hi, double(i + 1));
      if (b > a) sum += (b - a) * Cell(i, c);
    }
    return sum / (hi - lo);
  }

 private:
  double speed_;
  bool vertical_;
};

// Rounding of a float store of a value in 0..1 summed in double: half an ulp at 1.
constexpr double kFloatRounding = 6e-8;

std::vector<float> TrueBlur(const QualityScene& scene, double frame, double amount,
                            int32_t threads = 1, int32_t subframes = kTrueBlurSubframes) {
  std::vector<float> out(static_cast<size_t>(scene.Width()) * scene.Height() * 3);
  RenderTrueBlur(scene, frame, amount, subframes, threads, out.data());
  return out;
}

std::vector<float> Frame(const QualityScene& scene, double t) {
  std::vector<float> out(static_cast<size_t>(scene.Width()) * scene.Height() * 3);
  RenderSceneFrame(scene, t, 1, out.data());
  return out;
}

// A still scene blurs to itself at any amount (64 equal floats summed in double and divided by
// 64 are exact); amount 0 is the frame of a moving one.
TEST(TrueBlur, StillSceneAndZeroAmountGiveTheFrame) {
  CellScene still(0.0, true), moving(37.25, false);
  for (double amount : {0.5, 3.0}) EXPECT_EQ(TrueBlur(still, 4.0, amount), Frame(still, 4.0));
  EXPECT_EQ(TrueBlur(moving, 2.0, 0.0), Frame(moving, 2.0));
}

// Shutters of 0.5, 1 and 2 frames at 128, 64 and 32 px a frame: 64 slices of exactly one pixel
// each, so the mean of the sub-frames is the box integral of the cells, which the closed form
// computes on its own. A shutter of the wrong length or off centre misses it.
class TranslatingCells : public ::testing::TestWithParam<bool> {};

TEST_P(TranslatingCells, MatchTheAnalyticBoxAverage) {
  const bool vertical = GetParam();
  for (double frame : {0.0, 3.0})
    for (double amount : {0.5, 1.0, 2.0})
      for (double sign : {1.0, -1.0}) {
        CellScene scene(sign * 64.0 / amount, vertical);
        std::vector<float> blurred = TrueBlur(scene, frame, amount, 2);
        double worst = 0.0;
        for (int32_t y = 0; y < scene.Height(); ++y)
          for (int32_t x = 0; x < scene.Width(); ++x)
            for (int32_t c = 0; c < 3; ++c) {
              const double t0 = frame - amount / 2, t1 = frame + amount / 2;
              double want = scene.Analytic(vertical ? y : x, t0, t1, c);
              double got = blurred[(static_cast<size_t>(y) * scene.Width() + x) * 3 + c];
              worst = std::max(worst, std::fabs(got - want));
            }
        EXPECT_LE(worst, kFloatRounding) << "frame " << frame << " amount " << amount;
      }
}

INSTANTIATE_TEST_SUITE_P(BothAxes, TranslatingCells, ::testing::Values(false, true));

TEST(TrueBlur, RowBandsDoNotChangeTheResult) {
  DemoScene scene(96, 54);
  std::vector<float> one = TrueBlur(scene, 2.0, 0.5, 1, 8);
  for (int32_t threads : {2, 3, 8}) EXPECT_EQ(TrueBlur(scene, 2.0, 0.5, threads, 8), one);
}

// The generator's own speeds at its default width are the per-frame speeds at every size,
// in the reported motion and in the picture.
TEST(DemoScene, MotionPerFrameWhateverTheSize) {
  double bu960, bv960;
  DemoClip(960, 540).BackgroundVelocity(&bu960, &bv960);
  for (int32_t width : {60, 240}) {
    DemoScene scene(width, width * 9 / 16);
    std::vector<float> uv;
    scene.Motion(1.0, &uv);
    EXPECT_NEAR(uv[0], bu960, 1e-5) << width;  // top-left corner: background
    EXPECT_NEAR(uv[1], bv960, 1e-5) << width;
    float a[3], b[3];
    scene.Sample(1.0, 3.0, 2.0, a);
    scene.Sample(2.0, 3.0 + uv[0], 2.0 + uv[1], b);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(a[c], b[c], 1e-5) << width;
  }
}

TEST(HostFrames, CodingRoundsAndRoundTrips) {
  const float values[6] = {0.0f, 1.0f, 0.5f, 1.0f / 255.0f, -0.25f, 1.5f};
  std::vector<uint8_t> bytes(6);
  ASSERT_TRUE(EncodeHostFrame(values, 2, 24, bytes.data()));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0, 255, 128, 1, 0, 255}));
  std::vector<uint16_t> words(6);
  ASSERT_TRUE(EncodeHostFrame(values, 2, 48, words.data()));
  EXPECT_EQ(words, (std::vector<uint16_t>{0, 65535, 32768, 257, 0, 65535}));
  float back[6];
  ASSERT_TRUE(DecodeHostFrame(bytes.data(), 2, 24, back));
  EXPECT_FLOAT_EQ(back[2], 128.0f / 255.0f);
  EXPECT_FALSE(EncodeHostFrame(values, 2, 32, bytes.data()));
  EXPECT_EQ(HostBytesPerPixel(49), 6);
  EXPECT_EQ(HostBytesPerPixel(25), 3);
  EXPECT_EQ(HostBytesPerPixel(7), 0);
}

TEST(HostFrames, HalfFloatsRoundToNearestEven) {
  // Every half converts to float and back to itself (NaNs stay NaNs).
  for (uint32_t h = 0; h < 65536; ++h) {
    float f = HalfToFloat(static_cast<uint16_t>(h));
    if (std::isnan(f)) {
      EXPECT_TRUE(std::isnan(HalfToFloat(FloatToHalf(f)))) << h;
      continue;
    }
    ASSERT_EQ(FloatToHalf(f), h) << h;
  }
  EXPECT_EQ(FloatToHalf(1.0f), 0x3C00);
  EXPECT_EQ(FloatToHalf(1.0f + 1.0f / 2048.0f), 0x3C00);  // tie to the even neighbour below
  EXPECT_EQ(FloatToHalf(1.0f + 3.0f / 2048.0f), 0x3C02);  // tie to the even neighbour above
  EXPECT_EQ(FloatToHalf(65519.0f), 0x7BFF);
  EXPECT_EQ(FloatToHalf(65520.0f), 0x7C00);
  EXPECT_EQ(FloatToHalf(std::ldexp(1.0f, -25)), 0x0000);  // tie between 0 and the least
  EXPECT_EQ(FloatToHalf(std::ldexp(3.0f, -25)), 0x0002);
}

TEST(Measures, PsnrOfKnownErrors) {
  std::vector<float> a(300, 0.5f), b(300, 0.5f);
  EXPECT_TRUE(std::isinf(Psnr(a.data(), b.data(), a.size())));
  for (float& v : b) v += 0.1f;  // MSE 0.01: 20 dB
  EXPECT_NEAR(Psnr(a.data(), b.data(), a.size()), 20.0, 1e-4);
  b = a;
  b[0] = 1.5f;  // one error of 1 in 300: MSE 1/300
  EXPECT_NEAR(Psnr(a.data(), b.data(), a.size()), 10.0 * std::log10(300.0), 1e-9);
}

TEST(Measures, EndpointErrorScalesTheWorkingGridToSourcePixels) {
  // Source 9 x 5 moving (2, -1) px a frame; a working grid of 5 x 3 (ratios 2 and 2).
  const int32_t w = 9, h = 5, fw = 5, fh = 3;
  // A flow to the previous frame measures minus the motion, in working pixels: (-1, 0.5).
  std::vector<float> truth, flow;
  for (int32_t i = 0; i < w * h; ++i) truth.insert(truth.end(), {2.0f, -1.0f});
  for (int32_t i = 0; i < fw * fh; ++i) flow.insert(flow.end(), {-1.0f, 0.5f});
  EXPECT_DOUBLE_EQ(AverageEndpointError(flow.data(), fw, fh, truth.data(), w, h, -1.0), 0.0);
  // The wrong sign is off by twice the motion: sqrt(4^2 + 2^2).
  EXPECT_NEAR(AverageEndpointError(flow.data(), fw, fh, truth.data(), w, h, 1.0),
              std::sqrt(20.0), 1e-12);
  // The truth is read at the nearest source pixel of each working pixel: a truth that differs
  // only at the source pixel under working pixel (3, 1), i.e. (6, 2), finds that pixel.
  truth[2 * (2 * w + 6)] = 5.0f;  // motion u 5 there: the flow misses by 3 source px
  EXPECT_NEAR(AverageEndpointError(flow.data(), fw, fh, truth.data(), w, h, -1.0), 3.0 / 15.0,
              1e-12);
  // Restricted to a layer: only that pixel (layer 2) counts, or all the others (layer 0).
  std::vector<uint8_t> layers(w * h, 0);
  layers[2 * w + 6] = 2;
  EXPECT_NEAR(AverageEndpointError(flow.data(), fw, fh, truth.data(), w, h, -1.0, layers.data(), 2),
              3.0, 1e-12);
  EXPECT_DOUBLE_EQ(
      AverageEndpointError(flow.data(), fw, fh, truth.data(), w, h, -1.0, layers.data(), 0), 0.0);
}

TEST(Measures, TrueFlowOnGridHasNoEndpointError) {
  DemoScene scene(120, 68);
  std::vector<float> uv;
  scene.Motion(2.0, &uv);
  const int32_t fw = 60, fh = 34;
  std::vector<float> flow(fw * fh * 2);
  TrueFlowOnGrid(uv.data(), 120, 68, -1.0, fw, fh, flow.data());
  // Working units: the background's (-5, 1.25) px a frame, reversed, over ratios 119/59, 67/33.
  EXPECT_NEAR(flow[0], 5.0 * 59.0 / 119.0, 1e-5);
  EXPECT_NEAR(flow[1], -1.25 * 33.0 / 67.0, 1e-5);
  EXPECT_LT(AverageEndpointError(flow.data(), fw, fh, uv.data(), 120, 68, -1.0), 1e-5);
  EXPECT_GT(AverageEndpointError(flow.data(), fw, fh, uv.data(), 120, 68, 1.0), 9.0);
}

}  // namespace
}  // namespace flowblur
