// flowblur test support: synthetic clips in the host simulator, plug-in state between tests,
// and a reference that runs the frame driver's library calls by hand.
#pragma once
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "host/SparkHost.h"
#include "runtime/NuvMP.h"
#include "runtime/NuvMem.h"
#include "shell/shell.h"

namespace plugintest {

using sparkhost::FrameLayout;

// A smooth texture with structure in every direction, about 0.05 to 0.95, seen through a
// window that moves by (vx, vy) pixels a frame: frame t shows the texture at (x + vx t,
// y + vy t), so content moves by (-vx, -vy) from frame to frame.
inline double Texture(double x, double y, int32_t c) {
  const double k = 6.283185307179586;
  double phase = 0.7 * c;
  return 0.5 + 0.22 * std::sin(k * x / 23.0 + 1.3 * std::sin(k * y / 31.0) + phase) +
         0.18 * std::cos(k * (x + 0.6 * y) / 17.0 - phase) +
         0.05 * std::sin(k * (0.8 * x - y) / 11.0);
}

// The texture value as a stored sample of the format: bytes for 24/25, 16-bit words for
// 48/64, half bits for 49.
inline uint32_t Encode(double v, int32_t format) {
  if (format == 24 || format == 25) return static_cast<uint32_t>(std::lround(v * 255.0));
  if (format == 49) return SparkFloatToHalf(static_cast<float>(v));
  return static_cast<uint32_t>(std::lround(v * 65535.0));
}

// Fills every frame of a clip with the moving texture.
inline void FillMovingClip(int32_t clip, double vx, double vy) {
  FrameLayout layout = sparkhost::ClipLayout(clip);
  for (int32_t t = 0; t < sparkhost::ClipFrames(clip); ++t) {
    uint8_t* frame = sparkhost::ClipFrame(clip, t);
    for (int32_t y = 0; y < layout.height; ++y)
      for (int32_t x = 0; x < layout.width; ++x)
        for (int32_t c = 0; c < 3; ++c)
          sparkhost::SetSample(frame, layout, x, y, c,
                               Encode(Texture(x + vx * t, y + vy * t, c), layout.formatCode));
  }
}

inline FrameLayout Layout(int32_t width, int32_t height, int32_t format, int32_t pad = 0) {
  FrameLayout layout;
  layout.width = width;
  layout.height = height;
  layout.formatCode = format;
  layout.stride = pad ? width * sparkhost::BytesPerPixel(format) + pad : 0;
  return layout;
}

// The used bytes of a frame, row padding left out.
inline std::vector<uint8_t> Packed(const uint8_t* block, const FrameLayout& layout) {
  size_t used = static_cast<size_t>(layout.width) * sparkhost::BytesPerPixel(layout.formatCode);
  std::vector<uint8_t> out;
  for (int32_t y = 0; y < layout.height; ++y) {
    const uint8_t* row = block + y * sparkhost::RowBytes(layout);
    out.insert(out.end(), row, row + used);
  }
  return out;
}

inline std::vector<uint8_t> ResultPixels() {
  return Packed(sparkhost::BufferPixels(sparkhost::kResultBuffer),
                sparkhost::BufferLayout(sparkhost::kResultBuffer));
}

// Largest difference between two packed frames, sample by sample, in the format's units.
inline int64_t MaxSampleDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b,
                                   int32_t format) {
  if (a.size() != b.size()) return -1;
  int64_t worst = 0;
  bool bytes = format == 24 || format == 25;
  size_t step = bytes ? 1 : 2;
  for (size_t i = 0; i + step <= a.size(); i += step) {
    int64_t va, vb;
    if (bytes) {
      va = a[i];
      vb = b[i];
    } else {
      uint16_t wa, wb;
      std::memcpy(&wa, &a[i], 2);
      std::memcpy(&wb, &b[i], 2);
      va = wa;
      vb = wb;
      if (format == 49) {
        double fa = SparkHalfToFloat(wa), fb = SparkHalfToFloat(wb);
        va = std::llround(fa * 65535.0);
        vb = std::llround(fb * 65535.0);
      }
    }
    worst = std::max<int64_t>(worst, std::llabs(va - vb));
  }
  return worst;
}

