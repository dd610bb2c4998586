// flowblur tests: the frame driver's order of work: buffers, controls, the neighbouring
// frame, and every row of its failure table.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
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

TEST(SparkNeighbour, Table) {
  const int32_t rows[][3] = {{0, 1, 1},     {1, 2, 0},   {2, 1, 1},   {3, 2, 2},
                             {100, 99, 99}, {-1, 0, -2}, {-5, -4, -6}};
  for (const auto& r : rows) {
    EXPECT_EQ(SparkNeighbourFrame(r[0], 0), r[1]) << r[0];
    EXPECT_EQ(SparkNeighbourFrame(r[0], 1), r[2]) << r[0];
  }
  // A flag value other than 1 is not "from back".
  EXPECT_EQ(SparkNeighbourFrame(1, 2), 2);
  // The ends of the range wrap instead of overflowing.
  const int32_t lo = std::numeric_limits<int32_t>::min();
  EXPECT_EQ(SparkNeighbourFrame(lo, 1), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(SparkNeighbourFrame(lo, 0), std::numeric_limits<int32_t>::max());
}

// Which frames the host is asked for, and into which buffers: the neighbour into tmp, then
// frame n into the motion clip's buffer, then (motion from back) frame n into the back
// buffer again. An unknown format keeps the library out of it, and the result alone.
TEST_F(Driver, AsksForTheNeighbourThenTheFrameOfTheMotionClip) {
  const int32_t rows[][3] = {{0, 1, 1}, {1, 2, 0}, {5, 4, 4}, {-1, 0, -2}};
  for (int32_t format : {26, 0, 47, 65})
    for (const auto& r : rows)
      for (uint8_t fromBack : {0, 1}) {
        Setup(format);
        SparkBoolean2.value = fromBack;
        spark_info_struct info = sparkhost::BeginFrame(r[0] < 0 ? 0 : r[0]);
        info.FrameNo = r[0];
        EXPECT_EQ(SparkProcess(info), Result());
        EXPECT_TRUE(ResultIs(false, info.FrameBytes));
        std::vector<sparkhost::GetFrameCall> calls = sparkhost::GetFrameCalls();
        void* clipBuffer = sparkhost::BufferPixels(fromBack ? kBackBuffer : kFrontBuffer);
        ASSERT_EQ(calls.size(), fromBack ? 3u : 2u) << r[0];
        EXPECT_EQ(calls[0].clip, fromBack);
        EXPECT_EQ(calls[0].frame, r[1 + fromBack]) << r[0] << " " << int(fromBack);
        EXPECT_EQ(calls[0].pixels, sparkhost::BufferPixels(TempBufferId));
        EXPECT_EQ(calls[1].clip, fromBack);
        EXPECT_EQ(calls[1].frame, r[0]);
        EXPECT_EQ(calls[1].pixels, clipBuffer);
        if (fromBack) {
          EXPECT_EQ(calls[2].clip, 1);
          EXPECT_EQ(calls[2].frame, r[0]);
          EXPECT_EQ(calls[2].pixels, sparkhost::BufferPixels(kBackBuffer));
        }
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
        int shown[4];
        for (int k = 0; k < 4; ++k)
          shown[k] = k == which ? 0
                                : static_cast<int>(static_cast<uint32_t>(
                                      reinterpret_cast<uintptr_t>(sparkhost::BufferPixels(kIds[k]))));
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

TEST_F(Driver, ATmpBufferLostWhileLoadingClearsTheResultAndReturnsNull) {
  for (int32_t format : {24, 49, 26}) {
    Setup(format);
    SparkBoolean2.value = 1;
    sparkhost::NullBufferOnGetFrame(TempBufferId);
    spark_info_struct info = sparkhost::BeginFrame(3);
    EXPECT_EQ(SparkProcess(info), nullptr);
    EXPECT_EQ(Messages(), Strings{"Cannot process image due to image buffer parameter error"});
    EXPECT_TRUE(ResultIs(true, info.FrameBytes)) << format;
    // Both frames were loaded; nothing after the failure, so no reload of the back frame.
    EXPECT_EQ(sparkhost::GetFrameCalls().size(), 2u);
    EXPECT_TRUE(Pauses().empty());
  }
}

// Plane allocations: the k-th fails.
int gPlaneCalls = 0;
int gPlaneFailAt = 0;
void* FailingPlane(size_t bytes) {
  return ++gPlaneCalls == gPlaneFailAt ? nullptr : std::calloc(1, bytes);
}

TEST_F(Driver, PlanesThatCannotBeHadAreReportedAfterFreeingTheOthers) {
  for (int failAt = 1; failAt <= 3; ++failAt) {
    Setup(49);
    gPlaneCalls = 0;
    gPlaneFailAt = failAt;
    SparkSetPlaneAllocator(FailingPlane);
    spark_info_struct info = sparkhost::BeginFrame(3);
    EXPECT_EQ(SparkProcess(info), nullptr);
    EXPECT_EQ(gPlaneCalls, failAt);
    EXPECT_EQ(Messages(), Strings{"Cannot process image due to image buffer allocation error"});
    EXPECT_TRUE(ResultIs(true, info.FrameBytes));
    EXPECT_EQ(sparkhost::GetFrameCalls().size(), 2u);
    EXPECT_EQ(sparkhost::Calls().mpFork, 0);  // nothing converted
    EXPECT_TRUE(Pauses().empty());
  }
}

void* NoMemory(void*, uint64_t) { return nullptr; }
void NoFree(void*, void* block) { std::free(block); }

// Without memory for the estimator, the driver reports the flow's out-of-memory case, with
// the full clean-up (and the back frame reloaded).
TEST_F(Driver, ANullEstimatorIsTheFlowOutOfMemoryCase) {
  for (int32_t format : {24, 48, 49}) {
    Setup(format, 24, 20, format == 49 ? 0 : 5);
    SparkBoolean2.value = 1;
    NuvMemSetHooks(nullptr, NoMemory, NoFree);
    spark_info_struct info = sparkhost::BeginFrame(4);
    EXPECT_EQ(SparkProcess(info), Result());
    NuvMemSetHooks(nullptr, nullptr, nullptr);
    EXPECT_EQ(Messages(), Strings{"Cannot process image flow due to out of memory error"});
    EXPECT_EQ(Pauses(), std::vector<uint32_t>{1});
    // Format 49 packs the zeroed output plane back over the cleared result: still zero.
    EXPECT_TRUE(ResultIs(true, info.FrameBytes)) << format;
    std::vector<sparkhost::GetFrameCall> calls = sparkhost::GetFrameCalls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[2].clip, 1);
    EXPECT_EQ(calls[2].frame, 4);
  }
}

// ---- The driver's calls into the library, observed through the call table.

struct FakeCalls {
  // The arguments of each call, in the order the driver passed them.
  std::vector<std::string> order;
  std::vector<std::vector<int64_t>> creates, flows, blurs;
  std::vector<std::vector<void*>> flowImages, blurImages;
  std::vector<void*> destroyed;
  int32_t flowCode = 0;
  int32_t blurCode = 0;
};
FakeCalls gFake;
int gEstimatorToken;  // the fake estimator is this address
PLOpticalFlowUChar* const kToken = reinterpret_cast<PLOpticalFlowUChar*>(&gEstimatorToken);
constexpr uint8_t kBlurFill = 0x3C;  // what the fake render writes into its first row

PLOpticalFlowUChar* FakeCreate(int32_t width, int32_t height, int32_t mode) {
  gFake.order.push_back("create");
  gFake.creates.push_back({width, height, mode});
  return kToken;
}
void FakeDestroy(PLOpticalFlowUChar* estimator) {
  gFake.order.push_back("destroy");
  gFake.destroyed.push_back(estimator);
}
int32_t FakeFlow(PLOpticalFlowUChar* estimator, void* first, int32_t width, int32_t height,
                 int32_t rowBytes, int32_t order, void* second, int32_t secondWidth,
                 int32_t secondHeight, int32_t secondRowBytes, int32_t secondOrder, int32_t type,
                 bool edgeBlend, float levelFactor, float whitePoint) {
  EXPECT_EQ(estimator, kToken);
  EXPECT_FALSE(edgeBlend);
  EXPECT_EQ(levelFactor, 0.7f);
  EXPECT_EQ(whitePoint, 65535.0f);
  gFake.order.push_back("flow");
  gFake.flows.push_back({width, height, rowBytes, order, secondWidth, secondHeight,
                         secondRowBytes, secondOrder, type});
  gFake.flowImages.push_back({first, second});
  return gFake.flowCode;
}
int32_t FakeBlur(PLOpticalFlowUChar* estimator, void* dest, int32_t width, int32_t height,
                 int32_t rowBytes, int32_t order, void* source, int32_t sourceWidth,
                 int32_t sourceHeight, int32_t sourceRowBytes, int32_t sourceOrder, int32_t type,
                 float amount, float whitePoint) {
  EXPECT_EQ(estimator, kToken);
  EXPECT_EQ(whitePoint, 65535.0f);
  gFake.order.push_back("blur");
  gFake.blurs.push_back({width, height, rowBytes, order, sourceWidth, sourceHeight,
                         sourceRowBytes, sourceOrder, type, static_cast<int64_t>(amount * 100)});
  gFake.blurImages.push_back({dest, source});
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

class DriverCalls : public Driver {
 protected:
  void TearDown() override {
    SparkSetFlowCalls(nullptr);
    Driver::TearDown();
  }
  // A fresh host with the fake calls in place, the call for frame n described.
  spark_info_struct Begin(int32_t format, int32_t n, int32_t pad) {
    Setup(format, 30, 22, pad);
    gFake = FakeCalls();
    gClearedAtPause.clear();
    SparkSetFlowCalls(&kFakeTable);
    SparkSetPause(PauseAndLook);
    spark_info_struct info = sparkhost::BeginFrame(n);
    gFrameBytes = info.FrameBytes;
    return info;
  }
  // The result's half samples: the fake's first row where it rendered, zeros after it.
  void ExpectHalfResult(bool written) {
    std::vector<uint8_t> result = plugintest::ResultPixels();
    const uint16_t fill = SparkFloatToHalf(kBlurFill / 255.0f);
    for (size_t i = 0; i < result.size(); i += 2) {
      uint16_t h;
      std::memcpy(&h, &result[i], 2);
      ASSERT_EQ(h, i < 30 * 6 && written ? fill : 0) << i;
    }
  }
};

TEST_F(DriverCalls, InPlaceFormatsPassTheHostBuffers) {
  for (int32_t format : {24, 25, 48, 64})
    for (int32_t n : {0, 3}) {
      spark_info_struct info = Begin(format, n, 6);
      SparkFloat0.value = 1.25f;
      SparkPup1.value = 1;
      EXPECT_EQ(SparkProcess(info), Result());
      EXPECT_EQ(gFake.order, (Strings{"create", "flow", "blur", "destroy"}));
      EXPECT_EQ(gFake.creates[0], (std::vector<int64_t>{30, 22, 2}));  // Draft
      void* current = sparkhost::BufferPixels(kFrontBuffer);
      void* tmp = sparkhost::BufferPixels(TempBufferId);
      const int64_t stride = 30 * (format == 24 || format == 25 ? 3 : 6) + 6;
      const int64_t type = format == 24 || format == 25 ? 0 : 1;
      EXPECT_EQ(gFake.flowImages[0], (n == 0 ? std::vector<void*>{tmp, current}
                                             : std::vector<void*>{current, tmp}));
      EXPECT_EQ(gFake.flows[0], (std::vector<int64_t>{30, 22, stride, 1, 30, 22, stride, 1, type}));
      EXPECT_EQ(gFake.blurImages[0], (std::vector<void*>{Result(), current}));
      EXPECT_EQ(gFake.blurs[0],
                (std::vector<int64_t>{30, 22, stride, 1, 30, 22, stride, 1, type, 125}));
      EXPECT_EQ(gFake.destroyed, std::vector<void*>{kToken});
    }
}

TEST_F(DriverCalls, HalfFloatsGoThroughFloatPlanes) {
  for (int32_t n : {0, 1, 4}) {
    spark_info_struct info = Begin(49, n, 0);
    EXPECT_EQ(SparkProcess(info), Result());
    EXPECT_EQ(gFake.order, (Strings{"create", "flow", "blur", "destroy"}));
    EXPECT_EQ(gFake.creates[0][2], 1);  // Best
    EXPECT_EQ(gFake.flows[0], (std::vector<int64_t>{30, 22, 360, 1, 30, 22, 360, 1, 2}));
    EXPECT_EQ(gFake.blurs[0], (std::vector<int64_t>{30, 22, 360, 1, 30, 22, 360, 1, 2, 50}));
    // Planes: A the current frame (then the front frame), B the neighbour, C the output.
    void* a = gFake.flowImages[0][n == 0 ? 1 : 0];
    void* b = gFake.flowImages[0][n == 0 ? 0 : 1];
    void* c = gFake.blurImages[0][0];
    EXPECT_EQ(gFake.blurImages[0][1], a);
    EXPECT_NE(c, a);
    EXPECT_NE(c, b);
    for (void* p : {a, b, c})
      for (int32_t id : kIds) EXPECT_NE(p, sparkhost::BufferPixels(id));
    ExpectHalfResult(true);
  }
}

struct FailureRow {
  bool inFlow;
  int32_t code;
  const char* message;  // null: none
};

class DriverFailures : public DriverCalls, public testing::WithParamInterface<FailureRow> {};

TEST_P(DriverFailures, MessageResultAndPause) {
  const FailureRow& row = GetParam();
  for (int32_t format : {24, 48, 49}) {
    SCOPED_TRACE(format);
    spark_info_struct info = Begin(format, 3, format == 49 ? 0 : 4);
    (row.inFlow ? gFake.flowCode : gFake.blurCode) = row.code;
    SparkBoolean2.value = 1;
    EXPECT_EQ(SparkProcess(info), Result());
    EXPECT_EQ(Messages(), row.message ? Strings{row.message} : Strings{});
    EXPECT_EQ(Pauses(), row.message ? std::vector<uint32_t>{1} : std::vector<uint32_t>{});
    // Cleared before the message.
    EXPECT_EQ(gClearedAtPause, row.message ? std::vector<bool>{true} : std::vector<bool>{});
    // Clean-up on every path: the estimator destroyed, the back frame reloaded.
    EXPECT_EQ(gFake.order.back(), "destroy");
    EXPECT_EQ(gFake.order.size(), row.inFlow ? 3u : 4u);
    std::vector<sparkhost::GetFrameCall> calls = sparkhost::GetFrameCalls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[2].clip, 1);
    EXPECT_EQ(calls[2].frame, 3);
    // What the result holds afterwards. Half floats are always packed back from the output
    // plane, over a cleared result too.
    if (format == 49) {
      ExpectHalfResult(!row.inFlow);
    } else if (row.message || row.inFlow) {
      EXPECT_TRUE(ResultIs(row.message != nullptr, info.FrameBytes));
    } else {  // an unreported render code: the result as rendered so far
      std::vector<uint8_t> result = plugintest::ResultPixels();
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

// Amount 0 copies the source whatever the flow, which shows how each image was wrapped.
TEST(SparkFlowCalls, RowOrderZeroFlipsTheImage) {
  const int32_t w = 40, h = 36;
  std::vector<uint8_t> frame(w * h * 3), out(w * h * 3, 0);
  for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 37 + i / 120);
  PLOpticalFlowUChar* e = CreateFlowEstimator(w, h, 1);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(CalculateFlow(e, frame.data(), w, h, w * 3, 1, frame.data(), w, h, w * 3, 0, 0, false,
                          0.7f, 65535.0f),
            0);
  EXPECT_EQ(
      RenderBlur(e, out.data(), w, h, w * 3, 1, frame.data(), w, h, w * 3, 0, 0, 0.0f, 65535.0f),
      0);
  for (int32_t y = 0; y < h; ++y)
    ASSERT_EQ(0, std::memcmp(&out[y * w * 3], &frame[(h - 1 - y) * w * 3], w * 3)) << y;
  EXPECT_EQ(
      RenderBlur(e, out.data(), w, h, w * 3, 0, frame.data(), w, h, w * 3, 0, 0, 0.0f, 65535.0f),
      0);
  EXPECT_EQ(out, frame);
  DestroyFlowEstimator(e);
}

// 16-bit frames whose white is not 65535: widened before the render, narrowed back after the
// flow. The driver always passes 65535, which changes nothing.
TEST(SparkFlowCalls, SixteenBitWhitePointScaling) {
  const int32_t w = 32, h = 32;
  std::vector<uint16_t> a(w * h * 3), b, out(w * h * 3);
  for (size_t i = 0; i < a.size(); ++i) a[i] = static_cast<uint16_t>(i % 3 == 0 ? 4095 : i);
  b = a;
  const std::vector<uint16_t> original = a;
  PLOpticalFlowUChar* e = CreateFlowEstimator(w, h, 1);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(CalculateFlow(e, a.data(), w, h, w * 6, 1, b.data(), w, h, w * 6, 1, 1, false, 0.7f,
                          65535.0f),
            0);
  EXPECT_EQ(RenderBlur(e, out.data(), w, h, w * 6, 1, a.data(), w, h, w * 6, 1, 1, 0.0f, 65535.0f),
            0);
  EXPECT_EQ(a, original);
  EXPECT_EQ(out, original);
  // White 4095: the source is widened in place, and the render sees the widened values.
  EXPECT_EQ(RenderBlur(e, out.data(), w, h, w * 6, 1, a.data(), w, h, w * 6, 1, 1, 0.0f, 4095.0f),
            0);
  EXPECT_EQ(a[0], 65535);
  EXPECT_EQ(out, a);
  EXPECT_NEAR(a[4], 4 * 65535.0 / 4095.0, 1.0);
  // And after a flow both inputs are narrowed to 4095 again, clamped there.
  EXPECT_EQ(
      CalculateFlow(e, a.data(), w, h, w * 6, 1, b.data(), w, h, w * 6, 1, 1, false, 0.7f, 4095.0f),
      0);
  EXPECT_EQ(a[0], 4095);
  EXPECT_NEAR(a[4], 4.0, 1.0);
  EXPECT_EQ(b[0], 256);  // 4095 x 4095 / 65535, rounded
  DestroyFlowEstimator(e);
}

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
