// flowblur: the host simulator: clips and buffers in memory, processors as persistent real
// threads, and records of everything the plug-in asked of the host.
#include "host/SparkHost.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "host/WorkerPool.h"

#if defined(__SANITIZE_ADDRESS__)
#define FLOWBLUR_HOST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FLOWBLUR_HOST_ASAN 1
#endif
#endif
#ifdef FLOWBLUR_HOST_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace sparkhost {
namespace {

struct Clip {
  FrameLayout layout;
  std::vector<std::vector<uint8_t>> frames;  // stored frames, when there is no source
  FrameSource source;                        // frames fetched on demand instead
  int32_t served = 0;                        // the source's frame count
  int32_t Count() const { return source ? served : static_cast<int32_t>(frames.size()); }
  // Frame `frame` (inside the clip), or null when the source cannot deliver it.
  const uint8_t* Data(int32_t frame) const {
    if (source) return static_cast<const uint8_t*>(source(frame));
    return frames[static_cast<size_t>(frame)].data();
  }
};

struct Buffer {
  FrameLayout layout;
  bool own = false;  // given its own layout; otherwise it follows a clip
  std::vector<uint8_t> block;
  size_t offset = 0;  // first pixel within the block: after the front guard when guarded
  size_t bytes = 0;   // bytes from the first pixel that belong to the buffer
  bool poisoned = false;
  uint8_t* Pixels() { return block.empty() ? nullptr : block.data() + offset; }
};

constexpr uint8_t kGuardPattern = 0xE7;
constexpr uint8_t kPaddingPattern = 0x5B;

void Poison(Buffer& b, bool on) {
#ifdef FLOWBLUR_HOST_ASAN
  if (b.block.empty() || b.offset == 0 || b.poisoned == on) return;
  uint8_t* base = b.block.data();
  size_t tail = b.block.size() - b.offset - b.bytes;
  if (on) {
    ASAN_POISON_MEMORY_REGION(base, b.offset);
    ASAN_POISON_MEMORY_REGION(base + b.offset + b.bytes, tail);
  } else {
    ASAN_UNPOISON_MEMORY_REGION(base, b.block.size());
  }
#endif
  b.poisoned = on;
}

struct Injection {
  bool failGet = false;
  bool clearUsable = false;
  bool nullPointer = false;
  bool nullOnGetFrame = false;
};

struct SetupValue {
  std::string name;
  void* address;
  size_t bytes;
};

struct State {
  bool guarded = false;
  int32_t processors = 1;
  int64_t framePixels = 0;
  int64_t forcedPixels = -1;
  Clip clips[2];
  std::map<int32_t, Buffer> buffers{{kResultBuffer, {}}, {kFrontBuffer, {}}, {kBackBuffer, {}}};
  int32_t registered = 0;
  std::map<int32_t, Injection> injections;
  std::map<int32_t, spark_mem_buf_struct*> lastRecord;
  std::vector<Note> notes;
  std::vector<std::string> log;
  std::vector<GetFrameCall> getFrameCalls;
  std::vector<int32_t> getBufferCalls;
  Counts counts;
  float version = 4.0f;
  std::vector<SetupValue> setupValues;
  std::map<std::string, std::vector<uint8_t>> saved;
  std::vector<SetupCall> setupCalls;
};

std::mutex gMutex;
State gState;
// Counted apart from the rest so that workers need no lock to ask where they stand.
std::atomic<int64_t> gMpInfoCalls{0};

thread_local bool tInWorker = false;
thread_local uint64_t tOffset = 0;
thread_local uint64_t tCount = 0;

using Lock = std::lock_guard<std::mutex>;

// ---- Processors

// One fork as every processor sees it.
struct ForkJob {
  SparkMpWorker worker;
  void* arg;
  int32_t processors;
  uint64_t pixels;  // divided among the processors
  uint64_t share;
  std::exception_ptr* errors;  // one slot a processor
};

// Processor k's part of a fork: where it stands for sparkMpInfo, then the worker. An
// exception stays in the processor's slot until the fork has joined.
void RunOnProcessor(const ForkJob& job, int32_t k) {
  const bool wasInWorker = tInWorker;
  tInWorker = true;
  tOffset = job.share * static_cast<uint64_t>(k);
  tCount = k == job.processors - 1 ? job.pixels - tOffset : job.share;
  try {
    job.worker(job.arg);
  } catch (...) {
    job.errors[k] = std::current_exception();
  }
  tInWorker = wasInWorker;
}

// A fork that cannot use the pool gets threads of its own, as every fork once did.
void RunOnNewThreads(const ForkJob& job) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<size_t>(job.processors));
  try {
    for (int32_t k = 0; k < job.processors; ++k)
      threads.emplace_back([&job, k] { RunOnProcessor(job, k); });
  } catch (...) {
    for (std::thread& t : threads) t.join();
    throw;
  }
  for (std::thread& t : threads) t.join();
}

