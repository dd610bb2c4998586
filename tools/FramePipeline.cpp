// flowblur: the I/O threads beside the render loop: reads ahead, writes behind, outcomes in order.
#include "tools/FramePipeline.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <new>

namespace flowblur {

PipelineSettings PipelineFor(int32_t ioThreads) {
  PipelineSettings settings;
  settings.threads = std::min(std::max(ioThreads, 0), kMaxIoThreads);
  settings.readAhead = std::max(settings.threads, 1);
  settings.writeBehind = std::max(settings.threads, 1);
  return settings;
}

namespace {

// A job's failure that escaped it: out of memory, or anything else, as a message.
std::string Escaped(std::exception_ptr e) {
  try {
    std::rethrow_exception(e);
  } catch (const std::bad_alloc&) {
    return "out of memory";
  } catch (const std::exception& ex) {
    return ex.what();
  } catch (...) {
  }
  return "unexpected failure";
}

template <typename Fn>
bool Guarded(Fn&& fn, std::string* error) {
  try {
    return fn();
  } catch (...) {
    *error = Escaped(std::current_exception());
    return false;
  }
}

}  // namespace

FramePipeline::FramePipeline(const PipelineSettings& settings, std::vector<FrameRead> reads,
                             ReadJob read)
    : settings_(settings), reads_(std::move(reads)), read_(std::move(read)) {
  for (size_t i = 0; i < reads_.size(); ++i) place_.emplace(reads_[i], i);
  readSlots_.resize(reads_.size());
  if (settings_.threads <= 0) return;
  // The threads start with the stop signals blocked, so those always reach the host thread.
  sigset_t stops, before;
  sigemptyset(&stops);
  sigaddset(&stops, SIGINT);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &stops, &before);
  try {
    for (int32_t t = 0; t < settings_.threads; ++t) threads_.emplace_back([this] { Work(); });
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    {
      std::lock_guard<std::mutex> lock(mu_);
      ending_ = true;
    }
    workCv_.notify_all();
    for (std::thread& t : threads_) t.join();
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  std::lock_guard<std::mutex> lock(mu_);
  IssueReads();
}

FramePipeline::~FramePipeline() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    ending_ = true;
    // Reads not started are not wanted any more; queued writes are finished frames and run.
    queue_.erase(std::remove_if(queue_.begin(), queue_.end(),
                                [](const Job& job) { return job.lane == kReadLane; }),
                 queue_.end());
  }
  workCv_.notify_all();
  for (std::thread& t : threads_) t.join();
}

bool FramePipeline::SerialLane(Lane lane) const {
  return lane == kReadLane ? settings_.serialReads : settings_.serialWrites;
}

bool FramePipeline::Runnable(const Job& job) const {
  return !(SerialLane(job.lane) && laneBusy_[job.lane]);
}

void FramePipeline::IssueReads() {
  bool issued = false;
  while (nextRead_ < reads_.size() && readsWaiting_ < std::max(settings_.readAhead, 1)) {
    ReadSlot& slot = readSlots_[nextRead_];
    if (slot.state == ReadSlot::kIdle) {
      slot.state = ReadSlot::kQueued;
      queue_.push_back({kReadLane, static_cast<int64_t>(nextRead_)});
      ++readsWaiting_;
      issued = true;
    }
    ++nextRead_;
  }
  if (issued) workCv_.notify_all();
}

void FramePipeline::Work() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    auto it = std::find_if(queue_.begin(), queue_.end(),
                           [this](const Job& job) { return Runnable(job); });
    if (it == queue_.end()) {
      if (ending_ && queue_.empty()) return;
      workCv_.wait(lock);
      continue;
    }
    const Job job = *it;
    queue_.erase(it);
    RunJob(job, lock);
  }
}

void FramePipeline::RunJob(const Job& job, std::unique_lock<std::mutex>& lock) {
  if (SerialLane(job.lane)) laneBusy_[job.lane] = true;
  if (job.lane == kReadLane) {
    const size_t index = static_cast<size_t>(job.index);
    readSlots_[index].state = ReadSlot::kRunning;
    lock.unlock();
    Frame frame;
    std::string error;
    const bool ok = Guarded([&] { return read_(reads_[index], &frame, &error); }, &error);
    lock.lock();
    ReadSlot& slot = readSlots_[index];
    slot.frame = std::move(frame);
    slot.ok = ok;
    slot.error = std::move(error);
    slot.state = ReadSlot::kDone;
  } else {
    WriteJob fn = std::move(writes_[static_cast<size_t>(job.index - retired_)].job);
    lock.unlock();
    std::string error;
    const bool ok = Guarded([&] { return fn(&error); }, &error);
    fn = nullptr;  // what the job held (a whole frame) goes before the next job starts
    lock.lock();
    // Not retired meanwhile: Retire waits for a write to end.
    WriteSlot& slot = writes_[static_cast<size_t>(job.index - retired_)];
    slot.done = true;
    slot.ok = ok;
    slot.error = std::move(error);
    --writesPending_;
  }
  if (SerialLane(job.lane)) laneBusy_[job.lane] = false;
  doneCv_.notify_all();
  workCv_.notify_all();  // a serial lane is free again
}

