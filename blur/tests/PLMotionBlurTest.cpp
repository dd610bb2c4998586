// flowblur: tests of the motion-blur renderer against a slow scalar reference and fixed cases.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "blur/blur.h"
#include "image/PLPixelConvert.h"
#include "tests/support/PLTestWorkers.h"

namespace {

// An image over a buffer we own, so that padding and row order are ours to choose and the
// padding bytes can be checked afterwards.
struct TestImage {
  std::vector<unsigned char> bytes;
  std::unique_ptr<PLImage> image;

  TestImage(int32_t w, int32_t h, int32_t c, int32_t type, int32_t flipped = 0,
            int32_t padBytes = 0) {
    int32_t rowBytes = w * c * PLBytesPerSample(type) + padBytes;
    bytes.assign(static_cast<size_t>(rowBytes) * h + 1, 0xA5);
    image.reset(new PLImage(bytes.data(), w, h, rowBytes, c, type, flipped));
  }
  TestImage(TestImage&&) = default;
  // Same layout, same bytes (padding included).
  TestImage Clone() const {
    TestImage copy(image->width, image->height, image->channels, image->dataType,
                   image->flipped, image->rowBytes - image->width * image->bytesPerPixel);
    copy.bytes = bytes;
    copy.image.reset(new PLImage(copy.bytes.data(), image->width, image->height,
                                 image->rowBytes, image->channels, image->dataType,
                                 image->flipped));
    return copy;
  }
  PLImage* operator->() { return image.get(); }
  PLImage* get() { return image.get(); }

  template <class T>
  T Get(int32_t x, int32_t y, int32_t c) const {
    return PLLoad<T>(image->PixelAddress(x, y) + c * sizeof(T));
  }
  template <class T>
  void Set(int32_t x, int32_t y, int32_t c, T v) {
    PLStore<T>(image->PixelAddress(x, y) + c * sizeof(T), v);
  }
  float GetAsFloat(int32_t x, int32_t y, int32_t c) const {
    switch (image->dataType) {
      case PLUChar: return Get<uint8_t>(x, y, c);
      case PLUShort: return Get<uint16_t>(x, y, c);
      default: return Get<float>(x, y, c);
    }
  }
  void SetFromFloat(int32_t x, int32_t y, int32_t c, float v) {
    switch (image->dataType) {
      case PLUChar: Set<uint8_t>(x, y, c, static_cast<uint8_t>(v)); break;
      case PLUShort: Set<uint16_t>(x, y, c, static_cast<uint16_t>(v)); break;
      default: Set<float>(x, y, c, v); break;
    }
  }
};

TestImage ConstantFlow(int32_t w, int32_t h, float u, float v) {
  TestImage flow(w, h, 2, PLFloat);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      flow.Set<float>(x, y, 0, u);
      flow.Set<float>(x, y, 1, v);
    }
  return flow;
}

void FillRandom(TestImage& im, std::mt19937& rng) {
  std::uniform_int_distribution<int32_t> u8(0, 255), u16(0, 65535);
  std::uniform_real_distribution<float> f(-0.5f, 2.0f);  // values outside 0..1 included
  for (int32_t y = 0; y < im->height; ++y)
    for (int32_t x = 0; x < im->width; ++x)
      for (int32_t c = 0; c < im->channels; ++c) {
        switch (im->dataType) {
          case PLUChar: im.Set<uint8_t>(x, y, c, static_cast<uint8_t>(u8(rng))); break;
          case PLUShort: im.Set<uint16_t>(x, y, c, static_cast<uint16_t>(u16(rng))); break;
          default: im.Set<float>(x, y, c, f(rng)); break;
        }
      }
}

// Flow with still regions, sub-pixel motion near both copy thresholds, and large motion.
void FillRandomFlow(TestImage& flow, std::mt19937& rng) {
  std::uniform_real_distribution<float> big(-15.0f, 15.0f), small(-0.004f, 0.004f),
      nearOne(-2.2f, 2.2f), pick(0.0f, 1.0f);
  for (int32_t y = 0; y < flow->height; ++y)
    for (int32_t x = 0; x < flow->width; ++x) {
      float p = pick(rng);
      for (int32_t c = 0; c < 2; ++c) {
        float v = p < 0.15f ? 0.0f : p < 0.3f ? small(rng) : p < 0.5f ? nearOne(rng) : big(rng);
        flow.Set<float>(x, y, c, v);
      }
    }
}

