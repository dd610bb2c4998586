// flowblur: the host simulator's buffers, frames, injections, records and processors.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/SparkHost.h"

namespace sh = sparkhost;

namespace {

struct HostTest : ::testing::Test {
  void SetUp() override { sh::Reset(); }
  void TearDown() override { sh::Reset(); }
};

sh::FrameLayout Layout(int32_t w, int32_t h, int32_t format, int32_t stride = 0) {
  sh::FrameLayout layout;
  layout.width = w;
  layout.height = h;
  layout.formatCode = format;
  layout.stride = stride;
  return layout;
}

// A value per frame, pixel and channel that no two of them share in a small clip.
uint32_t Pattern(int32_t frame, int32_t x, int32_t y, int32_t c) {
  return static_cast<uint32_t>(frame * 97 + y * 31 + x * 7 + c * 3 + 1);
}

void FillClip(int32_t clip) {
  sh::FrameLayout layout = sh::ClipLayout(clip);
  uint32_t mask = sh::BytesPerPixel(layout.formatCode) == 3 ? 0xFF : 0xFFFF;
  for (int32_t f = 0; f < sh::ClipFrames(clip); ++f)
    for (int32_t y = 0; y < layout.height; ++y)
      for (int32_t x = 0; x < layout.width; ++x)
        for (int32_t c = 0; c < 3; ++c)
          sh::SetSample(sh::ClipFrame(clip, f), layout, x, y, c, Pattern(f, x, y, c) & mask);
}

// Number of samples of `block` that differ from frame `frame`'s pattern.
int64_t Mismatches(const void* block, const sh::FrameLayout& layout, int32_t frame) {
  uint32_t mask = sh::BytesPerPixel(layout.formatCode) == 3 ? 0xFF : 0xFFFF;
  int64_t bad = 0;
  for (int32_t y = 0; y < layout.height; ++y)
    for (int32_t x = 0; x < layout.width; ++x)
      for (int32_t c = 0; c < 3; ++c)
        bad += sh::Sample(block, layout, x, y, c) != (Pattern(frame, x, y, c) & mask);
  return bad;
}

TEST_F(HostTest, DefaultsAfterReset) {
  sh::SetProcessors(8);
  sh::SetAPIVersion(3.5f);
  sh::SetClip(0, Layout(4, 4, 24), 2);
  EXPECT_EQ(sparkMemRegisterBuffer(), 4);
  sparkMessage("x");
  sh::Reset();
  EXPECT_EQ(sh::Processors(), 1);
  EXPECT_EQ(sparkAPIVersionInfo(), 4.0f);
  EXPECT_EQ(sh::ClipFrames(0), 0);
  EXPECT_EQ(sh::FramePixels(), 0);
  EXPECT_EQ(sh::BufferPixels(sh::kResultBuffer), nullptr);
  EXPECT_TRUE(sh::Notes().empty());
  EXPECT_EQ(sh::RegisteredBuffers(), 0);
  EXPECT_EQ(sparkMemRegisterBuffer(), 4);
  EXPECT_EQ(sparkMemRegisterBuffer(), 5) << "ids count up from four";
  EXPECT_EQ(sh::RegisteredBuffers(), 2);
  EXPECT_THROW(sh::BufferLayout(6), std::invalid_argument);
}

TEST_F(HostTest, RecordsCarryEachBuffersLayoutAtTheirOffsets) {
  sh::SetClip(0, Layout(5, 3, 48, 40), 1);
  sh::SetClip(1, Layout(7, 2, 25), 1);
  int tmp = sparkMemRegisterBuffer();
  sh::SetBuffer(sh::kResultBuffer, Layout(6, 4, 64));
  struct Want {
    int id;
    int32_t w, h, format, stride;
  } wants[] = {{1, 6, 4, 64, 36}, {2, 5, 3, 48, 40}, {3, 7, 2, 25, 21}, {tmp, 5, 3, 48, 40}};
  for (const Want& want : wants) {
    uint8_t raw[128];
    std::memset(raw, 0xAB, sizeof raw);
    ASSERT_EQ(sparkMemGetBuffer(want.id, reinterpret_cast<spark_mem_buf_struct*>(raw)), 1);
    void* buffer;
    int32_t w, h, format, stride;
    std::memcpy(&buffer, raw + 8, 8);
    std::memcpy(&w, raw + 28, 4);
    std::memcpy(&h, raw + 32, 4);
    std::memcpy(&format, raw + 36, 4);
    std::memcpy(&stride, raw + 40, 4);
    EXPECT_EQ(buffer, sh::BufferPixels(want.id));
    EXPECT_NE(buffer, nullptr);
    EXPECT_EQ(raw[16], 4) << "usable bit";
    EXPECT_EQ(w, want.w);
    EXPECT_EQ(h, want.h);
    EXPECT_EQ(format, want.format);
    EXPECT_EQ(stride, want.stride);
    EXPECT_EQ(raw[127], 0) << "the host fills the whole record";
  }
  EXPECT_EQ(sh::GetBufferCalls(), (std::vector<int32_t>{1, 2, 3, tmp}));
}

TEST_F(HostTest, UnknownIdAndNullRecordFail) {
  spark_mem_buf_struct record{};
  EXPECT_EQ(sparkMemGetBuffer(4, &record), 0);  // not registered
  EXPECT_EQ(sparkMemGetBuffer(0, &record), 0);
  EXPECT_EQ(sparkMemGetBuffer(1, nullptr), 0);
  EXPECT_EQ(sh::HostLog().size(), 3u);
  ASSERT_EQ(sparkMemGetBuffer(sh::kResultBuffer, &record), 1);  // an empty layout
  EXPECT_EQ(record.Buffer, nullptr);
  EXPECT_EQ(record.State, kSparkBufferUsable);
}

TEST_F(HostTest, EveryBlockHoldsTheLargestClipFrame) {
  sh::SetClip(0, Layout(4, 4, 24), 1);   // 48 bytes
  sh::SetClip(1, Layout(10, 8, 49), 1);  // 480 bytes
  int tmp = sparkMemRegisterBuffer();
  sh::SetBuffer(sh::kResultBuffer, Layout(2, 2, 24));
  for (int id : {1, 2, 3, tmp}) EXPECT_GE(sh::BufferCapacity(id), 480) << "id " << id;
  EXPECT_EQ(sh::BufferLayout(tmp).width, 4);  // the record still reports its own layout
  // The back clip's frame loads into the front-sized temporary buffer without overflow.
  EXPECT_EQ(sparkGetFrame(1, 0, sh::BufferPixels(tmp)), 1);
}

TEST_F(HostTest, ConfigurationMistakesThrow) {
  EXPECT_THROW(sh::SetClip(2, Layout(1, 1, 24), 1), std::invalid_argument);
  EXPECT_THROW(sh::SetClip(0, Layout(-1, 1, 24), 1), std::invalid_argument);
  EXPECT_THROW(sh::SetClip(0, Layout(4, 1, 48, 20), 1), std::invalid_argument);
  EXPECT_THROW(sh::SetClip(0, Layout(1, 1, 24), -1), std::invalid_argument);
  sh::SetClip(0, Layout(2, 2, 24), 1);
  EXPECT_THROW(sh::ClipFrame(0, 1), std::invalid_argument);
  EXPECT_THROW(sh::Sample(sh::ClipFrame(0, 0), sh::ClipLayout(0), 2, 0, 0), std::invalid_argument);
}

class GetFrameFormats : public HostTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(GetFrameFormats, CopiesRowsByTheClipsStrideAndLeavesPaddingAlone) {
  int32_t format = GetParam();
  int32_t bpp = sh::BytesPerPixel(format);
  sh::FrameLayout layout = Layout(5, 4, format, 5 * bpp + 7);
  sh::SetClip(0, layout, 3);
  FillClip(0);
  std::vector<uint8_t> block(static_cast<size_t>(sh::FrameBytes(layout)), 0xEE);
  ASSERT_EQ(sparkGetFrame(0, 1, block.data()), 1);
  EXPECT_EQ(Mismatches(block.data(), layout, 1), 0);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t i = 5 * bpp; i < 5 * bpp + 7; ++i)
      ASSERT_EQ(block[static_cast<size_t>(y * layout.stride + i)], 0xEE) << "row " << y;
}

