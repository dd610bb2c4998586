// flowblur: progress chain and the interruptible worker variant.
#include "runtime/NuvProgress.h"

void NuvIdleAndProgressClass::Progress(float f) {
  Last = f;
  if (Interrupted) throw PLErrInterrupted;
  if (!Parent) return;
  // The range that matters is the parent's: it says where its children land.
  Parent->Progress(Parent->RangeStart + (Parent->RangeEnd - Parent->RangeStart) * f);
}

namespace {
// Relaxed: the flag carries no data with it, and a late sight of it is allowed.
bool FlagSet(const int32_t* flag) { return __atomic_load_n(flag, __ATOMIC_RELAXED) != 0; }
}  // namespace

void NuvIldeAndProgressMPInterruptible::Progress(float f) {
  if (!IsReporter) {
    if (FlagSet(SharedFlag)) throw PLErrInterrupted;
    return;
  }
  if (FlagSet(SharedFlag)) return;
  try {
    NuvIdleAndProgressClass::Progress(f);
  } catch (PLErr& err) {
    __atomic_store_n(SharedFlag, 1, __ATOMIC_RELAXED);
    PLErr value = err;
    throw value;
  }
}
