// flowblur: the byte-bounded frame cache.
#include "tools/FrameCache.h"

namespace flowblur {

FrameCache::FrameCache(int64_t budgetBytes) : budget_(budgetBytes > 0 ? budgetBytes : 0) {}

int64_t FrameCache::BytesOf(const Frame& frame) {
  return static_cast<int64_t>(frame.pixels.size() * sizeof(float) +
                              frame.halves.size() * sizeof(uint16_t)) +
         1024;
}

std::shared_ptr<const Frame> FrameCache::Find(int64_t frame, int32_t stream) {
  auto it = index_.find(Key{frame, stream});
  if (it == index_.end()) return nullptr;
  order_.splice(order_.begin(), order_, it->second);
  ++hits_;
  return it->second->frame;
}

std::shared_ptr<const Frame> FrameCache::Get(int64_t frame, int32_t stream, const Loader& load,
                                             std::string* error) {
  if (auto held = Find(frame, stream)) return held;
  ++loads_;
  auto loaded = std::make_shared<Frame>();
  std::string why;
  if (!load || !load(loaded.get(), &why)) {
    if (error) *error = why.empty() ? "frame " + std::to_string(frame) + " could not be read" : why;
    return nullptr;
  }
  std::shared_ptr<const Frame> result = std::move(loaded);
  int64_t bytes = BytesOf(*result);
  if (bytes <= budget_) {
    order_.push_front(Entry{Key{frame, stream}, result, bytes});
    index_[Key{frame, stream}] = order_.begin();
    bytes_ += bytes;
    Evict();
  }
  return result;
}

void FrameCache::Evict() {
  // The entry just added is at the front and fits alone, so this stops before it.
  while (bytes_ > budget_ && !order_.empty()) {
    Entry& last = order_.back();
    bytes_ -= last.bytes;
    index_.erase(last.key);
    order_.pop_back();
  }
}

void FrameCache::Drop(int64_t frame, int32_t stream) {
  auto it = index_.find(Key{frame, stream});
  if (it == index_.end()) return;
  bytes_ -= it->second->bytes;
  order_.erase(it->second);
  index_.erase(it);
}

void FrameCache::Clear() {
  order_.clear();
  index_.clear();
  bytes_ = 0;
}

}  // namespace flowblur
