// flowblur tests: the triangle scan converter and the mesh warp.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <set>
#include <tuple>
#include <utility>

#include "image/PLImageCopy.h"
#include "tests/support/PLTestImages.h"
#include "warp/PLMeshScan.h"
#include "warp/warp.h"

using namespace pltest;

namespace {

const char kRefusal[] = "can't warp image, input files not of correct types and sizes\n";

// Every pixel a scan plots, with the values it carried, in order.
struct Recorder {
  std::vector<std::tuple<int32_t, int32_t, float, float>> hits;
  void operator()(int32_t x, int32_t y, float a, float b) { hits.emplace_back(x, y, a, b); }
  std::set<std::pair<int32_t, int32_t>> Pixels() const {
    std::set<std::pair<int32_t, int32_t>> s;
    for (auto& h : hits) s.insert({std::get<0>(h), std::get<1>(h)});
    return s;
  }
};

MeshVertex V(float x, float y, float sx = 0.0f, float sy = 0.0f) {
  return MeshVertex{x, y, sx, sy, 0.0f};
}

Recorder Scan(MeshVertex a, MeshVertex b, MeshVertex c, float maxX = 9.0f, float maxY = 9.0f) {
  Recorder r;
  ScanTriangle(a, b, c, maxX, maxY, r);
  return r;
}

TestImage MakeFlow(int32_t w, int32_t h, std::function<std::pair<float, float>(int32_t, int32_t)> f,
                   int32_t flipped = 0, int32_t pad = 0) {
  TestImage flow = MakeImage(w, h, 2, PLFloat, flipped, pad);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      auto uv = f(x, y);
      Set(flow.get(), x, y, 0, uv.first);
      Set(flow.get(), x, y, 1, uv.second);
    }
  return flow;
}

auto Uniform(float u, float v) {
  return [u, v](int32_t, int32_t) { return std::make_pair(u, v); };
}

}  // namespace

// Nothing is drawn of: a triangle beyond one side; the flat bottom of a mesh row but on the
// target's last row; a flat bottom narrower than 1e-5, though a pixel centre lies inside; a
// span of 1e-8 or less, even across a pixel centre. A triangle partly outside is clipped to
// the target. Infinite, NaN and huge corners never plot outside (and never reach an integer
// conversion out of range).
TEST(MeshScan, SkippedClippedAndNonFinite) {
  const MeshVertex d = V(1, 3, 1, 3), b = V(1, 2, 1, 2), c = V(0, 3, 0, 3);
  const struct {
    MeshVertex a, b, c;
    float maxY;
  } none[] = {{V(-3, 0), V(-0.5f, 5), V(-1, 9), 9.0f},   {V(0, -3), V(5, -0.5f), V(9, -1), 9.0f},
              {V(9.5f, 0), V(12, 5), V(20, 9), 9.0f},    {V(0, 9.5f), V(5, 12), V(9, 20), 9.0f},
              {d, b, c, 4.0f},                           {V(5e-6f, 3), V(0, 2), V(-4e-6f, 3), 3.0f},
              {V(-5e-9f, -1), V(4e-9f, -1), V(-5e-9f, 1e6f), 9.0f}};
  for (const auto& t : none) EXPECT_TRUE(Scan(t.a, t.b, t.c, 9.0f, t.maxY).hits.empty());
  Recorder last = Scan(d, b, c, 9.0f, 3.0f);
  ASSERT_EQ(last.hits.size(), 2u);
  EXPECT_EQ(last.hits[0], std::make_tuple(0, 3, 0.0f, 3.0f));
  EXPECT_EQ(last.hits[1], std::make_tuple(1, 3, 1.0f, 3.0f));
  Recorder wider = Scan(V(-1e-8f, -1), V(1.5e-8f, -1), V(-1e-8f, 1e6f));
  ASSERT_EQ(wider.hits.size(), 10u);  // column 0 of every row
  for (int32_t y = 0; y < 10; ++y) EXPECT_EQ(wider.hits[y], std::make_tuple(0, y, 0.0f, 0.0f));
  Recorder big = Scan(V(-5, -5), V(40, -5), V(-5, 40));
  EXPECT_EQ(big.hits.size(), 100u);  // the whole 10 x 10 target, once each
  EXPECT_EQ(big.Pixels().size(), 100u);
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const MeshVertex odd[][3] = {{V(-inf, 0), V(inf, 0), V(0, inf)},
                               {V(nan, 0), V(5, 5), V(0, 9)},
                               {V(0, nan), V(5, 5), V(0, 9)},
                               {V(-1e30f, -1e30f), V(1e30f, 0), V(0, 1e30f)},
                               {V(4, 4, nan, inf), V(-3e38f, 9, 1e38f), V(3e38f, 9, -1e38f)}};
  for (auto& t : odd)
    for (auto& h : Scan(t[0], t[1], t[2]).hits) {
      EXPECT_TRUE(std::get<0>(h) >= 0 && std::get<0>(h) <= 9);
      EXPECT_TRUE(std::get<1>(h) >= 0 && std::get<1>(h) <= 9);
    }
}

