// flowblur tests: thousands of frames through the built plug-in, loaded with dlopen as a host
// loads it, with host faults sprinkled in. Heap in use, open file descriptors and threads
// must end where they started. FLOWBLUR_SOAK_CALLS sets the number of SparkProcess calls
// (1,000 by default; 10,000 for the full soak).
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "host/SparkHost.h"
#include "shell/spark.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define FLOWBLUR_SOAK_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define FLOWBLUR_SOAK_SANITIZER 1
#endif
#endif
#ifdef FLOWBLUR_SOAK_SANITIZER
// The sanitizers' allocators count what is in use; not every compiler ships the header.
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

namespace {

// The plug-in's names, as a host finds them in the loaded file.
struct Plugin {
  void* handle;
  template <class T>
  T Find(const char* name) const {
    return reinterpret_cast<T>(dlsym(handle, name));
  }
  void* (*process)(spark_info_struct) = Find<void* (*)(spark_info_struct)>("SparkProcess");
  void (*tempBuffers)() = Find<void (*)()>("SparkMemoryTempBuffers");
  SparkFloatControl* amount = Find<SparkFloatControl*>("SparkFloat0");
  SparkBooleanControl* fromBack = Find<SparkBooleanControl*>("SparkBoolean2");
  SparkPupControl* quality = Find<SparkPupControl*>("SparkPup1");
};

// Fills every frame of both clips with bytes that differ by frame, clip and place.
void FillClips(const sparkhost::FrameLayout& layout, int32_t frames) {
  for (int32_t clip = 0; clip < 2; ++clip) {
    sparkhost::SetClip(clip, layout, frames);
    for (int32_t t = 0; t < frames; ++t) {
      uint8_t* frame = sparkhost::ClipFrame(clip, t);
      for (int64_t i = 0; i < sparkhost::FrameBytes(layout); ++i)
        frame[i] = static_cast<uint8_t>((i * 7 + t * 13 + clip * 5) & 0xFF);
    }
  }
}

// Bytes the process has allocated and not freed, by whichever allocator is in use.
int64_t HeapInUse() {
#ifdef FLOWBLUR_SOAK_SANITIZER
  return static_cast<int64_t>(__sanitizer_get_current_allocated_bytes());
#else
  return static_cast<int64_t>(mallinfo2().uordblks);
#endif
}

int32_t OpenDescriptors() {
  int32_t count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* e = readdir(dir)) count += e->d_name[0] != '.';
    closedir(dir);
  }
  return count - 1;  // the listing's own descriptor
}

int32_t Threads() {
  std::ifstream status("/proc/self/status");
  std::string key;
  int32_t n = -1;
  while (status >> key && key != "Threads:") status.ignore(1 << 20, '\n');
  status >> n;
  return n;
}

struct Stats {
  int32_t calls = 0;
  int32_t rendered = 0;  // the result pointer back and no message
  int32_t faulted = 0;   // null back, or a message
};

// One round: a fresh host with clips of one format and layout, `calls` frames, faults now and
// then. Ends with the host reset, so that nothing of the round's own bookkeeping is left
// when the caller measures.
void Round(const Plugin& p, int32_t round, int32_t calls, Stats* stats) {
  static const int32_t kFormats[] = {24, 25, 48, 49, 64};
  const int32_t format = kFormats[round % 5];
  sparkhost::Reset();
  sparkhost::SetProcessors(1 + round % 4);
  const int32_t width = 24 + round % 11;
  // Padded rows where the format allows them.
  const int32_t stride =
      format == 49 || round % 2 ? 0 : width * sparkhost::BytesPerPixel(format) + 5;
  FillClips(sparkhost::FrameLayout{width, 20 + round % 7, format, stride}, 4);
  p.tempBuffers();
  for (int32_t k = 0; k < calls; ++k) {
    sparkhost::ClearInjections();
    switch ((round * 7 + k) % 17) {
      case 3: sparkhost::FailGetBuffer(2); break;
      case 7: sparkhost::ClearUsableBit(1); break;
      case 11: sparkhost::NullBufferOnGetFrame(sparkhost::kFirstTempBuffer); break;
      case 13: sparkhost::NullBufferPointer(3); break;
      default: break;
    }
    p.amount->value = k % 5 == 4 ? -1.5f : 0.25f * static_cast<float>(k % 4);
    p.fromBack->value = static_cast<uint8_t>(k % 3 == 2);
    p.quality->value = k % 2;
    spark_info_struct info = sparkhost::BeginFrame((round + k) % 4);
    const size_t notes = sparkhost::Notes().size();
    void* got = p.process(info);
    ++stats->calls;
    if (got && sparkhost::Notes().size() == notes) {
      EXPECT_EQ(got, sparkhost::BufferPixels(sparkhost::kResultBuffer));
      ++stats->rendered;
    } else {
      ++stats->faulted;
    }
  }
  sparkhost::Reset();
}

