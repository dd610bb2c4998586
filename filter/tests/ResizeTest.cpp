// flowblur tests: bilinear resize on both row loops against a literal reference, grid
// alignment, white points, refusals, workers.
#include <gtest/gtest.h>

#include "filter/PLResize.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestWorkers.h"

using namespace pltest;

namespace {

void RefResize(PLImage* d, const PLImage* s) {
  const float sx = (static_cast<float>(s->width) - 1.0f) / static_cast<float>(d->width - 1);
  const float sy = (static_cast<float>(s->height) - 1.0f) / static_cast<float>(d->height - 1);
  const float ratio = d->whitePoint / s->whitePoint;
  for (int32_t y = 0; y < d->height; ++y) {
    const float fy = static_cast<float>(y) * sy;
    for (int32_t x = 0; x < d->width; ++x) {
      const float fx = static_cast<float>(x) * sx;
      for (int32_t c = 0; c < d->channels; ++c) {
        float v = Bilinear(s, fx, fy, c);
        if (d->whitePoint != s->whitePoint) v = v * ratio;
        Set(d, x, y, c, WrappedStore(d->dataType, v));
      }
    }
  }
}

class ResizeReference : public ::testing::TestWithParam<std::tuple<int32_t, int32_t>> {};

// All 36 type-and-channel combinations (per parameter: one destination type, one source
// type, four channel counts), in both white-point forms, on both row loops: the wide one
// serves 1-channel Float to Float at equal white points, every other case takes the plain
// loops on either path. Destination widths leave every count of lanes after the last whole
// group of eight.
TEST_P(ResizeReference, BothLoopsMatchLiteralReference) {
  const int32_t dt = std::get<0>(GetParam());
  const int32_t st = std::get<1>(GetParam());
  const int32_t sizes[][4] = {{17, 13, 9, 7},   {5, 4, 12, 9},    {2, 2, 3, 5},
                              {40, 3, 7, 2},    {13, 11, 13, 11}, {33, 17, 16, 8},
                              {10, 6, 22, 13},  {1921, 9, 10, 4}};
  uint32_t seed = 1;
  for (auto& z : sizes)
    for (int32_t channels = 1; channels <= 4; ++channels)
      for (int32_t odd = 0; odd < 2; ++odd) {
        TestImage src = MakeImage(z[0], z[1], channels, st, odd, 4 * odd);
        FillRandom(src.get(), seed++);
        TestImage want = MakeImage(z[2], z[3], channels, dt);
        // The second form: equal types get a white point of their own (scaled), unequal types
        // the source's (not scaled).
        if (odd) want->whitePoint = (dt == st ? 2.0f : 1.0f) * src->whitePoint;
        RefResize(want.get(), src.get());
        for (bool wide : {false, true}) {
          TestImage got = MakeImage(z[2], z[3], channels, dt, 1 - odd, 2);
          got->whitePoint = want->whitePoint;
          PLResizeBilinearOnPath(wide, got.get(), src.get());
          ASSERT_TRUE(SamePixels(got.get(), want.get()))
              << z[0] << "x" << z[1] << " -> " << z[2] << "x" << z[3] << " channels " << channels
              << " form " << odd << " wide " << wide;
          ASSERT_TRUE(PaddingUntouched(got));
        }
      }
}

INSTANTIATE_TEST_SUITE_P(TypePairs, ResizeReference,
                         ::testing::Combine(::testing::Values(PLUChar, PLUShort, PLFloat),
                                            ::testing::Values(PLUChar, PLUShort, PLFloat)));

// Outside the grid's domain: refused with PLErr 5, nothing written.
TEST(Resize, RefusesDegenerateSizesAndChannelMismatch) {
  auto expectRefused = [](int32_t sw, int32_t sh, int32_t sc, int32_t dw, int32_t dh, int32_t dc) {
    TestImage src = MakeImage(sw, sh, sc, PLUChar);
    FillRandom(src.get(), 6);
    TestImage dst = MakeImage(dw, dh, dc, PLUChar);
    Fill(dst.get(), 9);
    const std::vector<unsigned char> before = PixelBytes(dst.get());
    try {
      PLResizeBilinear(dst.get(), src.get());
      ADD_FAILURE() << "not refused: " << sw << "x" << sh << " -> " << dw << "x" << dh;
    } catch (PLErr& e) {
      EXPECT_EQ(e, PLErrParameter);
    }
    EXPECT_TRUE(PixelBytes(dst.get()) == before);
  };
  expectRefused(8, 8, 3, 4, 4, 1);  // channels differ
  expectRefused(8, 8, 3, 1, 4, 3);  // destination width 1
  expectRefused(8, 8, 3, 4, 1, 3);  // destination height 1
  expectRefused(1, 8, 3, 4, 4, 3);  // source width 1
  expectRefused(8, 1, 3, 4, 4, 3);  // source height 1
  expectRefused(1, 1, 1, 1, 1, 1);
  TestImage src = MakeImage(8, 8, 3, PLUChar);
  TestImage empty = MakeImage(0, 5, 3, PLUChar);
  EXPECT_NO_THROW(PLResizeBilinear(empty.get(), src.get()));
}

TEST(Resize, UnsupportedLayoutsDoNothing) {
  TestImage src = MakeImage(6, 6, 5, PLUChar);
  FillRandom(src.get(), 8);
  TestImage dst = MakeImage(3, 1, 5, PLUChar);  // size 1 too: the layout is checked first
  Fill(dst.get(), 7);
  EXPECT_NO_THROW(PLResizeBilinear(dst.get(), src.get()));
  EXPECT_EQ(Get(dst.get(), 2, 0, 4), 7);
  TestImage dbl = MakeImage(6, 6, 1, PLDouble);
  TestImage one = MakeImage(3, 3, 1, PLUChar);
  Fill(one.get(), 7);
  EXPECT_NO_THROW(PLResizeBilinear(one.get(), dbl.get()));
  EXPECT_EQ(Get(one.get(), 1, 1, 0), 7);
}

// 1, 2, 3 and 8 workers give the reference's bytes on both loops (the 1-channel Float pair
// takes the wide one where AVX2 runs).
TEST(Resize, SameBytesForAnyWorkerCountOnBothLoops) {
  WorkerGuard guard;
  for (int32_t channels : {3, 1}) {
    const int32_t type = channels == 3 ? PLUChar : PLFloat;
    TestImage src = MakeImage(333, 257, channels, type, 1, channels == 3 ? 1 : 4);
    FillRandom(src.get(), 7);
    TestImage want = MakeImage(200, 150, channels, PLFloat);
    RefResize(want.get(), src.get());
    for (bool wide : {false, true})
      for (int32_t workers : kPLTestWorkerCounts) {
        PLTestUseWorkers(workers);
        TestImage got = MakeImage(200, 150, channels, PLFloat, 1, 8);
        PLResizeBilinearOnPath(wide, got.get(), src.get());
        EXPECT_TRUE(SamePixels(got.get(), want.get()))
            << channels << " channels, workers " << workers << " wide " << wide;
      }
  }
}

}  // namespace
