// flowblur: predicates, copies, clears and fills; sample arithmetic over whole images and the
// matte members.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"
#include "tests/support/PLTestImages.h"

namespace {

using pltest::MakeImage;
using pltest::PixelBytes;
using pltest::ExpectRowOpSameForAllWorkers;
using pltest::Sample;

// A float stored as the per-pixel paths and the copies across types store it: truncated, low
// 8 or 16 bits kept.
float Cast(int32_t type, float v) {
  if (type == PLFloat) return v;
  const uint32_t bits = static_cast<uint32_t>(PLTruncToInt32(v));
  return static_cast<float>(type == PLUChar ? (bits & 0xFF) : (bits & 0xFFFF));
}

// ---- predicates ----

TEST(ImagePredicates, SizeChannelsTypeAndWidth) {
  PLImage a(4, 3, 2, PLFloat, 0), same(4, 3, 2, PLFloat, 1), wider(5, 3, 2, PLFloat, 0),
      taller(4, 4, 2, PLFloat, 0), threeCh(4, 3, 3, PLFloat, 0), uchar(4, 3, 2, PLUChar, 0),
      longs(4, 3, 2, PLLong, 0);
  PLImage empty(nullptr, 4, 3, 2, PLFloat, 0);
  PLImage emptySized(4, 3, 2, PLFloat, 0);
  unsigned char* pixels = emptySized.data;
  emptySized.data = nullptr;  // sizes agree, but no pixels
  struct Row {
    const PLImage* b;
    bool size, sizeOrChannels, sizeOrType, layout, sizeOrFormat;
  } rows[] = {
      {&same, false, false, false, false, false},  {&wider, true, true, true, true, true},
      {&taller, true, true, true, true, true},     {&threeCh, false, true, false, true, true},
      {&uchar, false, false, true, true, true},    {&longs, false, false, true, false, true},
      {nullptr, true, true, true, true, true},     {&empty, true, true, true, true, true},
      {&emptySized, true, true, true, true, true},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(DifferentSize(&a, r.b), r.size);
    EXPECT_EQ(DifferentSize(r.b, &a), r.size);
    EXPECT_EQ(DifferentSizeOrChannels(&a, r.b), r.sizeOrChannels);
    EXPECT_EQ(DifferentSizeOrType(&a, r.b), r.sizeOrType);
    EXPECT_EQ(DifferentLayout(&a, r.b), r.layout);
    EXPECT_EQ(DifferentLayout(r.b, &a), r.layout);
    EXPECT_EQ(DifferentSizeOrFormat(&a, r.b), r.sizeOrFormat);
  }
  emptySized.data = pixels;
}

TEST(ImagePredicates, DifferentFormatIgnoresSizeButNotWhitePoint) {
  PLImage a(4, 3, 2, PLFloat, 0), other(9, 9, 2, PLFloat, 1), uchar(4, 3, 2, PLUChar, 0);
  EXPECT_FALSE(DifferentFormat(&a, &other));
  EXPECT_TRUE(DifferentFormat(&a, &uchar));
  other.whitePoint = std::numeric_limits<float>::quiet_NaN();
  EXPECT_TRUE(DifferentFormat(&a, &other));
  EXPECT_TRUE(DifferentFormat(&other, &other));  // NaN is different even from itself
  other.whitePoint = 2.0f;
  EXPECT_TRUE(DifferentFormat(&a, &other));
  PLImage empty(nullptr, 4, 3, 2, PLFloat, 0);
  EXPECT_TRUE(DifferentFormat(&a, &empty));
}

// ---- copies ----

TEST(ImageCopy, CopyRowsCopiesBytesBetweenEqualSampleWidths) {
  PLImage f(5, 4, 1, PLFloat, 0), l(5, 4, 1, PLLong, 1);
  pltest::FillRandom(&f, 1);
  std::memset(l.data, 0, 5 * 4 * 4);
  CopyRows(&l, &f);
  EXPECT_EQ(PixelBytes(&l), PixelBytes(&f));
  PLImage u(5, 4, 1, PLUChar, 0), s(5, 4, 1, PLUShort, 0);  // sample widths differ
  std::memset(u.data, 3, 20);
  pltest::FillRandom(&s, 2);
  CopyRows(&u, &s);
  EXPECT_EQ(u.data[19], 3);
  CopyRows(nullptr, &s);
  CopyRows(&u, nullptr);
}

// A narrower destination takes the middle of the source; a wider and taller one receives
// the source in its middle.
TEST(ImageCopy, CopyCenteredCutsAndPlaces) {
  PLImage narrowSrc(10, 4, 1, PLUChar, 0), narrow(7, 4, 1, PLUChar, 1);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 10; ++x) narrowSrc.SetChannel(x, y, 0, static_cast<float>(10 * y + x));
  CopyCentered(&narrow, &narrowSrc);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 7; ++x) ASSERT_EQ(Sample(&narrow, x, y, 0), 10 * y + x + 1);
  PLImage src(7, 3, 2, PLFloat, 0), dst(10, 8, 2, PLFloat, 0);
  pltest::FillRandom(&src, 5);
  pltest::Fill(&dst, -100.0);
  CopyCentered(&dst, &src);
  // dstX = (10 - 7) / 2 = 1, dstY = (8 - 3) / 2 = 2.
  for (int32_t y = 0; y < 8; ++y)
    for (int32_t x = 0; x < 10; ++x) {
      bool inside = x >= 1 && x < 8 && y >= 2 && y < 5;
      float expected = inside ? Sample(&src, x - 1, y - 2, 1) : -100.0f;
      ASSERT_EQ(Sample(&dst, x, y, 1), expected) << x << "," << y;
    }
}

