// flowblur: PLImage construction, states and addressing; the NuvImage views over it.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "image/NuvImage.h"

namespace {

struct FailingAllocator {
  FailingAllocator() {
    NuvMemSetHooks(nullptr, [](void*, uint64_t) -> void* { return nullptr; }, nullptr);
  }
  ~FailingAllocator() { NuvMemSetHooks(nullptr, nullptr, nullptr); }
};

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
  const int w = 4, h = 3, c = 3;
  PLImage plain(w, h, c, PLUChar, 0);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int k = 0; k < c; ++k) plain.SetChannel(x, y, k, float(y * 40 + x * 5 + k));
  // The same rows stored bottom-up with 7 bytes of padding per row.
  const int rowBytes = w * c + 7;
  std::vector<unsigned char> memory(rowBytes * h, 0xEE);
  for (int y = 0; y < h; ++y)
    std::memcpy(&memory[(h - 1 - y) * rowBytes], plain.Row(y), w * c);
  PLImage flipped(memory.data(), w, h, rowBytes, c, PLUChar, 1);
  EXPECT_EQ(flipped.rowStep, -rowBytes);
  EXPECT_EQ(flipped.PixelAddress(0, 0), memory.data() + 2 * rowBytes);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int k = 0; k < c; ++k) {
        float a, b;
        plain.GetChannel(x, y, &a, k);
        flipped.GetChannel(x, y, &b, k);
        EXPECT_EQ(a, b) << x << "," << y << "," << k;
      }
  // Writing every pixel never touches the padding.
  float values[3] = {1, 2, 3};
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) flipped.SetPixel(x, y, values);
  for (int y = 0; y < h; ++y)
    for (int p = w * c; p < rowBytes; ++p) EXPECT_EQ(memory[y * rowBytes + p], 0xEE);
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

}  // namespace
