// flowblur: mesh warping umbrella.
#pragma once
#include "warp/PLInvertFlow.h"
#include "warp/PLWarp.h"

// Rules for this folder:
// - One scan converter (ScanTriangle in PLMeshScan.h) serves the warp and the inversion; it
//   interpolates two values per vertex (a source position, or a backward vector) and calls
//   a plot functor per pixel. Its rules (half-open rows, ceil/floor spans, 1e-8 and 1e-5
//   narrowest spans, the flat bottom on the last row) live there only.
// - Every pixel receives its writes in mesh order (cells row by row, two triangles each):
//   the over rule and the running means depend on it. Warp keeps it while forking by
//   binning: each worker owns a band of target rows, walks the whole mesh in order (passing
//   over mesh rows that cannot reach its band) and draws only its rows. InvertFlow walks on
//   the calling thread; its mask inversion and fill are row-parallel.
// - Geometry is single precision with float constants, no operation reordered or fused.
// - Nothing converts a float coordinate to an integer before it is known to lie inside the
//   image: rows and spans are clipped in float, texture cells are guarded (ScanCell,
//   ScanNearest). NaN, infinite and huge vectors clip or draw nothing.
// - Every check comes before the dispatch; refusals print the one message and write
//   nothing. Walkers are templates over <source type, target type, channels, lookup, rule>,
//   chosen once per call by PLDispatch.
// - Samples are read and written with PLLoad/PLStore: destinations may be wrapped host rows.
