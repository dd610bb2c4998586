// flowblur: progress chain and the interruptible worker variant.
#include "runtime/NuvProgress.h"

void NuvIdleAndProgressClass::Progress(float f) {
  Last = f;
  if (Interrupted) throw PLErrInterrupted;
  if (!Parent) return;
  // The range that matters is the parent's: it says where its children land.
  Parent->Progress(Parent->RangeStart + (Parent->RangeEnd - Parent->RangeStart) * f);
}

void NuvIldeAndProgressMPInterruptible::Progress(float f) {
  if (!IsReporter) {
    if (*SharedFlag != 0) throw PLErrInterrupted;
    return;
  }
  if (*SharedFlag != 0) return;
  try {
    NuvIdleAndProgressClass::Progress(f);
  } catch (PLErr& err) {
    *SharedFlag = 1;
    PLErr value = err;
    throw value;
  }
}
