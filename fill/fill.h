// flowblur: image fills and transforms umbrella.
#pragma once

// Rules for this folder:
// - Image operations are free functions, destination first; classes only where state
//   lives (the fill's level stack, the pyramids, the zoom's working storage, lookup
//   tables). Every check and refusal comes before any pixel is written; one dispatch per
//   call picks the template instance, never inside a pixel loop.
// - Every image is addressed by its own row order and padding; rows may sit at any
//   address (unaligned loads and stores).
// - Single precision in the written order where the rules say float, double only where
//   they say double (we build with -ffp-contract=off); vector loops do per lane what the
//   scalar rule does, so both give the same bits.
// - Forked stages (row bands, or column bands for field interpolation) write only their
//   own band and read only what no worker writes, so they give the same bytes for any
//   worker count; serial passes run on the caller after the join.
// - Where a rule would read outside an image or an array, the read is clamped or skipped,
//   and the header says which value stands instead.
// - Tables are built once and are read-only afterwards.
#include "fill/InterpolateField.h"
#include "fill/LirpedTable.h"
#include "fill/PLHoleFill.h"
#include "fill/PLPyramid.h"
#include "fill/PLSingleChannelFill.h"
#include "fill/PLZoom.h"
