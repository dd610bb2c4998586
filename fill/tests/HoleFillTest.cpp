// flowblur tests: hole fills against literal references, their edge cases and worker counts;
// the single channel fill's levels, invariants and helpers; Laplacian, Gaussian and step
// pyramids, expansion, reconstruction and the multiband blend's refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "fill/PLHoleFill.h"
#include "fill/PLPyramid.h"
#include "fill/PLSingleChannelFill.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;
using LevelStack = class PLSingleChannelFill;

namespace {

constexpr int32_t kTypes[] = {PLUChar, PLUShort, PLFloat};

template <class Call>
std::string Stderr(Call call) {
  testing::internal::CaptureStderr();
  call();
  return testing::internal::GetCapturedStderr();
}

// The code a call throws, PLErrNone when it returns.
template <class Call>
PLErr Thrown(Call call) {
  try {
    call();
  } catch (PLErr e) {
    return e;
  }
  return PLErrNone;
}

// A mask with roughly `percent` holes in small square blobs.
void FillBlobMask(PLImage* mask, uint32_t seed, int32_t percent) {
  std::mt19937 rng(seed);
  Fill(mask, 0);
  const int64_t target = int64_t{mask->width} * mask->height * percent / 100;
  for (int64_t placed = 0; placed < target;) {
    const int32_t cx = rng() % mask->width, cy = rng() % mask->height, r = rng() % 3;
    for (int32_t y = cy - r; y <= cy + r; ++y)
      for (int32_t x = cx - r; x <= cx + r; ++x)
        if (x >= 0 && y >= 0 && x < mask->width && y < mask->height) {
          Set(mask, x, y, 0, mask->dataType == PLFloat ? 0.5 : 1);
          ++placed;
        }
  }
}

// The diffusion written from its description: groups in order, mask tested per visit, the
// bottom row's upper read taken by flat sample index.
void RefSmallHoleFill(PLImage* im, const PLImage* mask, int32_t iterations) {
  const int32_t lx = im->lastColumn, ly = im->lastRow, C = im->channels;
  const bool isFloat = im->dataType == PLFloat;
  auto hole = [&](int32_t x, int32_t y) { return Get(mask, x, y, 0) != 0.0; };
  auto g = [&](int32_t x, int32_t y, int32_t c) { return Get(im, x, y, c); };
  // `sum` holds a float sum exactly when the image is Float.
  auto put = [&](int32_t x, int32_t y, int32_t c, double sum, double f) {
    if (isFloat)
      Set(im, x, y, c, static_cast<float>(sum) * (f == 0.25 ? 0.25f : 0.33333334f));
    else
      Set(im, x, y, c, static_cast<int32_t>(sum * f + 0.5));
  };
  auto add = [&](std::initializer_list<double> t) {
    double d = 0;
    float f = -0.0f;  // -0 + v is v for every v: the float sum starts at the first term
    for (double v : t) {
      d += v;
      f += static_cast<float>(v);
    }
    return isFloat ? static_cast<double>(f) : d;
  };
  for (int32_t it = 0; it < iterations; ++it) {
    for (int32_t y = 1; y < ly; ++y)
      for (int32_t x = 1; x < lx; ++x)
        if (hole(x, y))
          for (int32_t c = 0; c < C; ++c)
            put(x, y, c, add({g(x - 1, y, c), g(x + 1, y, c), g(x, y - 1, c), g(x, y + 1, c)}), 0.25);
    for (int32_t side = 0; side < 2 && lx >= 1; ++side)
      for (int32_t y = 1; y < ly; ++y) {
        const int32_t x = side ? lx : 0, n = side ? lx - 1 : 1;
        if (hole(x, y))
          for (int32_t c = 0; c < C; ++c)
            put(x, y, c, add({g(n, y, c), g(x, y - 1, c), g(x, y + 1, c)}), 0.33333333);
      }
    for (int32_t x = 1; x < lx && ly >= 1; ++x)
      if (hole(x, 0))
        for (int32_t c = 0; c < C; ++c)
          put(x, 0, c, add({g(x - 1, 0, c), g(x + 1, 0, c), g(x, 1, c)}), 0.33333333);
    for (int32_t x = 1; x < lx && ly >= 1; ++x)
      if (hole(x, ly))
        for (int32_t c = 0; c < C; ++c) {
          const int32_t k = x * C + 2 * c;  // flat index in the row above
          const double u = g(k / C, ly - 1, k % C);
          put(x, ly, c, add({2 * u, g(x + 1, ly, c)}), 0.33333333);
        }
    const int32_t corners[4][4] = {{0, 0, 1, 1}, {0, ly, 1, -1}, {lx, 0, -1, 1}, {lx, ly, -1, -1}};
    for (auto& k : corners)
      if (hole(k[0], k[1]))
        for (int32_t c = 0; c < C; ++c) {
          const bool hx = k[0] + k[2] >= 0 && k[0] + k[2] <= lx;
          const bool hy = k[1] + k[3] >= 0 && k[1] + k[3] <= ly;
          const double a = hx ? g(k[0] + k[2], k[1], c) : 0.0;
          const double b = hy ? g(k[0], k[1] + k[3], c) : 0.0;
          put(k[0], k[1], c, hx && hy ? add({a, b}) : a + b, 0.25);
        }
  }
}

class SmallHoleFillPairs : public ::testing::TestWithParam<std::tuple<int32_t, int32_t>> {};

// Every image/mask type pair, 1 to 4 channels, flipped and padded layouts, narrow shapes.
TEST_P(SmallHoleFillPairs, MatchesLiteralReference) {
  const int32_t it = std::get<0>(GetParam()), mt = std::get<1>(GetParam());
  const int32_t sizes[][2] = {{23, 17}, {2, 5}, {5, 2}, {1, 6}, {6, 1}, {1, 1}, {3, 3}};
  uint32_t seed = 7;
  for (auto& s : sizes)
    for (int32_t channels = 1; channels <= 4; ++channels)
      for (int32_t odd = 0; odd < 2; ++odd) {
        TestImage mask = MakeImage(s[0], s[1], 1, mt, 1 - odd, 3 * odd);
        FillBlobMask(mask.get(), seed, 30);
        TestImage got = MakeImage(s[0], s[1], channels, it, odd, 5 * odd);
        FillRandom(got.get(), seed++);
        TestImage want = MakeImage(s[0], s[1], channels, it);
        CopyPixels(want.get(), got.get());
        PLSmallHoleFill(got.get(), mask.get(), 3);
        RefSmallHoleFill(want.get(), mask.get(), 3);
        ASSERT_TRUE(SamePixels(got.get(), want.get()))
            << s[0] << "x" << s[1] << " channels " << channels << " layout " << odd;
        ASSERT_TRUE(PaddingUntouched(got));
      }
}

INSTANTIATE_TEST_SUITE_P(TypePairs, SmallHoleFillPairs,
                         ::testing::Combine(::testing::ValuesIn(kTypes), ::testing::ValuesIn(kTypes)));

TEST(SmallHoleFill, IterationsZeroStillChecksSizes) {
  TestImage im = MakeImage(4, 3, 2, PLUShort, 0, 4), before = MakeImage(4, 3, 2, PLUShort);
  TestImage mask = MakeImage(4, 3, 1, PLUChar), wide = MakeImage(5, 3, 1, PLUChar);
  FillRandom(im.get(), 3);
  Fill(mask.get(), 1);
  CopyPixels(before.get(), im.get());
  EXPECT_EQ(Stderr([&] {
              PLSmallHoleFill(im.get(), mask.get(), 0);
              PLSmallHoleFill(im.get(), mask.get(), -5);
            }),
            "");
  EXPECT_TRUE(SamePixels(im.get(), before.get()));
  EXPECT_EQ(Stderr([&] { PLSmallHoleFill(im.get(), wide.get(), 0); }),
            "input problem in PLSmallHoleFill\n");
  for (unsigned char b : PixelBytes(im.get())) ASSERT_EQ(b, 0);
  EXPECT_TRUE(PaddingUntouched(im));
}

TEST(FillHolesWithBlack, ZeroesHolesAndRefusesOtherMasks) {
  for (int32_t type : kTypes) {
    TestImage im = MakeImage(7, 5, 4, type, 1, 3), want = MakeImage(7, 5, 4, type);
    TestImage mask = MakeImage(7, 5, 1, PLUChar, 0, 1), floatMask = MakeImage(7, 5, 1, PLFloat);
    FillRandom(im.get(), 11);
    FillBlobMask(mask.get(), 5, 40);
    CopyPixels(want.get(), im.get());
    for (int32_t y = 0; y < 5; ++y)
      for (int32_t x = 0; x < 7; ++x)
        for (int32_t c = 0; c < 4; ++c)
          if (Get(mask.get(), x, y, 0) != 0) Set(want.get(), x, y, c, 0);
    Fill(floatMask.get(), 1);
    EXPECT_EQ(Stderr([&] { PLFillHolesWithBlack(im.get(), floatMask.get()); }),
              "input problem in PLFillHolesWithBlack\n");
    PLFillHolesWithBlack(im.get(), mask.get());
    EXPECT_TRUE(SamePixels(im.get(), want.get()));
    EXPECT_TRUE(PaddingUntouched(im));
  }
}

// ---- Nearest sites and the Voronoi fill ---------------------------------------------------

// The four sweeps and their merge written out over plain arrays.
std::vector<uint32_t> RefSiteMap(const PLImage* mask) {
  const int32_t w = mask->width, h = mask->height;
  auto dist = [](int32_t x, int32_t y, uint32_t s) {
    const float dx = static_cast<float>(x - static_cast<int32_t>(s & 0xFFFF));
    const float dy = static_cast<float>(y - static_cast<int32_t>(s >> 16));
    return dx * dx + dy * dy;
  };
  std::vector<uint32_t> best;
  const int32_t dirs[4][2] = {{1, 1}, {-1, 1}, {-1, -1}, {1, -1}};
  for (auto& d : dirs) {
    std::vector<uint32_t> sw(static_cast<size_t>(w) * h, 0xFFFFFFFFu);
    for (int32_t i = 0; i < h; ++i)
      for (int32_t j = 0; j < w; ++j) {
        const int32_t y = d[1] > 0 ? i : h - 1 - i, x = d[0] > 0 ? j : w - 1 - j;
        uint32_t& out = sw[static_cast<size_t>(y) * w + x];
        if (Get(mask, x, y, 0) == 0) {
          out = static_cast<uint32_t>(x) | static_cast<uint32_t>(y) << 16;
          continue;
        }
        std::vector<uint32_t> cands;
        if (j > 0) cands.push_back(sw[static_cast<size_t>(y) * w + x - d[0]]);
        if (i > 0) cands.push_back(sw[static_cast<size_t>(y - d[1]) * w + x]);
        if (j > 0 && i > 0) cands.push_back(sw[static_cast<size_t>(y - d[1]) * w + x - d[0]]);
        for (size_t k = 0; k < cands.size(); ++k)
          if (k == 0 || dist(x, y, cands[k]) < dist(x, y, out)) out = cands[k];
      }
    if (best.empty()) {
      best = sw;
      continue;
    }
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        uint32_t& b = best[static_cast<size_t>(y) * w + x];
        const uint32_t c = sw[static_cast<size_t>(y) * w + x];
        if (dist(x, y, c) < dist(x, y, b)) b = c;
      }
  }
  return best;
}

