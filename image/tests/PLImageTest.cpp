// flowblur: PLImage construction, states and addressing; the NuvImage views over it; sample
// conversions, nearest-neighbour resize, pixel functors and flow coding.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "image/NuvImage.h"
#include "image/PLConvertImage.h"
#include "image/PLPixelConvert.h"
#include "tests/support/PLTestImages.h"

namespace {

using pltest::MakeImage;

// While it lives, allocations of more than `limit` bytes fail (with 0, every one).
struct FailingAllocator {
  explicit FailingAllocator(uint64_t limit = 0) : limit(limit) {
    NuvMemSetHooks(
        &this->limit,
        [](void* l, uint64_t size) -> void* {
          return size > *static_cast<uint64_t*>(l) ? nullptr : std::malloc(size);
        },
        [](void*, void* block) { std::free(block); });
  }
  ~FailingAllocator() { NuvMemSetHooks(nullptr, nullptr, nullptr); }
  uint64_t limit;
};

template <class Call>
std::string Stderr(Call call) {
  testing::internal::CaptureStderr();
  call();
  return testing::internal::GetCapturedStderr();
}

TEST(PLImage, FailedAllocationHonoursThrowFlagExactlyOne) {
  FailingAllocator failing;
  PLImage quiet(0, 4, 4, 1, PLUChar, 0);
  EXPECT_EQ(quiet.data, nullptr);
  EXPECT_EQ(quiet.ownsData, 0);
  EXPECT_EQ(quiet.errorCode, PLErrOutOfMemory);
  PLImage two(2, 4, 4, 1, PLUChar, 0);  // only exactly 1 means throw
  EXPECT_EQ(two.errorCode, PLErrOutOfMemory);
  try {
    PLImage loud(1, 4, 4, 1, PLUChar, 0);
    FAIL() << "no exception";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrOutOfMemory);
  }
  EXPECT_THROW(PLImage(4, 4, 1, PLUChar, 0), PLErr);
  // The heap form of a failed image releases through the library allocator too.
  EXPECT_THROW(NUV_NEW PLImage(4, 4, 1, PLUChar, 0), PLErr);
}

TEST(PLImage, FlippedAndPaddedAddressTheSamePixels) {
  PLImage plain(4, 3, 3, PLUChar, 0);
  pltest::FillRandom(&plain, 1);
  // The same rows stored bottom-up with 7 bytes of padding per row: 19 bytes a row.
  pltest::TestImage flipped = MakeImage(4, 3, 3, PLUChar, 1, 7);
  for (int y = 0; y < 3; ++y) std::memcpy(&flipped.buffer[(2 - y) * 19], plain.Row(y), 12);
  EXPECT_EQ(flipped->rowStep, -19);
  EXPECT_EQ(flipped->PixelAddress(0, 0), flipped.buffer.data() + 2 * 19);
  EXPECT_TRUE(pltest::SamePixels(&plain, flipped.get()));
  // Writing every pixel never touches the padding.
  float values[3] = {1, 2, 3};
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) flipped->SetPixel(x, y, values);
  EXPECT_TRUE(pltest::PaddingUntouched(flipped));
}

// kept: GetPixel reads a Float image's samples as 16-bit words.
TEST(PLImage, GetPixelReadsFloatImagesAsSixteenBitWords) {
  PLImage image(1, 1, 2, PLFloat, 0);
  float stored[2] = {1.0f, -2.5f};
  image.SetPixel(0, 0, stored);
  float got[2];
  image.GetPixel(0, 0, got);
  uint16_t words[2];
  std::memcpy(words, image.data, 4);  // the first float's two halves
  EXPECT_EQ(got[0], float(words[0]));
  EXPECT_EQ(got[1], float(words[1]));
  float proper;
  image.GetChannel(0, 0, &proper, 1);
  EXPECT_EQ(proper, -2.5f);
}

