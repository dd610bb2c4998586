// flowblur: the fork-join layer over the host's one primitive, sparkMpFork.
#include "runtime/NuvMP.h"

#include <atomic>

#include "shell/spark.h"

namespace {
int32_t gThreadCount = 0;

NuvMPJob MakeIdleJob() {
  NuvMPJob job{};
  job.FirstRow = -1;
  job.LastRow = -1;
  return job;
}

struct JobTableInit {
  JobTableInit() {
    for (NuvMPJob& job : NuvMPJobTable) job = MakeIdleJob();
  }
};
}  // namespace

NuvMPJob NuvMPJobTable[kNuvMPMaxJobs];
static JobTableInit gJobTableInit;

void NuvMPSetThreadCount(int32_t count) { gThreadCount = count; }

int32_t NuvMPGetRawThreadCount() { return gThreadCount; }

int32_t NuvMPGetThreadCount() {
  if (gThreadCount > 0) return gThreadCount;
  gThreadCount = 1;
  return 1;
}

int32_t NuvMPThreadsForRows(int32_t rows) {
  int32_t t = NuvMPGetThreadCount();
  int32_t r = t < rows ? t : rows;
  while (r > 1 && rows / r < 16) --r;
  return r;
}

void NuvMPRowRange(int32_t threads, int32_t index, int32_t rows, int32_t* first, int32_t* last) {
  if (threads <= 0) {  // no slices to divide into: the whole range
    *first = 0;
    *last = rows - 1;
    return;
  }
  int32_t share = rows / threads;
  *first = share * index;
  *last = index >= threads - 1 ? rows - 1 : index * share - 1 + share;
}

// True when the host's pixel offsets cannot tell `threads` workers apart, or the job
// table cannot hold them.
static bool HostCannotSplit(int32_t threads) {
  int32_t raw = NuvMPGetRawThreadCount();
  if (raw <= 0 || raw > kNuvMPMaxJobs || threads > raw) return true;
  int64_t pixels = NuvMPSparkGetNumberOfFramePixels();
  return static_cast<uint64_t>(pixels) / static_cast<uint64_t>(raw) == 0;
}

static void RunSlicesHere(int32_t threads, int32_t rows, NuvMPWorker worker, NuvMPArgs* args) {
  for (int32_t index = 0; index < threads; ++index) {
    int32_t first, last;
    NuvMPRowRange(threads, index, rows, &first, &last);
    if (first > last) continue;
    NuvMPArgs copy = *args;
    worker(index, 0, first, last, &copy);
  }
}

void NuvMPForkArgs(int32_t threads, int32_t rows, NuvMPWorker worker, NuvMPArgs* args) {
  try {
    if (threads == 1 || rows == 1) {
      NuvMPArgs copy = *args;
      worker(0, 0, 0, rows - 1, &copy);
      return;
    }
    if (HostCannotSplit(threads)) {
      RunSlicesHere(threads, rows, worker, args);
      return;
    }
    int32_t raw = NuvMPGetRawThreadCount();
    for (int32_t index = 0; index < raw; ++index) {
      NuvMPJob& job = NuvMPJobTable[index];
      job.Rows = rows;
      job.Threads = threads;
      job.Args = args;
      job.Index = index;
      job.Worker = worker;
    }
    for (int32_t index = 0; index < threads; ++index)
      NuvMPRowRange(threads, index, rows, &NuvMPJobTable[index].FirstRow,
                    &NuvMPJobTable[index].LastRow);
    sparkMpFork(NuvMPWorkerEntry, 1, NuvMPJobTable);
  } catch (PLErr& err) {
    PLErr value = err;
    throw value;
  }
}

namespace {

// A banded fork's worker: takes bands until none are left and runs the real worker on each.
void BandWorker(int32_t thread, uint8_t reporter, int32_t, int32_t, NuvMPArgs* args) {
  const NuvMPWorker worker = args->Next<NuvMPWorker>();
  const int32_t rows = args->Next<int32_t>();
  const int32_t band = args->Next<int32_t>();
  std::atomic<int32_t>* next = args->Next<std::atomic<int32_t>*>();
  const int32_t bands = rows / band;
  for (;;) {
    const int32_t k = next->fetch_add(1, std::memory_order_relaxed);
    if (k >= bands) return;
    const int32_t first = k * band;
    NuvMPArgs copy = *args;
    worker(thread, reporter, first, k == bands - 1 ? rows - 1 : first + band - 1, &copy);
  }
}

}  // namespace

