// flowblur tests: synthetic images, flow readers and hashes for the estimator's tests.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "flow/flow.h"
#include "image/PLImage.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestTexture.h"

namespace flowtest {

using pltest::MakeTextured;
using pltest::Texture;

inline std::unique_ptr<PLImage> MakeFloat(int32_t w, int32_t h, int32_t channels,
                                          float value = 0.0f) {
  std::unique_ptr<PLImage> image(new PLImage(w, h, channels, PLFloat, 0));
  for (int32_t y = 0; y < h; ++y) {
    float* row = reinterpret_cast<float*>(image->Row(y));
    for (int32_t i = 0; i < w * channels; ++i) row[i] = value;
  }
  return image;
}

inline float& At(const PLImage* image, int32_t x, int32_t y, int32_t c = 0) {
  return reinterpret_cast<float*>(image->Row(y))[x * image->channels + c];
}

// FNV-1a over the working rectangle of a float image, row by row.
inline uint64_t Hash(const PLImage* image) {
  uint64_t h = 1469598103934665603ull;
  for (int32_t y = 0; y < image->height; ++y) {
    const unsigned char* row = image->Row(y);
    for (int32_t i = 0; i < image->width * image->bytesPerPixel; ++i) {
      h ^= row[i];
      h *= 1099511628211ull;
    }
  }
  return h;
}

}  // namespace flowtest
