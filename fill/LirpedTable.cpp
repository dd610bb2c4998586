// flowblur: LirpedTable, its angle subclasses and the static tables.
#include "fill/LirpedTable.h"

#include <cmath>
#include <limits>

#include "fill/PLZoom.h"
#include "runtime/NuvMem.h"

LirpedTable::LirpedTable(float low_, float high_, int32_t count, LirpedTableFunction function,
                         float* storage) {
  low = low_;
  high = high_;
  lastIndex = static_cast<float>(int64_t{count} - 1);
  if (count < 1 || !function) return;
  if (storage) {
    table = storage;
    ownsTable = 0;
  } else {
    // The raw form: a table that cannot get its array stays empty rather than throwing.
    table = static_cast<float*>(NuvMemRawAlloc(sizeof(float) * static_cast<uint64_t>(count)));
    if (!table) return;
    ownsTable = 1;
  }
  scale = lastIndex / (high - low);
  for (int32_t i = 0; i < count; ++i)
    table[i] = function(static_cast<float>(i) * (high - low) / lastIndex + low);
}

LirpedTable::LirpedTable(float low_, float high_, int32_t count,
                         const LirpedTableFunctor& functor) {
  low = low_;
  high = high_;
  lastIndex = static_cast<float>(int64_t{count} - 1);
  if (count < 1) return;
  table = static_cast<float*>(NuvMemRawAlloc(sizeof(float) * static_cast<uint64_t>(count)));
  if (!table) return;
  ownsTable = 1;
  scale = lastIndex / (high - low);
  for (int32_t i = 0; i < count; ++i)
    table[i] = functor.Evaluate(static_cast<float>(i) * (high - low) / lastIndex + low);
}

LirpedTable::~LirpedTable() {
  if (ownsTable == 1) NuvMemRawFree(table);
  table = nullptr;
}

float LirpedTable::Interpolate(float x) const {
  if (!table) return 0.0f;
  const float p = (x - low) * scale;
  if (std::isnan(p)) return std::numeric_limits<float>::quiet_NaN();
  // Ours: the rule would read before the array (i below 0) or past its end (i above
  // lastIndex); the ends answer instead. In between, trunc(p) is exact.
  if (p <= -1.0f) return table[0];
  if (p >= lastIndex) return table[static_cast<int32_t>(lastIndex)];
  const int32_t i = static_cast<int32_t>(p);
  if (static_cast<float>(i) < lastIndex)
    return (table[i + 1] - table[i]) * (p - static_cast<float>(i)) + table[i];
  return table[i];
}

float LirpedTable::Lookup(float x) const { return Interpolate(x); }

float LirpedFoldDegrees(float degrees) {
  // fmodf is exact, so for |degrees| below 2^27 (where every step of 360 is exact too) the
  // loops below, which then run at most once each, end where stepping from the original
  // angle would have ended. Infinity and NaN give NaN, which the loops leave alone.
  float a = std::fmod(degrees, 360.0f);
  while (a < 0.0f) a += 360.0f;
  while (a >= 360.0f) a -= 360.0f;
  return a;
}

float CosTableInDegrees::Lookup(float degrees) const {
  return Interpolate(LirpedFoldDegrees(degrees));
}

float SinTableInDegrees::Lookup(float degrees) const {
  return Interpolate(LirpedFoldDegrees(degrees));
}

namespace {

float CosOfDegrees(float x) { return std::cos(x * 0.017453292f); }
float SinOfDegrees(float x) { return std::sin(x * 0.017453292f); }

float cosStorage[360];
float sinStorage[360];
float cubicBSplineStorage[300];

}  // namespace

// Built during static initialisation, before any thread of ours exists; read-only after.
const CosTableInDegrees PLCosTableInDegrees(0.0f, 360.0f, 360, CosOfDegrees, cosStorage);
const SinTableInDegrees PLSinTableInDegrees(0.0f, 360.0f, 360, SinOfDegrees, sinStorage);
const LirpedTable PLCubicBSplineTable(0.0f, 2.0f, 300, PLCubicBSplineFilter,
                                      cubicBSplineStorage);
