// flowblur: the fork-join layer on the simulated host's real threads, the words its workers
// share, and the progress chain with its interruption.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>
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

void RecordWorker(int32_t thread, uint8_t reporter, int32_t first, int32_t last, NuvMPArgs*) {
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

// The calls' ranges are NuvMPRowRange's slices for `threads`, in worker order.
void ExpectSlices(const std::vector<Call>& calls, int32_t threads, int32_t rows) {
  ASSERT_EQ(calls.size(), static_cast<size_t>(threads));
  for (int32_t i = 0; i < threads; ++i) {
    int32_t first, last;
    NuvMPRowRange(threads, i, rows, &first, &last);
    const Call& call = calls[static_cast<size_t>(i)];
    EXPECT_EQ(call.thread, i);
    EXPECT_EQ(call.first, first) << "worker " << i;
    EXPECT_EQ(call.last, last) << "worker " << i;
    EXPECT_EQ(call.reporter, 0);
  }
}

// The answer is the largest worker count up to the processors and the rows that leaves
// every worker 16 rows, or 1 when none does (0 for no rows); no processors act as one.
TEST_F(ForkTest, ThreadsForRowsIsTheLargestCountWithSixteenRowsEach) {
  for (int32_t t : {1, 3, 8, 64}) {
    NuvMPSetThreadCount(t);
    EXPECT_EQ(NuvMPThreadsForRows(0), 0);
    for (int32_t rows = 1; rows <= 1200; ++rows) {
      int32_t want = 1;
      for (int32_t r = 1; r <= std::min(t, rows); ++r)
        if (rows / r >= 16) want = r;
      ASSERT_EQ(NuvMPThreadsForRows(rows), want) << t << " processors, " << rows << " rows";
    }
  }
  for (int32_t count : {0, -3}) {
    NuvMPSetThreadCount(count);
    EXPECT_EQ(NuvMPGetRawThreadCount(), count) << "stored without a test";
    EXPECT_EQ(NuvMPThreadsForRows(100), 1);
    EXPECT_EQ(NuvMPGetRawThreadCount(), 1);
  }
}

// Contiguous slices covering every row, the remainder to the last worker; no threads: the
// whole range.
TEST_F(ForkTest, RowRangeGivesTheRemainderToTheLastWorker) {
  int32_t first, last;
  NuvMPRowRange(0, 0, 100, &first, &last);
  EXPECT_EQ(last - first, 99);
  for (int32_t threads = 1; threads <= 8; ++threads)
    for (int32_t rows = threads; rows <= 300; ++rows) {
      int32_t next = 0;
      for (int32_t i = 0; i < threads; ++i) {
        NuvMPRowRange(threads, i, rows, &first, &last);
        ASSERT_EQ(first, next) << threads << " threads, " << rows << " rows, worker " << i;
        ASSERT_EQ(last - first + 1, i < threads - 1 ? rows / threads : rows - next);
        next = last + 1;
      }
    }
}

TEST_F(ForkTest, TwoThreadsOnEightProcessorsLeaveSixIdle) {
  PLTestUseWorkers(8);
  NuvMPFork(8, 160, RecordWorker);  // leaves rows in every record of the table
  gCalls.clear();
  NuvMPFork(2, 100, RecordWorker);
  std::vector<Call> calls = Calls();
  ExpectSlices(calls, 2, 100);
  EXPECT_NE(calls[0].id, calls[1].id);
  // No rows reach the host too, and call no worker.
  gCalls.clear();
  NuvMPFork(NuvMPThreadsForRows(0), 0, RecordWorker);
  EXPECT_TRUE(Calls().empty());
  EXPECT_EQ(sparkhost::Calls().mpFork, 3);
  EXPECT_EQ(sparkhost::Calls().mpInfo, 24) << "every processor entered every fork";
}

const PLErr* gThrownAt = nullptr;
std::atomic<int32_t> gFinished{0};

// Worker 2 fails (or every worker, when told); the others run to the end of their slices.
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

void RuntimeErrorWorker(int32_t, uint8_t, int32_t, int32_t, NuvMPArgs*) {
  throw std::runtime_error("not ours");
}

// A PLErr comes back by value, as a new object, from a serial or a threaded worker; other
// exceptions pass through.
TEST_F(ForkTest, ExceptionsFromWorkersComeBack) {
  for (int32_t workers : {1, 4}) {
    PLTestUseWorkers(workers);
    gFinished = 0;
    const PLErr sent = workers == 1 ? PLErrParameter : PLErrInterrupted;
    try {
      NuvMPFork(workers, 128, FailingWorker, sent, int32_t{workers == 1});
      ADD_FAILURE() << "nothing thrown";
    } catch (PLErr& err) {
      EXPECT_EQ(err, sent);
      EXPECT_NE(&err, gThrownAt);
    }
    EXPECT_EQ(gFinished.load(), workers - 1);
    EXPECT_THROW(NuvMPFork(workers, 64, RuntimeErrorWorker), std::runtime_error);
  }
}

enum Mode : int32_t { kModeA = 3, kModeB = -7 };

// Reads all sixteen words in order, then fills its rows from its row numbers and the
// arguments only: every worker must see the same sequence.
void ArgsWorker(int32_t, uint8_t, int32_t first, int32_t last, NuvMPArgs* args) {
  bool ok = args->Next<int32_t>() == -5;
  ok &= *args->Next<const float*>() == 0.25f;
  ok &= args->Next<Mode>() == kModeB;
  ok &= args->Next<const char*>() == nullptr;
  ok &= args->Next<int64_t>() == (int64_t{1} << 40);
  ok &= args->Next<uint8_t>() == 200;
  for (int32_t i = 6; i < 14; ++i) ok &= args->Next<int32_t>() == i * 11;
  uint8_t* out = args->Next<uint8_t*>();
  int32_t* visits = args->Next<int32_t*>();
  for (int32_t y = first; y <= last; ++y) {
    ++visits[y];
    for (int32_t x = 0; x < 48; ++x)
      out[y * 48 + x] = static_cast<uint8_t>(ok ? (x * 13 + y * 7) ^ (y >> 2) : 0);
  }
}

TEST_F(ForkTest, ArgumentsArriveInOrderAndAnyWorkerCountGivesTheSameBytes) {
  const int32_t rows = 200;
  float amount = 0.25f;
  std::vector<uint8_t> reference;
  for (int32_t p : kPLTestWorkerCounts) {
    PLTestUseWorkers(p);
    std::vector<uint8_t> out(static_cast<size_t>(rows * 48), 0);
    std::vector<int32_t> visits(static_cast<size_t>(rows), 0);
    int32_t threads = NuvMPThreadsForRows(rows);
    EXPECT_EQ(threads, p);
    NuvMPFork(threads, rows, ArgsWorker, int32_t{-5}, &amount, kModeB, nullptr, int64_t{1} << 40,
              uint8_t{200}, 66, 77, 88, 99, 110, 121, 132, 143, out.data(), visits.data());
    EXPECT_EQ(visits, std::vector<int32_t>(rows, 1)) << p << " workers";
    if (reference.empty()) reference = out;
    EXPECT_EQ(out, reference) << p << " workers";
  }
  EXPECT_NE(reference, std::vector<uint8_t>(reference.size(), 0));
  EXPECT_EQ(sparkhost::Calls().mpFork, 3) << "every count but 1 went through the host";
}

// A banded fork: every band of 16 rows is one call (the last also the remainder) on one of
// the workers, whatever their count; rows for fewer than two bands are NuvMPFork's slices.
// The worker's own arguments arrive as given.
void BandWorker(int32_t thread, uint8_t reporter, int32_t first, int32_t last, NuvMPArgs* args) {
  if (args->Next<int32_t>() != 77 || *args->Next<const float*>() != 0.25f) return;
  RecordWorker(thread, reporter, first, last, args);
}

TEST_F(ForkTest, BandsCoverTheRowsOnceWithTheRemainderInTheLast) {
  const float quarter = 0.25f;
  for (int32_t p : kPLTestWorkerCounts)
    for (int32_t rows : {31, 32, 47, 200, 1000}) {
      PLTestUseWorkers(p);
      gCalls.clear();
      const int32_t threads = NuvMPThreadsForRows(rows);
      NuvMPForkBands(threads, rows, 16, BandWorker, int32_t{77}, &quarter);
      std::vector<Call> calls = Calls();
      if (threads == 1 || rows < 32) {
        ExpectSlices(calls, threads, rows);
        continue;
      }
      std::sort(calls.begin(), calls.end(),
                [](const Call& a, const Call& b) { return a.first < b.first; });
      ASSERT_EQ(calls.size(), static_cast<size_t>(rows / 16)) << p << " workers, " << rows;
      for (size_t k = 0; k < calls.size(); ++k) {
        EXPECT_EQ(calls[k].first, static_cast<int32_t>(16 * k));
        EXPECT_EQ(calls[k].last, k + 1 == calls.size() ? rows - 1 : calls[k].first + 15);
        EXPECT_LT(calls[k].thread, threads);
      }
    }
}

// Cases that never reach the host: one thread or one row, or host pixel ranges that cannot
// tell the workers apart. The slices run here, one after another, each exactly once.
struct Fallback {
  const char* name;
  int32_t processors;
  int32_t width, height;
  int32_t threads;
  int32_t rows;
  int32_t slices;
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
  ExpectSlices(calls, f.slices, f.rows);
  for (const Call& call : calls) EXPECT_EQ(call.id, std::this_thread::get_id());
  EXPECT_EQ(sparkhost::Calls().mpFork + sparkhost::Calls().mpInfo, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ForkFallback,
    ::testing::Values(Fallback{"OneThread", 8, 1920, 1080, 1, 50, 1},
                      Fallback{"OneRow", 8, 1920, 1080, 4, 1, 1},
                      Fallback{"FewerPixelsThanProcessors", 8, 1, 5, 8, 256, 8},
                      Fallback{"NoPixels", 8, 0, 1080, 8, 256, 8},
                      Fallback{"MoreThreadsThanProcessors", 2, 1920, 1080, 5, 100, 5},
                      Fallback{"MoreProcessorsThanTheTable", 100, 1920, 1080, 70, 2000, 70}),
    [](const ::testing::TestParamInfo<Fallback>& info) { return std::string(info.param.name); });

// ---- the two words that the workers of one fork share, the error slot and the interruption
// flag, written by several host threads at once (run under ThreadSanitizer too) ----

class SharedWords : public ForkTest, public ::testing::WithParamInterface<int32_t> {};

// Worker 0 reports to an interrupted chain and so raises the flag; every other worker
// reports until the flag stops it. Each stores the code that stopped it.
void StopAllWorker(int32_t thread, uint8_t, int32_t, int32_t, NuvMPArgs* args) {
  NuvIdleAndProgressClass* top = args->Next<NuvIdleAndProgressClass*>();
  int32_t* flag = args->Next<int32_t*>();
  int32_t* slot = args->Next<int32_t*>();
  NuvIldeAndProgressMPInterruptible progress(top, thread == 0, flag);
  try {
    for (int64_t i = 0; i < (int64_t{1} << 40); ++i) progress.Progress(0.5f);
  } catch (PLErr& err) {
    NuvMPStoreError(slot, err);
  }
}

TEST_P(SharedWords, AnInterruptionStopsEveryWorker) {
  PLTestUseWorkers(GetParam());
  const int32_t rows = 16 * GetParam();
  NuvIdleAndProgressClass top(nullptr);
  top.SetInterrupted(true);
  int32_t flag = 0, slot = 0;
  NuvMPFork(NuvMPThreadsForRows(rows), rows, StopAllWorker, &top, &flag, &slot);
  EXPECT_EQ(NuvMPLoadError(&slot), PLErrInterrupted);
  EXPECT_EQ(flag, 1);
}

// Every worker fails at once with its own code: one of them survives, none is lost to a
// torn or mixed value.
void FailWorker(int32_t thread, uint8_t, int32_t, int32_t, NuvMPArgs* args) {
  int32_t* slot = args->Next<int32_t*>();
  NuvMPStoreError(slot, 100 + thread);
}

TEST_P(SharedWords, OneOfSeveralFailuresSurvives) {
  const int32_t threads = GetParam();
  PLTestUseWorkers(threads);
  for (int32_t round = 0; round < 50; ++round) {
    int32_t slot = 0;
    NuvMPFork(threads, 16 * threads, FailWorker, &slot);
    const int32_t code = NuvMPLoadError(&slot);
    EXPECT_GE(code, 100);
    EXPECT_LT(code, 100 + threads);
  }
}

INSTANTIATE_TEST_SUITE_P(Workers, SharedWords, testing::ValuesIn(kPLTestWorkerCounts));

// Two threads adding to the same rows under the rows' locks lose no addition.
TEST(RowLocks, KeepTwoThreadsApartOnEachRow) {
  NuvMP_RowLocks locks(3);
  int64_t counts[3] = {0, 0, 0};
  auto work = [&locks, &counts] {
    for (int32_t i = 0; i < 30000; ++i) {
      locks.Lock(i % 3);
      ++counts[i % 3];
      locks.Unlock(i % 3);
    }
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  for (int64_t c : counts) EXPECT_EQ(c, 20000);
}


// ---- progress chain mapping and interruption ----

struct Recorder : NuvIdleAndProgressClass {
  Recorder() : NuvIdleAndProgressClass(nullptr) {}
  void Progress(float f) override {
    reports.push_back(f);
    NuvIdleAndProgressClass::Progress(f);
  }
  std::vector<float> reports;
};

// A child reports into its parent's sub-range (its own range does not change its report);
// a collapsed range holds the parent's last value; Idle and ProgressToEnd reach the override.
TEST(Progress, ChildrenMapIntoTheParentsSubRange) {
  Recorder top;
  top.SetSubRange(0.5f, 1.0f);
  NuvIdleAndProgressClass child(&top);
  child.SetSubRange(0.0f, 0.1f);
  child.Progress(0.5f);
  EXPECT_EQ(top.reports, std::vector<float>{0.75f});
  top.Progress(0.3f);
  top.CollapseSubRange();
  child.Progress(0.9f);
  EXPECT_EQ(top.reports.back(), 0.3f);
  top.Idle();
  top.SetSubRange(0.0f, 0.8f);
  top.ProgressToEnd();
  EXPECT_EQ(top.reports, (std::vector<float>{0.75f, 0.3f, 0.3f, 0.3f, 0.8f}));
}

// The shared flag stops workers but not the reporter, which sends nothing up when it is not
// the reporter, and raises the flag once when the interrupted chain above raises 6.
TEST(ProgressMP, SharedFlagStopsWorkersAndTheReporterSetsIt) {
  Recorder top;
  int32_t flag = 0;
  NuvIldeAndProgressMPInterruptible worker(&top, false, &flag);
  worker.Progress(0.5f);  // flag clear: nothing happens
  EXPECT_TRUE(top.reports.empty());
  top.SetInterrupted(true);
  NuvIldeAndProgressMPInterruptible reporter(&top, true, &flag);
  try {
    reporter.Progress(0.2f);
    FAIL();
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrInterrupted);
  }
  EXPECT_EQ(flag, 1);
  EXPECT_EQ(top.Last, 0.2f) << "the interrupted parent stores the value before it raises";
  EXPECT_NO_THROW(reporter.Progress(0.3f));  // it does not raise a second time
  EXPECT_THROW(worker.Progress(0.5f), PLErr);
  NuvIldeAndProgressMPInterruptible late(nullptr, true, &flag);
  EXPECT_NO_THROW(late.Progress(0.5f));
}

}  // namespace
