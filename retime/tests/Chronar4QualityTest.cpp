// Quality of the retimer on the demo clip: an in-between frame made by the engine must be
// closer to the true picture at that time than the plain average of its two neighbours.
#include <cmath>
#include <cstdio>

#include "retime/retime.h"
#include "retime/tests/ChronarTestSupport.h"
#include "tools/DemoClip.h"

using chronartest::MemoryChronar;
using chronartest::Output;

namespace {

constexpr int32_t kW = 480, kH = 270;
constexpr int32_t kQuality = 4;  // flow at half size, 240 x 135
// The engine's estimator builds its deepest pyramid (down to 2 x 2). Started at the top
// (level factor 1.0) it loses the 12 px disc in some pairs (1-2 of 6 here); 0.35 starts
// it four levels lower and follows the disc in every pair.
constexpr float kLevelFactors[10] = {0.35f, 0.35f, 0.35f, 0.35f, 0.35f,
                                     0.35f, 0.35f, 0.35f, 0.35f, 0.35f};
constexpr float kChokes[10] = {};

void FromRgb8(PLImage* dst, const std::vector<uint8_t>& rgb) {
  for (int32_t y = 0; y < kH; ++y)
    std::memcpy(dst->Row(y), rgb.data() + static_cast<size_t>(y) * kW * 3, kW * 3);
}

std::vector<uint8_t> Render8(const flowblur::DemoClip& clip, double t) {
  std::vector<uint8_t> rgb(static_cast<size_t>(kW) * kH * 3);
  clip.Render8(t, rgb.data());
  return rgb;
}

double Psnr(const PLImage* im, const std::vector<uint8_t>& truth) {
  double sum = 0;
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 0; x < kW * 3; ++x) {
      double d = static_cast<double>(im->Row(y)[x]) - truth[static_cast<size_t>(y) * kW * 3 + x];
      sum += d * d;
    }
  double mse = sum / (static_cast<double>(kW) * kH * 3);
  return 10.0 * std::log10(255.0 * 255.0 / mse);
}

struct DemoFrames {
  flowblur::DemoClip clip{kW, kH, 8};  // disc 12 px a frame, background 2.5
  MemoryChronar engine;
  DemoFrames() {
    for (int32_t n = 1; n <= 7; ++n) {
      chronartest::Owned f = chronartest::NewOwned(kW, kH, 3, PLUChar);
      FromRgb8(f.get(), Render8(clip, n));
      engine.frames[n] = std::move(f);
    }
  }
};

class Chronar4DemoQuality : public ::testing::TestWithParam<std::tuple<int64_t, int32_t>> {};

TEST_P(Chronar4DemoQuality, InBetweenBeatsThePlainAverage) {
  auto [interp, style] = GetParam();
  DemoFrames demo;
  demo.engine.interpolation = interp;
  demo.engine.warpStyle = style;
  for (int32_t n : {1, 2, 3, 4, 5, 6}) {
    const double t = n + 0.5;
    Output out(kW, kH, 3, PLUChar);
    ASSERT_EQ(demo.engine.RenderAtTime(&out.view, static_cast<float>(t), kQuality, 0, 0, 0,
                                       kLevelFactors, kChokes, 1, nullptr),
              0);
    std::vector<uint8_t> truth = Render8(demo.clip, t);
    // The plain average of the two neighbours, rounded.
    chronartest::Owned average = chronartest::NewOwned(kW, kH, 3, PLUChar);
    const PLImage* a = demo.engine.frames[n].get();
    const PLImage* b = demo.engine.frames[n + 1].get();
    for (int32_t y = 0; y < kH; ++y)
      for (int32_t x = 0; x < kW * 3; ++x)
        average->Row(y)[x] = static_cast<uint8_t>((a->Row(y)[x] + b->Row(y)[x] + 1) / 2);
    double engine = Psnr(out.get(), truth), plain = Psnr(average.get(), truth);
    std::printf("interpolation %d style %d t %.1f: engine %.2f dB, average %.2f dB\n",
                static_cast<int>(interp), style, t, engine, plain);
    EXPECT_GT(engine, plain + 1.0) << "t " << t;
  }
}

INSTANTIATE_TEST_SUITE_P(All, Chronar4DemoQuality,
                         ::testing::Combine(::testing::Values(0, 1, 2),
                                            ::testing::Values(0, 1, 2, 3)));

}  // namespace
