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

TEST_F(HostTest, DefaultsAfterResetAndConfigurationMistakesThrow) {
  sh::SetProcessors(8);
  sh::SetAPIVersion(3.5f);
  sh::SetClip(0, {4, 4, 24, 0}, 2);
  EXPECT_EQ(sparkMemRegisterBuffer(), 4);
  sparkMessage("x");
  sh::Reset();
  EXPECT_EQ(sh::Processors(), 1);
  EXPECT_EQ(sparkAPIVersionInfo(), 4.0f);
  EXPECT_EQ(sh::ClipFrames(0), 0);
  EXPECT_EQ(sh::FramePixels(), 0);
  EXPECT_EQ(sh::BufferPixels(sh::kResultBuffer), nullptr);
  EXPECT_TRUE(sh::Notes().empty());
  EXPECT_EQ(sparkMemRegisterBuffer(), 4) << "ids count up from four";
  EXPECT_THROW(sh::BufferLayout(6), std::invalid_argument);
  EXPECT_THROW(sh::SetClip(2, {1, 1, 24, 0}, 1), std::invalid_argument);
  EXPECT_THROW(sh::SetClip(0, {-1, 1, 24, 0}, 1), std::invalid_argument);
  EXPECT_THROW(sh::SetClip(0, {4, 1, 48, 20}, 1), std::invalid_argument);
  EXPECT_THROW(sh::SetClip(0, {1, 1, 24, 0}, -1), std::invalid_argument);
  sh::SetClip(0, {2, 2, 24, 0}, 1);
  EXPECT_THROW(sh::ClipFrame(0, 1), std::invalid_argument);
  EXPECT_THROW(sh::Sample(sh::ClipFrame(0, 0), sh::ClipLayout(0), 2, 0, 0), std::invalid_argument);
}

// The record of each buffer, every byte filled, each buffer large enough for the largest
// clip frame whatever its record says.
TEST_F(HostTest, RecordsCarryEachBuffersLayoutAtTheirOffsets) {
  sh::SetClip(0, {5, 3, 24, 0}, 1);
  sh::SetClip(0, {5, 3, 48, 0}, 1);   // a new format alone is a new layout,
  sh::SetClip(0, {5, 3, 48, 40}, 1);  // and so is a new stride
  sh::SetClip(1, {10, 8, 49, 0}, 1);  // 480 bytes
  int tmp = sparkMemRegisterBuffer();
  sh::SetBuffer(sh::kResultBuffer, {6, 4, 64, 0});
  const int32_t wants[][5] = {{1, 6, 4, 64, 36}, {2, 5, 3, 48, 40}, {3, 10, 8, 49, 60},
                              {tmp, 5, 3, 48, 40}};
  for (const auto& want : wants) {
    spark_mem_buf_struct r;  // its fields' offsets are the header's static asserts
    std::memset(&r, 0xAB, sizeof r);
    ASSERT_EQ(sparkMemGetBuffer(want[0], &r), 1);
    EXPECT_EQ(r.Buffer, sh::BufferPixels(want[0]));
    EXPECT_EQ(r.State, 4) << "usable bit";
    EXPECT_EQ(std::vector<int32_t>({r.Width, r.Height, r.FormatCode, r.Stride}),
              std::vector<int32_t>(want + 1, want + 5));
    EXPECT_EQ(r.reserved2[83], 0) << "the host fills the whole record";
    EXPECT_GE(sh::BufferCapacity(want[0]), 480) << "id " << want[0];
  }
  EXPECT_EQ(sh::GetBufferCalls(), (std::vector<int32_t>{1, 2, 3, tmp}));
  // The back clip's frame loads into the front-sized temporary buffer without overflow.
  EXPECT_EQ(sparkGetFrame(1, 0, sh::BufferPixels(tmp)), 1);
  // Unknown ids and a null record fail.
  spark_mem_buf_struct record{};
  EXPECT_EQ(sparkMemGetBuffer(5, &record), 0);
  EXPECT_EQ(sparkMemGetBuffer(0, &record), 0);
  EXPECT_EQ(sparkMemGetBuffer(1, nullptr), 0);
  EXPECT_EQ(sh::HostLog().size(), 3u);
}

TEST_F(HostTest, GetFrameRefusesWhatItCannotDeliver) {
  std::vector<uint8_t> block(64, 0x11);
  EXPECT_EQ(sparkGetFrame(0, 0, block.data()), 0);  // no frames yet
  sh::SetClip(0, {2, 2, 24, 0}, 1);
  EXPECT_EQ(sparkGetFrame(2, 0, block.data()), 0);
  EXPECT_EQ(sparkGetFrame(0, 0, nullptr), 0);
  // Too close to the end of a host block for the frame to fit.
  uint8_t* front = sh::BufferPixels(sh::kFrontBuffer);
  EXPECT_EQ(sparkGetFrame(0, 0, front + sh::BufferCapacity(sh::kFrontBuffer) - 4), 0);
  EXPECT_EQ(block[0], 0x11);
  EXPECT_EQ(sh::Calls().getFrame, 4);
  for (const sh::GetFrameCall& call : sh::GetFrameCalls()) EXPECT_EQ(call.delivered, -1);
  EXPECT_EQ(sh::HostLog().size(), 4u);
  sh::NullBufferOnGetFrame(7);  // no record was filled for it: only logged
  EXPECT_EQ(sparkGetFrame(0, 0, block.data()), 1);
  EXPECT_NE(sh::HostLog().back().find("no record of buffer 7 to revoke"), std::string::npos);
}