void NuvMPForkBandsArgs(int32_t threads, int32_t rows, int32_t band, NuvMPWorker worker,
                        NuvMPArgs* args) {
  if (threads <= 1 || band < 1 || rows / band < 2 ||
      args->count - args->next + kNuvMPBandArgs > NuvMPArgs::kMaxArgs) {
    NuvMPForkArgs(threads, rows, worker, args);
    return;
  }
  std::atomic<int32_t> next{0};
  NuvMPArgs banded;
  banded.Push(worker);
  banded.Push(rows);
  banded.Push(band);
  banded.Push(&next);
  for (int32_t k = args->next; k < args->count; ++k) banded.words[banded.count++] = args->words[k];
  NuvMPForkArgs(threads, rows, BandWorker, &banded);
}

void NuvMPWorkerEntry(void* table) {
  NuvMPJob* jobs = static_cast<NuvMPJob*>(table);
  uint64_t offset = 0, count = 0;
  uint64_t pixels = static_cast<uint64_t>(NuvMPSparkGetNumberOfFramePixels());
  sparkMpInfo(&offset, &count);
  int32_t raw = NuvMPGetRawThreadCount();
  if (raw <= 0) return;  // the fork never sends work to a host it cannot split for
  uint64_t share = pixels / static_cast<uint64_t>(raw);
  if (share == 0) return;
  uint64_t wide = offset / share;
  if (wide >= static_cast<uint64_t>(kNuvMPMaxJobs)) return;  // outside the table
  int32_t index = static_cast<int32_t>(static_cast<uint32_t>(wide));
  NuvMPJob& job = jobs[index];
  if (!(index < job.Rows) || !(index < job.Threads)) return;
  NuvMPArgs copy = *job.Args;
  job.Worker(index, 0, job.FirstRow, job.LastRow, &copy);
}

// Relaxed is enough: the join orders the stores before the forking function's test, and
// the value says nothing about any other memory.
void NuvMPStoreError(int32_t* slot, int32_t code) {
  __atomic_store_n(slot, code, __ATOMIC_RELAXED);
}

int32_t NuvMPLoadError(const int32_t* slot) { return __atomic_load_n(slot, __ATOMIC_RELAXED); }

NuvMP_BinarySemaphore::NuvMP_BinarySemaphore(bool signalled) { Setup(signalled); }

NuvMP_BinarySemaphore::~NuvMP_BinarySemaphore() {
  if (mutexExists) pthread_mutex_destroy(&mutex);
  mutexExists = false;
  isSetUp = false;
}

void NuvMP_BinarySemaphore::Setup(bool signalled) {
  if (isSetUp) return;
  if (pthread_mutex_init(&mutex, nullptr) != 0) throw PLErrOutOfMemory;
  mutexExists = true;
  pthread_mutex_lock(&mutex);
  if (signalled) pthread_mutex_unlock(&mutex);
  isSetUp = true;
}

// A locked mutex released from another thread is what this semaphore is; the default
// mutex type allows it on Linux.
void NuvMP_BinarySemaphore::Wait() { pthread_mutex_lock(&mutex); }
void NuvMP_BinarySemaphore::Signal() { pthread_mutex_unlock(&mutex); }

NuvMP_RowLocks::NuvMP_RowLocks(int32_t n) {
  if (n < 0) n = 0;
  records = static_cast<Record**>(NuvMemAlloc(sizeof(Record*) * static_cast<uint64_t>(n)));
  try {
    block = static_cast<Record*>(NuvMemAlloc(sizeof(Record) * static_cast<uint64_t>(n)));
  } catch (PLErr&) {
    NuvMemFree(records);
    records = nullptr;
    throw;
  }
  for (int32_t i = 0; i < n; ++i) {
    records[i] = &block[i];
    block[i].exists = false;
  }
  count = n;
  for (int32_t i = 0; i < n; ++i) {
    if (pthread_mutex_init(&block[i].mutex, nullptr) != 0) {
      Release();
      throw PLErrOutOfMemory;
    }
    block[i].exists = true;
  }
}

NuvMP_RowLocks::~NuvMP_RowLocks() { Release(); }

void NuvMP_RowLocks::Release() {
  for (int32_t i = 0; i < count; ++i)
    if (block[i].exists) pthread_mutex_destroy(&block[i].mutex);
  NuvMemFree(block);
  NuvMemFree(records);
  block = nullptr;
  records = nullptr;
  count = 0;
}

void NuvMP_RowLocks::Lock(int32_t row) {
  while (pthread_mutex_trylock(&records[row]->mutex) != 0) {
  }
}

void NuvMP_RowLocks::Unlock(int32_t row) { pthread_mutex_unlock(&records[row]->mutex); }
