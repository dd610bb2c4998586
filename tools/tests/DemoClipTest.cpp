// flowblur: tests of the procedural demo clip: its stated motion is the motion it renders.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tools/DemoClip.h"

namespace flowblur {
namespace {

// Renders are double arithmetic narrowed to float once, so moving a point along its own motion
// reproduces the colour to float rounding.
constexpr float kSameColour = 2e-6f;

void ExpectSameColour(const float a[3], const float b[3], const char* what) {
  for (int c = 0; c < 3; ++c) EXPECT_NEAR(a[c], b[c], kSameColour) << what << " channel " << c;
}

// Moving a point along its stated motion keeps its colour, on the background, the disc and the
// square; the motion and layer maps name the surface seen.
TEST(DemoClip, MotionAndLayersAreTheMotionRendered) {
  DemoClip clip(320, 180, 24);
  const double t = 5.0, dt = 0.37;
  double bu, bv, cx, cy, du, dv, sx, sy;
  clip.BackgroundVelocity(&bu, &bv);
  clip.DiscCentre(t, &cx, &cy);
  clip.DiscVelocity(&du, &dv);
  clip.SquareCentre(&sx, &sy);
  float before[3], after[3];
  // Background: a corner far from disc and square.
  clip.Sample(t, 10.0, 170.0, before);
  clip.Sample(t + dt, 10.0 + bu * dt, 170.0 + bv * dt, after);
  ExpectSameColour(before, after, "background");
  // Disc: a point inside, off centre.
  clip.Sample(t, cx + 7.0, cy - 5.0, before);
  clip.Sample(t + dt, cx + 7.0 + du * dt, cy - 5.0 + dv * dt, after);
  ExpectSameColour(before, after, "disc");
  // Square: a point turned with the square about its centre.
  double px = sx + 11.0, py = sy + 6.0;
  double a = clip.SquareOmega() * dt;
  double qx = sx + std::cos(a) * (px - sx) - std::sin(a) * (py - sy);
  double qy = sy + std::sin(a) * (px - sx) + std::cos(a) * (py - sy);
  clip.Sample(t, px, py, before);
  clip.Sample(t + dt, qx, qy, after);
  ExpectSameColour(before, after, "square");

  std::vector<float> uv(320 * 180 * 2);
  std::vector<uint8_t> layers(320 * 180);
  clip.Motion(t, uv.data());
  clip.Layers(t, layers.data());
  auto at = [&](double x, double y) { return static_cast<size_t>(y) * 320 + static_cast<size_t>(x); };
  size_t disc = at(std::round(cx), std::round(cy));
  EXPECT_EQ(layers[disc], DemoClip::kDisc);
  EXPECT_FLOAT_EQ(uv[2 * disc], static_cast<float>(du));
  EXPECT_FLOAT_EQ(uv[2 * disc + 1], static_cast<float>(dv));
  size_t corner = at(2, 178);
  EXPECT_EQ(layers[corner], DemoClip::kBackground);
  EXPECT_FLOAT_EQ(uv[2 * corner], static_cast<float>(bu));
  EXPECT_FLOAT_EQ(uv[2 * corner + 1], static_cast<float>(bv));
  // On the square, 10 px right of its centre, the rotation moves the point straight down.
  size_t square = at(std::round(sx) + 10, std::round(sy));
  EXPECT_EQ(layers[square], DemoClip::kSquare);
  double dx = std::round(sx) + 10 - sx, dy = std::round(sy) - sy;
  EXPECT_NEAR(uv[2 * square], -clip.SquareOmega() * dy, 1e-6);
  EXPECT_NEAR(uv[2 * square + 1], clip.SquareOmega() * dx, 1e-6);
  // The disc really is fast and the background really moves: the demo needs both.
  EXPECT_GT(std::hypot(du, dv), 4.0 * std::hypot(bu, bv));
  EXPECT_GT(std::hypot(bu, bv), 0.5);
}

// Integer renders round the float render; a shutter is the mean of sub-frame renders; renders
// are deterministic, and a size that makes no sense is clamped to one pixel.
TEST(DemoClip, RendersAgreeWithEachOther) {
  DemoClip clip(48, 32, 4), again(48, 32, 4), clamped(0, -3, 0);
  const std::vector<float> f = clip.RenderFloat(1.5);
  EXPECT_EQ(f, again.RenderFloat(1.5));
  std::vector<uint8_t> b8(f.size());
  std::vector<uint16_t> b16(f.size());
  clip.Render8(1.5, b8.data());
  clip.Render16(1.5, b16.data());
  for (size_t i = 0; i < f.size(); ++i) {
    ASSERT_EQ(std::lround(f[i] * 255.0), b8[i]) << i;
    ASSERT_EQ(std::lround(f[i] * 65535.0), b16[i]) << i;
    ASSERT_GE(f[i], 0.0f);
    ASSERT_LE(f[i], 1.0f);
  }
  std::vector<float> one(f.size()), mean(f.size());
  clip.RenderShutter(2.0, 2.0, 1, one.data());
  EXPECT_EQ(one, clip.RenderFloat(2.0));
  clip.RenderShutter(2.0, 3.0, 3, mean.data());
  std::vector<float> a = clip.RenderFloat(2.0), b = clip.RenderFloat(2.5), c = clip.RenderFloat(3.0);
  for (size_t i = 0; i < mean.size(); ++i)
    ASSERT_NEAR(mean[i], (double{a[i]} + b[i] + c[i]) / 3.0, 1e-6) << i;
  EXPECT_NE(mean, a);  // a blur: the frame changes where the disc passes
  EXPECT_EQ(clamped.Width() * clamped.Height() * clamped.Frames(), 1);
  EXPECT_EQ(clamped.RenderFloat(0.0).size(), 3u);
}

}  // namespace
}  // namespace flowblur
