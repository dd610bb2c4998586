// flowblur: separable convolution with symmetric half-weights over NuvImage views.
#pragma once
#include <cstddef>
#include <cstdint>

#include "image/NuvImage.h"

// Capacity of a kernel record, in half-weights.
constexpr int32_t kSeparableKernelMax = 4096;
// Samples in a line buffer. A pass over lines of n samples with count c needs
// n + 2c <= kSeparableLineMax; ConvolveSeparable refuses anything longer (see below).
constexpr int32_t kSeparableLineMax = 16384;

// A symmetric kernel as half-weights: weights[0] is the centre tap, weights[k] the tap k
// samples away on either side, so count c means 2c - 1 taps. The builder normalises them
// so that weights[0] + 2 * (weights[1] + ... + weights[c - 1]) = 1: the middle of a line
// relies on that and does not divide. Lives on the builder's stack; no heap storage.
struct SeparableKernel {
  int32_t count = 0;
  float weights[kSeparableKernelMax] = {};  // zeroed on construction
};

// The weights each repeated in four consecutive lanes, for the vector loops. Built from a
// SeparableKernel at the start of every call; zeroed first in full.
struct ExpandedKernel {
  int32_t count;
  float lanes[kSeparableKernelMax * 4];
};
// Zeroes `expanded` in full, then copies count and spreads each weight over four lanes.
// `kernel->count` must be 0 .. kSeparableKernelMax.
void ExpandKernel(ExpandedKernel* expanded, const SeparableKernel* kernel);

// Engine modes of ConvolveSeparable.
enum : uint32_t {
  kSeparableRowsAndColumns = 0,
  kSeparableRowsOnly = 1,
  kSeparableColumnsOnly = 2,  // works on the destination alone; the source is not read
};

// Filters `source` into `destination` with the symmetric kernel, along rows and/or columns
// by `mode` (0 rows then columns, 1 rows only, 2 columns only on the destination alone, any
// other value nothing). The views must have equal size and row distance; width, height,
// row bytes, pixel type and channel count come from `source`, and only the destination's
// first-pixel pointer is taken from `destination`. They may be the same view (in place),
// which is how every caller uses it. Row order plays no part.
//
// At a line's ends taps outside the image drop out and the remaining taps are renormalised;
// no sample is invented. The outside test differs by layout:
//   1 channel: by index.
//   2, 3 channels, and 4-channel UChar/UShort: a lane whose sample equals -1.0 counts as
//     missing (so a real Float sample of -1.0 near an end is dropped in that lane).
//   4-channel Float: lane markers -3.0, -1415.0, -9265.0, -1.0, lane by lane.
// Only taps k >= 1 are tested; the centre tap always counts.
// Stores: UChar (int)(v + 0.5) clamped to 0..255, UShort clamped to 0..65535, Float as is.
//
// Returns 0, also for a pixel type other than 0, 1, 2 or channels outside 1..4 (nothing
// done). Refused, with nothing written and PLErrParameter (5) returned: a kernel count
// outside 0..4096, or a pass whose line (width for rows, height for columns) plus twice the
// count exceeds kSeparableLineMax; this keeps the stack line buffer from overflowing.
// Forks over rows, then over columns (in strips of neighbouring columns); identical output
// for any worker count. No heap: each worker holds one stack buffer of at most 256 KiB.
int32_t ConvolveSeparable(const NuvImage* source, NuvImage* destination,
                          const SeparableKernel* kernel, uint32_t mode);
// The same on a chosen loop: `wide` true takes the AVX2 middle run where PLWideAvailable()
// (runtime/PLWidePath.h), false the plain one; same bytes. ConvolveSeparable passes
// PLWideChosen(). For tests and benchmarks that compare the two.
int32_t ConvolveSeparableOnPath(bool wide, const NuvImage* source, NuvImage* destination,
                                const SeparableKernel* kernel, uint32_t mode);

// ---- One-channel Float passes in bands, here and now (no fork) ---------------------------
//
// For callers that make an image a few rows at a time and filter it while the rows are in
// cache: each gives, bit for bit, what ConvolveSeparable gives for the same rows of the
// whole image (the rule a row or column sample takes depends on its place in the whole
// line). Lines must fit as ConvolveSeparable requires: n + 2c <= kSeparableLineMax.

// The row pass over one row of n samples, `input` to `output` (which may coincide), through
// `line`, a buffer of at least n + 2c floats.
void ConvolveFloatRowHere(const float* input, float* output, int32_t n,
                          const SeparableKernel* kernel, const ExpandedKernel* expanded,
                          float* line, bool wide);

// Rows of 1-channel floats: row `top` + i starts at first + i * step (step in floats).
struct FloatRows {
  const float* first;
  ptrdiff_t step;
  int32_t top;
};
// The column pass for rows `from` .. `to` - 1 of an image of width x height, row `from` at
// `output` and each next one `outputStep` floats on (another buffer or the input's own rows).
// `input` must hold every row from max(0, from - c + 1) to min(height, to + c - 1) - 1.
// Uses a stack buffer of 256 KiB; to - from + 2c must be at most kSeparableLineMax.
void ConvolveFloatColumnsHere(const FloatRows& input, int32_t width, int32_t height,
                              int32_t from, int32_t to, float* output, ptrdiff_t outputStep,
                              const SeparableKernel* kernel, const ExpandedKernel* expanded,
                              bool wide);
