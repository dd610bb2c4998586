// flowblur tests: whole frames through the driver: the frame pair, the blur along the
// estimated motion, amounts, and the failures after the estimator exists.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "host/SparkHost.h"
#include "shell/shell.h"
#include "tests/plugin/PluginTestSupport.h"

namespace {

using plugintest::ClipFramePixels;
using plugintest::Layout;
using plugintest::Messages;
using plugintest::Pauses;
using plugintest::ReferenceFrame;
using plugintest::ResultPixels;
using sparkhost::FrameLayout;
using sparkhost::kResultBuffer;
using Strings = std::vector<std::string>;

class Render : public plugintest::PluginTest {
 protected:
  std::vector<uint8_t> Process(int32_t n) {
    spark_info_struct info = sparkhost::BeginFrame(n);
    EXPECT_EQ(SparkProcess(info), sparkhost::BufferPixels(kResultBuffer));
    EXPECT_EQ(Messages(), Strings{});
    return ResultPixels();
  }
};

struct PairCase {
  int32_t format;
  int32_t pad;  // odd pads put every second row of every buffer at an odd address
  int32_t n;
  uint8_t fromBack;
  int32_t first, second;  // the frames the flow runs between
  float amount;
  int32_t quality;
};

// The driver's result equals the library calls made by hand on packed rows with the
// documented frame pair: (neighbour, n) at frame 0, (n, neighbour) elsewhere, and the front
// frame as the pixels.
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
  EXPECT_EQ(got, ReferenceFrame(layout, ClipFramePixels(clip, c.first),
                                ClipFramePixels(clip, c.second), ClipFramePixels(0, c.n),
                                c.quality == 1 ? 2 : 1, c.amount));
  // The result is not just the front frame: the test can see a blur.
  EXPECT_NE(got, ClipFramePixels(0, c.n));
  EXPECT_TRUE(Pauses().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Plugin, RenderPairs,
    testing::Values(PairCase{24, 7, 0, 0, 1, 0, 0.5f, 0}, PairCase{24, 7, 1, 1, 1, 0, 1.0f, 0},
                    PairCase{24, 0, 3, 0, 3, 2, 2.0f, 1}, PairCase{25, 0, 0, 1, 1, 0, 1.5f, 0},
                    PairCase{48, 5, 3, 1, 3, 2, 1.0f, 0}, PairCase{48, 5, 1, 0, 1, 2, -2.0f, 1},
                    PairCase{64, 3, 1, 0, 1, 2, 1.0f, 1}, PairCase{64, 3, 2, 0, 2, 1, -2.0f, 0},
                    PairCase{49, 0, 0, 0, 1, 0, 1.0f, 0}, PairCase{49, 0, 1, 1, 1, 0, 2.0f, 0},
                    PairCase{49, 0, 2, 0, 2, 1, -1.0f, 1}),
    [](const testing::TestParamInfo<PairCase>& info) {
      const PairCase& c = info.param;
      return "format" + std::to_string(c.format) + "_n" + std::to_string(c.n) +
             (c.fromBack ? "_back" : "_front") + (c.amount < 0.0f ? "_sharpen" : "");
    });

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
      const int s = source[i] | source[i + 1] << 8;
      ASSERT_EQ(got[i] | got[i + 1] << 8, s == 0x8000 ? 0 : s) << i;
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
  const FrameLayout layout = Layout(64, 48, 24);
  const std::string flow = "Cannot process image flow due to out of memory error";
  const std::string blur = "Cannot process image blur due to out of memory error";
  int64_t total = 0, flowFailures = 0;
  std::vector<uint8_t> good;
  // k = 0 fails nothing and counts the allocations; the last round has memory again.
  for (int64_t k = 0; k == 0 || k <= total + 1; ++k) {
    Fresh();
    MakeClips(layout, 4, 2.0, 1.0);
    gAllocations = 0;
    gFailAt = k;
    if (k <= total) NuvMemSetHooks(nullptr, CountingAlloc, CountingFree);
    spark_info_struct info = sparkhost::BeginFrame(2);
    EXPECT_EQ(SparkProcess(info), sparkhost::BufferPixels(kResultBuffer));
    NuvMemSetHooks(nullptr, nullptr, nullptr);
    if (k == 0) total = gAllocations.load();
    if (k == 0 || k > total) {
      EXPECT_EQ(Messages(), Strings{});
      if (k == 0) good = ResultPixels();
      EXPECT_EQ(ResultPixels(), good);
      continue;
    }
    const Strings messages = Messages();
    ASSERT_EQ(messages.size(), 1u) << k;
    EXPECT_TRUE(messages[0] == flow || messages[0] == blur) << messages[0];
    flowFailures += messages[0] == flow;
    EXPECT_EQ(Pauses(), std::vector<uint32_t>{1});
    for (uint8_t b : ResultPixels()) ASSERT_EQ(b, 0) << k;
  }
  EXPECT_GT(total, 0);
  EXPECT_GT(flowFailures, 0);
}

}  // namespace