// Zero flow at scale 1: every source pixel lands on itself, the last column through the
// floor of the span and the last row through the flat bottom. Nearest is exact; bilinear is
// exact for integer types, and for Float but where the cell slides back at the last row or
// column ((right - p) * 1.0 + p may be an ulp off). Columns between cells are drawn twice,
// so four channels come through only with an opaque matte (else a pixel composites over
// itself and over what was there).
class WarpZeroFlow : public ::testing::TestWithParam<std::tuple<int32_t, int32_t, int32_t>> {};

TEST_P(WarpZeroFlow, EveryPixelOnItself) {
  const int32_t type = std::get<0>(GetParam()), channels = std::get<1>(GetParam());
  const int32_t bilinear = std::get<2>(GetParam());
  const int32_t sizes[][2] = {{2, 2}, {7, 5}, {3, 9}};
  for (auto& s : sizes)
    for (int32_t odd = 0; odd < 2; ++odd) {
      TestImage src = MakeImage(s[0], s[1], channels, type, odd, 3 * odd);
      FillRandom(src.get(), 11 * s[0] + s[1]);
      if (channels == 4)
        for (int32_t y = 0; y < s[1]; ++y)
          for (int32_t x = 0; x < s[0]; ++x) Set(src.get(), x, y, 3, src->whitePoint);
      TestImage flow = MakeFlow(s[0], s[1], Uniform(0, 0), 1 - odd, 4);
      TestImage dst = MakeImage(s[0], s[1], channels, type, 1 - odd, 2);
      ASSERT_EQ(Warp(dst.get(), src.get(), flow.get(), bilinear, 0, 0, nullptr, 1, 0, 0, 1), 1);
      EXPECT_TRUE(PaddingUntouched(dst));
      if (type != PLFloat || !bilinear) {
        EXPECT_TRUE(SamePixels(dst.get(), src.get())) << s[0] << "x" << s[1];
        continue;
      }
      for (int32_t y = 0; y < s[1]; ++y)
        for (int32_t x = 0; x < s[0]; ++x)
          for (int32_t c = 0; c < channels; ++c)  // last row and column: an ulp or two near 1
            EXPECT_NEAR(Get(dst.get(), x, y, c), Get(src.get(), x, y, c),
                        x < s[0] - 1 && y < s[1] - 1 ? 0.0 : 1e-6);
    }
}

INSTANTIATE_TEST_SUITE_P(TypesChannelsLookups, WarpZeroFlow,
                         ::testing::Combine(::testing::Values(PLUChar, PLUShort, PLFloat),
                                            ::testing::Range(1, 5), ::testing::Values(0, 1)));

// A uniform flow shifts by flow x amount, carried from a smaller flow grid by the ratio of
// last indices; what moves off the target is clipped, and what nothing reaches keeps its
// value.
TEST(Warp, UniformShiftAndFlowGrid) {
  TestImage src = MakeImage(9, 7, 3, PLUChar);
  FillRandom(src.get(), 5);
  TestImage same = MakeFlow(9, 7, Uniform(6, 4));
  TestImage small = MakeFlow(5, 4, Uniform(1.5f, 1));  // fx = 0.5, fy = 0.5: x 2 each way
  for (const PLImage* flow : {same.get(), small.get()}) {
    TestImage dst = MakeImage(9, 7, 3, PLUChar);
    Fill(dst.get(), 7);
    const float amount = flow == same.get() ? 0.5f : 1.0f;
    ASSERT_EQ(Warp(dst.get(), src.get(), flow, 0, 0, 0, nullptr, 1, 0, 0, amount), 1);
    for (int32_t y = 0; y < 7; ++y)
      for (int32_t x = 0; x < 9; ++x)
        for (int32_t c = 0; c < 3; ++c)
          EXPECT_EQ(Get(dst.get(), x, y, c),
                    x >= 3 && y >= 2 ? Get(src.get(), x - 3, y - 2, c) : 7.0)
              << x << "," << y;
  }
}