// The renderer written out plainly, one pixel at a time, one lane at a time.
void ReferenceBlur(TestImage& dst, const TestImage& src, const TestImage& flow, bool bilinear,
                   bool countOutside, float amount, int32_t x0, int32_t x1, int32_t y0,
                   int32_t y1) {
  const PLImage& s = *src.image;
  const PLImage& f = *flow.image;
  const int32_t channels = s.channels;
  const float sx = static_cast<float>(f.lastColumn) / static_cast<float>(s.lastColumn);
  const float sy = static_cast<float>(f.lastRow) / static_cast<float>(s.lastRow);
  const float gx = (0.5f / sx) * amount;
  const float gy = (0.5f / sy) * amount;
  for (int32_t yi = y0; yi <= y1; ++yi) {
    for (int32_t xi = x0; xi <= x1; ++xi) {
      const float x = static_cast<float>(xi), y = static_cast<float>(yi);
      // Flow at (sx x, sy y), cell slid back at the last column and row.
      const float fx = sx * x, fy = y * sy;
      int32_t ix = static_cast<int32_t>(fx), iy = static_cast<int32_t>(fy);
      float tx = fx - static_cast<float>(ix), ty = fy - static_cast<float>(iy);
      if (ix >= f.lastColumn) ix = f.lastColumn - 1, tx = 1.0f;
      if (iy >= f.lastRow) iy = f.lastRow - 1, ty = 1.0f;
      float uv[2];
      for (int32_t k = 0; k < 2; ++k) {
        float ul = flow.Get<float>(ix, iy, k), ur = flow.Get<float>(ix + 1, iy, k);
        float ll = flow.Get<float>(ix, iy + 1, k), lr = flow.Get<float>(ix + 1, iy + 1, k);
        float a = tx * (ur - ul) + ul;
        float b = tx * (lr - ll) + ll;
        uv[k] = ty * (b - a) + a;
      }
      const float hx = gx * uv[0], hy = gy * uv[1];
      const float m = hx * hx + hy * hy;
      if (m < (bilinear ? 1e-6f : 1.0f)) {
        std::memcpy(dst->PixelAddress(xi, yi), s.PixelAddress(xi, yi), s.bytesPerPixel);
        continue;
      }
      int32_t n = PLTruncToInt32(std::sqrt(m) + 1.0f);
      float dx = hx, dy = hy;
      if (n < 2)
        n = 2;
      else
        dx = hx / static_cast<float>(n - 1), dy = hy / static_cast<float>(n - 1);

      float lanes[4] = {0.0f, 0.0f, 0.0f, 0.0f};
      uint32_t counter = 0;
      // Adds the sample at (px, py) when inside; false when outside.
      auto sample = [&](float px, float py) {
        if (bilinear) {
          if (!(0.0f <= px && px < static_cast<float>(s.width) && 0.0f <= py &&
                py < static_cast<float>(s.height)))
            return false;
          int32_t jx = static_cast<int32_t>(px), jy = static_cast<int32_t>(py);
          float ux = px - static_cast<float>(jx), uy = py - static_cast<float>(jy);
          if (jx >= s.lastColumn) jx = s.lastColumn - 1, ux = 1.0f;
          if (jy >= s.lastRow) jy = s.lastRow - 1, uy = 1.0f;
          for (int32_t c = 0; c < channels; ++c) {
            float p = src.GetAsFloat(jx, jy, c), r = src.GetAsFloat(jx + 1, jy, c);
            float l = src.GetAsFloat(jx, jy + 1, c), lr = src.GetAsFloat(jx + 1, jy + 1, c);
            float a = ux * (r - p) + p;
            float b = ux * (lr - l) + l;
            lanes[c] = lanes[c] + (uy * (b - a) + a);
          }
        } else {
          int32_t jx = PLTruncToInt32(px), jy = PLTruncToInt32(py);
          if (jx < 0 || jx >= s.width || jy < 0 || jy >= s.height) return false;
          for (int32_t c = 0; c < channels; ++c) lanes[c] = lanes[c] + src.GetAsFloat(jx, jy, c);
        }
        return true;
      };
      auto walk = [&](float px, float py, float ddx, float ddy, int32_t count) {
        for (int32_t i = 0; i < count; ++i, px += ddx, py += ddy) {
          if (sample(px, py))
            ++counter;
          else if (countOutside)
            ++counter;
          else
            break;
        }
      };
      if (bilinear) {
        walk(x, y, dx, dy, n);
        walk(x - dx, y - dy, -dx, -dy, n - 1);
      } else {
        walk(x + 0.5f, y + 0.5f, dx, dy, n);
        walk((x + (-dx)) + 0.5f, (y + (-dy)) + 0.5f, -dx, -dy, n - 1);
      }
      const float inv = 1.0f / static_cast<float>(counter);
      const float high = s.dataType == PLUChar ? 255.0f : 65535.0f;
      for (int32_t c = 0; c < channels; ++c) {
        float v = lanes[c] * inv;
        if (s.dataType != PLFloat) {
          v = static_cast<float>(PLTruncToInt32(v + 0.5f));
          if (v < 0.0f) v = 0.0f;
          if (v > high) v = high;
        }
        dst.SetFromFloat(xi, yi, c, v);
      }
    }
  }
}

