// flowblur: the quality harness's ground truth: true shutter blur of a scene known at any time,
// host frame coding, PSNR and the flow's endpoint error.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/DemoClip.h"

namespace flowblur {

// A scene whose picture and motion are known at any (fractional) time, in frames. Coordinates
// as in DemoClip: pixel (x, y) is the point (x, y), row 0 on top. Sample must be safe to call
// from several threads at once.
class QualityScene {
 public:
  virtual ~QualityScene() = default;
  virtual int32_t Width() const = 0;
  virtual int32_t Height() const = 0;
  // Colour of one point at time t, rgb in 0..1.
  virtual void Sample(double t, double x, double y, float rgb[3]) const = 0;
  // True motion at time t of the surface seen at each pixel, in pixels per frame, forward in
  // time: Width() x Height() pairs (u right, v down).
  virtual void Motion(double t, std::vector<float>* uv) const = 0;
};

// The demo clip with its clock slowed or sped: frame t of the scene is the generator's time
// t x step. The generator scales its speeds with the frame width, so the default step
// 960 / width keeps, at every size, the motion of its 960-wide clip (5 px a frame for the
// background, 24 to 30 for the disc).
class DemoScene : public QualityScene {
 public:
  // step <= 0 takes 960 / width.
  DemoScene(int32_t width, int32_t height, double step = 0.0);
  int32_t Width() const override { return clip_.Width(); }
  int32_t Height() const override { return clip_.Height(); }
  void Sample(double t, double x, double y, float rgb[3]) const override;
  void Motion(double t, std::vector<float>* uv) const override;
  // The layer (DemoClip::Layer) seen at each pixel at time t, one byte a pixel.
  void Layers(double t, uint8_t* layer) const { clip_.Layers(t * step_, layer); }
  double Step() const { return step_; }
  const DemoClip& Clip() const { return clip_; }

 private:
  DemoClip clip_;
  double step_;
};

// Sub-frames of the true blur.
constexpr int32_t kTrueBlurSubframes = 64;

// Rows are split among `threads` (at least 1) plain threads: the harness's own work, not the
// plug-in's. Output: Width() x Height() x 3 floats, rows packed.
void RenderSceneFrame(const QualityScene& scene, double t, int32_t threads, float* rgb);

// The true motion blur of frame `frame` for a blur amount (at least 0): the shutter is open for
// amount x the frame interval, centred on the frame, from frame - amount / 2 to
// frame + amount / 2. It is the mean of `subframes` renders, one at the centre of each of
// `subframes` equal slices of the open time, so each stands for an equal share of the exposure
// and the blur is exactly as long as the shutter. (A spread that put renders on both ends of
// the interval would lengthen it by one slice.) Sums in double, one rounding to float. An
// amount of 0, or any amount on a still scene, gives the frame itself.
void RenderTrueBlur(const QualityScene& scene, double frame, double amount, int32_t subframes,
                    int32_t threads, float* rgb);

// ---- Host frame coding: three samples a pixel, rows packed

// Bytes of one pixel in a host buffer of this format: 3 for 24 and 25, 6 for 48, 49 and 64,
// 0 for any other code.
int32_t HostBytesPerPixel(int32_t formatCode);
// Floats in 0..1 into a host frame: 24 and 25 store round(v x 255), 48 and 64 round(v x 65535)
// (values clamped to 0..1 first), 49 the nearest half float (ties to even). Other codes write
// nothing and return false.
bool EncodeHostFrame(const float* rgb, int64_t pixels, int32_t formatCode, void* frame);
// A host frame back to floats: v / 255, v / 65535 or the half's value.
bool DecodeHostFrame(const void* frame, int64_t pixels, int32_t formatCode, float* rgb);
uint16_t FloatToHalf(float value);
float HalfToFloat(uint16_t half);

// ---- Measures

// Peak signal-to-noise ratio in dB of two images in 0..1 (peak 1): 10 log10(1 / MSE), the mean
// taken over all `count` samples in double. +infinity for identical images.
double Psnr(const float* a, const float* b, size_t count);

// Average endpoint error, in source pixels, of a flow on a working grid against the true
// displacement. `flow` is flowWidth x flowHeight pairs in pixels of its own grid (both at least
// 2); the source grid is width x height. Each working pixel maps to the source corner-aligned
// (by the ratio of last indices, as the renderer maps flow onto the frame), its vector is scaled
// by the same ratios, and it is compared with truthScale x the truth at the nearest source
// pixel. truthScale turns motion per frame into the displacement the flow measures: the frame
// distance from the pair's first image to its second (-1 for a flow to the previous frame).
// With `layers` (one byte a source pixel, may be null) only the working pixels whose nearest
// source pixel has the value `layer` count; none counting gives 0.
double AverageEndpointError(const float* flow, int32_t flowWidth, int32_t flowHeight,
                            const float* truthUV, int32_t width, int32_t height,
                            double truthScale, const uint8_t* layers = nullptr,
                            uint8_t layer = 0);

// The true displacement as a flow on a working grid, the inverse of the mapping above:
// flowWidth x flowHeight pairs, each truthScale x the truth at the nearest source pixel, divided
// by the grid ratios: the motion of the surface each pixel shows, which is what a flow measures.
// Rendered, it is no ceiling for a gather: a moving edge smears over pixels whose own surface
// moves otherwise, which only a flow that spreads beyond the edge reproduces.
void TrueFlowOnGrid(const float* truthUV, int32_t width, int32_t height, double truthScale,
                    int32_t flowWidth, int32_t flowHeight, float* flow);

}  // namespace flowblur
