// flowblur tests: the flow inversion, its hole mask and its running mean.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/support/PLTestImages.h"
#include "warp/warp.h"

using namespace pltest;

namespace {

struct Inverted {
  TestImage inverse, holes;
};

template <class F>
TestImage Flow(int32_t w, int32_t h, F f, int32_t flipped = 0, int32_t pad = 0) {
  TestImage flow = MakeImage(w, h, 2, PLFloat, flipped, pad);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      Set(flow.get(), x, y, 0, f(x, y, 0));
      Set(flow.get(), x, y, 1, f(x, y, 1));
    }
  return flow;
}

Inverted Invert(const PLImage* flow, int32_t flipped = 0, int32_t pad = 0) {
  Inverted r{MakeImage(flow->width, flow->height, 2, PLFloat, flipped, pad),
             MakeImage(flow->width, flow->height, 1, PLUChar, 1 - flipped, pad)};
  InvertFlow(r.inverse.get(), flow, r.holes.get(), nullptr);
  return r;
}

}  // namespace

// Zero flow: every pixel is hit (the last row by the flat bottom, the last column by the
// floor of the span), the inverse is zero and no hole is left.
TEST(InvertFlow, ZeroFlow) {
  for (auto size : {std::make_pair(2, 2), std::make_pair(9, 4), std::make_pair(3, 11)}) {
    TestImage flow = Flow(size.first, size.second, [](int32_t, int32_t, int32_t) { return 0.0; });
    Inverted r = Invert(flow.get(), 1, 4);
    for (int32_t y = 0; y < size.second; ++y)
      for (int32_t x = 0; x < size.first; ++x) {
        EXPECT_EQ(Get(r.holes.get(), x, y, 0), 0.0);
        EXPECT_EQ(PLLoad<uint64_t>(r.inverse->PixelAddress(x, y)), 0u);  // +0.0, both
      }
    EXPECT_TRUE(PaddingUntouched(r.inverse));
    EXPECT_TRUE(PaddingUntouched(r.holes));
  }
}

// A uniform (3, 0): everything lands three columns right, the inverse is (-3, 0) exactly
// where hit, and the band of three columns on the left is a hole filled from its
// neighbours. Row order and padding of the flow do not matter.
TEST(InvertFlow, UniformShiftLeavesFilledBand) {
  const int32_t w = 23, h = 9;
  auto shift = [](int32_t, int32_t, int32_t c) { return c == 0 ? 3.0 : 0.0; };
  TestImage flow = Flow(w, h, shift);
  Inverted r = Invert(flow.get());
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      EXPECT_EQ(Get(r.holes.get(), x, y, 0), x < 3 ? 255.0 : 0.0) << x << "," << y;
      if (x >= 3) EXPECT_EQ(Get(r.inverse.get(), x, y, 0), -3.0);
      // The fill: a smooth value from known -3s; pull-push rounding stays far below this.
      else EXPECT_NEAR(Get(r.inverse.get(), x, y, 0), -3.0, 1e-3);
      EXPECT_EQ(Get(r.inverse.get(), x, y, 1), 0.0);
    }
  TestImage odd = Flow(w, h, shift, 1, 12);
  Inverted s = Invert(odd.get(), 1, 8);
  EXPECT_TRUE(SamePixels(r.inverse.get(), s.inverse.get()));
  EXPECT_TRUE(SamePixels(r.holes.get(), s.holes.get()));
}

// Mesh columns folded onto x = 10 (even) and 12 (odd): each of the 301 cells of a row lands
// on pixel 11 with the vector i - 10.5, half way along its span. From 255 hits on the count
// stays and each value weighs 1/256.
TEST(InvertFlow, MoreThan255Hits) {
  const int32_t w = 302, h = 3;
  TestImage flow = Flow(w, h, [](int32_t x, int32_t, int32_t c) {
    return c == 0 ? static_cast<double>((x % 2 ? 12 : 10) - x) : 0.0;
  });
  Inverted r = Invert(flow.get());
  float mean = 0;
  int32_t n = 0;
  for (int32_t i = 0; i + 1 < w; ++i) {
    const float left = static_cast<float>(i % 2 ? i - 9 : i - 10);  // the end at x = 10
    const float right = static_cast<float>(i % 2 ? i - 12 : i - 11);
    const float v = left + (right - left) * 0.5f;
    if (n == 0) mean = v, n = 1;
    else if (n == 255) mean = (mean * 255.0f + v) * 0.00390625f;
    else mean = (mean * static_cast<float>(n) + v) * (1.0f / static_cast<float>(n + 1)), ++n;
  }
  ASSERT_EQ(n, 255);
  for (int32_t y = 0; y < h; ++y) {
    EXPECT_EQ(Get(r.inverse.get(), 11, y, 0), mean) << y;
    EXPECT_EQ(Get(r.inverse.get(), 11, y, 1), 0.0);
    EXPECT_EQ(Get(r.holes.get(), 11, y, 0), 0.0);
    EXPECT_EQ(Get(r.holes.get(), 13, y, 0), 255.0);
  }
}

