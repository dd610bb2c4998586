// flowblur: the frei0r plug-in's own processors for the library's fork-join layer, and the
// one process-wide turn that every frame's library work runs in.
#pragma once
#include <cstdint>
#include <mutex>

// Rules for this folder:
// - The library keeps process-wide state (the fork job table, the thread count, the blend
//   table, the frame size its workers divide), and a frei0r host may run several instances
//   on several threads at once. So all library work of a frame runs inside one
//   LibraryTurn: one frame at a time in the whole process, each on all the processors.
// - The host functions the library imports (sparkMpFork, sparkMpInfo,
//   NuvMPSparkGetNumberOfFramePixels) are defined here over a WorkerPool owned by the
//   plug-in; the shared object keeps them local, so a host never sees them.
// - Nothing thrown leaves an f0r_* function, and nothing is printed: a frei0r host may have
//   no terminal. A frame that cannot be processed passes through unchanged.

namespace frei0rblur {

// Processors lent to the library from now on, 1 to 64; 0 or less restores the default:
// FLOWBLUR_THREADS from the environment when it holds a count of 1 or more (at most 64),
// else the machine's hardware threads, at most 8. Waits for the frame in progress.
void SetProcessors(int32_t count);
int32_t Processors();

// Ends the pool's threads (they start again with the next frame). Waits for the frame in
// progress.
void StopProcessors();

// Held for the whole of one frame's library work: takes the process-wide lock, then gives
// the library the processor count and the frame size its workers divide.
class LibraryTurn {
 public:
  LibraryTurn(int32_t width, int32_t height);
  ~LibraryTurn();
  LibraryTurn(const LibraryTurn&) = delete;
  LibraryTurn& operator=(const LibraryTurn&) = delete;

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace frei0rblur
