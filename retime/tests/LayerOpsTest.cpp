// flowblur tests: matte and layer operations against literal references on small images.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <utility>

#include "image/NuvImage.h"
#include "retime/PLLayerOps.h"
#include "tests/support/PLTestImages.h"

using pltest::Get;
using pltest::MakeImage;
using pltest::SamePixels;
using pltest::Set;
using pltest::TestImage;

namespace {

// The store of a float result (every result here is in the type's range).
using pltest::ClampedStore;

class LayerOpsByType : public ::testing::TestWithParam<int32_t> {};
INSTANTIATE_TEST_SUITE_P(Types, LayerOpsByType, ::testing::Values(PLUChar, PLUShort, PLFloat));

// Roles matte, red, green, blue are taken to R, G, B, A and back; identity roles stay.
TEST_P(LayerOpsByType, CanonicalOrderRoundTrip) {
  const int32_t type = GetParam();
  TestImage img = MakeImage(3, 2, 4, type, 1, 6), before = MakeImage(3, 2, 4, type);
  pltest::FillRandom(img.get(), 7);
  pltest::CopyPixels(before.get(), img.get());
  NuvImageInternal wrap(img.get());
  NuvImage view;
  view.Attach(&wrap);
  ASSERT_EQ(view.SetupCustom(img->data, 3, 2, img->rowBytes, 0, type, 1, 1, 1, 2, 3, 0), 0);
  ToCanonicalOrder(&view);
  for (int32_t y = 0; y < 2; ++y)
    for (int32_t x = 0; x < 3; ++x)
      for (int32_t c = 0; c < 4; ++c)
        EXPECT_EQ(Get(img.get(), x, y, c), Get(before.get(), x, y, (c + 1) % 4));
  FromCanonicalOrder(&view);
  EXPECT_TRUE(SamePixels(img.get(), before.get()));
  view.SetupRGBA(img->data, 3, 2, img->rowBytes, 0, type);
  ToCanonicalOrder(&view);
  EXPECT_TRUE(SamePixels(img.get(), before.get()));
  EXPECT_TRUE(pltest::PaddingUntouched(img));
}

TEST_P(LayerOpsByType, SubtractInvertAndBlackMatte) {
  const int32_t type = GetParam();
  TestImage d = MakeImage(4, 1, 1, type, 0, 3), s = MakeImage(4, 1, 1, type, 1);
  const double w = d->whitePoint;
  TestImage m = MakeImage(4, 1, 1, PLFloat, 1, 4);
  const double dv[4] = {w, 0.5 * w, 0.0, w}, sv[4] = {0.25 * w, w, 0.0, w};
  const float mv[4] = {0.3f, -1.0f, 1.5f, 0.0f};
  for (int32_t x = 0; x < 4; ++x)
    Set(d.get(), x, 0, 0, dv[x]), Set(s.get(), x, 0, 0, sv[x]), Set(m.get(), x, 0, 0, mv[x]);
  std::vector<double> want(4);
  for (int32_t x = 0; x < 4; ++x)  // never below 0, then complemented
    want[x] = w - std::max(0.0, Get(d.get(), x, 0, 0) - Get(s.get(), x, 0, 0));
  Subtract1Channel(d.get(), s.get());
  Invert(d.get());
  for (int32_t x = 0; x < 4; ++x) EXPECT_EQ(Get(d.get(), x, 0, 0), want[x]);
  // (1 - m) * sample, limited to white (integers also to 0), rounded.
  RenderBlackMatte(d.get(), m.get());
  for (int32_t x = 0; x < 4; ++x) {
    float v = std::min((1.0f - mv[x]) * static_cast<float>(want[x]), static_cast<float>(w));
    if (type != PLFloat) v = std::max(v, 0.0f);
    EXPECT_EQ(Get(d.get(), x, 0, 0), ClampedStore(type, v)) << x;
  }
  EXPECT_TRUE(pltest::PaddingUntouched(d));
}

TEST_P(LayerOpsByType, ApplyMatteAndLayerMatte) {
  const int32_t type = GetParam();
  const float w = MakeImage(1, 1, 1, type)->whitePoint;
  for (int32_t sc : {3, 4}) {
    TestImage src = MakeImage(3, 3, sc, type, 0, 2), matte = MakeImage(3, 3, 1, type, 1);
    TestImage dst = MakeImage(3, 3, 4, type, 1, 5);
    pltest::FillRandom(src.get(), 11);
    pltest::FillRandom(matte.get(), 12);
    ApplyMatte(dst.get(), src.get(), matte.get());
    for (int32_t y = 0; y < 3; ++y)
      for (int32_t x = 0; x < 3; ++x) {
        const float m = static_cast<float>(Get(matte.get(), x, y, 0));
        for (int32_t c = 0; c < 4; ++c)
          EXPECT_EQ(Get(dst.get(), x, y, c),
                    c == 3 && sc == 3 ? m
                                      : ClampedStore(type, static_cast<float>(Get(src.get(), x, y, c)) * m / w));
      }
    EXPECT_TRUE(pltest::PaddingUntouched(dst));
  }
  // Layer 1 of 3 copies its matte; the last takes the image's matte, or white.
  TestImage m0 = MakeImage(2, 2, 1, type), m1 = MakeImage(2, 2, 1, type, 1);
  TestImage rgba = MakeImage(2, 2, 4, type), dst = MakeImage(2, 2, 1, type, 0, 3);
  pltest::FillRandom(m1.get(), 2);
  pltest::FillRandom(rgba.get(), 3);
  const PLImage* list[2] = {m0.get(), m1.get()};
  LayerMatte(dst.get(), list, 1, 3, nullptr);
  EXPECT_TRUE(SamePixels(dst.get(), m1.get()));
  LayerMatte(dst.get(), list, 2, 3, rgba.get());
  EXPECT_EQ(Get(dst.get(), 1, 0, 0), Get(rgba.get(), 1, 0, 3));
  LayerMatte(dst.get(), list, 2, 3, m0.get());
  EXPECT_EQ(Get(dst.get(), 1, 0, 0), w);
  EXPECT_TRUE(pltest::PaddingUntouched(dst));
}

// Over a destination corner, premultiplied source: colour d(1-a)+s, matte md+(W-md)a.
TEST_P(LayerOpsByType, CompositeOverRectangle) {
  const int32_t type = GetParam();
  TestImage dst = MakeImage(4, 3, 4, type, 1, 4), src = MakeImage(3, 3, 4, type);
  const float w = dst->whitePoint;
  TestImage before = MakeImage(4, 3, 4, type);
  pltest::FillRandom(dst.get(), 21);
  pltest::CopyPixels(before.get(), dst.get());
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 3; ++x) {
      Set(src.get(), x, y, 3, (x + 3 * y) / 8.0 * w);
      for (int32_t c = 0; c < 3; ++c) Set(src.get(), x, y, c, std::trunc(Get(src.get(), x, y, 3) * (c + 1) / 4.0));
    }
  CompositeOver(dst.get(), 2, 0, src.get(), 1, 1, 2, 2);  // source 1..2 x 1..2 at (2, 0)
  CompositeOver(dst.get(), 3, 0, src.get(), 0, 0, 1, 0);  // would leave dst: refused
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 4; ++x)
      for (int32_t c = 0; c < 4; ++c) {
        const float d = static_cast<float>(Get(before.get(), x, y, c));
        double want = d;
        if (x >= 2 && y <= 1) {
          const float a = static_cast<float>(Get(src.get(), x - 1, y + 1, 3)) / w;
          want = ClampedStore(type, c < 3 ? d * (1.0f - a) + static_cast<float>(Get(src.get(), x - 1, y + 1, c))
                                   : d + (w - d) * a);
        }
        EXPECT_EQ(Get(dst.get(), x, y, c), want) << x << "," << y << "," << c;
      }
  EXPECT_TRUE(pltest::PaddingUntouched(dst));
}