TEST(PLImage, AccessorsConvertByNumericCast) {
  PLImage u8(1, 1, 3, PLUChar, 0);
  float in[3] = {255.9f, 256.0f, -1.0f};
  u8.SetPixel(0, 0, in);
  float out[3];
  u8.GetPixel(0, 0, out);
  EXPECT_EQ(out[0], 255.0f);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_EQ(out[2], 255.0f);
  PLImage u16(1, 1, 1, PLUShort, 0);
  u16.SetChannel(0, 0, 0, 70000.0f);  // keeps the low 16 bits
  float v;
  u16.GetChannel(0, 0, &v, 0);
  EXPECT_EQ(v, float(70000 & 0xFFFF));
}

// Wrap does not release what the image held (destroying a wrapper of caller memory, as
// above, is seen by the sanitizers).
TEST(PLImage, WrapNeverReleases) {
  PLImage image(2, 2, 1, PLUChar, 0);
  unsigned char* owned = image.data;
  std::vector<uint16_t> other(6, 7);
  image.Wrap(other.data(), 3, 2, 6, 1, PLUShort, 1);
  EXPECT_EQ(image.ownsData, 0);
  float v;
  image.GetChannel(2, 1, &v, 0);
  EXPECT_EQ(v, 7.0f);
  NuvMemFree(owned);
}

// ---- NuvImage views and their wrappers ----

TEST(NuvImage, SetupRetargetsTheWrapper) {
  PLImage image(2, 2, 3, PLUChar, 0);
  NuvImageInternal wrapper(&image);
  NuvImage view;
  view.Attach(&wrapper);
  std::vector<uint16_t> other(5 * 3 * 2 + 6, 0);
  EXPECT_EQ(view.SetupRGB(other.data(), 5, 3, 36, 0, 1), 0);
  EXPECT_EQ(wrapper.flipped, 1);
  EXPECT_EQ(wrapper.dataType, PLUShort);
  EXPECT_EQ(view.rowStep, -36);
  void* data;
  int32_t w, h, rb, ro, pt, ch, r, g, b, a;
  EXPECT_EQ(view.GetInfo(&data, &w, &h, &rb, &ro, &pt, &ch, &r, &g, &b, &a), 0);
  EXPECT_EQ(data, other.data());
  EXPECT_EQ(w, 5);
  EXPECT_EQ(h, 3);
  EXPECT_EQ(rb, 36);
  EXPECT_EQ(pt, 1);
  EXPECT_EQ(ch, 3);
}

TEST(NuvImage, CreateOwnsAndTakesCustomRoles) {
  NuvImage view;
  ASSERT_EQ(view.Create(), 0);
  EXPECT_EQ(view.ownsInternal, 1);
  EXPECT_EQ(view.internal->data, nullptr);
  std::vector<float> pixels(16);
  EXPECT_EQ(view.SetupCustom(pixels.data(), 2, 2, 32, 1, 2, 1, 2, 3, 2, 1, 0), 0);
  EXPECT_EQ(view.internal->hasMatte, 1);
  EXPECT_EQ(view.internal->colorSet, 0);  // only a selector of exactly 1 sets it
  EXPECT_EQ(view.GetRedIndex(), 3);
  EXPECT_EQ(view.GetAlphaIndex(), 0);
}

TEST(NuvImage, WithoutWrapperEverythingRefusesSafely) {
  NuvImage view;
  std::vector<unsigned char> pixels(4);
  EXPECT_EQ(view.SetupGray(pixels.data(), 2, 2, 2, 1, 0), PLErrParameter);
  void* data;
  int32_t w, h, rb, ro, pt, ch, r, g, b, a;
  EXPECT_EQ(view.GetInfo(&data, &w, &h, &rb, &ro, &pt, &ch, &r, &g, &b, &a), PLErrParameter);
  EXPECT_EQ(view.GetChannels(), 0);
  EXPECT_EQ(view.GetBlueIndex(), 0);
}

// ---- the sample table ----

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kTwoToMinus16 = 1.52587890625e-05f;

