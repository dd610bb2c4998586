// flowblur: flow-based dissolve and morph umbrella.
#pragma once

// Rules for this folder:
// - Flows are 2-channel Float images in the delivered sign: first(x, y) is found at
//   second(x + u, y + v). Nothing here negates a flow; hints are given forward too.
// - The morph flow reuses the estimator's stages (flow/PLFlowStages.h) and level sizes;
//   only what differs from the estimator (its level count, the hint reduction without
//   scaling, the scatter pass) lives here.
// - Work that adds into shared pixels (the morph flow's splat) is split by destination
//   rows, each worker adding its own rows in the raster order of the source, so results
//   are the same bytes for any worker count.
// - The dissolve's blend loops run on the calling thread; warps, blurs and pyramids
//   beneath keep their own worker rules. Pyramids come from fill/PLPyramid.h, warps from
//   warp/PLWarp.h; nothing here keeps a copy of either.
// - Every check comes before work: a refusal writes nothing. Failures inside the dissolve
//   leave as PLErrOutOfMemory; the morph flow passes its PLErr on unchanged.
#include "dissolve/PLFlowArithmetic.h"
#include "dissolve/PLFlowDissolve.h"
#include "dissolve/PLMorphFlow.h"
