// flowblur: host simulator: processors as real threads.
#include "host/SparkHost.h"

#include <exception>
#include <thread>
#include <vector>

namespace {
int32_t gProcessors = 1;
int64_t gFramePixels = 0;
thread_local uint64_t tOffset = 0;
thread_local uint64_t tCount = 0;
}  // namespace

namespace sparkhost {
void SetProcessors(int32_t processors) { gProcessors = processors; }
int32_t Processors() { return gProcessors; }
void SetFramePixels(int64_t pixels) { gFramePixels = pixels; }
}  // namespace sparkhost

extern "C" void sparkMpFork(SparkMpWorker worker, int /*nargs*/, void* arg) {
  int32_t p = gProcessors > 0 ? gProcessors : 1;
  uint64_t pixels = static_cast<uint64_t>(gFramePixels);
  uint64_t share = pixels / static_cast<uint64_t>(p);
  std::vector<std::thread> threads;
  std::vector<std::exception_ptr> errors(static_cast<size_t>(p));
  for (int32_t k = 0; k < p; ++k) {
    threads.emplace_back([=, &errors] {
      tOffset = share * static_cast<uint64_t>(k);
      tCount = k == p - 1 ? pixels - tOffset : share;
      try {
        worker(arg);
      } catch (...) {
        errors[static_cast<size_t>(k)] = std::current_exception();
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (std::exception_ptr& e : errors)
    if (e) std::rethrow_exception(e);
}

extern "C" void sparkMpInfo(uint64_t* offset, uint64_t* count) {
  *offset = tOffset;
  *count = tCount;
}
