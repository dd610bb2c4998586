// flowblur: the flow dissolve: seven styles from a cut to a multiband blend of two warped
// pictures, and the agreement map of a pair of flows.
#include "dissolve/PLFlowDissolve.h"

#include <cmath>
#include <cstdio>
#include <memory>

#include "fill/PLPyramid.h"
#include "filter/PLKernels.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "warp/PLWarp.h"

namespace {

inline float* FRow(const PLImage* image, int32_t y) {
  return reinterpret_cast<float*>(image->Row(y));
}

// A temporary; a failed allocation is thrown as its status (the entry turns every PLErr of
// a style into PLErrOutOfMemory).
std::unique_ptr<PLImage> NewImage(int32_t width, int32_t height, int32_t channels,
                                  int32_t dataType) {
  std::unique_ptr<PLImage> image(NUV_NEW PLImage(0, width, height, channels, dataType, 0));
  if (image->errorCode != 0) throw static_cast<PLErr>(image->errorCode);
  return image;
}

bool IsFlow(const PLImage* flow) {
  return flow && flow->data && flow->dataType == PLFloat && flow->channels == 2 &&
         flow->width >= 2 && flow->height >= 2;
}

bool IsUCharImage(const PLImage* image) {
  return image && image->data && image->dataType == PLUChar;
}

// dst, imageA and imageB alike: UChar with data, one size, one channel count within the
// style's range.
bool ImagesFit(const PLImage* dst, const PLImage* a, const PLImage* b, int32_t style) {
  if (!IsUCharImage(dst) || !IsUCharImage(a) || !IsUCharImage(b)) return false;
  if (a->width != dst->width || b->width != dst->width || a->height != dst->height ||
      b->height != dst->height)
    return false;
  if (a->channels != dst->channels || b->channels != dst->channels) return false;
  const bool warps = style == PLDissolveWarpNearer || style == PLDissolveWarpBoth ||
                     style == PLDissolveAgreement || style == PLDissolveWarpPyramid;
  if (warps && (dst->width < 2 || dst->height < 2)) return false;
  if (style >= PLDissolveWarpNearer && style <= PLDissolveWarpPyramid)
    return dst->channels == 4;
  return dst->channels >= 1 && dst->channels <= 4;
}

// The forward warp of a picture (bilinear lookup, the over rule, no background, no
// oversampling); false when the warp refused.
bool WarpPicture(PLImage* dst, const PLImage* src, const PLImage* flow, float amount) {
  return Warp(dst, src, flow, 1, 0, 0, nullptr, 1, 0, 0.0f, amount) == 1;
}

// One 8-bit sample of the dissolve of p and q by f: q - p as an integer, the rest in single
// precision, + 0.5 and truncated (a result outside 0 .. 255, from a t outside 0 .. 1, keeps
// its low bits).
inline uint8_t DissolveSample(uint8_t p, uint8_t q, float f) {
  const int32_t diff = static_cast<int32_t>(q) - static_cast<int32_t>(p);
  return PLFloatToUChar(static_cast<float>(p) + static_cast<float>(diff) * f + 0.5f);
}

// dst = dissolve of a and b by f, 4 channels, on the calling thread.
void DissolveImages(PLImage* dst, const PLImage* a, const PLImage* b, float f) {
  const int32_t samples = dst->width * 4;
  for (int32_t y = 0; y < dst->height; ++y) {
    const uint8_t* pa = a->Row(y);
    const uint8_t* pb = b->Row(y);
    uint8_t* pd = dst->Row(y);
    for (int32_t i = 0; i < samples; ++i) pd[i] = DissolveSample(pa[i], pb[i], f);
  }
}

// The bilinear cell of a coordinate s >= 0 on an axis with last index `last` (>= 1):
// i = trunc(s), f = s - i; at or beyond the last index the cell slides back with f = 1.0.
inline void Cell(float s, int32_t last, int32_t* i, float* f) {
  *i = static_cast<int32_t>(s);
  *f = s - static_cast<float>(*i);
  if (*i >= last) {
    *i = last - 1;
    *f = 1.0f;
  }
}

inline float Mix(float s00, float s10, float s01, float s11, float tx, float ty) {
  const float top = s00 + tx * (s10 - s00);
  const float bottom = s01 + tx * (s11 - s01);
  return top + ty * (bottom - top);
}

// Style 4 after the agreement map: cw is the blurred, warped map of the flows' size.
void DissolveByAgreement(PLImage* dst, const PLImage* wa, const PLImage* wb, const PLImage* cw,
                         const PLImage* flowA, float t) {
  // kept: integer division, so that a flow smaller than the images reads the map's corner
  // at every pixel; a float ratio would change every such result.
  const float sx = static_cast<float>(flowA->lastColumn / wa->lastColumn);
  const float sy = static_cast<float>(flowA->lastRow / wa->lastRow);
  for (int32_t y = 0; y < dst->height; ++y) {
    int32_t iy;
    float ty;
    Cell(static_cast<float>(y) * sy, cw->lastRow, &iy, &ty);
    const float* r0 = FRow(cw, iy);
    const float* r1 = FRow(cw, iy + 1);
    const uint8_t* pa = wa->Row(y);
    const uint8_t* pb = wb->Row(y);
    uint8_t* pd = dst->Row(y);
    for (int32_t x = 0; x < dst->width; ++x) {
      int32_t ix;
      float tx;
      Cell(static_cast<float>(x) * sx, cw->lastColumn, &ix, &tx);
      // kept: a cell holding the infinity of the warp's average rule reads as NaN, and the
      // NaN share below stores 0; guarding it would change every agreeing pixel.
      const float s = Mix(r0[ix], r0[ix + 1], r1[ix], r1[ix + 1], tx, ty);
      // Where the flows agree the crossing spans all of t; the worse they agree, the
      // narrower it gets around 0.5, down to a cut.
      float lo, hi;
      if (s >= 1.0f) {
        lo = 0.0f;
        hi = 1.0f;
      } else if (s <= 0.0f) {
        lo = 0.5f;
        hi = 0.5f;
      } else {
        lo = (1.0f - s) / 2.0f;
        hi = 1.0f - (1.0f - s) / 2.0f;
      }
      float f;
      if (t <= lo)
        f = 1.0f;
      else if (t >= hi)
        f = 0.0f;
      else
        f = 1.0f - (t - lo) / (hi - lo);
      for (int32_t c = 0; c < 4; ++c)
        pd[4 * x + c] = DissolveSample(pa[4 * x + c], pb[4 * x + c], f);
    }
  }
}

// Styles 5 and 6: every channel of the two pictures through Laplacian pyramids.
void BlendThroughPyramids(float t, PLImage* dst, const PLImage* a, const PLImage* b,
                          int32_t channels, int32_t stepLength) {
  LaplacePyramid pa(a->width, a->height);
  LaplacePyramid pb(b->width, b->height);
  GaussStepOneDPyramid steps(stepLength);
  for (int32_t channel = 0; channel < channels; ++channel) {
    pa.Build(a, channel);
    pb.Build(b, channel);
    LaplacePyramid::BlendInto(t, dst, channel, &pa, &pb, &steps);
  }
}

void RunStyle(float t, PLImage* dst, const PLImage* imageA, PLImage* flowA,
              const PLImage* imageB, PLImage* flowB, int32_t style) {
  const int32_t w = dst->width;
  const int32_t h = dst->height;
  switch (style) {
    case PLDissolveCut: {
      // Same type on both sides: CopyRect copies from src to dst and only reads src.
      PLImage* src = const_cast<PLImage*>(t >= 0.5f ? imageA : imageB);
      CopyRect(dst, 0, 0, src, 0, 0, w, h);
      return;
    }
    case PLDissolveWarpNearer: {
      const PLImage* image = imageA;
      const PLImage* flow = flowA;
      if (t < 0.5f) {
        t = 1.0f - t;
        image = imageB;
        flow = flowB;
      }
      if (!flow) return;
      WarpPicture(dst, image, flow, 1.0f - t);
      return;
    }
    case PLDissolvePlain:
      DissolveImages(dst, imageA, imageB, 1.0f - t);
      return;
    default:
      break;
  }
  if (style == PLDissolvePyramid) {
    const int32_t side = imageA->width < imageA->height ? imageA->width : imageA->height;
    // Build only reads its image, so the images serve as their own copies.
    BlendThroughPyramids(t, dst, imageA, imageB, dst->channels, side);
    return;
  }
  // Styles 3, 4 and 5 start from both pictures pushed along their flows. The temporaries
  // are cleared first so that any pixel no triangle reaches is the same on every run.
  std::unique_ptr<PLImage> wa = NewImage(w, h, 4, PLUChar);
  std::unique_ptr<PLImage> wb = NewImage(w, h, 4, PLUChar);
  Clear(wa.get());
  Clear(wb.get());
  if (!WarpPicture(wa.get(), imageA, flowA, 1.0f - t)) return;
  if (!WarpPicture(wb.get(), imageB, flowB, t)) return;
  if (style == PLDissolveWarpBoth) {
    DissolveImages(dst, wa.get(), wb.get(), 1.0f - t);
    return;
  }
  if (style == PLDissolveAgreement) {
    std::unique_ptr<PLImage> c = NewImage(flowA->width, flowA->height, 1, PLFloat);
    std::unique_ptr<PLImage> cw = NewImage(flowA->width, flowA->height, 1, PLFloat);
    Clear(c.get());
    Clear(cw.get());
    PLFlowAgreement(c.get(), flowA, flowB);
    // The map moves with the picture of imageA.
    if (Warp(cw.get(), c.get(), flowA, 1, 0, 1, nullptr, 1, 0, 0.0f, 1.0f - t) != 1) return;
    PLGaussBlur(cw.get(), 0, 4.0f);
    DissolveByAgreement(dst, wa.get(), wb.get(), cw.get(), flowA, t);
    return;
  }
  const int32_t side = imageA->width < imageA->height ? imageA->width : imageA->height;
  BlendThroughPyramids(t, dst, wa.get(), wb.get(), 4, side);
}

}  // namespace