// A null text is logged and noted as empty; messages and errors are counted apart; a saved
// setup restores only values of the size registered for them (the plug-in's tests see a
// setup saved and restored).
TEST_F(HostTest, NullMessagesAndSetupValuesOfTheWrongSize) {
  sparkMessage(nullptr);
  EXPECT_EQ(sh::Notes(), (std::vector<sh::Note>{{sh::Note::kMessage, ""}}));
  sparkError("an error");
  EXPECT_EQ(sh::Calls().message + 10 * sh::Calls().error, 11);
  float amount = 2.25f;
  int32_t choice = 1;
  sh::AddSetupValue("SparkFloat0", &amount, sizeof amount);
  sh::AddSetupValue("SparkPup1", &choice, sizeof choice);
  sh::SetSavedSetup({{"SparkPup1", {0, 0, 0, 0}}, {"SparkFloat0", {1, 2}}});
  sparkLoadSetup(nullptr);
  EXPECT_EQ(choice, 0);
  EXPECT_EQ(amount, 2.25f);
  EXPECT_EQ(sh::HostLog().size(), 2u);  // the null text and the value of the wrong size
}

TEST_F(HostTest, FramePixelsFollowTheResultBufferUnlessForced) {
  sh::SetFramePixels(1000);
  EXPECT_EQ(sh::FramePixels(), 1000);
  sh::SetClip(0, {6, 5, 24, 0}, 1);  // the result buffer follows the front clip
  EXPECT_EQ(sh::FramePixels(), 30);
  sh::SetBuffer(sh::kResultBuffer, {8, 3, 24, 0});
  sh::SetFramePixels(1000);
  EXPECT_EQ(sh::FramePixels(), 24);
  sh::ForceFramePixels(7);
  EXPECT_EQ(sh::FramePixels(), 7);
  sh::ForceFramePixels(-1);
  EXPECT_EQ(sh::FramePixels(), 24);
}

// ---- Processors

struct ForkLog {
  std::mutex mutex;
  std::vector<std::pair<uint64_t, uint64_t>> ranges;
  std::map<uint64_t, std::thread::id> byOffset;
};

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

void LogRange(void* arg) {
  tWatch.armed = true;
  ForkLog* log = static_cast<ForkLog*>(arg);
  uint64_t offset = 0, count = 0;
  sparkMpInfo(&offset, &count);
  std::lock_guard<std::mutex> lock(log->mutex);
  log->ranges.push_back({offset, count});
  log->byOffset[offset] = std::this_thread::get_id();
}

// One fork on the current processors: processor k of p gets pixels / p pixels from k times
// that, the last one the remainder, processor 0 on the caller's thread and each other one on
// a thread of its own. Returns the threads by first pixel.
std::map<uint64_t, std::thread::id> CheckedFork(int32_t p, uint64_t pixels = 1000) {
  ForkLog log;
  sparkMpFork(LogRange, 1, &log);
  std::sort(log.ranges.begin(), log.ranges.end());
  const uint64_t share = pixels / static_cast<uint64_t>(p);
  std::vector<std::pair<uint64_t, uint64_t>> want;
  for (int32_t k = 0; k < p; ++k)
    want.push_back({share * k, k == p - 1 ? pixels - share * k : share});
  EXPECT_EQ(log.ranges, want) << p << " processors, " << pixels << " pixels";
  std::set<std::thread::id> threads;
  for (auto& [offset, id] : log.byOffset) threads.insert(id);
  if (pixels >= static_cast<uint64_t>(p)) {
    EXPECT_EQ(threads.size(), static_cast<size_t>(p));
    EXPECT_EQ(log.byOffset[0], std::this_thread::get_id());
  }
  return log.byOffset;
}

struct PoolTest : HostTest {
  void SetUp() override {
    HostTest::SetUp();
    sh::SetFramePixels(1000);
    gEnded = 0;
  }
};