// Held through a fork on the pool below, and to start or stop it. A fork that finds it
// taken (from a worker, or another thread's fork) runs on new threads instead of waiting.
std::mutex gPoolOwner;
// Set once the pool is destroyed at exit; a fork after that (from another static's
// destructor) runs on new threads. A plain bool, readable to the very end.
bool gPoolGone = false;

// The host's processors, lent to fork after fork as a real host lends its running ones
// (see WorkerPool). Run and Stop belong to whoever holds gPoolOwner.
class ProcessorPool {
 public:
  ~ProcessorPool() {
    gPoolGone = true;
    // A fork still running (the process ended from a worker or beside a fork) keeps the
    // threads busy: they are then left to the exit.
    if (gPoolOwner.try_lock()) {
      pool_.Stop();
      gPoolOwner.unlock();
    } else {
      pool_.Abandon();
    }
  }

  int32_t Size() const { return pool_.Size(); }

  // Runs the job on each of its processors and returns when all have ended; starts them
  // first when the pool has another count.
  void Run(const ForkJob& job) {
    pool_.Run(job.processors, RunJob, const_cast<ForkJob*>(&job));
  }

  // Ends and joins the threads; only between forks.
  void Stop() { pool_.Stop(); }

 private:
  static void RunJob(void* job, int32_t k) {
    RunOnProcessor(*static_cast<const ForkJob*>(job), k);
  }
  WorkerPool pool_;
};

ProcessorPool gPool;
// Set when the pool could not be stopped at once (Reset() while a fork runs); the next
// fork on the pool stops it first.
std::atomic<bool> gPoolStale{false};

// Stops the pool unless it has `keep` processors (0: whatever it has).
void RetireProcessors(int32_t keep) {
  std::unique_lock<std::mutex> owner(gPoolOwner, std::defer_lock);
  if (!tInWorker) owner.try_lock();
  if (!owner.owns_lock()) {
    if (keep == 0) gPoolStale = true;
    return;  // a pool of the wrong count is restarted by its next fork anyway
  }
  if (keep == 0 || gPool.Size() != keep) gPool.Stop();
}

bool IsEmpty(const FrameLayout& layout) { return layout.width <= 0 || layout.height <= 0; }

bool SameLayout(const FrameLayout& a, const FrameLayout& b) {
  return a.width == b.width && a.height == b.height && a.formatCode == b.formatCode &&
         a.stride == b.stride;
}

void CheckLayout(const FrameLayout& layout, bool shortStrides = false) {
  if (layout.width < 0 || layout.height < 0 || layout.stride < 0)
    throw std::invalid_argument("sparkhost: negative frame size or stride");
  int64_t packed = int64_t{layout.width} * BytesPerPixel(layout.formatCode);
  if (!shortStrides && layout.stride != 0 && layout.stride < packed)
    throw std::invalid_argument("sparkhost: stride shorter than a row");
}

void CheckClip(int32_t clip) {
  if (clip != 0 && clip != 1) throw std::invalid_argument("sparkhost: clip is 0 or 1");
}

