// flowblur: predicates, copies, clears and fills.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "image/PLImageCopy.h"
#include "tests/support/PLTestImages.h"

namespace {

using pltest::MakeImage;
using pltest::PixelBytes;
using pltest::ExpectRowOpSameForAllWorkers;
using pltest::Sample;

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

// Conversion of one sample as the copies across types must give it.
float CastRef(float v, int32_t type) {
  if (type == PLFloat) return v;
  uint32_t bits = static_cast<uint32_t>(PLTruncToInt32(v));
  return static_cast<float>(type == PLUChar ? (bits & 0xFF) : (bits & 0xFFFF));
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
                                   : !scaled ? CastRef(s, dt)
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

}  // namespace
