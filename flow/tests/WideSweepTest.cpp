// flowblur tests: the propagation sweeps' eight-lane loops against the plain loops, byte for byte.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "runtime/PLWidePath.h"
#include "flow/PLFlowPrivate.h"
#include "flow/PLFlowSweep.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestWorkers.h"

using namespace pltest;

namespace {

// A second image that is the first shifted by one column, so that some candidates win, and
// flows mixing that shift, runs of equal vectors, random vectors, targets exactly on the
// second-to-last column and row (the sliding cell), far outside, NaN and infinity.
void FillScene(PLImage* first, PLImage* second, PLImage* flow, std::mt19937& rng) {
  const int32_t w = first->width, h = first->height;
  FillRandom(first, rng(), 0.0f, 255.0f);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x)
      Set(second, x, y, 0, x > 0 ? Get(first, x - 1, y, 0) : 9.0f);
  std::uniform_real_distribution<float> pick(0.0f, 1.0f), near(-3.0f, 3.0f), far(-60.0f, 60.0f);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const float p = pick(rng);
      float u = near(rng), v = near(rng);
      if (p < 0.25f) u = -1.0f, v = 0.0f;
      else if (p < 0.35f) u = 0.5f, v = 0.25f;
      else if (p < 0.45f) u = far(rng), v = far(rng);
      else if (p < 0.52f) u = static_cast<float>(x - (w - 2));
      else if (p < 0.58f) v = static_cast<float>(y - (h - 2));
      else if (p < 0.60f) u = std::numeric_limits<float>::quiet_NaN();
      else if (p < 0.62f) v = -std::numeric_limits<float>::infinity();
      Set(flow, x, y, 0, u);
      Set(flow, x, y, 1, v);
    }
}

// Sizes that leave every count of rows and columns to the four-lane and one-lane tails
// (bands of 1, 2, 3 and 8 workers included), on flipped and padded layouts.
TEST(WideSweep, SameBytesAsThePlainLoops) {
  if (!PLWideAvailable()) GTEST_SKIP() << "no AVX2 here (or a plain-only build)";
  std::mt19937 rng(29);
  const int32_t sizes[][2] = {{4, 9}, {5, 12}, {11, 11}, {13, 30}, {27, 19}, {70, 41}};
  int32_t trial = 0;
  for (const auto& sz : sizes)
    for (int32_t workers : kPLTestWorkerCounts) {
      const int32_t w = sz[0], h = sz[1];
      auto layout = [&](int32_t k) { return kLayouts[(trial + k) % 4]; };
      ++trial;
      TestImage first = MakeImage(w, h, 1, PLFloat, layout(0));
      TestImage second = MakeImage(w, h, 1, PLFloat, layout(1));
      TestImage start = MakeImage(w, h, 2, PLFloat, layout(2));
      FillScene(first.get(), second.get(), start.get(), rng);
      TestImage flow[2], cache[2];
      for (int32_t path = 0; path < 2; ++path) {
        flow[path] = MakeImage(w, h, 2, PLFloat, layout(path + 3));
        cache[path] = MakeImage(w, h, 2, PLFloat, layout(path));
        FillRandom(cache[path].get(), rng(), -5.0f, 5.0f);  // left over from another stage
        for (int32_t y = 0; y < h; ++y)
          for (int32_t x = 0; x < w; ++x)
            for (int32_t c = 0; c < 2; ++c)
              Set(flow[path].get(), x, y, c, Get(start.get(), x, y, c));
        PLTestUseWorkers(workers);
        plflow::PropagateSweepsOnPath(path == 1, flow[path].get(), first.get(), second.get(),
                                      cache[path].get());
      }
      PLTestUseWorkers(1);
      EXPECT_TRUE(SamePixels(flow[0].get(), flow[1].get()))
          << w << "x" << h << " workers " << workers;
      if (w > 4) {  // on the narrowest level few candidates can be evaluated at all
        EXPECT_FALSE(SamePixels(flow[0].get(), start.get()))
            << "the sweeps changed nothing at " << w << "x" << h;
      }
    }
}

// The wide luma of 8-bit RGB rows against the double formula of the plain loop, on rows of
// exactly 3 w bytes (so that a read past the row is an AddressSanitizer error).
TEST(WideLuma, SameBytesAsTheDoubleFormula) {
  if (!PLWideAvailable()) GTEST_SKIP() << "no AVX2 here (or a plain-only build)";
  std::mt19937 rng(31);
  for (int32_t w = 1; w <= 19; ++w) {
    std::vector<unsigned char> row(3 * static_cast<size_t>(w));
    for (auto& b : row) b = static_cast<unsigned char>(rng());
    row[0] = 255, row[1] = 255, row[2] = 255;
    std::vector<float> out(static_cast<size_t>(w), -1.0f);
    const int32_t done = plflow::LumaRowRGB8Wide(out.data(), row.data(), w);
    EXPECT_EQ(done, w - w % 4);
    for (int32_t x = 0; x < done; ++x) {
      const unsigned char* p = &row[3 * static_cast<size_t>(x)];
      const double sum = 0.3 * static_cast<double>(p[0]) + 0.59 * static_cast<double>(p[1]) +
                         0.11 * static_cast<double>(p[2]);
      EXPECT_EQ(out[x], static_cast<float>(sum)) << "width " << w << " pixel " << x;
    }
    for (int32_t x = done; x < w; ++x) EXPECT_EQ(out[x], -1.0f);  // left to the plain loop
  }
}

}  // namespace