TEST(ImageCopy, CopyRectRawChannelShiftAndRefusals) {
  PLImage src(6, 4, 3, PLUChar, 0), dst(5, 5, 3, PLUChar, 1);
  pltest::FillRandom(&src, 3);
  // Equal type, fewer channels in dst: dst's byte count of the raw src samples.
  PLImage two(3, 2, 2, PLUChar, 0);
  CopyRect(&two, 0, 0, &src, 0, 1, 3, 1);
  for (int32_t i = 0; i < 6; ++i) EXPECT_EQ(two.Row(0)[i], src.Row(1)[i]);
  // Equal sizes, more channels in dst: CopyCentered reaches the whole-image raw copy, whose
  // rows would read past the end of src's memory: refused.
  PLImage four(6, 4, 4, PLUChar, 0);
  std::memset(four.data, 1, 96);
  CopyCentered(&four, &src);
  for (int32_t i = 0; i < 96; ++i) ASSERT_EQ(four.data[i], 1);
  // Fewer channels in dst: the raw copy shifts the samples, row by row.
  PLImage twoWide(6, 4, 2, PLUChar, 1);
  CopyCentered(&twoWide, &src);
  for (int32_t y = 0; y < 4; ++y) ASSERT_EQ(std::memcmp(twoWide.Row(y), src.Row(y), 12), 0);
  // A rectangle reaching outside either image is refused.
  auto before = PixelBytes(&dst);
  CopyRect(&dst, 3, 0, &src, 0, 0, 3, 1);
  CopyRect(&dst, 0, 0, &src, 4, 0, 3, 1);
  CopyRect(&dst, -1, 0, &src, 0, 0, 1, 1);
  EXPECT_EQ(PixelBytes(&dst), before);
}

// Rectangles across every type pair: ConvertRect casts (truncation, low bits kept), and so
// does CopyRect (which across types converts its first image into its second); CopyRectScaled
// rescales by the white points and rounds, or copies where types and white points agree
// (equal types with another white point rescale too). The rest of the destination is left
// alone.
TEST(ImageCopy, RectCopiesAcrossEveryTypePairAndChannelCount) {
  const int32_t types[] = {PLUChar, PLUShort, PLFloat};
  for (int32_t mode = 0; mode < 3; ++mode)  // ConvertRect, CopyRectScaled, CopyRect
    for (int32_t st : types)
      for (int32_t dt : types)
        for (int32_t channels = 1; channels <= 6; ++channels) {
          const bool scaled = mode == 1;
          PLImage src(6, 4, channels, st, 1), dst(6, 6, channels, dt, 1 - scaled);
          pltest::FillRandom(&src, 17, -300.0f, 70000.0f);
          pltest::FillRandom(&dst, 18);
          if (scaled && channels != 3) dst.whitePoint = 0.5f * dst.whitePoint;
          PLImage before(6, 6, channels, dt, 0);
          CopyWhole(&before, &dst);
          const int32_t dx = scaled, sx = 1 - scaled;
          if (mode == 0)
            ConvertRect(&src, &dst, sx, 1, dx, 2, 4, 3);
          else if (scaled)
            CopyRectScaled(&dst, dx, 2, &src, sx, 1, 4, 3);
          else if (st != dt)
            CopyRect(&src, sx, 1, &dst, dx, 2, 4, 3);
          else
            CopyRect(&dst, dx, 2, &src, sx, 1, 4, 3);
          const bool plain = st == dt && src.whitePoint == dst.whitePoint;
          const float k = dst.whitePoint / src.whitePoint;
          for (int32_t y = 0; y < 6; ++y)
            for (int32_t x = 0; x < 6; ++x)
              for (int32_t c = 0; c < channels; ++c) {
                const bool inside = x >= dx && x < dx + 4 && y >= 2 && y < 5;
                const float s = inside ? Sample(&src, x - dx + sx, y - 1, c) : 0.0f;
                const float want = !inside ? Sample(&before, x, y, c)
                                   : !scaled ? Cast(dt, s)
                                   : plain   ? s
                                             : pltest::WrappedStore(dt, s * k);
                ASSERT_EQ(Sample(&dst, x, y, c), want)
                    << "mode " << mode << " " << st << "->" << dt << " c" << channels << " at "
                    << x << "," << y;
              }
        }
}

