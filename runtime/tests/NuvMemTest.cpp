// flowblur: allocation hooks, the base object's operators and the error type.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "runtime/runtime.h"

namespace {
struct HookLog {
  std::vector<uint64_t> sizes;
  std::vector<void*> freed;
  bool failNext = false;
};
void* LoggingAlloc(void* context, uint64_t size) {
  HookLog* log = static_cast<HookLog*>(context);
  log->sizes.push_back(size);
  if (log->failNext) return nullptr;
  return std::malloc(size ? size : 1);
}
void LoggingFree(void* context, void* block) {
  static_cast<HookLog*>(context)->freed.push_back(block);
  std::free(block);
}

struct HooksInstalled {
  HookLog log;
  HooksInstalled() { NuvMemSetHooks(&log, LoggingAlloc, LoggingFree); }
  ~HooksInstalled() { NuvMemSetHooks(nullptr, nullptr, nullptr); }
};

TEST(NuvMem, HooksGetContextFirstAndSizeSecond) {
  HooksInstalled hooks;
  void* block = NuvMemAlloc(123);
  ASSERT_EQ(hooks.log.sizes.size(), 1u);
  EXPECT_EQ(hooks.log.sizes[0], 123u);
  NuvMemFree(block);
  ASSERT_EQ(hooks.log.freed.size(), 1u);
  EXPECT_EQ(hooks.log.freed[0], block);
}

TEST(NuvMem, NullFreeNeverReachesTheHook) {
  HooksInstalled hooks;
  NuvMemFree(nullptr);
  NuvMem::operator delete(nullptr);
  NuvMem::operator delete[](nullptr, 7);
  EXPECT_TRUE(hooks.log.freed.empty());
}

TEST(NuvMem, FailedAllocationThrowsOutOfMemory) {
  HooksInstalled hooks;
  hooks.log.failNext = true;
  try {
    NuvMemAlloc(0);  // size 0 reaches the back end unchanged
    FAIL() << "no exception";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrOutOfMemory);
  }
  ASSERT_EQ(hooks.log.sizes.size(), 1u);
  EXPECT_EQ(hooks.log.sizes[0], 0u);
  EXPECT_EQ(NuvMemRawAlloc(16), nullptr);  // the raw form reports null instead
}

TEST(NuvMem, ReallocCopiesTheSmallerSizeAndKeepsOldBlockOnFailure) {
  HooksInstalled hooks;
  unsigned char* old = static_cast<unsigned char*>(NuvMemAlloc(8));
  for (int i = 0; i < 8; ++i) old[i] = static_cast<unsigned char>(i + 1);
  hooks.log.failNext = true;
  EXPECT_THROW(NuvMemRealloc(old, 4, 8), PLErr);
  EXPECT_EQ(old[7], 8);  // still ours
  hooks.log.failNext = false;
  unsigned char* smaller = static_cast<unsigned char*>(NuvMemRealloc(old, 4, 8));
  EXPECT_EQ(hooks.log.sizes.back(), 4u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(smaller[i], i + 1);
  EXPECT_EQ(hooks.log.freed.back(), old);
  NuvMemFree(smaller);
  void* fresh = NuvMemRealloc(nullptr, 5, 0);
  EXPECT_EQ(hooks.log.sizes.back(), 5u);
  NuvMemFree(fresh);
}

struct Thrower : NuvMem {
  Thrower() { throw PLErrParameter; }
};

TEST(NuvMem, FailingConstructorReleasesThroughTheMatchingOperator) {
  HooksInstalled hooks;
  EXPECT_THROW(NUV_NEW Thrower(), PLErr);
  EXPECT_EQ(hooks.log.sizes.size(), 1u);
  EXPECT_EQ(hooks.log.freed.size(), 1u);
}

// A handler that receives 0 reports success.
int RunAndReport(void (*f)()) {
  try {
    f();
  } catch (PLErr& err) {
    return err == PLErrNone ? 1 : 0;
  }
  return 1;
}

TEST(PLErr, ValuesAndZeroMeansSuccess) {
  EXPECT_EQ(PLErrOutOfMemory, 1);
  EXPECT_EQ(PLErrFile, 2);
  EXPECT_EQ(PLErrParameter, 5);
  EXPECT_EQ(PLErrInterrupted, 6);
  EXPECT_EQ(PLErrStep, 7);
  EXPECT_EQ(RunAndReport([] { throw PLErrNone; }), 1);
  EXPECT_EQ(RunAndReport([] { throw PLErrParameter; }), 0);
}
}  // namespace