// Bytes that a frame of this layout covers from its first pixel: the padding after the
// last row is not part of it.
int64_t Extent(const FrameLayout& layout) {
  if (IsEmpty(layout)) return 0;
  return (layout.height - 1) * RowBytes(layout) +
         int64_t{layout.width} * BytesPerPixel(layout.formatCode);
}

// Row by row, so that the padding of the destination is left alone.
void CopyFrame(uint8_t* to, const uint8_t* from, const FrameLayout& layout) {
  int64_t rowBytes = RowBytes(layout);
  size_t used = static_cast<size_t>(layout.width) * BytesPerPixel(layout.formatCode);
  for (int32_t y = 0; y < layout.height; ++y)
    std::memmove(to + y * rowBytes, from + y * rowBytes, used);
}

// A guarded block: guard, Stride x Height bytes of pixels and padding, guard.
void MakeGuarded(Buffer& buffer) {
  const FrameLayout& l = buffer.layout;
  size_t bytes = static_cast<size_t>(FrameBytes(l));
  buffer.block.assign(bytes + 2 * kGuardBytes, kGuardPattern);
  buffer.offset = kGuardBytes;
  buffer.bytes = bytes;
  int64_t row = RowBytes(l);
  int64_t used = std::min<int64_t>(row, int64_t{l.width} * BytesPerPixel(l.formatCode));
  for (int32_t y = 0; y < l.height; ++y) {
    uint8_t* at = buffer.Pixels() + y * row;
    std::memset(at, 0, static_cast<size_t>(used));
    std::memset(at + used, kPaddingPattern, static_cast<size_t>(row - used));
  }
  Poison(buffer, true);
}

// Gives every buffer its layout and a block large enough for it and for any clip frame
// (guarded: exactly its own frame).
void Refresh(State& s, bool rebuild = false) {
  int64_t largest = 0;
  for (const Clip& clip : s.clips)
    if (!IsEmpty(clip.layout)) largest = std::max(largest, FrameBytes(clip.layout));
  for (auto& [id, buffer] : s.buffers) {
    Poison(buffer, false);
    FrameLayout want = buffer.own ? buffer.layout : s.clips[id == kBackBuffer ? 1 : 0].layout;
    bool changed = rebuild || !SameLayout(want, buffer.layout);
    buffer.layout = want;
    if (IsEmpty(want)) {
      std::vector<uint8_t>().swap(buffer.block);
      buffer.offset = buffer.bytes = 0;
      continue;
    }
    if (s.guarded) {
      if (changed || buffer.block.empty()) MakeGuarded(buffer);
      Poison(buffer, true);
      continue;
    }
    int64_t need = std::max(FrameBytes(want), largest);
    if (changed || static_cast<int64_t>(buffer.block.size()) < need) {
      buffer.block.assign(static_cast<size_t>(need), 0);
      buffer.offset = 0;
      buffer.bytes = buffer.block.size();
    }
  }
}

// Whether a frame of `clip` may be copied to `to` as far as guarded buffers are concerned:
// into a guarded buffer only with its stride and bytes per pixel, and when it fits.
bool GuardedCopyAllowed(State& s, const FrameLayout& clip, const uint8_t* to, std::string* why) {
  if (!s.guarded) return true;
  for (auto& [id, buffer] : s.buffers) {
    const uint8_t* begin = buffer.Pixels();
    if (!begin || to < begin || to >= begin + buffer.bytes) continue;
    const FrameLayout& l = buffer.layout;
    if (RowBytes(l) != RowBytes(clip) ||
        BytesPerPixel(l.formatCode) != BytesPerPixel(clip.formatCode) || clip.width > l.width ||
        (to - begin) + FrameBytes(clip) > static_cast<int64_t>(buffer.bytes)) {
      *why = "the frame's layout does not match guarded buffer " + std::to_string(id);
      return false;
    }
  }
  return true;
}

Buffer& FindBuffer(State& s, int32_t id) {
  auto it = s.buffers.find(id);
  if (it == s.buffers.end()) throw std::invalid_argument("sparkhost: no such buffer id");
  return it->second;
}

