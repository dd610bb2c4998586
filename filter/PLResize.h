// flowblur: corner-aligned bilinear resize between images of any size and working type.
#pragma once

#include <cstddef>
#include <cstdint>

#include "filter/PLSeparable.h"
#include "image/PLImage.h"

// Fills `destination` from `source` by bilinear interpolation on a corner-aligned grid
// (first and last pixels coincide; scale = (source size - 1) / (destination size - 1)).
// Any mix of UChar, UShort, Float on either side, 1 to 4 channels (equal on both sides);
// other types or channel counts do nothing. When the white points differ the value is
// multiplied by destination whitePoint / source whitePoint. Integer stores are
// (int)(v + 0.5) with NO clamp (out-of-range Float wraps); Float stores as is.
// The last row/column slides its cell back with a fraction of 1.0, so reads stay inside.
// `destination` and `source` must be different images; each is addressed by its own
// flipped and rowBytes. Forks over destination rows; identical for any worker count.
//
// Throws PLErrParameter (5): channel counts differ (before any work). Also, as a guard of
// ours: a destination of width or height 1 (the scale would divide by zero) or a source of
// width or height below 2 (the neighbour reads would leave the image), or a null data
// pointer, with nothing written. A destination of width or height 0 is a no-op.
void PLResizeBilinear(PLImage* destination, const PLImage* source);
// The same on a chosen loop: `wide` takes the AVX2 loop of the 1-channel Float-to-Float
// member (equal white points) where PLWideAvailable(), the plain loops elsewhere; same bytes.
// PLResizeBilinear passes PLWideChosen(). For tests and benchmarks.
void PLResizeBilinearOnPath(bool wide, PLImage* destination, const PLImage* source);

// The corner-aligned grid along one axis: the scale (source length - 1) / (destination
// length - 1) in float, and the cell of destination index i: the source index
// trunc(i * scale) and the weight of the next one, slid back by one with weight 1.0 at the
// last source index.
struct PLResizeCell {
  int32_t index;
  float t;
};
float PLResizeScale(int32_t sourceLength, int32_t destinationLength);
PLResizeCell PLResizeCellOf(int32_t i, float scale, int32_t sourceLast);

// Destination rows `from` .. `to` - 1 of the resize of a 1-channel Float image of
// sourceWidth x sourceHeight to width x height, bit for bit as PLResizeBilinear makes them
// (equal white points), here and now (no fork): for a caller that makes the source a few
// rows at a time. `source` must hold every row those destination rows read; destination
// row y goes to output + (y - from) * outputStep. Sizes below 2: nothing.
void PLResizeFloatRowsHere(const FloatRows& source, int32_t sourceWidth, int32_t sourceHeight,
                           float* output, ptrdiff_t outputStep, int32_t width, int32_t height,
                           int32_t from, int32_t to, bool wide);
