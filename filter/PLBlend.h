// flowblur: blending a second image into a first in place, also outside 0..1 (sharpening).
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// destination = source + (destination - source) * t, in place. t in 0..1 is a cross-fade
// toward the destination; t < 0 pushes away from it (the frame driver uses this to sharpen).
// Both images must be alike: equal width, height, channels (3 or 4), bytesPerSample,
// flipped and dataType. Returns 1 when dealt with, 0 when refused:
//   - two 4-channel images: row-parallel path (identical for any worker count); returns 1,
//     also when not alike (nothing done). t == 1: nothing; t == 0: source copied.
//   - 4-channel destination with a different source: nothing, returns 1.
//   - otherwise: the result of PLBlendRows(destination, source, 1, t).
// 3-channel UChar uses one static 256 x 256 table rebuilt per call: two such blends must
// not run at once on different threads.
int32_t PLBlend(PLImage* destination, const PLImage* source, float t);

// The serial routine under PLBlend. field: 1 all rows, 3 odd rows only, any other value even
// rows only. Returns 0 when the images are not alike, or (Float) when either whitePoint is
// not 1.0, which also prints "PLBlend: float image doesn't have 1.0 for white point\n"
// to the standard error stream. Per type (3 channels):
//   UChar: (float)s * (1 - t) + d * t + 0.5, limited to 0..255 when t is outside 0..1.
//   UShort: s + (float)(d - s) * t + 0.5, limited to 0..65535.
//   Float: s + (d - s) * t, unlimited.
// 4 channels: the matte is blended too, colours divided by m = matte / white when m > 1,
// limited to 0..white and to the stored matte (premultiplied stays legal); a matte not above
// 0 clears the pixel. Float 4-channel: colours unlimited, matte limited to 0..1.
// Also refused (0): alike images with pixels but a null data pointer. Runs on the calling
// thread only.
int32_t PLBlendRows(PLImage* destination, const PLImage* source, int32_t field, float t);
