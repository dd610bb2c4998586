// flowblur: LaplacePyramid, GaussPyramid, GaussStepOneDPyramid and the level operations.
#include "fill/PLPyramid.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <type_traits>

#include "filter/PLKernels.h"
#include "filter/PLResize.h"
#include "image/PLDispatch.h"
#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"

namespace {

void Refuse() {
  PLErr err = PLErrParameter;
  throw err;
}

// Start at 1 and halve; add a level while the halves are 10 or more.
int32_t CountLevels(int32_t width, int32_t height) {
  int32_t count = 1;
  width /= 2;
  height /= 2;
  while (width > 9 && height > 9) {
    ++count;
    width /= 2;
    height /= 2;
  }
  return count;
}

void FreeLevels(PLImage** levels, int32_t count) {
  if (!levels) return;
  for (int32_t i = 0; i < count; ++i) delete levels[i];
  NuvMemFree(levels);
}

// Level i is width >> i by height >> i (or by height when halveHeight is false), 1-channel
// Float, made with the non-throwing constructor; a failed level's code is thrown, with
// everything made so far released.
PLImage** MakeLevels(int32_t count, int32_t width, int32_t height, bool halveHeight = true) {
  auto** levels = static_cast<PLImage**>(NuvMemAlloc(sizeof(PLImage*) * count));
  for (int32_t i = 0; i < count; ++i) levels[i] = nullptr;
  try {
    for (int32_t i = 0; i < count; ++i) {
      levels[i] = NUV_NEW PLImage(0, width >> i, halveHeight ? height >> i : height, 1, PLFloat, 0);
      if (levels[i]->errorCode != 0) {
        PLErr err = static_cast<PLErr>(levels[i]->errorCode);
        throw err;
      }
    }
  } catch (PLErr&) {
    FreeLevels(levels, count);
    throw;
  }
  return levels;
}

float* LevelRow(const PLImage* level, int32_t y) { return PLRowPtr<float>(level, y); }

// The common test of Build, Reconstruct and BlendPyramids: prints the message on a miss.
bool FitsPyramid(const PLImage* image, int32_t channel, int32_t width, int32_t height,
                 bool checkType) {
  const bool fits = image && image->data && image->width == width && image->height == height &&
                    channel >= 0 && channel < image->channels &&
                    (!checkType || image->dataType == PLUChar || image->dataType == PLUShort);
  if (!fits) std::fputs("can't make laplacian pyramid\n", stderr);
  return fits;
}

template <class T>
void LoadChannel(PLImage* level, const PLImage* image, int32_t channel) {
  for (int32_t y = 0; y < level->height; ++y) {
    const unsigned char* row = image->Row(y);
    float* out = LevelRow(level, y);
    for (int32_t x = 0; x < level->width; ++x)
      out[x] = static_cast<float>(
          PLLoad<T>(row + x * image->bytesPerPixel + channel * static_cast<int32_t>(sizeof(T))));
  }
}

// Level 0 from the channel (unscaled), then each level the blurred finer level resized down.
void BuildLowPass(PLImage** levels, int32_t count, const PLImage* image, int32_t channel) {
  if (image->dataType == PLUChar)
    LoadChannel<uint8_t>(levels[0], image, channel);
  else
    LoadChannel<uint16_t>(levels[0], image, channel);
  for (int32_t i = 1; i < count; ++i) {
    const PLImage* finer = levels[i - 1];
    PLImage temporary(finer->width, finer->height, 1, PLFloat, 0);
    CopyRect(&temporary, 0, 0, const_cast<PLImage*>(finer), 0, 0, finer->width, finer->height);
    PLBinomial5Blur(&temporary);
    PLResizeBilinear(levels[i], &temporary);
  }
}

// Level 0 clamped in place to 0 .. limit, each sample stored as trunc(v + 0.5).
template <class T>
void StoreChannel(PLImage* image, int32_t channel, PLImage* level, float limit) {
  for (int32_t y = 0; y < level->height; ++y) {
    unsigned char* row = image->Row(y);
    float* in = LevelRow(level, y);
    for (int32_t x = 0; x < level->width; ++x) {
      float v = in[x];
      if (v < 0.0f)
        v = 0.0f;
      else if (v > limit)
        v = limit;
      in[x] = v;
      const float rounded = v + 0.5f;
      unsigned char* p = row + x * image->bytesPerPixel + channel * static_cast<int32_t>(sizeof(T));
      if constexpr (std::is_same<T, uint8_t>::value)
        *p = PLFloatToUChar(rounded);
      else
        PLStore<uint16_t>(p, PLFloatToUShort(rounded));
    }
  }
}

void StoreLevel(PLImage* image, int32_t channel, PLImage* level) {
  if (image->dataType == PLUChar)
    StoreChannel<uint8_t>(image, channel, level, 255.0f);
  else
    StoreChannel<uint16_t>(image, channel, level, 65535.0f);
}

bool IsLevel(const PLImage* image) {
  return image && image->data && image->channels == 1 && image->dataType == PLFloat;
}

}  // namespace

