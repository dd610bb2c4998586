// flowblur: chained progress reports and interruption.
#pragma once
#include <cstdint>

#include "runtime/NuvMem.h"

// A stage makes a local object whose parent is the object it was given (may be null);
// a report of f on it reaches the parent as parent.RangeStart + (parent.RangeEnd -
// parent.RangeStart) * f. An interruption is a PLErrInterrupted rising out of a report.
// Objects live on the stack and allocate nothing.
class NuvIdleAndProgressClass : public NuvMem {
 public:
  explicit NuvIdleAndProgressClass(NuvIdleAndProgressClass* parent) : Parent(parent) {}

  NuvIdleAndProgressClass& SetSubRange(float start, float end) {
    RangeStart = start;
    RangeEnd = end;
    return *this;
  }
  // Closes the sub-range at the last report, so a silent stage cannot move the value.
  NuvIdleAndProgressClass& CollapseSubRange() {
    RangeStart = Last;
    RangeEnd = Last;
    return *this;
  }
  // f in 0..1. Stores it, throws 6 when interrupted, then passes it up mapped into the
  // parent's sub-range.
  virtual void Progress(float f);
  void Idle() { Progress(Last); }
  void ProgressToEnd() { Progress(RangeEnd); }
  void SetInterrupted(bool interrupted) { Interrupted = interrupted; }
  bool IsInterrupted() const { return Interrupted; }

  bool Interrupted = false;
  float Last = 0.0f;
  float RangeStart = 0.0f;
  float RangeEnd = 1.0f;
  NuvIdleAndProgressClass* Parent;
};

// The per-worker object of a fork. Only the reporter talks to the outer chain; when the
// chain stops it, the shared flag makes every other worker throw 6 at its next report.
// The flag is one word that all workers of the fork read while one may set it: it is read
// and written atomically (a worker may still see it one report late, which costs a row).
class NuvIldeAndProgressMPInterruptible : public NuvIdleAndProgressClass {
 public:
  NuvIldeAndProgressMPInterruptible(NuvIdleAndProgressClass* parent, bool isReporter,
                                    int32_t* sharedFlag)
      : NuvIdleAndProgressClass(parent), IsReporter(isReporter), SharedFlag(sharedFlag) {}
  void Progress(float f) override;

  bool IsReporter;
  int32_t* SharedFlag;
};
