// flowblur tests: the frame driver's order of work: buffers, controls, the neighbouring
// frame, and every row of its failure table.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "flow/PLOpticalFlowUChar.h"
#include "host/SparkHost.h"
#include "runtime/NuvMem.h"
#include "shell/shell.h"
#include "tests/plugin/PluginTestSupport.h"

namespace {

using plugintest::Layout;
using plugintest::Messages;
using plugintest::Pauses;
using sparkhost::kBackBuffer;
using sparkhost::kFrontBuffer;
using sparkhost::kResultBuffer;
using Strings = std::vector<std::string>;

constexpr uint8_t kUntouched = 0xA5;
const int32_t kIds[] = {1, 2, 3, 4};  // result, front, back, the first temporary buffer

class Driver : public plugintest::PluginTest {
 protected:
  // A fresh host, both clips 10 frames of `format`, the result filled with a marker byte.
  void Setup(int32_t format, int32_t width = 24, int32_t height = 20, int32_t pad = 0) {
    Fresh();
    MakeClips(Layout(width, height, format, pad), 10, 1.0, 0.0, 0.0, 1.0);
    uint8_t* r = sparkhost::BufferPixels(kResultBuffer);
    std::memset(r, kUntouched, static_cast<size_t>(sparkhost::BufferCapacity(kResultBuffer)));
  }
  // Whole block untouched, or the first frameBytes bytes zero and the rest untouched.
  bool ResultIs(bool cleared, int32_t frameBytes) {
    const uint8_t* r = sparkhost::BufferPixels(kResultBuffer);
    for (int64_t i = 0; i < sparkhost::BufferCapacity(kResultBuffer); ++i)
      if (r[i] != (cleared && i < frameBytes ? 0 : kUntouched)) return false;
    return true;
  }
  void* Result() { return sparkhost::BufferPixels(kResultBuffer); }
};

// The frames the host was asked for: clip, frame and destination of each call.
using Load = std::tuple<int32_t, int32_t, void*>;
std::vector<Load> Loads() {
  std::vector<Load> out;
  for (const sparkhost::GetFrameCall& c : sparkhost::GetFrameCalls())
    out.emplace_back(c.clip, c.frame, c.pixels);
  return out;
}
void* Pixels(int32_t id) { return sparkhost::BufferPixels(id); }

// Which frames the host is asked for, and into which buffers: the neighbour into tmp, then
// frame n into the motion clip's buffer, then (motion from back) frame n into the back
// buffer again. A flag value other than 1 is not "from back"; the ends of the frame range
// wrap instead of overflowing. An unknown format keeps the library out of it, and the result
// alone.
TEST_F(Driver, AsksForTheNeighbourThenTheFrameOfTheMotionClip) {
  const int32_t lo = std::numeric_limits<int32_t>::min(), hi = std::numeric_limits<int32_t>::max();
  const int32_t rows[][3] = {{0, 1, 1},     {1, 2, 0},   {2, 1, 1},    {3, 2, 2},
                             {100, 99, 99}, {-1, 0, -2}, {-5, -4, -6}, {lo, hi, hi}};
  for (int32_t format : {26, 0})
    for (const auto& r : rows)
      for (uint8_t flag : {0, 1, 2}) {
        Setup(format);
        SparkBoolean2.value = flag;
        const int32_t back = flag == 1;
        spark_info_struct info = sparkhost::BeginFrame(3);
        info.FrameNo = r[0];
        EXPECT_EQ(SparkProcess(info), Result());
        EXPECT_TRUE(ResultIs(false, info.FrameBytes));
        std::vector<Load> want = {{back, r[1 + back], Pixels(TempBufferId)},
                                  {back, r[0], Pixels(back ? kBackBuffer : kFrontBuffer)}};
        if (back) want.emplace_back(1, r[0], Pixels(kBackBuffer));
        EXPECT_EQ(Loads(), want) << r[0] << " " << int(flag);
        EXPECT_TRUE(sparkhost::Notes().empty());
        EXPECT_TRUE(Pauses().empty());
        EXPECT_EQ(sparkhost::Calls().mpFork, 0);
        EXPECT_EQ(sparkhost::GetBufferCalls(), std::vector<int32_t>(kIds, kIds + 4));
      }
}

TEST_F(Driver, ProcessorCountAndFrameSizeAreHandedOnFirst) {
  Setup(26, 30, 17);
  sparkhost::SetBuffer(kResultBuffer, Layout(33, 19, 26));
  sparkhost::SetProcessors(3);
  spark_info_struct info = sparkhost::BeginFrame(2);
  Width = Height = 0;
  NuvMPSetThreadCount(0);
  SparkProcess(info);
  EXPECT_EQ(NuvMPGetRawThreadCount(), 3);
  EXPECT_EQ(Width, 33);
  EXPECT_EQ(Height, 19);
  // Not validated: a negative count is stored as it is.
  info.ProcessorCount = -2;
  SparkProcess(info);
  EXPECT_EQ(NuvMPGetRawThreadCount(), -2);
  EXPECT_EQ(sparkhost::Calls().cursorBusy, 2);
}

// A buffer that cannot be fetched ends the call at once; one that is not usable after all
// four fetches; a null pointer (tested after the state bits) is reported on standard error.
// Every way returns null and leaves the result alone.
TEST_F(Driver, BufferFaultsEndTheCallBeforeAnyFrameIsLoaded) {
  for (int32_t fault = 0; fault < 3; ++fault)
    for (int32_t which = 0; which < 4; ++which) {
      Setup(24);
      const int32_t id = kIds[which];
      char want[200] = "";
      if (fault == 0) sparkhost::FailGetBuffer(id);
      if (fault == 1) sparkhost::ClearUsableBit(id);
      if (fault == 1) sparkhost::NullBufferPointer(kIds[(which + 1) % 4]);
      if (fault == 2) {
        sparkhost::NullBufferPointer(id);
        int shown[4];  // the low 32 bits of each pointer, as the message prints them
        for (int k = 0; k < 4; ++k)
          shown[k] = k == which ? 0
                                : static_cast<int>(reinterpret_cast<uintptr_t>(Pixels(kIds[k])));
        std::snprintf(want, sizeof want,
                      "Error: null buffer pointer result(%d) front(%d) back(%d) tmp(%d)\n",
                      shown[0], shown[1], shown[2], shown[3]);
      }
      testing::internal::CaptureStderr();
      spark_info_struct info = sparkhost::BeginFrame(3);
      EXPECT_EQ(SparkProcess(info), nullptr);
      EXPECT_EQ(testing::internal::GetCapturedStderr(), want);
      const size_t fetched = fault == 0 ? static_cast<size_t>(which) + 1 : 4;
      EXPECT_EQ(sparkhost::GetBufferCalls(), std::vector<int32_t>(kIds, kIds + fetched));
      EXPECT_TRUE(sparkhost::GetFrameCalls().empty());
      EXPECT_TRUE(sparkhost::Notes().empty());
      EXPECT_TRUE(ResultIs(false, info.FrameBytes));
      EXPECT_TRUE(Pauses().empty());
    }
}

// Plane allocations: the k-th fails.
int gPlaneCalls = 0;
int gPlaneFailAt = 0;
void* FailingPlane(size_t bytes) {
  return ++gPlaneCalls == gPlaneFailAt ? nullptr : std::calloc(1, bytes);
}

// A tmp buffer lost while loading (any format), or the k-th half-float plane refused (the
// others freed): null back, the result cleared, one message, nothing converted, no reload.
TEST_F(Driver, ALostTmpBufferOrARefusedPlaneClearsTheResultAndReturnsNull) {
  for (auto [format, failAt] : {std::pair{24, 0}, {49, 0}, {26, 0}, {49, 1}, {49, 2}, {49, 3}}) {
    Setup(format);
    SparkBoolean2.value = 1;
    gPlaneCalls = 0;
    gPlaneFailAt = failAt;
    if (failAt) SparkSetPlaneAllocator(FailingPlane);
    if (!failAt) sparkhost::NullBufferOnGetFrame(TempBufferId);
    spark_info_struct info = sparkhost::BeginFrame(3);
    EXPECT_EQ(SparkProcess(info), nullptr);
    EXPECT_EQ(gPlaneCalls, failAt);
    const char* why = failAt ? "allocation" : "parameter";
    EXPECT_EQ(Messages(), Strings{std::string("Cannot process image due to image buffer ") + why +
                                  " error"});
    EXPECT_TRUE(ResultIs(true, info.FrameBytes)) << format;
    EXPECT_EQ(sparkhost::GetFrameCalls().size(), 2u);
    EXPECT_EQ(sparkhost::Calls().mpFork, 0);
    EXPECT_TRUE(Pauses().empty());
  }
}

// ---- The driver's calls into the library, observed through the call table.

// The driver's calls in order, and the codes the fakes give back. The arguments themselves
// are checked against the real calls in the render tests.
struct FakeCalls {
  std::vector<std::string> order;
  int32_t flowCode = 0;
  int32_t blurCode = 0;
};
FakeCalls gFake;
int gEstimatorToken;  // the fake estimator is this address
PLOpticalFlowUChar* const kToken = reinterpret_cast<PLOpticalFlowUChar*>(&gEstimatorToken);
constexpr uint8_t kBlurFill = 0x3C;  // what the fake render writes into its first row

PLOpticalFlowUChar* FakeCreate(int32_t, int32_t, int32_t) {
  gFake.order.push_back("create");
  return kToken;
}
void FakeDestroy(PLOpticalFlowUChar* estimator) {
  EXPECT_EQ(estimator, kToken);
  gFake.order.push_back("destroy");
}
int32_t FakeFlow(PLOpticalFlowUChar* estimator, void*, int32_t, int32_t, int32_t, int32_t, void*,
                 int32_t, int32_t, int32_t, int32_t, int32_t, bool, float, float) {
  EXPECT_EQ(estimator, kToken);
  gFake.order.push_back("flow");
  return gFake.flowCode;
}
int32_t FakeBlur(PLOpticalFlowUChar* estimator, void* dest, int32_t width, int32_t, int32_t,
                 int32_t, void*, int32_t, int32_t, int32_t, int32_t, int32_t type, float, float) {
  EXPECT_EQ(estimator, kToken);
  gFake.order.push_back("blur");
  // Something rendered: the first row of the destination, in its own sample type.
  if (type == 2) {
    float v = kBlurFill / 255.0f;
    for (int32_t i = 0; i < width * 3; ++i) std::memcpy(static_cast<uint8_t*>(dest) + 4 * i, &v, 4);
  } else {
    std::memset(dest, kBlurFill, static_cast<size_t>(width) * 3 * (type == 1 ? 2 : 1));
  }
  return gFake.blurCode;
}
const SparkFlowCallTable kFakeTable = {FakeCreate, FakeDestroy, FakeFlow, FakeBlur};

// Whether the result's FrameBytes were all zero when the driver paused.
std::vector<bool> gClearedAtPause;
int32_t gFrameBytes = 0;
void PauseAndLook(uint32_t seconds) {
  plugintest::RecordPause(seconds);
  const uint8_t* r = sparkhost::BufferPixels(kResultBuffer);
  bool zero = true;
  for (int32_t i = 0; i < gFrameBytes; ++i) zero = zero && r[i] == 0;
  gClearedAtPause.push_back(zero);
}

struct FailureRow {
  bool inFlow;
  int32_t code;
  const char* message;  // null: none
};

class DriverFailures : public Driver, public testing::WithParamInterface<FailureRow> {
 protected:
  void TearDown() override {
    SparkSetFlowCalls(nullptr);
    Driver::TearDown();
  }
};

TEST_P(DriverFailures, MessageResultAndPause) {
  const FailureRow& row = GetParam();
  for (int32_t format : {24, 48, 49}) {
    SCOPED_TRACE(format);
    Setup(format, 30, 22, format == 49 ? 0 : 4);
    gFake = FakeCalls();
    gClearedAtPause.clear();
    SparkSetFlowCalls(&kFakeTable);
    SparkSetPause(PauseAndLook);
    spark_info_struct info = sparkhost::BeginFrame(3);
    gFrameBytes = info.FrameBytes;
    (row.inFlow ? gFake.flowCode : gFake.blurCode) = row.code;
    SparkBoolean2.value = 1;
    EXPECT_EQ(SparkProcess(info), Result());
    EXPECT_EQ(Messages(), row.message ? Strings{row.message} : Strings{});
    EXPECT_EQ(Pauses(), row.message ? std::vector<uint32_t>{1} : std::vector<uint32_t>{});
    // Cleared before the message.
    EXPECT_EQ(gClearedAtPause, row.message ? std::vector<bool>{true} : std::vector<bool>{});
    // Clean-up on every path: the estimator destroyed, the back frame reloaded.
    EXPECT_EQ(gFake.order, (row.inFlow ? Strings{"create", "flow", "destroy"}
                                       : Strings{"create", "flow", "blur", "destroy"}));
    EXPECT_EQ(Loads().back(), Load(1, 3, Pixels(kBackBuffer)));
    // What the result holds afterwards. Half floats are always packed back from the output
    // plane, over a cleared result too: the fake's first row where it rendered, zeros after.
    const std::vector<uint8_t> result = plugintest::ResultPixels();
    if (format == 49) {
      const uint16_t fill = SparkFloatToHalf(kBlurFill / 255.0f);
      for (size_t i = 0; i < result.size(); i += 2)
        ASSERT_EQ(result[i] | result[i + 1] << 8, i < 30 * 6 && !row.inFlow ? fill : 0) << i;
    } else if (row.message || row.inFlow) {
      EXPECT_TRUE(ResultIs(row.message != nullptr, info.FrameBytes));
    } else {  // an unreported render code: the result as rendered so far
      const size_t rowUsed = 30 * (format == 24 ? 3 : 6);
      for (size_t i = 0; i < result.size(); ++i)
        ASSERT_EQ(result[i], i < rowUsed ? kBlurFill : kUntouched) << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Plugin, DriverFailures,
    testing::Values(FailureRow{true, 1, "Cannot process image flow due to out of memory error"},
                    FailureRow{true, 5, "Cannot process image flow due to parameter error"},
                    FailureRow{true, 6, nullptr}, FailureRow{true, 2, nullptr},
                    FailureRow{false, 1, "Cannot process image blur due to out of memory error"},
                    FailureRow{false, 5, "Cannot process image blur due to parameter error"},
                    FailureRow{false, 6, nullptr}, FailureRow{false, 7, nullptr}),
    [](const testing::TestParamInfo<FailureRow>& info) {
      return std::string(info.param.inFlow ? "flow" : "blur") + std::to_string(info.param.code);
    });

// ---- The flow and render calls on their own.

TEST(SparkFlowCalls, SizeMismatchesAreParameterErrorsBeforeAnythingIsWrapped) {
  uint8_t a[4 * 4 * 3] = {}, b[4 * 5 * 3] = {};
  uint8_t dst[4 * 5 * 3];
  std::memset(dst, kUntouched, sizeof dst);
  EXPECT_EQ(CalculateFlow(nullptr, a, 4, 4, 12, 1, b, 4, 5, 12, 1, 0, false, 0.7f, 65535.0f), 5);
  EXPECT_EQ(CalculateFlow(nullptr, a, 4, 4, 12, 1, b, 5, 4, 15, 1, 0, false, 0.7f, 65535.0f), 5);
  EXPECT_EQ(RenderBlur(nullptr, dst, 4, 5, 12, 1, a, 4, 4, 12, 1, 0, 0.5f, 65535.0f), 5);
  EXPECT_EQ(RenderBlur(nullptr, dst, 4, 5, 12, 1, a, 5, 5, 15, 1, 0, 0.5f, 65535.0f), 5);
  for (uint8_t v : dst) ASSERT_EQ(v, kUntouched);
  // Same sizes but no estimator: what a failed build means.
  EXPECT_EQ(CalculateFlow(nullptr, a, 4, 4, 12, 1, a, 4, 4, 12, 1, 0, false, 0.7f, 65535.0f), 1);
  EXPECT_EQ(RenderBlur(nullptr, dst, 4, 5, 12, 1, b, 4, 5, 12, 1, 0, 0.5f, 65535.0f), 1);
  DestroyFlowEstimator(nullptr);
}

void* NoMemory(void*, uint64_t) { return nullptr; }
void NoFree(void*, void* block) { std::free(block); }

// Modes outside 0..2 and a failed allocation give no estimator.
TEST(SparkFlowCalls, EstimatorModes) {
  for (int32_t mode : {-1, 3, 4}) EXPECT_EQ(CreateFlowEstimator(64, 48, mode), nullptr) << mode;
  for (int32_t mode : {0, 1, 2}) {
    PLOpticalFlowUChar* e = CreateFlowEstimator(64, 48, mode);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->workWidth, 64 >> mode);
    EXPECT_EQ(e->workHeight, 48 >> mode);
    EXPECT_EQ(e->useHints + e->useMasks, 0);
    EXPECT_EQ(e->minLevelSize, 12);
    DestroyFlowEstimator(e);
  }
  NuvMemSetHooks(nullptr, NoMemory, NoFree);
  EXPECT_EQ(CreateFlowEstimator(64, 48, 1), nullptr);
  NuvMemSetHooks(nullptr, nullptr, nullptr);
}

}  // namespace
