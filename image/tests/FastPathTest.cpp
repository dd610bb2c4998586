// flowblur: filling with black takes a byte fill of each row: every pixel zero, padding kept.
#include <gtest/gtest.h>

#include <cmath>

#include "image/PLImageCopy.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

TEST(ImageFillFastPath, BlackFillsEveryPixelAndOnlyThePixels) {
  for (int32_t type : {PLUChar, PLUShort, PLFloat})
    for (int32_t channels = 1; channels <= 4; ++channels)
      for (Layout layout : kLayouts) {
        TestImage image = MakeImage(7, 5, channels, type, layout);
        FillRandom(image.get(), 3 + channels);
        FillColor(image.get(), 0.0f, 0.0f, 0.0f, 0.0f);
        for (int32_t y = 0; y < 5; ++y)
          for (int32_t x = 0; x < 7; ++x)
            for (int32_t c = 0; c < channels; ++c)
              ASSERT_EQ(Get(image.get(), x, y, c), 0.0) << type << " " << LayoutName(layout);
        EXPECT_TRUE(PaddingUntouched(image)) << type << " " << channels << LayoutName(layout);
      }
  // -0.0 is not black bytes: a Float fill keeps the sign bit, per sample.
  TestImage f = MakeImage(3, 2, 2, PLFloat);
  FillColor(f.get(), -0.0f, 0.0f, 0.0f, 0.0f);
  EXPECT_TRUE(std::signbit(Get(f.get(), 2, 1, 0)));
  EXPECT_FALSE(std::signbit(Get(f.get(), 2, 1, 1)));
}
