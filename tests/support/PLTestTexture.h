// flowblur test support: the one smooth test texture, and images of it moved by a vector.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

#include "image/PLImage.h"

namespace pltest {

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

// An image whose pixel (x, y) holds Texture(x - dx, y - dy) in `channels` equal samples (1 to
// 4) of `dataType`, scaled to its white point (UChar and UShort rounded): the content of the
// unmoved image at (x, y) is found here at (x + dx, y + dy), so the forward flow is (dx, dy).
inline std::unique_ptr<PLImage> MakeTextured(int32_t w, int32_t h, int32_t channels,
                                             int32_t dataType, double dx, double dy) {
  std::unique_ptr<PLImage> image(new PLImage(w, h, channels, dataType, 0));
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const double t = Texture(x - dx, y - dy);
      for (int32_t c = 0; c < channels; ++c) {
        unsigned char* p = image->PixelAddress(x, y) + c * image->bytesPerSample;
        if (dataType == PLUChar) {
          *p = static_cast<uint8_t>(t * 255.0 + 0.5);
        } else if (dataType == PLUShort) {
          const uint16_t s = static_cast<uint16_t>(t * 65535.0 + 0.5);
          std::memcpy(p, &s, 2);
        } else {
          const float f = static_cast<float>(t);
          std::memcpy(p, &f, 4);
        }
      }
    }
  return image;
}

}  // namespace pltest