class SiteMapTypes : public ::testing::TestWithParam<int32_t> {};

TEST_P(SiteMapTypes, MatchesLiteralSweeps) {
  for (int32_t percent : {3, 60, 99})
    for (int32_t odd = 0; odd < 2; ++odd) {
      const int32_t w = 37 + odd * 20, h = 29 - odd * 10;
      TestImage mask = MakeImage(w, h, 1, GetParam(), odd, 2 * odd);
      FillBlobMask(mask.get(), 40 + percent, percent);
      TestImage map = MakeImage(w, h, 2, PLUShort, 1 - odd, odd);
      TestImage scratch = MakeImage(w, h, 2, PLUShort, odd, 0);
      NearestSiteMap(mask.get(), map.get(), scratch.get());
      const std::vector<uint32_t> want = RefSiteMap(mask.get());
      for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
          const uint32_t sx = static_cast<uint32_t>(Get(map.get(), x, y, 0));
          const uint32_t sy = static_cast<uint32_t>(Get(map.get(), x, y, 1));
          ASSERT_EQ(sx | sy << 16, want[static_cast<size_t>(y) * w + x]) << x << "," << y;
        }
      EXPECT_TRUE(PaddingUntouched(map));
    }
}

INSTANTIATE_TEST_SUITE_P(MaskTypes, SiteMapTypes, ::testing::ValuesIn(kTypes));