INSTANTIATE_TEST_SUITE_P(Formats, GetFrameFormats, ::testing::Values(24, 25, 48, 49, 64));

TEST_F(HostTest, FramesOutsideTheClipAreClampedAndLogged) {
  sh::SetClip(1, Layout(3, 2, 24), 4);
  FillClip(1);
  std::vector<uint8_t> block(18);
  EXPECT_EQ(sparkGetFrame(1, -3, block.data()), 1);
  EXPECT_EQ(Mismatches(block.data(), sh::ClipLayout(1), 0), 0);
  EXPECT_EQ(sparkGetFrame(1, 9, block.data()), 1);
  EXPECT_EQ(Mismatches(block.data(), sh::ClipLayout(1), 3), 0);
  EXPECT_EQ(sparkGetFrame(1, 2, block.data()), 1);
  std::vector<sh::GetFrameCall> calls = sh::GetFrameCalls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].frame, -3);
  EXPECT_EQ(calls[0].delivered, 0);
  EXPECT_EQ(calls[1].delivered, 3);
  EXPECT_EQ(calls[2].delivered, 2);
  EXPECT_EQ(sh::HostLog().size(), 2u);  // the in-range call writes no line
}

TEST_F(HostTest, GetFrameRefusesWhatItCannotDeliver) {
  std::vector<uint8_t> block(64, 0x11);
  EXPECT_EQ(sparkGetFrame(0, 0, block.data()), 0);  // no frames yet
  sh::SetClip(0, Layout(2, 2, 24), 1);
  EXPECT_EQ(sparkGetFrame(2, 0, block.data()), 0);
  EXPECT_EQ(sparkGetFrame(0, 0, nullptr), 0);
  // Too close to the end of a host block for the frame to fit.
  uint8_t* front = sh::BufferPixels(sh::kFrontBuffer);
  EXPECT_EQ(sparkGetFrame(0, 0, front + sh::BufferCapacity(sh::kFrontBuffer) - 4), 0);
  EXPECT_EQ(block[0], 0x11);
  EXPECT_EQ(sh::Calls().getFrame, 4);
  for (const sh::GetFrameCall& call : sh::GetFrameCalls()) EXPECT_EQ(call.delivered, -1);
  EXPECT_EQ(sh::HostLog().size(), 4u);
}