// Byte-exact comparison; on failure reports the largest sample difference and where.
void ExpectSameImage(const TestImage& want, const TestImage& got, const char* what) {
  ASSERT_EQ(want.bytes.size(), got.bytes.size());
  if (want.bytes == got.bytes) return;
  double worst = 0.0;
  int32_t wx = -1, wy = -1, wc = -1;
  const PLImage& im = *want.image;
  for (int32_t y = 0; y < im.height; ++y)
    for (int32_t x = 0; x < im.width; ++x)
      for (int32_t c = 0; c < im.channels; ++c) {
        float a = want.GetAsFloat(x, y, c), b = got.GetAsFloat(x, y, c);
        bool differ = std::memcmp(&a, &b, sizeof a) != 0;
        double d = std::fabs(static_cast<double>(a) - b);
        if (differ && (wx < 0 || d > worst)) worst = d, wx = x, wy = y, wc = c;
      }
  ADD_FAILURE() << what << ": max difference " << worst << " at (" << wx << ", " << wy
                << ") channel " << wc << (wx < 0 ? " (row padding changed)" : "");
}

struct PixelLayout {
  int32_t type;
  int32_t channels;
};
const char* TypeName(int32_t type) {
  return type == PLUChar ? "UChar" : type == PLUShort ? "UShort" : "Float";
}

class BlurReference : public ::testing::TestWithParam<PixelLayout> {};