int64_t FramePixelsLocked(const State& s) {
  if (s.forcedPixels >= 0) return s.forcedPixels;
  const FrameLayout& result = s.buffers.at(kResultBuffer).layout;
  if (!IsEmpty(result)) return int64_t{result.width} * result.height;
  return std::max<int64_t>(s.framePixels, 0);
}

int32_t ClampFrame(const Clip& clip, int32_t frame) {
  int32_t last = clip.Count() - 1;
  return std::min(std::max(frame, 0), last);
}

std::string Text(const char* text) { return text ? std::string(text) : std::string(); }

void Record(State& s, Note::Kind kind, const char* what, const char* text) {
  if (!text) s.log.push_back(std::string(what) + ": null text");
  s.notes.push_back({kind, Text(text)});
}

SetupCall MakeSetupCall(bool save, const spark_info_struct* info) {
  SetupCall call{};
  call.save = save;
  call.info = info;
  if (info) call.copy = *info;
  return call;
}

uint8_t* SampleAddress(const void* block, const FrameLayout& layout, int32_t x, int32_t y,
                       int32_t c) {
  if (!block || x < 0 || y < 0 || c < 0 || x >= layout.width || y >= layout.height || c > 2)
    throw std::invalid_argument("sparkhost: sample outside the frame");
  int32_t sampleBytes = BytesPerPixel(layout.formatCode) / 3;
  return const_cast<uint8_t*>(static_cast<const uint8_t*>(block)) + y * RowBytes(layout) +
         (int64_t{x} * 3 + c) * sampleBytes;
}

}  // namespace

void SetProcessors(int32_t processors) {
  {
    Lock lock(gMutex);
    gState.processors = processors;
  }
  RetireProcessors(std::max(processors, 1));
}

int32_t Processors() {
  Lock lock(gMutex);
  return gState.processors;
}

void SetFramePixels(int64_t pixels) {
  Lock lock(gMutex);
  gState.framePixels = pixels;
}

void ForceFramePixels(int64_t pixels) {
  Lock lock(gMutex);
  gState.forcedPixels = pixels < 0 ? -1 : pixels;
}

int64_t FramePixels() {
  Lock lock(gMutex);
  return FramePixelsLocked(gState);
}

int32_t BytesPerPixel(int32_t formatCode) { return formatCode == 24 || formatCode == 25 ? 3 : 6; }

int64_t RowBytes(const FrameLayout& layout) {
  if (layout.stride != 0) return layout.stride;
  return int64_t{layout.width} * BytesPerPixel(layout.formatCode);
}

int64_t FrameBytes(const FrameLayout& layout) { return RowBytes(layout) * layout.height; }