TEST_F(HostTest, InjectionsHitOnlyTheirId) {
  sh::SetClip(0, Layout(2, 2, 24), 1);
  sh::SetClip(1, Layout(2, 2, 24), 1);
  sh::FailGetBuffer(1);
  sh::ClearUsableBit(2);
  sh::NullBufferPointer(3);
  spark_mem_buf_struct records[4];
  std::memset(records, 0x5A, sizeof records);
  EXPECT_EQ(sparkMemGetBuffer(1, &records[1]), 0);
  EXPECT_EQ(records[1].State, 0x5A) << "a failed call leaves the record alone";
  EXPECT_EQ(sparkMemGetBuffer(2, &records[2]), 1);
  EXPECT_EQ(records[2].State & kSparkBufferUsable, 0);
  EXPECT_NE(records[2].Buffer, nullptr);
  EXPECT_EQ(sparkMemGetBuffer(3, &records[3]), 1);
  EXPECT_EQ(records[3].Buffer, nullptr);
  EXPECT_EQ(records[3].State, kSparkBufferUsable);
  EXPECT_EQ(records[3].Width, 2);
  sh::ClearInjections();
  EXPECT_EQ(sparkMemGetBuffer(1, &records[1]), 1);
  EXPECT_EQ(sparkMemGetBuffer(3, &records[3]), 1);
  EXPECT_NE(records[3].Buffer, nullptr);
}

TEST_F(HostTest, GetFrameRevokesTheRecordLastFilledForAnId) {
  sh::SetClip(0, Layout(3, 3, 48), 2);
  FillClip(0);
  int tmp = sparkMemRegisterBuffer();
  sh::NullBufferOnGetFrame(tmp);
  static spark_mem_buf_struct stale, held, front;  // as the plug-in's static records
  ASSERT_EQ(sparkMemGetBuffer(tmp, &stale), 1);
  ASSERT_EQ(sparkMemGetBuffer(tmp, &held), 1);
  ASSERT_EQ(sparkMemGetBuffer(sh::kFrontBuffer, &front), 1);
  void* pixels = held.Buffer;
  ASSERT_NE(pixels, nullptr);
  EXPECT_EQ(sparkGetFrame(0, 1, pixels), 1);
  EXPECT_EQ(held.Buffer, nullptr);
  EXPECT_NE(stale.Buffer, nullptr) << "only the record last filled";
  EXPECT_NE(front.Buffer, nullptr);
  EXPECT_EQ(Mismatches(pixels, sh::ClipLayout(0), 1), 0) << "the copy still happened";
  sh::NullBufferOnGetFrame(tmp + 1);  // no record filled for it: only logged
  EXPECT_EQ(sparkGetFrame(0, 1, pixels), 1);
  EXPECT_EQ(sh::HostLog().size(), 1u);
}