// Every member, both sampling paths, on random flows of three sizes, with mixed row orders,
// padded rows and a sub-rectangle: bit for bit against the reference.
TEST_P(BlurReference, MatchesScalarReferenceBitForBit) {
  const PixelLayout layout = GetParam();
  std::mt19937 rng(1234 + layout.type * 10 + layout.channels);
  const int32_t w = 37, h = 29;
  struct FlowSize {
    int32_t w, h;
  } flowSizes[] = {{37, 29}, {19, 15}, {50, 41}};
  int32_t trial = 0;
  for (FlowSize fs : flowSizes) {
    for (int32_t bilinear = 0; bilinear < 2; ++bilinear) {
      for (int32_t countOutside = 0; countOutside < 2; ++countOutside, ++trial) {
        TestImage src(w, h, layout.channels, layout.type, trial & 1, (trial % 3) * 4 + 1);
        TestImage flow(fs.w, fs.h, 2, PLFloat, (trial >> 1) & 1, trial % 2 ? 12 : 0);
        TestImage got(w, h, layout.channels, layout.type, (trial >> 2) & 1, trial % 5);
        FillRandom(src, rng);
        FillRandomFlow(flow, rng);
        TestImage want = got.Clone();
        const float amount = trial % 4 == 3 ? -1.3f : 0.8f;
        // Whole image on most trials, a sub-rectangle on every third.
        int32_t x0 = 0, x1 = w - 1, y0 = 0, y1 = h - 1;
        if (trial % 3 == 2) x0 = 3, x1 = 30, y0 = 2, y1 = 20;
        ReferenceBlur(want, src, flow, bilinear, countOutside, amount, x0, x1, y0, y1);
        PLMotionBlurRect(got.get(), src.get(), flow.get(), bilinear ? 1 : 0, nullptr,
                         static_cast<uint8_t>(countOutside), x0, x1, y0, y1, amount);
        SCOPED_TRACE(testing::Message() << TypeName(layout.type) << " x" << layout.channels
                                        << " flow " << fs.w << "x" << fs.h << " bilinear "
                                        << bilinear << " countOutside " << countOutside);
        ExpectSameImage(want, got, "renderer vs reference");
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    AllLayouts, BlurReference,
    ::testing::Values(PixelLayout{PLUChar, 1}, PixelLayout{PLUChar, 2}, PixelLayout{PLUChar, 3},
                      PixelLayout{PLUChar, 4}, PixelLayout{PLUShort, 1}, PixelLayout{PLUShort, 2},
                      PixelLayout{PLUShort, 3}, PixelLayout{PLUShort, 4}, PixelLayout{PLFloat, 1},
                      PixelLayout{PLFloat, 2}, PixelLayout{PLFloat, 3}, PixelLayout{PLFloat, 4}),
    [](const testing::TestParamInfo<PixelLayout>& info) {
      return std::string(TypeName(info.param.type)) + std::to_string(info.param.channels);
    });

// Zero flow, or amount 0, copies the source bit for bit: NaN payloads and -0.0 included.
TEST(MotionBlur, ZeroFlowAndZeroAmountCopyExactly) {
  std::mt19937 rng(7);
  for (int32_t type : {PLUChar, PLUShort, PLFloat}) {
    TestImage src(23, 17, 3, type);
    FillRandom(src, rng);
    if (type == PLFloat) {
      uint32_t nanBits = 0x7FC01234u;
      float nan;
      std::memcpy(&nan, &nanBits, 4);
      src.Set<float>(4, 5, 1, nan);
      src.Set<float>(6, 7, 2, -0.0f);
      src.Set<float>(8, 9, 0, 1e30f);
    }
    TestImage moving(12, 9, 2, PLFloat);
    FillRandomFlow(moving, rng);
    TestImage still = ConstantFlow(12, 9, 0.0f, 0.0f);
    for (int32_t quality : {0, 1}) {
      TestImage a(23, 17, 3, type), b(23, 17, 3, type);
      PLMotionBlur(a.get(), src.get(), still.get(), quality, 0, nullptr, 0, 0.7f);
      PLMotionBlur(b.get(), src.get(), moving.get(), quality, 0, nullptr, 1, 0.0f);
      ExpectSameImage(src, a, "zero flow");
      ExpectSameImage(src, b, "amount 0");
    }
  }
}

// A constant Float source of 1.0 with the count rule shows how many samples fell inside
// out of how many in all: the result is inside * (1 / total), exactly.
float InsideShare(bool bilinear, int32_t x, float halfLength, int32_t width = 40) {
  TestImage src(width, 4, 1, PLFloat);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t i = 0; i < width; ++i) src.Set<float>(i, y, 0, 1.0f);
  // Same-size flow: sx = 1, so the half-vector is 0.5 * amount * u; amount 1.
  TestImage flow = ConstantFlow(width, 4, 2.0f * halfLength, 0.0f);
  TestImage dst(width, 4, 1, PLFloat);
  PLMotionBlur(dst.get(), src.get(), flow.get(), bilinear ? 1 : 0, 0, nullptr, 1, 1.0f);
  return dst.Get<float>(x, 1, 0);
}
float Share(int32_t inside, int32_t total) {
  return static_cast<float>(inside) * (1.0f / static_cast<float>(total));
}

TEST(MotionBlur, CopyThresholdBilinear) {
  // At column 0 a sample at -h is outside: 3 samples give 2/3, a copy gives 1.
  EXPECT_EQ(InsideShare(true, 0, 0.0005f), 1.0f);              // m = 2.5e-7 < 1e-6: copy
  EXPECT_EQ(InsideShare(true, 0, 0.002f), Share(2, 3));        // p, p + h, p - h
  EXPECT_EQ(InsideShare(true, 0, -0.002f), Share(2, 3));
}

TEST(MotionBlur, CopyThresholdNearest) {
  // Under 1 pixel nearest sampling copies; at 1.0 it takes n = 2 with the half-vector as
  // step: from column 5, positions 5.5, 6.5 forward and 4.5 back.
  TestImage src(8, 3, 1, PLUChar);
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 8; ++x) src.Set<uint8_t>(x, y, 0, static_cast<uint8_t>(x * x));
  auto render = [&](float half) {
    TestImage flow = ConstantFlow(8, 3, 2.0f * half, 0.0f);
    TestImage dst(8, 3, 1, PLUChar);
    PLMotionBlur(dst.get(), src.get(), flow.get(), 0, 0, nullptr, 0, 1.0f);
    return dst.Get<uint8_t>(5, 1, 0);
  };
  EXPECT_EQ(render(0.9f), 25);  // copy
  EXPECT_EQ(render(1.0f), 26);  // columns 5, 6, 4: (25 + 36 + 16) / 3 = 25.67
  // The quality value 2 is nearest sampling too.
  TestImage flow = ConstantFlow(8, 3, 2.0f, 0.0f);
  TestImage a(8, 3, 1, PLUChar), b(8, 3, 1, PLUChar);
  PLMotionBlur(a.get(), src.get(), flow.get(), 0, 0, nullptr, 0, 1.0f);
  PLMotionBlur(b.get(), src.get(), flow.get(), 2, 0, nullptr, 0, 1.0f);
  ExpectSameImage(a, b, "quality 2 vs 0");
}

// The walk takes 2n - 1 samples and its last sample in each direction is the half-vector's
// end: a half-length of 10 from column 10 ends on column 0 (inside), one of 10.5 ends at
// -0.5 (outside), so exactly one of 21 samples is lost.
TEST(MotionBlur, WalkReachesTheHalfVectorEnds) {
  EXPECT_EQ(InsideShare(true, 10, -10.0f), 1.0f);
  EXPECT_EQ(InsideShare(true, 10, -10.5f), Share(20, 21));  // n = 11, step 1.05
  EXPECT_EQ(InsideShare(true, 9, -10.0f), Share(20, 21));   // n = 11, step 1, end at -1
  EXPECT_EQ(InsideShare(true, 29, 10.5f), 1.0f);           // end at 39.5 is inside...
  EXPECT_EQ(InsideShare(true, 30, 10.5f), Share(20, 21));  // ...40.5 is not
  EXPECT_EQ(InsideShare(true, 30, 10.0f), Share(20, 21));  // the width itself is outside
  EXPECT_EQ(InsideShare(true, 8, 1.5f, 10), 1.0f);         // 9.5 of width 10 is inside
  // Nearest: the +0.5 makes -0.5 read column 0, so the same walk from 9 keeps all 21.
  EXPECT_EQ(InsideShare(false, 9, -10.0f), 1.0f);
  EXPECT_EQ(InsideShare(false, 9, -10.8f), Share(20, 21));  // ends at -1.3: column -1
  // Half-length 3.5 from column 2: n = 4, step 7/6; forward 2, 0.83 kept, -0.33 and -1.5
  // lost (counted), backward 3.17, 4.33, 5.5 kept.
  EXPECT_EQ(InsideShare(true, 2, -3.5f), Share(5, 7));
}

// A pixel in the first column with purely horizontal flow to the right, n = 4: forward
// four samples (0, 1.17, 2.33, 3.5); backward the first is outside.
TEST(MotionBlur, FirstColumnUnderBothBorderRules) {
  TestImage src(12, 4, 3, PLUChar);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 12; ++x)
      for (int32_t c = 0; c < 3; ++c) src.Set<uint8_t>(x, y, c, static_cast<uint8_t>(20 * x + c));
  TestImage flow = ConstantFlow(12, 4, 7.0f, 0.0f);  // half-length 3.5
  TestImage stop(12, 4, 3, PLUChar), count(12, 4, 3, PLUChar);
  PLMotionBlur(stop.get(), src.get(), flow.get(), 1, 0, nullptr, 0, 1.0f);
  PLMotionBlur(count.get(), src.get(), flow.get(), 1, 0, nullptr, 1, 1.0f);
  for (int32_t c = 0; c < 3; ++c) {
    // Samples 0 + c, 23.3 + c, 46.7 + c, 70 + c.
    EXPECT_EQ(stop.Get<uint8_t>(0, 2, c), 35 + c) << "mean of four, channel " << c;
    EXPECT_EQ(count.Get<uint8_t>(0, 2, c), static_cast<int>((140.0 + 4 * c) / 7.0 + 0.5))
        << "sum over seven, channel " << c;
  }
}

