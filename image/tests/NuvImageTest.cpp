// flowblur: NuvImage views and their wrappers.
#include <gtest/gtest.h>

#include <vector>

#include "image/NuvImage.h"

namespace {

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
