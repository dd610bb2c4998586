// flowblur: whether the filter and flow stages take their AVX2 loops (the plain loops stay).
#pragma once

// Every stage with a wide loop keeps its plain one, and both give the same bytes: the wide
// loop puts neighbouring outputs in the lanes of one AVX2 vector, each lane doing the plain
// loop's operations in its order (no fused multiply-add).
//
// True when this build carries the wide loops (FLOWBLUR_PLAIN_ONLY not defined) and the
// processor runs AVX2.
bool PLWideAvailable();
// What the stages use, decided once per process: PLWideAvailable(), unless the environment
// variable FLOWBLUR_PLAIN is set to anything but "" or "0".
bool PLWideChosen();