void ZeroFlowBorder(PLImage* flow) {
  if (!flow || !flow->data || flow->dataType != PLFloat || flow->channels != 2) return;
  if (flow->width < 1 || flow->height < 1) return;
  const int32_t last = flow->width - 1;
  for (int32_t y = 0; y < flow->height; ++y) {
    float* row = FRow(flow, y);
    if (y == 0 || y == flow->height - 1) {
      for (int32_t i = 0; i < 2 * flow->width; ++i) row[i] = 0.0f;
    } else {
      row[0] = 0.0f;
      row[1] = 0.0f;
      row[2 * last] = 0.0f;
      row[2 * last + 1] = 0.0f;
    }
  }
}

void PLFlowAgreement(PLImage* c, const PLImage* flowA, const PLImage* flowB) {
  if (!c || !flowA || !flowB) return;
  const int32_t width = flowA->width;
  const float lo = static_cast<float>(width) / 320.0f;
  // kept: integer division before the conversion (1000 gives 37, not 37.5).
  const float hi = static_cast<float>((width * 12) / 320);
  const float lo2 = lo * lo;
  const float hi2 = hi * hi;
  const int32_t lastColumn = flowA->lastColumn;
  const int32_t lastRow = flowA->lastRow;
  const float maxX = static_cast<float>(lastColumn);
  const float maxY = static_cast<float>(lastRow);
  for (int32_t y = 0; y < flowA->height; ++y) {
    const float* fa = FRow(flowA, y);
    float* out = FRow(c, y);
    for (int32_t x = 0; x < width; ++x) {
      float value = 0.0f;
      if (x < lastColumn && y < lastRow) {
        const float px = static_cast<float>(x) + fa[2 * x];
        const float py = static_cast<float>(y) + fa[2 * x + 1];
        // Written so that a NaN position counts as outside.
        if (px >= 0.0f && px < maxX && py >= 0.0f && py < maxY) {
          int32_t ix, iy;
          float tx, ty;
          Cell(px, flowB->lastColumn, &ix, &tx);
          Cell(py, flowB->lastRow, &iy, &ty);
          const float* r0 = FRow(flowB, iy);
          const float* r1 = FRow(flowB, iy + 1);
          const int32_t a = 2 * ix;
          const int32_t b = 2 * ix + 2;
          const float uB = Mix(r0[a], r0[b], r1[a], r1[b], tx, ty);
          const float vB = Mix(r0[a + 1], r0[b + 1], r1[a + 1], r1[b + 1], tx, ty);
          // A perfect pair of flows returns to the start.
          const float dx = static_cast<float>(x) - (px + uB);
          const float dy = static_cast<float>(y) - (py + vB);
          const float e2 = dx * dx + dy * dy;
          if (e2 < lo2) {
            value = 1.0f;
          } else if (e2 > hi2) {
            value = 0.0f;
          } else {
            value = 1.0f - (std::sqrt(e2) - lo) / (hi - lo);
            if (value < 0.0f) value = 0.0f;
            if (value > 1.0f) value = 1.0f;
          }
        }
      }
      out[x] = value;
    }
  }
}