uint32_t Sample(const void* block, const FrameLayout& layout, int32_t x, int32_t y, int32_t c) {
  const uint8_t* at = SampleAddress(block, layout, x, y, c);
  if (BytesPerPixel(layout.formatCode) == 3) return *at;
  uint16_t word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

void SetSample(void* block, const FrameLayout& layout, int32_t x, int32_t y, int32_t c,
               uint32_t value) {
  uint8_t* at = SampleAddress(block, layout, x, y, c);
  if (BytesPerPixel(layout.formatCode) == 3) {
    *at = static_cast<uint8_t>(value);
    return;
  }
  uint16_t word = static_cast<uint16_t>(value);
  std::memcpy(at, &word, sizeof word);
}

void SetClip(int32_t clip, const FrameLayout& layout, int32_t frames) {
  CheckClip(clip);
  CheckLayout(layout);
  if (frames < 0) throw std::invalid_argument("sparkhost: negative frame count");
  Lock lock(gMutex);
  Clip& c = gState.clips[clip];
  c.layout = layout;
  c.source = nullptr;
  c.served = 0;
  c.frames.assign(static_cast<size_t>(frames),
                  std::vector<uint8_t>(static_cast<size_t>(FrameBytes(layout)), 0));
  Refresh(gState);
}

FrameLayout ClipLayout(int32_t clip) {
  CheckClip(clip);
  Lock lock(gMutex);
  return gState.clips[clip].layout;
}

int32_t ClipFrames(int32_t clip) {
  CheckClip(clip);
  Lock lock(gMutex);
  return gState.clips[clip].Count();
}

uint8_t* ClipFrame(int32_t clip, int32_t frame) {
  CheckClip(clip);
  Lock lock(gMutex);
  Clip& c = gState.clips[clip];
  if (c.source) throw std::invalid_argument("sparkhost: the clip's frames come from its source");
  if (frame < 0 || frame >= static_cast<int32_t>(c.frames.size()))
    throw std::invalid_argument("sparkhost: no such frame");
  return c.frames[static_cast<size_t>(frame)].data();
}

void SetClipFrame(int32_t clip, int32_t frame, const void* bytes) {
  uint8_t* to = ClipFrame(clip, frame);
  std::memcpy(to, bytes, static_cast<size_t>(FrameBytes(ClipLayout(clip))));
}

void SetClipSource(int32_t clip, const FrameLayout& layout, int32_t frames, FrameSource source) {
  CheckClip(clip);
  CheckLayout(layout);
  if (frames < 0) throw std::invalid_argument("sparkhost: negative frame count");
  if (!source) throw std::invalid_argument("sparkhost: null frame source");
  Lock lock(gMutex);
  Clip& c = gState.clips[clip];
  c.layout = layout;
  std::vector<std::vector<uint8_t>>().swap(c.frames);
  c.source = std::move(source);
  c.served = frames;
  Refresh(gState);
}

void SetBuffer(int32_t id, const FrameLayout& layout) {
  CheckLayout(layout, GuardedBuffers());
  Lock lock(gMutex);
  Buffer& buffer = FindBuffer(gState, id);
  Poison(buffer, false);
  buffer.own = true;
  buffer.layout = layout;
  buffer.block.clear();  // zeroed again below
  Refresh(gState);
}

FrameLayout BufferLayout(int32_t id) {
  Lock lock(gMutex);
  return FindBuffer(gState, id).layout;
}

uint8_t* BufferPixels(int32_t id) {
  Lock lock(gMutex);
  return FindBuffer(gState, id).Pixels();
}

int64_t BufferCapacity(int32_t id) {
  Lock lock(gMutex);
  return static_cast<int64_t>(FindBuffer(gState, id).bytes);
}

void SetGuardedBuffers(bool on) {
  Lock lock(gMutex);
  if (gState.guarded == on) return;
  gState.guarded = on;
  Refresh(gState, true);
}

bool GuardedBuffers() {
  Lock lock(gMutex);
  return gState.guarded;
}

std::vector<std::string> GuardDamage(int64_t resultClearedBytes) {
  Lock lock(gMutex);
  std::vector<std::string> damage;
  if (!gState.guarded) return damage;
  for (auto& [id, buffer] : gState.buffers) {
    if (buffer.block.empty()) continue;
    Poison(buffer, false);
    const std::string name = "buffer " + std::to_string(id);
    const uint8_t* base = buffer.block.data();
    for (size_t i = 0; i < buffer.block.size(); ++i) {
      bool guard = i < buffer.offset || i >= buffer.offset + buffer.bytes;
      if (guard && base[i] != kGuardPattern) {
        damage.push_back(name + ": guard byte " + std::to_string(static_cast<int64_t>(i) -
                                                                 kGuardBytes) +
                         " written");
        break;
      }
    }
    const FrameLayout& l = buffer.layout;
    int64_t row = RowBytes(l);
    int64_t used = std::min<int64_t>(row, int64_t{l.width} * BytesPerPixel(l.formatCode));
    const uint8_t* pixels = buffer.Pixels();
    for (int32_t y = 0; y < l.height && damage.size() < 64; ++y)
      for (int64_t x = used; x < row; ++x) {
        int64_t at = y * row + x;
        uint8_t v = pixels[at];
        bool cleared = id == kResultBuffer && at < resultClearedBytes && v == 0;
        if (v != kPaddingPattern && !cleared) {
          damage.push_back(name + ": padding of row " + std::to_string(y) + " written");
          break;
        }
      }
    Poison(buffer, true);
  }
  return damage;
}

int32_t RegisteredBuffers() {
  Lock lock(gMutex);
  return gState.registered;
}

spark_info_struct BeginFrame(int32_t frameNo) {
  Lock lock(gMutex);
  State& s = gState;
  for (int32_t clip = 0; clip < 2; ++clip) {
    const Clip& c = s.clips[clip];
    if (c.Count() == 0) continue;
    Buffer& buffer = s.buffers.at(clip == 0 ? kFrontBuffer : kBackBuffer);
    if (static_cast<int64_t>(buffer.bytes) < Extent(c.layout)) continue;
    std::string why;
    if (!GuardedCopyAllowed(s, c.layout, buffer.Pixels(), &why)) continue;
    const int32_t frame = ClampFrame(c, frameNo);
    const uint8_t* from = c.Data(frame);
    if (!from) {
      s.log.push_back("BeginFrame(" + std::to_string(frameNo) + "): the source of clip " +
                      std::to_string(clip) + " did not deliver frame " + std::to_string(frame));
      continue;
    }
    CopyFrame(buffer.Pixels(), from, c.layout);
  }
  spark_info_struct info;
  std::memset(&info, 0, sizeof info);
  info.FrameBytes = static_cast<int32_t>(FrameBytes(s.buffers.at(kResultBuffer).layout));
  info.FrameNo = frameNo;
  info.FormatCode = s.buffers.at(kFrontBuffer).layout.formatCode;
  info.ProcessorCount = static_cast<int8_t>(std::min(std::max(s.processors, 1), 127));
  return info;
}

void FailGetBuffer(int32_t id) {
  Lock lock(gMutex);
  gState.injections[id].failGet = true;
}

void ClearUsableBit(int32_t id) {
  Lock lock(gMutex);
  gState.injections[id].clearUsable = true;
}

void NullBufferPointer(int32_t id) {
  Lock lock(gMutex);
  gState.injections[id].nullPointer = true;
}

void NullBufferOnGetFrame(int32_t id) {
  Lock lock(gMutex);
  gState.injections[id].nullOnGetFrame = true;
}

void ClearInjections() {
  Lock lock(gMutex);
  gState.injections.clear();
}

std::vector<Note> Notes() {
  Lock lock(gMutex);
  return gState.notes;
}

std::vector<std::string> HostLog() {
  Lock lock(gMutex);
  return gState.log;
}

std::vector<GetFrameCall> GetFrameCalls() {
  Lock lock(gMutex);
  return gState.getFrameCalls;
}

std::vector<int32_t> GetBufferCalls() {
  Lock lock(gMutex);
  return gState.getBufferCalls;
}

Counts Calls() {
  Lock lock(gMutex);
  Counts counts = gState.counts;
  counts.mpInfo = gMpInfoCalls.load();
  return counts;
}

void SetAPIVersion(float version) {
  Lock lock(gMutex);
  gState.version = version;
}

void AddSetupValue(const std::string& name, void* address, size_t bytes) {
  if (!address) throw std::invalid_argument("sparkhost: null setup value");
  Lock lock(gMutex);
  gState.setupValues.push_back({name, address, bytes});
}

std::map<std::string, std::vector<uint8_t>> SavedSetup() {
  Lock lock(gMutex);
  return gState.saved;
}

void SetSavedSetup(const std::map<std::string, std::vector<uint8_t>>& setup) {
  Lock lock(gMutex);
  gState.saved = setup;
}

std::vector<SetupCall> SetupCalls() {
  Lock lock(gMutex);
  return gState.setupCalls;
}

void Reset() {
  {
    Lock lock(gMutex);
    for (auto& [id, buffer] : gState.buffers) Poison(buffer, false);
    gState = State();
    gMpInfoCalls = 0;
  }
  RetireProcessors(0);
}

}  // namespace sparkhost