// NaN, infinite and huge vectors: their triangles are skipped or clipped; the rest inverts.
TEST(InvertFlow, NonFiniteVectors) {
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  TestImage flow = Flow(12, 10, [&](int32_t x, int32_t y, int32_t c) {
    if (x == 3 && y == 3) return c ? inf : -inf;
    if (x == 7 && y == 2) return nan;
    if (x == 5 && y == 7) return c ? -3e38 : 1e30;
    return 0.0;
  });
  Inverted r = Invert(flow.get());
  EXPECT_EQ(Get(r.holes.get(), 10, 8, 0), 0.0);
  EXPECT_EQ(Get(r.inverse.get(), 10, 8, 0), 0.0);
  EXPECT_EQ(Get(r.holes.get(), 0, 0, 0), 0.0);
}

// Refusals print the message and leave every image as it was.
TEST(InvertFlow, RefusesUnfitImages) {
  TestImage flow = Flow(6, 5, [](int32_t x, int32_t, int32_t) { return 0.5 * x; });
  TestImage inv = MakeImage(6, 5, 2, PLFloat), holes = MakeImage(6, 5, 1, PLUChar);
  TestImage bad[] = {MakeImage(6, 5, 2, PLUShort), MakeImage(6, 5, 3, PLFloat),
                     MakeImage(5, 5, 2, PLFloat), MakeImage(6, 5, 1, PLUShort),
                     MakeImage(6, 4, 1, PLUChar), MakeImage(6, 5, 2, PLUChar)};
  struct Call {
    PLImage *inverse, *flow, *holes;
  } calls[] = {{bad[0].get(), flow.get(), holes.get()}, {bad[1].get(), flow.get(), holes.get()},
               {bad[2].get(), flow.get(), holes.get()}, {inv.get(), bad[0].get(), holes.get()},
               {inv.get(), bad[2].get(), holes.get()},  {inv.get(), flow.get(), bad[3].get()},
               {inv.get(), flow.get(), bad[4].get()},   {inv.get(), flow.get(), bad[5].get()},
               {flow.get(), flow.get(), holes.get()},   {nullptr, flow.get(), holes.get()},
               {inv.get(), nullptr, holes.get()}};
  for (auto& c : calls) {
    std::vector<std::vector<unsigned char>> before;
    for (PLImage* im : {c.inverse, c.flow, c.holes})
      if (im) before.push_back(PixelBytes(im));
    ::testing::internal::CaptureStderr();
    InvertFlow(c.inverse, c.flow, c.holes, nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "can't warp image, input files not of correct types and sizes\n");
    size_t k = 0;
    for (PLImage* im : {c.inverse, c.flow, c.holes})
      if (im) {
        EXPECT_TRUE(before[k++] == PixelBytes(im));
      }
  }
}

// The mask inversion and the fill are forked: same bytes for 1, 2, 3 and 8 workers.
TEST(InvertFlow, SameForAllWorkers) {
  TestImage flow = Flow(131, 77, [](int32_t x, int32_t y, int32_t c) {
    return c == 0 ? 4.0 * std::sin(0.05 * y) + 0.03 * x : 3.0 * std::cos(0.07 * x) - 0.02 * y;
  });
  ExpectSameForAllWorkers([&] {
    Inverted r = Invert(flow.get(), 1, 4);
    std::vector<unsigned char> bytes = PixelBytes(r.inverse.get());
    std::vector<unsigned char> mask = PixelBytes(r.holes.get());
    bytes.insert(bytes.end(), mask.begin(), mask.end());
    return bytes;
  });
}
