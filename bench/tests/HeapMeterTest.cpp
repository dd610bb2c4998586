// flowblur: tests of the benchmarks' heap counting, the harness's view of the plug-in's flow,
// and the shared plug-in session's back clip: the flow's clip.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "bench/BenchHost.h"
#include "bench/GroundTruth.h"
#include "shell/spark.h"

namespace flowblur {
namespace {

constexpr int32_t kWidth = 160, kHeight = 128, kFrames = 3;

// The demo clip's frames in host format `format` as the session's `clip`, in order or reversed.
void LoadDemoFrames(PluginSession* session, int32_t format, int32_t clip = kFrontClip,
                    bool reversed = false) {
  DemoScene scene(kWidth, kHeight);
  std::vector<float> rgb(static_cast<size_t>(kWidth) * kHeight * 3);
  std::vector<uint8_t> host(static_cast<size_t>(session->FrameBytes()));
  for (int32_t n = 0; n < kFrames; ++n) {
    RenderSceneFrame(scene, reversed ? kFrames - 1 - n : n, 1, rgb.data());
    ASSERT_TRUE(EncodeHostFrame(rgb.data(), int64_t{kWidth} * kHeight, format, host.data()));
    session->SetFrame(clip, n, host.data());
  }
}

class HeapMeter : public ::testing::TestWithParam<int32_t> {};

TEST_P(HeapMeter, CountsLibraryBlocksAndDriverPlanesWithoutChangingTheResult) {
  const int32_t format = GetParam();
  PluginSession session(kWidth, kHeight, format, kFrames, false, 2, BenchControls(0.5f, false));
  LoadDemoFrames(&session, format);
  const spark_info_struct info = session.BeginFrame(2);
  const void* result = nullptr;
  HeapPeak heap = MeasureHeap(info, &result);
  ASSERT_NE(result, nullptr);
  std::string said;
  EXPECT_FALSE(session.TakeNotes(&said)) << said;
  const std::vector<uint8_t> measured(static_cast<const uint8_t*>(result),
                                      static_cast<const uint8_t*>(result) + session.FrameBytes());

  EXPECT_EQ(heap.libraryLeft, 0);
  // At least the working-size lumas of both images and the flow (half size, 1 + 1 + 2 floats).
  EXPECT_GE(heap.libraryPeak, int64_t{kWidth / 2} * (kHeight / 2) * 4 * 4);
  if (format == 49) {
    // Three planes of 12 bytes a pixel, as malloc hands them out (a little more).
    const int64_t planes = int64_t{3} * kWidth * kHeight * 12;
    EXPECT_GE(heap.planes, planes);
    EXPECT_LT(heap.planes, planes + 3 * 4096);
  } else {
    EXPECT_EQ(heap.planes, 0);
  }
  // The planes are held from before the estimator exists until after it is gone.
  EXPECT_EQ(heap.peak, heap.libraryPeak + heap.planes);

  // The hooks are gone and changed nothing: the same call again gives the same bytes.
  const void* again = SparkProcess(info);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(static_cast<const uint8_t*>(again),
                                 static_cast<const uint8_t*>(again) + session.FrameBytes()),
            measured);
}

INSTANTIATE_TEST_SUITE_P(Formats, HeapMeter, ::testing::Values(24, 48, 49));

TEST(PluginSession, PluginFlowUsesTheDriversPairAndWorkingSize) {
  PluginSession session(kWidth, kHeight, 24, kFrames, false, 1, BenchControls(0.5f, true));
  LoadDemoFrames(&session, 24);
  std::vector<float> uv;
  int32_t w = 0, h = 0, first = -1, second = -1;
  std::string error;
  ASSERT_TRUE(session.PluginFlow(0, &uv, &w, &h, &first, &second, &error)) << error;
  EXPECT_EQ(first, 1);  // frame 0 pairs with 1, the neighbour first
  EXPECT_EQ(second, 0);
  EXPECT_EQ(w, kWidth / 4);  // Draft: a quarter
  EXPECT_EQ(h, kHeight / 4);
  EXPECT_EQ(uv.size(), static_cast<size_t>(w) * h * 2);
  ASSERT_TRUE(session.PluginFlow(1, &uv, &w, &h, &first, &second, &error)) << error;
  EXPECT_EQ(first, 1);  // frame 1 of the front clip pairs with 2
  EXPECT_EQ(second, 2);
  ASSERT_TRUE(session.PluginFlow(2, &uv, &w, &h, &first, &second, &error)) << error;
  EXPECT_EQ(first, 2);
  EXPECT_EQ(second, 1);
  // The background moves (-5, 1.25) px a frame: to the previous frame that is about (+5, -1.25)
  // source px, i.e. about (+1.2, -0.3) on the quarter grid, in the corner away from the disc.
  const float* corner = &uv[(static_cast<size_t>(h / 8) * w + (w - 1) / 8) * 2];
  EXPECT_NEAR(corner[0], 5.0f * (w - 1) / (kWidth - 1), 0.5f);
  EXPECT_NEAR(corner[1], -1.25f * (h - 1) / (kHeight - 1), 0.5f);
}

TEST(PluginSession, FlowComesFromTheBackClipWhenMotionIsFromBack) {
  PluginControls controls;
  controls.motionFromBack = true;
  std::vector<float> withBack, frontOnly;
  int32_t w0 = 0, h0 = 0, w1 = 0, h1 = 0, first0 = -1, second0 = -1, first1 = -1, second1 = -1;
  std::string error;
  {
    PluginSession session(kWidth, kHeight, 24, kFrames, true, 2, controls);
    LoadDemoFrames(&session, 24);
    LoadDemoFrames(&session, 24, kBackClip, true);
    ASSERT_TRUE(session.PluginFlow(1, &withBack, &w0, &h0, &first0, &second0, &error)) << error;
    ASSERT_NE(session.Process(1, &error), nullptr) << error;
  }
  {
    // The same motion clip as the front clip of a session without a back clip.
    PluginSession session(kWidth, kHeight, 24, kFrames, false, 2, controls);
    LoadDemoFrames(&session, 24, kFrontClip, true);
    ASSERT_TRUE(session.PluginFlow(1, &frontOnly, &w1, &h1, &first1, &second1, &error)) << error;
  }
  EXPECT_EQ(w0, kWidth / 2);  // Best: half size
  EXPECT_TRUE(w1 == w0 && h1 == h0 && first1 == first0 && second1 == second0);
  EXPECT_EQ(withBack, frontOnly);
}

}  // namespace
}  // namespace flowblur
