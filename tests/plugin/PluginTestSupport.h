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
#include "shell/SparkPack.h"
#include "shell/shell.h"
#include "tests/support/PLTestTexture.h"

namespace plugintest {

using sparkhost::FrameLayout;

// Channel c of the project's texture, seen through a window at (x, y); channels are offset
// so that they differ.
inline double Texture(double x, double y, int32_t c) { return pltest::Texture(x + 9 * c, y - 5 * c); }

// The texture value as a stored sample of the format: bytes for 24/25, 16-bit words for
// 48/64, half bits for 49.
inline uint32_t Encode(double v, int32_t format) {
  if (format == 24 || format == 25) return static_cast<uint32_t>(std::lround(v * 255.0));
  if (format == 49) return SparkFloatToHalf(static_cast<float>(v));
  return static_cast<uint32_t>(std::lround(v * 65535.0));
}

// Fills every frame of a clip with the texture moving by (-vx, -vy) a frame.
inline void FillMovingClip(int32_t clip, double vx, double vy) {
  FrameLayout layout = sparkhost::ClipLayout(clip);
  for (int32_t t = 0; t < sparkhost::ClipFrames(clip); ++t)
    for (int32_t y = 0; y < layout.height; ++y)
      for (int32_t x = 0; x < layout.width; ++x)
        for (int32_t c = 0; c < 3; ++c)
          sparkhost::SetSample(sparkhost::ClipFrame(clip, t), layout, x, y, c,
                               Encode(Texture(x + vx * t, y + vy * t, c), layout.formatCode));
}

inline FrameLayout Layout(int32_t width, int32_t height, int32_t format, int32_t pad = 0) {
  return FrameLayout{width, height, format,
                     pad ? width * sparkhost::BytesPerPixel(format) + pad : 0};
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

inline std::vector<uint8_t> ClipFramePixels(int32_t clip, int32_t frame) {
  return Packed(sparkhost::ClipFrame(clip, frame), sparkhost::ClipLayout(clip));
}

// The texts of the host's notes, in order.
inline std::vector<std::string> Messages() {
  std::vector<std::string> out;
  for (const sparkhost::Note& n : sparkhost::Notes()) out.push_back(n.text);
  return out;
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
  void SetUp() override { Fresh(); }
  void TearDown() override {
    SparkSetPause(nullptr);
    SparkSetPlaneAllocator(nullptr);
    NuvMemSetHooks(nullptr, nullptr, nullptr);
    sparkhost::Reset();
    NuvMPSetThreadCount(1);
  }
  // Also between the cases of one test.
  void Fresh() {
    sparkhost::Reset();
    SparkFloat0.value = 0.5f;
    SparkPup1.value = 0;
    SparkBoolean2.value = 0;
    SparkMemoryTempBuffers();
    Pauses().clear();
    SparkSetPause(RecordPause);
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
};

// What the driver computes for one frame, by hand: flow between `first` and `second` of the
// motion clip, then the front frame rendered along it. Frames are packed host frames of
// `layout` (format 49 converted to float planes here). Returns the packed result frame.
inline std::vector<uint8_t> ReferenceFrame(const FrameLayout& layout, std::vector<uint8_t> first,
                                           std::vector<uint8_t> second, std::vector<uint8_t> front,
                                           int32_t mode, float amount) {
  // The library's workers divide the frame by the result size, as after SparkProcess.
  Width = layout.width;
  Height = layout.height;
  const int32_t format = layout.formatCode;
  const bool half = format == 49;
  const int32_t rowBytes = layout.width * (half ? 12 : sparkhost::BytesPerPixel(format));
  const int32_t type = half ? 2 : (format == 48 || format == 64) ? 1 : 0;
  // Half samples widened to float planes, and narrowed back.
  auto toFloats = [half](std::vector<uint8_t>& v) {
    if (!half) return;
    std::vector<uint8_t> f(v.size() * 2);
    for (size_t i = 0; i < v.size() / 2; ++i) {
      const float s = SparkHalfToFloat(static_cast<uint16_t>(v[2 * i] | v[2 * i + 1] << 8));
      std::memcpy(&f[4 * i], &s, 4);
    }
    v = f;
  };
  for (std::vector<uint8_t>* v : {&first, &second, &front}) toFloats(*v);
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
  if (half) {
    std::vector<uint8_t> packed(out.size() / 2);
    SparkFloatsToHalves(packed.data(), out.data(), packed.size() / 2);
    out = packed;
  }
  return out;
}

}  // namespace plugintest
