// flowblur: NuvImage views and their wrappers.
#include <gtest/gtest.h>

#include <vector>

#include "image/NuvImage.h"

namespace {

TEST(NuvImage, TwoChannelFlowAndFourChannelRoles) {
  PLImage flow(4, 4, 2, PLFloat, 0);
  NuvImageInternal flowWrapper(&flow);
  NuvImage flowView;
  flowView.Attach(&flowWrapper);
  EXPECT_EQ(flowView.pixelType, 2);
  EXPECT_EQ(flowView.GetRedIndex(), 0);
  EXPECT_EQ(flowView.GetGreenIndex(), 1);

  PLImage rgba(2, 2, 4, PLUShort, 0);
  NuvImageInternal w4(&rgba);
  NuvImage v4;
  v4.Attach(&w4);
  EXPECT_EQ(w4.hasMatte, 1);
  EXPECT_EQ(v4.GetAlphaIndex(), 3);
}

TEST(NuvImage, SetupRetargetsTheWrapper) {
  PLImage image(2, 2, 3, PLUChar, 0);
  NuvImageInternal wrapper(&image);
  NuvImage view;
  view.Attach(&wrapper);
  std::vector<uint16_t> other(5 * 3 * 2 + 6, 0);
  EXPECT_EQ(view.SetupRGB(other.data(), 5, 3, 36, 0, 1), 0);
  EXPECT_EQ(wrapper.data, reinterpret_cast<unsigned char*>(other.data()));
  EXPECT_EQ(wrapper.flipped, 1);
  EXPECT_EQ(wrapper.dataType, PLUShort);
  EXPECT_EQ(view.rowStep, -36);
  EXPECT_EQ(view.width, 5);
  void* data;
  int32_t w, h, rb, ro, pt, ch, r, g, b, a;
  EXPECT_EQ(view.GetInfo(&data, &w, &h, &rb, &ro, &pt, &ch, &r, &g, &b, &a), 0);
  EXPECT_EQ(data, other.data());
  EXPECT_EQ(w, 5);
  EXPECT_EQ(h, 3);
  EXPECT_EQ(rb, 36);
  EXPECT_EQ(ro, 0);
  EXPECT_EQ(pt, 1);
  EXPECT_EQ(ch, 3);
}

TEST(NuvImage, CustomRolesAndSelectors) {
  NuvImage view;
  ASSERT_EQ(view.Create(), 0);
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

TEST(NuvImage, CreateOwnsAndAttachDoesNot) {
  PLImage image(2, 2, 1, PLUChar, 0);
  NuvImageInternal wrapper(&image);
  {
    NuvImage view;
    view.Attach(&wrapper);
    EXPECT_EQ(view.ownsInternal, 0);
  }
  EXPECT_EQ(wrapper.width, 2);  // still alive and untouched after the view is gone
  NuvImage owner;
  ASSERT_EQ(owner.Create(), 0);
  EXPECT_EQ(owner.ownsInternal, 1);
  EXPECT_EQ(owner.internal->channels, 0);
  EXPECT_EQ(owner.internal->data, nullptr);
}

TEST(NuvImage, UnsupportedChannelCountLeavesTheViewAsItWas) {
  PLImage image(2, 2, 5, PLUChar, 0);
  NuvImageInternal wrapper(&image);
  NuvImage view;
  EXPECT_EQ(view.Attach(&wrapper), 0);
  EXPECT_EQ(view.width, 0);
  EXPECT_EQ(view.data, nullptr);
  EXPECT_EQ(view.GetChannels(), 5);
}
}  // namespace
