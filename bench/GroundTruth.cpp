// flowblur: true shutter blur of a known scene, host frame coding, PSNR and endpoint error.
#include "bench/GroundTruth.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

namespace flowblur {
namespace {

// Runs body(firstRow, lastRow) over 0..rows-1 split into at most `threads` bands.
template <class Body>
void ForRowBands(int32_t rows, int32_t threads, Body body) {
  threads = std::max(1, std::min(threads, rows));
  if (threads == 1) {
    body(0, rows - 1);
    return;
  }
  std::vector<std::thread> pool;
  int32_t share = rows / threads;
  for (int32_t k = 0; k < threads; ++k) {
    int32_t first = k * share;
    int32_t last = k == threads - 1 ? rows - 1 : first + share - 1;
    pool.emplace_back([=] { body(first, last); });
  }
  for (std::thread& t : pool) t.join();
}

}  // namespace

DemoScene::DemoScene(int32_t width, int32_t height, double step)
    : clip_(width, height), step_(step > 0.0 ? step : 960.0 / std::max(width, 1)) {}

void DemoScene::Sample(double t, double x, double y, float rgb[3]) const {
  clip_.Sample(t * step_, x, y, rgb);
}

void DemoScene::Motion(double t, std::vector<float>* uv) const {
  uv->resize(static_cast<size_t>(clip_.Width()) * clip_.Height() * 2);
  clip_.Motion(t * step_, uv->data());
  // Pixels a generator frame, times generator frames a scene frame.
  for (float& value : *uv) value = static_cast<float>(value * step_);
}

void RenderSceneFrame(const QualityScene& scene, double t, int32_t threads, float* rgb) {
  const int32_t width = scene.Width();
  ForRowBands(scene.Height(), threads, [&](int32_t first, int32_t last) {
    for (int32_t y = first; y <= last; ++y)
      for (int32_t x = 0; x < width; ++x)
        scene.Sample(t, x, y, rgb + (static_cast<size_t>(y) * width + x) * 3);
  });
}

void RenderTrueBlur(const QualityScene& scene, double frame, double amount, int32_t subframes,
                    int32_t threads, float* rgb) {
  subframes = std::max(subframes, 1);
  amount = std::max(amount, 0.0);
  const int32_t width = scene.Width();
  const double open = frame - amount / 2.0;
  const double slice = amount / subframes;
  ForRowBands(scene.Height(), threads, [&](int32_t first, int32_t last) {
    std::vector<double> sum(static_cast<size_t>(width) * 3);
    float sample[3];
    for (int32_t y = first; y <= last; ++y) {
      std::fill(sum.begin(), sum.end(), 0.0);
      for (int32_t k = 0; k < subframes; ++k) {
        double t = open + (k + 0.5) * slice;
        for (int32_t x = 0; x < width; ++x) {
          scene.Sample(t, x, y, sample);
          for (int32_t c = 0; c < 3; ++c) sum[static_cast<size_t>(x) * 3 + c] += sample[c];
        }
      }
      float* row = rgb + static_cast<size_t>(y) * width * 3;
      for (size_t i = 0; i < sum.size(); ++i) row[i] = static_cast<float>(sum[i] / subframes);
    }
  });
}

int32_t HostBytesPerPixel(int32_t formatCode) {
  switch (formatCode) {
    case 24:
    case 25:
      return 3;
    case 48:
    case 49:
    case 64:
      return 6;
    default:
      return 0;
  }
}

uint16_t FloatToHalf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, 4);
  const uint16_t sign = static_cast<uint16_t>((bits >> 16) & 0x8000u);
  const uint32_t magnitude = bits & 0x7FFFFFFFu;
  if (magnitude >= 0x7F800000u)  // infinity, or a NaN kept quiet
    return static_cast<uint16_t>(sign | 0x7C00u | (magnitude > 0x7F800000u ? 0x200u : 0u));
  if (magnitude >= 0x477FF000u)  // 65520 and up round past the largest half
    return static_cast<uint16_t>(sign | 0x7C00u);
  if (magnitude < 0x38800000u) {
    // Below the smallest normal half: a multiple of 2^-24, rounded to even by nearbyint (the
    // scaling by a power of two is exact). 1024 is the smallest normal's pattern, so a carry
    // is right as it stands.
    float scaled = std::fabs(value) * 16777216.0f;
    return static_cast<uint16_t>(sign | static_cast<uint16_t>(std::nearbyint(scaled)));
  }
  uint32_t half = ((((magnitude >> 23) - 127u + 15u) << 10) | ((magnitude & 0x7FFFFFu) >> 13));
  uint32_t rest = magnitude & 0x1FFFu;
  if (rest > 0x1000u || (rest == 0x1000u && (half & 1u))) ++half;  // may carry into the exponent
  return static_cast<uint16_t>(sign | half);
}

float HalfToFloat(uint16_t half) {
  const uint32_t sign = static_cast<uint32_t>(half & 0x8000u) << 16;
  const uint32_t exponent = (half >> 10) & 0x1Fu;
  const uint32_t mantissa = half & 0x3FFu;
  float value;
  if (exponent == 0) {
    value = std::ldexp(static_cast<float>(mantissa), -24);
    return sign ? -value : value;
  }
  uint32_t bits = exponent == 31 ? (sign | 0x7F800000u | (mantissa << 13))
                                 : (sign | ((exponent - 15u + 127u) << 23) | (mantissa << 13));
  std::memcpy(&value, &bits, 4);
  return value;
}

