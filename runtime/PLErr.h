// flowblur: the library's one exception type.
#pragma once
#include <cstdint>

// Thrown by value, caught by reference. 0 means no failure: a handler that receives it
// treats the operation as done. Values 3 and 4 are not used.
enum PLErr : int32_t {
  PLErrNone = 0,
  PLErrOutOfMemory = 1,  // memory or a mutex could not be got
  PLErrFile = 2,         // a data file could not be opened
  PLErrParameter = 5,    // sizes, channel counts, pixel types or null images that do not fit
  PLErrInterrupted = 6,  // the user interrupted the operation
  PLErrStep = 7,         // a retiming step failed with any value but 6
};
