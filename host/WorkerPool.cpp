// flowblur: the persistent worker pool.
#include "host/WorkerPool.h"

#include <sched.h>
#include <unistd.h>

namespace {

using Lock = std::lock_guard<std::mutex>;

// Polls `ready` until it holds or `bound` has passed, yielding the core between polls so
// that a thread with real work (the caller between runs, a worker within one) is not
// starved when the machine has fewer cores than busy threads. Only a hint: whoever spins
// still checks the real state under the pool's mutex afterwards.
template <class Ready>
bool SpinUntil(Ready ready, std::chrono::microseconds bound) {
  const auto start = std::chrono::steady_clock::now();
  for (int32_t polls = 1;; ++polls) {
    if (ready()) return true;
    if (polls % 4 == 0 && std::chrono::steady_clock::now() - start >= bound) return false;
    sched_yield();
  }
}

// How long an idle worker polls for the next run, and the caller for the join, before
// sleeping: waking a sleeping thread costs tens of microseconds, and the library makes
// fork after fork with short serial steps between them.
constexpr std::chrono::microseconds kWorkerSpin{200};
constexpr std::chrono::microseconds kCallerSpin{100};

// Threads of abandoned pools, kept reachable to the end of the process.
std::mutex gAbandonedMutex;
std::vector<std::thread>* gAbandoned = nullptr;

}  // namespace

WorkerPool::~WorkerPool() { Stop(); }

void WorkerPool::Run(int32_t workers, Task task, void* context) {
  if (workers < 1) return;
  if (workers_ != workers) {
    Stop();
    Start(workers);
  }
  {
    Lock lock(mutex_);
    task_ = task;
    context_ = context;
    running_ = workers - 1;
    runningMirror_.store(running_, std::memory_order_relaxed);
    ++generation_;
    generationMirror_.store(generation_, std::memory_order_release);
  }
  wake_.notify_all();
  // The caller is the first worker: it would only wait otherwise, and a fork then costs one
  // hand-over fewer (each is a wake-up and a switch on a machine with as many cores as
  // workers).
  task(context, 0);
  SpinUntil([this] { return runningMirror_.load(std::memory_order_acquire) == 0; },
            kCallerSpin);
  // The mutex orders every worker's writes before the caller's return, spin or not.
  std::unique_lock<std::mutex> lock(mutex_);
  done_.wait(lock, [this] { return running_ == 0; });
  task_ = nullptr;
  context_ = nullptr;
}

void WorkerPool::Stop() {
  workers_ = 0;
  if (threads_.empty()) return;
  if (getpid() != pid_) {
    Abandon();
    return;
  }
  {
    Lock lock(mutex_);
    stop_ = true;
    stopMirror_.store(true, std::memory_order_release);
  }
  wake_.notify_all();
  for (std::thread& t : threads_) t.join();
  threads_.clear();
  Lock lock(mutex_);
  stop_ = false;
  stopMirror_.store(false, std::memory_order_relaxed);
}

void WorkerPool::Abandon() {
  workers_ = 0;
  if (threads_.empty()) return;
  Lock lock(gAbandonedMutex);
  if (!gAbandoned) gAbandoned = new std::vector<std::thread>();
  for (std::thread& t : threads_) gAbandoned->push_back(std::move(t));
  threads_.clear();
}

void WorkerPool::Start(int32_t workers) {
  pid_ = getpid();
  threads_.reserve(static_cast<size_t>(workers - 1));
  workers_ = workers;
  try {
    // Each thread starts from the current generation, so that the run about to be
    // announced is not missed by a thread that wakes up late.
    for (int32_t k = 1; k < workers; ++k)
      threads_.emplace_back(&WorkerPool::Serve, this, k, generation_);
  } catch (...) {
    Stop();
    throw;
  }
}

void WorkerPool::Serve(int32_t k, uint64_t seen) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (!stop_ && generation_ == seen) {
      lock.unlock();
      SpinUntil(
          [&] {
            return generationMirror_.load(std::memory_order_acquire) != seen ||
                   stopMirror_.load(std::memory_order_acquire);
          },
          kWorkerSpin);
      lock.lock();
    }
    wake_.wait(lock, [&] { return stop_ || generation_ != seen; });
    if (stop_) return;
    seen = generation_;
    Task task = task_;
    void* context = context_;
    lock.unlock();
    task(context, k);
    lock.lock();
    runningMirror_.store(--running_, std::memory_order_release);
    if (running_ == 0) done_.notify_one();
  }
}