void PLFlowDissolve(float t, PLImage* dst, const PLImage* imageA, PLImage* flowA,
                    const PLImage* imageB, PLImage* flowB, int32_t style) {
  if (!imageA || imageA->dataType != PLUChar) {
    std::fputs("PLFlowDissolve only supports unsigned char\n", stderr);
    return;
  }
  if (!flowA && !flowB && style != PLDissolveCut) {
    std::fputs("PLFlowDissolve what?\n", stderr);
    return;
  }
  // Intended: the caller's flows change, so that no warp pulls from beyond the frame.
  ZeroFlowBorder(flowA);
  ZeroFlowBorder(flowB);
  if (style < PLDissolveCut || style > PLDissolvePyramid) return;

  if (!ImagesFit(dst, imageA, imageB, style)) {
    std::fputs("PLFlowDissolve: images do not match\n", stderr);
    return;
  }
  const bool bothFlows =
      style == PLDissolveWarpBoth || style == PLDissolveAgreement || style == PLDissolveWarpPyramid;
  if (bothFlows && (!IsFlow(flowA) || !IsFlow(flowB) ||
                    (style == PLDissolveAgreement && (flowA->width != flowB->width ||
                                                      flowA->height != flowB->height)))) {
    std::fputs("PLFlowDissolve what?\n", stderr);
    return;
  }
  try {
    RunStyle(t, dst, imageA, flowA, imageB, flowB, style);
  } catch (PLErr&) {
    // Temporaries are released by unwinding; callers see one failure, whatever happened.
    throw PLErrOutOfMemory;
  }
}