template <class D, class S>
D Convert(int32_t srcType, int32_t dstType, S value) {
  PLSampleConverter convert = PLGetSampleConverter(srcType, dstType);
  EXPECT_NE(convert, nullptr) << srcType << " -> " << dstType;
  D out{};
  if (convert) convert(&out, &value);
  return out;
}

// The same writer as PLImage's accessors, whose test sees 255.9, 256 and -1 stored.
TEST(SampleConvert, FloatToUCharTruncatesAndKeepsLowBits) {
  EXPECT_EQ((Convert<uint8_t, float>(PLFloat, PLUChar, -0.999f)), 0);
  // Beyond 32 bits and NaN: the integer-indefinite value, whose low bits are 0.
  EXPECT_EQ((Convert<uint8_t, float>(PLFloat, PLUChar, kNaN)), 0);
  EXPECT_EQ((Convert<uint8_t, float>(PLFloat, PLUChar, -3.0e9f)), 0);
  EXPECT_EQ((Convert<uint8_t, float>(PLFloat, PLUChar, INFINITY)), 0);
  // Just inside the 32-bit range still wraps normally: 2^31 - 128 has low byte 0x80.
  EXPECT_EQ((Convert<uint8_t, float>(PLFloat, PLUChar, 2147483520.0f)), 0x80);
}

TEST(SampleConvert, FloatToUShortTruncatesAndKeepsLowBits) {
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLUShort, 65535.9f)), 65535);
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLUShort, 65536.0f)), 0);
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLUShort, -1.0f)), 65535);
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLUShort, kNaN)), 0);
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLUShort, 1.0e12f)), 0);
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLShort, -2.5f)), 65534);  // as UShort
  EXPECT_EQ((Convert<uint8_t, float>(PLFloat, PLChar, -2.5f)), 254);      // as UChar
}

TEST(SampleConvert, IntegerPairs) {
  EXPECT_EQ((Convert<uint8_t, uint16_t>(PLUShort, PLUChar, 300)), 44);
  EXPECT_EQ((Convert<uint8_t, uint16_t>(PLUShort, PLUChar, 65535)), 255);
  EXPECT_EQ((Convert<uint16_t, uint8_t>(PLUChar, PLUShort, 200)), 200);
  EXPECT_EQ((Convert<uint8_t, uint8_t>(PLUChar, PLUChar, 77)), 77);
  EXPECT_EQ((Convert<uint16_t, uint16_t>(PLUShort, PLUShort, 40000)), 40000);
  EXPECT_EQ((Convert<float, uint16_t>(PLUShort, PLFloat, 65535)), 65535.0f);
  EXPECT_EQ((Convert<float, uint8_t>(PLUChar, PLFloat, 200)), 200.0f);  // not 0.78
}

TEST(SampleConvert, FractionTypesAreAsymmetric) {
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLUShortFraction, 0.5f)), 32768);
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLUShortFraction, 1.0f)), 0);
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLUShortFraction, 1.5f)), 32768);
  EXPECT_EQ((Convert<float, uint16_t>(PLUShortFraction, PLFloat, 32768)), 0.5f);
  // Writing multiplies by the reading factor, not its inverse.
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLShortFraction, 65536.0f)), 1);
  EXPECT_EQ((Convert<uint16_t, float>(PLFloat, PLShortFraction, 1.0f)), 0);
  EXPECT_EQ((Convert<float, int16_t>(PLShortFraction, PLFloat, 1)), kTwoToMinus16);
  EXPECT_EQ((Convert<float, int16_t>(PLShortFraction, PLFloat, -1)), -kTwoToMinus16);
}

