// flowblur: a Spark host simulator, for tests and the batch host.
#pragma once
#include <cstdint>

#include "shell/spark.h"

namespace sparkhost {
// Host processors for sparkMpFork (1 included). Frame pixels divide among them.
void SetProcessors(int32_t processors);
int32_t Processors();
// The frame pixel count that sparkMpInfo divides among the processors.
void SetFramePixels(int64_t pixels);
}  // namespace sparkhost