TEST(VoronoiFill, NoSiteOrOneKnownPixel) {
  for (int32_t type : kTypes) {
    TestImage im = MakeImage(9, 7, 3, type, 1, 4), before = MakeImage(9, 7, 3, type);
    TestImage mask = MakeImage(9, 7, 1, PLFloat, 0, 0);
    FillRandom(im.get(), 2);
    CopyPixels(before.get(), im.get());
    Fill(mask.get(), 1.0);
    PLVoronoiFill(im.get(), mask.get());  // no site anywhere: nothing changes
    EXPECT_TRUE(SamePixels(im.get(), before.get()));
    Set(mask.get(), 6, 2, 0, -0.0);  // negative zero is a known pixel
    PLVoronoiFill(im.get(), mask.get());
    for (int32_t y = 0; y < 7; ++y)
      for (int32_t x = 0; x < 9; ++x)
        for (int32_t c = 0; c < 3; ++c) ASSERT_EQ(Get(im.get(), x, y, c), Get(before.get(), 6, 2, c));
    EXPECT_TRUE(PaddingUntouched(im));
  }
}

TEST(VoronoiFill, JitterDisplacesSitesInRasterOrder) {
  // One row: known 10 at x = 0 and 50 at x = 5; sites 0, 0, 5, 5 for holes 1 to 4.
  auto run = [](const std::vector<float>& first, float amount, uint32_t count) {
    TestImage im = MakeImage(6, 1, 1, PLUChar);
    TestImage mask = MakeImage(6, 1, 1, PLUChar);
    const double v[6] = {10, 21, 22, 23, 24, 50};
    for (int32_t x = 0; x < 6; ++x) Set(im.get(), x, 0, 0, v[x]), Set(mask.get(), x, 0, 0, x % 5 != 0);
    std::vector<float> second(first.size(), 0.7f);  // y can only leave the one row: kept
    PLHoleFillNoise noise;
    noise.first = first.data();
    noise.second = second.data();
    noise.count = count;
    PLVoronoiFill(im.get(), mask.get(), &noise, amount);
    std::vector<double> out;
    for (int32_t x = 0; x < 6; ++x) out.push_back(Get(im.get(), x, 0, 0));
    return out;
  };
  using V = std::vector<double>;
  EXPECT_EQ(run({0, 0, 0, 0, 0, 0}, 1.0f, 6), (V{10, 10, 10, 50, 50, 50}));
  EXPECT_EQ(run({0, 3, 3, 3, 3, 0}, 0.0f, 6), (V{10, 10, 10, 50, 50, 50}));  // amount 0
  // x=1: n = -2 * -1 = 2, site 2, not yet filled (22). x=2: n = 1.5 * -2 = -3 -> -3, then
  // 0 - 1.5: both outside, site 0. x=3: n = 2, 7 then 6: outside, site 5. x=4: n = -2 -> 3,
  // already filled with 50.
  EXPECT_EQ(run({0, -2, 1.5f, 1, -2, 0}, 1.0f, 6), (V{10, 22, 10, 50, 50, 50}));
  // With four entries, x = 4 gives i == count: past the arrays, read as no noise.
  EXPECT_EQ(run({0, -2, 1.5f, 1, -2, 0}, 1.0f, 4), (V{10, 22, 10, 50, 50, 50}));
  EXPECT_EQ(run({0, -2, 1.5f, 1, -3, 0}, 1.0f, 6), (V{10, 22, 10, 50, 10, 50}));
}

