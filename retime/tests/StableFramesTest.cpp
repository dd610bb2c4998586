// The retiming engine's reuse of prepared flow pyramids between runs and renders
// (stableFrames) gives the same bits as preparing both inputs for every run, and does save
// work where frames are shared. A retimer may also show three-channel frames while it
// estimates on four (the luma of four channels is its own rule): the made R, G, B are then
// the bits of the four-channel render, for every worker count.
#include <vector>

#include "retime/tests/ChronarTestSupport.h"

using chronartest::MemoryChronar;

namespace {

constexpr int32_t kW = 96, kH = 64;

struct Case {
  const char* name;
  int64_t interpolation;
  int32_t dataType;
  std::vector<float> times;
  bool hinted = false;
  int32_t edgeFrom = -1;  // render index from which the edge blend is on (-1: never)
  int32_t warpAt = -1;    // render index at which the warp style becomes 2
};

class StableFramesTest : public ::testing::TestWithParam<Case> {};

TEST_P(StableFramesTest, SameBitsAsPreparingEveryRun) {
  const Case& k = GetParam();
  MemoryChronar plain, stable;
  stable.stableFrames = 1;
  for (MemoryChronar* clip : {&plain, &stable}) {
    chronartest::AddMovingFrames(clip, 6, kW, kH, 4, k.dataType, 2.5f, 1.25f);
    clip->interpolation = k.interpolation;
    clip->warpStyle = 1;
    if (k.hinted) clip->hintMotion[0] = 2.5f, clip->hintMotion[1] = 1.25f;
  }
  for (size_t r = 0; r < k.times.size(); ++r) {
    std::vector<unsigned char> bytes[2];
    int idx = 0;
    for (MemoryChronar* clip : {&plain, &stable}) {
      if (k.edgeFrom >= 0) clip->edgeBlend = static_cast<int32_t>(r) >= k.edgeFrom ? 1 : 0;
      if (static_cast<int32_t>(r) == k.warpAt) clip->warpStyle = 2;
      chronartest::Output out(kW, kH, 4, k.dataType);
      ASSERT_EQ(clip->RenderAtTime(&out.view, k.times[r], 4, 1, nullptr), 0) << k.times[r];
      bytes[idx++] = pltest::PixelBytes(out.get());
    }
    ASSERT_EQ(bytes[0], bytes[1]) << "render " << r << " at time " << k.times[r];
  }
  EXPECT_EQ(plain.internal->flowRuns, stable.internal->flowRuns);
  EXPECT_EQ(plain.internal->pyramidSides, 2 * plain.internal->flowRuns);
  EXPECT_LT(stable.internal->pyramidSides, plain.internal->pyramidSides);
}

// Half speed (a source frame between made ones), 24 to 60, backwards, jumps, the nearest
// frame's single flow, hints, and settings changed between renders, which must forget what
// was prepared under the old ones.
INSTANTIATE_TEST_SUITE_P(
    Renders, StableFramesTest,
    ::testing::Values(
        Case{"HalfSpeed", 1, PLUChar, {0.0f, 0.5f, 1.0f, 1.5f, 2.0f, 2.5f, 3.0f}},
        Case{"RateUp", 1, PLUShort, {0.0f, 0.4f, 0.8f, 1.2f, 1.6f, 2.0f, 2.4f, 2.8f}},
        Case{"Backwards", 2, PLFloat, {4.0f, 3.7f, 3.4f, 3.1f, 2.8f, 2.5f, 2.2f, 1.9f}},
        Case{"Jumps", 1, PLUChar, {0.5f, 3.25f, 2.5f, 1.5f, 1.75f, 4.5f, 0.25f}},
        Case{"Nearest", 0, PLUChar, {0.2f, 0.7f, 1.2f, 1.7f, 1.2f, 2.3f}},
        Case{"Hinted", 1, PLUChar, {0.5f, 1.5f, 2.5f}, true},
        Case{"EdgeBlendTurnedOn", 1, PLUChar, {0.5f, 1.5f, 2.0f, 2.5f, 3.5f}, false, 2},
        Case{"WarpChanged", 1, PLUChar, {0.5f, 1.5f, 2.5f, 3.5f}, false, -1, 2}),
    [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

// R, G, B of every pixel.
std::vector<float> Colour(const PLImage* image) {
  std::vector<float> values;
  for (int32_t y = 0; y < image->height; ++y)
    for (int32_t x = 0; x < image->width; ++x)
      for (int32_t c = 0; c < 3; ++c) values.push_back(pltest::Get(image, x, y, c));
  return values;
}

struct ShownCase {
  const char* name;
  int64_t interpolation;
  int32_t warpStyle, dataType;
};

class ThreeShownTest : public ::testing::TestWithParam<ShownCase> {};

TEST_P(ThreeShownTest, SameColourAsFourChannels) {
  const ShownCase& k = GetParam();
  const std::vector<float> times = {0.25f, 0.5f, 1.0f, 1.75f, 2.5f};
  MemoryChronar four, three;
  for (MemoryChronar* clip : {&four, &three}) {
    chronartest::AddMovingFrames(clip, 4, kW, kH, 4, k.dataType, 3.5f, -1.5f);
    clip->interpolation = k.interpolation;
    clip->warpStyle = k.warpStyle;
    clip->stableFrames = 1;
  }
  for (int32_t n = 0; n < 4; ++n)  // the four-channel frames' R, G, B
    three.shown[n] = pltest::MakeTextured(kW, kH, 3, k.dataType, 3.5f * n, -1.5f * n);
  std::vector<std::vector<float>> expected;
  for (float t : times) {
    chronartest::Output out(kW, kH, 4, k.dataType);
    ASSERT_EQ(four.RenderAtTime(&out.view, t, 4, 1, nullptr), 0) << t;
    expected.push_back(Colour(out.get()));
  }
  pltest::ExpectSameForAllWorkers([&] {
    std::vector<unsigned char> bytes;
    for (size_t r = 0; r < times.size(); ++r) {
      chronartest::Output out(kW, kH, 3, k.dataType);
      EXPECT_EQ(three.RenderAtTime(&out.view, times[r], 4, 1, nullptr), 0) << times[r];
      EXPECT_EQ(Colour(out.get()), expected[r]) << "time " << times[r];
      std::vector<unsigned char> b = pltest::PixelBytes(out.get());
      bytes.insert(bytes.end(), b.begin(), b.end());
    }
    return bytes;
  });
  EXPECT_EQ(three.Outstanding(), 0);  // every frame given back
  EXPECT_GT(three.internal->flowRuns, 0);
}

INSTANTIATE_TEST_SUITE_P(Settings, ThreeShownTest,
                         ::testing::Values(ShownCase{"MixGatherFilled", 1, 1, PLUChar},
                                           ShownCase{"MixGatherPlain", 1, 0, PLUShort},
                                           ShownCase{"NearestFilled", 0, 1, PLFloat}),
                         [](const ::testing::TestParamInfo<ShownCase>& info) {
                           return info.param.name;
                         });

}  // namespace
