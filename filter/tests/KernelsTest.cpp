// flowblur tests: the named blurs: weights seen through impulse responses, modes, refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "filter/PLKernels.h"
#include "filter/PLSeparable.h"
#include "filter/tests/FilterTestSupport.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;
using filtertest::GaussKernel;

namespace {

// A single 1.0 in the middle of a zero Float image: each pass leaves the kernel's taps in its
// middle run, one product each, so the weights are read back exactly.
TestImage Impulse(int32_t size = 41) {
  TestImage im = MakeImage(size, size, 1, PLFloat);
  Fill(im.get(), 0.0);
  Set(im.get(), size / 2, size / 2, 0, 1.0);
  return im;
}

// The whole kernel from its half-weights.
std::vector<float> Full(const SeparableKernel& k) {
  std::vector<float> w(2 * k.count - 1);
  for (int32_t i = 0; i < k.count; ++i) w[k.count - 1 - i] = w[k.count - 1 + i] = k.weights[i];
  return w;
}

// The impulse's response is row[i] * column[j] at (c + rowFirst + i, c + columnFirst + j) and
// 0 for two samples around that; {1.0f} at 0 stands for no pass.
void ExpectResponse(const PLImage* im, const std::vector<float>& row, int32_t rowFirst,
                    const std::vector<float>& column, int32_t columnFirst) {
  const int32_t c = im->width / 2;
  const int32_t n = static_cast<int32_t>(row.size()), m = static_cast<int32_t>(column.size());
  for (int32_t j = -2; j < m + 2; ++j)
    for (int32_t i = -2; i < n + 2; ++i) {
      const bool tap = i >= 0 && i < n && j >= 0 && j < m;
      EXPECT_EQ(Get(im, c + rowFirst + i, c + columnFirst + j, 0), tap ? row[i] * column[j] : 0.0f)
          << "at " << rowFirst + i << "," << columnFirst + j;
    }
}

// Radius 1 has two half-weights, 1 and 2^-9; a fractional radius truncates the count but
// keeps the shape, so the last tap of 2.9 is well above 2^-9 of the centre.
TEST(GaussBlur, ImpulseResponseHasTheNormalisedHalfWeights) {
  for (float radius : {1.0f, 2.9f}) {
    TestImage im = Impulse();
    PLGaussBlur(im.get(), 2, radius);  // rows only
    const SeparableKernel k = GaussKernel(radius);
    ExpectResponse(im.get(), Full(k), 1 - k.count, {1.0f}, 0);
  }
  const SeparableKernel one = GaussKernel(1.0f), frac = GaussKernel(2.9f);
  ASSERT_EQ(one.count, 2);
  ASSERT_EQ(frac.count, 3);
  // d = (1/3)^2 in float is a hair off 1/9, so the exponent is -8.999999, not -9 exactly.
  const float kExponentRounding = 1e-5f;
  EXPECT_NEAR(one.weights[1] / one.weights[0] * 512.0f, 1.0f, kExponentRounding);
  EXPECT_GT(frac.weights[2] / frac.weights[0], 0.01f);
}

TEST(GaussBlur, TinyRadiusLeavesTheImageAsItIs) {
  for (int32_t type : {PLUChar, PLUShort, PLFloat}) {
    TestImage im = MakeImage(20, 20, 3, type);
    FillRandom(im.get(), 4);
    TestImage want = MakeImage(20, 20, 3, type);
    CopyPixels(want.get(), im.get());
    PLGaussBlur(im.get(), 0, 0.001f);  // count 1, a single weight 1.0
    EXPECT_TRUE(SamePixels(im.get(), want.get()));
    PLGaussBlur(im.get(), 0, 0.0009f);  // below the threshold: nothing
    PLGaussBlur(im.get(), 0, -3.0f);
    EXPECT_TRUE(SamePixels(im.get(), want.get()));
  }
}

// Caller's modes: 2 rows, 3 columns, anything else both.
TEST(GaussBlur, ModeMapping) {
  TestImage input = MakeImage(30, 26, 2, PLUShort);
  FillRandom(input.get(), 5);
  auto blurred = [&](bool engine, uint32_t mode) {
    TestImage t = MakeImage(30, 26, 2, PLUShort);
    CopyPixels(t.get(), input.get());
    NuvImageInternal w(t.get());
    NuvImage v;
    v.Attach(&w);
    if (engine)
      GaussBlurView(&v, mode, 4.0f);
    else
      PLGaussBlur(t.get(), mode, 4.0f);
    return PixelBytes(t.get());
  };
  const uint32_t modes[][2] = {{0, 0}, {1, 0}, {2, 1}, {3, 2}, {4, 0}, {99, 0}};  // caller, engine
  for (const auto& m : modes)
    EXPECT_TRUE(blurred(false, m[0]) == blurred(true, m[1])) << "caller's mode " << m[0];
}

TEST(BoxBlur, WholeAndFractionalRadiusWeights) {
  TestImage whole = Impulse();
  PLBoxBlur(whole.get(), 2, 3.0f);  // rows only: seven equal weights
  ExpectResponse(whole.get(), std::vector<float>(7, 1.0f / 7.0f), -3, {1.0f}, 0);
  // Columns only: seven weights 0.5 1 1 1 1 1 0.5 over 7, centred one sample toward the start.
  TestImage im = Impulse();
  PLBoxBlur(im.get(), 3, 2.5f);
  const float a = 0.5f / 7.0f, b = 1.0f / 7.0f;
  ExpectResponse(im.get(), {1.0f}, 0, {a, b, b, b, b, b, a}, -4);
  // Box mode 1 does nothing (the Gaussian's mode 1 filters both ways).
  TestImage untouched = Impulse();
  PLBoxBlur(untouched.get(), 1, 3.0f);
  EXPECT_TRUE(SamePixels(untouched.get(), Impulse().get()));
}

// Through the engine the response is 2D: the products of the normalised quarter-turn cosine
// weights, the last of which is a hair below zero.
TEST(CosineBlur, QuarterTurnConstantLeavesATinyNegativeLastWeight) {
  TestImage im = Impulse();
  PLCosineBlur(im.get(), 2.0f);
  std::vector<float> half(3);
  for (int32_t i = 0; i < 3; ++i)
    half[i] = static_cast<float>(std::cos(static_cast<double>(i) * 1.570796826795 / 2.0));
  const SeparableKernel kernel = filtertest::Normalised(half);
  EXPECT_LT(kernel.weights[2], 0.0f);
  EXPECT_GT(kernel.weights[2], -1e-6f);
  ExpectResponse(im.get(), Full(kernel), -2, Full(kernel), -2);
  EXPECT_LT(Get(im.get(), 22, 20, 0), 0.0);
}

TEST(Binomial, FiveAndThreeTapResponses) {
  const std::vector<float> five = {0.0625f, 0.25f, 0.375f, 0.25f, 0.0625f};
  const std::vector<float> three = {0.25f, 0.5f, 0.25f};
  TestImage a = Impulse(), b = Impulse();
  PLBinomial5Blur(a.get());
  PLBinomial121Blur(b.get());
  ExpectResponse(a.get(), five, -2, five, -2);
  ExpectResponse(b.get(), three, -1, three, -1);
}

// Blurring from another image is blurring a copy of it in place, whether or not the two
// share a row layout; the source stays as it was, and a size mismatch is refused.
TEST(Binomial, FromAnotherImageIsTheBlurOfACopy) {
  TestImage source = MakeImage(37, 29, 3, PLUShort, kPadded);
  FillRandom(source.get(), 5);
  TestImage want = MakeImage(37, 29, 3, PLUShort);
  CopyPixels(want.get(), source.get());
  PLBinomial5Blur(want.get());
  const std::vector<unsigned char> before = PixelBytes(source.get());
  for (Layout layout : {kPadded, kFlipped}) {  // the same layout as the source, then another
    TestImage got = MakeImage(37, 29, 3, PLUShort, layout);
    PLBinomial5BlurFrom(got.get(), source.get());
    EXPECT_TRUE(SamePixels(got.get(), want.get())) << LayoutName(layout);
  }
  EXPECT_TRUE(PixelBytes(source.get()) == before);
  TestImage smaller = MakeImage(36, 29, 3, PLUShort);
  EXPECT_THROW(PLBinomial5BlurFrom(smaller.get(), source.get()), PLErr);
}

// Radii beyond the kernel record are refused with the image untouched; the largest one
// that fits runs.
TEST(Blurs, RefusesRadiiPastTheKernelRecord) {
  TestImage im = MakeImage(12, 12, 3, PLFloat);
  FillRandom(im.get(), 7);
  TestImage want = MakeImage(12, 12, 3, PLFloat);
  CopyPixels(want.get(), im.get());
  for (float r : {4096.0f, 5000.0f, INFINITY, NAN}) {
    EXPECT_THROW(PLGaussBlur(im.get(), 0, r), PLErr) << r;
    EXPECT_THROW(PLCosineBlur(im.get(), r), PLErr) << r;
  }
  EXPECT_THROW(PLBoxBlur(im.get(), 0, NAN), PLErr);
  EXPECT_THROW(PLBoxBlur(im.get(), 0, 1e9f), PLErr);
  EXPECT_TRUE(SamePixels(im.get(), want.get()));
  try {
    PLGaussBlur(im.get(), 0, 4096.0f);
  } catch (PLErr& e) {
    EXPECT_EQ(e, PLErrParameter);
  }
  PLGaussBlur(im.get(), 0, 4095.5f);  // count 4096: every output is a border output
  EXPECT_FALSE(SamePixels(im.get(), want.get()));
  // A radius that fits the record but whose columns would not fit the engine's line buffer
  // (9000 + 2 * 4001 > 16384): the engine's refusal comes out as a throw.
  TestImage tall = MakeImage(2, 9000, 1, PLUChar);
  EXPECT_THROW(PLGaussBlur(tall.get(), 0, 4000.0f), PLErr);
}

}  // namespace
