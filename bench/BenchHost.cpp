// flowblur: the benchmarks' controls and heap counting around one SparkProcess call.
#include "bench/BenchHost.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>

#include "runtime/NuvMem.h"
#include "shell/SparkDriver.h"

namespace flowblur {
namespace {

// ---- Heap counting. Hooks run on every host processor, so the counts are atomic.
std::atomic<int64_t> gLive{0};
std::atomic<int64_t> gPeak{0};
std::atomic<int64_t> gLibraryLive{0};
std::atomic<int64_t> gLibraryPeak{0};
std::atomic<int64_t> gPlanes{0};

void RaisePeak(std::atomic<int64_t>* peak, int64_t value) {
  int64_t seen = peak->load();
  while (value > seen && !peak->compare_exchange_weak(seen, value)) {
  }
}

void* CountingAlloc(void* /*context*/, uint64_t size) {
  void* block = std::malloc(static_cast<size_t>(size));
  if (block) {
    int64_t bytes = static_cast<int64_t>(malloc_usable_size(block));
    RaisePeak(&gLibraryPeak, gLibraryLive += bytes);
    RaisePeak(&gPeak, gLive += bytes);
  }
  return block;
}

void CountingFree(void* /*context*/, void* block) {
  if (block) {
    int64_t bytes = static_cast<int64_t>(malloc_usable_size(block));
    gLibraryLive -= bytes;
    gLive -= bytes;
  }
  std::free(block);
}

// The driver's own plane allocation is calloc; this is the same, counted.
void* CountingPlane(size_t bytes) {
  void* block = std::calloc(1, bytes);
  if (block) {
    int64_t usable = static_cast<int64_t>(malloc_usable_size(block));
    gPlanes += usable;
    RaisePeak(&gPeak, gLive += usable);
  }
  return block;
}

}  // namespace

PluginControls BenchControls(float amount, bool draft) {
  PluginControls controls;
  controls.amount = amount;
  controls.quality = draft ? 1 : 0;
  controls.motionFromBack = false;
  return controls;
}

HeapPeak MeasureHeap(const spark_info_struct& info, const void** result) {
  gLive = 0;
  gPeak = 0;
  gLibraryLive = 0;
  gLibraryPeak = 0;
  gPlanes = 0;
  NuvMemSetHooks(nullptr, CountingAlloc, CountingFree);
  SparkPlaneAllocFunction previous = SparkSetPlaneAllocator(CountingPlane);
  void* pixels = SparkProcess(info);
  SparkSetPlaneAllocator(previous);
  NuvMemSetHooks(nullptr, nullptr, nullptr);
  if (result) *result = pixels;
  HeapPeak heap;
  heap.peak = gPeak;
  heap.libraryPeak = gLibraryPeak;
  heap.planes = gPlanes;
  heap.libraryLeft = gLibraryLive;
  return heap;
}

}  // namespace flowblur
