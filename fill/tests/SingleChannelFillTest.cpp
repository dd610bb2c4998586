// flowblur tests: the single channel fill: levels, invariants, helpers and worker counts.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "fill/PLSingleChannelFill.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;
using LevelStack = class PLSingleChannelFill;

namespace {

constexpr int32_t kTypes[] = {PLUChar, PLUShort, PLFloat};

void RandomMask(PLImage* mask, uint32_t seed, int32_t percent) {
  std::mt19937 rng(seed);
  for (int32_t y = 0; y < mask->height; ++y)
    for (int32_t x = 0; x < mask->width; ++x) Set(mask, x, y, 0, int32_t(rng() % 100) < percent);
}

TEST(SingleChannelFill, LevelCounts) {
  const int32_t cases[][3] = {{2, 2, 2}, {4, 4, 2}, {1, 1, 2}, {9, 4, 3}, {1920, 1080, 11}, {3, 300, 8}};
  for (auto& c : cases) {
    LevelStack fill(c[0], c[1]);
    EXPECT_EQ(fill.topLevel, c[2]) << c[0] << "x" << c[1];
    for (int32_t l = 1; l <= fill.topLevel; ++l) {
      EXPECT_EQ(fill.values[l]->width, std::max(2, fill.values[l - 1]->width / 2));
      EXPECT_EQ(fill.weights[l]->height, std::max(2, fill.weights[l - 1]->height / 2));
    }
    EXPECT_EQ(fill.solution[fill.topLevel]->width, 2);
    EXPECT_EQ(fill.solution[fill.topLevel]->height, 2);
  }
  EXPECT_THROW(LevelStack(0, 5), PLErr);
  LevelStack fill(5, 4);  // modes 1 and 2 are not built: refused
  EXPECT_THROW(fill.Solve(nullptr, 1), PLErr);
  EXPECT_THROW(fill.Solve(nullptr, 2), PLErr);
}

// Per type, channel count and layout: no holes changes nothing; all holes give 0; a one-pixel
// size difference does nothing and says nothing; known pixels keep their exact values and
// holes stay within the range of the known ones (every stage averages with positive weights).
class SingleChannelFillTypes : public ::testing::TestWithParam<std::tuple<int32_t, int32_t>> {};

TEST_P(SingleChannelFillTypes, Invariants) {
  const int32_t type = std::get<0>(GetParam()), maskType = std::get<1>(GetParam());
  const int32_t sizes[][2] = {{33, 21}, {2, 2}, {1, 9}, {7, 1}};
  uint32_t seed = 3;
  for (auto& s : sizes)
    for (int32_t channels = 1; channels <= 4; channels += 3) {
      const int32_t w = s[0], h = s[1];
      TestImage im = MakeImage(w, h, channels, type, 1, 2);
      TestImage mask = MakeImage(w, h, 1, maskType, 0, 1);
      TestImage before = MakeImage(w, h, channels, type);
      FillRandom(im.get(), seed++);
      CopyPixels(before.get(), im.get());
      Fill(mask.get(), 0);
      PLSingleChannelFill(im.get(), mask.get(), nullptr);
      EXPECT_TRUE(SamePixels(im.get(), before.get())) << w << "x" << h;
      TestImage off = MakeImage(w + (channels == 1), h + (channels == 4), 1, maskType);
      Fill(off.get(), 1);
      testing::internal::CaptureStderr();
      PLSingleChannelFill(im.get(), off.get(), nullptr);
      EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
      EXPECT_TRUE(SamePixels(im.get(), before.get()));

      RandomMask(mask.get(), seed, 40);
      Set(mask.get(), 0, 0, 0, 0);  // at least one known pixel
      PLSingleChannelFill(im.get(), mask.get(), nullptr);
      for (int32_t c = 0; c < channels; ++c) {
        double lo = 1e30, hi = -1e30;
        for (int32_t y = 0; y < h; ++y)
          for (int32_t x = 0; x < w; ++x)
            if (Get(mask.get(), x, y, 0) == 0) {
              lo = std::min(lo, Get(before.get(), x, y, c));
              hi = std::max(hi, Get(before.get(), x, y, c));
            }
        // Float holes may exceed the range by rounding of value / weight.
        const double slack = type == PLFloat ? 1e-5 : 0.0;
        for (int32_t y = 0; y < h; ++y)
          for (int32_t x = 0; x < w; ++x) {
            const double v = Get(im.get(), x, y, c);
            if (Get(mask.get(), x, y, 0) == 0)
              ASSERT_EQ(v, Get(before.get(), x, y, c)) << x << "," << y;
            else
              ASSERT_TRUE(v >= lo - slack && v <= hi + slack) << v << " not in " << lo << ".." << hi;
          }
      }
      Fill(mask.get(), 1);
      PLSingleChannelFill(im.get(), mask.get(), nullptr);
      for (unsigned char b : PixelBytes(im.get())) ASSERT_EQ(b, 0);
      EXPECT_TRUE(PaddingUntouched(im));
    }
}

INSTANTIATE_TEST_SUITE_P(TypePairs, SingleChannelFillTypes,
                         ::testing::Combine(::testing::ValuesIn(kTypes), ::testing::ValuesIn(kTypes)));

TEST(SingleChannelFill, CopyChannelConversions) {
  struct Case {
    int32_t from, to;
    double in, out;
  };
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Case cases[] = {{PLFloat, PLUChar, -3.0, 0},       {PLFloat, PLUChar, 254.6, 255},
                        {PLFloat, PLUChar, 300.0, 255},    {PLFloat, PLUChar, nan, 0},
                        {PLFloat, PLUShort, 70000.0, 65535}, {PLFloat, PLUShort, 12.49, 12},
                        {PLUShort, PLUChar, 300, 255},     {PLUChar, PLUShort, 200, 200},
                        {PLUShort, PLFloat, 65535, 65535}, {PLFloat, PLFloat, -7.25, -7.25}};
  for (const Case& k : cases) {
    TestImage src = MakeImage(3, 2, 2, k.from, 1, 1);
    TestImage dst = MakeImage(3, 2, 3, k.to, 0, 3);
    Fill(src.get(), 1);
    Fill(dst.get(), 9);
    for (int32_t y = 0; y < 2; ++y)
      for (int32_t x = 0; x < 3; ++x) Set(src.get(), x, y, 1, k.in);
    LevelStack::CopyChannel(dst.get(), 2, src.get(), 1);
    EXPECT_EQ(Get(dst.get(), 2, 1, 2), k.out) << k.from << "->" << k.to << " " << k.in;
    EXPECT_EQ(Get(dst.get(), 2, 1, 1), 9);
  }
  TestImage a = MakeImage(3, 2, 1, PLFloat), b = MakeImage(3, 3, 1, PLFloat);
  EXPECT_THROW(LevelStack::CopyChannel(a.get(), 0, b.get(), 0), PLErr);
  EXPECT_THROW(LevelStack::CopyChannel(a.get(), 1, a.get(), 0), PLErr);
}

// Upsample against the bilinear rule; one-column targets read column 0.
TEST(SingleChannelFill, UpsampleMatchesFormula) {
  const int32_t sizes[][4] = {{9, 7, 4, 3}, {17, 10, 8, 5}, {5, 5, 2, 2}, {1, 4, 3, 2}};
  for (auto& z : sizes) {
    TestImage src = MakeImage(z[2], z[3], 2, PLFloat, 1, 4);
    TestImage dst = MakeImage(z[0], z[1], 2, PLFloat, 0, 4);
    FillRandom(src.get(), 12);
    LevelStack::Upsample(dst.get(), src.get());
    const float fx = z[0] == 1 ? 0.0f : 1.0f / ((float(z[0]) - 1.0f) / float(z[2] - 1));
    const float fy = 1.0f / ((float(z[1]) - 1.0f) / float(z[3] - 1));
    for (int32_t y = 0; y < z[1]; ++y)
      for (int32_t x = 0; x < z[0]; ++x)
        for (int32_t c = 0; c < 2; ++c)
          ASSERT_EQ(Get(dst.get(), x, y, c), Bilinear(src.get(), float(x) * fx, float(y) * fy, c))
              << x << "," << y;
    EXPECT_TRUE(PaddingUntouched(dst));
  }
  TestImage u8 = MakeImage(4, 4, 1, PLUChar), f = MakeImage(2, 2, 1, PLFloat);
  TestImage f2 = MakeImage(4, 4, 2, PLFloat);
  for (PLImage* bad : {u8.get(), f2.get()}) {
    try {
      LevelStack::Upsample(bad, f.get());
      ADD_FAILURE() << "accepted";
    } catch (PLErr e) {
      EXPECT_EQ(e, PLErrParameter);
    }
  }
}

// An interruption rises out of the first smoothing tick as value 6.
TEST(SingleChannelFill, InterruptionPropagates) {
  TestImage im = MakeImage(20, 20, 1, PLFloat);
  TestImage mask = MakeImage(20, 20, 1, PLUChar);
  RandomMask(mask.get(), 2, 50);
  NuvIdleAndProgressClass progress(nullptr);
  progress.SetInterrupted(true);
  LevelStack fill(20, 20);
  fill.Prepare(im.get(), 0, mask.get());
  try {
    fill.Solve(&progress, 0);
    ADD_FAILURE() << "no interruption";
  } catch (PLErr e) {
    EXPECT_EQ(e, PLErrInterrupted);
  }
}

}  // namespace
