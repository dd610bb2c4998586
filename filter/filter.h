// flowblur: filtering and resampling umbrella.
#pragma once

// Rules for this folder:
// - Filters invent no samples at a border: taps outside drop out and the rest are
//   renormalised, each engine by its own test (index, marker lanes, existing taps).
// - Keep the written order of operations in float (we build with -ffp-contract=off); the
//   vector loops do per lane exactly what the scalar rule does, so both give the same bits.
// - Validate and refuse before any pixel is written, dispatch once per call, fork over row
//   (or column) bands; no stage depends on the worker count.
// - No heap in the separable engine (stack records and line buffers); a line of n samples
//   with count c needs n + 2c <= 16,384, and longer ones are refused.
#include "filter/PLBlend.h"
#include "filter/PLConvolveFull.h"
#include "filter/PLKernels.h"
#include "filter/PLResize.h"
#include "filter/PLSeparable.h"
