// flowblur: the estimator object: level geometry, pyramids, start level, construction
// failures.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

#include "flow/tests/FlowTestSupport.h"
#include "runtime/runtime.h"

namespace {

TEST(FlowLevels, ModesHalveTheInput) {
  // Input size, mode, working size, level count; an unknown mode sizes as mode 0.
  const int32_t cases[][6] = {{1920, 1080, 1, 960, 540, 6}, {1920, 1080, 2, 480, 270, 5},
                              {1921, 1083, 3, 240, 135, 4}, {7, 7, 1, 3, 3, 1},
                              {100, 80, 9, 100, 80, 3}};
  for (const auto& k : cases) {
    PLOpticalFlowUChar flow(k[0], k[1], k[2], 0, 0, 12);
    EXPECT_EQ(flow.workWidth, k[3]) << k[2];
    EXPECT_EQ(flow.workHeight, k[4]) << k[2];
    EXPECT_EQ(flow.workMaxX, k[3] - 1);
    EXPECT_EQ(flow.numLevels, k[5]) << k[2];
    // Each level halves the one above, rounding down, in every pyramid.
    EXPECT_EQ(flow.flowPyramid[k[5] - 1]->width, k[3] >> (k[5] - 1)) << k[2];
    EXPECT_EQ(flow.firstPyramid[k[5] - 1]->height, k[4] >> (k[5] - 1)) << k[2];
  }
}

TEST(FlowLevels, CountRule) {
  // Below 6 in either dimension: one level whatever the minimum says.
  EXPECT_EQ(PLFlowLevelCount(5, 1000, 2), 1);
  EXPECT_EQ(PLFlowLevelCount(1000, 5, 0), 1);
  EXPECT_EQ(PLFlowLevelCount(6, 6, 2), 2);  // 3x3 is allowed
  // With 12, anything below 24 in either dimension.
  EXPECT_EQ(PLFlowLevelCount(23, 1000, 12), 1);
  EXPECT_EQ(PLFlowLevelCount(24, 1000, 12), 2);
  EXPECT_EQ(PLFlowLevelCount(1000, 1000, 2), 9);  // 1000 .. 3
  int32_t w, h;
  PLFlowLevelSize(1000, 7, 3, &w, &h);
  EXPECT_EQ(w, 125);
  EXPECT_EQ(h, 2);  // the floor of 2 is only a guard
}

struct StartCase {
  int32_t levels;
  float factor;
  int32_t level;
  float fraction;
};

TEST(FlowStart, LevelAndFraction) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const StartCase cases[] = {
      {6, 0.7f, 4, 0.9708538f},  // s = n - 1.0291464
      {6, 1.0f, 5, 1.0f},
      {6, 3.0f, 5, 1.0f},        // above 1 acts as 1
      {6, 0.0f, 0, 0.0f},        // log(0) is minus infinity
      {6, 0.01f, 0, 0.0f},
      {6, nan, 0, 0.0f},         // refused softly: as a tiny factor
      {1, 0.7f, 0, 0.0f},        // below 1/sqrt(2) on one level: all zero
      {1, 0.8f, 0, 0.0f},        // filled in below
  };
  for (const StartCase& c : cases) {
    PLOpticalFlowUChar flow(c.levels == 6 ? 960 : 20, c.levels == 6 ? 540 : 20, 0, 0, 0, 12);
    ASSERT_EQ(flow.numLevels, c.levels);
    flow.SetLevelFactor(c.factor);
    int32_t level = -1;
    float fraction = -1.0f;
    flow.GetStartLevel(&level, &fraction);
    if (c.levels == 1 && c.factor == 0.8f) {
      // From 1/sqrt(2) up to 1 the level-0 result is damped by s itself.
      EXPECT_EQ(level, 0);
      EXPECT_FLOAT_EQ(fraction, static_cast<float>(1.0 + 2.0 * std::log2(0.8)));
      continue;
    }
    EXPECT_EQ(level, c.level) << c.factor;
    EXPECT_EQ(fraction, c.fraction) << c.factor;
  }
}

// ---- Construction failures ---------------------------------------------------------------

struct FailAfter {
  int32_t remaining;
};
void* FailingAlloc(void* context, uint64_t size) {
  FailAfter* f = static_cast<FailAfter*>(context);
  if (f->remaining-- <= 0) return nullptr;
  return std::malloc(size ? size : 1);
}
void PlainFree(void*, void* block) { std::free(block); }

struct Hooks {
  FailAfter state;
  explicit Hooks(int32_t n) : state{n} { NuvMemSetHooks(&state, FailingAlloc, PlainFree); }
  ~Hooks() { NuvMemSetHooks(nullptr, nullptr, nullptr); }
};

TEST(FlowConstruction, EveryAllocationFailureIsCaughtAndCleanedUp) {
  // Count the allocations of a full object, then fail each in turn.
  int32_t total = 0;
  {
    Hooks hooks(1 << 30);
    PLOpticalFlowUChar flow(0, 40, 30, 0, 1, 1, 2);
    total = (1 << 30) - hooks.state.remaining;
  }
  ASSERT_GT(total, 20);
  for (int32_t n = 0; n < total; ++n) {
    PLOpticalFlowUChar* flow = nullptr;
    {
      Hooks hooks(n);
      // The object itself comes from the allocator too: give it one more.
      hooks.state.remaining = n + 1;
      flow = new PLOpticalFlowUChar(0, 40, 30, 0, 1, 1, 2);
    }
    EXPECT_EQ(flow->errorCode, PLErrOutOfMemory) << n;
    EXPECT_EQ(flow->firstPyramid, nullptr);  // all or nothing
    EXPECT_EQ(flow->secondMaskPyramid, nullptr);
    // A failed object refuses to run and is destroyed safely.
    auto a = flowtest::MakeTextured(40, 30, 1, PLUChar, 0, 0);
    flow->ComputeFlow(nullptr, a.get(), a.get(), 1, 1, 0, nullptr);
    delete flow;
  }
}

TEST(FlowConstruction, ThrowOnErrorRaisesTheValue) {
  Hooks hooks(3);
  try {
    PLOpticalFlowUChar flow(40, 30, 0, 0, 0, 2);
    FAIL() << "no exception";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrOutOfMemory);
  }
}

TEST(FlowConstruction, WorkingSizeBelowOneIsRefused) {
  PLOpticalFlowUChar tiny(0, 1, 1, 1, 0, 0, 12);  // 1x1 halved: 0x0
  EXPECT_EQ(tiny.errorCode, PLErrParameter);
  EXPECT_EQ(tiny.firstPyramid, nullptr);
  PLOpticalFlowUChar negative(0, -8, 8, 0, 0, 0, 12);
  EXPECT_EQ(negative.errorCode, PLErrParameter);
  EXPECT_THROW(PLOpticalFlowUChar(3, 1, 1, 0, 0, 12), PLErr);
  PLOpticalFlowUChar one(0, 1, 1, 0, 0, 0, 12);  // 1x1 itself is a valid working size
  EXPECT_EQ(one.errorCode, 0);
  EXPECT_EQ(one.numLevels, 1);
}

}  // namespace
