// flowblur test support: run forks on N real host threads.
#pragma once
#include <cstdint>

#include "host/SparkHost.h"
#include "runtime/NuvMP.h"

// Sets the library's thread count and the simulated host's processors to `workers`, with a
// frame large enough that the host's pixel ranges tell every processor apart.
inline void PLTestUseWorkers(int32_t workers) {
  NuvMPSetThreadCount(workers);
  sparkhost::SetProcessors(workers);
  Width = 1920;
  Height = 1080;
  sparkhost::SetFramePixels(int64_t{1920} * 1080);
}

// The worker counts every parallel stage is checked with.
constexpr int32_t kPLTestWorkerCounts[] = {1, 2, 3, 8};