bool EncodeHostFrame(const float* rgb, int64_t pixels, int32_t formatCode, void* frame) {
  const size_t samples = static_cast<size_t>(pixels) * 3;
  auto level = [](float v, double white) {
    return std::clamp(static_cast<double>(v), 0.0, 1.0) * white + 0.5;
  };
  switch (formatCode) {
    case 24:
    case 25: {
      uint8_t* out = static_cast<uint8_t*>(frame);
      for (size_t i = 0; i < samples; ++i) out[i] = static_cast<uint8_t>(level(rgb[i], 255.0));
      return true;
    }
    case 48:
    case 64: {
      uint16_t* out = static_cast<uint16_t*>(frame);
      for (size_t i = 0; i < samples; ++i)
        out[i] = static_cast<uint16_t>(level(rgb[i], 65535.0));
      return true;
    }
    case 49: {
      uint16_t* out = static_cast<uint16_t*>(frame);
      for (size_t i = 0; i < samples; ++i) out[i] = FloatToHalf(rgb[i]);
      return true;
    }
    default:
      return false;
  }
}

bool DecodeHostFrame(const void* frame, int64_t pixels, int32_t formatCode, float* rgb) {
  const size_t samples = static_cast<size_t>(pixels) * 3;
  switch (formatCode) {
    case 24:
    case 25: {
      const uint8_t* in = static_cast<const uint8_t*>(frame);
      for (size_t i = 0; i < samples; ++i) rgb[i] = static_cast<float>(in[i] / 255.0);
      return true;
    }
    case 48:
    case 64: {
      const uint16_t* in = static_cast<const uint16_t*>(frame);
      for (size_t i = 0; i < samples; ++i) rgb[i] = static_cast<float>(in[i] / 65535.0);
      return true;
    }
    case 49: {
      const uint16_t* in = static_cast<const uint16_t*>(frame);
      for (size_t i = 0; i < samples; ++i) rgb[i] = HalfToFloat(in[i]);
      return true;
    }
    default:
      return false;
  }
}

double Psnr(const float* a, const float* b, size_t count) {
  double sum = 0.0;
  for (size_t i = 0; i < count; ++i) {
    double d = static_cast<double>(a[i]) - static_cast<double>(b[i]);
    sum += d * d;
  }
  if (count == 0 || sum == 0.0) return std::numeric_limits<double>::infinity();
  return 10.0 * std::log10(static_cast<double>(count) / sum);
}

double AverageEndpointError(const float* flow, int32_t flowWidth, int32_t flowHeight,
                            const float* truthUV, int32_t width, int32_t height,
                            double truthScale, const uint8_t* layers, uint8_t layer) {
  if (flowWidth < 2 || flowHeight < 2 || width < 1 || height < 1) return 0.0;
  const double sx = static_cast<double>(width - 1) / (flowWidth - 1);
  const double sy = static_cast<double>(height - 1) / (flowHeight - 1);
  double sum = 0.0;
  int64_t counted = 0;
  for (int32_t y = 0; y < flowHeight; ++y) {
    const int32_t ty = std::min(height - 1, static_cast<int32_t>(std::lround(y * sy)));
    for (int32_t x = 0; x < flowWidth; ++x) {
      const int32_t tx = std::min(width - 1, static_cast<int32_t>(std::lround(x * sx)));
      if (layers && layers[static_cast<size_t>(ty) * width + tx] != layer) continue;
      const float* f = flow + (static_cast<size_t>(y) * flowWidth + x) * 2;
      const float* t = truthUV + (static_cast<size_t>(ty) * width + tx) * 2;
      double du = f[0] * sx - truthScale * t[0];
      double dv = f[1] * sy - truthScale * t[1];
      sum += std::sqrt(du * du + dv * dv);
      ++counted;
    }
  }
  return counted ? sum / static_cast<double>(counted) : 0.0;
}

void TrueFlowOnGrid(const float* truthUV, int32_t width, int32_t height, double truthScale,
                    int32_t flowWidth, int32_t flowHeight, float* flow) {
  if (flowWidth < 2 || flowHeight < 2 || width < 1 || height < 1) return;
  const double sx = static_cast<double>(width - 1) / (flowWidth - 1);
  const double sy = static_cast<double>(height - 1) / (flowHeight - 1);
  for (int32_t y = 0; y < flowHeight; ++y) {
    const int32_t ty = std::min(height - 1, static_cast<int32_t>(std::lround(y * sy)));
    for (int32_t x = 0; x < flowWidth; ++x) {
      const int32_t tx = std::min(width - 1, static_cast<int32_t>(std::lround(x * sx)));
      const float* t = truthUV + (static_cast<size_t>(ty) * width + tx) * 2;
      float* f = flow + (static_cast<size_t>(y) * flowWidth + x) * 2;
      f[0] = static_cast<float>(truthScale * t[0] / sx);
      f[1] = static_cast<float>(truthScale * t[1] / sy);
    }
  }
}

}  // namespace flowblur