TEST(SampleConvert, SignedWideAndNarrowTypes) {
  EXPECT_EQ((Convert<float, int8_t>(PLChar, PLFloat, -5)), -5.0f);
  EXPECT_EQ((Convert<float, int16_t>(PLShort, PLFloat, -30000)), -30000.0f);
  EXPECT_EQ((Convert<float, double>(PLDouble, PLFloat, 0.1)), 0.1f);
  EXPECT_EQ((Convert<double, float>(PLFloat, PLDouble, 0.1f)), static_cast<double>(0.1f));
  EXPECT_EQ((Convert<float, int64_t>(PLLong, PLFloat, -(int64_t{1} << 40))), -1099511627776.0f);
  EXPECT_EQ((Convert<int64_t, float>(PLFloat, PLLong, -3.7f)), -3);
  EXPECT_EQ((Convert<int64_t, float>(PLFloat, PLLong, kNaN)), INT64_MIN);
}

TEST(SampleConvert, PairsOutsideTheTableHaveNoRoutine) {
  EXPECT_EQ(PLGetSampleConverter(PLChar, PLUChar), nullptr);
  EXPECT_EQ(PLGetSampleConverter(PLUChar, PLShort), nullptr);
  EXPECT_EQ(PLGetSampleConverter(PLDouble, PLLong), nullptr);
  EXPECT_EQ(PLGetSampleConverter(PLFloat, 9), nullptr);
  EXPECT_EQ(PLGetSampleReader(-1), nullptr);
  EXPECT_EQ(PLGetSampleReader(9), nullptr);
}

// ---- CopyResized ----

// The rule, written out slowly.
int32_t NearestRef(int32_t i, int32_t srcSize, int32_t dstSize) {
  float ratio = static_cast<float>(srcSize - 1) / static_cast<float>(dstSize - 1);
  float product = static_cast<float>(i) * ratio;
  return static_cast<int32_t>(static_cast<double>(product) + 0.5);
}

TEST(CopyResized, NearestNeighbourWithConversion) {
  struct Case {
    int32_t sw, sh, dw, dh, st, dt;
  } cases[] = {{7, 5, 4, 3, PLUChar, PLFloat}, {3, 3, 8, 9, PLFloat, PLUShort},
               {13, 2, 5, 2, PLUShort, PLUChar}, {6, 7, 6, 7, PLFloat, PLFloat}};
  for (const Case& k : cases)
    for (pltest::Layout layout : {pltest::kPlain, pltest::kPaddedFlipped}) {
      auto src = MakeImage(k.sw, k.sh, 3, k.st, layout);
      auto dst = MakeImage(k.dw, k.dh, 3, k.dt, pltest::kFlipped);
      pltest::FillRandom(src.get(), 7, -300.0f, 300.0f);
      CopyResized(dst.get(), src.get());
      PLSampleConverter convert = PLGetSampleConverter(k.st, k.dt);
      for (int32_t y = 0; y < k.dh; ++y)
        for (int32_t x = 0; x < k.dw; ++x)
          for (int32_t c = 0; c < 3; ++c) {
            const unsigned char* s = src->PixelAddress(NearestRef(x, k.sw, k.dw),
                                                       NearestRef(y, k.sh, k.dh)) +
                                     c * src->bytesPerSample;
            unsigned char expected[4] = {};
            convert(expected, s);
            ASSERT_EQ(std::memcmp(expected, dst->PixelAddress(x, y) + c * dst->bytesPerSample,
                                  dst->bytesPerSample),
                      0)
                << "case " << k.sw << "x" << k.sh << " at " << x << "," << y << "," << c;
          }
    }
}

TEST(CopyResized, RefusesWhatItCannotServe) {
  PLImage src(4, 4, 1, PLUChar, 0), line(5, 1, 1, PLUChar, 0), chars(4, 4, 1, PLChar, 0);
  std::memset(line.data, 9, 5);
  std::memset(src.data, 1, 16);
  CopyResized(&line, &src);  // a one-row destination would divide by zero
  EXPECT_EQ(line.data[0], 9);
  CopyResized(&chars, &src);  // UChar -> Char has no routine
  CopyResized(nullptr, &src);
  CopyResized(&src, nullptr);
}

// ---- flow coding ----