TEST(ImageCopy, ConvertRectRefusesOtherTypesAndChannelMismatch) {
  PLImage a(4, 4, 2, PLFloat, 0), b(4, 4, 3, PLUChar, 0), chars(4, 4, 2, PLChar, 0);
  pltest::FillRandom(&a, 1, 0.0f, 100.0f);
  std::memset(b.data, 5, 48);
  std::memset(chars.data, 5, 32);
  ConvertRect(&a, &b, 0, 0, 0, 0, 4, 4);
  ConvertRect(&a, &chars, 0, 0, 0, 0, 4, 4);
  for (int32_t i = 0; i < 48; ++i) ASSERT_EQ(b.data[i], 5);
  for (int32_t i = 0; i < 32; ++i) ASSERT_EQ(chars.data[i], 5);
}

TEST(ImageCopy, CopyCenteredScaledCases) {
  // Equal sizes, different sample widths: centred with offsets 0 and rescaled.
  PLImage u8(3, 2, 1, PLUChar, 0), f(3, 2, 1, PLFloat, 0);
  for (int32_t i = 0; i < 6; ++i) u8.data[i] = static_cast<uint8_t>(51 * i);
  CopyCenteredScaled(&f, &u8);
  for (int32_t i = 0; i < 6; ++i) EXPECT_EQ(Sample(&f, i % 3, i / 3, 0), 51 * i * (1.0f / 255.0f));
  // Equal layouts and white points: a plain copy.
  PLImage g(3, 2, 1, PLFloat, 1);
  CopyCenteredScaled(&g, &f);
  EXPECT_EQ(PixelBytes(&g), PixelBytes(&f));
  // Centred into a larger UShort image.
  PLImage big(5, 4, 1, PLUShort, 0);
  std::memset(big.data, 0, 40);
  CopyCenteredScaled(&big, &u8);
  EXPECT_EQ(Sample(&big, 1, 1, 0), 0.0f);
  EXPECT_EQ(Sample(&big, 3, 2, 0), 255.0f * 257.0f);
  EXPECT_EQ(Sample(&big, 4, 2, 0), 0.0f);
  CopyCenteredScaled(nullptr, &u8);
}

// ---- clear and fill ----

TEST(ImageFill, FillColorPerType) {
  PLImage u8(3, 2, 4, PLUChar, 0), u16(3, 2, 4, PLUShort, 1), f(3, 2, 4, PLFloat, 0);
  FillColor(&u8, 1.0f, 0.5f, 0.0f, 2.0f);
  FillColor(&u16, 1.0f, 0.5f, 0.0f, -0.25f);
  FillColor(&f, 1.0f, 0.5f, 0.0f, 0.3f);
  for (int32_t y = 0; y < 2; ++y)
    for (int32_t x = 0; x < 3; ++x) {
      EXPECT_EQ(Sample(&u8, x, y, 0), 255.0f);
      EXPECT_EQ(Sample(&u8, x, y, 1), 128.0f);
      EXPECT_EQ(Sample(&u8, x, y, 2), 0.0f);
      EXPECT_EQ(Sample(&u8, x, y, 3), 254.0f);  // 510.5 truncated, low 8 bits
      EXPECT_EQ(Sample(&u16, x, y, 0), 65535.0f);
      EXPECT_EQ(Sample(&u16, x, y, 1), 32767.0f);  // 32767.5 + 0.499 truncates down
      EXPECT_EQ(Sample(&u16, x, y, 3), 49153.0f);  // -16383.75 + 0.499 -> -16383, wraps
      EXPECT_EQ(Sample(&f, x, y, 0), 1.0f);
      EXPECT_EQ(Sample(&f, x, y, 1), 0.5f);
      EXPECT_EQ(Sample(&f, x, y, 3), 0.3f);
    }
}