TEST_F(HostTest, MessagesErrorsAndCounters) {
  sparkMessage("first");
  sparkError("second");
  sparkMessage(nullptr);
  sparkCursorBusy();
  sparkCursorBusy();
  sparkViewingDraw();
  std::vector<sh::Note> want = {{sh::Note::kMessage, "first"},
                                {sh::Note::kError, "second"},
                                {sh::Note::kMessage, ""}};
  EXPECT_EQ(sh::Notes(), want);
  sh::Counts counts = sh::Calls();
  EXPECT_EQ(counts.message, 2);
  EXPECT_EQ(counts.error, 1);
  EXPECT_EQ(counts.cursorBusy, 2);
  EXPECT_EQ(counts.viewingDraw, 1);
  EXPECT_EQ(sh::HostLog().size(), 1u);  // the null text
  EXPECT_EQ(sparkAPIVersionInfo(), 4.0f);
  sh::SetAPIVersion(3.9f);
  EXPECT_EQ(sparkAPIVersionInfo(), 3.9f);
  EXPECT_EQ(sh::Calls().apiVersion, 2);
}

TEST_F(HostTest, SetupsSaveAndRestoreRegisteredValues) {
  float amount = 0.5f;
  int32_t choice = 0;
  sh::AddSetupValue("SparkFloat0", &amount, sizeof amount);
  sh::AddSetupValue("SparkPup1", &choice, sizeof choice);
  spark_info_struct info{};
  info.FrameNo = 17;
  sparkLoadSetup(&info);  // nothing saved yet
  EXPECT_EQ(amount, 0.5f);
  amount = 2.25f;
  choice = 1;
  sparkSaveSetup(&info);
  amount = -1.0f;
  choice = 0;
  sparkLoadSetup(&info);
  EXPECT_EQ(amount, 2.25f);
  EXPECT_EQ(choice, 1);
  std::vector<sh::SetupCall> calls = sh::SetupCalls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_FALSE(calls[0].save);
  EXPECT_TRUE(calls[1].save);
  EXPECT_EQ(calls[1].info, &info);
  EXPECT_EQ(calls[1].copy.FrameNo, 17);
  EXPECT_EQ(sh::Calls().loadSetup, 2);
  EXPECT_EQ(sh::Calls().saveSetup, 1);
  // A saved setup given by the test; a value of the wrong size is not restored.
  sh::SetSavedSetup({{"SparkPup1", {0, 0, 0, 0}}, {"SparkFloat0", {1, 2}}});
  sparkLoadSetup(nullptr);
  EXPECT_EQ(choice, 0);
  EXPECT_EQ(amount, 2.25f);
  EXPECT_EQ(sh::HostLog().size(), 1u);
}

TEST_F(HostTest, FramePixelsFollowTheResultBufferUnlessForced) {
  sh::SetFramePixels(1000);
  EXPECT_EQ(sh::FramePixels(), 1000);
  sh::SetClip(0, Layout(6, 5, 24), 1);  // the result buffer follows the front clip
  EXPECT_EQ(sh::FramePixels(), 30);
  sh::SetBuffer(sh::kResultBuffer, Layout(8, 3, 24));
  sh::SetFramePixels(1000);
  EXPECT_EQ(sh::FramePixels(), 24);
  sh::ForceFramePixels(7);
  EXPECT_EQ(sh::FramePixels(), 7);
  sh::ForceFramePixels(-1);
  EXPECT_EQ(sh::FramePixels(), 24);
}

TEST_F(HostTest, BeginFrameLoadsFrontAndBackAndDescribesTheCall) {
  sh::SetClip(0, Layout(4, 3, 64, 30), 3);
  sh::SetClip(1, Layout(4, 3, 64, 30), 2);
  FillClip(0);
  FillClip(1);
  sh::SetProcessors(3);
  spark_info_struct info = sh::BeginFrame(2);
  EXPECT_EQ(Mismatches(sh::BufferPixels(sh::kFrontBuffer), sh::ClipLayout(0), 2), 0);
  EXPECT_EQ(Mismatches(sh::BufferPixels(sh::kBackBuffer), sh::ClipLayout(1), 1), 0);  // clamped
  EXPECT_EQ(info.FrameNo, 2);
  EXPECT_EQ(info.FrameBytes, 90);
  EXPECT_EQ(info.FormatCode, 64);
  EXPECT_EQ(info.ProcessorCount, 3);
  EXPECT_EQ(info.ControlsBypass, 0);
  EXPECT_EQ(sh::Calls().getFrame, 0);
}