#ifndef FLOWBLUR_SOAK_SANITIZER
// glibc keeps freed blocks in per-thread caches and arenas that it counts as in use, and the
// stacks of ended threads for reuse, each with its heap-held table of thread-local blocks, so
// the heap figure would drift with the threads that came and went. Without them it is exact:
// the test runs again in a child with the caches off.
constexpr char kTunables[] =
    "GLIBC_TUNABLES=glibc.malloc.tcache_count=0:glibc.malloc.arena_max=1:"
    "glibc.pthread.stack_cache_size=0";

bool RunInExactHeapChild(int* status) {
  if (std::getenv("FLOWBLUR_SOAK_CHILD")) return false;
  const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
  std::string filter = std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
  pid_t pid = fork();
  if (pid == 0) {
    setenv("FLOWBLUR_SOAK_CHILD", "1", 1);
    putenv(const_cast<char*>(kTunables));
    execl("/proc/self/exe", "plugin_so_tests", filter.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  waitpid(pid, status, 0);
  return true;
}
#endif

TEST(Soak, ThousandsOfFramesLeaveHeapDescriptorsAndThreadsWhereTheyStarted) {
#ifndef FLOWBLUR_SOAK_SANITIZER
  int status = 0;
  if (RunInExactHeapChild(&status)) {
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the soak child failed";
    return;
  }
#endif
  const char* env = std::getenv("FLOWBLUR_SOAK_CALLS");
  const int32_t total = env ? std::atoi(env) : 1000;
  ASSERT_GT(total, 0);
  void* handle = dlopen(FLOWBLUR_SPARK_SO, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  const Plugin p{handle};
  ASSERT_TRUE(p.process && p.tempBuffers && p.amount && p.fromBack && p.quality);
  constexpr int32_t kPerRound = 20;
  // A warm-up round of every format first, so that one-time allocations (the runtime's
  // statics, the sanitizers' own caches) are behind us before the baseline.
  Stats stats;
  int32_t round = 0;
  for (; round < 5; ++round) Round(p, round, 4, &stats);
  const int64_t heap = HeapInUse();
  const int32_t descriptors = OpenDescriptors();
  const int32_t threads = Threads();
  int64_t peak = heap;
  stats = Stats();
  // The null pointer faults print a line each on stderr; they are expected.
  testing::internal::CaptureStderr();
  while (stats.calls < total) {
    Round(p, round++, std::min(kPerRound, total - stats.calls), &stats);
    peak = std::max(peak, HeapInUse());
  }
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(stats.calls, total);
  // Most frames were really rendered, the rest met a fault.
  EXPECT_GT(stats.rendered, total / 2);
  EXPECT_GT(stats.faulted, total / 20);
  // The library holds nothing between calls: after the last frame the heap is where it was.
  EXPECT_EQ(HeapInUse(), heap) << "peak during the run " << peak;
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(Threads(), threads);
  // The working set of one small frame, not of many.
  EXPECT_LT(peak - heap, int64_t{8} << 20);
  dlclose(handle);
}

}  // namespace
