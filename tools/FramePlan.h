// flowblur: the frame plan of a run (which output frames, and which input frames each one
// reads), the clip and range rules behind it, and the byte-bounded store the frames are read
// into once per run.
#pragma once
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/ImageFiles.h"

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
  // last: what a store must be able to hold for every frame to be read exactly once.
  size_t MostHeld() const;
};

// The frames a blur renders at the given offsets of `clip` (ascending), each reading what the
// plug-in reads for it (PluginSession::FramesRead): the frame, and its neighbour in the clip
// the motion comes from.
using ReadRule = std::function<std::vector<FrameRead>(int64_t offset)>;
FramePlan PlanFrames(const ClipSpan& clip, const std::vector<int64_t>& offsets,
                     const ReadRule& reads);

// A frame as read from disk: every channel as float (for the output's other channels), and
// the colour channels packed for the plug-in.
struct StoredFrame {
  Frame frame;
  std::vector<uint8_t> packed;
  int64_t Bytes() const {
    return static_cast<int64_t>(frame.pixels.size() * sizeof(float) + packed.size());
  }
};

// Frames kept between the planned frames that need them, at most `budget` bytes of them
// (least recently used go first when a new one would not fit; one frame is always kept, so
// a frame larger than the budget still goes through). Not thread-safe: one run loop owns it.
class FrameStore {
 public:
  using Loader = std::function<bool(const FrameRead&, StoredFrame*, std::string* error)>;

  FrameStore(int64_t budget, Loader load);

  // The frame, from memory or loaded now. Null with `error` set when loading fails. The
  // pointer stays valid after the frame leaves the store.
  std::shared_ptr<const StoredFrame> Get(const FrameRead& read, std::string* error);
  // Lets the frame go now (its last planned use is over).
  void Drop(const FrameRead& read);

  int64_t Bytes() const { return bytes_; }
  int64_t Loads() const { return loads_; }  // calls of the loader so far
  size_t Held() const { return entries_.size(); }

 private:
  struct Entry {
    FrameRead read;
    std::shared_ptr<const StoredFrame> frame;
  };
  void MakeRoom(int64_t bytes);

  int64_t budget_;
  Loader load_;
  std::list<Entry> entries_;  // most recently used first
  std::map<FrameRead, std::list<Entry>::iterator> index_;
  int64_t bytes_ = 0;
  int64_t loads_ = 0;
};

}  // namespace flowblur
