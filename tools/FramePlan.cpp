// flowblur: frame plans, render ranges within a clip, and the frame store.
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

FrameStore::FrameStore(int64_t budget, Loader load) : budget_(budget), load_(std::move(load)) {}

std::shared_ptr<const StoredFrame> FrameStore::Get(const FrameRead& read, std::string* error) {
  auto found = index_.find(read);
  if (found != index_.end()) {
    entries_.splice(entries_.begin(), entries_, found->second);
    return found->second->frame;
  }
  auto frame = std::make_shared<StoredFrame>();
  ++loads_;
  if (!load_(read, frame.get(), error)) return nullptr;
  MakeRoom(frame->Bytes());
  entries_.push_front({read, frame});
  index_[read] = entries_.begin();
  bytes_ += frame->Bytes();
  return frame;
}

void FrameStore::Drop(const FrameRead& read) {
  auto found = index_.find(read);
  if (found == index_.end()) return;
  bytes_ -= found->second->frame->Bytes();
  entries_.erase(found->second);
  index_.erase(found);
}

void FrameStore::MakeRoom(int64_t bytes) {
  while (!entries_.empty() && bytes_ + bytes > budget_) {
    const Entry& oldest = entries_.back();
    bytes_ -= oldest.frame->Bytes();
    index_.erase(oldest.read);
    entries_.pop_back();
  }
}

}  // namespace flowblur