// Far, infinite or NaN vectors: nothing is drawn, nothing undefined happens on the way, on
// one band or several (where a mesh row with a NaN reaches every band).
TEST(Warp, TrianglesOutsideSkipped) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::pair<float, float> far[] = {{-100, 0}, {0, -100}, {100, 0}, {0, 3e38f},
                                         {-1e30f, 1e30f}, {inf, 0}, {nan, 0}, {0, nan}};
  TestImage src = MakeImage(6, 40, 3, PLUShort);
  FillRandom(src.get(), 3);
  for (auto uv : far)
    ExpectSameForAllWorkers([&] {
      TestImage dst = MakeImage(6, 40, 3, PLUShort);
      Fill(dst.get(), 9);
      TestImage flow = MakeFlow(6, 40, Uniform(uv.first, uv.second));
      EXPECT_EQ(Warp(dst.get(), src.get(), flow.get(), 1, 0, 2, nullptr, 1, 0, 0, 1), 1);
      for (int32_t y = 0; y < 40; ++y)
        for (int32_t x = 0; x < 6; ++x) EXPECT_EQ(Get(dst.get(), x, y, 0), 9);
      return PixelBytes(dst.get());
    });
}

// Column 2 of a 3 x 2 mesh is pulled two pixels left, so the second cell lands on the first:
// pixel 0 is drawn by both, the second one last; pixel 1 by both with its own colour; pixel
// 2 by none. Three channels: the later triangle wins. Four: they composite by the matte.
class WarpOverlap : public ::testing::TestWithParam<int32_t> {};