TEST(ImageFill, FillColorUsesAsManyValuesAsChannels) {
  PLImage two(2, 2, 2, PLUChar, 0), five(2, 2, 5, PLUChar, 0), chars(2, 2, 1, PLChar, 0);
  FillColor(&two, 0.2f, 0.4f, 1.0f, 1.0f);
  EXPECT_EQ(Sample(&two, 1, 1, 0), 51.0f);
  EXPECT_EQ(Sample(&two, 1, 1, 1), 102.0f);
  std::memset(five.data, 7, 20);
  FillColor(&five, 1, 1, 1, 1);
  for (int32_t i = 0; i < 20; ++i) EXPECT_EQ(five.data[i], 7);
  for (int32_t type : {PLUShort, PLFloat})
    for (int32_t channels = 1; channels <= 3; ++channels) {
      PLImage im(2, 2, channels, type, 0);
      FillColor(&im, 1.0f, 0.0f, 1.0f, 0.0f);
      const float white = type == PLFloat ? 1.0f : 65535.0f;
      EXPECT_EQ(Sample(&im, 1, 1, channels - 1), channels == 2 ? 0.0f : white) << channels;
    }
  std::memset(chars.data, 7, 4);
  FillColor(&chars, 1, 1, 1, 1);
  EXPECT_EQ(chars.data[3], 7);
  FillColor(nullptr, 1, 1, 1, 1);
  Clear(nullptr);
}

// ---- workers ----

TEST(ImageCopyWorkers, EveryRowParallelCopyIsIndependentOfWorkers) {
  ExpectRowOpSameForAllWorkers("CopyWhole", PLFloat, PLFloat, 3, [](PLImage* d, PLImage* s) {
    CopyWhole(d, s);
    CopyWhole(d, d);  // onto itself: nothing to do
    EXPECT_TRUE(pltest::SamePixels(d, s));
  });
  ExpectRowOpSameForAllWorkers("CopyRect whole", PLUChar, PLUChar, 4,
                          [](PLImage* d, PLImage* s) { CopyRect(d, 0, 0, s, 0, 0, 29, 150); });
  // Across types the conversion writes its second argument: convert into d.
  ExpectRowOpSameForAllWorkers("ConvertRect", PLUShort, PLFloat, 2, [](PLImage* d, PLImage* s) {
    CopyRect(s, 3, 2, d, 1, 4, 25, 140);
  });
  ExpectRowOpSameForAllWorkers("CopyRectScaled", PLUChar, PLFloat, 3, [](PLImage* d, PLImage* s) {
    CopyRectScaled(d, 2, 5, s, 0, 1, 27, 140);
  });
  ExpectRowOpSameForAllWorkers("Clear", PLUShort, PLUShort, 1,
                          [](PLImage* d, PLImage*) { Clear(d); });
}

// ---- scalings ----

// The white of the three working types.
float Full(int32_t type) { return type == PLUChar ? 255.0f : type == PLUShort ? 65535.0f : 1.0f; }

