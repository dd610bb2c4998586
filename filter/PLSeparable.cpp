// flowblur: separable convolution with symmetric half-weights over NuvImage views.
#include "filter/PLSeparable.h"

#include <cstring>

void ExpandKernel(ExpandedKernel* expanded, const SeparableKernel* kernel) {
  std::memset(expanded, 0, sizeof(ExpandedKernel));
  expanded->count = kernel->count;
  for (int32_t k = 0; k < kernel->count; ++k)
    for (int32_t lane = 0; lane < 4; ++lane) expanded->lanes[k * 4 + lane] = kernel->weights[k];
}