TEST_P(WarpOverlap, OverRule) {
  const int32_t type = GetParam();
  const double w = type == PLUChar ? 255.0 : 1.0;
  const auto over = [&](const std::vector<double>& top, std::vector<double> under) {
    const float a = static_cast<float>(top[3]), W = static_cast<float>(w);
    if (a == W || a == 0.0f) return a == W ? top : under;
    const float k = 1.0f - a / W, m = static_cast<float>(under[3]);
    for (int32_t c = 0; c < 4; ++c) {
      float v = c < 3 ? static_cast<float>(under[c]) * k + static_cast<float>(top[c])
                      : m + (W - m) * (a / W);
      under[c] = type == PLFloat ? v : std::trunc(v + 0.5f);
    }
    return under;
  };
  const double s = w / 255.0;
  // Pixel colours (premultiplied) per (x, y); mattes: opaque, partial, none.
  const std::vector<double> px[3][2] = {
      {{10 * s, 20 * s, 30 * s, 255 * s}, {40 * s, 50 * s, 60 * s, 255 * s}},
      {{70 * s, 80 * s, 90 * s, 255 * s}, {5 * s, 6 * s, 7 * s, 255 * s}},
      {{64 * s, 32 * s, 16 * s, 128 * s}, {99 * s, 98 * s, 97 * s, 0}}};
  TestImage flow = MakeFlow(3, 2, [](int32_t x, int32_t) {
    return std::make_pair(x == 2 ? -2.0f : 0.0f, 0.0f);
  });
  for (int32_t channels : {3, 4}) {
    TestImage src = MakeImage(3, 2, channels, type), dst = MakeImage(3, 2, channels, type);
    Fill(dst.get(), 7 * s);
    for (int32_t x = 0; x < 3; ++x)
      for (int32_t y = 0; y < 2; ++y)
        for (int32_t c = 0; c < channels; ++c) Set(src.get(), x, y, c, px[x][y][c]);
    ASSERT_EQ(Warp(dst.get(), src.get(), flow.get(), 0, 0, 0, nullptr, 1, 0, 0, 1), 1);
    const std::vector<double> marker(4, 7 * s);
    for (int32_t y = 0; y < 2; ++y) {
      std::vector<double> want[3] = {px[2][y], px[1][y], marker};
      if (channels == 4) {
        want[0] = over(px[2][y], over(px[0][y], marker));
        want[1] = over(px[1][y], over(px[1][y], marker));
      }
      for (int32_t x = 0; x < 3; ++x)
        for (int32_t c = 0; c < channels; ++c)
          EXPECT_FLOAT_EQ(Get(dst.get(), x, y, c), want[x][c]) << channels << " " << x << "," << y << " " << c;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Types, WarpOverlap, ::testing::Values(PLUChar, PLFloat));

namespace {

// Mesh columns fold onto x = 10 (even) and x = 12 (odd): every cell of a row draws pixels 10
// to 12 again, and pixel 11 reads (nearest) source column i of cell i.
TestImage FoldFlow(int32_t w, int32_t h) {
  return MakeFlow(w, h, [](int32_t x, int32_t) {
    return std::make_pair(static_cast<float>((x % 2 ? 12 : 10) - x), 0.0f);
  });
}

// The average rule, literally, over a sequence of hits; returns the mean and the count.
std::pair<float, int32_t> RunningMean(const std::vector<float>& values, float addend) {
  float t = 0;
  int32_t n = 0;
  for (float v : values) {
    if (n == 0) t = v + addend, n = 1;
    else if (n == 255) t = (t * 255.0f + v) * 0.00390625f + addend;
    else t = (t * static_cast<float>(n) + v) * (1.0f / static_cast<float>(n + 1)) + addend, ++n;
  }
  return {t, n};
}

}  // namespace

// 301 hits on one pixel: from 255 on, each hit weighs 1/256 and the count stays. The final
// division is by the count's bits read as a float, n x 2^-149 (kept); Float samples of order
// 2^-60 keep that quotient finite, so the whole chain is seen.
TEST(Warp, AverageRuleBeyond255Hits) {
  const int32_t w = 302, h = 2;
  TestImage src = MakeImage(w, h, 1, PLFloat);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) Set(src.get(), x, y, 0, std::ldexp(1.0 + (x * 37 + y) % 101, -60));
  TestImage flow = FoldFlow(w, h);
  TestImage dst = MakeImage(w, h, 1, PLFloat);
  Fill(dst.get(), 0.75);
  ASSERT_EQ(Warp(dst.get(), src.get(), flow.get(), 0, 0, 2, nullptr, 1, 0, 0, 1), 1);
  for (int32_t y = 0; y < h; ++y) {
    std::vector<float> hits;
    for (int32_t i = 0; i + 1 < w; ++i) hits.push_back(static_cast<float>(Get(src.get(), i, y, 0)));
    auto mean = RunningMean(hits, 0.0f);
    ASSERT_EQ(mean.second, 255);
    const float divisor = std::ldexp(255.0f, -149);
    EXPECT_EQ(Get(dst.get(), 11, y, 0), mean.first / divisor);
    EXPECT_EQ(Get(dst.get(), 0, y, 0), 0.75);  // no hit: left as it was, not divided
  }
  // Integer targets: every hit sample other than 0 divides out of range and stores 0.
  TestImage src8 = MakeImage(w, h, 3, PLUChar), dst8 = MakeImage(w, h, 3, PLUChar);
  FillRandom(src8.get(), 9);
  Fill(dst8.get(), 200);
  ASSERT_EQ(Warp(dst8.get(), src8.get(), flow.get(), 1, 0, 2, nullptr, 1, 0, 0, 1), 1);
  for (int32_t x = 0; x < 20; ++x)
    EXPECT_EQ(Get(dst8.get(), x, 1, 2), x >= 10 && x <= 12 ? 0.0 : 200.0) << x;
}

// Zero flow, averaging 1: the hit counts are 1 at the first and last column and 2 elsewhere
// (neighbouring cells share a column), and tiny Float samples show the divisor n x 2^-149.
TEST(Warp, AverageIntoFloatTemporary) {
  TestImage src = MakeImage(5, 3, 2, PLFloat), dst = MakeImage(5, 3, 2, PLFloat);
  Fill(src.get(), std::ldexp(1.0, -140));
  TestImage flow = MakeFlow(5, 3, Uniform(0, 0));
  ASSERT_EQ(Warp(dst.get(), src.get(), flow.get(), 1, 0, 1, nullptr, 1, 0, 0, 1), 1);
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 5; ++x)
      EXPECT_EQ(Get(dst.get(), x, y, 1), x == 0 || x == 4 ? 512.0 : 256.0) << x << "," << y;
}