// Flow on a grid half the source's size: a value of 1.0 there is two source pixels, so
// the half-vector at amount 1 is one source pixel. Corners coincide (ratio of last
// indices: 10 / 20).
TEST(MotionBlur, HalfSizeFlowScalesUp) {
  TestImage src(21, 21, 1, PLFloat);
  for (int32_t y = 0; y < 21; ++y)
    for (int32_t x = 0; x < 21; ++x) src.Set<float>(x, y, 0, static_cast<float>(x * x));
  TestImage small = ConstantFlow(11, 11, 1.0f, 0.0f);
  TestImage same = ConstantFlow(21, 21, 1.0f, 0.0f);
  TestImage a(21, 21, 1, PLFloat), b(21, 21, 1, PLFloat);
  PLMotionBlur(a.get(), src.get(), small.get(), 1, 0, nullptr, 0, 1.0f);
  PLMotionBlur(b.get(), src.get(), same.get(), 1, 0, nullptr, 0, 1.0f);
  // Columns 3, 1 and 2 against 2, 2.5 and 1.5 (bilinear between squares).
  EXPECT_NEAR(a.Get<float>(2, 5, 0), 14.0f / 3.0f, 1e-5f);
  EXPECT_NEAR(b.Get<float>(2, 5, 0), 13.0f / 3.0f, 1e-5f);

  // Only the flow's last column moves; the source's last column reads exactly it (slid
  // cell, fraction 1), the one before it a mix, and column 18 (flow column 9) none.
  TestImage edge = ConstantFlow(11, 11, 0.0f, 0.0f);
  for (int32_t y = 0; y < 11; ++y) edge.Set<float>(10, y, 0, -6.0f);
  TestImage full = ConstantFlow(11, 11, -6.0f, 0.0f);
  TestImage c(21, 21, 1, PLFloat), d(21, 21, 1, PLFloat);
  PLMotionBlur(c.get(), src.get(), edge.get(), 1, 0, nullptr, 0, 1.0f);
  PLMotionBlur(d.get(), src.get(), full.get(), 1, 0, nullptr, 0, 1.0f);
  for (int32_t y : {0, 7, 20}) {
    EXPECT_EQ(c.Get<float>(20, y, 0), d.Get<float>(20, y, 0));
    EXPECT_EQ(c.Get<float>(18, y, 0), 324.0f);
    EXPECT_NE(c.Get<float>(19, y, 0), 361.0f);
  }
}

// Five samples on whole columns (column 2, half-length 2: n = 3, step 1), so the average
// is the plain mean of columns 0 to 4.
TEST(MotionBlur, SixteenBitRounding) {
  auto render = [](std::vector<uint16_t> columns) {
    TestImage src(8, 3, 1, PLUShort);
    for (int32_t y = 0; y < 3; ++y)
      for (int32_t x = 0; x < 8; ++x) src.Set<uint16_t>(x, y, 0, columns[x]);
    TestImage flow = ConstantFlow(8, 3, 4.0f, 0.0f);
    TestImage dst(8, 3, 1, PLUShort);
    PLMotionBlur(dst.get(), src.get(), flow.get(), 1, 0, nullptr, 0, 1.0f);
    return dst.Get<uint16_t>(2, 1, 0);
  };
  EXPECT_EQ(render({65535, 65535, 65534, 65534, 65534, 0, 0, 0}), 65534);  // 65534.4
  EXPECT_EQ(render({65535, 65535, 65535, 65534, 65534, 0, 0, 0}), 65535);  // 65534.6
  EXPECT_EQ(render({65535, 65535, 65535, 65535, 65535, 0, 0, 0}), 65535);
}