// ---- Processors

struct ForkLog {
  std::mutex mutex;
  std::vector<std::pair<uint64_t, uint64_t>> ranges;
  std::set<std::thread::id> threads;
};

void LogRange(void* arg) {
  ForkLog* log = static_cast<ForkLog*>(arg);
  uint64_t offset = 0, count = 0;
  sparkMpInfo(&offset, &count);
  std::lock_guard<std::mutex> lock(log->mutex);
  log->ranges.push_back({offset, count});
  log->threads.insert(std::this_thread::get_id());
}

// One fork on the current processors: processor k of p gets pixels / p pixels from k times
// that, the last one the remainder, each on a real thread that is not the caller's.
void ExpectShares(int32_t p, uint64_t pixels) {
  ForkLog log;
  sparkMpFork(LogRange, 1, &log);
  std::sort(log.ranges.begin(), log.ranges.end());
  const uint64_t share = pixels / static_cast<uint64_t>(p);
  std::vector<std::pair<uint64_t, uint64_t>> want;
  for (int32_t k = 0; k < p; ++k) want.push_back({share * k, k == p - 1 ? pixels - share * k : share});
  std::sort(want.begin(), want.end());
  EXPECT_EQ(log.ranges, want) << p << " processors, " << pixels << " pixels";
  EXPECT_EQ(log.threads.size(), static_cast<size_t>(p)) << "one real thread each";
  EXPECT_EQ(log.threads.count(std::this_thread::get_id()), 0u);
}

class ForkProcessors : public HostTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(ForkProcessors, EachProcessorGetsItsShareAndTheLastTheRemainder) {
  for (uint64_t pixels : {1000u, 3u, 0u}) {
    sh::SetProcessors(GetParam());
    sh::SetFramePixels(static_cast<int64_t>(pixels));
    ExpectShares(GetParam(), pixels);
  }
}

INSTANTIATE_TEST_SUITE_P(Counts, ForkProcessors, ::testing::Values(1, 2, 3, 8));

std::atomic<int32_t> gFinished{0};

void ThrowOnOddProcessors(void*) {
  uint64_t offset = 0, count = 0;
  sparkMpInfo(&offset, &count);
  int32_t k = static_cast<int32_t>(offset / 10);
  ++gFinished;
  if (k == 3) throw std::runtime_error("three");
  if (k % 2 == 1) throw k;
}

TEST_F(HostTest, AWorkersExceptionIsLoggedAndTheLowestProcessorsRethrownAfterTheJoin) {
  sh::SetProcessors(6);
  sh::SetFramePixels(60);
  gFinished = 0;
  try {
    sparkMpFork(ThrowOnOddProcessors, 1, nullptr);
    FAIL() << "nothing was rethrown";
  } catch (int k) {
    EXPECT_EQ(k, 1);
  }
  EXPECT_EQ(gFinished.load(), 6) << "every processor ran to its end";
  std::vector<std::string> log = sh::HostLog();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_NE(log[1].find("processor 3 of 6"), std::string::npos) << log[1];
  EXPECT_NE(log[1].find("three"), std::string::npos) << log[1];
}

TEST_F(HostTest, MisusedForkAndInfoAreLogged) {
  uint64_t offset = 99, count = 99;
  sparkMpInfo(&offset, &count);
  EXPECT_EQ(offset, 0u);
  EXPECT_EQ(count, 0u);
  sparkMpFork(nullptr, 1, nullptr);
  ForkLog log;
  sparkMpFork(LogRange, 2, &log);
  EXPECT_EQ(log.ranges.size(), 1u);
  EXPECT_EQ(sh::HostLog().size(), 3u);
  EXPECT_EQ(sh::Calls().mpFork, 2);
  EXPECT_EQ(sh::Calls().mpInfo, 2);
}

// ---- Processors that outlive the fork

// Counts the processor threads that have ended: each worker arms a thread-local watch
// whose destructor runs when its thread ends, before that thread can be joined.
std::atomic<int32_t> gEnded{0};
struct EndWatch {
  bool armed = false;
  ~EndWatch() {
    if (armed) ++gEnded;
  }
};
thread_local EndWatch tWatch;

