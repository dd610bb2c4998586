// flowblur: what the benchmarks and the quality harness add to the shared plug-in session:
// their controls and the heap of one SparkProcess call, counted.
#pragma once
#include <cstdint>

#include "bench/GroundTruth.h"
#include "shell/spark.h"
#include "tools/PluginSession.h"

namespace flowblur {

// The controls the benchmarks and harnesses run with: Amount of Blur `amount`, Best (draft
// false) or Draft quality, motion from the front clip. Their sessions have no back clip.
PluginControls BenchControls(float amount, bool draft);

// Heap of one SparkProcess call, in bytes as malloc hands them out (malloc_usable_size).
struct HeapPeak {
  int64_t peak = 0;          // most bytes held at once: library blocks and the driver's planes
  int64_t libraryPeak = 0;   // the library's blocks alone (through the NuvMem hooks)
  int64_t planes = 0;        // the driver's float planes (format 49; 0 otherwise)
  int64_t libraryLeft = 0;   // library bytes still held after the call (should be 0)
};

// Runs SparkProcess(info) once with counting allocation hooks installed (NuvMemSetHooks for
// every library block, SparkSetPlaneAllocator for the driver's planes) and removes them
// afterwards. Must be called while the library holds no blocks. The driver frees its planes
// with free() after destroying the estimator, so plane bytes are counted from their
// allocation to the end of the call, which is exactly their lifetime within it.
HeapPeak MeasureHeap(const spark_info_struct& info, const void** result);

// The command line of the quality harness and the comparison: demo-clip size and length, the
// plug-in's settings and the ground truth's.
struct HarnessOptions {
  int32_t width = 960;
  int32_t height = 540;
  int32_t frames = 8;
  int32_t format = 24;
  bool draft = false;
  float amount = 0.5f;
  int32_t processors = 2;
  int32_t subframes = kTrueBlurSubframes;
  int32_t repeat = 3;   // timing repetitions (comparison only)
  int32_t threads = 0;  // ground-truth render threads; 0: the machine's
};
// Which options a program takes besides the common ones, and its smallest frame side.
struct HarnessOptionRules {
  const char* program;
  bool takesFormat;
  bool takesRepeat;
  int32_t minimumSide;
};
// False, after a line naming the bad option, for anything it does not take or out of range;
// also false for --help. The amount is 0 to 10: a negative amount sharpens, and no shutter
// corresponds to it.
bool ParseHarnessOptions(int argc, char** argv, const HarnessOptionRules& rules,
                         HarnessOptions* o);

}  // namespace flowblur
