// flowblur: tables of samples of a function of one float, read with linear interpolation.
#pragma once
#include <cstdint>

// Rules for this folder:
// - Lookup tables are built once (the static ones before threads exist) and are read-only
//   afterwards: any thread may call Lookup on any table at any time.
// - Lookups are single precision, in the written order (the build uses -ffp-contract=off).
// - Images are addressed by their own fields; checks and refusals come before any pixel is
//   written; forked stages give the same bytes for any worker count.

// The object form of a sampled function: Evaluate is its first virtual operation.
class LirpedTableFunctor {
 public:
  virtual float Evaluate(float x) const = 0;
  virtual ~LirpedTableFunctor() = default;
};

typedef float (*LirpedTableFunction)(float x);

// `count` samples of a function at evenly spaced arguments from `low` to `high` (both
// included), read back by linear interpolation.
//
// Sample i is function(i * (high - low) / lastIndex + low), in single precision; so with
// count 360 over 0 .. 360 the step is 360/359 degrees, not one degree.
//
// Lookup(x), single precision: p = (x - low) * scale, i = trunc(p); below lastIndex the
// result is (entry[i + 1] - entry[i]) * (p - i) + entry[i], otherwise entry[i]. An x a
// little below `low` (p above -1) truncates to 0 and extrapolates from the first two
// entries, as the rule gives.
// Outside the table, ours (the rule would read before or after the array):
//   - p at or below -1 gives the first entry, p at or above lastIndex the last entry;
//   - a NaN x gives NaN;
//   - a table whose array could not be had (or count below 1) gives 0.0f for every x.
// With high equal to low, scale is infinite and only the clamps above answer.
class LirpedTable {
 public:
  // Samples `function`. A null `storage` makes the table allocate its array and own it;
  // otherwise `storage` (at least `count` floats) is filled and left to the caller. If the
  // array cannot be had, or count is below 1, no sampling is done, `table` stays null
  // and `scale` 0.
  LirpedTable(float low, float high, int32_t count, LirpedTableFunction function,
              float* storage);
  // The same with a functor; always allocates (and owns) the array.
  LirpedTable(float low, float high, int32_t count, const LirpedTableFunctor& functor);
  // Releases `table` when ownsTable is 1, and sets it to null.
  virtual ~LirpedTable();
  LirpedTable(const LirpedTable&) = delete;
  LirpedTable& operator=(const LirpedTable&) = delete;

  virtual float Lookup(float x) const;

  float* table = nullptr;  // the samples
  float low = 0.0f;        // argument of the first sample
  float high = 0.0f;       // argument of the last sample
  float lastIndex = 0.0f;  // entries minus 1, as a float
  float scale = 0.0f;      // lastIndex / (high - low)
  int32_t ownsTable = 0;   // 1 when the destructor releases `table`

 protected:
  // The interpolation of Lookup, without any fold; shared by the angle tables.
  float Interpolate(float x) const;
};

// Cosine and sine of an angle in degrees, over a table of one turn. The angle is first
// folded into 0 .. 360: below 0 it gains 360 until it is not, at or above 360 it loses
// 360 until it is below. Ours: the fold is done in one step (fmodf, which is exact) and
// then the two loops run at most once each; for every angle whose magnitude is below
// 2^27 this gives the same bits as stepping by 360, because each such step is exact.
// Larger angles get the exact fold at once (stepping would round at each step and, far
// enough out, never end). An infinite or NaN angle gives NaN.
class CosTableInDegrees : public LirpedTable {
 public:
  using LirpedTable::LirpedTable;
  float Lookup(float degrees) const override;
};
class SinTableInDegrees : public LirpedTable {
 public:
  using LirpedTable::LirpedTable;
  float Lookup(float degrees) const override;
};

// Folds an angle in degrees into 0 .. 360 as the angle tables do (see above).
float LirpedFoldDegrees(float degrees);

// The static instances, built at start-up over static arrays (ownsTable 0):
// cosine and sine tables, low 0, high 360.0, count 360, sampling cosf / sinf of the
// argument times 0.017453292f; and the cubic B-spline of the zoom resampler, low 0,
// high 2.0, count 300 (PLCubicBSplineFilter of fill/PLZoom.h).
extern const CosTableInDegrees PLCosTableInDegrees;
extern const SinTableInDegrees PLSinTableInDegrees;
extern const LirpedTable PLCubicBSplineTable;
