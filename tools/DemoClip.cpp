// flowblur: the procedural demo clip: scene layout, textures, renders and true motion.
#include "tools/DemoClip.h"

#include <algorithm>
#include <cmath>

namespace flowblur {
namespace {

constexpr double kPi = 3.14159265358979323846;

// Integer hash of a lattice point: the same on every machine, unlike std:: engines' seeding.
uint32_t Hash(int32_t x, int32_t y, uint32_t seed) {
  uint32_t h = static_cast<uint32_t>(x) * 0x8DA6B343u ^ static_cast<uint32_t>(y) * 0xD8163841u ^
               seed * 0xCB1AB31Fu;
  h ^= h >> 13;
  h *= 0x5BD1E995u;
  h ^= h >> 15;
  return h;
}

double Lattice(int32_t x, int32_t y, uint32_t seed) {
  return static_cast<double>(Hash(x, y, seed) & 0xFFFFu) / 65535.0;
}

// Smooth value noise in 0..1: continuous, so sub-frame renders move smoothly.
double Noise(double u, double v, uint32_t seed) {
  double fu = std::floor(u), fv = std::floor(v);
  // Far from the origin a double still holds the lattice index exactly; the clamp keeps the cast
  // defined for absurd times.
  fu = std::clamp(fu, -1.0e9, 1.0e9);
  fv = std::clamp(fv, -1.0e9, 1.0e9);
  int32_t iu = static_cast<int32_t>(fu), iv = static_cast<int32_t>(fv);
  double a = u - fu, b = v - fv;
  a = a * a * (3.0 - 2.0 * a);
  b = b * b * (3.0 - 2.0 * b);
  double n00 = Lattice(iu, iv, seed), n10 = Lattice(iu + 1, iv, seed);
  double n01 = Lattice(iu, iv + 1, seed), n11 = Lattice(iu + 1, iv + 1, seed);
  return (n00 * (1.0 - a) + n10 * a) * (1.0 - b) + (n01 * (1.0 - a) + n11 * a) * b;
}

// A square wave with soft edges (about period/(2 pi k) wide), in -1..1.
double SoftSquare(double u, double period, double k) {
  return std::clamp(std::sin(2.0 * kPi * u / period) * k, -1.0, 1.0);
}

double Mix(double a, double b, double w) { return a + (b - a) * w; }

void Background(double u, double v, double scale, double rgb[3]) {
  u /= scale;
  v /= scale;
  double checker = 0.5 + 0.5 * SoftSquare(u, 96.0, 5.0) * SoftSquare(v, 96.0, 5.0);
  double coarse = Noise(u / 31.0, v / 31.0, 11u);
  double fine = Noise(u / 6.0, v / 6.0, 12u);
  double w = 0.55 * checker + 0.3 * coarse + 0.15 * fine;
  rgb[0] = Mix(0.08, 0.55, w);
  rgb[1] = Mix(0.22, 0.70, w);
  rgb[2] = Mix(0.30, 0.62, w * (0.8 + 0.2 * fine));
}

void DiscTexture(double lx, double ly, double scale, double rgb[3]) {
  lx /= scale;
  ly /= scale;
  // Blotches at two scales rather than a radial pattern: spokes and rings look alike along
  // their own direction, and a flow estimator cannot tell how such a disc moved.
  double large = Noise(lx / 13.0 + 40.0, ly / 13.0 + 40.0, 21u);
  double small = Noise(lx / 5.0 + 90.0, ly / 5.0 + 90.0, 22u);
  double w = std::clamp(0.65 * large + 0.35 * small, 0.0, 1.0);
  w = 0.5 + 0.5 * std::clamp((w - 0.5) * 3.0, -1.0, 1.0);  // contrast
  rgb[0] = Mix(0.45, 1.00, w);
  rgb[1] = Mix(0.06, 0.66, w * w);
  rgb[2] = Mix(0.05, 0.20, small);
}

void SquareTexture(double lx, double ly, double scale, double rgb[3]) {
  lx /= scale;
  ly /= scale;
  double checker = 0.5 + 0.5 * SoftSquare(lx + 0.5, 40.0, 4.0) * SoftSquare(ly + 0.5, 40.0, 4.0);
  double grain = Noise(lx / 5.0 + 7.0, ly / 5.0 + 7.0, 31u);
  double w = 0.8 * checker + 0.2 * grain;
  rgb[0] = Mix(0.35, 0.98, w);
  rgb[1] = Mix(0.12, 0.88, w * w);
  rgb[2] = Mix(0.55, 0.25, w);
}

uint8_t To8(float v) {
  double s = std::clamp(static_cast<double>(v), 0.0, 1.0) * 255.0 + 0.5;
  return static_cast<uint8_t>(s);
}

uint16_t To16(float v) {
  double s = std::clamp(static_cast<double>(v), 0.0, 1.0) * 65535.0 + 0.5;
  return static_cast<uint16_t>(s);
}

}  // namespace

DemoClip::DemoClip(int32_t width, int32_t height, int32_t frames)
    : width_(std::max(width, 1)), height_(std::max(height, 1)), frames_(std::max(frames, 1)) {
  double w = width_, h = height_;
  scale_ = w / 960.0;
  backU_ = -5.0 * scale_;
  backV_ = 1.25 * scale_;
  discRadius_ = 0.13 * h;
  discX0_ = 0.10 * w;
  discY0_ = 0.64 * h;
  discU_ = 24.0 * scale_;
  discV_ = -3.0 * scale_;
  squareX_ = 0.70 * w;
  squareY_ = 0.30 * h;
  squareHalf_ = 0.16 * h;
  squareAngle0_ = 0.2;
  squareOmega_ = 2.0 * kPi / 180.0;  // two degrees a frame
}

void DemoClip::DiscCentre(double t, double* cx, double* cy) const {
  *cx = discX0_ + discU_ * t;
  *cy = discY0_ + discV_ * t;
}

double DemoClip::DiscCoverage(double t, double x, double y, double* lx, double* ly) const {
  double cx, cy;
  DiscCentre(t, &cx, &cy);
  *lx = x - cx;
  *ly = y - cy;
  double distance = std::sqrt(*lx * *lx + *ly * *ly) - discRadius_;
  return std::clamp(0.5 - distance, 0.0, 1.0);
}

double DemoClip::SquareCoverage(double t, double x, double y, double* lx, double* ly) const {
  double angle = SquareAngle(t);
  double c = std::cos(angle), s = std::sin(angle);
  double dx = x - squareX_, dy = y - squareY_;
  // Into the square's own frame: rotate back by its angle.
  *lx = c * dx + s * dy;
  *ly = -s * dx + c * dy;
  double distance = std::max(std::fabs(*lx), std::fabs(*ly)) - squareHalf_;
  return std::clamp(0.5 - distance, 0.0, 1.0);
}

void DemoClip::Sample(double t, double x, double y, float rgb[3]) const {
  double colour[3], layer[3];
  Background(x - backU_ * t, y - backV_ * t, scale_, colour);
  double lx, ly;
  double cover = SquareCoverage(t, x, y, &lx, &ly);
  if (cover > 0.0) {
    SquareTexture(lx, ly, scale_, layer);
    for (int c = 0; c < 3; ++c) colour[c] = Mix(colour[c], layer[c], cover);
  }
  cover = DiscCoverage(t, x, y, &lx, &ly);
  if (cover > 0.0) {
    DiscTexture(lx, ly, scale_, layer);
    for (int c = 0; c < 3; ++c) colour[c] = Mix(colour[c], layer[c], cover);
  }
  for (int c = 0; c < 3; ++c) rgb[c] = static_cast<float>(std::clamp(colour[c], 0.0, 1.0));
}

void DemoClip::RenderFloat(double t, float* rgb) const {
  for (int32_t y = 0; y < height_; ++y)
    for (int32_t x = 0; x < width_; ++x)
      Sample(t, x, y, rgb + (static_cast<size_t>(y) * width_ + x) * 3);
}

std::vector<float> DemoClip::RenderFloat(double t) const {
  std::vector<float> rgb(static_cast<size_t>(width_) * height_ * 3);
  RenderFloat(t, rgb.data());
  return rgb;
}

void DemoClip::Render8(double t, uint8_t* rgb) const {
  float sample[3];
  for (int32_t y = 0; y < height_; ++y)
    for (int32_t x = 0; x < width_; ++x) {
      Sample(t, x, y, sample);
      uint8_t* p = rgb + (static_cast<size_t>(y) * width_ + x) * 3;
      for (int c = 0; c < 3; ++c) p[c] = To8(sample[c]);
    }
}

void DemoClip::Render16(double t, uint16_t* rgb) const {
  float sample[3];
  for (int32_t y = 0; y < height_; ++y)
    for (int32_t x = 0; x < width_; ++x) {
      Sample(t, x, y, sample);
      uint16_t* p = rgb + (static_cast<size_t>(y) * width_ + x) * 3;
      for (int c = 0; c < 3; ++c) p[c] = To16(sample[c]);
    }
}

void DemoClip::RenderShutter(double t0, double t1, int32_t samples, float* rgb) const {
  samples = std::max(samples, 1);
  size_t count = static_cast<size_t>(width_) * height_ * 3;
  std::vector<double> sum(count, 0.0);
  std::vector<float> frame(count);
  for (int32_t k = 0; k < samples; ++k) {
    double t = samples == 1 ? t0 : t0 + (t1 - t0) * k / (samples - 1);
    RenderFloat(t, frame.data());
    for (size_t i = 0; i < count; ++i) sum[i] += frame[i];
  }
  for (size_t i = 0; i < count; ++i) rgb[i] = static_cast<float>(sum[i] / samples);
}

void DemoClip::Layers(double t, uint8_t* layer) const {
  double lx, ly;
  for (int32_t y = 0; y < height_; ++y)
    for (int32_t x = 0; x < width_; ++x) {
      uint8_t seen = kBackground;
      if (DiscCoverage(t, x, y, &lx, &ly) >= 0.5)
        seen = kDisc;
      else if (SquareCoverage(t, x, y, &lx, &ly) >= 0.5)
        seen = kSquare;
      layer[static_cast<size_t>(y) * width_ + x] = seen;
    }
}

void DemoClip::Motion(double t, float* uv) const {
  std::vector<uint8_t> layer(static_cast<size_t>(width_) * height_);
  Layers(t, layer.data());
  for (int32_t y = 0; y < height_; ++y)
    for (int32_t x = 0; x < width_; ++x) {
      size_t i = static_cast<size_t>(y) * width_ + x;
      double u = backU_, v = backV_;
      if (layer[i] == kDisc) {
        u = discU_;
        v = discV_;
      } else if (layer[i] == kSquare) {
        // d/dt of the rotated offset: omega x (p - c), with y pointing down the screen.
        u = -squareOmega_ * (y - squareY_);
        v = squareOmega_ * (x - squareX_);
      }
      uv[2 * i] = static_cast<float>(u);
      uv[2 * i + 1] = static_cast<float>(v);
    }
}

}  // namespace flowblur
