// flowblur: progress chain mapping and interruption.
#include <gtest/gtest.h>

#include "runtime/runtime.h"

namespace {
struct Recorder : NuvIdleAndProgressClass {
  Recorder() : NuvIdleAndProgressClass(nullptr) {}
  void Progress(float f) override {
    reports.push_back(f);
    NuvIdleAndProgressClass::Progress(f);
  }
  std::vector<float> reports;
};

TEST(Progress, NullParentStoresAndReturns) {
  NuvIdleAndProgressClass p(nullptr);
  p.Progress(0.25f);
  EXPECT_EQ(p.Last, 0.25f);
}

TEST(Progress, ChildMapsIntoParentsSubRange) {
  Recorder top;
  top.SetSubRange(0.5f, 1.0f);
  NuvIdleAndProgressClass child(&top);
  child.SetSubRange(0.0f, 0.1f);  // the child's own range does not change its report
  child.Progress(0.5f);
  ASSERT_EQ(top.reports.size(), 1u);
  EXPECT_EQ(top.reports[0], 0.75f);
}

TEST(Progress, CollapsedRangeHoldsTheParentsLastValue) {
  Recorder top;
  top.Progress(0.3f);
  top.CollapseSubRange();
  NuvIdleAndProgressClass child(&top);
  child.Progress(0.9f);
  child.Progress(0.1f);
  EXPECT_EQ(top.reports.back(), 0.3f);
}

TEST(Progress, IdleAndProgressToEndReachTheOverride) {
  Recorder top;
  top.Progress(0.4f);
  top.Idle();
  top.SetSubRange(0.0f, 0.8f);
  top.ProgressToEnd();
  ASSERT_EQ(top.reports.size(), 3u);
  EXPECT_EQ(top.reports[1], 0.4f);
  EXPECT_EQ(top.reports[2], 0.8f);
}

TEST(Progress, InterruptedRaisesSixAfterStoring) {
  NuvIdleAndProgressClass p(nullptr);
  p.SetInterrupted(true);
  EXPECT_TRUE(p.IsInterrupted());
  try {
    p.Progress(0.6f);
    FAIL();
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrInterrupted);
  }
  EXPECT_EQ(p.Last, 0.6f);
}

TEST(Progress, InterruptionRisesThroughTheChain) {
  NuvIdleAndProgressClass top(nullptr);
  top.SetInterrupted(true);
  NuvIdleAndProgressClass child(&top);
  EXPECT_THROW(child.Progress(0.1f), PLErr);
}

TEST(ProgressMP, SharedFlagStopsWorkersButNotTheReporter) {
  int32_t flag = 0;
  NuvIldeAndProgressMPInterruptible worker(nullptr, false, &flag);
  NuvIldeAndProgressMPInterruptible reporter(nullptr, true, &flag);
  worker.Progress(0.5f);  // flag clear: nothing happens
  flag = 1;
  EXPECT_THROW(worker.Progress(0.5f), PLErr);
  EXPECT_NO_THROW(reporter.Progress(0.5f));
}

TEST(ProgressMP, ReporterSetsTheFlagWhenTheChainStopsIt) {
  NuvIdleAndProgressClass top(nullptr);
  top.SetInterrupted(true);
  int32_t flag = 0;
  NuvIldeAndProgressMPInterruptible reporter(&top, true, &flag);
  try {
    reporter.Progress(0.2f);
    FAIL();
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrInterrupted);
  }
  EXPECT_EQ(flag, 1);
  EXPECT_NO_THROW(reporter.Progress(0.3f));  // it does not raise a second time
}

TEST(ProgressMP, NonReporterSendsNothingUp) {
  Recorder top;
  int32_t flag = 0;
  NuvIldeAndProgressMPInterruptible worker(&top, false, &flag);
  worker.Progress(0.5f);
  EXPECT_TRUE(top.reports.empty());
}
}  // namespace