using namespace sparkhost;

extern "C" float sparkAPIVersionInfo(void) {
  Lock lock(gMutex);
  ++gState.counts.apiVersion;
  return gState.version;
}

extern "C" void sparkError(const char* text) {
  Lock lock(gMutex);
  ++gState.counts.error;
  Record(gState, Note::kError, "sparkError", text);
}

extern "C" void sparkMessage(const char* text) {
  Lock lock(gMutex);
  ++gState.counts.message;
  Record(gState, Note::kMessage, "sparkMessage", text);
}

extern "C" void sparkCursorBusy(void) {
  Lock lock(gMutex);
  ++gState.counts.cursorBusy;
}

extern "C" void sparkViewingDraw(void) {
  Lock lock(gMutex);
  ++gState.counts.viewingDraw;
}

extern "C" void sparkLoadSetup(spark_info_struct* info) {
  Lock lock(gMutex);
  State& s = gState;
  ++s.counts.loadSetup;
  s.setupCalls.push_back(MakeSetupCall(false, info));
  for (const SetupValue& value : s.setupValues) {
    auto it = s.saved.find(value.name);
    if (it == s.saved.end()) continue;
    if (it->second.size() != value.bytes) {
      s.log.push_back("sparkLoadSetup: saved " + value.name + " has another size; not restored");
      continue;
    }
    std::memcpy(value.address, it->second.data(), value.bytes);
  }
}

