// flowblur tests: the full-weight convolution against a literal reference, modes and refusals.
#include <gtest/gtest.h>

#include <vector>

#include "filter/PLConvolveFull.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestWorkers.h"

using namespace pltest;

namespace {

// One line, as written: head and tail renormalise over the taps that exist, the tail
// overwriting the head, the middle takes all taps from i - half and reads zeros past the end.
std::vector<float> RefFullLine(const std::vector<float>& in, const std::vector<float>& w,
                               int32_t half) {
  const int32_t n = static_cast<int32_t>(in.size());
  const int32_t count = static_cast<int32_t>(w.size());
  std::vector<float> out(n, 0.0f);
  auto sample = [&](int32_t j) { return j < n ? in[j] : 0.0f; };
  for (int32_t i = 0; i < half && i < n; ++i) {
    float sum = 0.0f, norm = 0.0f;
    for (int32_t j = 0; j <= i + half && j < n; ++j) {
      sum = sum + w[half - i + j] * in[j];
      norm = norm + w[half - i + j];
    }
    out[i] = sum / norm;
  }
  if (n - half >= 0) {
    for (int32_t i = n - half; i < n; ++i) {
      float sum = 0.0f, norm = 0.0f;
      for (int32_t j = n - 1; j >= i - half && j >= 0; --j) {
        sum = sum + w[j - i + half] * in[j];
        norm = norm + w[j - i + half];
      }
      out[i] = sum / norm;
    }
  }
  for (int32_t i = half; i < n - half; ++i) {
    float v = 0.0f;
    for (int32_t t = 0; t < count; ++t) v = v + sample(i - half + t) * w[t];
    out[i] = v;
  }
  return out;
}

void RefConvolveFull(PLImage* im, const std::vector<float>& w, int32_t mode, float radius) {
  const int32_t half = static_cast<int32_t>(radius);
  for (int32_t c = 0; c < im->channels; ++c)
    for (bool columns : {false, true}) {
      if (columns ? mode != 0 && mode < 3 : mode != 0 && mode != 2) continue;
      const int32_t lines = columns ? im->width : im->height;
      const int32_t n = columns ? im->height : im->width;
      for (int32_t j = 0; j < lines; ++j) {
        auto x = [&](int32_t i) { return columns ? j : i; };
        auto y = [&](int32_t i) { return columns ? i : j; };
        std::vector<float> line(n);
        for (int32_t i = 0; i < n; ++i) line[i] = static_cast<float>(Get(im, x(i), y(i), c));
        const std::vector<float> out = RefFullLine(line, w, half);
        for (int32_t i = 0; i < n; ++i) Set(im, x(i), y(i), c, WrappedStore(im->dataType, out[i]));
      }
    }
}

// Box weights as the box builder makes them.
std::vector<float> Box(float radius) {
  int32_t count = static_cast<int32_t>(std::ceil(radius) * 2.0f + 1.0f);
  std::vector<float> w(count, 1.0f);
  float f = radius - static_cast<float>(static_cast<int32_t>(radius));
  if (f > 0.0f) w.front() = w.back() = f;
  for (float& v : w) v = v / static_cast<float>(count);
  return w;
}

struct FullCase {
  float radius;
  std::vector<float> weights;
};

class ConvolveFullReference : public ::testing::TestWithParam<int32_t> {};

// Every size, channel count and mode; 50 x 150, the one size that gives every worker its 16
// lines (more row workers than column ones), for 1, 2, 3 and 8 workers with one kernel.
TEST_P(ConvolveFullReference, MatchesLiteralReferenceForAnyWorkerCount) {
  const int32_t type = GetParam();
  WorkerGuard guard;
  std::vector<FullCase> cases = {{1.0f, {0.25f, 0.5f, 0.25f}},
                                 {2.0f, Box(2.0f)},
                                 {2.5f, Box(2.5f)},
                                 {0.5f, Box(0.5f)},
                                 {4.0f, {0.05f, 0.1f, 0.1f, 0.15f, 0.2f, 0.15f, 0.1f, 0.1f, 0.05f}}};
  const int32_t sizes[][2] = {{23, 19}, {3, 4}, {7, 2}, {1, 9}, {9, 1}, {6, 40}, {50, 150}};
  uint32_t seed = 100;
  for (const FullCase& fc : cases)
    for (auto& s : sizes)
      for (int32_t channels = 1; channels <= 4; ++channels)
        for (int32_t mode : {0, 1, 2, 3, 9}) {
          const bool split = s[1] == 150;
          if (split && fc.radius != 2.5f) continue;
          const int32_t flipped = seed % 2;
          TestImage input = MakeImage(s[0], s[1], channels, type);
          FillRandom(input.get(), seed++);
          TestImage want = MakeImage(s[0], s[1], channels, type);
          CopyPixels(want.get(), input.get());
          RefConvolveFull(want.get(), fc.weights, mode, fc.radius);
          for (int32_t workers : kPLTestWorkerCounts) {
            if (workers > 1 && !split) break;
            TestImage got = MakeImage(s[0], s[1], channels, type, flipped, 3 * flipped);
            CopyPixels(got.get(), input.get());
            PLTestUseWorkers(workers);
            PLConvolveFull(got.get(), static_cast<int32_t>(fc.weights.size()), fc.weights.data(),
                           mode, fc.radius);
            ASSERT_TRUE(SamePixels(got.get(), want.get()))
                << "radius " << fc.radius << " " << s[0] << "x" << s[1] << " channels "
                << channels << " mode " << mode << " workers " << workers;
            ASSERT_TRUE(PaddingUntouched(got));
          }
        }
}

INSTANTIATE_TEST_SUITE_P(Types, ConvolveFullReference,
                         ::testing::Values(PLUChar, PLUShort, PLFloat));

TEST(ConvolveFull, RefusesWeightsThatDoNotFitTheRadius) {
  TestImage im = MakeImage(10, 10, 1, PLUChar);
  FillRandom(im.get(), 3);
  TestImage want = MakeImage(10, 10, 1, PLUChar);
  CopyPixels(want.get(), im.get());
  const float w[3] = {0.25f, 0.5f, 0.25f};
  EXPECT_THROW(PLConvolveFull(im.get(), 3, w, 0, 2.0f), PLErr);  // head would read w[4]
  EXPECT_THROW(PLConvolveFull(im.get(), 0, w, 0, 1.0f), PLErr);
  EXPECT_THROW(PLConvolveFull(im.get(), 3, nullptr, 0, 1.0f), PLErr);
  EXPECT_THROW(PLConvolveFull(im.get(), 3, w, 0, 1e30f), PLErr);
  EXPECT_TRUE(SamePixels(im.get(), want.get()));
  // Below 0.001 nothing at all happens, not even the checks.
  PLConvolveFull(im.get(), 0, nullptr, 0, 0.0005f);
  EXPECT_TRUE(SamePixels(im.get(), want.get()));
  try {
    PLConvolveFull(im.get(), 3, w, 0, 2.0f);
  } catch (PLErr& e) {
    EXPECT_EQ(e, PLErrParameter);
  }
}

}  // namespace