// One channel moves by a numeric cast; the other channels stay.
TEST(LayerOps, CopyChannelCasts) {
  const struct {
    int32_t dstType, srcType;
    double in, out;
  } cases[] = {{PLFloat, PLUChar, 200, 200}, {PLUChar, PLFloat, 300.7, 44}, {PLUChar, PLUShort, 258, 2}};
  for (const auto& k : cases) {
    TestImage dst = MakeImage(2, 3, 3, k.dstType, 1, 2), src = MakeImage(2, 3, 4, k.srcType);
    pltest::Fill(dst.get(), 1);
    pltest::Fill(src.get(), k.in);
    CopyCHannelIntoCHannel(dst.get(), 1, src.get(), 2);
    for (int32_t c = 0; c < 3; ++c) EXPECT_EQ(Get(dst.get(), 1, 2, c), c == 1 ? k.out : 1.0);
    EXPECT_TRUE(pltest::PaddingUntouched(dst));
  }
}

TEST(LayerOps, MisfitsPrintTheirMessageAndWriteNothing) {
  TestImage a = MakeImage(3, 2, 1, PLUChar), b = MakeImage(2, 3, 1, PLUChar);
  TestImage f = MakeImage(3, 2, 1, PLFloat), rgb = MakeImage(3, 2, 3, PLUChar);
  TestImage before = MakeImage(3, 2, 1, PLUChar);
  pltest::FillRandom(a.get(), 5);
  pltest::CopyPixels(before.get(), a.get());
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { Subtract1Channel(a.get(), b.get()); }, "error in image types for Subtract1Channel\n"},
      {[&] { RenderBlackMatte(a.get(), a.get()); }, "error in image types for RenderBlackMatte\n"},
      {[&] { CopyCHannelIntoCHannel(a.get(), 0, b.get(), 0); }, "CopyCHannelIntoCHannel: incompatible images!\n"},
      {[&] { PLMatteChoke(a.get(), 1.0f); }, "PLMatte Choke, invalid input\n"},
      {[&] { ApplyMatte(a.get(), rgb.get(), a.get()); }, ""},
  };
  for (const auto& c : cases) {
    testing::internal::CaptureStderr();
    c.first();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.second);
    EXPECT_TRUE(SamePixels(a.get(), before.get()));
  }
}

