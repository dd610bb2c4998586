// flowblur: Laplacian and Gaussian pyramids of one channel, and per-level soft steps.
#pragma once
#include <cstdint>

#include "image/PLImage.h"
#include "runtime/NuvMem.h"

// Levels are 1-channel Float PLImages the pyramid allocates; level 0 is the finest and
// level i + 1 is level i halved by truncating division. Level count: start at 1, halve;
// while both halves (for a step pyramid, the one length) are 10 or more, add 1 and halve
// again. So 20 x 20 has 2 levels, 19 x 1000 has 1, and every level above 0 is at least
// 10 x 10.
//
// The pyramids' own loops run on the calling thread; the blurs, the bilinear resize and
// Subtract inside Build fork over rows and give the same bytes for any worker count. A
// pyramid is not to be shared between threads while it is built or reconstructed.
// Temporaries are made with the throwing PLImage constructor: an allocation failure leaves
// as PLErrOutOfMemory, temporaries released.
//
// Mismatches (wrong size, a type other than UChar/UShort, and, ours, a null image or
// pyramid, an image without data, or a channel outside the image) print
// "can't make laplacian pyramid\n" to stderr and do nothing.

class GaussStepOneDPyramid;

class LaplacePyramid : public NuvMem {
 public:
  // Allocates the levels with the non-throwing PLImage constructor and throws a failed
  // level's errorCode as a PLErr (levels already made are released). Ours: width or
  // height below 1 throws PLErrParameter (5).
  LaplacePyramid(int32_t width, int32_t height);
  virtual ~LaplacePyramid();
  LaplacePyramid(const LaplacePyramid&) = delete;
  LaplacePyramid& operator=(const LaplacePyramid&) = delete;

  // Splits `channel` of a UChar or UShort image of the pyramid's size: level 0 gets the
  // samples as floats, unscaled (0 .. 255 or 0 .. 65535); each coarser level is the finer
  // one PLBinomial5Blur-ed and PLResizeBilinear-ed down; then every level but the last
  // has the Expand of the next subtracted, leaving band-pass levels over a low-pass top.
  void Build(const PLImage* image, int32_t channel);
  // Sums the levels back into `channel` (UChar or UShort; other types: nothing): from the
  // top, Expand each level and AddLevel it into the next finer one. This overwrites the
  // levels, so the pyramid is used up (a second call gives a different image). Level 0 is
  // then clamped in place to 0 .. 255 (UChar) or 0 .. 65535 (UShort) and each sample is
  // stored as trunc(v + 0.5).
  void Reconstruct(PLImage* image, int32_t channel);

  // The flow dissolve's names for the same things.
  int32_t numLevels() const { return levelCount; }
  static void BlendInto(float t, PLImage* dst, int32_t channel, const LaplacePyramid* a,
                        const LaplacePyramid* b, const GaussStepOneDPyramid* steps);

  PLImage** levels = nullptr;  // level 0 is the finest
  int32_t levelCount = 0;      // at least 1
  int32_t width = 0;           // of level 0
  int32_t height = 0;          // of level 0
};

class GaussPyramid : public NuvMem {
 public:
  // As LaplacePyramid's constructor.
  GaussPyramid(int32_t width, int32_t height);
  virtual ~GaussPyramid();
  GaussPyramid(const GaussPyramid&) = delete;
  GaussPyramid& operator=(const GaussPyramid&) = delete;

  // The low-pass levels only: LaplacePyramid::Build without the subtraction.
  void Build(const PLImage* image, int32_t channel);

  PLImage** levels = nullptr;
  int32_t levelCount = 0;
  int32_t width = 0;
  int32_t height = 0;
};

// For each level, a soft step from 0 to 1 across the level's width (levels are w x 1).
class GaussStepOneDPyramid : public NuvMem {
 public:
  // Levels for `length` (count by the length alone), each filled with -2.0 and then made
  // by BuildStep. Throws as LaplacePyramid's constructor (length below 1: PLErrParameter);
  // a length of 8192 or more is refused by PLGaussBlur's limits and throws PLErrParameter.
  explicit GaussStepOneDPyramid(int32_t length);
  virtual ~GaussStepOneDPyramid();
  GaussStepOneDPyramid(const GaussStepOneDPyramid&) = delete;
  GaussStepOneDPyramid& operator=(const GaussStepOneDPyramid&) = delete;

  // Per level of width w: 0.0 below trunc(w / 2), 1.0 from there on; PLBoxBlur mode 0
  // radius 5.0; PLGaussBlur mode 0 radius w * 0.5; then stretched to exactly 0 .. 1 by
  // (v - min) / (max - min). If max - min is below 0.0001 "what?\n" goes to stderr and the
  // work goes on (kept: a level of width 1 is constant and its sample becomes 0/0, NaN).
  void BuildStep();

  // The flow dissolve's name for StepValue(this, level, t).
  float Lookup(float t, int32_t level) const;
  int32_t numLevels() const { return levelCount; }

  PLImage** levels = nullptr;
  int32_t levelCount = 0;
  int32_t width = 0;  // of level 0
};

// Bilinear corner-aligned enlargement of a 1-channel Float level into dst, single
// precision: position x * (1.0f / ((dst width - 1.0f) / (src width - 1))), likewise y;
// a cell at or past the last column (row) uses column width - 2 (row height - 2) with a
// fraction of 1.0; interpolated along x, then y, as (b - a) * f + a. Ours: both images must
// be 1-channel Float of at least 2 x 2, otherwise PLErrParameter (5) with nothing written.
void Expand(PLImage* dst, const PLImage* src);
// dst += src over dst's size (1-channel Float, src at least as large).
void AddLevel(PLImage* dst, const PLImage* src);
// out = b + (a - b) * t for every sample of out's size, single precision (1-channel Float,
// a and b at least as large).
void MixLevels(PLImage* out, const PLImage* a, const PLImage* b, float t);
// The soft step of `level` at t in 0 .. 1: p = lastColumn * t, i = trunc(p); at or past
// lastColumn the sample at i, else (s[i + 1] - s[i]) * (p - i) + s[i]. Ours, outside the
// domain: p at or below -1 gives the first sample, past the end the last; a NaN t gives
// NaN; a level outside the pyramid is taken as its nearest level (0 or the last).
float StepValue(const GaussStepOneDPyramid* step, int32_t level, float t);
// Multiband blend into `channel` of a UChar or UShort image of a's size (b must be of the
// same size: ours): an accumulator pyramid r with a zeroed top; from the top level down,
// s = StepValue(step, l, t), r[l] += MixLevels(a[l], b[l], s), and for l > 0 r[l - 1] =
// Expand(r[l]). Level 0 is clamped and stored as in Reconstruct. t = 1 approaches a,
// t = 0 approaches b. a and b are not changed.
void BlendPyramids(float t, PLImage* image, int32_t channel, const LaplacePyramid* a,
                   const LaplacePyramid* b, const GaussStepOneDPyramid* step);