// ---- LaplacePyramid --------------------------------------------------------------------------

LaplacePyramid::LaplacePyramid(int32_t width_, int32_t height_) {
  if (width_ < 1 || height_ < 1) Refuse();
  width = width_;
  height = height_;
  levelCount = CountLevels(width, height);
  levels = MakeLevels(levelCount, width, height);
}

LaplacePyramid::~LaplacePyramid() { FreeLevels(levels, levelCount); }

void LaplacePyramid::Build(const PLImage* image, int32_t channel) {
  if (!FitsPyramid(image, channel, width, height, true)) return;
  BuildLowPass(levels, levelCount, image, channel);
  // Each level but the top keeps what the next coarser level does not explain.
  for (int32_t i = 0; i + 1 < levelCount; ++i) {
    PLImage temporary(levels[i]->width, levels[i]->height, 1, PLFloat, 0);
    Expand(&temporary, levels[i + 1]);
    Subtract(levels[i], &temporary);
  }
}

void LaplacePyramid::Reconstruct(PLImage* image, int32_t channel) {
  if (!FitsPyramid(image, channel, width, height, false)) return;
  if (image->dataType != PLUChar && image->dataType != PLUShort) return;
  // Summed in place: the levels are used up.
  for (int32_t i = levelCount - 1; i >= 1; --i) {
    PLImage temporary(levels[i - 1]->width, levels[i - 1]->height, 1, PLFloat, 0);
    Expand(&temporary, levels[i]);
    AddLevel(levels[i - 1], &temporary);
  }
  StoreLevel(image, channel, levels[0]);
}

void LaplacePyramid::BlendInto(float t, PLImage* dst, int32_t channel, const LaplacePyramid* a,
                               const LaplacePyramid* b, const GaussStepOneDPyramid* steps) {
  BlendPyramids(t, dst, channel, a, b, steps);
}

// ---- GaussPyramid ----------------------------------------------------------------------------

GaussPyramid::GaussPyramid(int32_t width_, int32_t height_) {
  if (width_ < 1 || height_ < 1) Refuse();
  width = width_;
  height = height_;
  levelCount = CountLevels(width, height);
  levels = MakeLevels(levelCount, width, height);
}

GaussPyramid::~GaussPyramid() { FreeLevels(levels, levelCount); }

void GaussPyramid::Build(const PLImage* image, int32_t channel) {
  if (!FitsPyramid(image, channel, width, height, true)) return;
  BuildLowPass(levels, levelCount, image, channel);
}

// ---- GaussStepOneDPyramid --------------------------------------------------------------------

GaussStepOneDPyramid::GaussStepOneDPyramid(int32_t length) {
  if (length < 1) Refuse();
  width = length;
  levelCount = 1;
  for (int32_t l = length / 2; l > 9; l /= 2) ++levelCount;
  levels = MakeLevels(levelCount, width, 1, false);
  try {
    for (int32_t i = 0; i < levelCount; ++i) {
      float* s = LevelRow(levels[i], 0);
      for (int32_t x = 0; x < levels[i]->width; ++x) s[x] = -2.0f;
    }
    BuildStep();
  } catch (PLErr&) {
    FreeLevels(levels, levelCount);
    levels = nullptr;
    throw;
  }
}

GaussStepOneDPyramid::~GaussStepOneDPyramid() { FreeLevels(levels, levelCount); }

void GaussStepOneDPyramid::BuildStep() {
  for (int32_t i = 0; i < levelCount; ++i) {
    PLImage* level = levels[i];
    const int32_t w = level->width;
    float* s = LevelRow(level, 0);
    for (int32_t x = 0; x < w; ++x) s[x] = x >= w / 2 ? 1.0f : 0.0f;
    PLBoxBlur(level, 0, 5.0f);
    PLGaussBlur(level, 0, static_cast<float>(w) * 0.5f);
    float smallest = s[0], largest = s[0];
    for (int32_t x = 1; x < w; ++x) {
      if (s[x] < smallest) smallest = s[x];
      if (s[x] > largest) largest = s[x];
    }
    // kept: no guard on the division; a constant level (width 1) becomes 0/0.
    for (int32_t x = 0; x < w; ++x) s[x] = (s[x] - smallest) / (largest - smallest);
    if (largest - smallest < 0.0001f) std::fputs("what?\n", stderr);
  }
}

float GaussStepOneDPyramid::Lookup(float t, int32_t level) const {
  return StepValue(this, level, t);
}

// ---- Level operations ------------------------------------------------------------------------

