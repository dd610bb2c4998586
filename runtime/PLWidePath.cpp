// flowblur: the run-time choice between the plain and the AVX2 loops of every wide stage.
#include "runtime/PLWidePath.h"

#include <cstdlib>

bool PLWideAvailable() {
#if defined(FLOWBLUR_PLAIN_ONLY)
  return false;
#else
  // Asked once; the answer cannot change while the process runs.
  // The explicit init makes the answer safe however early the first call comes (a
  // constructor of a shared object that runs before libgcc's own).
  static const bool available = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
  }();
  return available;
#endif
}

bool PLWideChosen() {
  static const bool chosen = [] {
    const char* plain = std::getenv("FLOWBLUR_PLAIN");
    const bool forced = plain && plain[0] != '\0' && !(plain[0] == '0' && plain[1] == '\0');
    return PLWideAvailable() && !forced;
  }();
  return chosen;
}
