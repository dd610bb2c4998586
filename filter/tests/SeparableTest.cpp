// flowblur tests: the separable engine against a slow literal reference, borders and refusals.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include "filter/PLSeparable.h"
#include "filter/PLWidePath.h"
#include "filter/tests/FilterTestSupport.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestWorkers.h"

using namespace pltest;
using filtertest::Filter;
using filtertest::GaussKernel;
using filtertest::Path;

namespace {

// ---- Slow reference: one sample at a time, exactly the written rule ----

using Lanes = std::array<float, 4>;

Lanes Markers(int32_t dataType, int32_t channels) {
  if (channels == 4 && dataType == PLFloat) return {-3.0f, -1415.0f, -9265.0f, -1.0f};
  return {-1.0f, -1.0f, -1.0f, -1.0f};
}

// Filters one line of n pixels in place.
void RefLine(std::vector<Lanes>& line, int32_t dataType, int32_t channels,
             const SeparableKernel& k) {
  const int32_t n = static_cast<int32_t>(line.size());
  const int32_t c = k.count;
  const float* w = k.weights;
  Lanes margin = channels == 1 ? Lanes{0, 0, 0, 0} : Markers(dataType, channels);
  std::vector<Lanes> p(c, margin);
  p.insert(p.end(), line.begin(), line.end());
  p.insert(p.end(), c, margin);
  auto at = [&](int32_t i) -> const Lanes& { return p[i + c]; };
  const int32_t head = std::min(c, n);
  const int32_t middle = std::max(0, n - 2 * c);
  for (int32_t i = 0; i < n; ++i) {
    for (int32_t l = 0; l < channels; ++l) {
      float value;
      if (i >= head && i < head + middle) {
        value = w[0] * at(i)[l];
        for (int32_t q = c - 1; q >= 1; --q) value = w[q] * (at(i + q)[l] + at(i - q)[l]) + value;
      } else {
        float sum = at(i)[l] * w[0];
        float norm = w[0];
        for (int32_t q = c - 1; q >= 1; --q) {
          float wr, wl;
          if (channels == 1) {
            wr = (i + q <= n - 1) ? w[q] : 0.0f;
            wl = (i - q >= 0) ? w[q] : 0.0f;
          } else {
            wr = at(i + q)[l] == margin[l] ? 0.0f : w[q];
            wl = at(i - q)[l] == margin[l] ? 0.0f : w[q];
          }
          norm = norm + wr + wl;
          sum = sum + at(i + q)[l] * wr + at(i - q)[l] * wl;
        }
        value = sum / norm;
      }
      line[i][l] = ClampedStore(dataType, value);
    }
  }
}

// The whole engine on an image, rows then columns in memory order (the engine does not care
// which way rows run, and neither may the reference).
void RefConvolve(const PLImage* image, const SeparableKernel& k, uint32_t mode) {
  PLImage memory(image->data, image->width, image->height, image->rowBytes, image->channels,
                 image->dataType, 0);
  const int32_t C = image->channels;
  for (bool columns : {false, true}) {
    if (columns ? mode != 0 && mode != 2 : mode >= 2) continue;
    const int32_t lines = columns ? memory.width : memory.height;
    const int32_t n = columns ? memory.height : memory.width;
    for (int32_t j = 0; j < lines; ++j) {
      auto x = [&](int32_t i) { return columns ? j : i; };
      auto y = [&](int32_t i) { return columns ? i : j; };
      std::vector<Lanes> line(n, Lanes{0, 0, 0, 0});
      for (int32_t i = 0; i < n; ++i)
        for (int32_t l = 0; l < C; ++l)
          line[i][l] = static_cast<float>(Get(&memory, x(i), y(i), l));
      RefLine(line, memory.dataType, C, k);
      for (int32_t i = 0; i < n; ++i)
        for (int32_t l = 0; l < C; ++l) Set(&memory, x(i), y(i), l, line[i][l]);
    }
  }
}

// Float images get exact -1.0 and marker values at and near the ends of lines, where the
// outside test can mistake them for missing samples.
void PlantMarkers(PLImage* im) {
  if (im->dataType != PLFloat) return;
  for (int32_t y = 0; y < im->height; ++y) {
    if (y % 2 == 0) Set(im, im->width - 1, y, 0, -1.0);
    if (im->width > 1 && y % 3 == 0) Set(im, 1, y, im->channels > 1 ? 1 : 0, -1415.0);
    if (im->channels > 2 && y % 4 == 1) Set(im, 0, y, 2, -9265.0);
    if (im->channels > 3 && y % 5 == 2) Set(im, im->width - 2 < 0 ? 0 : im->width - 2, y, 3, -1.0);
  }
  for (int32_t x = 0; x < im->width; x += 3) Set(im, x, im->height - 1, 0, -1.0);
}

SeparableKernel Binomial() {
  SeparableKernel k;
  k.count = 3;
  k.weights[0] = 0.375f;
  k.weights[1] = 0.25f;
  k.weights[2] = 0.0625f;
  return k;
}

// The row loops to check: the plain ones, and the wide ones where the processor has AVX2.
std::vector<Path> Paths() {
  if (PLWideAvailable()) return {Path::kPlain, Path::kWide};
  return {Path::kPlain};
}

// Filters a random image (with markers planted) of the given layout in place on each row loop
// (with 1, 2, 3 and 8 workers where both sides have 128 lines or more) and compares it with
// the reference, padding included.
::testing::AssertionResult MatchesReference(int32_t w, int32_t h, int32_t channels,
                                            int32_t type, const SeparableKernel& k,
                                            uint32_t mode, int32_t flipped, int32_t pad,
                                            uint32_t seed) {
  TestImage input = MakeImage(w, h, channels, type, flipped, pad);
  FillRandom(input.get(), seed);
  PlantMarkers(input.get());
  TestImage want = MakeImage(w, h, channels, type, flipped, pad);
  CopyPixels(want.get(), input.get());
  RefConvolve(want.get(), k, mode);
  WorkerGuard guard;
  for (Path path : Paths())
    for (int32_t workers : kPLTestWorkerCounts) {
      if (workers > 1 && (w < 128 || h < 128)) break;  // workers take 16 lines or more
      TestImage got = MakeImage(w, h, channels, type, flipped, pad);
      CopyPixels(got.get(), input.get());
      PLTestUseWorkers(workers);
      if (Filter(got.get(), got.get(), k, mode, path) != 0)
        return ::testing::AssertionFailure() << "refused";
      ::testing::AssertionResult same = SamePixels(got.get(), want.get());
      if (same && !PaddingUntouched(got)) same = ::testing::AssertionFailure() << "padding written";
      if (!same)
        return same << " (" << w << "x" << h << " count " << k.count << " mode " << mode
                    << " flipped " << flipped << " wide " << (path == Path::kWide) << " workers "
                    << workers << ")";
    }
  return ::testing::AssertionSuccess();
}

class SeparableReference : public ::testing::TestWithParam<std::tuple<int32_t, int32_t>> {};

// Lines shorter than the count, between count and twice it, exactly twice it and long ones;
// columns are filtered in strips of neighbouring pixels (64 floats a row at most), so widths
// around and past a strip and a last strip narrower than the others; 211 x 140 gives each of
// 8 workers the 16 lines or more it takes.
TEST_P(SeparableReference, MatchesSlowReferenceBitForBit) {
  const auto [type, channels] = GetParam();
  const int32_t shapes[][2] = {{40, 33}, {5, 3},  {9, 12},  {14, 15},  {1, 1},
                               {17, 2},  {3, 29}, {70, 9},  {133, 14}, {65, 33},
                               {97, 1},  {64, 40}, {22, 17}, {211, 140}};
  SeparableKernel empty;  // count 0 is legal: the middle multiplies by a zero centre
  const SeparableKernel kernels[] = {GaussKernel(6.5f), GaussKernel(1.0f), GaussKernel(0.5f),
                                     empty, Binomial()};
  uint32_t seed = 1;
  for (int32_t i = 0; i < 14; ++i)
    for (int32_t j = 0; j < 5; ++j)
      for (uint32_t mode : {0u, 1u, 2u, 3u})
        for (int32_t flipped : {0, 1}) {
          const auto& s = shapes[i];
          const SeparableKernel& k = kernels[j];
          // The line shapes take the Gaussians, the strip shapes (from the eighth on) the
          // widest Gaussian and the binomial, in passes with columns only.
          if (i < 7 ? j == 4 : (j != 0 && j != 4) || mode % 2 == 1) continue;
          if (i == 13 && (j != 0 || mode != 0)) continue;  // the workers' shape: both passes
          ASSERT_TRUE(MatchesReference(s[0], s[1], channels, type, k, mode, flipped,
                                       flipped ? 6 : 2, seed++));
        }
  // The integer stores convert four samples at once: values past the type's range clamp,
  // and values past 32 bits truncate to 0x80000000 and so store 0, as one at a time.
  const float weightSets[][2] = {{1e10f, 0.0f}, {300.0f, -40.0f}, {-3.0f, 0.5f}, {70000.0f, 0.0f}};
  for (const auto& weights : weightSets)
    for (uint32_t mode : {0u, 1u, 2u}) {
      if (type == PLFloat) continue;
      SeparableKernel k;
      k.count = 2;
      k.weights[0] = weights[0];
      k.weights[1] = weights[1];
      ASSERT_TRUE(MatchesReference(37, 19, channels, type, k, mode, 0, 3, seed++));
    }
}

// Tall images narrow the strip so that the whole height fits the stack buffer: to whole
// groups of 32 floats while one fits (1100 rows: several strips, the last one part-filled),
// down to one vector of floats a row (a single pixel for 3 and 4 channels) at the longest
// legal column; a row at the longest legal length works too.
TEST_P(SeparableReference, LongestLinesAndTallColumnsNarrowTheStrip) {
  const auto [type, channels] = GetParam();
  const int32_t limit = kSeparableLineMax - 2 * 8;  // for count 8
  uint32_t seed = 200;
  for (int32_t height : {1100, 5000, limit}) {
    const int32_t width = height == 1100 ? 41 : 9;
    ASSERT_TRUE(
        MatchesReference(width, height, channels, type, GaussKernel(7.0f), 0, 1, 4, seed++));
  }
  ASSERT_TRUE(MatchesReference(limit, 2, channels, type, GaussKernel(7.0f), 1, 0, 0, seed));
}

INSTANTIATE_TEST_SUITE_P(AllMembers, SeparableReference,
                         ::testing::Combine(::testing::Values(PLUChar, PLUShort, PLFloat),
                                            ::testing::Values(1, 2, 3, 4)));

// Columns only never read the source; rows (and then columns) go from the source into the
// destination.
TEST(Separable, SourceAndDestinationApart) {
  for (Path path : Paths())
    for (uint32_t mode : {2u, 0u}) {
      TestImage source = MakeImage(25, 30, 3, PLUShort), dest = MakeImage(25, 30, 3, PLUShort);
      TestImage want = MakeImage(25, 30, 3, PLUShort);
      FillRandom(source.get(), 5);
      FillRandom(dest.get(), 6);
      CopyPixels(want.get(), mode == 2 ? dest.get() : source.get());
      SeparableKernel k = GaussKernel(4.0f);
      ASSERT_EQ(Filter(source.get(), dest.get(), k, mode, path), 0);
      RefConvolve(want.get(), k, mode);
      EXPECT_TRUE(SamePixels(dest.get(), want.get())) << "mode " << mode;
    }
}

TEST(Separable, UnsupportedLayoutsDoNothing) {
  TestImage im = MakeImage(10, 10, 3, PLUChar);
  FillRandom(im.get(), 9);
  TestImage want = MakeImage(10, 10, 3, PLUChar);
  CopyPixels(want.get(), im.get());
  NuvImageInternal w(im.get());
  NuvImage v;
  v.Attach(&w);
  SeparableKernel k = GaussKernel(2.0f);
  v.pixelType = 4;
  EXPECT_EQ(ConvolveSeparable(&v, &v, &k, 0), 0);
  v.pixelType = 0;
  EXPECT_EQ(ConvolveSeparable(&v, &v, &k, 7), 0);  // no pass for other modes
  EXPECT_TRUE(SamePixels(im.get(), want.get()));
}

// Lines longer than the stack line buffer, and counts beyond the record, are refused with
// nothing written (a line exactly at the limit works: see the reference body).
TEST(Separable, RefusesLinesPastTheBuffer) {
  SeparableKernel k = GaussKernel(7.0f);  // count 8
  const int32_t limit = kSeparableLineMax - 2 * 8;
  TestImage wide = MakeImage(limit + 1, 2, 3, PLFloat);
  FillRandom(wide.get(), 10);
  const std::vector<unsigned char> before = PixelBytes(wide.get());
  EXPECT_EQ(Filter(wide.get(), wide.get(), k, 1), PLErrParameter);
  EXPECT_EQ(Filter(wide.get(), wide.get(), k, 0), PLErrParameter);
  EXPECT_TRUE(PixelBytes(wide.get()) == before);
  // Columns only: the long rows are not filtered, and the short columns fit.
  EXPECT_EQ(Filter(wide.get(), wide.get(), k, 2), 0);
  TestImage tall = MakeImage(2, limit + 1, 1, PLUChar);
  EXPECT_EQ(Filter(tall.get(), tall.get(), k, 2), PLErrParameter);
  EXPECT_EQ(Filter(tall.get(), tall.get(), k, 1), 0);
  TestImage small = MakeImage(4, 4, 1, PLFloat);
  SeparableKernel big;
  big.count = kSeparableKernelMax + 1;
  EXPECT_EQ(Filter(small.get(), small.get(), big, 0), PLErrParameter);
  big.count = -1;
  EXPECT_EQ(Filter(small.get(), small.get(), big, 0), PLErrParameter);
}

// NaN samples keep their bits through the filter. Where two NaNs meet in one addition the
// output carries one of them, and which one is part of the engine's output: the accumulated
// sum first at the ends (so the right tap's, added first), the left tap's in the middle run,
// except in the last zero to three outputs of a 1-channel middle run (the right tap's); on
// both row loops.
TEST(Separable, NaNSamplesKeepTheirBits) {
  const uint32_t right = 0x7fc00001u;  // quiet NaNs with different signs and payloads
  const uint32_t left = 0xffc00002u;
  const SeparableKernel k = Binomial();
  for (Path path : Paths())
    for (int32_t channels = 1; channels <= 4; ++channels)
      for (int32_t n : {19, 40})
        for (bool columns : {false, true})
          for (int32_t i = 0; i < n; ++i) {
            TestImage im = columns ? MakeImage(1, n, channels, PLFloat, 0, 4)
                                   : MakeImage(n, 1, channels, PLFloat);
            Fill(im.get(), 0.5);
            auto sample = [&](int32_t j, int32_t c) {
              return im->PixelAddress(columns ? 0 : j, columns ? j : 0) + 4 * c;
            };
            auto set = [&](int32_t j, uint32_t b) {
              for (int32_t c = 0; c < channels && j >= 0 && j < n; ++c)
                std::memcpy(sample(j, c), &b, 4);
            };
            set(i + 2, right);
            set(i - 2, left);
            Filter(im.get(), im.get(), k, columns ? 2 : 1, path);
            const int32_t middle = n - 2 * k.count;
            const bool inMiddle = i >= k.count && i < n - k.count;
            const bool rightFirst =
                inMiddle ? channels == 1 && i >= k.count + (middle & ~3) : i + 2 < n;
            for (int32_t c = 0; c < channels; ++c) {
              uint32_t bits;
              std::memcpy(&bits, sample(i, c), 4);
              ASSERT_EQ(bits, rightFirst ? right : left)
                  << "wide " << (path == Path::kWide) << " channels " << channels << " n " << n
                  << " columns " << columns << " output " << i << " lane " << c;
            }
          }
}

}  // namespace
