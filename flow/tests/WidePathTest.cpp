// flowblur tests: the estimator stages' AVX2 loops against their plain loops, byte for byte.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>

#include "filter/PLWidePath.h"
#include "flow/PLFlowStages.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

namespace {

// Flows that put targets inside, on the last column and row exactly (the sliding cell),
// just outside, far outside, and at NaN and infinity.
void FillTrickyFlow(PLImage* flow, std::mt19937& rng) {
  std::uniform_real_distribution<float> pick(0.0f, 1.0f), near(-3.0f, 3.0f), far(-60.0f, 60.0f);
  for (int32_t y = 0; y < flow->height; ++y)
    for (int32_t x = 0; x < flow->width; ++x) {
      const float p = pick(rng);
      float u = near(rng), v = near(rng);
      if (p < 0.2f) u = far(rng), v = far(rng);
      else if (p < 0.25f) u = static_cast<float>(x - flow->width + 1);  // target on the last column
      else if (p < 0.3f) v = static_cast<float>(y - flow->height + 1);  // on the last row
      else if (p < 0.32f) u = std::numeric_limits<float>::quiet_NaN();
      else if (p < 0.34f) v = std::numeric_limits<float>::infinity();
      else if (p < 0.4f) u = 0.0f, v = 0.0f;
      Set(flow, x, y, 0, u);
      Set(flow, x, y, 1, v);
    }
}

// The residual on sizes that leave every count of pixels to the plain tail, with flipped and
// padded layouts, NaN in the second image, and 1, 2 and 8 workers.
TEST(WidePathResidual, SameBytesAsThePlainLoop) {
  if (!PLWideAvailable()) GTEST_SKIP() << "no AVX2 here (or a plain-only build)";
  std::mt19937 rng(17);
  const int32_t sizes[][2] = {{2, 2}, {8, 3}, {9, 5}, {23, 17}, {64, 40}, {101, 33}};
  int32_t trial = 0;
  for (const auto& sz : sizes)
    for (int32_t workers : {1, 2, 8}) {
      const int32_t w = sz[0], h = sz[1];
      auto layout = [&](int32_t k) { return kLayouts[(trial + k) % 4]; };
      TestImage first = MakeImage(w, h, 1, PLFloat, layout(0));
      TestImage second = MakeImage(w, h, 1, PLFloat, layout(1));
      TestImage gx = MakeImage(w, h, 1, PLFloat, layout(2));
      TestImage gy = MakeImage(w, h, 1, PLFloat, layout(3));
      TestImage flow = MakeImage(w, h, 2, PLFloat, layout(1));
      FillRandom(first.get(), rng(), 0.0f, 255.0f);
      FillRandom(second.get(), rng(), 0.0f, 255.0f);
      FillRandom(gx.get(), rng(), -40.0f, 40.0f);
      FillRandom(gy.get(), rng(), -40.0f, 40.0f);
      Set(second.get(), w / 2, h / 2, 0, std::numeric_limits<float>::quiet_NaN());
      FillTrickyFlow(flow.get(), rng);
      TestImage plain = MakeImage(w, h, 2, PLFloat, layout(2));
      TestImage wide = MakeImage(w, h, 2, PLFloat, layout(2));
      PLTestUseWorkers(workers);
      ComputeResidualOnPath(false, plain.get(), first.get(), second.get(), gx.get(), gy.get(),
                            flow.get(), 0, nullptr);
      ComputeResidualOnPath(true, wide.get(), first.get(), second.get(), gx.get(), gy.get(),
                            flow.get(), 0, nullptr);
      PLTestUseWorkers(1);
      EXPECT_EQ(PixelBytes(plain.get()), PixelBytes(wide.get()))
          << w << "x" << h << " workers " << workers;
      EXPECT_TRUE(PaddingUntouched(wide));
      ++trial;
    }
}

}  // namespace
