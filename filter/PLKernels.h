// flowblur: the named blurs (Gaussian, binomial, cosine, box), filtering a PLImage in place.
#pragma once
#include <cstdint>

#include "filter/PLSeparable.h"
#include "image/NuvImage.h"
#include "image/PLImage.h"

// All builders work in place on UChar, UShort or Float images of 1 to 4 channels; other
// types or channel counts are left untouched. A radius below 0.001 (negative included)
// does nothing. Failures arrive as a thrown PLErr; the image then holds what the filter had
// finished. Every one forks over rows and columns with identical output for any worker count.

// Caller-side modes of PLGaussBlur (they differ from the engine's):
//   2 rows only, 3 columns only, anything else (0 and 1 included) rows and columns.
// Weights: 2^(-i^2 / (radius/3)^2) for i in 0 .. (int)radius, normalised; half at radius/3.
// A fractional radius truncates the count (2.9 gives 3 half-weights) but keeps 2.9 in the
// shape. Refused with PLErrParameter (5), image untouched: radius of 4096 or more, or NaN (the
// kernel record holds 4096 half-weights), or width/height + 2 * ((int)radius + 1) above
// 16,384 for a pass that runs.
void PLGaussBlur(PLImage* image, uint32_t mode, float radius);

// The same on a view, with the ENGINE mode of ConvolveSeparable (0 both, 1 rows, 2 columns).
// Same refusals as PLGaussBlur.
void GaussBlurView(NuvImage* view, uint32_t engineMode, float radius);

// Five-tap binomial 1 4 6 4 1 / 16 (half-weights 0.375, 0.25, 0.0625), rows and columns.
void PLBinomial5Blur(PLImage* image);
// The same blur of `source` into `destination` (equal size, type and channels, else
// PLErrParameter), without first copying it there; the source is not changed.
void PLBinomial5BlurFrom(PLImage* destination, const PLImage* source);
// Its kernel, for callers that run the passes in bands (filter/PLSeparable.h).
void PLBinomial5Kernel(SeparableKernel* kernel);

// Cosine bell: half-weights cos(i * 1.570796826795 / radius) for i in 0 .. (int)radius,
// normalised, rows and columns. The constant is kept as it stands (a shade above a quarter
// turn): at a whole radius the last weight comes out slightly negative. Same refusals as
// PLGaussBlur.
void PLCosineBlur(PLImage* image, float radius);

// Box of 2 * ceil(radius) + 1 taps, the two end taps set to the fractional part of the
// radius when it has one, all divided by the tap count (so a fractional box sums below 1
// and darkens the middle slightly while the renormalised borders do not). `mode` goes
// straight to PLConvolveFull: 0 both, 1 NOTHING, 2 rows, 3+ columns (unlike PLGaussBlur).
// Integer stores are not clamped. Refused with PLErrParameter (5), image untouched: a radius
// of 2^20 or more, or NaN.
void PLBoxBlur(PLImage* image, int32_t mode, float radius);

// Three-tap binomial 0.25, 0.5, 0.25 through PLConvolveFull, rows and columns.
void PLBinomial121Blur(PLImage* image);
