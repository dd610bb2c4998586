// Records every basic block a process runs (built with -fsanitize-coverage=trace-pc) as
// module + offset, one file per process, in $COVTRACE_DIR/<test>/<pid>.txt, where <test> is
// the --gtest_filter of the process or of the test that started it. Used by test_overlap.sh;
// not part of any build of the product.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <fcntl.h>

// Open addressing; a whole test run reaches about 60,000 blocks.
#define CAP (1u << 22)
static uintptr_t table[CAP];
static volatile int ready;

static inline void add(uintptr_t pc) {
  uint32_t h = (uint32_t)((pc * 0x9E3779B97F4A7C15ull) >> 42) & (CAP - 1);
  for (;;) {
    uintptr_t v = __atomic_load_n(&table[h], __ATOMIC_RELAXED);
    if (v == pc) return;
    if (v == 0) {
      uintptr_t z = 0;
      if (__atomic_compare_exchange_n(&table[h], &z, pc, 0, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) return;
      if (z == pc) return;
    }
    h = (h + 1) & (CAP - 1);
  }
}

void __sanitizer_cov_trace_pc(void) {
  static __thread uintptr_t last;
  uintptr_t pc = (uintptr_t)__builtin_return_address(0);
  if (pc == last) return;
  last = pc;
  add(pc);
}

static void dump(void) {
  const char* dir = getenv("COVTRACE_DIR");
  const char* test = getenv("COVTRACE_TEST");
  if (!dir || !test) return;
  char path[4096];
  snprintf(path, sizeof path, "%s/%s", dir, test);
  mkdir(dir, 0777);
  mkdir(path, 0777);
  snprintf(path, sizeof path, "%s/%s/%d.txt", dir, test, (int)getpid());
  FILE* f = fopen(path, "w");
  if (!f) return;
  for (uint32_t i = 0; i < CAP; ++i) {
    uintptr_t pc = table[i];
    if (!pc) continue;
    // A module closed before exit (dlclose) is not found any more: its blocks are lost.
    Dl_info info;
    if (dladdr((void*)pc, &info) && info.dli_fname)
      fprintf(f, "%s %lx\n", info.dli_fname, (unsigned long)(pc - (uintptr_t)info.dli_fbase));
  }
  fclose(f);
}

__attribute__((constructor)) static void init(void) {
  if (!getenv("COVTRACE_TEST")) {
    // The test's name from the command line, inherited by any child process (the batch
    // host's tests run the tool; the frei0r tests run ffmpeg and melt).
    int fd = open("/proc/self/cmdline", O_RDONLY);
    if (fd >= 0) {
      static char buf[65536];
      ssize_t n = read(fd, buf, sizeof buf - 1);
      close(fd);
      if (n > 0) {
        buf[n] = 0;
        for (char* p = buf; p < buf + n; p += strlen(p) + 1)
          if (strncmp(p, "--gtest_filter=", 15) == 0) {
            char name[1024];
            snprintf(name, sizeof name, "%s", p + 15);
            for (char* q = name; *q; ++q) if (*q == '/' ) *q = '@';
            setenv("COVTRACE_TEST", name, 1);
          }
      }
    }
  }
  atexit(dump);
}