// ---- matte choke ----

TestImage Square(int32_t size, int32_t lo, int32_t hi) {
  TestImage m = MakeImage(size, size, 1, PLFloat, 1, 8);
  for (int32_t y = 0; y < size; ++y)
    for (int32_t x = 0; x < size; ++x) Set(m.get(), x, y, 0, x >= lo && x < hi && y >= lo && y < hi);
  return m;
}

// Radius 1: w = ceil(2) gives d = 0, so w and d come from 2.01: w = 3, d = 0.99, and the
// kernel 2^-(x^2) over x = -3..3. Constant images stay constant under the blur, so the
// threshold map alone shows.
TEST(MatteChoke, ThresholdOfRadiusOne) {
  const double k[7] = {1 / 512.0, 1 / 16.0, 0.5, 1.0, 0.5, 1 / 16.0, 1 / 512.0};
  double sum = 0, s2 = 0, s3 = 0;
  for (int32_t i = 0; i < 7; ++i) sum += k[i], s2 += i >= 2 ? k[i] : 0, s3 += i >= 3 ? k[i] : 0;
  const double t = s3 / sum + (s2 / sum - s3 / sum) * (1 - 0.99);
  const double kTolerance = 2e-5;  // float blur and map against a double reference
  for (double v : {0.2, 0.9, 1.0}) {
    TestImage m = MakeImage(9, 9, 1, PLFloat);
    pltest::Fill(m.get(), v);
    ChokeStep(m.get(), 1.0f);
    EXPECT_NEAR(Get(m.get(), 4, 4, 0), v < t ? 0.0 : (v - t) / (1 - t), kTolerance) << v;
    pltest::Fill(m.get(), v);
    ChokeStep(m.get(), -1.0f);
    EXPECT_NEAR(Get(m.get(), 4, 4, 0), v > 1 - t ? 1.0 : v / (1 - t), kTolerance) << v;
  }
}

// Radius 0.5 is the halfway mix of radius 0 (the image as it is) and radius 1; a negative
// radius is the complemented choke of the complement.
TEST(MatteChoke, FractionalNegativeAndRefusedRadii) {
  TestImage m = Square(20, 6, 13), one = Square(20, 6, 13), zero = Square(20, 6, 13);
  ChokeStep(one.get(), 1.0f);
  PLMatteChoke(m.get(), 0.5f);
  for (int32_t y = 0; y < 20; ++y)
    for (int32_t x = 0; x < 20; ++x) {
      const float z = static_cast<float>(Get(zero.get(), x, y, 0));
      const float want = z + (static_cast<float>(Get(one.get(), x, y, 0)) - z) * 0.5f;
      ASSERT_EQ(Get(m.get(), x, y, 0), std::min(1.0f, std::max(0.0f, want))) << x << "," << y;
    }
  TestImage neg = Square(20, 6, 13), comp = Square(20, 6, 13);
  auto complement = [](PLImage* im) {
    for (int32_t y = 0; y < im->height; ++y)
      for (int32_t x = 0; x < im->width; ++x) {
        const float v = 1.0f - static_cast<float>(Get(im, x, y, 0));
        Set(im, x, y, 0, v > 0.999 ? 1.0f : v);
      }
  };
  complement(comp.get());
  PLMatteChoke(comp.get(), 1.0f);
  complement(comp.get());
  PLMatteChoke(neg.get(), -1.0f);
  EXPECT_TRUE(SamePixels(neg.get(), comp.get()));
  EXPECT_GT(Get(neg.get(), 5, 9, 0), 0.5);  // spread past the square's edge
  // Radii the blur cannot take are refused; radius 0 does nothing.
  TestImage before = Square(20, 6, 13);
  EXPECT_THROW(PLMatteChoke(zero.get(), NAN), PLErr);
  EXPECT_THROW(PLMatteChoke(zero.get(), -5000.5f), PLErr);
  EXPECT_THROW(ChokeStep(zero.get(), INFINITY), PLErr);
  ChokeStep(zero.get(), 0.0f);
  EXPECT_TRUE(SamePixels(zero.get(), before.get()));
}

}  // namespace