extern "C" void sparkSaveSetup(spark_info_struct* info) {
  Lock lock(gMutex);
  State& s = gState;
  ++s.counts.saveSetup;
  s.setupCalls.push_back(MakeSetupCall(true, info));
  for (const SetupValue& value : s.setupValues) {
    const uint8_t* from = static_cast<const uint8_t*>(value.address);
    s.saved[value.name].assign(from, from + value.bytes);
  }
}

extern "C" int sparkMemRegisterBuffer(void) {
  Lock lock(gMutex);
  State& s = gState;
  ++s.counts.registerBuffer;
  int32_t id = kFirstTempBuffer + s.registered++;
  s.buffers[id] = Buffer();
  Refresh(s);
  return id;
}

extern "C" int sparkMemGetBuffer(int id, spark_mem_buf_struct* record) {
  Lock lock(gMutex);
  State& s = gState;
  ++s.counts.getBuffer;
  s.getBufferCalls.push_back(id);
  if (!record) {
    s.log.push_back("sparkMemGetBuffer: null record for id " + std::to_string(id));
    return 0;
  }
  Injection injection;
  if (auto it = s.injections.find(id); it != s.injections.end()) injection = it->second;
  if (injection.failGet) return 0;
  auto it = s.buffers.find(id);
  if (it == s.buffers.end()) {
    s.log.push_back("sparkMemGetBuffer: no buffer with id " + std::to_string(id));
    return 0;
  }
  Buffer& buffer = it->second;
  std::memset(record, 0, sizeof *record);
  record->Buffer = injection.nullPointer ? nullptr : buffer.Pixels();
  record->State = injection.clearUsable ? 0 : kSparkBufferUsable;
  record->Width = buffer.layout.width;
  record->Height = buffer.layout.height;
  record->FormatCode = buffer.layout.formatCode;
  record->Stride = static_cast<int32_t>(RowBytes(buffer.layout));
  s.lastRecord[id] = record;
  return 1;
}