TEST(VoronoiFill, RefusesWhatAMapCannotAddress) {
  // Headers over a tiny buffer: the refusal must come before any pixel is read.
  std::vector<unsigned char> tiny(64, 0);
  PLImage huge(tiny.data(), 70000, 2, 4, 1, PLUChar, 0);
  PLImage hugeMask(tiny.data(), 70000, 2, 4, 1, PLUChar, 0);
  PLImage map(tiny.data(), 70000, 2, 4, 2, PLUShort, 0);
  EXPECT_EQ(Thrown([&] { PLVoronoiFill(&huge, &hugeMask); }), PLErrParameter);
  EXPECT_EQ(Thrown([&] { NearestSiteMap(&hugeMask, &map, &map); }), PLErrParameter);
  EXPECT_EQ(Thrown([&] { ApplyNearestSites(&huge, &map); }), PLErrParameter);
  TestImage im = MakeImage(4, 4, 1, PLUChar), mask = MakeImage(4, 5, 1, PLUChar);
  EXPECT_EQ(Stderr([&] { PLVoronoiFill(im.get(), mask.get()); }),
            "input problem in PLVoronoiFill\n");
  TestImage m2 = MakeImage(4, 4, 2, PLUShort), m3 = MakeImage(4, 3, 2, PLUShort);
  EXPECT_EQ(Thrown([&] { MergeNearest(m2.get(), m3.get()); }), PLErrParameter);
}

