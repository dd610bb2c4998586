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