TEST(MotionBlur, FloatValuesAboveOnePassThrough) {
  TestImage src(10, 4, 3, PLFloat);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 10; ++x)
      for (int32_t c = 0; c < 3; ++c) src.Set<float>(x, y, c, x == 5 ? 5.0f : 1.7f);
  TestImage flow = ConstantFlow(10, 4, 2.0f, 0.0f);  // half-length 1: columns x, x+1, x-1
  TestImage dst(10, 4, 3, PLFloat);
  PLMotionBlur(dst.get(), src.get(), flow.get(), 1, 0, nullptr, 0, 1.0f);
  for (int32_t c = 0; c < 3; ++c) {
    EXPECT_NEAR(dst.Get<float>(1, 2, c), 1.7f, 1e-6f);
    EXPECT_NEAR(dst.Get<float>(4, 2, c), (1.7f + 5.0f + 1.7f) / 3.0f, 1e-5f);
  }
}

// Nearest: from column 1 with half-length 1.7 (n = 2) the backward sample sits at -0.7,
// i.e. -0.2 after the + 0.5, which truncates to column 0 and counts as inside.
TEST(MotionBlur, NearestReadsColumnZeroJustBelowZero) {
  TestImage src(8, 3, 1, PLUChar);
  const uint8_t columns[8] = {10, 41, 70, 100, 130, 160, 190, 220};
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 8; ++x) src.Set<uint8_t>(x, y, 0, columns[x]);
  TestImage flow = ConstantFlow(8, 3, 3.4f, 0.0f);
  for (uint8_t rule : {0, 1}) {
    TestImage dst(8, 3, 1, PLUChar);
    PLMotionBlur(dst.get(), src.get(), flow.get(), 0, 0, nullptr, rule, 1.0f);
    EXPECT_EQ(dst.Get<uint8_t>(1, 1, 0), 50) << "columns 1, 3, 0; rule " << int(rule);
  }
  // The bilinear test is strict: the same walk loses -0.7.
  TestImage dst(8, 3, 1, PLUChar);
  PLMotionBlur(dst.get(), src.get(), flow.get(), 1, 0, nullptr, 0, 1.0f);
  EXPECT_EQ(dst.Get<uint8_t>(1, 1, 0), 66) << "1 and 2.7 only: (41 + 91) / 2";
}

// Vectors that are NaN, infinite or too long for a 32-bit count take n = 2 and the
// half-vector as step: only the pixel itself stays inside. No undefined conversion.
TEST(MotionBlur, AbsurdFlowsKeepOnlyThePixel) {
  std::mt19937 rng(3);
  TestImage src(12, 10, 2, PLFloat);
  FillRandom(src, rng);
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (float u : {nan, inf, -inf, 1e30f, 1e19f, -6e9f}) {
    TestImage flow = ConstantFlow(6, 5, u, 0.5f);
    for (int32_t quality : {0, 1}) {
      TestImage stop(12, 10, 2, PLFloat), count(12, 10, 2, PLFloat);
      PLMotionBlur(stop.get(), src.get(), flow.get(), quality, 0, nullptr, 0, 0.5f);
      PLMotionBlur(count.get(), src.get(), flow.get(), quality, 0, nullptr, 1, 0.5f);
      // Bilinear reads of the last column or row go through the slid cell, (r - p) * 1 + p,
      // which need not give r's bits back: those pixels are left out here.
      const int32_t rows = quality == 1 ? 9 : 10, columns = quality == 1 ? 11 : 12;
      for (int32_t y = 0; y < rows; ++y)
        for (int32_t x = 0; x < columns; ++x)
          for (int32_t c = 0; c < 2; ++c) {
            float p = src.Get<float>(x, y, c);
            ASSERT_EQ(stop.Get<float>(x, y, c), p * 1.0f) << u << " at " << x << "," << y;
            ASSERT_EQ(count.Get<float>(x, y, c), p * (1.0f / 3.0f)) << u;
          }
    }
  }
  // A long but countable walk ends at the border under the stop rule.
  TestImage flow = ConstantFlow(6, 5, 4e8f, 0.0f);
  TestImage dst(12, 10, 2, PLFloat);
  PLMotionBlur(dst.get(), src.get(), flow.get(), 1, 0, nullptr, 0, 0.5f);
  EXPECT_TRUE(std::isfinite(dst.Get<float>(3, 3, 0)));
}

