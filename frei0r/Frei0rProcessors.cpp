// flowblur: the frei0r plug-in's processors: the host functions the library imports,
// defined over a WorkerPool, and the process-wide turn around a frame's library work.
#include "frei0r/Frei0rProcessors.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <system_error>
#include <thread>
#include <vector>

#include "host/WorkerPool.h"
#include "runtime/NuvMP.h"
#include "shell/spark.h"

namespace frei0rblur {
namespace {

constexpr int32_t kMaxProcessors = 64;  // what the library's job table holds
constexpr int32_t kDefaultCap = 8;      // a small pool: hosts run their own threads too

int32_t DefaultProcessors() {
  // A user's choice first: a host that runs many instances at once may want fewer.
  if (const char* text = std::getenv("FLOWBLUR_THREADS")) {
    const long wanted = std::strtol(text, nullptr, 10);
    if (wanted >= 1) return static_cast<int32_t>(std::min<long>(wanted, kMaxProcessors));
  }
  unsigned hardware = std::thread::hardware_concurrency();
  if (hardware == 0) return 1;
  return static_cast<int32_t>(std::min<unsigned>(hardware, kDefaultCap));
}

// The process-wide turn. Everything below is read and written only by its holder.
std::mutex gLibraryMutex;
int32_t gProcessors = 0;  // 0: not chosen yet
int64_t gFramePixels = 0;

// One fork as every processor sees it.
struct ForkJob {
  SparkMpWorker worker;
  void* arg;
  int32_t processors;
  uint64_t pixels;
  uint64_t share;
  std::exception_ptr* errors;  // one slot a processor
};

thread_local bool tInWorker = false;
thread_local uint64_t tOffset = 0;
thread_local uint64_t tCount = 0;

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

void RunJob(void* job, int32_t k) { RunOnProcessor(*static_cast<const ForkJob*>(job), k); }

// The pool, stopped when the shared object is unloaded or the process ends: its threads
// run code of this object, so they must be gone before it is unmapped. A frame still in
// progress on another thread at that moment keeps them; they are then left to the exit.
struct PoolHolder {
  WorkerPool pool;
  ~PoolHolder() {
    if (gLibraryMutex.try_lock()) {
      pool.Stop();
      gLibraryMutex.unlock();
    } else {
      pool.Abandon();
    }
  }
};
PoolHolder gPool;

}  // namespace

void SetProcessors(int32_t count) {
  std::lock_guard<std::mutex> lock(gLibraryMutex);
  gProcessors = count <= 0 ? DefaultProcessors() : std::min(count, kMaxProcessors);
}

int32_t Processors() {
  std::lock_guard<std::mutex> lock(gLibraryMutex);
  if (gProcessors <= 0) gProcessors = DefaultProcessors();
  return gProcessors;
}

void StopProcessors() {
  std::lock_guard<std::mutex> lock(gLibraryMutex);
  gPool.pool.Stop();
}

LibraryTurn::LibraryTurn(int32_t width, int32_t height) : lock_(gLibraryMutex) {
  if (gProcessors <= 0) gProcessors = DefaultProcessors();
  gFramePixels = std::max<int64_t>(int64_t{width} * height, 0);
  NuvMPSetThreadCount(gProcessors);
}

LibraryTurn::~LibraryTurn() { gFramePixels = 0; }

}  // namespace frei0rblur

using namespace frei0rblur;

extern "C" void sparkMpFork(SparkMpWorker worker, int /*nargs*/, void* arg) {
  if (!worker) return;
  const int32_t processors = std::max(gProcessors, 1);
  const uint64_t pixels = static_cast<uint64_t>(gFramePixels);
  std::vector<std::exception_ptr> errors(static_cast<size_t>(processors));
  ForkJob job{worker, arg, processors, pixels, pixels / static_cast<uint64_t>(processors),
              errors.data()};
  bool ran = false;
  // A fork from inside a worker would wait for the threads it runs on: its processors
  // then run one after another here, each seeing its own share, which gives the same result.
  if (!tInWorker) {
    try {
      gPool.pool.Run(processors, RunJob, &job);
      ran = true;
    } catch (const std::system_error&) {
      // No threads to be had: the same processors, one after another.
    }
  }
  if (!ran)
    for (int32_t k = 0; k < processors; ++k) RunOnProcessor(job, k);
  // The lowest-numbered processor's exception, so that the outcome does not depend on timing.
  for (std::exception_ptr& e : errors)
    if (e) std::rethrow_exception(e);
}

extern "C" void sparkMpInfo(uint64_t* offset, uint64_t* count) {
  if (offset) *offset = tInWorker ? tOffset : 0;
  if (count) *count = tInWorker ? tCount : 0;
}

extern "C" int64_t NuvMPSparkGetNumberOfFramePixels(void) { return gFramePixels; }