// Each scaling and matte conversion against its rule for sample c of a pixel p, on every
// type and channel count it serves (and on those it leaves alone), in every row layout
// (Float Multiply: unpadded, see below), for 1, 2, 3 and 8 workers, padding untouched. The
// random mattes include 0 and, for Float, values below 1e-07 and above 1.
TEST(ImageArith, ScalingsAndMattesMatchTheirSampleRules) {
  struct Scaling {
    const char* name;
    std::vector<int32_t> types, channels;
    std::function<void(PLImage*)> run;
    std::function<float(int32_t type, int32_t c, const float* p)> rule;
  } scalings[] = {
      {"ScaleUShort", {PLUShort}, {1, 3, 4}, [](PLImage* im) { ScaleUShort(im, 1.7f); },
       [](int32_t, int32_t c, const float* p) {
         return float(uint16_t(uint32_t(PLTruncToInt32(double(p[c] * 1.7f) + 0.5))));
       }},
      {"ScaleClampUShort", {PLUShort}, {1, 2, 3},
       [](PLImage* im) { ScaleClampUShort(im, 1.3f, 60000.0f); },
       [](int32_t, int32_t c, const float* p) {
         return std::floor(std::min(p[c] * 1.3f + 0.5f, 60000.0f));
       }},
      // Four channels are unpremultiplied first (the matte is then scaled too).
      {"ScaleClampUShort of 4", {PLUShort}, {4},
       [](PLImage* im) { ScaleClampUShort(im, 1.3f, 60000.0f); },
       [](int32_t, int32_t c, const float* p) {
         float s = p[c];
         if (c < 3 && p[3] != 0.0f) {
           const float v = std::min(p[c] * (65535.0f / p[3]), 65535.0f);
           s = float(uint32_t(PLTruncToInt32(double(v) + 0.5)));
         }
         return std::floor(std::min(s * 1.3f + 0.5f, 60000.0f));
       }},
      {"ScaleClampUShort below 0", {PLUShort}, {1},
       [](PLImage* im) { ScaleClampUShort(im, -0.2f, 65535.0f); },
       [](int32_t, int32_t c, const float* p) {
         return std::floor(std::max(p[c] * -0.2f + 0.5f, 0.0f));
       }},
      {"Multiply", {PLUChar, PLUShort, PLFloat}, {1, 2, 3, 4},
       [](PLImage* im) { Multiply(im, 0.37f); },
       [](int32_t type, int32_t c, const float* p) { return Cast(type, p[c] * 0.37f); }},
      {"MultiplyColor", {PLUChar, PLUShort}, {4}, [](PLImage* im) { MultiplyColor(im, 0.6f); },
       [](int32_t type, int32_t c, const float* p) {
         return c == 3 ? p[3] : Cast(type, 0.6f * p[c] + 0.5f);
       }},
      {"MultiplyColor of 3", {PLUChar}, {3}, [](PLImage* im) { MultiplyColor(im, 0.6f); },
       [](int32_t type, int32_t c, const float* p) { return Cast(type, p[c] * 0.6f); }},
      {"MultiplyChannel", {PLUChar, PLUShort}, {2, 4},
       [](PLImage* im) { MultiplyChannel(im, 0.3f, 1); },
       [](int32_t type, int32_t c, const float* p) {
         return c == 1 ? Cast(type, p[c] * 0.3f) : p[c];
       }},
      {"MultiplyFlow", {PLFloat}, {2, 3}, [](PLImage* im) { MultiplyFlow(im, 0.5f, -3.0f); },
       [](int32_t, int32_t c, const float* p) {
         return c == 0 ? p[c] * 0.5f : c == 1 ? p[c] * -3.0f : p[c];
       }},
      // Integer colours scaled up to white and rounded through a double; a zero matte (and for
      // Float one below 1e-07) keeps the pixel; Float is not limited.
      {"Unpremultiply", {PLUChar, PLUShort, PLFloat}, {3, 4},
       [](PLImage* im) { Unpremultiply(im); },
       [](int32_t type, int32_t c, const float* p) {
         if (c == 3 || (type == PLFloat ? !(p[3] >= 1e-07f) : p[3] == 0.0f)) return p[c];
         if (type == PLFloat) return p[c] * (1.0f / p[3]);
         const float v = std::min(p[c] * (Full(type) / p[3]), Full(type));
         return float(uint32_t(PLTruncToInt32(double(v) + 0.5)));
       }},
      // The source's matte over factor times white; integer colours rounded, low bits kept.
      {"PremultiplyFrom", {PLUChar, PLUShort, PLFloat}, {4},
       [](PLImage* im) { PremultiplyFrom(im, im, 0.8f); },
       [](int32_t type, int32_t c, const float* p) {
         const float v = p[c] * (p[3] * (1.0f / (0.8f * Full(type))));
         return c == 3 ? p[3] : type == PLFloat ? v : Cast(type, v + 0.5f);
       }},
      {"Premultiply", {PLUChar, PLFloat}, {4}, [](PLImage* im) { Premultiply(im); },
       [](int32_t type, int32_t c, const float* p) {
         const float v = p[c] * (p[3] * (1.0f / (1.0f * Full(type))));
         return c == 3 ? p[3] : type == PLFloat ? v : Cast(type, v + 0.5f);
       }},
  };
  pltest::WorkerGuard guard;
  for (const Scaling& k : scalings)
    for (int32_t type : k.types)
      for (int32_t channels : k.channels)
        for (pltest::Layout layout : pltest::kLayouts)
          for (int32_t workers : kPLTestWorkerCounts) {
            const std::string name = k.name;
            const bool padded = layout == pltest::kPadded || layout == pltest::kPaddedFlipped;
            if (padded && type == PLFloat && name == "Multiply") continue;
            auto im = MakeImage(7, 150, channels, type, layout);
            pltest::FillRandom(im.get(), 8 + channels);
            PLImage before(7, 150, channels, type, 0);
            CopyWhole(&before, im.get());
            PLTestUseWorkers(workers);
            k.run(im.get());
            PLTestUseWorkers(1);
            const bool served = name == "MultiplyFlow" ? channels == 2
                                : name == "Unpremultiply" ? channels == 4
                                                          : true;
            for (int32_t y = 0; y < 150; ++y)
              for (int32_t x = 0; x < 7; ++x) {
                float p[4];
                for (int32_t c = 0; c < channels; ++c) p[c] = Sample(&before, x, y, c);
                for (int32_t c = 0; c < channels; ++c)
                  ASSERT_EQ(Sample(im.get(), x, y, c), served ? k.rule(type, c, p) : p[c])
                      << name << " type " << type << " c" << channels << " "
                      << pltest::LayoutName(layout) << " workers " << workers << " at " << x
                      << "," << y << "," << c;
              }
            ASSERT_TRUE(pltest::PaddingUntouched(im)) << name;
          }
}

