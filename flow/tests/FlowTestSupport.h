// flowblur tests: synthetic images, flow readers and hashes for the estimator's tests.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "flow/flow.h"
#include "image/PLImage.h"

namespace flowtest {

// A smooth texture with detail at several scales (wavelengths from about 60 down to 7
// pixels, in several directions), in 0..1, defined everywhere so that a shifted copy can be
// sampled exactly.
inline double Texture(double x, double y) {
  double v = 0.5;
  v += 0.12 * std::sin(0.105 * x + 0.031 * y + 0.3);
  v += 0.10 * std::sin(0.047 * x - 0.173 * y + 1.1);
  v += 0.08 * std::sin(0.271 * x + 0.207 * y + 2.0);
  v += 0.07 * std::cos(0.333 * x - 0.401 * y + 0.7);
  v += 0.06 * std::sin(0.613 * x + 0.118 * y + 1.9);
  v += 0.05 * std::cos(0.097 * x + 0.709 * y + 0.2);
  return v;
}

// first(x, y) = Texture(x, y); second(x, y) = Texture(x - dx, y - dy), so the content of
// first(x, y) is found at second(x + dx, y + dy): the delivered flow is (dx, dy).
// Returns an image of `channels` equal samples (1 to 4) of `dataType`, scaled to its white
// point (UChar and UShort rounded).
inline std::unique_ptr<PLImage> MakeTextured(int32_t w, int32_t h, int32_t channels,
                                             int32_t dataType, double dx, double dy) {
  std::unique_ptr<PLImage> image(new PLImage(w, h, channels, dataType, 0));
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      const double t = Texture(x - dx, y - dy);
      for (int32_t c = 0; c < channels; ++c) {
        unsigned char* p = image->PixelAddress(x, y) + c * image->bytesPerSample;
        if (dataType == PLUChar) {
          *p = static_cast<uint8_t>(t * 255.0 + 0.5);
        } else if (dataType == PLUShort) {
          uint16_t s = static_cast<uint16_t>(t * 65535.0 + 0.5);
          std::memcpy(p, &s, 2);
        } else {
          float f = static_cast<float>(t);
          std::memcpy(p, &f, 4);
        }
      }
    }
  }
  return image;
}

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

inline bool SameBytes(const PLImage* a, const PLImage* b) {
  if (a->width != b->width || a->height != b->height || a->bytesPerPixel != b->bytesPerPixel)
    return false;
  for (int32_t y = 0; y < a->height; ++y)
    if (std::memcmp(a->Row(y), b->Row(y), static_cast<size_t>(a->width) * a->bytesPerPixel))
      return false;
  return true;
}

// Copy of a float image's pixels into a fresh unflipped image.
inline std::unique_ptr<PLImage> Snapshot(const PLImage* image) {
  std::unique_ptr<PLImage> copy(
      new PLImage(image->width, image->height, image->channels, image->dataType, 0));
  for (int32_t y = 0; y < image->height; ++y)
    std::memcpy(copy->Row(y), image->Row(y),
                static_cast<size_t>(image->width) * image->bytesPerPixel);
  return copy;
}

}  // namespace flowtest
