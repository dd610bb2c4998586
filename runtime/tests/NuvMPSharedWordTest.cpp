// flowblur tests: the two words that the workers of one fork share, the error slot and the
// interruption flag, written by several host threads at once (run under ThreadSanitizer too).
#include <gtest/gtest.h>

#include <thread>

#include "host/SparkHost.h"
#include "runtime/NuvMP.h"
#include "runtime/NuvProgress.h"
#include "tests/support/PLTestWorkers.h"

namespace {

class SharedWords : public testing::TestWithParam<int32_t> {
 protected:
  void SetUp() override { PLTestUseWorkers(GetParam()); }
  void TearDown() override {
    sparkhost::Reset();
    NuvMPSetThreadCount(1);
  }
};

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

}  // namespace
