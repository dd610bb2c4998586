// flowblur: the fork-join layer on the simulated host's real threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <vector>

#include "host/SparkHost.h"
#include "runtime/runtime.h"
#include "tests/support/PLTestWorkers.h"

namespace {

struct Call {
  int32_t thread;
  uint8_t reporter;
  int32_t first;
  int32_t last;
  std::thread::id id;
  bool operator<(const Call& o) const { return thread < o.thread; }
};

std::mutex gCallsMutex;
std::vector<Call> gCalls;

void Note(int32_t thread, uint8_t reporter, int32_t first, int32_t last) {
  std::lock_guard<std::mutex> lock(gCallsMutex);
  gCalls.push_back({thread, reporter, first, last, std::this_thread::get_id()});
}

// The calls so far, in worker index order.
std::vector<Call> Calls() {
  std::lock_guard<std::mutex> lock(gCallsMutex);
  std::vector<Call> calls = gCalls;
  std::sort(calls.begin(), calls.end());
  return calls;
}

void RecordWorker(int32_t thread, uint8_t reporter, int32_t first, int32_t last, NuvMPArgs*) {
  Note(thread, reporter, first, last);
}

struct ForkTest : ::testing::Test {
  void SetUp() override {
    sparkhost::Reset();
    gCalls.clear();
  }
  void TearDown() override {
    sparkhost::Reset();
    PLTestUseWorkers(1);
  }
};

// Each row of 0 .. rows-1 lies in exactly one call, and the calls' ranges are
// NuvMPRowRange's slices for `threads`.
void ExpectSlices(const std::vector<Call>& calls, int32_t threads, int32_t rows) {
  ASSERT_EQ(calls.size(), static_cast<size_t>(threads));
  std::vector<int32_t> seen(static_cast<size_t>(rows), 0);
  for (int32_t i = 0; i < threads; ++i) {
    int32_t first, last;
    NuvMPRowRange(threads, i, rows, &first, &last);
    EXPECT_EQ(calls[static_cast<size_t>(i)].thread, i);
    EXPECT_EQ(calls[static_cast<size_t>(i)].first, first) << "worker " << i;
    EXPECT_EQ(calls[static_cast<size_t>(i)].last, last) << "worker " << i;
    EXPECT_EQ(calls[static_cast<size_t>(i)].reporter, 0);
    for (int32_t r = first; r <= last; ++r) ++seen[static_cast<size_t>(r)];
  }
  for (int32_t r = 0; r < rows; ++r) ASSERT_EQ(seen[static_cast<size_t>(r)], 1) << "row " << r;
}

TEST_F(ForkTest, ThreadsForRowsExamples) {
  NuvMPSetThreadCount(8);
  EXPECT_EQ(NuvMPThreadsForRows(100), 6);
  EXPECT_EQ(NuvMPThreadsForRows(128), 8);
  EXPECT_EQ(NuvMPThreadsForRows(31), 1);
  EXPECT_EQ(NuvMPThreadsForRows(16), 1);
  EXPECT_EQ(NuvMPThreadsForRows(32), 2);
  EXPECT_EQ(NuvMPThreadsForRows(1), 1);
  EXPECT_EQ(NuvMPThreadsForRows(0), 0);
}

// The answer is the largest worker count up to the processors and the rows that leaves
// every worker 16 rows, or 1 when none does.
TEST_F(ForkTest, ThreadsForRowsIsTheLargestCountWithSixteenRowsEach) {
  for (int32_t t : {1, 2, 3, 5, 8, 64}) {
    NuvMPSetThreadCount(t);
    for (int32_t rows = 1; rows <= 1200; ++rows) {
      int32_t want = 1;
      for (int32_t r = 1; r <= std::min(t, rows); ++r)
        if (rows / r >= 16) want = r;
      ASSERT_EQ(NuvMPThreadsForRows(rows), want) << t << " processors, " << rows << " rows";
    }
  }
}

TEST_F(ForkTest, NoProcessorsActsAsOneAndStoresOne) {
  for (int32_t count : {0, -3}) {
    NuvMPSetThreadCount(count);
    EXPECT_EQ(NuvMPGetRawThreadCount(), count) << "stored without a test";
    EXPECT_EQ(NuvMPThreadsForRows(100), 1);
    EXPECT_EQ(NuvMPGetRawThreadCount(), 1);
  }
}

TEST_F(ForkTest, RowRangeGivesTheRemainderToTheLastWorker) {
  int32_t first, last;
  std::vector<std::pair<int32_t, int32_t>> got;
  for (int32_t i = 0; i < 3; ++i) {
    NuvMPRowRange(3, i, 100, &first, &last);
    got.push_back({first, last});
  }
  EXPECT_EQ(got, (std::vector<std::pair<int32_t, int32_t>>{{0, 32}, {33, 65}, {66, 99}}));
  // Contiguous slices covering every row, for any split that ThreadsForRows can give.
  for (int32_t threads = 1; threads <= 8; ++threads)
    for (int32_t rows = threads; rows <= 300; ++rows) {
      int32_t next = 0;
      for (int32_t i = 0; i < threads; ++i) {
        NuvMPRowRange(threads, i, rows, &first, &last);
        ASSERT_EQ(first, next) << threads << " threads, " << rows << " rows, worker " << i;
        ASSERT_GE(last, first - 1);
        next = last + 1;
      }
      ASSERT_EQ(next, rows) << threads << " threads, " << rows << " rows";
    }
}

TEST_F(ForkTest, OneThreadRunsHereWithoutTheHost) {
  PLTestUseWorkers(8);
  NuvMPFork(1, 50, RecordWorker);
  std::vector<Call> calls = Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].thread, 0);
  EXPECT_EQ(calls[0].first, 0);
  EXPECT_EQ(calls[0].last, 49);
  EXPECT_EQ(calls[0].id, std::this_thread::get_id());
  EXPECT_EQ(sparkhost::Calls().mpFork, 0);
  EXPECT_EQ(sparkhost::Calls().mpInfo, 0);
}

