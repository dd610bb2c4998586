// flowblur tool tests: frame plans within a clip, read through the frame cache,
// and a session that serves the clip frame by frame against one that holds all of it.
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <set>

#include "tools/DemoClip.h"
#include "tools/FrameCache.h"
#include "tools/FramePlan.h"
#include "host/SparkHost.h"
#include "tools/PluginSession.h"

namespace flowblur {
namespace {

ReadRule BlurRule(int64_t clipFrames, bool back) {
  return [=](int64_t n) {
    std::vector<FrameRead> reads;
    for (const auto& [clip, offset] : PluginSession::FramesRead(n, clipFrames, back, back))
      reads.push_back({clip, offset});
    return reads;
  };
}

// A plan run through a cache of its most held frames as the run loop does, each read dropped
// after its last use: never more held than that, and each frame read once.
TEST(FramePlan, ACacheOfTheMostHeldFramesReadsEachFrameOnce) {
  FrameCache::Loader load = [](Frame* frame, std::string*) {
    frame->pixels.assign(4 * 4 * 3, 0.5f);
    return true;
  };
  Frame sample;
  load(&sample, nullptr);
  std::vector<int64_t> offsets(40);
  std::iota(offsets.begin(), offsets.end(), 0);
  for (bool back : {false, true}) {
    FramePlan plan = PlanFrames({1, 40}, offsets, BlurRule(40, back));
    EXPECT_EQ(plan.MostHeld(), back ? 3u : 2u);  // the frame and its predecessor (per clip)
    FrameCache cache(static_cast<int64_t>(plan.MostHeld()) * FrameCache::BytesOf(sample));
    std::map<FrameRead, size_t> last = plan.LastUse();
    std::string error;
    for (size_t i = 0; i < plan.frames.size(); ++i) {
      for (const FrameRead& read : plan.frames[i].reads)
        EXPECT_TRUE(cache.Get(read.offset, read.clip, load, &error)) << error;
      EXPECT_LE(cache.Size(), plan.MostHeld());
      for (const FrameRead& read : plan.frames[i].reads)
        if (last[read] == i) cache.Drop(read.offset, read.clip);
    }
    EXPECT_EQ(cache.Loads(), static_cast<int64_t>(plan.DistinctReads().size()));
    EXPECT_EQ(cache.Size(), 0u);
  }
}

// A session that serves the clip frame by frame gives the plug-in each frame's true offset
// and the bytes and flow pair of a session holding the whole clip, whatever frame a run
// starts at; the host asks only for the frames the plan reads, by their offsets.
struct ServedCase {
  int32_t frames;
  bool back;
};
class ClipSessionTest : public ::testing::TestWithParam<ServedCase> {};

TEST_P(ClipSessionTest, TrueOffsetsGiveTheWholeClipsBytesAndFlowPairs) {
  constexpr int32_t kW = 64, kH = 36;
  const ServedCase c = GetParam();
  DemoClip demo(kW, kH, c.frames);
  std::vector<std::vector<uint8_t>> clips[2];
  for (int32_t t = 0; t < c.frames; ++t)
    for (int32_t clip = 0; clip < 2; ++clip) {
      std::vector<uint8_t> rgb(static_cast<size_t>(kW) * kH * 3);
      demo.Render8(clip == 0 ? t : c.frames - 1 - t, rgb.data());  // the back clip runs backwards
      clips[clip].push_back(rgb);
    }
  PluginControls controls;
  controls.amount = 1.5f;
  controls.motionFromBack = c.back;
  std::vector<std::vector<uint8_t>> whole;
  std::vector<std::pair<int32_t, int32_t>> wholePairs;
  {
    PluginSession session(kW, kH, 24, c.frames, c.back, 2, controls);
    for (int32_t clip = 0; clip < (c.back ? 2 : 1); ++clip)
      for (int32_t t = 0; t < c.frames; ++t) session.SetFrame(clip, t, clips[clip][t].data());
    for (int32_t n = 0; n < c.frames; ++n) {
      std::string error;
      const uint8_t* result = static_cast<const uint8_t*>(session.Process(n, &error));
      ASSERT_NE(result, nullptr) << error;
      whole.emplace_back(result, result + session.FrameBytes());
      std::vector<float> uv;
      int32_t w, h, first, second;
      ASSERT_TRUE(session.PluginFlow(n, &uv, &w, &h, &first, &second, &error)) << error;
      wholePairs.push_back({first, second});
    }
  }
  // One session per starting frame, as each chunk of a farm render has its own; each call is
  // given only the frames FramesRead names.
  for (int32_t start = 0; start < c.frames; ++start) {
    ClipSession session(kW, kH, 24, c.frames, c.back, 2, controls);
    for (int32_t n = start; n < c.frames; ++n) {
      const auto reads = session.FramesRead(n);
      auto packed = [&](int32_t clip, int64_t offset) -> const void* {
        for (const auto& read : reads)
          if (read.first == clip && read.second == offset) return clips[clip][offset].data();
        return nullptr;
      };
      const size_t callsBefore = sparkhost::GetFrameCalls().size();
      std::string error;
      const uint8_t* result = static_cast<const uint8_t*>(session.Process(n, packed, &error));
      ASSERT_NE(result, nullptr) << error;
      EXPECT_EQ(std::memcmp(result, whole[n].data(), whole[n].size()), 0)
          << "frame " << n << " from a run started at " << start;
      const auto calls = sparkhost::GetFrameCalls();
      ASSERT_GT(calls.size(), callsBefore);
      bool askedForItself = false;
      for (size_t k = callsBefore; k < calls.size(); ++k) {
        askedForItself |= calls[k].frame == n;
        EXPECT_EQ(calls[k].result, 1) << "frame " << n << " asked for " << calls[k].frame;
      }
      EXPECT_TRUE(askedForItself) << "frame " << n << " reached the plug-in under another number";
      std::vector<float> uv;
      int32_t w, h;
      int64_t first, second;
      ASSERT_TRUE(session.PluginFlow(n, &uv, &w, &h, &first, &second, &error)) << error;
      EXPECT_EQ(first, wholePairs[n].first) << "frame " << n;
      EXPECT_EQ(second, wholePairs[n].second) << "frame " << n;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Clips, ClipSessionTest,
                         ::testing::Values(ServedCase{1, false}, ServedCase{2, false},
                                           ServedCase{3, false}, ServedCase{6, false},
                                           ServedCase{2, true}, ServedCase{6, true}));

// A frame far into a long clip reaches the plug-in under its own number, with nothing of the
// clip held by the host; a frame the caller does not give stops the call with a message.
TEST(ClipSession, AFrameDeepInALongClipAndAFrameNotGiven) {
  constexpr int32_t kW = 32, kH = 18;
  constexpr int64_t kFrames = 2000000;
  DemoClip demo(kW, kH, 3);
  std::vector<uint8_t> a(static_cast<size_t>(kW) * kH * 3), b(a.size());
  demo.Render8(0, a.data());
  demo.Render8(1, b.data());
  ClipSession session(kW, kH, 24, kFrames, false, 1, PluginControls());
  const int64_t n = kFrames - 1;
  ASSERT_EQ(session.FramesRead(n), (std::vector<std::pair<int32_t, int64_t>>{
                                       {kFrontClip, n}, {kFrontClip, n - 1}}));
  std::string error;
  const void* result = session.Process(
      n, [&](int32_t, int64_t offset) -> const void* {
        return offset == n ? b.data() : offset == n - 1 ? a.data() : nullptr;
      },
      &error);
  ASSERT_NE(result, nullptr) << error;
  std::set<int32_t> asked;
  for (const auto& call : sparkhost::GetFrameCalls()) asked.insert(call.frame);
  EXPECT_EQ(asked, (std::set<int32_t>{static_cast<int32_t>(n), static_cast<int32_t>(n - 1)}));
  result = session.Process(
      n, [&](int32_t, int64_t offset) -> const void* { return offset == n ? b.data() : nullptr; },
      &error);
  EXPECT_EQ(result, nullptr);
  EXPECT_NE(error.find("frame " + std::to_string(n - 1) + " was not supplied"), std::string::npos)
      << error;
}

}  // namespace
}  // namespace flowblur
