// flowblur: the 1-channel Float resize gives the same bytes on the wide and plain loops.
#include <gtest/gtest.h>

#include <vector>

#include "filter/PLResize.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

// Reductions and enlargements whose widths leave every count of lanes after the last whole
// group of eight, on every row layout; a 3-channel image and unequal white points take the
// plain loops on either path and must agree too.
TEST(ResizeFastPath, SameOnBothLoopsAndAllWorkerCounts) {
  const int32_t sizes[][4] = {{19, 11, 9, 5},  {33, 17, 16, 8}, {1921, 9, 960, 4},
                              {10, 6, 23, 13}, {5, 5, 17, 3},   {64, 3, 31, 2}};
  int32_t trial = 0;
  for (const auto& sz : sizes)
    for (Layout layout : kLayouts)
      for (int32_t variant = 0; variant < 3; ++variant, ++trial) {
        const int32_t channels = variant == 1 ? 3 : 1;
        const int32_t srcType = variant == 2 ? PLUChar : PLFloat;
        TestImage src = MakeImage(sz[0], sz[1], channels, srcType, layout);
        FillRandom(src.get(), 7 + trial);
        auto run = [&](bool wide) {
          TestImage dst = MakeImage(sz[2], sz[3], channels, PLFloat, layout);
          PLResizeBilinearOnPath(wide, dst.get(), src.get());
          EXPECT_TRUE(PaddingUntouched(dst));
          return PixelBytes(dst.get());
        };
        EXPECT_TRUE(run(false) == run(true))
            << sz[0] << "x" << sz[1] << " to " << sz[2] << "x" << sz[3] << " "
            << LayoutName(layout) << " variant " << variant;
        if (layout == kPlain && variant == 0) ExpectSameForAllWorkers([&] { return run(true); });
      }
}