// Background: combine 1 brighter, 2 darker, then mix * b + (1 - mix) * r + 0.5 through the
// writer; Float keeps the + 0.5 as well.
TEST(Warp, BackgroundMixAndCombine) {
  struct Case {
    int32_t type, combine;
    double r, b, want;
  } cases[] = {{PLUChar, 0, 100, 60, 90},    {PLUChar, 1, 100, 60, 90},
               {PLUChar, 2, 100, 60, 60},    {PLUChar, 1, 100, 200, 200},
               {PLUChar, 2, 100, 200, 125},  {PLUShort, 0, 1000, 3000, 1500},
               {PLFloat, 0, 0.5, 0.25, 0.9375}, {PLFloat, 1, 0.5, 0.25, 0.9375},
               {PLFloat, 2, 0.5, 0.25, 0.75}};
  for (auto& k : cases) {
    TestImage src = MakeImage(4, 3, 3, k.type), dst = MakeImage(4, 3, 3, k.type);
    TestImage back = MakeImage(4, 3, 3, k.type, 1, 8);
    Fill(src.get(), k.r);
    Fill(back.get(), k.b);
    TestImage flow = MakeFlow(4, 3, Uniform(0, 0));
    ASSERT_EQ(Warp(dst.get(), src.get(), flow.get(), 1, 0, 0, back.get(), 1, k.combine, 0.25f, 1), 1);
    EXPECT_EQ(Get(dst.get(), 3, 2, 1), k.want) << k.type << " combine " << k.combine;
  }
}

// Oversampling N renders at N x the size and reduces with the triangle filter of support 1:
// weights of powers of two are exact, so a constant picture stays constant and a ramp stays
// in order. One scale, from the widths, serves both axes: with a 12 x 8 picture the mesh
// ends above the oversampled target's last rows, so the bottom row comes out darker.
TEST(Warp, OversamplingReducesWithTriangle) {
  for (int32_t factor : {2, 4}) {
    TestImage src = MakeImage(12, 8, 3, PLUChar), dst = MakeImage(12, 8, 3, PLUChar);
    Fill(src.get(), 200);
    for (int32_t x = 0; x < 12; ++x) Set(src.get(), x, 4, 0, 20 * x);
    TestImage flow = MakeFlow(12, 8, Uniform(0, 0));
    ASSERT_EQ(Warp(dst.get(), src.get(), flow.get(), 1, 0, 0, nullptr, factor, 0, 0, 0), 1);
    for (int32_t y = 0; y < 7; ++y)
      for (int32_t x = 0; x < 11; ++x) ASSERT_EQ(Get(dst.get(), x, y, 1), 200.0) << factor;
    EXPECT_LT(Get(dst.get(), 5, 7, 1), 200.0);
    for (int32_t x = 1; x < 12; ++x) EXPECT_LE(Get(dst.get(), x - 1, 4, 0), Get(dst.get(), x, 4, 0));
    EXPECT_LE(Get(dst.get(), 11, 4, 0), 220.0);
  }
}

