// flowblur: the frame plan of a run (which output frames, and which input frames each one
// reads) and the clip and range rules behind it. A run reads the frames through a FrameCache
// (tools/FrameCache.h), dropping each after its last use, so that each is read once.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace flowblur {

// The whole clip, in file frame numbers: `count` frames from `first`. A frame's number for
// the plug-in is its offset in this clip, whatever part of it a run renders, so every chunk
// of a clip gives the bytes a whole run gives.
struct ClipSpan {
  int64_t first = 0;
  int64_t count = 0;
  int64_t Last() const { return first + count - 1; }
};

// Picks the file frames a run renders out of the clip: all of it, or first..last of it. A
// last frame past the clip's end is clamped to it (schedulers overshoot on the last chunk);
// a first frame outside the clip is an error, with a message giving the clip's range.
bool ChooseRenderRange(const ClipSpan& clip, bool haveRange, int64_t first, int64_t last,
                       int64_t* renderFirst, int64_t* renderLast, std::string* error);

// One input frame: clip 0 (front) or 1 (back), and its offset in the clip.
struct FrameRead {
  int32_t clip = 0;
  int64_t offset = 0;
  bool operator<(const FrameRead& other) const {
    return clip != other.clip ? clip < other.clip : offset < other.offset;
  }
  bool operator==(const FrameRead& other) const {
    return clip == other.clip && offset == other.offset;
  }
};

// One output frame of a plan.
struct PlannedFrame {
  int64_t offset = 0;        // its number for the plug-in: the offset in the clip
  int64_t outputNumber = 0;  // the output file's frame number
  std::vector<FrameRead> reads;  // every input frame it needs, handles outside a chunk included
};

// Output frames in render order. Blur plans map offset k to output number clip.first + k; a
// retiming plan maps output numbers to any offsets and reads, and the run loop serves both.
struct FramePlan {
  ClipSpan clip;
  std::vector<PlannedFrame> frames;

  // Every frame read, once, in the order of first use.
  std::vector<FrameRead> DistinctReads() const;
  // For each read, the index of the last planned frame that needs it: after that frame the
  // store may let it go.
  std::map<FrameRead, size_t> LastUse() const;
  // The most frames held at once when each is read at its first use and dropped after its
  // last: what a cache must be able to hold for every frame to be read exactly once.
  size_t MostHeld() const;
};

// The frames a blur renders at the given offsets of `clip` (ascending), each reading what the
// plug-in reads for it (PluginSession::FramesRead): the frame, and its neighbour in the clip
// the motion comes from.
using ReadRule = std::function<std::vector<FrameRead>(int64_t offset)>;
FramePlan PlanFrames(const ClipSpan& clip, const std::vector<int64_t>& offsets,
                     const ReadRule& reads);

}  // namespace flowblur