TEST(MotionBlur, SameBytesForAnyWorkerCount) {
  std::mt19937 rng(99);
  TestImage src(61, 160, 3, PLUChar);
  FillRandom(src, rng);
  TestImage flow(31, 80, 2, PLFloat);
  FillRandomFlow(flow, rng);
  for (int32_t mode = 0; mode < 2; ++mode) {
    std::vector<unsigned char> first;
    for (int32_t workers : kPLTestWorkerCounts) {
      PLTestUseWorkers(workers);
      TestImage dst(61, 160, 3, PLUChar);
      PLMotionBlur(dst.get(), src.get(), flow.get(), mode ? 1 : 0, 0, nullptr,
                   static_cast<uint8_t>(1 - mode), 0.9f);
      if (first.empty())
        first = dst.bytes;
      else
        EXPECT_TRUE(first == dst.bytes) << workers << " workers differ, mode " << mode;
    }
    PLTestUseWorkers(1);
  }
}

// A caller's progress object gets no calls while the rows run: workers only poll.
class CountingProgress : public NuvIdleAndProgressClass {
 public:
  CountingProgress() : NuvIdleAndProgressClass(nullptr) {}
  void Progress(float f) override {
    ++calls;
    NuvIdleAndProgressClass::Progress(f);
  }
  int32_t calls = 0;
};

TEST(MotionBlur, CallerProgressIsNotCalledAndInterruptionIsNotRaised) {
  std::mt19937 rng(5);
  TestImage src(20, 40, 1, PLUShort);
  FillRandom(src, rng);
  TestImage flow = ConstantFlow(20, 40, 3.0f, 1.0f);
  TestImage dst(20, 40, 1, PLUShort);
  CountingProgress progress;
  progress.SetInterrupted(true);  // would raise 6 if a worker reported through it
  EXPECT_NO_THROW(PLMotionBlur(dst.get(), src.get(), flow.get(), 1, 0, &progress, 0, 0.5f));
  EXPECT_EQ(progress.calls, 0);
}

// The worker itself: a set interruption word stops a non-reporting worker at its first
// row report, before any pixel; the error lands in the slot, nothing is thrown. A worker
// of one row makes no report, and a reporter returns quietly.
TEST(MotionBlur, WorkerStoresInterruptionInItsSlot) {
  std::mt19937 rng(11);
  TestImage src(16, 12, 3, PLUChar);
  FillRandom(src, rng);
  TestImage flow = ConstantFlow(8, 6, 4.0f, -2.0f);
  NuvImageInternal srcWrap(src.get()), flowWrap(flow.get());
  NuvImage srcView, flowView;
  srcView.Attach(&srcWrap);
  flowView.Attach(&flowWrap);
  auto run = [&](uint8_t reporter, int32_t firstRow, int32_t lastRow, TestImage& dst) {
    NuvImageInternal dstWrap(dst.get());
    NuvImage dstView;
    dstView.Attach(&dstWrap);
    float amount = 0.5f;
    uint8_t bilinear = 1, countOutside = 0;
    int32_t errorSlot = 0, interruptWord = 1, x0 = 0, x1 = 15, y0 = 2;
    NuvIdleAndProgressClass job(nullptr);
    const NuvImage* srcPtr = &srcView;
    const NuvImage* flowPtr = &flowView;
    NuvMPArgs args;
    args.Push(&dstView);
    args.Push(srcPtr);
    args.Push(flowPtr);
    args.Push(&amount);
    args.Push(&bilinear);
    args.Push(&job);
    args.Push(&errorSlot);
    args.Push(&interruptWord);
    args.Push(&countOutside);
    args.Push(&x0);
    args.Push(&x1);
    args.Push(&y0);
    EXPECT_NO_THROW(MotionBlurRowWorker(0, reporter, firstRow, lastRow, &args));
    return errorSlot;
  };
  TestImage stopped(16, 12, 3, PLUChar), single(16, 12, 3, PLUChar), reported(16, 12, 3, PLUChar);
  std::vector<unsigned char> blank = stopped.bytes;
  EXPECT_EQ(run(0, 0, 5, stopped), PLErrInterrupted);
  EXPECT_TRUE(stopped.bytes == blank);
  EXPECT_EQ(run(0, 3, 3, single), 0);  // row y0 + 3 = 5 rendered
  EXPECT_FALSE(single.bytes == blank);
  EXPECT_EQ(run(1, 0, 5, reported), 0);
  TestImage whole(16, 12, 3, PLUChar);
  PLMotionBlurRect(whole.get(), src.get(), flow.get(), 1, nullptr, 0, 0, 15, 2, 7, 0.5f);
  EXPECT_TRUE(whole.bytes == reported.bytes);
}