TEST(ApplyNearestSites, CopiesSitesAndSkipsOutsideOnes) {
  TestImage im = MakeImage(3, 2, 2, PLFloat, 1, 4), before = MakeImage(3, 2, 2, PLFloat);
  TestImage map = MakeImage(3, 2, 2, PLUShort, 0, 2);
  FillRandom(im.get(), 9);
  CopyPixels(before.get(), im.get());
  const int32_t sites[6][2] = {{0, 0}, {2, 1}, {3, 0}, {0, 2}, {1, 1}, {65535, 65535}};
  for (int32_t i = 0; i < 6; ++i)
    Set(map.get(), i % 3, i / 3, 0, sites[i][0]), Set(map.get(), i % 3, i / 3, 1, sites[i][1]);
  ApplyNearestSites(im.get(), map.get());
  for (int32_t c = 0; c < 2; ++c) {
    EXPECT_EQ(Get(im.get(), 1, 0, c), Get(before.get(), 2, 1, c));
    for (int32_t i : {0, 2, 3, 4, 5})
      EXPECT_EQ(Get(im.get(), i % 3, i / 3, c), Get(before.get(), i % 3, i / 3, c)) << i;
  }
}

// ---- the single channel fill: levels, invariants, helpers and worker counts ----

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
      EXPECT_EQ(Stderr([&] { PLSingleChannelFill(im.get(), off.get(), nullptr); }), "");
      EXPECT_TRUE(SamePixels(im.get(), before.get()));

      FillBlobMask(mask.get(), seed, 40);
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

// An interruption rises out of the first smoothing tick as value 6.
TEST(SingleChannelFill, InterruptionPropagates) {
  TestImage im = MakeImage(20, 20, 1, PLFloat);
  TestImage mask = MakeImage(20, 20, 1, PLUChar);
  FillBlobMask(mask.get(), 2, 50);
  NuvIdleAndProgressClass progress(nullptr);
  progress.SetInterrupted(true);
  LevelStack fill(20, 20);
  fill.Prepare(im.get(), 0, mask.get());
  EXPECT_EQ(Thrown([&] { fill.Solve(&progress, 0); }), PLErrInterrupted);
}

// ---- Laplacian, Gaussian and step pyramids; expansion and reconstruction ----

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
  for (PLImage* bad : {&u8, &f2})
    EXPECT_EQ(Thrown([&] { LevelStack::Upsample(bad, &f); }), PLErrParameter);
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