TEST(FlowCoding, CodesAndClamps) {
  const int32_t range = 640;
  EXPECT_EQ(PLEncodeFlow(0.0f, range), 32767);
  EXPECT_EQ(PLEncodeFlow(640.0f, range), 65534);
  EXPECT_EQ(PLEncodeFlow(-640.0f, range), 0);
  EXPECT_EQ(PLEncodeFlow(5000.0f, range), 65534);
  EXPECT_EQ(PLEncodeFlow(-5000.0f, range), 0);
  EXPECT_EQ(PLEncodeFlow(3.0e38f, range), 65534);
  EXPECT_EQ(PLEncodeFlow(-INFINITY, range), 0);
  EXPECT_EQ(PLEncodeFlow(kNaN, range), 0);
  EXPECT_EQ(PLDecodeFlow(32767.0f, range), 0.0f);
  EXPECT_EQ(PLDecodeFlow(65534.0f, range), 640.0f);
  EXPECT_EQ(PLDecodeFlow(0.0f, range), -640.0f);
  // Step 1 narrows the quotient to float before the rounding of step 3.
  float v = 1.2345f;
  float s = static_cast<float>(static_cast<double>(v) * 32767.0 / 640.0);
  EXPECT_EQ(PLEncodeFlow(v, range), static_cast<uint16_t>(static_cast<double>(s) + 32767.5));
}

TEST(FlowConvert, FunctorsThroughConvertPixels) {
  auto flow = MakeImage(9, 6, 2, PLFloat, pltest::kPadded);
  pltest::FillRandom(flow.get(), 3, -12.0f, 12.0f);
  flow->SetFlow(0, 0, 9, 9.0f, -20.0f);  // beyond the range on v: clamps
  PLImage coded(9, 6, 2, PLUShort, 1), back(9, 6, 2, PLFloat, 0);
  ConvertFloatFlow2ShortFlow toShort(9);
  ConvertShortFlow2FloatFlow toFloat(9);
  ConvertPixels(&coded, flow.get(), &toShort);
  ConvertPixels(&back, &coded, &toFloat);
  for (int32_t y = 0; y < 6; ++y)
    for (int32_t x = 0; x < 9; ++x)
      for (int32_t c = 0; c < 2; ++c) {
        const float code = pltest::Sample(&coded, x, y, c);
        ASSERT_EQ(code, PLEncodeFlow(pltest::Sample(flow.get(), x, y, c), 9));
        ASSERT_EQ(pltest::Sample(&back, x, y, c), PLDecodeFlow(code, 9));
      }
  EXPECT_EQ(pltest::Sample(&coded, 0, 0, 0), 65534.0f);
  EXPECT_EQ(pltest::Sample(&coded, 0, 0, 1), 0.0f);

  // In place: a Float flow image turned into codes in its own first 4 bytes a pixel.
  PLImage same(3, 2, 2, PLFloat, 0);
  for (int32_t y = 0; y < 2; ++y)
    for (int32_t x = 0; x < 3; ++x) same.SetFlow(x, y, 0, x * 1.5f, -y * 2.0f);
  ConvertPixelsInPlace(&same, &toShort);
  EXPECT_EQ(PLLoad<uint16_t>(same.PixelAddress(2, 1)), PLEncodeFlow(3.0f, 9));
  EXPECT_EQ(PLLoad<uint16_t>(same.PixelAddress(2, 1) + 2), PLEncodeFlow(-2.0f, 9));
}

TEST(FlowMembers, SetFlowWarnsAboveFiftyThousandAndKeepsTheValue) {
  PLImage image(4, 4, 2, PLUShort, 0);
  EXPECT_EQ(Stderr([&] { image.SetFlow(1, 2, 100, 60.0f, 0.0f); }), "whoa\n");  // 0.6 * range
  EXPECT_EQ(pltest::Sample(&image, 1, 2, 0), PLEncodeFlow(60.0f, 100));
  EXPECT_GT(pltest::Sample(&image, 1, 2, 0), 50000.0f);

  EXPECT_EQ(Stderr([&] {
              image.SetFlow(0, 0, 100, 50.0f, 90.0f);  // u codes 49151; only u is looked at
              image.SetFlow(0, 1, 100, -90.0f, 0.0f);
            }),
            "");
  EXPECT_EQ(pltest::Sample(&image, 0, 0, 0), 49151.0f);
}