// kept: Multiply treats factors within 1e-6 of 1 as 1.
TEST(ImageArith, MultiplyNearOneIsANoOp) {
  PLImage f(3, 2, 2, PLFloat, 0);
  pltest::FillRandom(&f, 1);
  auto before = PixelBytes(&f);
  Multiply(&f, 1.0000001f);
  EXPECT_EQ(PixelBytes(&f), before);
  Multiply(&f, 1.00001f);
  EXPECT_EQ(Sample(&f, 2, 1, 1), PLLoad<float>(&before[before.size() - 4]) * 1.00001f);
}

TEST(ImageArith, ScalingsIgnoreOtherTypesAndChannels) {
  PLImage f(2, 2, 4, PLFloat, 0), c(2, 2, 1, PLChar, 0), u(2, 2, 3, PLUChar, 0);
  pltest::FillRandom(&u, 3);
  auto unchanged = PixelBytes(&u);
  MultiplyChannel(&u, 1.0f, 1);
  MultiplyChannel(&u, 2.0f, 3);  // no such channel
  EXPECT_EQ(PixelBytes(&u), unchanged);
  pltest::FillRandom(&f, 2);
  std::memset(c.data, 9, 4);
  auto before = PixelBytes(&f);
  ScaleUShort(&f, 2.0f);
  ScaleClampUShort(&f, 2.0f, 1.0f);
  EXPECT_EQ(PixelBytes(&f), before);
  Multiply(&c, 2.0f);
  MultiplyColor(&c, 2.0f);
  MultiplyChannel(&c, 2.0f, 0);
  EXPECT_EQ(c.data[3], 9);
  ScaleUShort(nullptr, 2.0f);
  Multiply(nullptr, 2.0f);
}

// ---- Multiply on a padded wrapped Float image ----

// One contiguous run per worker slice, from the lower address of its two end rows.
std::vector<unsigned char> MultiplyRunsReference(const pltest::TestImage& t, float factor,
                                                 int32_t threads) {
  std::vector<unsigned char> store = t.buffer;
  const PLImage* im = t.get();
  for (int32_t index = 0; index < threads; ++index) {
    int32_t first, last;
    NuvMPRowRange(threads, index, im->height, &first, &last);
    int32_t rowA = im->flipped ? im->lastRow - first : first;
    int32_t rowB = im->flipped ? im->lastRow - last : last;
    size_t start = static_cast<size_t>(std::min(rowA, rowB)) * im->rowBytes;
    size_t n = static_cast<size_t>(last - first + 1) * im->width * im->channels;
    for (size_t i = 0; i < n; ++i) {
      float v = PLLoad<float>(&store[start + 4 * i]);
      PLStore<float>(&store[start + 4 * i], v * factor);
    }
  }
  return store;
}

