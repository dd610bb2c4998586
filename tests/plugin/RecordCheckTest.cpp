// flowblur tests: hosts whose buffer records disagree with each other. The driver refuses
// them before loading anything, and writes nothing outside a buffer as its record describes
// it (checked with the host simulator's guarded buffers).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/SparkHost.h"
#include "shell/shell.h"
#include "tests/plugin/PluginTestSupport.h"

namespace {

using plugintest::Layout;
using plugintest::Pauses;
using sparkhost::FrameLayout;

// kLateParameter: refused by the render once the frames are loaded (motion from back, so
// the back frame is reloaded after it).
enum class Outcome { kRendered, kParameter, kLateParameter, kRefused };

struct RecordCase {
  const char* name;
  FrameLayout clip;  // both clips; every buffer follows them unless set below
  int32_t buffer;    // the buffer that disagrees (0: none)
  FrameLayout layout;
  uint8_t fromBack;
  int32_t processors;  // ProcessorCount sent
  Outcome outcome;
  int32_t frameBytes = 0;  // FrameBytes sent, when not the host's own
};


class RecordCheck : public plugintest::PluginTest,
                    public testing::WithParamInterface<RecordCase> {};

TEST_P(RecordCheck, RefusedBeforeAnyWriteOutsideTheBuffers) {
  const RecordCase& c = GetParam();
  sparkhost::Reset();
  sparkhost::SetGuardedBuffers(true);
  SparkMemoryTempBuffers();
  MakeClips(c.clip, 3, 1.0, 0.5, 0.5, 1.0);
  if (c.buffer) sparkhost::SetBuffer(c.buffer, c.layout);
  SparkBoolean2.value = c.fromBack;
  spark_info_struct info = sparkhost::BeginFrame(1);
  if (c.frameBytes) info.FrameBytes = c.frameBytes;
  info.ProcessorCount = static_cast<int8_t>(c.processors);
  void* result = sparkhost::BufferPixels(sparkhost::kResultBuffer);
  // The result's whole span as its record gives it (its rows may be shorter than its width).
  auto span = [] {
    const uint8_t* r = sparkhost::BufferPixels(sparkhost::kResultBuffer);
    return std::vector<uint8_t>(r, r + sparkhost::BufferCapacity(sparkhost::kResultBuffer));
  };
  std::vector<uint8_t> before = span();

  testing::internal::CaptureStderr();
  void* got = SparkProcess(info);
  std::string errors = testing::internal::GetCapturedStderr();

  const std::vector<std::string> messages = plugintest::Messages();
  const int64_t cleared = messages.empty() ? 0 : info.FrameBytes;
  EXPECT_EQ(sparkhost::GuardDamage(cleared), std::vector<std::string>());
  std::vector<uint8_t> after = span();
  switch (c.outcome) {
    case Outcome::kRendered:
      EXPECT_EQ(got, result);
      EXPECT_TRUE(messages.empty()) << messages[0];
      EXPECT_NE(after, std::vector<uint8_t>(after.size(), 0));  // something was drawn
      break;
    case Outcome::kParameter:
    case Outcome::kLateParameter:
      EXPECT_EQ(got, result);
      EXPECT_EQ(messages,
                std::vector<std::string>{"Cannot process image blur due to parameter error"});
      EXPECT_EQ(Pauses(), std::vector<uint32_t>{1});
      EXPECT_EQ(after, std::vector<uint8_t>(after.size(), 0));
      EXPECT_EQ(sparkhost::GetFrameCalls().size(), c.outcome == Outcome::kParameter ? 0u : 3u);
      break;
    case Outcome::kRefused:
      EXPECT_EQ(got, nullptr);
      EXPECT_TRUE(messages.empty());
      EXPECT_EQ(after, before);
      EXPECT_TRUE(sparkhost::GetFrameCalls().empty());
      EXPECT_EQ(errors.rfind("Error: buffer records refused: ", 0), 0u) << errors;
      break;
  }
}

const FrameLayout k8 = Layout(40, 34, 24);
const FrameLayout k16 = Layout(40, 34, 48, 6);
const FrameLayout kHalf = Layout(40, 34, 49);
constexpr int32_t kResult = sparkhost::kResultBuffer;
constexpr int32_t kFront = sparkhost::kFrontBuffer;
constexpr int32_t kBack = sparkhost::kBackBuffer;
constexpr int32_t kTmp = sparkhost::kFirstTempBuffer;

INSTANTIATE_TEST_SUITE_P(
    Hosts, RecordCheck,
    testing::Values(
        // In the design: agreeing records, and a motion clip smaller than the front.
        RecordCase{"agreeing8", k8, 0, {}, 0, 2, Outcome::kRendered},
        RecordCase{"agreeing16padded", k16, 0, {}, 0, 3, Outcome::kRendered},
        RecordCase{"agreeingHalf", kHalf, 0, {}, 1, 2, Outcome::kRendered},
        RecordCase{"result25for24", k8, kResult, Layout(40, 34, 25), 0, 1, Outcome::kRendered},
        RecordCase{"smallerBackClip", k8, kBack, Layout(30, 20, 24), 1, 2, Outcome::kRendered},
        // The result in another sample layout than the front.
        RecordCase{"result8for16", k16, kResult, Layout(40, 34, 24), 0, 2, Outcome::kParameter},
        // A FrameBytes larger than the result: the clearing stops at the buffer's end.
        RecordCase{"frameBytesPastTheResult", k16, kResult, Layout(40, 34, 24), 0, 2,
                   Outcome::kParameter, 1 << 20},
        RecordCase{"result16for8", k8, kResult, Layout(40, 34, 64), 0, 2, Outcome::kParameter},
        RecordCase{"result16forHalf", kHalf, kResult, Layout(40, 34, 48), 0, 2,
                   Outcome::kParameter},
        RecordCase{"resultHalffor16", k16, kResult, Layout(40, 34, 49), 0, 2,
                   Outcome::kParameter},
        RecordCase{"resultUnknown", k8, kResult, Layout(40, 34, 26), 0, 2, Outcome::kRefused},
        RecordCase{"resultMinusOne", k16, kResult, Layout(40, 34, -1), 0, 2, Outcome::kRefused},
        RecordCase{"resultRowsTooShort", k8, kResult, FrameLayout{40, 34, 24, 100}, 0, 2,
                   Outcome::kRefused},
        // Another size than the front: the render refuses it.
        RecordCase{"result8Narrower", k8, kResult, Layout(36, 34, 24), 1, 2,
                   Outcome::kLateParameter},
        RecordCase{"result16Shorter", k16, kResult, Layout(40, 30, 48), 1, 3,
                   Outcome::kLateParameter},
        // Half floats of another size than the result, or with padded rows.
        RecordCase{"halfResultLarger", kHalf, kResult, Layout(44, 34, 49), 0, 2,
                   Outcome::kParameter},
        RecordCase{"halfResultSmaller", kHalf, kResult, Layout(40, 30, 49), 0, 2,
                   Outcome::kParameter},
        RecordCase{"halfResultPadded", kHalf, kResult, Layout(40, 34, 49, 6), 0, 2,
                   Outcome::kParameter},
        RecordCase{"halfTmpSmaller", kHalf, kTmp, Layout(40, 33, 49), 0, 2, Outcome::kParameter},
        // Motion from a back clip of another size or format than the half-float front.
        RecordCase{"halfBackSmaller", kHalf, kBack, Layout(30, 20, 49), 1, 2, Outcome::kParameter},
        RecordCase{"back8forHalf", kHalf, kBack, Layout(40, 34, 24), 1, 2, Outcome::kParameter},
        // The back or tmp record too small for a frame of the motion clip.
        RecordCase{"tmpSmaller", k8, kTmp, Layout(40, 20, 24), 0, 2, Outcome::kParameter},
        RecordCase{"tmp8for16", k16, kTmp, Layout(40, 34, 24), 0, 2, Outcome::kParameter},
        RecordCase{"backRowsTooShort", k8, kBack, FrameLayout{40, 34, 24, 90}, 1, 2,
                   Outcome::kParameter},
        // More processors than the fork-join table holds.
        RecordCase{"processors65", k8, 0, {}, 0, 65, Outcome::kRefused},
        RecordCase{"processors127", k16, 0, {}, 0, 127, Outcome::kRefused}),
    [](const testing::TestParamInfo<RecordCase>& info) { return std::string(info.param.name); });

}  // namespace
