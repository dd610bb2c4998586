// flowblur: a procedural test clip with known motion: a panning background, a fast disc and a
// slowly rotating square, renderable at any fractional time.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace flowblur {

// The scene, back to front:
// - a textured background panning at a constant velocity;
// - a textured square, its centre fixed, rotating slowly about it (texture turns with it);
// - a textured disc moving fast and in a straight line across the frame (texture moves with it).
// Positions and speeds are fractions of the frame size, so every size shows the same scene; at the
// default 960x540 the disc moves about 24 px a frame, the background 5 px, the square's corners up
// to about 4 px.
//
// Coordinates: pixel (x, y) is sampled at its centre, the point (x, y) of the image plane; row 0 is
// the top row. Time t is in frames and may be fractional, so a true motion blur is the mean of many
// renders between two times (RenderShutter). Colours are floats in 0..1; the integer renders store
// round(v x 255) or round(v x 65535). Rendering is deterministic and depends on nothing but the
// arguments; all members are const and safe to call from several threads at once.
class DemoClip {
 public:
  // Layers as reported by Layers(): what is seen at a pixel (coverage of at least one half).
  enum Layer : uint8_t { kBackground = 0, kSquare = 1, kDisc = 2 };

  // width and height at least 1; frames at least 1 (the length the demo writes; times outside
  // 0..frames-1 render too, the scene simply goes on).
  explicit DemoClip(int32_t width = 960, int32_t height = 540, int32_t frames = 24);

  int32_t Width() const { return width_; }
  int32_t Height() const { return height_; }
  int32_t Frames() const { return frames_; }

  // One point of the image plane at time t: rgb[0..2] in 0..1. Edges of the disc and square are
  // antialiased over one pixel.
  void Sample(double t, double x, double y, float rgb[3]) const;

  // A whole frame, 3 interleaved samples a pixel, rows packed (width x 3 values a row).
  void RenderFloat(double t, float* rgb) const;
  void Render8(double t, uint8_t* rgb) const;
  void Render16(double t, uint16_t* rgb) const;
  std::vector<float> RenderFloat(double t) const;

  // True motion blur: the mean of `samples` renders at evenly spaced times from t0 to t1
  // (both included; samples at least 1, one sample renders at t0).
  void RenderShutter(double t0, double t1, int32_t samples, float* rgb) const;

  // True motion at time t of the surface seen at each pixel, in pixels per frame, forward in
  // time: 2 interleaved values a pixel (u to the right, v downward). For the rotating square it is
  // the instantaneous velocity of the rotation at that point.
  void Motion(double t, float* uv) const;
  // The layer seen at each pixel at time t (one byte a pixel, a Layer value).
  void Layers(double t, uint8_t* layer) const;

  // Scene geometry at time t, for tests and harnesses.
  void DiscCentre(double t, double* cx, double* cy) const;
  double DiscRadius() const { return discRadius_; }
  void DiscVelocity(double* u, double* v) const { *u = discU_; *v = discV_; }
  void BackgroundVelocity(double* u, double* v) const { *u = backU_; *v = backV_; }
  void SquareCentre(double* cx, double* cy) const { *cx = squareX_; *cy = squareY_; }
  double SquareHalfSide() const { return squareHalf_; }
  double SquareAngle(double t) const { return squareAngle0_ + squareOmega_ * t; }
  double SquareOmega() const { return squareOmega_; }  // radians a frame, positive clockwise on screen

 private:
  // Coverage (0..1) of the disc and the square at a point, and their local texture coordinates.
  double DiscCoverage(double t, double x, double y, double* lx, double* ly) const;
  double SquareCoverage(double t, double x, double y, double* lx, double* ly) const;

  int32_t width_, height_, frames_;
  double scale_;  // frame width / 960: speeds and texture sizes follow the frame size
  double backU_, backV_;
  double discX0_, discY0_, discU_, discV_, discRadius_;
  double squareX_, squareY_, squareHalf_, squareAngle0_, squareOmega_;
};

}  // namespace flowblur
