// flowblur: the flow inversion, a forward flow turned into a backward one by the warp's mesh.
#pragma once

#include "image/PLImage.h"
#include "runtime/NuvProgress.h"

// For each pixel of `inverse`, the vector pointing back to where its content came from.
// The forward flow's grid is a mesh: mesh point (a, b) with forward vector (u, v) lands on
// (a + u, b + v) and carries (-u, -v); the triangles of each cell, in mesh order, are
// scan-converted as the warp does (half-open rows and spans, ceil/floor span ends, the flat
// bottom on the last row, spans of 1e-8 or less skipped), interpolating the carried vector.
// Each covered pixel keeps the running mean of what landed on it, with its hit count in
// `holes`: the first hit stores the vector, hit n + 1 gives (inverse * n + value) * (1 /
// (n + 1)), and from 255 hits on the count stays and each new value weighs 1/256.
// Then `holes` is inverted (0 becomes 255, any other count 0): 255 marks a pixel no triangle
// touched, and those pixels are filled smoothly from their neighbours by
// PLSingleChannelFill, each channel alone; covered pixels keep their means bit for bit.
// Pixels of the last row and column that the half-open scan leaves out (under a fractional
// flow) are holes like any other and are filled the same way.
//
// Images: `inverse` and `flow` 2-channel Float (u then v), `holes` 1-channel UChar, all of
// one width and height, each addressed by its own row order and padding. Vectors may be
// NaN, infinite or huge: triangles they throw outside are clipped or skipped, never written
// outside an image (a NaN vector carried into a covered pixel stays NaN there).
//
// Refusals print "can't warp image, input files not of correct types and sizes\n" on the
// standard error stream and leave every image untouched: a null image or one without data,
// any type, channel or size mismatch above, a width or height above 8388608 (2^23), and
// any two of the three images sharing memory (the clearing would wipe the flow before it is
// read).
//
// Threads: the mesh walk runs on the calling thread in mesh order; the mask inversion and
// the fill are row-parallel. The result does not depend on the number of workers.
// Failures: a PLErr (1 memory, 6 interruption through `progress`, which may be null and is
// reported j / lastRow once per row of cells) is thrown after the line buffers are freed;
// a PLErr from the mask inversion is thrown again and the fill does not run.
void InvertFlow(PLImage* inverse, const PLImage* flow, PLImage* holes,
                NuvIdleAndProgressClass* progress);
