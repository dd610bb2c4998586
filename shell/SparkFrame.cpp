// flowblur: the exported frame size that the fork-join workers read.
#include "shell/spark.h"

extern "C" {
int32_t Width = 0;
int32_t Height = 0;

int64_t NuvMPSparkGetNumberOfFramePixels(void) {
  // Multiplied in 32 bits before widening; the wrap of a huge frame is done in unsigned
  // arithmetic so that it is defined.
  return static_cast<int64_t>(
      static_cast<int32_t>(static_cast<uint32_t>(Width) * static_cast<uint32_t>(Height)));
}
}