// Refusals: the message (none for the morph path), 0, and nothing written.
TEST(Warp, RefusesUnfitInputs) {
  TestImage src = MakeImage(6, 4, 3, PLUChar), dst = MakeImage(6, 4, 3, PLUChar);
  TestImage flow = MakeFlow(6, 4, Uniform(1, 1));
  const int32_t shapes[][4] = {{5, 4, 3, PLUChar}, {6, 5, 3, PLUChar},   {6, 4, 3, PLUShort},
                               {6, 4, 4, PLUChar}, {6, 4, 2, PLUShort},  {1, 4, 2, PLFloat},
                               {6, 1, 2, PLFloat}, {6, 4, 1, PLFloat},   {6, 4, 3, PLDouble},
                               {1, 1, 3, PLUChar}};
  std::vector<TestImage> o;
  for (auto& z : shapes) o.push_back(MakeImage(z[0], z[1], z[2], z[3]));
  PLImage empty(nullptr, 6, 4, 3, PLUChar, 0);
  PLImage *d = dst.get(), *s = src.get(), *f = flow.get();
  struct Call {
    PLImage *d, *s, *f, *b = nullptr;
    int32_t over = 1, morph = 0;
  } calls[] = {{o[0].get(), s, f},    {o[1].get(), s, f},         {o[2].get(), s, f},
               {o[3].get(), s, f},    {d, s, o[4].get()},         {d, s, o[5].get()},
               {d, s, o[6].get()},    {d, s, o[7].get()},         {d, s, nullptr},
               {&empty, s, f},        {o[8].get(), o[8].get(), f}, {o[9].get(), o[9].get(), f},
               {d, s, f, o[0].get()}, {d, s, f, o[3].get()},      {d, s, f, nullptr, 1 << 21},
               {d, s, f, nullptr, 6000}, {s, s, f},               {d, s, f, nullptr, 1, 1}};
  for (auto& c : calls) {
    std::vector<unsigned char> before = c.d->data ? PixelBytes(c.d) : std::vector<unsigned char>();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(Warp(c.d, c.s, c.f, 1, c.morph, 0, c.b, c.over, 0, 0.5f, 1), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.morph ? "" : kRefusal);
    EXPECT_TRUE(!c.d->data || before == PixelBytes(c.d));
  }
}

namespace {

struct Inverted {
  TestImage inverse, holes;
};

Inverted Invert(const PLImage* flow, int32_t flipped = 0, int32_t pad = 0) {
  Inverted r{MakeImage(flow->width, flow->height, 2, PLFloat, flipped, pad),
             MakeImage(flow->width, flow->height, 1, PLUChar, 1 - flipped, pad)};
  InvertFlow(r.inverse.get(), flow, r.holes.get(), nullptr);
  return r;
}

}  // namespace

// A uniform (s, 0): everything lands s columns right, the inverse is (-s, 0) exactly where
// hit and the band of s columns on the left is a hole filled from its neighbours. With s = 0
// every pixel is hit (the last row by the flat bottom, the last column by the floor of the
// span) and the inverse is +0.0 throughout. Row order and padding do not matter.
TEST(InvertFlow, UniformShiftLeavesFilledBand) {
  const int32_t cases[][3] = {{2, 2, 0}, {9, 4, 0}, {3, 11, 0}, {23, 9, 3}};
  for (auto& z : cases) {
    const int32_t w = z[0], h = z[1], s = z[2];
    TestImage flow = MakeFlow(w, h, Uniform(s, 0)), odd = MakeFlow(w, h, Uniform(s, 0), 1, 12);
    Inverted r = Invert(flow.get()), q = Invert(odd.get(), 1, 8);
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        EXPECT_EQ(Get(r.holes.get(), x, y, 0), x < s ? 255.0 : 0.0) << x << "," << y;
        // Filled: a smooth value from known -3s; the pull-push rounding stays far below this.
        EXPECT_NEAR(Get(r.inverse.get(), x, y, 0), -s, x < s ? 1e-3 : 0.0);
        EXPECT_EQ(Get(r.inverse.get(), x, y, 1), 0.0);
      }
    for (unsigned char b : PixelBytes(r.inverse.get())) ASSERT_TRUE(s != 0 || b == 0);
    EXPECT_TRUE(SamePixels(r.inverse.get(), q.inverse.get()));
    EXPECT_TRUE(SamePixels(r.holes.get(), q.holes.get()));
    EXPECT_TRUE(PaddingUntouched(q.inverse) && PaddingUntouched(q.holes));
  }
}

// The folded mesh: each of the 301 cells of a row lands on pixel 11 with the vector
// i - 10.5, half way along its span. From 255 hits on the count stays and each value
// weighs 1/256.
TEST(InvertFlow, MoreThan255Hits) {
  TestImage flow = FoldFlow(302, 3);
  Inverted r = Invert(flow.get());
  std::vector<float> hits;
  for (int32_t i = 0; i < 301; ++i) {
    const float left = static_cast<float>(i % 2 ? i - 9 : i - 10);  // the end at x = 10
    const float right = static_cast<float>(i % 2 ? i - 12 : i - 11);
    hits.push_back(left + (right - left) * 0.5f);
  }
  auto mean = RunningMean(hits, 0.0f);
  for (int32_t y = 0; y < 3; ++y) {
    EXPECT_EQ(Get(r.inverse.get(), 11, y, 0), mean.first) << y;
    EXPECT_EQ(Get(r.inverse.get(), 11, y, 1), 0.0);
    EXPECT_EQ(Get(r.holes.get(), 11, y, 0), 0.0);
    EXPECT_EQ(Get(r.holes.get(), 13, y, 0), 255.0);
  }
}

