// The retiming engine's reuse of prepared flow pyramids between runs and renders
// (stableFrames) gives the same bits as preparing both inputs for every run, and does save
// work where frames are shared. Beside them a retimer shows three-channel frames while it
// estimates on the four-channel ones (the luma of four channels is its own rule; only the
// single path takes such motion frames): its R, G, B are the bits of the four-channel render.
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
  int32_t warpStyle = 1;  // until then
};

// R, G, B of every pixel.
std::vector<float> Colour(const PLImage* image) {
  std::vector<float> values;
  for (int32_t y = 0; y < image->height; ++y)
    for (int32_t x = 0; x < image->width; ++x)
      for (int32_t c = 0; c < 3; ++c) values.push_back(pltest::Get(image, x, y, c));
  return values;
}

class StableFramesTest : public ::testing::TestWithParam<Case> {};

TEST_P(StableFramesTest, SameBitsAsPreparingEveryRunAndForThreeShownChannels) {
  const Case& k = GetParam();
  MemoryChronar plain, stable, three;
  MemoryChronar* clips[3] = {&plain, &stable, &three};
  for (MemoryChronar* clip : clips) {
    chronartest::AddMovingFrames(clip, 6, kW, kH, 4, k.dataType, 2.5f, 1.25f);
    clip->interpolation = k.interpolation;
    clip->warpStyle = k.warpStyle;
    clip->stableFrames = clip == &plain ? 0 : 1;
    if (k.hinted) clip->hintMotion[0] = 2.5f, clip->hintMotion[1] = 1.25f;
  }
  for (int32_t n = 0; n < 6; ++n)  // the four-channel frames' R, G, B
    three.shown[n] = pltest::MakeTextured(kW, kH, 3, k.dataType, 2.5f * n, 1.25f * n);
  for (size_t r = 0; r < k.times.size(); ++r) {
    std::vector<unsigned char> bytes[3];
    std::vector<float> colour[3];
    for (int32_t i = 0; i < 3; ++i) {
      if (k.edgeFrom >= 0) clips[i]->edgeBlend = static_cast<int32_t>(r) >= k.edgeFrom ? 1 : 0;
      if (static_cast<int32_t>(r) == k.warpAt) clips[i]->warpStyle = 2;
      chronartest::Output out(kW, kH, i == 2 ? 3 : 4, k.dataType);
      ASSERT_EQ(clips[i]->RenderAtTime(&out.view, k.times[r], 4, 1, nullptr), 0) << k.times[r];
      bytes[i] = pltest::PixelBytes(out.get());
      colour[i] = Colour(out.get());
    }
    ASSERT_EQ(bytes[0], bytes[1]) << "render " << r << " at time " << k.times[r];
    ASSERT_EQ(colour[2], colour[1]) << "three shown: render " << r << " at time " << k.times[r];
  }
  EXPECT_EQ(plain.internal->flowRuns, stable.internal->flowRuns);
  EXPECT_EQ(three.internal->flowRuns, stable.internal->flowRuns);
  EXPECT_EQ(plain.internal->pyramidSides, 2 * plain.internal->flowRuns);
  EXPECT_LT(stable.internal->pyramidSides, plain.internal->pyramidSides);
  EXPECT_EQ(three.Outstanding(), 0);  // every frame given back
}

// Half speed (a source frame between made ones), 24 to 60, backwards, jumps, the nearest
// frame's single flow, hints, settings changed between renders, which must forget what was
// prepared under the old ones, the plain gather and the nearest frame on Float.
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
        Case{"WarpChanged", 1, PLUChar, {0.5f, 1.5f, 2.5f, 3.5f}, false, -1, 2},
        Case{"MixGatherPlain", 1, PLUShort, {0.25f, 0.5f, 1.0f, 1.75f, 2.5f}, false, -1, -1, 0},
        Case{"NearestFloat", 0, PLFloat, {0.25f, 0.5f, 1.0f, 1.75f, 2.5f}}),
    [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

}  // namespace
