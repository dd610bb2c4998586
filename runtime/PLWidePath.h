// flowblur: whether the stages with AVX2 loops take them (every stage keeps its plain loop).
#pragma once

// One choice for the whole library, so that FLOWBLUR_PLAIN=1 sends the renderer, the filters
// and the estimator down their plain loops together. Every wide loop gives the same bytes as
// its plain loop: it puts neighbouring outputs in the lanes of one AVX2 vector, each lane
// doing the plain loop's operations in its order (no fused multiply-add).
//
// True when this build carries the wide loops (FLOWBLUR_PLAIN_ONLY not defined) and the
// processor runs AVX2.
bool PLWideAvailable();
// What the stages use, decided once per process: PLWideAvailable(), unless the environment
// variable FLOWBLUR_PLAIN is set to anything but "" or "0".
bool PLWideChosen();