TEST_F(ForkTest, OneRowRunsHereWhateverTheThreadCount) {
  PLTestUseWorkers(8);
  NuvMPFork(4, 1, RecordWorker);
  std::vector<Call> calls = Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].first, 0);
  EXPECT_EQ(calls[0].last, 0);
  EXPECT_EQ(calls[0].id, std::this_thread::get_id());
  EXPECT_EQ(sparkhost::Calls().mpFork, 0);
}

TEST_F(ForkTest, TwoThreadsOnEightProcessorsLeaveSixIdle) {
  PLTestUseWorkers(8);
  NuvMPFork(8, 160, RecordWorker);  // leaves rows in every record of the table
  gCalls.clear();
  NuvMPFork(2, 100, RecordWorker);
  std::vector<Call> calls = Calls();
  ExpectSlices(calls, 2, 100);
  EXPECT_NE(calls[0].id, calls[1].id);
  EXPECT_NE(calls[0].id, std::this_thread::get_id());
  EXPECT_EQ(sparkhost::Calls().mpFork, 2);
  EXPECT_EQ(sparkhost::Calls().mpInfo, 16) << "every processor entered both forks";
}

TEST_F(ForkTest, NoRowsReachTheHostAndCallNoWorker) {
  PLTestUseWorkers(8);
  NuvMPFork(NuvMPThreadsForRows(0), 0, RecordWorker);
  EXPECT_TRUE(Calls().empty());
  EXPECT_EQ(sparkhost::Calls().mpFork, 1);
  EXPECT_EQ(sparkhost::Calls().mpInfo, 8);
}

const PLErr* gThrownAt = nullptr;
std::atomic<int32_t> gFinished{0};

// Worker 2 fails; the others run to the end of their slices.
void FailingWorker(int32_t thread, uint8_t, int32_t, int32_t, NuvMPArgs* args) {
  PLErr value = args->Next<PLErr>();
  if (thread == 2 || args->Next<int32_t>() == 1) {
    try {
      throw value;
    } catch (PLErr& err) {
      gThrownAt = &err;
      throw;
    }
  }
  ++gFinished;
}

TEST_F(ForkTest, APLErrFromASerialWorkerComesBackAsANewObject) {
  PLTestUseWorkers(1);
  try {
    NuvMPFork(1, 10, FailingWorker, PLErrParameter, int32_t{1});
    FAIL() << "nothing thrown";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrParameter);
    EXPECT_NE(&err, gThrownAt);
  }
}

TEST_F(ForkTest, APLErrFromAThreadedWorkerComesBackWithItsValue) {
  PLTestUseWorkers(4);
  gFinished = 0;
  try {
    NuvMPFork(4, 128, FailingWorker, PLErrInterrupted, int32_t{0});
    FAIL() << "nothing thrown";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrInterrupted);
    EXPECT_NE(&err, gThrownAt);
  }
  EXPECT_EQ(gFinished.load(), 3);
}

void RuntimeErrorWorker(int32_t, uint8_t, int32_t, int32_t, NuvMPArgs*) {
  throw std::runtime_error("not ours");
}

TEST_F(ForkTest, OtherExceptionsPassThrough) {
  PLTestUseWorkers(1);
  EXPECT_THROW(NuvMPFork(1, 4, RuntimeErrorWorker), std::runtime_error);
  PLTestUseWorkers(2);
  EXPECT_THROW(NuvMPFork(2, 64, RuntimeErrorWorker), std::runtime_error);
}

