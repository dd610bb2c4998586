// flowblur: allocation hooks and the base object's operators.
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
  return log->failNext ? nullptr : std::malloc(size ? size : 1);
}
void LoggingFree(void* context, void* block) {
  static_cast<HookLog*>(context)->freed.push_back(block);
  std::free(block);
}

struct NuvMemTest : ::testing::Test {
  void SetUp() override { NuvMemSetHooks(&log, LoggingAlloc, LoggingFree); }
  void TearDown() override { NuvMemSetHooks(nullptr, nullptr, nullptr); }
  HookLog log;
};

// The hooks get their context first and the size second; a null block never reaches them. A
// failed allocation throws out of memory (the raw form reports null), size 0 unchanged.
TEST_F(NuvMemTest, HooksSeeEverySizeAndBlockAndFailuresThrowOutOfMemory) {
  void* block = NuvMemAlloc(123);
  NuvMemFree(block);
  NuvMemFree(nullptr);
  NuvMem::operator delete(nullptr);
  NuvMem::operator delete[](nullptr, 7);
  EXPECT_EQ(log.freed, std::vector<void*>{block});
  log.failNext = true;
  EXPECT_EQ(NuvMemRawAlloc(16), nullptr);
  try {
    NuvMemAlloc(0);
    FAIL() << "no exception";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrOutOfMemory);
  }
  EXPECT_EQ(log.sizes, (std::vector<uint64_t>{123, 16, 0}));
}

TEST_F(NuvMemTest, ReallocCopiesTheSmallerSizeAndKeepsOldBlockOnFailure) {
  unsigned char* old = static_cast<unsigned char*>(NuvMemAlloc(8));
  for (int i = 0; i < 8; ++i) old[i] = static_cast<unsigned char>(i + 1);
  log.failNext = true;
  EXPECT_THROW(NuvMemRealloc(old, 4, 8), PLErr);
  EXPECT_EQ(old[7], 8);  // still ours
  log.failNext = false;
  unsigned char* smaller = static_cast<unsigned char*>(NuvMemRealloc(old, 4, 8));
  EXPECT_EQ(log.sizes.back(), 4u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(smaller[i], i + 1);
  EXPECT_EQ(log.freed.back(), old);
  NuvMemFree(smaller);
  void* fresh = NuvMemRealloc(nullptr, 5, 0);
  EXPECT_EQ(log.sizes.back(), 5u);
  NuvMemFree(fresh);
}

struct Thrower : NuvMem {
  Thrower() { throw PLErrParameter; }
};
struct Plain : NuvMem {
  int64_t value = 0;
};

// Both forms of new go through the hooks; a failing constructor releases through the
// matching operator.
TEST_F(NuvMemTest, FailingConstructorReleasesThroughTheMatchingOperator) {
  EXPECT_THROW(NUV_NEW Thrower(), PLErr);
  EXPECT_EQ(log.freed.size(), 1u);
  delete new Plain();
  EXPECT_EQ(log.sizes, (std::vector<uint64_t>{sizeof(Thrower), sizeof(Plain)}));
  EXPECT_EQ(log.freed.size(), 2u);
}
}  // namespace
