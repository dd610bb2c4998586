// The retiming engine's reuse of prepared flow pyramids between runs and renders
// (stableFrames) gives the same bits as preparing both inputs for every run, and does save
// work where frames are shared.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <vector>

#include "retime/NuvChronar4.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestTexture.h"

namespace {

constexpr int32_t kW = 96, kH = 64, kFrames = 6;

// Frames of the test texture moving right and down, served from memory.
class MovingClip : public NuvChronar4 {
 public:
  MovingClip(int32_t stable, int32_t dataType) {
    stableFrames = stable;
    for (int32_t n = 0; n < kFrames; ++n)
      frames_.push_back(pltest::MakeTextured(kW, kH, 4, dataType, 2.5 * n, 1.25 * n));
  }
  int32_t GetFrame(NuvImage** view, int32_t n) override {
    *view = nullptr;
    if (n < 0 || n >= kFrames) return PLErrParameter;
    auto& held = views_[n];
    if (!held.view) {
      held.wrapper.reset(new NuvImageInternal(frames_[static_cast<size_t>(n)].get()));
      held.view.reset(new NuvImage());
      held.view->Attach(held.wrapper.get());
    }
    *view = held.view.get();
    return 0;
  }
  int32_t GetMotionFrame(NuvImage** view, int32_t n) override { return GetFrame(view, n); }
  void ReleaseFrame(NuvImage*) override {}
  int32_t GetMatte(NuvImage** view, int32_t, int32_t) override {
    *view = nullptr;
    return PLErrParameter;
  }
  void ReleaseMatte(NuvImage*) override {}
  void MapTime(float t, float* s) override { *s = t; }
  int32_t FrameKind(float t) override { return t >= 0.0f && t < kFrames ? 0 : 3; }
  int32_t GetWarpStyle() override { return warp; }
  int32_t UseEdgeBlend() override { return edge; }
  int32_t HintCount(float, float, int32_t) override { return hinted ? 1 : 0; }
  void GetHints(float first, float second, int32_t, int32_t, int32_t* count, const float** x0,
                const float** y0, const float** x1, const float** y1) override {
    // One point moved with the clip, in the run's direction.
    hint_[0] = 40.0f;
    hint_[1] = 30.0f;
    hint_[2] = 40.0f + 2.5f * (second - first);
    hint_[3] = 30.0f + 1.25f * (second - first);
    *count = 1;
    *x0 = &hint_[0];
    *y0 = &hint_[1];
    *x1 = &hint_[2];
    *y1 = &hint_[3];
  }

  int32_t warp = 1, edge = 0;
  bool hinted = false;

 private:
  struct Held {
    std::unique_ptr<NuvImageInternal> wrapper;
    std::unique_ptr<NuvImage> view;
  };
  std::vector<std::unique_ptr<PLImage>> frames_;
  std::map<int32_t, Held> views_;
  float hint_[4] = {};
};

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
  MovingClip plain(0, k.dataType), stable(1, k.dataType);
  for (MovingClip* clip : {&plain, &stable}) {
    clip->interpolation = k.interpolation;
    clip->hinted = k.hinted;
  }
  for (size_t r = 0; r < k.times.size(); ++r) {
    std::vector<unsigned char> bytes[2];
    int idx = 0;
    for (MovingClip* clip : {&plain, &stable}) {
      if (k.edgeFrom >= 0) clip->edge = static_cast<int32_t>(r) >= k.edgeFrom ? 1 : 0;
      if (static_cast<int32_t>(r) == k.warpAt) clip->warp = 2;
      std::unique_ptr<PLImage> out(new PLImage(kW, kH, 4, k.dataType, 0));
      NuvImageInternal wrapper(out.get());
      NuvImage view;
      view.Attach(&wrapper);
      ASSERT_EQ(clip->RenderAtTime(&view, k.times[r], 4, 1, nullptr), 0) << "time " << k.times[r];
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

}  // namespace
