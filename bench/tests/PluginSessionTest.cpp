// flowblur: tests of the shared plug-in session's back clip: the flow's clip.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "bench/GroundTruth.h"
#include "tools/PluginSession.h"

namespace flowblur {
namespace {

constexpr int32_t kWidth = 96, kHeight = 64, kFrames = 4;

// The demo clip's frames in host format 24, in order or reversed.
std::vector<std::vector<uint8_t>> DemoFrames(bool reversed) {
  DemoScene scene(kWidth, kHeight);
  std::vector<float> rgb(static_cast<size_t>(kWidth) * kHeight * 3);
  std::vector<std::vector<uint8_t>> frames(kFrames);
  for (int32_t n = 0; n < kFrames; ++n) {
    RenderSceneFrame(scene, reversed ? kFrames - 1 - n : n, 1, rgb.data());
    frames[static_cast<size_t>(n)].resize(rgb.size());
    EncodeHostFrame(rgb.data(), int64_t{kWidth} * kHeight, 24, frames[static_cast<size_t>(n)].data());
  }
  return frames;
}

PluginControls MotionFromBack() {
  PluginControls controls;
  controls.motionFromBack = true;
  return controls;
}

TEST(PluginSession, FlowComesFromTheBackClipWhenMotionIsFromBack) {
  const auto forward = DemoFrames(false), backward = DemoFrames(true);
  std::vector<float> withBack, frontOnly;
  int32_t w0 = 0, h0 = 0, w1 = 0, h1 = 0, first0 = -1, second0 = -1, first1 = -1, second1 = -1;
  std::string error;
  {
    PluginSession session(kWidth, kHeight, 24, kFrames, true, 2, MotionFromBack());
    for (int32_t n = 0; n < kFrames; ++n) {
      session.SetFrame(kFrontClip, n, forward[static_cast<size_t>(n)].data());
      session.SetFrame(kBackClip, n, backward[static_cast<size_t>(n)].data());
    }
    ASSERT_TRUE(session.PluginFlow(1, &withBack, &w0, &h0, &first0, &second0, &error)) << error;
    ASSERT_NE(session.Process(1, &error), nullptr) << error;
  }
  {
    // The same motion clip as the front clip of a session without a back clip.
    PluginSession session(kWidth, kHeight, 24, kFrames, false, 2, MotionFromBack());
    for (int32_t n = 0; n < kFrames; ++n)
      session.SetFrame(kFrontClip, n, backward[static_cast<size_t>(n)].data());
    ASSERT_TRUE(session.PluginFlow(1, &frontOnly, &w1, &h1, &first1, &second1, &error)) << error;
  }
  EXPECT_EQ(w0, kWidth / 2);  // Best: half size
  EXPECT_TRUE(w1 == w0 && h1 == h0 && first1 == first0 && second1 == second0);
  EXPECT_EQ(withBack, frontOnly);
}

}  // namespace
}  // namespace flowblur
