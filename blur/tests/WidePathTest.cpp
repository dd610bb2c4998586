// flowblur: the renderer's wide row loop against its plain loop, byte for byte.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <tuple>

#include "blur/PLBlurWide.h"
#include "blur/blur.h"
#include "tests/support/PLTestImages.h"

namespace {

using pltest::MakeImage;
using pltest::Set;
using pltest::TestImage;

// Flows that reach every branch of a lane: still, sub-pixel around both copy thresholds,
// long (walks that leave the image), huge (its square overflows), infinite and NaN vectors.
void FillTrickyFlow(PLImage* flow, std::mt19937& rng) {
  std::uniform_real_distribution<float> pick(0.0f, 1.0f), big(-40.0f, 40.0f),
      small(-0.003f, 0.003f), nearOne(-2.5f, 2.5f);
  const float specials[] = {std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN(), 1.0e30f, -0.0f};
  for (int32_t y = 0; y < flow->height; ++y)
    for (int32_t x = 0; x < flow->width; ++x)
      for (int32_t c = 0; c < 2; ++c) {
        const float p = pick(rng);
        float v = p < 0.1f ? 0.0f : p < 0.25f ? small(rng) : p < 0.5f ? nearOne(rng) : big(rng);
        if (p > 0.985f) v = specials[static_cast<int32_t>(rng() % 5)];
        Set(flow, x, y, c, v);
      }
}

// Views on the stack over test images, as PLMotionBlurRect makes them.
struct Views {
  NuvImageInternal srcWrap, dstWrap, flowWrap;
  NuvImage src, dst, flow;
  Views(PLImage* d, const PLImage* s, const PLImage* f) : srcWrap(s), dstWrap(d), flowWrap(f) {
    src.Attach(&srcWrap);
    dst.Attach(&dstWrap);
    flow.Attach(&flowWrap);
  }
};

template <class T, int32_t C>
void RenderOn(PLBlurPath path, bool countOutside, bool bilinear, PLImage* dst, const PLImage* src,
              const PLImage* flow, float amount, int32_t x0, int32_t x1, int32_t y0, int32_t y1) {
  Views v(dst, src, flow);
  NuvIdleAndProgressClass progress(nullptr);
  BlurRowsOnPath<T, C>(path, countOutside, x0, x1, y0, y1, &v.dst, &v.src, &v.flow,
                       bilinear ? 1 : 0, &progress, amount);
}

template <class T>
void RenderOn(int32_t channels, PLBlurPath path, bool countOutside, bool bilinear, PLImage* dst,
              const PLImage* src, const PLImage* flow, float amount, int32_t x0, int32_t x1,
              int32_t y0, int32_t y1) {
  switch (channels) {
    case 1: RenderOn<T, 1>(path, countOutside, bilinear, dst, src, flow, amount, x0, x1, y0, y1); break;
    case 2: RenderOn<T, 2>(path, countOutside, bilinear, dst, src, flow, amount, x0, x1, y0, y1); break;
    case 3: RenderOn<T, 3>(path, countOutside, bilinear, dst, src, flow, amount, x0, x1, y0, y1); break;
    default: RenderOn<T, 4>(path, countOutside, bilinear, dst, src, flow, amount, x0, x1, y0, y1);
  }
}

void Render(int32_t type, int32_t channels, PLBlurPath path, bool countOutside, bool bilinear,
            PLImage* dst, const PLImage* src, const PLImage* flow, float amount, int32_t x0,
            int32_t x1, int32_t y0, int32_t y1) {
  if (type == PLUChar)
    RenderOn<uint8_t>(channels, path, countOutside, bilinear, dst, src, flow, amount, x0, x1, y0, y1);
  else if (type == PLUShort)
    RenderOn<uint16_t>(channels, path, countOutside, bilinear, dst, src, flow, amount, x0, x1, y0, y1);
  else
    RenderOn<float>(channels, path, countOutside, bilinear, dst, src, flow, amount, x0, x1, y0, y1);
}

class WidePath : public ::testing::TestWithParam<std::tuple<int32_t, int32_t>> {
 protected:
  void SetUp() override {
    if (!PLBlurWideAvailable()) GTEST_SKIP() << "no AVX2 here (or a plain-only build)";
  }
};

// Every member, both sampling paths and border rules, on sizes that leave every count of
// lanes in a row's last group (and images of two pixels a side, whose last bytes sit at the
// end of the buffer), with flipped and padded layouts and sub-rectangles.
TEST_P(WidePath, SameBytesAsThePlainLoop) {
  const auto [type, channels] = GetParam();
  std::mt19937 rng(99 + type * 10 + channels);
  const int32_t sizes[][4] = {{2, 2, 2, 2}, {3, 2, 2, 2}, {9, 5, 4, 3},   {17, 11, 9, 6},
                              {40, 23, 21, 12}, {61, 30, 7, 44}};
  int32_t trial = 0;
  for (const auto& sz : sizes)
    for (int32_t bilinear = 0; bilinear < 2; ++bilinear)
      for (int32_t countOutside = 0; countOutside < 2; ++countOutside, ++trial) {
        const int32_t w = sz[0], h = sz[1];
        TestImage src = MakeImage(w, h, channels, type, trial & 1, trial % 3 == 1 ? 12 : 0);
        TestImage flow = MakeImage(sz[2], sz[3], 2, PLFloat, (trial >> 1) & 1, trial % 2 ? 8 : 0);
        TestImage plain = MakeImage(w, h, channels, type, (trial >> 2) & 1, trial % 4 == 0 ? 4 : 0);
        TestImage wide = MakeImage(w, h, channels, type, (trial >> 2) & 1, trial % 4 == 0 ? 4 : 0);
        pltest::FillRandom(src.get(), rng());
        FillTrickyFlow(flow.get(), rng);
        const float amount = trial % 3 == 2 ? -0.9f : 1.7f;
        int32_t x0 = 0, x1 = w - 1, y0 = 0, y1 = h - 1;
        if (trial % 4 == 3 && w > 8) x0 = 1, x1 = w - 3, y0 = 1, y1 = h - 2;
        Render(type, channels, PLBlurPath::kPlain, countOutside, bilinear, plain.get(), src.get(),
               flow.get(), amount, x0, x1, y0, y1);
        Render(type, channels, PLBlurPath::kWide, countOutside, bilinear, wide.get(), src.get(),
               flow.get(), amount, x0, x1, y0, y1);
        EXPECT_TRUE(pltest::SamePixels(plain.get(), wide.get()))
            << w << "x" << h << " flow " << sz[2] << "x" << sz[3] << " bilinear " << bilinear
            << " countOutside " << countOutside;
        EXPECT_TRUE(pltest::PaddingUntouched(wide));
      }
}

INSTANTIATE_TEST_SUITE_P(AllMembers, WidePath,
                         ::testing::Combine(::testing::Values(PLUChar, PLUShort, PLFloat),
                                            ::testing::Values(1, 2, 3, 4)));

// Float sources keep every bit through both loops: NaN payloads, infinities and -0.0 in the
// samples, copied or averaged.
TEST(WidePathFloat, SpecialSamplesGiveTheSameBits) {
  if (!PLBlurWideAvailable()) GTEST_SKIP() << "no AVX2 here (or a plain-only build)";
  std::mt19937 rng(5);
  TestImage src = MakeImage(29, 13, 4, PLFloat);
  pltest::FillRandom(src.get(), 5);
  const uint32_t nanBits = 0x7FC0BEEFu;
  std::memcpy(src->PixelAddress(3, 4) + 4, &nanBits, 4);
  Set(src.get(), 10, 6, 0, std::numeric_limits<float>::infinity());
  Set(src.get(), 20, 9, 3, -0.0);
  TestImage flow = MakeImage(15, 7, 2, PLFloat);
  FillTrickyFlow(flow.get(), rng);
  for (int32_t bilinear = 0; bilinear < 2; ++bilinear) {
    TestImage plain = MakeImage(29, 13, 4, PLFloat), wide = MakeImage(29, 13, 4, PLFloat);
    Render(PLFloat, 4, PLBlurPath::kPlain, false, bilinear, plain.get(), src.get(), flow.get(),
           0.6f, 0, 28, 0, 12);
    Render(PLFloat, 4, PLBlurPath::kWide, false, bilinear, wide.get(), src.get(), flow.get(), 0.6f,
           0, 28, 0, 12);
    EXPECT_EQ(pltest::PixelBytes(plain.get()), pltest::PixelBytes(wide.get()));
  }
}

}  // namespace
