// flowblur: frame plans and render ranges within a clip.
#include "tools/FramePlan.h"

#include <algorithm>
#include <set>

namespace flowblur {

bool ChooseRenderRange(const ClipSpan& clip, bool haveRange, int64_t first, int64_t last,
                       int64_t* renderFirst, int64_t* renderLast, std::string* error) {
  if (!haveRange) {
    *renderFirst = clip.first;
    *renderLast = clip.Last();
    return true;
  }
  if (first < clip.first || first > clip.Last()) {
    *error = "--frames starts at " + std::to_string(first) + ", outside the clip (frames " +
             std::to_string(clip.first) + " to " + std::to_string(clip.Last()) + ")";
    return false;
  }
  *renderFirst = first;
  *renderLast = std::min(last, clip.Last());
  return true;
}

std::vector<FrameRead> FramePlan::DistinctReads() const {
  std::vector<FrameRead> reads;
  std::set<FrameRead> seen;
  for (const PlannedFrame& frame : frames)
    for (const FrameRead& read : frame.reads)
      if (seen.insert(read).second) reads.push_back(read);
  return reads;
}

std::map<FrameRead, size_t> FramePlan::LastUse() const {
  std::map<FrameRead, size_t> last;
  for (size_t i = 0; i < frames.size(); ++i)
    for (const FrameRead& read : frames[i].reads) last[read] = i;
  return last;
}

size_t FramePlan::MostHeld() const {
  std::map<FrameRead, size_t> last = LastUse();
  std::set<FrameRead> held;
  size_t most = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    for (const FrameRead& read : frames[i].reads) held.insert(read);
    most = std::max(most, held.size());
    for (const FrameRead& read : frames[i].reads)
      if (last[read] == i) held.erase(read);
  }
  return most;
}

FramePlan PlanFrames(const ClipSpan& clip, const std::vector<int64_t>& offsets,
                     const ReadRule& reads) {
  FramePlan plan;
  plan.clip = clip;
  for (int64_t offset : offsets) {
    PlannedFrame frame;
    frame.offset = offset;
    frame.outputNumber = clip.first + offset;
    frame.reads = reads(offset);
    plan.frames.push_back(std::move(frame));
  }
  return plan;
}

}  // namespace flowblur
