// flowblur tests: whole frames through the driver: the frame pair, the blur along the
// estimated motion, amounts, the failures after the estimator exists, and worker counts.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "host/SparkHost.h"
#include "shell/shell.h"
#include "tests/plugin/PluginTestSupport.h"
#include "tests/support/PLTestWorkers.h"

namespace {

using plugintest::ClipFramePixels;
using plugintest::Layout;
using plugintest::MaxSampleDifference;
using plugintest::Pauses;
using plugintest::ReferenceFrame;
using plugintest::ResultPixels;
using sparkhost::FrameLayout;
using sparkhost::kBackBuffer;
using sparkhost::kResultBuffer;

class Render : public plugintest::PluginTest {
 protected:
  std::vector<uint8_t> Process(int32_t n) {
    spark_info_struct info = sparkhost::BeginFrame(n);
    void* result = SparkProcess(info);
    EXPECT_EQ(result, sparkhost::BufferPixels(kResultBuffer));
    EXPECT_TRUE(sparkhost::Notes().empty()) << sparkhost::Notes()[0].text;
    return ResultPixels();
  }
  std::vector<std::string> Messages() {
    std::vector<std::string> out;
    for (const sparkhost::Note& n : sparkhost::Notes()) out.push_back(n.text);
    return out;
  }
};

struct PairCase {
  int32_t format;
  int32_t pad;
  int32_t n;
  uint8_t fromBack;
  int32_t first, second;  // the frames the flow runs between
  float amount;
  int32_t quality;
};

std::string Name(const PairCase& c) {
  return "format" + std::to_string(c.format) + "_n" + std::to_string(c.n) +
         (c.fromBack ? "_back" : "_front");
}

// The driver's result equals the library calls made by hand with the documented frame pair:
// (neighbour, n) at frame 0, (n, neighbour) elsewhere, and the front frame as the pixels.
class RenderPairs : public Render, public testing::WithParamInterface<PairCase> {};

TEST_P(RenderPairs, ResultIsTheFlowOfTheDocumentedPairAppliedToTheFrontFrame) {
  const PairCase& c = GetParam();
  // Draft quality works at a quarter size: the frame must leave it a level to solve at.
  FrameLayout layout =
      c.quality == 1 ? Layout(128, 96, c.format, c.pad) : Layout(64, 48, c.format, c.pad);
  MakeClips(layout, 6, 1.5, 0.5, -1.0, 2.0);
  SparkBoolean2.value = c.fromBack;
  SparkFloat0.value = c.amount;
  SparkPup1.value = c.quality;
  std::vector<uint8_t> got = Process(c.n);
  int32_t clip = c.fromBack ? 1 : 0;
  std::vector<uint8_t> want =
      ReferenceFrame(layout, ClipFramePixels(clip, c.first), ClipFramePixels(clip, c.second),
                     ClipFramePixels(0, c.n), c.quality == 1 ? 2 : 1, c.amount);
  EXPECT_EQ(MaxSampleDifference(got, want, c.format), 0);
  EXPECT_EQ(got, want);
  // The result is not just the front frame: the test can see a blur.
  EXPECT_NE(got, ClipFramePixels(0, c.n));
  EXPECT_TRUE(Pauses().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Plugin, RenderPairs,
    testing::Values(PairCase{24, 7, 0, 0, 1, 0, 0.5f, 0}, PairCase{24, 7, 1, 0, 1, 2, 1.0f, 0},
                    PairCase{24, 7, 1, 1, 1, 0, 1.0f, 0}, PairCase{24, 0, 3, 0, 3, 2, 2.0f, 1},
                    PairCase{25, 0, 0, 1, 1, 0, 1.5f, 0}, PairCase{48, 10, 3, 1, 3, 2, 1.0f, 0},
                    PairCase{64, 2, 1, 0, 1, 2, 1.0f, 1}, PairCase{49, 0, 0, 0, 1, 0, 1.0f, 0},
                    PairCase{49, 0, 1, 1, 1, 0, 2.0f, 0}, PairCase{49, 0, 2, 0, 2, 1, -1.0f, 1}),
    [](const testing::TestParamInfo<PairCase>& info) { return Name(info.param); });

// The same frames in the other order give another result, so the pair test above can tell.
TEST_F(Render, ThePairOrderIsVisible) {
  FrameLayout layout = Layout(64, 48, 24);
  MakeClips(layout, 6, 1.5, 0.5);
  SparkFloat0.value = 1.0f;
  std::vector<uint8_t> got = Process(3);
  std::vector<uint8_t> swapped = ReferenceFrame(
      layout, ClipFramePixels(0, 2), ClipFramePixels(0, 3), ClipFramePixels(0, 3), 1, 1.0f);
  EXPECT_NE(got, swapped);
}

// Motion from the back clip, pixels from the front clip; the back buffer holds frame n again.
TEST_F(Render, MotionFromBackBlursTheFrontPixels) {
  FrameLayout layout = Layout(64, 48, 24);
  MakeClips(layout, 6, 0.0, 0.0, 3.0, 0.0);  // a still front clip, a moving back clip
  SparkFloat0.value = 1.0f;
  std::vector<uint8_t> still = Process(2);
  EXPECT_EQ(still, ClipFramePixels(0, 2));  // front motion: none, so no blur

  SparkBoolean2.value = 1;
  std::vector<uint8_t> blurred = Process(2);
  EXPECT_NE(blurred, ClipFramePixels(0, 2));
  EXPECT_EQ(blurred, ReferenceFrame(layout, ClipFramePixels(1, 2), ClipFramePixels(1, 1),
                                    ClipFramePixels(0, 2), 1, 1.0f));
  EXPECT_EQ(plugintest::Packed(sparkhost::BufferPixels(kBackBuffer), layout),
            ClipFramePixels(1, 2));
  std::vector<sparkhost::GetFrameCall> calls = sparkhost::GetFrameCalls();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back().clip, 1);
  EXPECT_EQ(calls.back().frame, 2);
  EXPECT_EQ(calls.back().pixels, sparkhost::BufferPixels(kBackBuffer));
}

// Mean absolute difference of the result from the front frame smoothed along x and along y
// by a box of `length` samples.
double DistanceFromBox(const std::vector<uint8_t>& result, const std::vector<uint8_t>& source,
                       int32_t width, int32_t height, int32_t length, bool alongX) {
  double sum = 0.0;
  int64_t count = 0;
  int32_t margin = length + 4;
  for (int32_t y = margin; y < height - margin; ++y)
    for (int32_t x = margin; x < width - margin; ++x)
      for (int32_t c = 0; c < 3; ++c) {
        double box = 0.0;
        for (int32_t k = -length / 2; k <= length / 2; ++k) {
          int32_t xx = alongX ? x + k : x, yy = alongX ? y : y + k;
          box += source[(static_cast<size_t>(yy) * width + xx) * 3 + c];
        }
        box /= (length / 2) * 2 + 1;
        sum += std::fabs(result[(static_cast<size_t>(y) * width + x) * 3 + c] - box);
        ++count;
      }
  return sum / static_cast<double>(count);
}

// A clip that moves 4 pixels a frame along x: the result is smeared along x and not along
// y; turned the other way, the other way.
TEST_F(Render, TheBlurFollowsTheMotion) {
  const int32_t w = 96, h = 80;
  for (bool alongX : {true, false}) {
    sparkhost::Reset();
    SparkMemoryTempBuffers();
    MakeClips(Layout(w, h, 24), 4, alongX ? 4.0 : 0.0, alongX ? 0.0 : 4.0);
    SparkFloat0.value = 2.0f;  // a line of 8 pixels
    std::vector<uint8_t> result = Process(2);
    std::vector<uint8_t> source = ClipFramePixels(0, 2);
    double along = DistanceFromBox(result, source, w, h, 9, alongX);
    double across = DistanceFromBox(result, source, w, h, 9, !alongX);
    double unchanged = DistanceFromBox(result, source, w, h, 1, true);
    RecordProperty(
        alongX ? "x_along_across_unchanged" : "y_along_across_unchanged",
        std::to_string(along) + " " + std::to_string(across) + " " + std::to_string(unchanged));
    EXPECT_LT(along * 2.0, across) << along << " " << across;
    EXPECT_LT(along * 2.0, unchanged) << along << " " << unchanged;
  }
}

TEST_F(Render, AStillClipComesOutUnchanged) {
  for (int32_t format : {24, 48, 49}) {
    sparkhost::Reset();
    SparkMemoryTempBuffers();
    MakeClips(Layout(64, 48, format,
                     format == 24   ? 3
                     : format == 48 ? 6
                                    : 0),
              4, 0.0, 0.0, 0.0, 0.0);
    SparkFloat0.value = 3.0f;
    for (int32_t n : {0, 1, 3}) {
      std::vector<uint8_t> got = Process(n);
      EXPECT_EQ(MaxSampleDifference(got, ClipFramePixels(0, n), format), 0) << format << " " << n;
    }
  }
}

// A negative amount renders at 0.5 and pushes away from it: source x 3 - blurred x 2 at -2,
// limited to the sample range.
TEST_F(Render, AmountMinusTwoExtrapolatesFromAHalfBlur) {
  for (int32_t format : {24, 48}) {
    sparkhost::Reset();
    SparkMemoryTempBuffers();
    FrameLayout layout = Layout(64, 48, format);
    MakeClips(layout, 4, 3.0, 1.0);
    SparkFloat0.value = -2.0f;
    std::vector<uint8_t> got = Process(2);
    std::vector<uint8_t> half = ReferenceFrame(layout, ClipFramePixels(0, 2), ClipFramePixels(0, 1),
                                               ClipFramePixels(0, 2), 1, 0.5f);
    std::vector<uint8_t> source = ClipFramePixels(0, 2);
    const bool bytes = format == 24;
    const int64_t top = bytes ? 255 : 65535;
    int64_t worst = 0, clampedLow = 0, clampedHigh = 0;
    size_t step = bytes ? 1 : 2;
    for (size_t i = 0; i < got.size(); i += step) {
      auto at = [&](const std::vector<uint8_t>& v) -> int64_t {
        if (bytes) return v[i];
        uint16_t w;
        std::memcpy(&w, &v[i], 2);
        return w;
      };
      int64_t want = std::min(top, std::max<int64_t>(0, 3 * at(source) - 2 * at(half)));
      clampedLow += want == 0;
      clampedHigh += want == top;
      worst = std::max<int64_t>(worst, std::llabs(at(got) - want));
    }
    EXPECT_LE(worst, 1) << format;  // rounding of the blend
    EXPECT_NE(got, source);
    EXPECT_NE(got, half);
    SCOPED_TRACE(std::to_string(clampedLow) + " low, " + std::to_string(clampedHigh) + " high");
  }
}

// Exactly 0.0 (and -0.0) renders with amount 0: the source, bit for bit, infinities and all.
// The negative branch would blend infinities into NaN.
TEST_F(Render, AmountZeroTakesTheNonNegativeBranch) {
  FrameLayout layout = Layout(64, 48, 49);
  MakeClips(layout, 4, 0.0, 0.0, 2.0, 1.0);
  // Infinities of both signs in the front frame; the motion comes from the finite back clip.
  for (int32_t t = 0; t < 4; ++t)
    for (int32_t x = 10; x < 50; x += 3) {
      sparkhost::SetSample(sparkhost::ClipFrame(0, t), layout, x, 20, 0, 0x7C00);
      sparkhost::SetSample(sparkhost::ClipFrame(0, t), layout, x + 1, 20, 0, 0xFC00);
    }
  SparkBoolean2.value = 1;
  for (float amount : {0.0f, -0.0f}) {
    SparkFloat0.value = amount;
    std::vector<uint8_t> got = Process(2);
    std::vector<uint8_t> source = ClipFramePixels(0, 2);
    for (size_t i = 0; i < source.size(); i += 2) {
      uint16_t s, g;
      std::memcpy(&s, &source[i], 2);
      std::memcpy(&g, &got[i], 2);
      ASSERT_EQ(g, s == 0x8000 ? 0 : s) << i;
    }
  }
}

TEST_F(Render, BypassedControlsUseBestQualityHalfAmountAndFrontMotion) {
  FrameLayout layout = Layout(64, 48, 24);
  MakeClips(layout, 4, 2.0, 1.0, -3.0, 0.0);
  std::vector<uint8_t> defaults = Process(2);
  SparkFloat0.value = 4.0f;
  SparkPup1.value = 1;
  SparkBoolean2.value = 1;
  spark_info_struct info = sparkhost::BeginFrame(2);
  info.ControlsBypass = 1;
  EXPECT_EQ(SparkProcess(info), sparkhost::BufferPixels(kResultBuffer));
  EXPECT_EQ(ResultPixels(), defaults);
  EXPECT_NE(Process(2), defaults);  // the controls do matter when read
}

// The result buffer has another size than the front frame: the render refuses, the result
// is cleared before the message, the pause follows, and the clean-up still runs.
// (Half floats render between planes of the clip's size, so there the result size plays no
// part in the render.)
TEST_F(Render, FrontAndResultOfDifferentSizesGiveTheBlurParameterMessage) {
  for (int32_t format : {24, 48, 64}) {
    sparkhost::Reset();
    Pauses().clear();
    SparkMemoryTempBuffers();
    MakeClips(Layout(64, 48, format), 4, 1.0, 1.0, 1.0, 0.0);
    sparkhost::SetBuffer(kResultBuffer, Layout(60, 48, format));
    uint8_t* result = sparkhost::BufferPixels(kResultBuffer);
    std::memset(result, 0x5A, static_cast<size_t>(sparkhost::BufferCapacity(kResultBuffer)));
    SparkBoolean2.value = 1;
    spark_info_struct info = sparkhost::BeginFrame(2);
    EXPECT_EQ(SparkProcess(info), result);
    EXPECT_EQ(Messages(),
              std::vector<std::string>{"Cannot process image blur due to parameter error"});
    EXPECT_EQ(Pauses(), std::vector<uint32_t>{1});
    for (int32_t i = 0; i < info.FrameBytes; ++i) ASSERT_EQ(result[i], 0) << format << " " << i;
    EXPECT_EQ(result[info.FrameBytes], 0x5A);
    EXPECT_EQ(sparkhost::GetFrameCalls().size(), 3u);  // back frame reloaded
  }
}

// Half floats with motion from a back clip of another size: the output plane has the back
// clip's size, so the render refuses.
TEST_F(Render, HalfFloatBackClipOfAnotherSizeGivesTheBlurParameterMessage) {
  sparkhost::SetClip(0, Layout(64, 48, 49), 4);
  sparkhost::SetClip(1, Layout(48, 40, 49), 4);
  plugintest::FillMovingClip(0, 1.0, 0.0);
  plugintest::FillMovingClip(1, 2.0, 0.0);
  SparkBoolean2.value = 1;
  spark_info_struct info = sparkhost::BeginFrame(1);
  EXPECT_EQ(SparkProcess(info), sparkhost::BufferPixels(kResultBuffer));
  EXPECT_EQ(Messages(),
            std::vector<std::string>{"Cannot process image blur due to parameter error"});
  EXPECT_EQ(Pauses(), std::vector<uint32_t>{1});
  // The unwritten output plane is packed back over the cleared result: zeros.
  std::vector<uint8_t> got = ResultPixels();
  for (uint8_t b : got) ASSERT_EQ(b, 0);
}

// Front in half floats, motion from an 8-bit back clip: no planes exist, the output plane
// has size 0, and the render refuses.
TEST_F(Render, HalfFloatFrontWithAnotherClipFormatGivesTheBlurParameterMessage) {
  sparkhost::SetClip(0, Layout(64, 48, 49), 4);
  sparkhost::SetClip(1, Layout(64, 48, 24), 4);
  plugintest::FillMovingClip(0, 1.0, 0.0);
  plugintest::FillMovingClip(1, 2.0, 0.0);
  SparkBoolean2.value = 1;
  spark_info_struct info = sparkhost::BeginFrame(1);
  EXPECT_EQ(SparkProcess(info), sparkhost::BufferPixels(kResultBuffer));
  EXPECT_EQ(Messages(),
            std::vector<std::string>{"Cannot process image blur due to parameter error"});
  EXPECT_EQ(Pauses(), std::vector<uint32_t>{1});
  for (uint8_t b : ResultPixels()) ASSERT_EQ(b, 0);
}

// Every library allocation of a frame failing in turn: each failure is one of the two
// out-of-memory cases, with the result cleared, one pause, and nothing leaked.
std::atomic<int64_t> gAllocations{0};
std::atomic<int64_t> gFailAt{-1};
void* CountingAlloc(void*, uint64_t size) {
  if (++gAllocations == gFailAt) return nullptr;
  return std::malloc(size ? size : 1);
}
void CountingFree(void*, void* block) { std::free(block); }

TEST_F(Render, EveryAllocationFailureIsReportedAsOutOfMemory) {
  FrameLayout layout = Layout(64, 48, 24);
  MakeClips(layout, 4, 2.0, 1.0);
  gAllocations = 0;
  gFailAt = -1;
  NuvMemSetHooks(nullptr, CountingAlloc, CountingFree);
  std::vector<uint8_t> good = Process(2);
  NuvMemSetHooks(nullptr, nullptr, nullptr);
  const int64_t total = gAllocations.load();
  ASSERT_GT(total, 0);
  int64_t flowFailures = 0, blurFailures = 0;
  for (int64_t k = 1; k <= total; ++k) {
    sparkhost::Reset();
    SparkMemoryTempBuffers();
    MakeClips(layout, 4, 2.0, 1.0);
    Pauses().clear();
    gAllocations = 0;
    gFailAt = k;
    NuvMemSetHooks(nullptr, CountingAlloc, CountingFree);
    spark_info_struct info = sparkhost::BeginFrame(2);
    void* result = SparkProcess(info);
    NuvMemSetHooks(nullptr, nullptr, nullptr);
    EXPECT_EQ(result, sparkhost::BufferPixels(kResultBuffer));
    std::vector<std::string> messages = Messages();
    ASSERT_EQ(messages.size(), 1u) << k;
    if (messages[0] == "Cannot process image flow due to out of memory error")
      ++flowFailures;
    else if (messages[0] == "Cannot process image blur due to out of memory error")
      ++blurFailures;
    else
      ADD_FAILURE() << messages[0];
    EXPECT_EQ(Pauses(), std::vector<uint32_t>{1});
    for (uint8_t b : ResultPixels()) ASSERT_EQ(b, 0) << k;
  }
  EXPECT_GT(flowFailures, 0);
  RecordProperty("flow_allocations", std::to_string(flowFailures));
  RecordProperty("render_allocations", std::to_string(blurFailures));
  // And with memory again, the same frame as before.
  sparkhost::Reset();
  SparkMemoryTempBuffers();
  MakeClips(layout, 4, 2.0, 1.0);
  EXPECT_EQ(Process(2), good);
}

// The same bytes for 1, 2, 3 and 8 host processors, in every format; frames tall enough
// that 8 workers split the rows of the full-size stages.
TEST_F(Render, SameResultForAnyProcessorCount) {
  for (int32_t format : {24, 48, 49}) {
    std::vector<uint8_t> first;
    for (int32_t p : kPLTestWorkerCounts) {
      sparkhost::Reset();
      SparkMemoryTempBuffers();
      sparkhost::SetProcessors(p);
      MakeClips(Layout(80, 136, format, format == 49 ? 0 : 4), 3, 2.0, -1.5);
      SparkFloat0.value = 1.5f;
      std::vector<uint8_t> got = Process(1);
      if (p == 1)
        first = got;
      else
        EXPECT_EQ(MaxSampleDifference(got, first, format), 0) << format << " on " << p;
    }
    EXPECT_NE(first, ClipFramePixels(0, 1));
  }
}

}  // namespace
