// flowblur: corner-aligned bilinear resize between images of any size and working type.
#pragma once

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