TEST(ImageArith, MultiplyPaddedFloatScalesTheGapsAndStaysInsideItsRows) {
  pltest::WorkerGuard guard;
  for (pltest::Layout layout : {pltest::kPadded, pltest::kPaddedFlipped})
    for (int32_t workers : kPLTestWorkerCounts) {
      PLTestUseWorkers(workers);
      auto im = MakeImage(5, 140, 2, PLFloat, layout);
      pltest::FillRandom(im.get(), 8);
      auto expected = MultiplyRunsReference(im, 2.5f, NuvMPThreadsForRows(140));
      Multiply(im.get(), 2.5f);
      EXPECT_TRUE(im.buffer == expected)
          << pltest::LayoutName(layout) << " workers " << workers;
      // The spare row after the image is never reached.
      size_t end = static_cast<size_t>(im->rowBytes) * 140;
      for (size_t i = end; i < im.buffer.size(); ++i) ASSERT_EQ(im.buffer[i], 0xCD);
    }
  // With one worker on three rows: rows 0 and 1 and their gaps scaled, row 2 missed.
  PLTestUseWorkers(1);
  auto small = MakeImage(4, 3, 1, PLFloat, pltest::kPadded);
  pltest::Fill(small.get(), 1.0);
  Multiply(small.get(), 2.0f);
  EXPECT_EQ(Sample(small.get(), 3, 1, 0), 2.0f);
  EXPECT_EQ(Sample(small.get(), 0, 2, 0), 1.0f);
}

// ---- two-image operations ----

// The serial walk, slowly: read both through GetChannel, combine, write with SetChannel.
void TwoImageReference(PLImage* dst, const PLImage* src, float (*op)(float, float)) {
  for (int32_t y = 0; y < dst->height; ++y)
    for (int32_t x = 0; x < dst->width; ++x)
      for (int32_t c = 0; c < dst->channels; ++c)
        dst->SetChannel(x, y, c, op(Sample(dst, x, y, c), Sample(src, x, y, c)));
}

float SubRef(float a, float b) { return a - b; }
float AddRef(float a, float b) { return a + b; }
float MinRef(float a, float b) { return b > a ? a : b; }
float MaxRef(float a, float b) { return a < b ? b : a; }

TEST(ImageArith, TwoImageOperationsMatchTheReferenceForEveryTypePairAndWorkerCount) {
  pltest::WorkerGuard guard;
  struct Op {
    const char* name;
    std::function<void(PLImage*, const PLImage*)> run;
    float (*ref)(float, float);
  } ops[] = {{"Subtract", [](PLImage* d, const PLImage* s) { Subtract(d, s); }, SubRef},
             {"Add", [](PLImage* d, const PLImage* s) { Add(d, s); }, AddRef},
             {"Min", [](PLImage* d, const PLImage* s) { Min(d, s); }, MinRef},
             {"Min3", [](PLImage* d, const PLImage* s) { Min(d, nullptr, s); }, MinRef},
             {"Max", [](PLImage* d, const PLImage* s) { Max(d, s); }, MaxRef}};
  const int32_t types[] = {PLUChar, PLUShort, PLFloat};
  for (const Op& op : ops)
    for (int32_t dt : types)
      for (int32_t st : types)
        for (int32_t channels : {1, 2, 3, 4})
          for (int32_t workers : kPLTestWorkerCounts) {
            auto dst = MakeImage(6, 150, channels, dt, pltest::kLayouts[workers % 4]);
            auto src = MakeImage(6, 150, channels, st, pltest::kLayouts[(workers + 1) % 4]);
            pltest::FillRandom(dst.get(), 40, -100.0f, 300.0f);
            pltest::FillRandom(src.get(), 41, -100.0f, 300.0f);
            PLImage expected(6, 150, channels, dt, 0);
            CopyWhole(&expected, dst.get());
            TwoImageReference(&expected, src.get(), op.ref);
            PLTestUseWorkers(workers);
            op.run(dst.get(), src.get());
            PLTestUseWorkers(1);
            ASSERT_TRUE(PixelBytes(dst.get()) == PixelBytes(&expected))
                << op.name << " " << dt << "<-" << st << " c" << channels << " workers " << workers;
            ASSERT_TRUE(pltest::PaddingUntouched(dst));
          }
}

