// flowblur: one session of the statically linked plug-in on the host simulator, shared by the
// batch host and the benchmarks: clips, controls, frames processed, and the plug-in's flow.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "shell/spark.h"

namespace flowblur {

// The host's clip numbers.
constexpr int32_t kFrontClip = 0;
constexpr int32_t kBackClip = 1;

// The plug-in's three controls, as its control records hold them.
struct PluginControls {
  float amount = 0.5f;          // SparkFloat0: -2 to 10
  int32_t quality = 0;          // SparkPup1: 0 Best (flow at half size), 1 Draft (quarter size)
  bool motionFromBack = false;  // SparkBoolean2: motion from the back clip
};

// The limits of the Amount control, from the plug-in's own record.
float AmountMinimum();
float AmountMaximum();

// One plug-in session over a front clip (and optionally a back clip) of `frames` frames of
// width x height in `formatCode` (24, 25, 48, 49 or 64), packed rows, on `processors` host
// processors (1 to 127). The constructor resets the host simulator, lays out clips and
// buffers, calls SparkInitialise and SparkMemoryTempBuffers and then sets the controls (so
// they win over the host's saved setup); the destructor calls SparkUnInitialise. One at a time
// per process: the host and the plug-in are process-wide, as in a real host.
//
// Frames are handed to the host by SetFrame before the frame that needs them is processed;
// FramesNeeded tells which. The host keeps the whole clip in memory. With a FrameSource the
// host keeps none of it: it asks the source for frame n of a clip when the plug-in loads it
// (SetFrame and ClipFrame are then refused), as a host streams a long clip from its disk.
class PluginSession {
 public:
  // Packed frame `frame` (clamped to the clip) of `clip`, valid until the next call, or null
  // when the caller cannot give it. Called on the thread that calls the plug-in.
  using FrameSource = std::function<const void*(int32_t clip, int32_t frame)>;

  PluginSession(int32_t width, int32_t height, int32_t formatCode, int32_t frames, bool withBack,
                int32_t processors, const PluginControls& controls,
                FrameSource source = nullptr);
  ~PluginSession();
  PluginSession(const PluginSession&) = delete;
  PluginSession& operator=(const PluginSession&) = delete;

  int32_t Width() const { return width_; }
  int32_t Height() const { return height_; }
  int32_t FormatCode() const { return formatCode_; }
  int64_t FrameBytes() const;
  // Copies a packed frame (FrameBytes() bytes) into frame `frame` of `clip`.
  void SetFrame(int32_t clip, int32_t frame, const void* packed);
  // The host's copy of frame `frame` of `clip` (packed rows).
  uint8_t* ClipFrame(int32_t clip, int32_t frame);

  // The neighbour the plug-in pairs frame n with (the shell's own rule), unclamped.
  int32_t Neighbour(int32_t n) const;
  // The (clip, frame) pairs the plug-in reads to make output frame n: the front frame n, and
  // the current and neighbouring frame of the clip the motion comes from.
  std::vector<std::pair<int32_t, int32_t>> FramesNeeded(int32_t n) const;
  // The same rule for frame n of a clip of `clipFrames` frames (neighbours clamped to the
  // clip, as the host clamps them), for hosts that plan a run before any session exists.
  static std::vector<std::pair<int32_t, int64_t>> FramesRead(int64_t n, int64_t clipFrames,
                                                              bool withBack,
                                                              bool motionFromBack);

  // The host's step before frame n (frame n into the front and back buffers) and the call's
  // record. SparkProcess itself reloads frame n, so one record serves any number of calls.
  spark_info_struct BeginFrame(int32_t n);
  // BeginFrame, then SparkProcess: the result buffer (FrameBytes() bytes, valid until the next
  // call), or null with `error` set when the plug-in said anything to the user or returned null.
  const void* Process(int32_t n, std::string* error);
  // Whether the plug-in has said anything to the user since the session began or the last
  // call that collected its messages, with the texts joined by "; ".
  bool TakeNotes(std::string* said);

  // The flow the plug-in computes for frame n, computed again through the plug-in's own calls
  // (CreateFlowEstimator, CalculateFlow) on the same pair of frames of the motion clip, in the
  // same order, mode and settings: at the estimator's working size (half or quarter of the
  // frame), in pixels of that grid, from the pair's first image to its second, as interleaved
  // u, v. `first` and `second` receive the pair's clip frame numbers. False with a message on
  // failure.
  bool PluginFlow(int32_t n, std::vector<float>* uv, int32_t* flowWidth, int32_t* flowHeight,
                  int32_t* first, int32_t* second, std::string* error);

 private:
  int32_t ClampFrame(int32_t frame) const;
  int32_t MotionClip() const;
  const uint8_t* FrameOf(int32_t clip, int32_t frame);

  int32_t width_, height_, formatCode_, frames_, processors_;
  bool withBack_;
  PluginControls controls_;
  FrameSource source_;
  size_t notesSeen_ = 0;
};

// A session over a clip of any length that holds none of it in the host: frame n of the clip
// reaches the plug-in as frame n, its true offset in the whole clip, and the host fetches the
// frames the plug-in asks for from those the caller hands to Process, so the plug-in sees the
// pair, the order and the clamping at the clip's ends of the whole clip whatever part of it a
// run renders. The caller decides what stays in memory.
class ClipSession {
 public:
  ClipSession(int32_t width, int32_t height, int32_t formatCode, int64_t clipFrames,
              bool withBack, int32_t processors, const PluginControls& controls);

  int64_t FrameBytes() const { return session_.FrameBytes(); }
  // The (clip, offset) pairs frame n of the whole clip reads.
  std::vector<std::pair<int32_t, int64_t>> FramesRead(int64_t n) const;
  // Packed frame (FrameBytes() bytes) `offset` of `clip`, for each pair FramesRead(n) names;
  // null for any other.
  using PackedFrame = std::function<const void*(int32_t clip, int64_t offset)>;
  // Frame n through the plug-in: the result buffer (valid until the next call), or null with
  // `error` set (also when the plug-in asked for a frame `packed` does not give). `packed` is
  // kept for PluginFlow(n): what it refers to must outlive that call.
  const void* Process(int64_t n, const PackedFrame& packed, std::string* error);
  // The plug-in's flow for frame n (see PluginSession::PluginFlow), right after Process(n);
  // `first` and `second` are offsets in the whole clip.
  bool PluginFlow(int64_t n, std::vector<float>* uv, int32_t* flowWidth, int32_t* flowHeight,
                  int64_t* first, int64_t* second, std::string* error);

 private:
  const void* Serve(int32_t clip, int32_t frame);

  int64_t clipFrames_;
  bool withBack_, motionFromBack_;
  PackedFrame packed_;     // the frames of the last Process
  std::string missing_;    // a frame the plug-in asked for that `packed_` did not give
  PluginSession session_;  // last: its source refers to the members above
};

}  // namespace flowblur
