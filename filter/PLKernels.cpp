// flowblur: the named blurs (Gaussian, binomial, cosine, box), filtering a PLImage in place.
#include "filter/PLKernels.h"

#include <cmath>
#include <cstring>

#include "filter/PLConvolveFull.h"
#include "filter/PLSeparable.h"
#include "runtime/NuvMem.h"

namespace {

// The sum of all 2c - 1 taps, centre once, from one float accumulator running upward.
void NormaliseHalfWeights(SeparableKernel* kernel) {
  float sum = 0.0f;
  for (int32_t i = 0; i < kernel->count; ++i) sum += kernel->weights[i];
  const float norm = (sum + sum) - kernel->weights[0];
  for (int32_t i = 0; i < kernel->count; ++i) kernel->weights[i] = kernel->weights[i] / norm;
}

// A radius whose count would not fit the kernel record (NaN included) is refused before
// any weight is written.
void CheckHalfWeightRadius(float radius) {
  if (!(radius < static_cast<float>(kSeparableKernelMax))) throw PLErrParameter;
}

// Wraps the image as a view and runs the separable engine in place.
void ConvolveInPlace(PLImage* image, const SeparableKernel* kernel, uint32_t engineMode) {
  NuvImageInternal wrapper(image);
  NuvImage view;
  int32_t status = view.Attach(&wrapper);
  if (status != 0) throw static_cast<PLErr>(status);
  status = ConvolveSeparable(&view, &view, kernel, engineMode);
  if (status != 0) throw static_cast<PLErr>(status);
}

// The box family stays in sensible sizes: 2^20 keeps every count and offset in 32 bits.
constexpr float kBoxRadiusMax = 1048576.0f;

}  // namespace

void GaussBlurView(NuvImage* view, uint32_t engineMode, float radius) {
  SeparableKernel kernel;
  if (radius < 0.001f) return;
  CheckHalfWeightRadius(radius);
  kernel.count = static_cast<int32_t>(radius) + 1;
  const float q = radius / 3.0f;
  const float d = q * q;
  for (int32_t i = 0; i < kernel.count; ++i) {
    // Base 2: the weight halves at radius / 3 and reaches 2^-9 at the radius.
    const float exponent = -static_cast<float>(i) * static_cast<float>(i) / d;
    kernel.weights[i] = static_cast<float>(std::pow(2.0, static_cast<double>(exponent)));
  }
  NormaliseHalfWeights(&kernel);
  const int32_t status = ConvolveSeparable(view, view, &kernel, engineMode);
  if (status != 0) throw static_cast<PLErr>(status);
}

void PLGaussBlur(PLImage* image, uint32_t mode, float radius) {
  // The caller's modes are not the engine's: 2 rows, 3 columns, anything else both.
  const uint32_t engineMode = mode == 2 ? kSeparableRowsOnly
                              : mode == 3 ? kSeparableColumnsOnly
                                          : kSeparableRowsAndColumns;
  NuvImageInternal wrapper(image);
  NuvImage view;
  const int32_t status = view.Attach(&wrapper);
  if (status != 0) throw static_cast<PLErr>(status);
  GaussBlurView(&view, engineMode, radius);
}

void PLBinomial5Kernel(SeparableKernel* kernel) {
  kernel->count = 3;
  kernel->weights[0] = 0.375f;
  kernel->weights[1] = 0.25f;
  kernel->weights[2] = 0.0625f;
}

void PLBinomial5Blur(PLImage* image) {
  SeparableKernel kernel;
  PLBinomial5Kernel(&kernel);
  ConvolveInPlace(image, &kernel, kSeparableRowsAndColumns);
}

void PLBinomial5BlurFrom(PLImage* destination, const PLImage* source) {
  if (destination->width != source->width || destination->height != source->height ||
      destination->dataType != source->dataType || destination->channels != source->channels)
    throw PLErrParameter;
  SeparableKernel kernel;
  PLBinomial5Kernel(&kernel);
  if (destination->rowBytes != source->rowBytes || destination->flipped != source->flipped) {
    // The engine addresses both through one row distance: copy, then filter in place.
    const size_t used = static_cast<size_t>(source->width) * source->bytesPerPixel;
    for (int32_t y = 0; y < source->height; ++y)
      std::memcpy(destination->Row(y), source->Row(y), used);
    ConvolveInPlace(destination, &kernel, kSeparableRowsAndColumns);
    return;
  }
  // The row pass reads the source and stores into the destination, which the column pass
  // then filters in place.
  NuvImageInternal sourceWrapper(source), destinationWrapper(destination);
  NuvImage sourceView, destinationView;
  int32_t status = sourceView.Attach(&sourceWrapper);
  if (status == 0) status = destinationView.Attach(&destinationWrapper);
  if (status == 0)
    status = ConvolveSeparable(&sourceView, &destinationView, &kernel, kSeparableRowsAndColumns);
  if (status != 0) throw static_cast<PLErr>(status);
}

void PLCosineBlur(PLImage* image, float radius) {
  SeparableKernel kernel;
  if (radius < 0.001f) return;
  CheckHalfWeightRadius(radius);
  kernel.count = static_cast<int32_t>(radius) + 1;
  for (int32_t i = 0; i < kernel.count; ++i) {
    // Not quite a quarter turn, and kept so: at a whole radius the last weight is a tiny
    // negative number.
    kernel.weights[i] = static_cast<float>(
        std::cos(static_cast<double>(i) * 1.570796826795 / static_cast<double>(radius)));
  }
  NormaliseHalfWeights(&kernel);
  ConvolveInPlace(image, &kernel, kSeparableRowsAndColumns);
}

void PLBoxBlur(PLImage* image, int32_t mode, float radius) {
  if (radius < 0.001f) return;
  if (!(radius < kBoxRadiusMax)) throw PLErrParameter;
  const int32_t count = static_cast<int32_t>(std::ceil(radius) * 2.0f + 1.0f);
  float* weights = static_cast<float*>(NuvMemAlloc(sizeof(float) * static_cast<uint64_t>(count)));
  float sum = 0.0f;
  for (int32_t i = 0; i < count; ++i) {
    weights[i] = 1.0f;
    sum += 1.0f;
  }
  const float f = radius - static_cast<float>(static_cast<int32_t>(radius));
  if (f > 0.0f) {
    weights[0] = f;
    weights[count - 1] = f;
  }
  // The sum is not updated for the fractional ends: a fractional box adds up to less than 1.
  for (int32_t i = 0; i < count; ++i) weights[i] = weights[i] / sum;
  int32_t error = 0;
  try {
    PLConvolveFull(image, count, weights, mode, radius);
  } catch (PLErr& e) {
    error = e;
  }
  NuvMemFree(weights);
  if (error != 0) throw static_cast<PLErr>(error);
}

void PLBinomial121Blur(PLImage* image) {
  const float weights[3] = {0.25f, 0.5f, 0.25f};
  PLConvolveFull(image, 3, weights, 0, 1.0f);
}