// Processor k of p gets its share on its own thread for any frame size, and stays the same
// thread in every fork until the count changes or Reset() ends and joins the processors (all
// but the caller's).
TEST_F(PoolTest, SharesAndProcessorsLastUntilTheCountChanges) {
  int32_t ended = 0, previous = 0;
  for (int32_t p : {1, 2, 3, 8}) {
    sh::SetProcessors(p);
    ended += std::max(previous - 1, 0);
    previous = p;
    EXPECT_EQ(gEnded.load(), ended) << "the old processors ended with the new count";
    for (uint64_t pixels : {3u, 0u, 1000u}) {
      sh::SetFramePixels(static_cast<int64_t>(pixels));
      CheckedFork(p, pixels);
    }
  }
  std::map<uint64_t, std::thread::id> eight = CheckedFork(8);
  sh::SetProcessors(8);
  EXPECT_EQ(CheckedFork(8), eight);
  EXPECT_EQ(gEnded.load(), 3) << "the same count keeps its processors";
  sh::SetProcessors(0);
  EXPECT_EQ(gEnded.load(), 10);
  CheckedFork(1);  // no processors act as one: the caller
  sh::Reset();
  EXPECT_EQ(gEnded.load(), 10);
}

std::atomic<int32_t> gFinished{0};

// Processor 0 throws a standard exception at once, 3 an int; the others finish after them.
void ThrowOnSomeProcessors(void*) {
  uint64_t offset = 0, count = 0;
  sparkMpInfo(&offset, &count);
  if (offset == 0) throw std::runtime_error("processor zero");
  if (offset == 30) throw 3;
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  ++gFinished;
}

TEST_F(PoolTest, AWorkersExceptionIsLoggedAndTheLowestProcessorsRethrownAfterTheJoin) {
  sh::SetProcessors(4);
  sh::SetFramePixels(40);
  std::map<uint64_t, std::thread::id> before = CheckedFork(4, 40);
  gFinished = 0;
  EXPECT_THROW(sparkMpFork(ThrowOnSomeProcessors, 1, nullptr), std::runtime_error);
  EXPECT_EQ(gFinished.load(), 2) << "the join waits for every processor";
  std::vector<std::string> log = sh::HostLog();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0], "sparkMpFork: the worker on processor 0 of 4 ended with std::exception: "
                    "processor zero");
  EXPECT_NE(log[1].find("processor 3 of 4"), std::string::npos) << log[1];
  EXPECT_EQ(CheckedFork(4, 40), before) << "the same processors serve the next fork";
  EXPECT_EQ(gEnded.load(), 0);
}

TEST_F(HostTest, MisusedForkAndInfoAreLogged) {
  uint64_t offset = 99, count = 99;
  sparkMpInfo(&offset, &count);
  EXPECT_EQ(offset + count, 0u);
  sparkMpFork(nullptr, 1, nullptr);
  ForkLog log;
  sparkMpFork(LogRange, 2, &log);
  EXPECT_EQ(log.ranges.size(), 1u);
  EXPECT_EQ(sh::HostLog().size(), 3u);
  EXPECT_EQ(sh::Calls().mpFork, 2);
}

// A worker that forks: the host logs it and gives the inner fork threads of its own, so
// nothing waits for the processor that is waiting. A fork from a second thread beside a
// running fork gets threads of its own too, without a log line.
struct Nested {
  ForkLog inner[2];
  std::set<std::thread::id> outer;
  std::mutex mutex;
  bool beside = false;
};

void ForkInside(void* arg) {
  Nested* nested = static_cast<Nested*>(arg);
  uint64_t offset = 0, count = 0;
  sparkMpInfo(&offset, &count);
  ForkLog* inner = &nested->inner[offset == 0 ? 0 : 1];
  if (nested->beside) {
    if (offset == 0) std::thread([inner] { sparkMpFork(LogRange, 1, inner); }).join();
    return;
  }
  sparkMpFork(LogRange, 1, inner);
  uint64_t after = 99, afterCount = 99;
  sparkMpInfo(&after, &afterCount);
  std::lock_guard<std::mutex> lock(nested->mutex);
  nested->outer.insert(std::this_thread::get_id());
  EXPECT_EQ(after, offset) << "the inner fork leaves the outer processor's range alone";
  EXPECT_EQ(afterCount, count);
}

TEST_F(PoolTest, AForkFromAWorkerOrBesideAForkRunsOnThreadsOfItsOwn) {
  sh::SetProcessors(2);
  for (bool beside : {false, true}) {
    Nested nested;
    nested.beside = beside;
    sparkMpFork(ForkInside, 1, &nested);
    for (ForkLog& inner : nested.inner) {
      if (beside && &inner == &nested.inner[1]) break;
      std::sort(inner.ranges.begin(), inner.ranges.end());
      EXPECT_EQ(inner.ranges, (std::vector<std::pair<uint64_t, uint64_t>>{{0, 500}, {500, 500}}));
      for (auto& [offset, id] : inner.byOffset) EXPECT_EQ(nested.outer.count(id), 0u);
    }
  }
  EXPECT_EQ(sh::HostLog(), std::vector<std::string>(2, "sparkMpFork: called from inside a worker"));
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
