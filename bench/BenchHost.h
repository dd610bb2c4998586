// flowblur: the plug-in driven through the host simulator for benchmarks and the quality
// harness, with its flow recomputed through the same calls and its heap counted.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "shell/spark.h"

namespace flowblur {

// One plug-in session: a front clip of `frames` frames of width x height in `formatCode` (24,
// 25, 48, 49 or 64), packed rows, on `processors` host processors (1 to 127), with the
// controls Amount of Blur = amount and Best (draft false) or Draft quality, motion from the
// front clip. The constructor resets the host simulator, lays out clip and buffers and calls
// SparkInitialise and SparkMemoryTempBuffers; the destructor calls SparkUnInitialise. One at a
// time per process: host and plug-in state are process-wide.
class HostSession {
 public:
  HostSession(int32_t width, int32_t height, int32_t formatCode, int32_t frames,
              int32_t processors, float amount, bool draft);
  ~HostSession();
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;

  int32_t Width() const { return width_; }
  int32_t Height() const { return height_; }
  int32_t FormatCode() const { return formatCode_; }
  int64_t FrameBytes() const;
  // Frame n of the clip from a packed host frame (FrameBytes() bytes).
  void SetFrame(int32_t n, const void* hostFrame);
  // The host's copy of frame n (packed rows).
  uint8_t* ClipFrame(int32_t n);

  // The host's step before frame n (frame n into the front buffer) and the call's record.
  // SparkProcess itself reloads frame n, so one record serves any number of calls.
  spark_info_struct BeginFrame(int32_t n);
  // BeginFrame, then SparkProcess: the result buffer, or null with `error` set when the
  // plug-in returned null or said anything to the user.
  const void* Process(int32_t n, std::string* error);
  // Whether the plug-in has said anything to the user since the session began (or since the
  // last call), with the texts.
  bool TakeNotes(std::string* said);

  // The flow the plug-in computes for frame n, computed again through the plug-in's own calls
  // (CreateFlowEstimator, CalculateFlow) on the same pair of frames, in the same order, mode
  // and settings: at the estimator's working size, in pixels of that grid, from the pair's
  // first image to its second. `first` and `second` receive the pair's frame numbers.
  bool PluginFlow(int32_t n, std::vector<float>* uv, int32_t* flowWidth, int32_t* flowHeight,
                  int32_t* first, int32_t* second, std::string* error);

 private:
  int32_t width_, height_, formatCode_, frames_, processors_;
  bool draft_;
  size_t notesSeen_ = 0;
};

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

}  // namespace flowblur
