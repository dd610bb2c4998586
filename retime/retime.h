// flowblur: retiming engines umbrella: the layered motion blur, the retimer, and the matte
// and layer operations they share.
#pragma once
#include "retime/NuvChronar4.h"
#include "retime/NuvMotionBlur.h"
#include "retime/PLLayerOps.h"

// Rules for this folder:
// - Engines keep what survives between renders (flows, solvers, the keys that decide whether
//   a flow still serves) in an owned internal object; a null internal object makes every
//   operation answer 1. Everything a render fetches or makes is given back or released
//   before it returns, also on failure.
// - Inputs arrive as NuvImage views; work happens on their wrappers (PLImage). Views from a
//   subclass are checked (present, not empty, of the output's size and type) before use.
// - Bad inputs return PLErrParameter (5) before anything is written; a PLErr raised by any
//   stage is caught and returned, never thrown out of an engine.
// - A render runs on its caller's thread, and the subclass's operations are called there
//   only; the stages it calls fork and join inside it, row-parallel, so results do not
//   depend on the number of workers.
// - Operations of other folders (estimator, morph solver, mesh warp, fills, blends) are
//   called, never copied; the pixel steps of the retimer's own (gather warp, mixes) live in
//   NuvChronar4Mix.cpp as one template over <T, Channels> behind one PLDispatch.