// Pauses asked for by the driver, instead of sleeping.
inline std::vector<uint32_t>& Pauses() {
  static std::vector<uint32_t> pauses;
  return pauses;
}
inline void RecordPause(uint32_t seconds) { Pauses().push_back(seconds); }

// A fresh host and plug-in: default controls, the temporary buffer registered, pauses
// recorded instead of slept.
class PluginTest : public testing::Test {
 protected:
  void SetUp() override {
    sparkhost::Reset();
    SparkFloat0.value = 0.5f;
    SparkPup1.value = 0;
    SparkBoolean2.value = 0;
    SparkMemoryTempBuffers();
    Pauses().clear();
    previousPause = SparkSetPause(RecordPause);
  }
  void TearDown() override {
    SparkSetPause(previousPause);
    SparkSetPlaneAllocator(nullptr);
    NuvMemSetHooks(nullptr, nullptr, nullptr);
    sparkhost::Reset();
    NuvMPSetThreadCount(1);
  }

  // Both clips `frames` frames of `layout`, the front moving by (vx, vy) a frame and the back
  // by (bx, by).
  void MakeClips(const FrameLayout& layout, int32_t frames, double vx, double vy, double bx = 0.0,
                 double by = 0.0) {
    sparkhost::SetClip(0, layout, frames);
    sparkhost::SetClip(1, layout, frames);
    FillMovingClip(0, vx, vy);
    FillMovingClip(1, bx, by);
  }

  SparkPauseFunction previousPause = nullptr;
};

// What the driver computes for one frame, by hand: flow between `first` and `second` of the
// motion clip, then the front frame rendered along it. Frames are packed host frames of
// `layout` (24, 25, 48, 64 with their own row bytes, or 49 converted to float planes here).
// Returns the packed result frame.
inline std::vector<uint8_t> ReferenceFrame(const FrameLayout& layout, std::vector<uint8_t> first,
                                           std::vector<uint8_t> second, std::vector<uint8_t> front,
                                           int32_t mode, float amount) {
  // The library's workers divide the frame by the result size, as after SparkProcess.
  Width = layout.width;
  Height = layout.height;
  int32_t format = layout.formatCode;
  int32_t bpp = sparkhost::BytesPerPixel(format);
  int32_t rowBytes = layout.width * bpp;
  int32_t type = format == 49 ? 2 : (format == 48 || format == 64) ? 1 : 0;
  auto toFloats = [](const std::vector<uint8_t>& halves) {
    std::vector<uint8_t> floats(halves.size() * 2);
    for (size_t i = 0; i + 2 <= halves.size(); i += 2) {
      uint16_t h;
      std::memcpy(&h, &halves[i], 2);
      float f = SparkHalfToFloat(h);
      std::memcpy(&floats[i * 2], &f, 4);
    }
    return floats;
  };
  if (format == 49) {
    first = toFloats(first);
    second = toFloats(second);
    front = toFloats(front);
    rowBytes = layout.width * 12;
  }
  std::vector<uint8_t> out(front.size());
  PLOpticalFlowUChar* estimator = CreateFlowEstimator(layout.width, layout.height, mode);
  EXPECT_NE(estimator, nullptr);
  EXPECT_EQ(CalculateFlow(estimator, first.data(), layout.width, layout.height, rowBytes, 1,
                          second.data(), layout.width, layout.height, rowBytes, 1, type, false,
                          kSparkLevelFactor, kSparkWhitePoint),
            0);
  EXPECT_EQ(
      RenderBlur(estimator, out.data(), layout.width, layout.height, rowBytes, 1, front.data(),
                 layout.width, layout.height, rowBytes, 1, type, amount, kSparkWhitePoint),
      0);
  DestroyFlowEstimator(estimator);
  if (format != 49) return out;
  std::vector<uint8_t> halves(out.size() / 2);
  for (size_t i = 0; i + 2 <= halves.size(); i += 2) {
    float f;
    std::memcpy(&f, &out[i * 2], 4);
    uint16_t h = SparkFloatToHalf(f);
    std::memcpy(&halves[i], &h, 2);
  }
  return halves;
}

inline std::vector<uint8_t> ClipFramePixels(int32_t clip, int32_t frame) {
  return Packed(sparkhost::ClipFrame(clip, frame), sparkhost::ClipLayout(clip));
}

}  // namespace plugintest
