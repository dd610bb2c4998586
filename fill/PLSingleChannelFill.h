// flowblur: the multiresolution pull-push fill that solves each channel of an image alone.
#pragma once
#include <cstdint>

#include "image/PLImage.h"
#include "runtime/NuvMem.h"
#include "runtime/NuvProgress.h"

// Fills the holes of `image` (mask sample non-zero, Float NaN included) smoothly from the
// known pixels (mask sample zero), channel by channel, in place. Known pixels keep their
// values exactly; a hole that no level saw ends as 0. An all-hole mask gives 0 everywhere.
// `image` is UChar, UShort or Float of any channel count; integer results are stored
// value + 0.5 truncated and clamped to the type. `mask` is UChar, UShort or Float; its first
// sample per pixel is read. Each is addressed by its own layout.
// Width or height of `image` and `mask` that differ (or a null pointer, or an empty image):
// returns quietly. Another image or mask type: PLErrParameter (5) before any pixel is
// written. Failures are thrown as PLErr (1 memory, 6 interruption through `progress`, which
// may be null); channels finished before an interruption stay written.
// Note: the class of the same name below is then named `class PLSingleChannelFill`.
void PLSingleChannelFill(PLImage* image, const PLImage* mask, NuvIdleAndProgressClass* progress);

// The fill's level stack. Level 0 has the size given; level i + 1 half of level i each way
// (truncating), never below 2. All level images are 1-channel Float. Built for one call of
// the free function: Prepare and Solve alternate once per channel.
class PLSingleChannelFill : public NuvMem {
 public:
  // Builds levels 0 .. topLevel (four images each; `scratch` has one entry more, left null).
  // topLevel counts the halvings until both sides are 2, plus 1: 2x2 and 4x4 give 2,
  // 1920x1080 gives 11. A failed level allocation throws its PLErr after releasing what was
  // built. Width or height below 1: PLErrParameter.
  PLSingleChannelFill(int32_t width, int32_t height);
  virtual ~PLSingleChannelFill();
  PLSingleChannelFill(const PLSingleChannelFill&) = delete;
  PLSingleChannelFill& operator=(const PLSingleChannelFill&) = delete;

  // Loads `channel` of `image` into values[0] and the mask into weights[0] (1.0 on known
  // pixels; 0 on holes, whose value becomes 0), then for each level i from 1 to topLevel:
  // binomial 5-tap blur of a copy of level i - 1 (in solution[i - 1], resp. scratch[i - 1])
  // resized bilinearly into level i. Image and mask must have width and height of level 0;
  // channel in range; types UChar, UShort or Float. Otherwise PLErrParameter before writing.
  // A level of width or height 1 (only level 0 can be) is read as if its one column or row
  // were doubled, so each coarser level holds exactly that column's or row's values.
  void Prepare(const PLImage* image, int32_t channel, const PLImage* mask);

  // Builds `solution` from level lastLevel down to 0 (mode 0): clears solution[lastLevel];
  // per level Combine, `smoothings` Gaussian smoothings (each a progress tick, a point of
  // interruption), then a second Combine at level 0 or an Upsample into the level below.
  // Reports done pixels / total pixels of the visited levels to a child of `progress`.
  // Modes 1 and 2 (a relaxation against level 0, and a residual form) have no caller and are
  // not built: any mode other than 0 throws PLErrParameter with nothing changed.
  void Solve(NuvIdleAndProgressClass* progress, int32_t mode);

  // Row-parallel over Float images of one size and channel count: where `weight` is not 0,
  // result = value / weight (single precision); elsewhere result keeps its value.
  // Mismatch: PLErrParameter. `result` may be `value`.
  static void Combine(PLImage* result, const PLImage* value, const PLImage* weight);

  // In place: PLGaussBlur(image, 0, 5.0) for the pair (0, 1), the only one the fill uses.
  // Other pairs selected other radii that nothing uses; they throw PLErrParameter.
  static void Smooth(PLImage* image, int32_t first, int32_t second);

  // Row-parallel bilinear enlargement of `src` into `dst`: fx = 1 / ((dst width - 1) /
  // (src width - 1)), fy likewise, in single precision; dst (x, y) reads src at (x * fx,
  // y * fy) from its four neighbours; a position at or beyond src's last column (row) uses
  // the column (row) before with a fraction of 1.0. A dst of width (height) 1 reads column
  // (row) 0. Both Float with equal channels, else PLErrParameter (5); so is a src narrower or
  // lower than 2. `dst` and `src` must be distinct images.
  static void Upsample(PLImage* dst, const PLImage* src);

  // Row-parallel: channel `srcChannel` of `src` into channel `dstChannel` of `dst`, among
  // UChar, UShort, Float. Equal types copy; to an integer type the value + 0.5 (single
  // precision from Float) truncated, below 0 giving 0, above the type's top 255 or 65535
  // (NaN gives 0); to Float the numeric value. No white-point scaling. Sizes that differ, a
  // channel out of range or another type: PLErrParameter.
  static void CopyChannel(PLImage* dst, int32_t dstChannel, const PLImage* src,
                          int32_t srcChannel);

  int32_t smoothings = 1;
  PLImage** solution = nullptr;
  PLImage** values = nullptr;
  PLImage** weights = nullptr;
  PLImage** scratch = nullptr;  // topLevel + 2 entries, the last null
  int32_t topLevel = 0;
  int32_t width = 0;
  int32_t height = 0;
  float lastX = 0.0f;
  float lastY = 0.0f;
  int32_t lastLevel = 0;
  int32_t mode = 0;

 private:
  void Release();
};
