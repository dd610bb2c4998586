// flowblur: a cache of decoded frames bounded in bytes, keyed by frame number, for commands
// that visit frames more than once (a slow-motion render reads each source frame once).
#pragma once
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "tools/ImageFiles.h"

namespace flowblur {

// Frames are kept under a key of (frame number, stream): stream 0 is conventionally the
// picture, others whatever a command reads beside it (mattes, a second clip). Entries are
// shared: a frame handed out stays valid after it has left the cache. When the bytes held
// pass the budget, the least recently used entries go first; an entry larger than the whole
// budget is handed out but not kept. Not thread-safe: one cache per command, used from one
// thread.
class FrameCache {
 public:
  // Reads one frame; false with a message on failure (nothing is cached then).
  using Loader = std::function<bool(Frame* frame, std::string* error)>;

  explicit FrameCache(int64_t budgetBytes);

  // The frame under the key, loaded with `load` when absent. Null with `error` set when the
  // load fails.
  std::shared_ptr<const Frame> Get(int64_t frame, int32_t stream, const Loader& load,
                                   std::string* error);
  // The frame under the key if held (a hit that refreshes it), else null. Loads nothing.
  std::shared_ptr<const Frame> Find(int64_t frame, int32_t stream = 0);
  // Drops one entry (no-op when absent), or all.
  void Drop(int64_t frame, int32_t stream = 0);
  void Clear();

  int64_t Budget() const { return budget_; }
  int64_t Bytes() const { return bytes_; }
  size_t Size() const { return index_.size(); }
  int64_t Loads() const { return loads_; }  // loads attempted through Get
  int64_t Hits() const { return hits_; }
  // What an entry is counted as: its samples and a fixed share for its description.
  static int64_t BytesOf(const Frame& frame);

 private:
  using Key = std::pair<int64_t, int32_t>;
  struct Entry {
    Key key;
    std::shared_ptr<const Frame> frame;
    int64_t bytes;
  };
  void Evict();

  int64_t budget_;
  int64_t bytes_ = 0;
  int64_t loads_ = 0;
  int64_t hits_ = 0;
  std::list<Entry> order_;  // most recently used first
  std::map<Key, std::list<Entry>::iterator> index_;
};

}  // namespace flowblur
