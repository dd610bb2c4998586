// flowblur: the full-weight separable convolution, one channel at a time, in place.
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// Filters `image` in place with `count` taps `weights` (all taps, held by the caller,
// weights[0] being the leftmost), channel by channel, by `mode`:
//   0 rows and columns, 1 nothing, 2 rows only, 3 and above columns only.
// half = (int)radius sets the reach of the head and tail, which take only the taps that
// exist and divide by their sum; the middle uses all `count` taps from i - half and does not
// divide. With a fractional radius (count = 2 * half + 3 from PLBoxBlur) the middle reaches
// two samples further right than left, moving the middle of the image by one sample toward
// the start of the line: this asymmetry is intended. Past the end of a line the middle reads
// scratch that is zero.
// Stores: UChar/UShort (int)(v + 0.5) with no clamp, Float as is. Other data types: nothing.
// A radius below 0.001 returns at once. Scratch per worker slot comes from the library's
// allocator; PLErrOutOfMemory leaves as a thrown PLErr after everything is released.
// Refused with a thrown PLErrParameter (5), image untouched (checked before the mode): null
// weights, a count outside 2 * half + 1 .. 2 * half + 3 (the head and tail would index past
// the weights, or the middle read further past a line than the scratch holds), a radius of
// 2^20 or more, or NaN. Identical output for any worker count.
void PLConvolveFull(PLImage* image, int32_t count, const float* weights, int32_t mode,
                    float radius);