TEST(FlowMembers, GetFlowBilinearOnEveryLayout) {
  for (int32_t type : {PLFloat, PLUShort})
    for (pltest::Layout layout : pltest::kLayouts) {
      auto flow = MakeImage(7, 5, 2, type, layout);
      testing::internal::CaptureStderr();  // large u codes say "whoa"
      for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < 7; ++x) flow->SetFlow(x, y, 7, x * 0.7f - y, y * 1.3f + x * 0.1f);
      testing::internal::GetCapturedStderr();
      const float points[][2] = {{0, 0}, {2.25f, 1.5f}, {5.99f, 3.01f}, {6, 2.5f},
                                 {3.5f, 4}, {6, 4},     {6.7f, 4.2f}};
      for (const auto& pt : points) {
        float u = -99, v = -99, ref[2];
        flow->GetFlow(pt[0], pt[1], &u, &v, 7);
        for (int32_t c = 0; c < 2; ++c) ref[c] = pltest::Bilinear(flow.get(), pt[0], pt[1], c);
        if (type == PLUShort) ref[0] = PLDecodeFlow(ref[0], 7), ref[1] = PLDecodeFlow(ref[1], 7);
        EXPECT_EQ(u, ref[0]) << pltest::LayoutName(layout) << " " << pt[0] << "," << pt[1];
        EXPECT_EQ(v, ref[1]) << pltest::LayoutName(layout) << " " << pt[0] << "," << pt[1];
      }
    }
}

TEST(FlowMembers, GetFlowAndSetFlowRefuseWhatWouldLeaveTheImage) {
  PLImage flow(4, 4, 2, PLFloat, 0), thin(1, 4, 2, PLFloat, 0), chars(4, 4, 2, PLUChar, 0);
  pltest::FillRandom(&flow, 1);
  float u = 42, v = 43;
  flow.GetFlow(-1.5f, 1.0f, &u, &v, 4);
  flow.GetFlow(1.0f, kNaN, &u, &v, 4);
  thin.GetFlow(0.0f, 0.0f, &u, &v, 4);
  chars.GetFlow(1.0f, 1.0f, &u, &v, 4);
  EXPECT_EQ(u, 42);
  EXPECT_EQ(v, 43);
  PLImage small(3, 3, 2, PLUChar, 0);  // no room for two floats: SetFlow leaves it alone
  std::memset(small.data, 7, 18);
  small.SetFlow(2, 2, 0, 1.0f, 1.0f);
  EXPECT_EQ(small.data[17], 7);
}

// ---- flow files ----

TEST(FlowFiles, MessagesAndNoFile) {
  EXPECT_EQ(ReadFlow("anything.flo"), nullptr);
  PLImage one(4, 4, 1, PLFloat, 0), two(4, 4, 2, PLFloat, 0), shorts(4, 4, 1, PLUShort, 0);
  pltest::FillRandom(&one, 1);
  pltest::FillRandom(&two, 2);
  EXPECT_EQ(Stderr([&] { WriteFlow(&two, "out.flo"); }), "");
  EXPECT_EQ(Stderr([&] {
              WriteFlow(&one, "out.flo");
              WriteFlow(&shorts, "out.flo");
            }),
            "Write Flow needs more than 1 channel!\nWrite Flow needs more than 1 channel!\n");
  PLImage big(64, 64, 2, PLFloat, 0);
  pltest::FillRandom(&big, 3);
  FailingAllocator failing(4096);
  EXPECT_EQ(Stderr([&] { WriteFlow(&big, "out.flo"); }), "can't make flow image to write!\n");
}

}  // namespace