// The thread that ran each processor, by its first pixel (the frame has 1000 pixels, so
// the offsets tell the processors apart).
struct ThreadLog {
  std::mutex mutex;
  std::map<uint64_t, std::thread::id> byOffset;
};

void LogThread(void* arg) {
  tWatch.armed = true;
  ThreadLog* log = static_cast<ThreadLog*>(arg);
  uint64_t offset = 0, count = 0;
  sparkMpInfo(&offset, &count);
  std::lock_guard<std::mutex> lock(log->mutex);
  log->byOffset[offset] = std::this_thread::get_id();
}

std::map<uint64_t, std::thread::id> ForkThreads() {
  ThreadLog log;
  sparkMpFork(LogThread, 1, &log);
  return log.byOffset;
}

struct PoolTest : HostTest {
  void SetUp() override {
    HostTest::SetUp();
    sh::SetFramePixels(1000);
    gEnded = 0;
  }
};

TEST_F(PoolTest, ConsecutiveForksRunOnTheSameProcessors) {
  sh::SetProcessors(3);
  std::map<uint64_t, std::thread::id> first = ForkThreads();
  std::map<uint64_t, std::thread::id> second = ForkThreads();
  ASSERT_EQ(first.size(), 3u);
  EXPECT_EQ(second, first) << "processor k is the same thread in every fork";
  std::set<std::thread::id> distinct;
  for (auto& [offset, id] : first) distinct.insert(id);
  EXPECT_EQ(distinct.size(), 3u);
  EXPECT_EQ(distinct.count(std::this_thread::get_id()), 0u);
  EXPECT_EQ(gEnded.load(), 0) << "no processor ended between the forks";
  sh::Reset();
  EXPECT_EQ(gEnded.load(), 3) << "Reset() ends and joins the processors";
}

// A checked fork of the 1000-pixel frame; returns the threads by processor.
std::map<uint64_t, std::thread::id> CheckedFork(int32_t p) {
  ExpectShares(p, 1000);
  return ForkThreads();
}

TEST_F(PoolTest, ANewCountReplacesTheProcessors) {
  sh::SetProcessors(1);
  EXPECT_EQ(CheckedFork(1).size(), 1u);
  sh::SetProcessors(8);
  EXPECT_EQ(gEnded.load(), 1) << "the one processor ended with the new count";
  EXPECT_EQ(CheckedFork(8).size(), 8u);
  sh::SetProcessors(3);
  EXPECT_EQ(gEnded.load(), 9);
  std::map<uint64_t, std::thread::id> three = CheckedFork(3);
  sh::SetProcessors(3);
  EXPECT_EQ(gEnded.load(), 9) << "the same count keeps its processors";
  EXPECT_EQ(CheckedFork(3), three);
  sh::SetProcessors(0);
  EXPECT_EQ(gEnded.load(), 12);
  EXPECT_EQ(CheckedFork(1).size(), 1u) << "no processors acts as one";
}

// Processor 0 throws at once; the others finish their work after it.
void ThrowFirstFinishRest(void* arg) {
  uint64_t offset = 0, count = 0;
  sparkMpInfo(&offset, &count);
  if (offset == 0) throw std::runtime_error("processor zero");
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  static_cast<std::atomic<int32_t>*>(arg)->fetch_add(1);
}

TEST_F(PoolTest, AnExceptionLeavesTheOthersToFinishAndTheProcessorsInService) {
  sh::SetProcessors(4);
  std::map<uint64_t, std::thread::id> before = ForkThreads();
  std::atomic<int32_t> finished{0};
  EXPECT_THROW(sparkMpFork(ThrowFirstFinishRest, 1, &finished), std::runtime_error);
  EXPECT_EQ(finished.load(), 3) << "the join waits for every processor";
  std::vector<std::string> log = sh::HostLog();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0], "sparkMpFork: the worker on processor 0 of 4 ended with std::exception: "
                    "processor zero");
  EXPECT_EQ(ForkThreads(), before) << "the same processors serve the next fork";
  EXPECT_EQ(gEnded.load(), 0);
}

void CountCall(void* arg) { static_cast<std::atomic<int64_t>*>(arg)->fetch_add(1); }

