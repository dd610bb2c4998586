// flowblur tests: stages run in one pass give the bytes of the same stages run one after another.
#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "flow/PLFlowStages.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

namespace {

// Gradients and moments in one pass against the two stages, on lines of one sample (NaN
// gradients), small and odd sizes, every layout, and 1, 3 and 8 workers.
TEST(FusedStages, GradientsAndMomentsMatchTheSeparateStages) {
  const int32_t sizes[][2] = {{1, 5}, {6, 1}, {2, 2}, {37, 23}, {64, 70}};
  int32_t trial = 0;
  for (const auto& sz : sizes)
    for (int32_t workers : {1, 3, 8}) {
      const int32_t w = sz[0], h = sz[1];
      const Layout l = kLayouts[trial++ % 4];
      TestImage image = MakeImage(w, h, 1, PLFloat, l);
      FillRandom(image.get(), 300 + trial, 0.0f, 255.0f);
      Set(image.get(), w / 2, h / 2, 0, std::numeric_limits<float>::infinity());
      TestImage gx[2] = {MakeImage(w, h, 1, PLFloat, l), MakeImage(w, h, 1, PLFloat, l)};
      TestImage gy[2] = {MakeImage(w, h, 1, PLFloat, l), MakeImage(w, h, 1, PLFloat, l)};
      TestImage st[2] = {MakeImage(w, h, 3, PLFloat, l), MakeImage(w, h, 3, PLFloat, l)};
      PLTestUseWorkers(workers);
      ComputeGradients(gx[0].get(), gy[0].get(), image.get());
      ComputeMoments(st[0].get(), gx[0].get(), gy[0].get());
      ComputeGradientsAndMoments(gx[1].get(), gy[1].get(), st[1].get(), image.get());
      PLTestUseWorkers(1);
      EXPECT_EQ(PixelBytes(gx[0].get()), PixelBytes(gx[1].get())) << w << "x" << h;
      EXPECT_EQ(PixelBytes(gy[0].get()), PixelBytes(gy[1].get())) << w << "x" << h;
      EXPECT_EQ(PixelBytes(st[0].get()), PixelBytes(st[1].get())) << w << "x" << h;
      EXPECT_TRUE(PaddingUntouched(st[1]));
    }
}

}  // namespace
