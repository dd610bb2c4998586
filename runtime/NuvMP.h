// flowblur: fork-join row workers on the host's processors, and two small lock utilities.
#pragma once
#include <pthread.h>

#include <cstdint>
#include <type_traits>

#include "runtime/NuvMem.h"

// Rules for this folder:
// - Every row-parallel site reads
//       threads = NuvMPThreadsForRows(rows);
//       NuvMPFork(threads, rows, worker, args...);
//   and returns only after all workers have ended.
// - Workers write disjoint row ranges (inclusive bounds) and share read-only inputs.
// - A worker that can fail catches PLErr into an error slot passed among its arguments;
//   the forking function throws it after the join. Nothing else leaves a host processor.

// The fork's extra arguments. Each is one machine word, a pointer or an integer; a float
// travels as a pointer to a float in the caller's frame. Every worker reads from its own
// copy, in the order the forking function gave them.
struct NuvMPArgs {
  static constexpr int32_t kMaxArgs = 16;
  intptr_t words[kMaxArgs];
  int32_t count = 0;
  int32_t next = 0;

  template <class T>
  void Push(T value) {
    static_assert(std::is_pointer<T>::value || std::is_integral<T>::value ||
                      std::is_enum<T>::value || std::is_null_pointer<T>::value,
                  "fork arguments are machine words: pass floats by pointer");
    if constexpr (std::is_pointer<T>::value)
      words[count++] = reinterpret_cast<intptr_t>(value);
    else if constexpr (std::is_null_pointer<T>::value)
      words[count++] = 0;
    else
      words[count++] = static_cast<intptr_t>(value);
  }
  // Reads the next argument as T (a pointer or an integer type).
  template <class T>
  T Next() {
    intptr_t w = words[next++];
    if constexpr (std::is_pointer<T>::value)
      return reinterpret_cast<T>(w);
    else
      return static_cast<T>(w);
  }
};

// worker(thread index, reporter flag, first row, last row, argument cursor). The fork
// always passes 0 as the reporter flag.
typedef void (*NuvMPWorker)(int32_t thread, uint8_t reporter, int32_t firstRow, int32_t lastRow,
                            NuvMPArgs* args);

struct NuvMPJob {
  int32_t FirstRow;  // inclusive
  int32_t LastRow;   // inclusive
  NuvMPArgs* Args;   // the fork's arguments; each worker copies them
  NuvMPWorker Worker;
  int32_t Index;
  int32_t Rows;
  int32_t Threads;
};

constexpr int32_t kNuvMPMaxJobs = 64;
// Shared by all forks; written by the forking thread before the host fork, read after.
extern NuvMPJob NuvMPJobTable[kNuvMPMaxJobs];

// Stores the count without any test.
void NuvMPSetThreadCount(int32_t count);
// The stored value as it stands.
int32_t NuvMPGetRawThreadCount();
// The stored value if above 0; otherwise stores 1 and returns 1.
int32_t NuvMPGetThreadCount();
// Workers for so many rows: at most the thread count, at least 16 rows each whenever more
// than one runs. 0 rows give 0.
int32_t NuvMPThreadsForRows(int32_t rows);
// Inclusive slice of worker `index`; the last worker takes the remainder.
void NuvMPRowRange(int32_t threads, int32_t index, int32_t rows, int32_t* first, int32_t* last);
// Runs worker over rows 0 .. rows-1 split into `threads` slices, with `args` captured in
// this call's frame. One thread or one row runs on the calling thread. A PLErr thrown
// by a worker on the calling thread comes back as a new PLErr of the same value.
//
// Not in the original design, for safety: when the host could not tell the workers apart
// (no stored thread count, a frame of fewer pixels than processors, more workers than
// processors or than the job table holds) the slices run one after another on the
// calling thread instead, each exactly once, so the result is the same.
void NuvMPForkArgs(int32_t threads, int32_t rows, NuvMPWorker worker, NuvMPArgs* args);
template <class... A>
void NuvMPFork(int32_t threads, int32_t rows, NuvMPWorker worker, A... args) {
  static_assert(sizeof...(A) <= NuvMPArgs::kMaxArgs, "too many fork arguments");
  NuvMPArgs cursor;
  (cursor.Push(args), ...);
  NuvMPForkArgs(threads, rows, worker, &cursor);
}
// Not in the original design, for speed: the rows go out in bands of `band` rows (the last
// band also takes the remainder), which the `threads` workers take in turn until none are
// left, so that a worker slowed down by its rows or by the machine does not leave the others
// idle at the join. Each band is one call worker(thread, 0, first, last, args) with its own
// copy of the arguments: only for workers whose rows do not depend on how the rows are split.
// One thread, or rows for fewer than two bands, is NuvMPFork itself.
void NuvMPForkBandsArgs(int32_t threads, int32_t rows, int32_t band, NuvMPWorker worker,
                        NuvMPArgs* args);
constexpr int32_t kNuvMPBandArgs = 4;  // the words a banded fork adds before the worker's
template <class... A>
void NuvMPForkBands(int32_t threads, int32_t rows, int32_t band, NuvMPWorker worker,
                    A... args) {
  static_assert(sizeof...(A) + kNuvMPBandArgs <= NuvMPArgs::kMaxArgs,
                "too many fork arguments for a banded fork");
  NuvMPArgs cursor;
  (cursor.Push(args), ...);
  NuvMPForkBandsArgs(threads, rows, band, worker, &cursor);
}
// The error slot of a fork: a 32-bit word among the fork's arguments that failing workers
// store their PLErr value into and the forking function tests after the join. Several
// workers may fail at once, so every access during the fork is atomic: of several stores the
// last survives, as the design has it for an unlocked word, but without a data race.
// Workers store with NuvMPStoreError; anyone may read with NuvMPLoadError (after the join
// the join itself orders the stores before the read).
void NuvMPStoreError(int32_t* slot, int32_t code);
int32_t NuvMPLoadError(const int32_t* slot);

// What the host runs on each processor: finds its record from the host's pixel offset.
// `table` is NuvMPJobTable.
void NuvMPWorkerEntry(void* table);

// A semaphore on one mutex: a locked mutex means not signalled. Wait and Signal may come
// from different threads. Nothing on the motion-blur path uses it.
class NuvMP_BinarySemaphore : public NuvMem {
 public:
  // Creates the mutex locked, then unlocks it when `signalled`. Throws 1 when the mutex
  // cannot be created.
  explicit NuvMP_BinarySemaphore(bool signalled);
  virtual ~NuvMP_BinarySemaphore();
  // Does nothing when already set up.
  void Setup(bool signalled);
  void Wait();
  void Signal();

  bool mutexExists = false;
  pthread_mutex_t mutex;
  bool isSetUp = false;
};

// One mutex per row, for row-parallel work where two workers can touch one row.
class NuvMP_RowLocks {
 public:
  // Throws 1, after destroying what exists, when a mutex or the memory cannot be got.
  explicit NuvMP_RowLocks(int32_t count);
  ~NuvMP_RowLocks();
  NuvMP_RowLocks(const NuvMP_RowLocks&) = delete;
  NuvMP_RowLocks& operator=(const NuvMP_RowLocks&) = delete;
  // Spins on a try-lock: a waiting worker does not sleep.
  void Lock(int32_t row);
  void Unlock(int32_t row);
  int32_t Count() const { return count; }

 private:
  struct Record {
    bool exists;
    pthread_mutex_t mutex;
  };
  void Release();
  int32_t count = 0;
  Record** records = nullptr;
  Record* block = nullptr;
};