extern "C" int sparkGetFrame(int clip, int frame, void* pixels) {
  Lock lock(gMutex);
  State& s = gState;
  ++s.counts.getFrame;
  GetFrameCall call{clip, frame, -1, pixels, 0};
  std::string where = "sparkGetFrame(" + std::to_string(clip) + ", " + std::to_string(frame) + ")";
  if (clip != 0 && clip != 1) {
    s.log.push_back(where + ": no such clip");
  } else if (s.clips[clip].Count() == 0) {
    s.log.push_back(where + ": the clip has no frames");
  } else if (!pixels) {
    s.log.push_back(where + ": null pixels");
  } else {
    const Clip& c = s.clips[clip];
    int32_t delivered = ClampFrame(c, frame);
    // A destination inside one of the host's own blocks must hold the whole frame.
    bool fits = true;
    uint8_t* to = static_cast<uint8_t*>(pixels);
    for (auto& [id, buffer] : s.buffers) {
      const uint8_t* begin = buffer.Pixels();
      const uint8_t* end = begin + buffer.bytes;
      if (buffer.block.empty() || to < begin || to >= end) continue;
      if (end - to < Extent(c.layout)) {
        s.log.push_back(where + ": the frame does not fit buffer " + std::to_string(id));
        fits = false;
      }
    }
    std::string why;
    if (fits && !GuardedCopyAllowed(s, c.layout, to, &why)) {
      s.log.push_back(where + ": " + why);
      fits = false;
    }
    const uint8_t* from = fits ? c.Data(delivered) : nullptr;
    if (fits && !from)
      s.log.push_back(where + ": the clip's source did not deliver frame " +
                      std::to_string(delivered));
    if (from) {
      if (delivered != frame)
        s.log.push_back(where + ": no such frame; frame " + std::to_string(delivered) +
                        " delivered");
      CopyFrame(to, from, c.layout);
      call.delivered = delivered;
      call.result = 1;
    }
  }
  s.getFrameCalls.push_back(call);
  for (const auto& [id, injection] : s.injections) {
    if (!injection.nullOnGetFrame) continue;
    auto it = s.lastRecord.find(id);
    if (it == s.lastRecord.end()) {
      s.log.push_back(where + ": no record of buffer " + std::to_string(id) + " to revoke");
      continue;
    }
    it->second->Buffer = nullptr;
  }
  return call.result;
}

extern "C" void sparkMpFork(SparkMpWorker worker, int nargs, void* arg) {
  int32_t processors;
  uint64_t pixels;
  {
    Lock lock(gMutex);
    State& s = gState;
    ++s.counts.mpFork;
    if (nargs != 1) s.log.push_back("sparkMpFork: argument count " + std::to_string(nargs));
    if (tInWorker) s.log.push_back("sparkMpFork: called from inside a worker");
    if (!worker) {
      s.log.push_back("sparkMpFork: null worker");
      return;
    }
    processors = std::max(s.processors, 1);
    pixels = static_cast<uint64_t>(FramePixelsLocked(s));
  }
  uint64_t share = pixels / static_cast<uint64_t>(processors);
  std::vector<std::exception_ptr> errors(static_cast<size_t>(processors));
  ForkJob job{worker, arg, processors, pixels, share, errors.data()};
  // A fork from inside a worker would wait for the processors it runs on: it gets new
  // threads, as does a fork while another thread's fork has the pool.
  std::unique_lock<std::mutex> owner(gPoolOwner, std::defer_lock);
  if (!tInWorker) owner.try_lock();
  if (owner.owns_lock() && !gPoolGone) {
    if (gPoolStale.exchange(false)) gPool.Stop();
    gPool.Run(job);
    owner.unlock();
  } else {
    if (owner.owns_lock()) owner.unlock();
    RunOnNewThreads(job);
  }
  std::exception_ptr first;
  {
    Lock lock(gMutex);
    for (int32_t k = 0; k < processors; ++k) {
      std::exception_ptr& e = errors[static_cast<size_t>(k)];
      if (!e) continue;
      std::string what = "an exception";
      try {
        std::rethrow_exception(e);
      } catch (const std::exception& ex) {
        what = std::string("std::exception: ") + ex.what();
      } catch (...) {
      }
      gState.log.push_back("sparkMpFork: the worker on processor " + std::to_string(k) + " of " +
                           std::to_string(processors) + " ended with " + what);
      if (!first) first = e;
    }
  }
  // The lowest-numbered processor's exception, so that the outcome does not depend on timing.
  if (first) std::rethrow_exception(first);
}

extern "C" void sparkMpInfo(uint64_t* offset, uint64_t* count) {
  ++gMpInfoCalls;
  if (!tInWorker) {
    {
      Lock lock(gMutex);
      gState.log.push_back("sparkMpInfo: called outside a worker");
    }
    if (offset) *offset = 0;
    if (count) *count = 0;
    return;
  }
  if (offset) *offset = tOffset;
  if (count) *count = tCount;
}