bool FramePipeline::ReadHere(const FrameRead& read, Frame* frame, std::string* error) {
  if (settings_.threads <= 0 || !settings_.serialReads)
    return Guarded([&] { return read_(read, frame, error); }, error);
  std::unique_lock<std::mutex> lock(mu_);
  doneCv_.wait(lock, [this] { return !laneBusy_[kReadLane]; });
  laneBusy_[kReadLane] = true;
  lock.unlock();
  const bool ok = Guarded([&] { return read_(read, frame, error); }, error);
  lock.lock();
  laneBusy_[kReadLane] = false;
  lock.unlock();
  doneCv_.notify_all();
  workCv_.notify_all();
  return ok;
}

bool FramePipeline::Take(const FrameRead& read, Frame* frame, std::string* error) {
  if (settings_.threads <= 0) return ReadHere(read, frame, error);
  std::unique_lock<std::mutex> lock(mu_);
  auto it = place_.find(read);
  if (it == place_.end() || readSlots_[it->second].state == ReadSlot::kTaken) {
    lock.unlock();
    return ReadHere(read, frame, error);
  }
  ReadSlot& slot = readSlots_[it->second];
  if (slot.state == ReadSlot::kIdle) {
    // Asked for before its turn: read here, and never in the background.
    slot.state = ReadSlot::kTaken;
    lock.unlock();
    return ReadHere(read, frame, error);
  }
  doneCv_.wait(lock, [&slot] { return slot.state == ReadSlot::kDone; });
  *frame = std::move(slot.frame);
  slot.frame = Frame();
  slot.state = ReadSlot::kTaken;
  --readsWaiting_;
  const bool ok = slot.ok;
  if (!ok) *error = std::move(slot.error);
  IssueReads();
  return ok;
}

int64_t FramePipeline::Write(WriteJob job) {
  std::unique_lock<std::mutex> lock(mu_);
  const int64_t number = retired_ + static_cast<int64_t>(writes_.size());
  if (settings_.threads <= 0) {
    WriteSlot slot;
    lock.unlock();
    slot.ok = Guarded([&] { return job(&slot.error); }, &slot.error);
    job = nullptr;
    slot.started = slot.done = true;
    lock.lock();
    writes_.push_back(std::move(slot));
    return number;
  }
  doneCv_.wait(lock, [this] { return writesPending_ < std::max(settings_.writeBehind, 1); });
  WriteSlot slot;
  slot.job = std::move(job);
  writes_.push_back(std::move(slot));
  ++writesPending_;
  queue_.push_back({kWriteLane, number});
  lock.unlock();
  workCv_.notify_all();
  return number;
}

bool FramePipeline::Retire(bool wait, Outcome* outcome) {
  std::unique_lock<std::mutex> lock(mu_);
  if (writes_.empty()) return false;
  if (wait)
    doneCv_.wait(lock, [this] { return writes_.front().done; });
  else if (!writes_.front().done)
    return false;
  WriteSlot& slot = writes_.front();
  outcome->number = retired_;
  outcome->ok = slot.ok;
  outcome->error = std::move(slot.error);
  writes_.pop_front();
  ++retired_;
  return true;
}

int64_t FramePipeline::Outstanding() const {
  std::lock_guard<std::mutex> lock(mu_);
  return static_cast<int64_t>(writes_.size());
}

void FramePipeline::CancelQueuedWrites() {
  std::lock_guard<std::mutex> lock(mu_);
  for (auto it = queue_.begin(); it != queue_.end();) {
    if (it->lane != kWriteLane) {
      ++it;
      continue;
    }
    WriteSlot& slot = writes_[static_cast<size_t>(it->index - retired_)];
    slot.job = nullptr;
    slot.done = true;
    slot.ok = false;
    slot.error = "not written: an earlier write failed";
    --writesPending_;
    it = queue_.erase(it);
  }
  doneCv_.notify_all();
}

}  // namespace flowblur
