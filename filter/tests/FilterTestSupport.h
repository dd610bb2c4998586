// flowblur tests: the filter folder's shared kernel references and engine call.
#pragma once
#include <cmath>
#include <vector>

#include "filter/PLSeparable.h"

namespace filtertest {

// Half-weights normalised as the builders do: over the sum of the whole symmetric kernel.
inline SeparableKernel Normalised(const std::vector<float>& half) {
  SeparableKernel k;
  k.count = static_cast<int32_t>(half.size());
  float sum = 0.0f;
  for (float v : half) sum += v;
  const float norm = (sum + sum) - half[0];
  for (int32_t i = 0; i < k.count; ++i) k.weights[i] = half[i] / norm;
  return k;
}

// The Gaussian's half-weights, 2^(-i^2 / (r/3)^2) for count = trunc(r) + 1 taps.
inline SeparableKernel GaussKernel(float radius) {
  const int32_t count = static_cast<int32_t>(radius) + 1;
  const float q = radius / 3.0f, d = q * q;
  std::vector<float> w(count);
  for (int32_t i = 0; i < count; ++i)
    w[i] = static_cast<float>(
        std::pow(2.0, static_cast<double>(-static_cast<float>(i) * static_cast<float>(i) / d)));
  return Normalised(w);
}

// The separable engine on two images, on the wide loops, the plain ones, or the chosen ones.
enum class Path { kChosen, kPlain, kWide };
inline int32_t Filter(PLImage* source, PLImage* destination, const SeparableKernel& k,
                      uint32_t mode, Path path = Path::kChosen) {
  NuvImageInternal sw(source), dw(destination);
  NuvImage sv, dv;
  sv.Attach(&sw);
  dv.Attach(&dw);
  if (path == Path::kChosen) return ConvolveSeparable(&sv, &dv, &k, mode);
  return ConvolveSeparableOnPath(path == Path::kWide, &sv, &dv, &k, mode);
}

}  // namespace filtertest