// Refusals print the message and leave every image as it was.
TEST(InvertFlow, RefusesUnfitImages) {
  TestImage flow = MakeFlow(6, 5, Uniform(0.5f, 1));
  TestImage inv = MakeImage(6, 5, 2, PLFloat), holes = MakeImage(6, 5, 1, PLUChar);
  TestImage bad[] = {MakeImage(6, 5, 2, PLUShort), MakeImage(6, 5, 3, PLFloat),
                     MakeImage(5, 5, 2, PLFloat), MakeImage(6, 5, 1, PLUShort),
                     MakeImage(6, 4, 1, PLUChar)};
  PLImage *i = inv.get(), *f = flow.get(), *m = holes.get();
  PLImage overInverse(inv->data + 5, 6, 5, 1, PLUChar, 0);  // a mask inside the inverse's bytes
  const std::vector<PLImage*> calls[] = {
      {bad[0].get(), f, m}, {bad[1].get(), f, m}, {bad[2].get(), f, m}, {i, bad[0].get(), m},
      {i, bad[2].get(), m}, {i, f, bad[3].get()}, {i, f, bad[4].get()}, {f, f, m},
      {nullptr, f, m},      {i, nullptr, m},      {i, f, &overInverse}};
  for (auto& c : calls) {
    std::vector<std::vector<unsigned char>> before;
    for (PLImage* im : c) before.push_back(im ? PixelBytes(im) : std::vector<unsigned char>());
    ::testing::internal::CaptureStderr();
    InvertFlow(c[0], c[1], c[2], nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), kRefusal);
    for (size_t k = 0; k < 3; ++k)
      EXPECT_TRUE(!c[k] || before[k] == PixelBytes(c[k]));
  }
}

// The walk runs in bands of target rows, each band walking the whole mesh in order and
// drawing only its rows; with the copies, the division, the mix and the zoom beneath, the
// bytes are the same for any worker count. Motions of 20 pixels and a fold make triangles
// cross band borders and overlap. The inversion's mask and fill are forked too.
TEST(Warp, SameForAllWorkers) {
  const int32_t w = 150, h = 140;
  TestImage src = MakeImage(w, h, 4, PLUChar);
  FillRandom(src.get(), 21);
  TestImage waves = MakeFlow(60, 50, [](int32_t x, int32_t y) {
    return std::make_pair(8.0f * std::sin(0.3f * y) + 0.1f * x, 9.0f * std::cos(0.2f * x));
  });
  TestImage fold = MakeFlow(w, h, [](int32_t x, int32_t y) {
    return std::make_pair(x % 2 ? -1.5f : 0.25f, y % 3 == 1 ? 4.5f : -0.5f);
  });
  for (const PLImage* flow : {waves.get(), fold.get()})
    for (int32_t averaging : {0, 1, 2})
      for (int32_t factor : {1, 2})
        ExpectSameForAllWorkers([&] {
          TestImage dst = MakeImage(w, h, 4, PLUChar, 1, 3);
          Fill(dst.get(), 3);
          Warp(dst.get(), src.get(), flow, 1, 0, averaging, src.get(), factor, 1, 0.3f, 1.7f);
          return PixelBytes(dst.get());
        });
  TestImage smooth = MakeFlow(131, 77, [](int32_t x, int32_t y) {
    return std::make_pair(4.0f * std::sin(0.05f * y) + 0.03f * x,
                          3.0f * std::cos(0.07f * x) - 0.02f * y);
  });
  ExpectSameForAllWorkers([&] {
    Inverted r = Invert(smooth.get(), 1, 4);
    std::vector<unsigned char> bytes = PixelBytes(r.inverse.get());
    std::vector<unsigned char> mask = PixelBytes(r.holes.get());
    bytes.insert(bytes.end(), mask.begin(), mask.end());
    return bytes;
  });
}
