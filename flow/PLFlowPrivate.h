// flowblur: helpers shared by the flow folder's sources (not part of the public interface).
#pragma once
#include <cstdint>

#include "image/PLImage.h"

namespace plflow {

// Row y of a Float image as floats.
inline float* FRow(const PLImage* image, int32_t y) {
  return reinterpret_cast<float*>(image->Row(y));
}

// A float image's addressing in plain words: row y is base + y * step (in floats), which
// holds for either row order.
struct FView {
  float* base;
  intptr_t step;
  int32_t channels;
  int32_t width;
  int32_t height;
  explicit FView(const PLImage* image)
      : base(image->height > 0 ? FRow(image, 0) : nullptr),
        step(image->flipped ? -static_cast<intptr_t>(image->rowBytes / 4)
                            : static_cast<intptr_t>(image->rowBytes / 4)),
        channels(image->channels),
        width(image->width),
        height(image->height) {}
  float* Row(int32_t y) const { return base + y * step; }
};

// The bilinear cell of a point known to lie in the frame (0 <= s <= last): i = trunc(s),
// t = s - i; at or beyond the last index the cell slides back by one with t = 1.0, so the
// four taps stay inside. Along an axis of length 1 (last == 0) there is no second tap;
// both taps are then the one sample (i0 == i1 == 0), which gives that sample exactly.
struct Cell {
  int32_t i0;
  int32_t i1;
  float t;
};
inline Cell BilinearCell(float s, int32_t last) {
  Cell c;
  int32_t i = static_cast<int32_t>(s);
  float t = s - static_cast<float>(i);
  if (i >= last) {
    i = last - 1;
    t = 1.0f;
  }
  c.i0 = i < 0 ? 0 : i;
  c.i1 = i + 1;
  c.t = t;
  return c;
}

// top = S00 + tx (S10 - S00); bottom = S01 + tx (S11 - S01); top + ty (bottom - top).
inline float Bilinear(float s00, float s10, float s01, float s11, float tx, float ty) {
  float top = s00 + tx * (s10 - s00);
  float bottom = s01 + tx * (s11 - s01);
  return top + ty * (bottom - top);
}

// True when (sx, sy) lies in [0, w-1] x [0, h-1]; a NaN coordinate is outside.
inline bool InFrame(float sx, float sy, float maxX, float maxY) {
  return sx >= 0.0f && sx <= maxX && sy >= 0.0f && sy <= maxY;
}

// A temporary 1-channel Float image; throws its allocation status as PLErr.
PLImage* NewLuma(int32_t width, int32_t height);

// Corner-aligned reduction of a 1-channel Float image into another: PLResizeBilinear, or,
// where an axis has length 1 (which the resize refuses), the same rule with that axis
// mapped to its first sample.
void Reduce(PLImage* dst, const PLImage* src);

// The luma of `source` (1, 3 or 4 channels, as ConvertToLuma makes it), blurred by
// PLBinomial5Blur and reduced into the 1-channel Float `dest` by Reduce, to the same bytes
// as those three stages, but a band of rows at a time without an input-sized temporary.
// Returns false, with nothing done, where the stages would refuse, print or take another
// rule (null data, a Float source whose white point is not 1.0, 2 channels or an unknown
// type, an axis below 2, lines longer than the separable filter takes): the caller runs
// the stages then. `wide` as PLWideChosen() for the estimator; tests compare both loops.
bool LumaBlurReduce(PLImage* dest, const PLImage* source, uint8_t isYUV, bool wide);

// The luma of an 8-bit RGB row (not YUV) from x = 0 while four pixels remain, the same bytes
// as the plain loop; returns the first pixel left to it. AVX2: called only where
// PLWideChosen(); a build with FLOWBLUR_PLAIN_ONLY defined has none.
int32_t LumaRowRGB8Wide(float* d, const unsigned char* s, int32_t w);
// The same for 16-bit and Float RGB rows (the double cells of the luma table).
int32_t LumaRowRGB16Wide(float* d, const unsigned char* s, int32_t w);
int32_t LumaRowRGBFloatWide(float* d, const unsigned char* s, int32_t w);

}  // namespace plflow
