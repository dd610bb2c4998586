// flowblur tool tests: flow colours, the legend, and flow resampling to the frame grid.
#include <gtest/gtest.h>

#include <cmath>

#include "tools/FlowView.h"

namespace flowblur {
namespace {

std::vector<int> Colour(float u, float v, float full) {
  uint8_t rgb[3];
  FlowColour(u, v, full, rgb);
  return {rgb[0], rgb[1], rgb[2]};
}

TEST(FlowColour, HueIsDirectionSaturationIsLength) {
  EXPECT_EQ(Colour(0, 0, 4), (std::vector<int>{255, 255, 255}));      // still: white
  EXPECT_EQ(Colour(4, 0, 4), (std::vector<int>{255, 0, 0}));          // right: red
  EXPECT_EQ(Colour(-4, 0, 4), (std::vector<int>{0, 255, 255}));       // left: cyan
  EXPECT_EQ(Colour(0, 4, 4), (std::vector<int>{128, 255, 0}));        // down: yellow-green
  EXPECT_EQ(Colour(0, -4, 4), (std::vector<int>{128, 0, 255}));       // up: violet
  EXPECT_EQ(Colour(2, 0, 4), (std::vector<int>{255, 128, 128}));      // half length: half pale
  EXPECT_EQ(Colour(40, 0, 4), Colour(4, 0, 4));                       // capped at full
  EXPECT_EQ(Colour(NAN, 0, 4), (std::vector<int>{0, 0, 0}));          // not a number: black
  EXPECT_EQ(Colour(3, 3, 0), (std::vector<int>{255, 255, 255}));      // no scale: white
  // A field drawn with no scale given: full at its longest vector (here 5 px).
  const std::vector<uint8_t> rgb = FlowToColour(FlowField{2, 1, {3, 4, 0, -1}}, 0.0f);
  EXPECT_EQ(std::vector<int>(rgb.begin(), rgb.begin() + 3), Colour(3, 4, 5));
  EXPECT_EQ(std::vector<int>(rgb.begin() + 3, rgb.end()), Colour(0, -1, 5));
}

TEST(ResampleFlow, CornerAlignedAndScaledToTheNewGrid) {
  // A 3x2 field whose u grows by 1 per column: on a 5x3 grid (ratio 2 on x, 2 on y), the
  // positions interpolate and the vectors double.
  const FlowField f{3, 2, {0, 1, 1, 1, 2, 1,
                          0, 3, 1, 3, 2, 3}};
  FlowField g = ResampleFlow(f, 5, 3);
  ASSERT_EQ(g.uv.size(), 30u);
  for (int32_t x = 0; x < 5; ++x) {
    EXPECT_FLOAT_EQ(g.uv[static_cast<size_t>(x) * 2], x * 0.5f * 2.0f) << x;  // u
    EXPECT_FLOAT_EQ(g.uv[(2 * 5 + x) * 2 + 1], 3.0f * 2.0f);                 // v, last row
    EXPECT_FLOAT_EQ(g.uv[(1 * 5 + x) * 2 + 1], 2.0f * 2.0f);                 // v, middle row
  }
  // Same size: an exact copy.
  EXPECT_EQ(ResampleFlow(f, 3, 2).uv, f.uv);
  // Degenerate grids do not divide by zero.
  FlowField one = ResampleFlow(f, 1, 1);
  EXPECT_FLOAT_EQ(one.uv[0], 0.0f);
  EXPECT_FLOAT_EQ(one.uv[1], 1.0f);
}

TEST(DrawFlowLegend, WheelInTheLowerRightCornerOnly) {
  const int32_t w = 200, h = 120;
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3, 255);
  DrawFlowLegend(&rgb, w, h, 8.0f);
  auto pixel = [&](int32_t x, int32_t y) {
    const uint8_t* p = &rgb[(static_cast<size_t>(y) * w + x) * 3];
    return std::vector<int>{p[0], p[1], p[2]};
  };
  EXPECT_EQ(pixel(0, 0), (std::vector<int>{255, 255, 255}));
  EXPECT_EQ(pixel(w / 2, h / 2), (std::vector<int>{255, 255, 255}));
  // Find the wheel's rightmost coloured point: it is red (motion to the right).
  bool sawRed = false, sawCyan = false;
  for (int32_t y = h / 2; y < h; ++y)
    for (int32_t x = w / 2; x < w; ++x) {
      std::vector<int> p = pixel(x, y);
      sawRed |= p == std::vector<int>{255, 0, 0};
      sawCyan |= p == std::vector<int>{0, 255, 255};
    }
  EXPECT_TRUE(sawRed);
  EXPECT_TRUE(sawCyan);
  // Too small a picture is left alone.
  std::vector<uint8_t> tiny(10 * 10 * 3, 7);
  DrawFlowLegend(&tiny, 10, 10, 8.0f);
  EXPECT_EQ(tiny, std::vector<uint8_t>(10 * 10 * 3, 7));
}

}  // namespace
}  // namespace flowblur