TEST_F(PoolTest, ThousandsOfTinyForksAllJoin) {
  std::atomic<int64_t> calls{0};
  for (int32_t p : {3, 2, 1, 8}) {
    sh::SetProcessors(p);
    int64_t before = calls.load();
    for (int32_t i = 0; i < 1000; ++i) {
      sparkMpFork(CountCall, 1, &calls);
      // Each fork has joined: every processor has run, and nothing runs on.
      ASSERT_EQ(calls.load(), before + int64_t{i + 1} * p) << p << " processors, fork " << i;
    }
  }
  EXPECT_EQ(sh::Calls().mpFork, 4000);
}

// A worker that forks: the host logs it and gives the inner fork threads of its own, so
// nothing waits for the processor that is waiting.
struct Nested {
  ForkLog inner[2];
  std::set<std::thread::id> outer;
  std::mutex mutex;
};

void ForkInside(void* arg) {
  Nested* nested = static_cast<Nested*>(arg);
  uint64_t offset = 0, count = 0;
  sparkMpInfo(&offset, &count);
  sparkMpFork(LogRange, 1, &nested->inner[offset == 0 ? 0 : 1]);
  uint64_t after = 99, afterCount = 99;
  sparkMpInfo(&after, &afterCount);
  std::lock_guard<std::mutex> lock(nested->mutex);
  nested->outer.insert(std::this_thread::get_id());
  EXPECT_EQ(after, offset) << "the inner fork leaves the outer processor's range alone";
  EXPECT_EQ(afterCount, count);
}

TEST_F(PoolTest, AForkFromAWorkerRunsOnThreadsOfItsOwn) {
  sh::SetProcessors(2);
  Nested nested;
  sparkMpFork(ForkInside, 1, &nested);
  for (ForkLog& inner : nested.inner) {
    std::sort(inner.ranges.begin(), inner.ranges.end());
    EXPECT_EQ(inner.ranges, (std::vector<std::pair<uint64_t, uint64_t>>{{0, 500}, {500, 500}}));
    EXPECT_EQ(inner.threads.size(), 2u);
    for (const std::thread::id& id : inner.threads) EXPECT_EQ(nested.outer.count(id), 0u);
  }
  std::vector<std::string> log = sh::HostLog();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0], "sparkMpFork: called from inside a worker");
  EXPECT_EQ(log[1], "sparkMpFork: called from inside a worker");
  EXPECT_EQ(sh::Calls().mpFork, 3);
}

// A fork from a second thread while the first thread's fork holds the processors.
struct Beside {
  ForkLog log;
  std::atomic<bool> started{false};
};

void ForkBesideTheFirst(void* arg) {
  Beside* beside = static_cast<Beside*>(arg);
  uint64_t offset = 0, count = 0;
  sparkMpInfo(&offset, &count);
  if (offset != 0) return;
  std::thread other([beside] { sparkMpFork(LogRange, 1, &beside->log); });
  other.join();
}

TEST_F(PoolTest, AForkBesideARunningForkGetsThreadsOfItsOwn) {
  sh::SetProcessors(2);
  Beside beside;
  sparkMpFork(ForkBesideTheFirst, 1, &beside);
  std::sort(beside.log.ranges.begin(), beside.log.ranges.end());
  EXPECT_EQ(beside.log.ranges, (std::vector<std::pair<uint64_t, uint64_t>>{{0, 500}, {500, 500}}));
  EXPECT_TRUE(sh::HostLog().empty()) << "not from inside a worker";
}

// Reset() from another thread while a fork runs cannot end the busy processors; the next
// fork ends them before it runs.
void WaitForRelease(void* arg) {
  tWatch.armed = true;
  auto* release = static_cast<std::atomic<int32_t>*>(arg);
  release->fetch_add(1);
  while (release->load() < 100) std::this_thread::yield();
}

TEST_F(PoolTest, AResetDuringAForkEndsTheProcessorsAtTheNextFork) {
  sh::SetProcessors(2);
  std::atomic<int32_t> release{0};
  std::thread caller([&release] { sparkMpFork(WaitForRelease, 1, &release); });
  while (release.load() < 2) std::this_thread::yield();
  sh::Reset();
  EXPECT_EQ(gEnded.load(), 0) << "busy processors are not joined";
  release = 100;
  caller.join();
  sh::SetFramePixels(1000);
  sh::SetProcessors(2);
  CheckedFork(2);
  EXPECT_EQ(gEnded.load(), 2) << "the next fork replaced them";
}

}  // namespace
