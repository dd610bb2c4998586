// flowblur tests: the separable engine's AVX2 middle run against its plain loops, byte for byte.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <tuple>

#include "filter/PLSeparable.h"
#include "filter/PLWidePath.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

namespace {

SeparableKernel RandomKernel(int32_t count, std::mt19937& rng) {
  SeparableKernel k;
  k.count = count;
  std::uniform_real_distribution<float> weight(0.05f, 1.0f);
  for (int32_t i = 0; i < count; ++i) k.weights[i] = weight(rng);
  return k;
}

// Every type and channel count, every mode, in place and not, on lines whose middle run
// ends at every phase of the wide groups, with NaN, infinities and -1.0 markers mixed in:
// the wide and the plain loops give the same bytes (NaN payloads included).
class SeparableWide : public ::testing::TestWithParam<std::tuple<int32_t, int32_t>> {};

TEST_P(SeparableWide, SameBytesAsThePlainLoops) {
  if (!PLWideAvailable()) GTEST_SKIP() << "no AVX2 here (or a plain-only build)";
  const auto [type, channels] = GetParam();
  std::mt19937 rng(400 + 10 * type + channels);
  const int32_t sizes[][2] = {{3, 70}, {37, 41}, {70, 9}, {131, 67}};
  int32_t trial = 0;
  for (const auto& sz : sizes)
    for (int32_t count : {1, 4, 8})
      for (uint32_t mode = 0; mode < 3; ++mode, ++trial) {
        const Layout layout = kLayouts[trial % 4];
        TestImage src = MakeImage(sz[0], sz[1], channels, type, layout);
        FillRandom(src.get(), rng());
        if (type == PLFloat) {
          const float specials[] = {std::numeric_limits<float>::quiet_NaN(),
                                    std::numeric_limits<float>::infinity(), -1.0f, -1415.0f};
          for (int32_t i = 0; i < 12; ++i)
            Set(src.get(), static_cast<int32_t>(rng() % sz[0]), static_cast<int32_t>(rng() % sz[1]),
                static_cast<int32_t>(rng() % channels), specials[i % 4]);
          const uint32_t payload = 0x7FC0ABCDu;
          std::memcpy(src->PixelAddress(sz[0] / 2, sz[1] / 2), &payload, 4);
        }
        const SeparableKernel k = RandomKernel(count, rng);
        TestImage plain = MakeImage(sz[0], sz[1], channels, type, layout);
        TestImage wide = MakeImage(sz[0], sz[1], channels, type, layout);
        CopyPixels(plain.get(), src.get());
        CopyPixels(wide.get(), src.get());
        const bool inPlace = trial % 2 == 0;
        for (int32_t w = 0; w < 2; ++w) {
          PLImage* out = w ? wide.get() : plain.get();
          NuvImageInternal sw(inPlace ? out : src.get()), dw(out);
          NuvImage sv, dv;
          sv.Attach(&sw);
          dv.Attach(&dw);
          ASSERT_EQ(0, ConvolveSeparableOnPath(w == 1, &sv, &dv, &k, mode));
        }
        EXPECT_EQ(PixelBytes(plain.get()), PixelBytes(wide.get()))
            << sz[0] << "x" << sz[1] << " count " << count << " mode " << mode << " "
            << LayoutName(layout) << (inPlace ? " in place" : "");
        EXPECT_TRUE(PaddingUntouched(wide));
      }
}

INSTANTIATE_TEST_SUITE_P(AllMembers, SeparableWide,
                         ::testing::Combine(::testing::Values(PLUChar, PLUShort, PLFloat),
                                            ::testing::Values(1, 2, 3, 4)));

}  // namespace
