// flowblur: the batch host's side of the plug-in: clips and buffers in the host simulator, the
// plug-in's entry points called as a compositing host calls them, and the flow of a frame.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "tools/FlowView.h"

namespace flowblur {

// The plug-in's three controls, as its control records hold them.
struct PluginControls {
  float amount = 0.5f;          // SparkFloat0: -2 to 10
  int32_t quality = 0;          // SparkPup1: 0 Best (flow at half size), 1 Draft (quarter size)
  bool motionFromBack = false;  // SparkBoolean2: motion from the back clip
};

// The limits of the controls, from the plug-in's own records.
float AmountMinimum();
float AmountMaximum();

// One plug-in session over one clip (and optionally a back clip) of `frames` frames of
// width x height in `formatCode` (24, 48 or 49), packed rows, with `processors` host
// processors (1 to 127). The constructor resets the host simulator, lays out the clips and
// buffers, calls SparkInitialise and SparkMemoryTempBuffers and sets the controls; the
// destructor calls SparkUnInitialise. One at a time per process: the host and the plug-in are
// process-wide, as in a real host.
//
// Frames are handed to the host by SetFrame before the frame that needs them is processed;
// FramesNeeded tells which. The host keeps the whole clip in memory.
class PluginRunner {
 public:
  PluginRunner(int32_t width, int32_t height, int32_t formatCode, int32_t frames, bool withBack,
               int32_t processors, const PluginControls& controls);
  ~PluginRunner();
  PluginRunner(const PluginRunner&) = delete;
  PluginRunner& operator=(const PluginRunner&) = delete;

  int64_t FrameBytes() const;
  // Copies a packed frame into frame `frame` of clip 0 (front) or 1 (back).
  void SetFrame(int32_t clip, int32_t frame, const void* packed);
  // The (clip, frame) pairs the plug-in reads to make output frame n: the front frame n, and
  // the current and neighbouring frame of the clip the motion comes from.
  std::vector<std::pair<int32_t, int32_t>> FramesNeeded(int32_t n) const;
  // The neighbour the plug-in pairs frame n with (the plug-in's own rule).
  int32_t Neighbour(int32_t n) const;

  // Output frame n through SparkProcess, as the host does it: the host loads frame n into the
  // front and back buffers, then calls the plug-in. On success the packed result (FrameBytes()
  // bytes) is copied to `result`. False with a message when the plug-in returned no result or
  // reported a message to the user (which then is the message).
  bool Process(int32_t n, void* result, std::string* error);

  // The flow the plug-in computed for frame n, computed again through the plug-in's own flow
  // calls on the same pair of frames of the motion clip, in the same order, mode and settings.
  // It is at the estimator's working size (half or quarter of the frame) in pixels of that
  // grid, and as the estimator delivers it: from the pair's first image to its second.
  // `first` and `second` receive the clip frame numbers of that pair. False with a message on
  // failure.
  bool FrameFlow(int32_t n, FlowField* flow, int32_t* first, int32_t* second, std::string* error);

 private:
  int32_t width_, height_, formatCode_, frames_, processors_;
  bool withBack_;
  PluginControls controls_;
  size_t notesSeen_ = 0;
};

}  // namespace flowblur