void Expand(PLImage* dst, const PLImage* src) {
  if (!IsLevel(dst) || !IsLevel(src) || dst->width < 2 || dst->height < 2 || src->width < 2 ||
      src->height < 2)
    Refuse();
  const float sx =
      1.0f / ((static_cast<float>(dst->width) - 1.0f) / static_cast<float>(src->width - 1));
  const float sy =
      1.0f / ((static_cast<float>(dst->height) - 1.0f) / static_cast<float>(src->height - 1));
  for (int32_t y = 0; y < dst->height; ++y) {
    const float fy = static_cast<float>(y) * sy;
    int32_t iy = static_cast<int32_t>(fy);
    float ty = fy - static_cast<float>(iy);
    if (iy >= src->lastRow) {
      iy = src->height - 2;
      ty = 1.0f;
    }
    const unsigned char* upper = src->Row(iy);
    const unsigned char* lower = upper + src->rowStep;
    float* out = LevelRow(dst, y);
    for (int32_t x = 0; x < dst->width; ++x) {
      const float fx = static_cast<float>(x) * sx;
      int32_t ix = static_cast<int32_t>(fx);
      float tx = fx - static_cast<float>(ix);
      if (ix >= src->lastColumn) {
        ix = src->width - 2;
        tx = 1.0f;
      }
      const float p = PLLoad<float>(upper + ix * 4);
      const float r = PLLoad<float>(upper + ix * 4 + 4);
      const float l = PLLoad<float>(lower + ix * 4);
      const float lr = PLLoad<float>(lower + ix * 4 + 4);
      const float top = (r - p) * tx + p;
      const float bottom = (lr - l) * tx + l;
      out[x] = (bottom - top) * ty + top;
    }
  }
}

void AddLevel(PLImage* dst, const PLImage* src) {
  if (!IsLevel(dst) || !IsLevel(src) || src->width < dst->width || src->height < dst->height)
    Refuse();
  for (int32_t y = 0; y < dst->height; ++y) {
    float* d = LevelRow(dst, y);
    const unsigned char* s = src->Row(y);
    for (int32_t x = 0; x < dst->width; ++x) d[x] = d[x] + PLLoad<float>(s + x * 4);
  }
}

void MixLevels(PLImage* out, const PLImage* a, const PLImage* b, float t) {
  if (!IsLevel(out) || !IsLevel(a) || !IsLevel(b) || a->width < out->width ||
      a->height < out->height || b->width < out->width || b->height < out->height)
    Refuse();
  for (int32_t y = 0; y < out->height; ++y) {
    float* o = LevelRow(out, y);
    const unsigned char* ra = a->Row(y);
    const unsigned char* rb = b->Row(y);
    for (int32_t x = 0; x < out->width; ++x) {
      const float va = PLLoad<float>(ra + x * 4);
      const float vb = PLLoad<float>(rb + x * 4);
      o[x] = vb + (va - vb) * t;
    }
  }
}

float StepValue(const GaussStepOneDPyramid* step, int32_t level, float t) {
  if (level < 0) level = 0;
  if (level >= step->levelCount) level = step->levelCount - 1;
  const PLImage* curve = step->levels[level];
  const float* s = LevelRow(curve, 0);
  const int32_t last = curve->lastColumn;
  const float p = static_cast<float>(last) * t;
  if (std::isnan(p)) return std::numeric_limits<float>::quiet_NaN();
  // Ours: the rule would read before the curve (i below 0) or past it (i above last).
  if (p <= -1.0f) return s[0];
  if (p >= static_cast<float>(last)) return s[last];
  const int32_t i = static_cast<int32_t>(p);
  if (i >= last) return s[i];
  return (s[i + 1] - s[i]) * (p - static_cast<float>(i)) + s[i];
}

void BlendPyramids(float t, PLImage* image, int32_t channel, const LaplacePyramid* a,
                   const LaplacePyramid* b, const GaussStepOneDPyramid* step) {
  if (!a || !b || !step || b->width != a->width || b->height != a->height) {
    std::fputs("can't make laplacian pyramid\n", stderr);
    return;
  }
  if (!FitsPyramid(image, channel, a->width, a->height, true)) return;
  LaplacePyramid r(image->width, image->height);
  const int32_t top = r.levelCount - 1;
  for (int32_t y = 0; y < r.levels[top]->height; ++y) {
    float* row = LevelRow(r.levels[top], y);
    for (int32_t x = 0; x < r.levels[top]->width; ++x) row[x] = 0.0f;
  }
  for (int32_t l = top; l >= 0; --l) {
    const float s = StepValue(step, l, t);
    PLImage temporary(r.levels[l]->width, r.levels[l]->height, 1, PLFloat, 0);
    MixLevels(&temporary, a->levels[l], b->levels[l], s);
    AddLevel(r.levels[l], &temporary);
    if (l > 0) Expand(r.levels[l - 1], r.levels[l]);
  }
  StoreLevel(image, channel, r.levels[0]);
}
