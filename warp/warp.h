// flowblur: mesh warping umbrella.
#pragma once
#include "warp/PLInvertFlow.h"
#include "warp/PLWarp.h"

// Rules for this folder:
// - One scan converter (ScanTriangle in PLMeshScan.h) serves the warp and the inversion; it
//   interpolates two values per vertex (a source position, or a backward vector) and calls
//   a plot functor per pixel. Its rules (half-open rows, ceil/floor spans, 1e-8 and 1e-5
//   narrowest spans, the flat bottom on the last row) live there only.
// - The mesh is walked on one thread in mesh order: cells row by row, two triangles each.
//   The over rule and the running means depend on that order, so the walk is never forked;
//   only the library stages beneath (copies, the mask inversion, the fill) are, and they
//   write disjoint rows.
// - Geometry is single precision with float constants, no operation reordered or fused.
// - Nothing converts a float coordinate to an integer before it is known to lie inside the
//   image: rows and spans are clipped in float, texture cells are guarded (ScanCell,
//   ScanNearest). NaN, infinite and huge vectors clip or draw nothing.
// - Every check comes before the dispatch; refusals print the one message and write
//   nothing. Walkers are templates over <source type, target type, channels, lookup, rule>,
//   chosen once per call by PLDispatch.
// - Samples are read and written with PLLoad/PLStore: destinations may be wrapped host rows.
