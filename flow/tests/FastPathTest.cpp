// flowblur: the estimator stages with wide loops (luma of RGB rows, update, upsampling,
// gradients) give the same bytes as their plain rules.
#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <vector>

#include "flow/PLFlowStages.h"
#include "flow/PLOpticalFlowUChar.h"
#include "flow/tests/FlowTestSupport.h"
#include "runtime/PLWidePath.h"
#include "tests/support/PLTestImages.h"

using flowtest::At;
using namespace pltest;

namespace {

// Widths that leave every count of lanes after the last whole group of eight.
constexpr int32_t kWidths[] = {1, 7, 8, 9, 15, 16, 21, 34};

// Structure moments near the step threshold (|det| = 40 exactly, just above, NaN) among
// random ones, so that lanes of one group differ in whether they step.
void FillMoments(PLImage* s, PLImage* r, std::mt19937& rng) {
  std::uniform_real_distribution<float> any(-30.0f, 30.0f);
  for (int32_t y = 0; y < s->height; ++y)
    for (int32_t x = 0; x < s->width; ++x) {
      float a = any(rng), b = any(rng), c = any(rng);
      switch (rng() % 5) {
        case 0: a = 8.0f, b = 0.0f, c = 5.0f; break;              // det = -40: no step
        case 1: a = 1.0f, b = 7.0f, c = 9.0f; break;              // det = +40: no step
        case 2: a = std::numeric_limits<float>::quiet_NaN(); break;  // no step
        default: break;
      }
      At(s, x, y, 0) = a, At(s, x, y, 1) = b, At(s, x, y, 2) = c;
      At(r, x, y, 0) = any(rng), At(r, x, y, 1) = any(rng);
    }
}

}  // namespace

TEST(FlowFastPath, UpdateSameOnBothLoopsAndAllWorkerCounts) {
  std::mt19937 rng(19);
  for (int32_t w : kWidths) {
    auto s = flowtest::MakeFloat(w, 19, 3), r = flowtest::MakeFloat(w, 19, 2);
    FillMoments(s.get(), r.get(), rng);
    auto start = flowtest::MakeFloat(w, 19, 2);
    FillRandom(start.get(), 5 + w, -4.0f, 4.0f);
    auto run = [&](bool wide) {
      auto flow = flowtest::MakeFloat(w, 19, 2);
      CopyPixels(flow.get(), start.get());
      UpdateFlowOnPath(wide, flow.get(), s.get(), r.get());
      return PixelBytes(flow.get());
    };
    const std::vector<unsigned char> plain = run(false);
    EXPECT_FALSE(plain == PixelBytes(start.get())) << "width " << w << ": no pixel stepped";
    EXPECT_TRUE(plain == run(true)) << "width " << w;
    ExpectSameForAllWorkers([&] { return run(true); });
  }
}

TEST(FlowFastPath, UpsampleSameOnBothLoopsAndAllWorkerCounts) {
  const int32_t sources[][2] = {{2, 2}, {3, 4}, {5, 3}, {12, 7}};
  for (const auto& src : sources)
    for (int32_t w : kWidths) {
      if (w < src[0]) continue;
      auto coarse = flowtest::MakeFloat(src[0], src[1], 2);
      FillRandom(coarse.get(), 31 + w, -9.0f, 9.0f);
      auto run = [&](bool wide) {
        auto fine = flowtest::MakeFloat(w, 2 * src[1] + 1, 2);
        UpsampleFlowOnPath(wide, fine.get(), coarse.get());
        return PixelBytes(fine.get());
      };
      EXPECT_TRUE(run(false) == run(true)) << src[0] << "x" << src[1] << " to width " << w;
      ExpectSameForAllWorkers([&] { return run(true); });
    }
}

// 8-bit, 16-bit and Float RGB rows (a group of lanes where AVX2 runs, the plain loop for the
// rest) against the double formula, on widths 1 to 19 whose rows are exactly the pixels' bytes
// and end the buffer, so that a read past a row is an AddressSanitizer error.
TEST(FlowFastPath, RGBLumaOfEveryTypeAgainstTheDoubleFormula) {
  std::mt19937 rng(48);
  for (int32_t type : {PLUChar, PLUShort, PLFloat})
    for (int32_t w = 1; w <= 19; ++w) {
      const int32_t rowBytes = 3 * w * PLBytesPerSample(type);
      std::vector<unsigned char> bytes(static_cast<size_t>(rowBytes) * 5);
      PLImage rgb(bytes.data(), w, 5, rowBytes, 3, type, 1);
      FillRandom(&rgb, rng());
      if (type == PLUChar) bytes[0] = bytes[1] = bytes[2] = 255;  // the table's last cells
      PLOpticalFlowUChar flow(w, 5, 0, 0, 0, 12);
      flow.ConvertToLuma(flow.firstPyramid[0], &rgb, 0);
      for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < w; ++x) {
          const double sum = 0.3 * Get(&rgb, x, y, 0) + 0.59 * Get(&rgb, x, y, 1) +
                             0.11 * Get(&rgb, x, y, 2);
          const double scaled = type == PLUChar    ? sum
                                : type == PLUShort ? sum / 257.0
                                                   : sum * 255.0;
          ASSERT_EQ(At(flow.firstPyramid[0], x, y), static_cast<float>(scaled))
              << type << " width " << w << " x " << x;
        }
    }
}

// Gradients and moments: widths around the groups of eight (and lines of one sample, whose
// NaN gradients take the plain loop on both paths), heights with and without rows above and
// below, every row layout.
TEST(FlowFastPath, GradientsAndMomentsSameOnBothLoops) {
  uint32_t seed = 90;
  for (int32_t w : {1, 2, 9, 10, 17, 26})
    for (int32_t h : {1, 2, 5})
      for (Layout layout : kLayouts) {
        TestImage image = MakeImage(w, h, 1, PLFloat, layout);
        FillRandom(image.get(), seed++, -100.0f, 100.0f);
        auto run = [&](bool wide) {
          TestImage gx = MakeImage(w, h, 1, PLFloat, layout);
          TestImage gy = MakeImage(w, h, 1, PLFloat, layout);
          TestImage st = MakeImage(w, h, 3, PLFloat, layout);
          ComputeGradientsAndMomentsOnPath(wide, gx.get(), gy.get(), st.get(), image.get());
          std::vector<unsigned char> bytes = PixelBytes(gx.get());
          for (const TestImage* t : {&gy, &st}) {
            const std::vector<unsigned char> more = PixelBytes(t->get());
            bytes.insert(bytes.end(), more.begin(), more.end());
          }
          return bytes;
        };
        EXPECT_TRUE(run(false) == run(true)) << w << "x" << h << " " << LayoutName(layout);
      }
}
