// flowblur: the benchmarks' controls and heap counting around one SparkProcess call.
#include "bench/BenchHost.h"

#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

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

namespace {
bool ParseInt(const char* text, int32_t low, int32_t high, int32_t* value) {
  char* end = nullptr;
  long v = std::strtol(text, &end, 10);
  if (!*text || *end || v < low || v > high) return false;
  *value = static_cast<int32_t>(v);
  return true;
}
}  // namespace

bool ParseHarnessOptions(int argc, char** argv, const HarnessOptionRules& rules,
                         HarnessOptions* o) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--draft") {
      o->draft = true;
      continue;
    }
    const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
    if (!next || a == "--help" || a == "-h") return false;
    bool ok = true;
    if (a == "--width") ok = ParseInt(next, rules.minimumSide, 16384, &o->width);
    else if (a == "--height") ok = ParseInt(next, rules.minimumSide, 16384, &o->height);
    else if (a == "--frames") ok = ParseInt(next, 3, 10000, &o->frames);
    else if (a == "--format" && rules.takesFormat)
      ok = ParseInt(next, 0, 1000, &o->format) && HostBytesPerPixel(o->format) > 0;
    else if (a == "--processors") ok = ParseInt(next, 1, 127, &o->processors);
    else if (a == "--subframes") ok = ParseInt(next, 1, 4096, &o->subframes);
    else if (a == "--repeat" && rules.takesRepeat) ok = ParseInt(next, 1, 100, &o->repeat);
    else if (a == "--threads") ok = ParseInt(next, 1, 256, &o->threads);
    else if (a == "--amount") {
      char* end = nullptr;
      o->amount = std::strtof(next, &end);
      ok = *next && !*end && o->amount >= 0.0f && o->amount <= 10.0f;
    } else {
      ok = false;
    }
    if (!ok) {
      std::fprintf(stderr, "%s: bad option %s %s\n", rules.program, a.c_str(), next);
      return false;
    }
    ++i;
  }
  return true;
}

}  // namespace flowblur
