// flowblur tests: interpolated lookup tables, the angle fold, the static tables.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "fill/LirpedTable.h"

namespace {

float Square(float x) { return x * x; }

struct Cube : LirpedTableFunctor {
  float Evaluate(float x) const override { return x * x * x; }
};

// The rule as written, for arguments inside the table.
float RefLookup(const LirpedTable& t, float x) {
  const float p = (x - t.low) * t.scale;
  const int32_t i = static_cast<int32_t>(p);
  if (static_cast<float>(i) < t.lastIndex)
    return (t.table[i + 1] - t.table[i]) * (p - static_cast<float>(i)) + t.table[i];
  return t.table[i];
}

// Folding by steps of 360, as written (only for angles where that ends soon).
float StepFold(float a) {
  while (a < 0.0f) a += 360.0f;
  while (a >= 360.0f) a -= 360.0f;
  return a;
}

TEST(LirpedTable, SamplesAndInterpolatesByTheRule) {
  std::vector<float> storage(41, -7.0f);
  {
    LirpedTable t(-1.5f, 2.5f, 41, Square, storage.data());
    EXPECT_EQ(t.ownsTable, 0);
    EXPECT_EQ(t.lastIndex, 40.0f);
    EXPECT_EQ(t.scale, 40.0f / 4.0f);
    for (int32_t i = 0; i < 41; ++i)
      ASSERT_EQ(storage[i], Square(static_cast<float>(i) * 4.0f / 40.0f + -1.5f)) << i;
    for (float x = -1.5f; x <= 2.5f; x += 0.0371f) ASSERT_EQ(t.Lookup(x), RefLookup(t, x)) << x;
    EXPECT_EQ(t.Lookup(-1.5f), storage[0]);
    EXPECT_EQ(t.Lookup(2.5f), storage[40]);
  }
  // The destructor leaves the caller's array alone (a free of it would also trip ASan).
  EXPECT_EQ(storage[40], Square(2.5f));

  LirpedTable owned(0.0f, 1.0f, 11, Cube());
  EXPECT_EQ(owned.ownsTable, 1);
  EXPECT_EQ(owned.table[10], 1.0f);
  EXPECT_EQ(owned.Lookup(0.55f), RefLookup(owned, 0.55f));
}

// Outside the table the ends answer (the rule would read outside the array); just below low
// the rule itself extrapolates from the first two entries.
TEST(LirpedTable, OutsideTheTableGivesTheEnds) {
  LirpedTable t(0.0f, 10.0f, 11, Square, nullptr);
  EXPECT_EQ(t.Lookup(-0.5f), (t.table[1] - t.table[0]) * -0.5f + t.table[0]);
  for (float x : {-1.0f, -3.0f, -1e30f, -INFINITY}) EXPECT_EQ(t.Lookup(x), 0.0f) << x;
  for (float x : {10.0f, 10.5f, 11.0f, 1e30f, INFINITY}) EXPECT_EQ(t.Lookup(x), 100.0f) << x;
  EXPECT_TRUE(std::isnan(t.Lookup(NAN)));

  LirpedTable none(0.0f, 1.0f, 0, Square, nullptr);
  EXPECT_EQ(none.table, nullptr);
  EXPECT_EQ(none.Lookup(0.5f), 0.0f);
}

TEST(LirpedTable, AngleTablesFoldIntoOneTurnAtOnce) {
  const CosTableInDegrees& c = PLCosTableInDegrees;
  const SinTableInDegrees& s = PLSinTableInDegrees;
  EXPECT_EQ(c.ownsTable, 0);
  EXPECT_EQ(c.table[0], 1.0f);
  EXPECT_EQ(c.Lookup(360.0f), 1.0f);
  EXPECT_EQ(c.Lookup(0.0f), 1.0f);
  EXPECT_EQ(c.Lookup(-90.0f), c.Lookup(270.0f));
  EXPECT_EQ(s.Lookup(-90.0f), s.Lookup(270.0f));
  EXPECT_NEAR(s.Lookup(90.0f), 1.0f, 1e-4);   // table step 360/359: interpolation error
  EXPECT_NEAR(c.Lookup(-120.0f), -0.5f, 1e-4);

  // The one-step fold gives the stepping's bits wherever stepping is exact.
  for (float a : {-0.0f, -1e-10f, -360.0f, 719.999f, -1234.567f, 98765.43f, -3.0e6f, 1.3e8f})
    EXPECT_EQ(LirpedFoldDegrees(a), StepFold(a)) << a;
  for (float a = -2000.0f; a < 2000.0f; a += 0.7f) ASSERT_EQ(LirpedFoldDegrees(a), StepFold(a)) << a;
  // Ours: a huge angle folds exactly (in one step, not by stepping); infinity and NaN give NaN.
  for (float a : {1e30f, -3.0e38f, 4294967296.0f}) {
    const float folded = LirpedFoldDegrees(a);
    EXPECT_TRUE(folded >= 0.0f && folded < 360.0f) << a;
    if (a > 0.0f) {
      EXPECT_EQ(folded, std::fmod(a, 360.0f)) << a;  // the exact remainder
    }
    EXPECT_TRUE(std::fabs(PLCosTableInDegrees.Lookup(a)) <= 1.0f);
  }
  for (float a : {INFINITY, -INFINITY, NAN}) {
    EXPECT_TRUE(std::isnan(PLCosTableInDegrees.Lookup(a))) << a;
    EXPECT_TRUE(std::isnan(PLSinTableInDegrees.Lookup(a))) << a;
  }
}

}  // namespace