enum Mode : int32_t { kModeA = 3, kModeB = -7 };
std::atomic<int32_t> gArgsOk{0};

// Reads all sixteen words in order; every worker must see the same sequence.
void ArgsWorker(int32_t, uint8_t, int32_t, int32_t, NuvMPArgs* args) {
  bool ok = args->Next<int32_t>() == -5;
  ok &= *args->Next<const float*>() == 0.25f;
  ok &= args->Next<Mode>() == kModeB;
  ok &= args->Next<const char*>() == nullptr;
  ok &= args->Next<int64_t>() == (int64_t{1} << 40);
  ok &= args->Next<uint8_t>() == 200;
  for (int32_t i = 6; i < 16; ++i) ok &= args->Next<int32_t>() == i * 11;
  if (ok) ++gArgsOk;
}

TEST_F(ForkTest, ArgumentsArriveInOrderThroughPrivateCursors) {
  float amount = 0.25f;
  for (int32_t p : kPLTestWorkerCounts) {
    PLTestUseWorkers(p);
    gArgsOk = 0;
    int32_t threads = NuvMPThreadsForRows(256);
    NuvMPFork(threads, 256, ArgsWorker, int32_t{-5}, &amount, kModeB, nullptr, int64_t{1} << 40,
              uint8_t{200}, 66, 77, 88, 99, 110, 121, 132, 143, 154, 165);
    EXPECT_EQ(gArgsOk.load(), threads) << p << " workers";
  }
}

// Each output row is a function of its row number and the arguments only.
void FillRows(int32_t, uint8_t, int32_t first, int32_t last, NuvMPArgs* args) {
  uint8_t* out = args->Next<uint8_t*>();
  int32_t width = args->Next<int32_t>();
  int32_t seed = args->Next<int32_t>();
  int32_t* visits = args->Next<int32_t*>();
  for (int32_t y = first; y <= last; ++y) {
    ++visits[y];
    for (int32_t x = 0; x < width; ++x)
      out[y * width + x] = static_cast<uint8_t>((x * 13 + y * 7 + seed) ^ (y >> 2));
  }
}

TEST_F(ForkTest, ForkGivesTheSameBytesForAnyWorkerCount) {
  const int32_t rows = 200, width = 48;
  std::vector<uint8_t> reference;
  for (int32_t p : kPLTestWorkerCounts) {
    PLTestUseWorkers(p);
    std::vector<uint8_t> out(static_cast<size_t>(rows * width), 0);
    std::vector<int32_t> visits(static_cast<size_t>(rows), 0);
    int32_t threads = NuvMPThreadsForRows(rows);
    EXPECT_EQ(threads, p);
    NuvMPFork(threads, rows, FillRows, out.data(), width, int32_t{5}, visits.data());
    for (int32_t y = 0; y < rows; ++y)
      ASSERT_EQ(visits[static_cast<size_t>(y)], 1) << p << " workers, row " << y;
    if (reference.empty())
      reference = out;
    else
      EXPECT_EQ(out, reference) << p << " workers";
  }
  EXPECT_EQ(sparkhost::Calls().mpFork, 3) << "every count but 1 went through the host";
}

// Cases where the host's pixel ranges cannot tell the workers apart: the slices run here,
// one after another, each exactly once.
struct Fallback {
  const char* name;
  int32_t processors;
  int32_t width, height;
  int32_t threads;
  int32_t rows;
};

class ForkFallback : public ForkTest, public ::testing::WithParamInterface<Fallback> {};

TEST_P(ForkFallback, EverySliceRunsOnceOnTheCallingThread) {
  const Fallback& f = GetParam();
  PLTestUseWorkers(f.processors);
  Width = f.width;
  Height = f.height;
  sparkhost::SetFramePixels(int64_t{f.width} * f.height);
  NuvMPFork(f.threads, f.rows, RecordWorker);
  std::vector<Call> calls = Calls();
  ExpectSlices(calls, f.threads, f.rows);
  for (const Call& call : calls) EXPECT_EQ(call.id, std::this_thread::get_id());
  EXPECT_EQ(sparkhost::Calls().mpFork, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ForkFallback,
    ::testing::Values(Fallback{"FewerPixelsThanProcessors", 8, 1, 5, 8, 256},
                      Fallback{"NoPixels", 8, 0, 1080, 8, 256},
                      Fallback{"MoreThreadsThanProcessors", 2, 1920, 1080, 5, 100},
                      Fallback{"MoreProcessorsThanTheTable", 100, 1920, 1080, 70, 2000}),
    [](const ::testing::TestParamInfo<Fallback>& info) { return std::string(info.param.name); });

}  // namespace