// Refusals: PLErr 5 before any pixel is written.
void ExpectRefused(PLImage* dst, const PLImage* src, const PLImage* flow, int32_t x0 = 0,
                   int32_t x1 = -2, int32_t y0 = 0, int32_t y1 = -2) {
  std::vector<unsigned char> before;
  if (dst && dst->data)
    before.assign(dst->data, dst->data + static_cast<size_t>(dst->rowBytes) * dst->height);
  try {
    if (x1 == -2)
      PLMotionBlur(dst, src, flow, 1, 0, nullptr, 0, 0.5f);
    else
      PLMotionBlurRect(dst, src, flow, 1, nullptr, 0, x0, x1, y0, y1, 0.5f);
    ADD_FAILURE() << "not refused";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrParameter);
  }
  if (!before.empty()) {
    EXPECT_TRUE(std::equal(before.begin(), before.end(), dst->data)) << "destination touched";
  }
}

TEST(MotionBlurRefusal, BadImages) {
  TestImage src(10, 8, 3, PLUChar), dst(10, 8, 3, PLUChar);
  TestImage flow = ConstantFlow(5, 4, 1.0f, 1.0f);
  {
    SCOPED_TRACE("one row or one column");
    TestImage row(10, 1, 3, PLUChar), rowDst(10, 1, 3, PLUChar);
    TestImage col(1, 8, 3, PLUChar), colDst(1, 8, 3, PLUChar);
    ExpectRefused(rowDst.get(), row.get(), flow.get());
    ExpectRefused(colDst.get(), col.get(), flow.get());
    TestImage flowRow = ConstantFlow(5, 1, 1.0f, 1.0f), flowCol = ConstantFlow(1, 4, 1.0f, 1.0f);
    ExpectRefused(dst.get(), src.get(), flowRow.get());
    ExpectRefused(dst.get(), src.get(), flowCol.get());
  }
  {
    SCOPED_TRACE("mismatch");
    TestImage otherType(10, 8, 3, PLUShort), otherSize(10, 9, 3, PLUChar),
        otherChannels(10, 8, 4, PLUChar);
    ExpectRefused(otherType.get(), src.get(), flow.get());
    ExpectRefused(otherSize.get(), src.get(), flow.get());
    ExpectRefused(otherChannels.get(), src.get(), flow.get());
  }
  {
    SCOPED_TRACE("flow not two-channel float");
    TestImage f1(5, 4, 1, PLFloat), f3(5, 4, 3, PLFloat), f8(5, 4, 2, PLUChar),
        f16(5, 4, 2, PLUShort);
    for (TestImage* f : {&f1, &f3, &f8, &f16}) ExpectRefused(dst.get(), src.get(), f->get());
  }
  {
    SCOPED_TRACE("more than four channels, unsupported type");
    TestImage five(10, 8, 5, PLUChar), fiveDst(10, 8, 5, PLUChar);
    ExpectRefused(fiveDst.get(), five.get(), flow.get());
    TestImage dbl(10, 8, 3, PLDouble), dblDst(10, 8, 3, PLDouble);
    ExpectRefused(dblDst.get(), dbl.get(), flow.get());
  }
  {
    SCOPED_TRACE("null and empty images, shared memory");
    ExpectRefused(nullptr, src.get(), flow.get());
    ExpectRefused(dst.get(), nullptr, flow.get());
    ExpectRefused(dst.get(), src.get(), nullptr);
    PLImage empty(nullptr, 10, 8, 3, PLUChar, 0);
    ExpectRefused(dst.get(), &empty, flow.get());
    ExpectRefused(src.get(), src.get(), flow.get());
    // Rows too far apart for 32-bit offsets (the wrapped bytes are never touched).
    PLImage far(src->data, 10, 8, 400000000, 3, PLUChar, 0);
    ExpectRefused(dst.get(), &far, flow.get());
    // A flow that is the destination.
    TestImage fdst(10, 8, 2, PLFloat), fsrc(10, 8, 2, PLFloat);
    ExpectRefused(fdst.get(), fsrc.get(), fdst.get());
  }
}

TEST(MotionBlurRefusal, BadRectangles) {
  TestImage src(10, 8, 1, PLFloat), dst(10, 8, 1, PLFloat);
  TestImage flow = ConstantFlow(10, 8, 2.0f, 0.0f);
  ExpectRefused(dst.get(), src.get(), flow.get(), 0, 9, 5, 4);   // y1 < y0
  ExpectRefused(dst.get(), src.get(), flow.get(), 0, 9, -1, 4);  // above the image
  ExpectRefused(dst.get(), src.get(), flow.get(), 0, 9, 0, 8);   // below it
  ExpectRefused(dst.get(), src.get(), flow.get(), -1, 9, 0, 7);
  ExpectRefused(dst.get(), src.get(), flow.get(), 0, 10, 0, 7);
  // An empty column range is legal and writes nothing.
  std::vector<unsigned char> before = dst.bytes;
  EXPECT_NO_THROW(PLMotionBlurRect(dst.get(), src.get(), flow.get(), 1, nullptr, 0, 5, 4, 0, 7,
                                   0.5f));
  EXPECT_TRUE(before == dst.bytes);
}

}  // namespace
