// flowblur: a small pool of persistent threads that run one task each beside the caller, fork
// after fork; shared by the host simulator and by hosts that lend the library their own threads.
#pragma once
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/types.h>

// Starting threads for every fork would cost more than many of the library's stages, so the
// threads outlive a run: they wait on a generation count between runs, polling it briefly
// (bounded by time, yielding the core) and then sleeping, since the machine may have fewer
// cores than threads.
//
// One caller at a time: Run, Stop and Abandon must not overlap (callers hold their own lock
// around them); Size may be read by that caller between them.
class WorkerPool {
 public:
  // task(context, k) for worker k. It must not throw: catch inside and report through the
  // context.
  typedef void (*Task)(void* context, int32_t worker);

  WorkerPool() = default;
  // Stops the threads; a pool inherited by a child made by fork() has none of them and is
  // left alone.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Workers of the pool as it stands (0 before the first run and after Stop): the caller
  // and one thread fewer.
  int32_t Size() const { return workers_; }

  // Runs task(context, k) once for each k in 0 .. workers - 1, worker 0 on the calling
  // thread and worker k >= 1 on pool thread k, and returns when all have returned; every
  // write of a task is visible to the caller then. Fewer than one worker runs nothing.
  // A pool of another size is stopped and started again with `workers` threads first.
  // Throws std::system_error when the threads cannot be started; the pool is then empty
  // and nothing has run.
  void Run(int32_t workers, Task task, void* context);

  // Ends and joins the threads; only between runs. In a child made by fork() the threads
  // do not exist: they are forgotten instead.
  void Stop();

  // Leaves the threads to the end of the process without joining them (kept reachable), for
  // a pool that cannot be stopped now, e.g. at exit while another thread is in Run.
  void Abandon();

 private:
  void Start(int32_t workers);
  void Serve(int32_t k, uint64_t seen);

  std::mutex mutex_;  // guards the fields below threads_
  std::condition_variable wake_;
  std::condition_variable done_;
  std::vector<std::thread> threads_;
  Task task_ = nullptr;
  void* context_ = nullptr;
  uint64_t generation_ = 0;
  int32_t running_ = 0;
  bool stop_ = false;
  // Written under the mutex beside the fields they mirror, read without it by the spins.
  std::atomic<uint64_t> generationMirror_{0};
  std::atomic<int32_t> runningMirror_{0};
  std::atomic<bool> stopMirror_{false};
  pid_t pid_ = 0;
  int32_t workers_ = 0;  // the caller and threads_
};