TEST(ImageArith, TwoImageOperationsRefuseLongAndMismatches) {
  PLImage l(2, 1, 1, PLLong, 0), f(2, 1, 1, PLFloat, 0);
  std::memset(l.data, 1, 8);
  pltest::FillRandom(&f, 3);
  auto before = PixelBytes(&f);
  Subtract(&f, &l);
  Add(&l, &f);
  EXPECT_EQ(PixelBytes(&f), before);
  EXPECT_EQ(l.data[7], 1);
  Subtract(nullptr, &f);
  Subtract(&f, nullptr);
  PLImage smaller(1, 1, 1, PLFloat, 0);
  Subtract(&f, &smaller);  // src smaller than dst: refused
  EXPECT_EQ(PixelBytes(&f), before);
}

// ---- mattes ----

void SetPixel4(PLImage* im, int32_t x, int32_t y, float r, float g, float b, float m) {
  const float v[4] = {r, g, b, m};
  for (int32_t c = 0; c < 4; ++c) im->SetChannel(x, y, c, v[c]);
}

// A Float matte of exactly 1e-07 divides; one just below keeps the pixel.
TEST(ImageMatte, UnpremultiplyFloatThreshold) {
  PLImage f(2, 1, 4, PLFloat, 0);
  SetPixel4(&f, 0, 0, 0.4f, 0.8f, 2.0f, 9e-08f);
  SetPixel4(&f, 1, 0, 0.4f, 0.8f, 2.0f, 1e-07f);
  Unpremultiply(&f);
  EXPECT_EQ(Sample(&f, 0, 0, 0), 0.4f);
  EXPECT_EQ(Sample(&f, 1, 0, 0), 0.4f * (1.0f / 1e-07f));
}

TEST(ImageMatte, PremultiplyFromTakesColourAndMatteOfTheSource) {
  PLImage dst(2, 2, 4, PLUShort, 0), src(3, 3, 4, PLUShort, 1), wrong(2, 2, 4, PLUChar, 0);
  pltest::FillRandom(&dst, 1);
  pltest::FillRandom(&src, 2);
  const auto before = PixelBytes(&dst);
  PremultiplyFrom(&dst, &wrong, 1.0f);  // type differs: nothing
  EXPECT_EQ(PixelBytes(&dst), before);
  PremultiplyFrom(&dst, &src, 2.0f);
  for (int32_t i = 0; i < 16; ++i) {
    const int32_t x = i / 4 % 2, y = i / 8, c = i % 4;
    const float m = Sample(&src, x, y, 3), k = m * (1.0f / (2.0f * 65535.0f));
    EXPECT_EQ(Sample(&dst, x, y, c), c == 3 ? m : float(int32_t(Sample(&src, x, y, c) * k + 0.5f)))
        << x << "," << y << "," << c;
  }
}

TEST(ImageMatte, MembersMoveTheMatteMode) {
  PLImage im(2, 1, 4, PLUChar, 0);
  SetPixel4(&im, 0, 0, 50, 50, 50, 255);
  SetPixel4(&im, 1, 0, 50, 50, 50, 100);
  EXPECT_EQ(im.matteMode, MatteUnknown);
  im.ToStraightMatte();  // not premultiplied: nothing
  EXPECT_EQ(im.matteMode, MatteUnknown);
  EXPECT_EQ(Sample(&im, 1, 0, 0), 50.0f);
  im.UpdateMatteMode(1);
  EXPECT_EQ(im.matteMode, MattePremultiplied);
  im.UpdateMatteMode(0);  // known already: unchanged
  EXPECT_EQ(im.matteMode, MattePremultiplied);
  im.ToStraightMatte();
  EXPECT_EQ(im.matteMode, MatteStraight);
  EXPECT_EQ(Sample(&im, 1, 0, 0), 128.0f);  // 50 * 2.55 + 0.5
  im.ToPremultipliedMatte();
  EXPECT_EQ(im.matteMode, MattePremultiplied);
  EXPECT_EQ(Sample(&im, 1, 0, 0), 50.0f);
  SetPixel4(&im, 1, 0, 50, 50, 50, 255);
  im.UpdateMatteMode(0);
  EXPECT_EQ(im.matteMode, MatteOpaque);
  PLImage deep(1, 1, 4, PLUShort, 0);
  SetPixel4(&deep, 0, 0, 1, 2, 3, 65535);
  deep.UpdateMatteMode(0);
  EXPECT_EQ(deep.matteMode, MatteOpaque);
  PLImage fresh(1, 1, 4, PLFloat, 0);
  SetPixel4(&fresh, 0, 0, 0.5f, 0.5f, 0.5f, 0.5f);
  fresh.UpdateMatteMode(0);
  EXPECT_EQ(fresh.matteMode, MatteStraight);
}

}  // namespace
