// flowblur frei0r tests: the test clip, a textured square moving right across a still
// textured background, as RGBA frames of frei0r's layout (R, G, B, A bytes, rows packed).
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace frei0rtest {

struct Clip {
  int32_t width = 0;
  int32_t height = 0;
  int32_t speed = 6;  // pixels a frame, to the right
  // The square: its side, its rows top..top + side - 1, its left column in frame f.
  int32_t Side() const { return height / 3 > 1 ? height / 3 : 1; }
  int32_t Top() const { return height / 3; }
  int32_t Left(int32_t frame) const { return width / 8 + speed * frame; }
  bool InSquare(int32_t x, int32_t y, int32_t frame) const {
    return y >= Top() && y < Top() + Side() && x >= Left(frame) && x < Left(frame) + Side();
  }
};

// Sample c (0 R, 1 G, 2 B, 3 A) of pixel (x, y) in frame f. The background has fine
// structure everywhere so that the flow can tell it is still; the square a coarse bright
// checker, carried along with it. Alpha is a ramp of its own, so that a test can see it is
// carried through and not blurred.
inline uint8_t Sample(const Clip& clip, int32_t x, int32_t y, int32_t c, int32_t frame) {
  if (c == 3) return static_cast<uint8_t>(128 + (x * 3 + y * 5) % 128);
  if (clip.InSquare(x, y, frame)) {
    const int32_t u = x - clip.Left(frame), v = y - clip.Top();
    const bool light = ((u / 6) + (v / 6)) % 2 == 0;
    return static_cast<uint8_t>((light ? 230 : 170) - 20 * c + (u * 7 + v * 3) % 13);
  }
  const int32_t ripple = (x * 17 + y * 29 + c * 11) % 23;
  const int32_t blocks = ((x / 5 + y / 7 + c) % 3) * 14;
  return static_cast<uint8_t>(40 + ripple + blocks);
}

inline std::vector<uint8_t> Frame(const Clip& clip, int32_t frame) {
  std::vector<uint8_t> pixels(static_cast<size_t>(clip.width) * clip.height * 4);
  size_t i = 0;
  for (int32_t y = 0; y < clip.height; ++y)
    for (int32_t x = 0; x < clip.width; ++x)
      for (int32_t c = 0; c < 4; ++c) pixels[i++] = Sample(clip, x, y, c, frame);
  return pixels;
}

// How two frames of the clip differ over rows y0..y1 and columns x0..x1 (inclusive, clipped
// to the frame) and channels 0..channels - 1: the largest difference, and the mean of a - b
// (how far the region has brightened).
struct Difference {
  int32_t largest = 0;
  double mean = 0.0;
};
inline Difference Compare(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b,
                          const Clip& clip, int32_t x0, int32_t x1, int32_t y0, int32_t y1,
                          int32_t channels = 3) {
  Difference d;
  int64_t count = 0;
  for (int32_t y = y0 < 0 ? 0 : y0; y <= y1 && y < clip.height; ++y)
    for (int32_t x = x0 < 0 ? 0 : x0; x <= x1 && x < clip.width; ++x)
      for (int32_t c = 0; c < channels; ++c, ++count) {
        const size_t i = (static_cast<size_t>(y) * clip.width + x) * 4 + c;
        const int32_t diff = int32_t{a.at(i)} - int32_t{b.at(i)};
        d.largest = std::max(d.largest, std::abs(diff));
        d.mean += diff;
      }
  d.mean = count ? d.mean / static_cast<double>(count) : 0.0;
  return d;
}

}  // namespace frei0rtest
