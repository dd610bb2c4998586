// flowblur: what the propagation sweeps share between their plain and wide loops (folder-private).
#pragma once
#include <cstdint>

#include "flow/PLFlowPrivate.h"

namespace plflow {

// What one sweep needs, shared read-only by its workers (the flow is written only along
// each worker's own lines).
struct SweepImages {
  FView first;
  FView second;
  FView flow;
  FView cache;  // 2 floats a pixel: error of the pixel's own flow, and its state
  const float* firstMaskBase;  // null without masks
  intptr_t firstMaskStep;
  const float* secondMaskBase;
  intptr_t secondMaskStep;
  int32_t w;
  int32_t h;
  bool wide;  // take the wide loops (only ever true where PLWideAvailable())
};

// The states of a cache entry (see PLFlowPropagate.cpp).
constexpr float kSweepUnknown = 0.0f;
constexpr float kSweepValid = 1.0f;
constexpr float kSweepSkipped = 2.0f;

// The four sweeps of an unmasked level on a given path, on the calling thread's workers:
// `cache` is a 2-channel Float image of the level's size whose contents do not matter.
// Asking for the wide path where it is not available runs the plain one. For tests that
// compare the two; the estimator goes through PLWideChosen().
void PropagateSweepsOnPath(bool wide, PLImage* flow, const PLImage* first,
                           const PLImage* second, PLImage* cache);

// The wide (AVX2) loops of the unmasked sweeps on levels of at least 4x4, eight lanes each,
// every lane doing the four-lane loop's operations in its order; called only where
// PLWideChosen(). A build with FLOWBLUR_PLAIN_ONLY defined has none of them.
//
// Eight rows y0 .. y0 + 7 (all interior) of a row sweep, walked along x, each its own chain.
template <int32_t kStep>
void RowSweep8(const SweepImages& im, int32_t y0);
// Row y of a column sweep (previous is row y - step), columns from x while eight remain up
// to last; returns the first column left to the narrower loops.
int32_t ColumnRow8(const SweepImages& im, int32_t x, int32_t last, int32_t y, float* row,
                   const float* previous, float* cache);

}  // namespace plflow
