// flowblur: the retimer's pixel operations: gather warp, masked and motion-weighted mixes,
// flow agreement, vector pictures, comparison views, and the warp-and-mix step.
#include <cmath>
#include <cstdio>
#include <cstddef>
#include <cstring>
#include <limits>
#include <vector>

#include "dissolve/PLFlowDissolve.h"
#include "fill/PLSingleChannelFill.h"
#include "filter/PLKernels.h"
#include "image/PLDispatch.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "retime/NuvChronar4Private.h"
#include "retime/PLLayerOps.h"
#include "runtime/PLWidePath.h"
#include "warp/PLWarp.h"

namespace {

template <class T>
constexpr float White() {
  return std::is_same<T, float>::value ? 1.0f : static_cast<float>(std::numeric_limits<T>::max());
}

// Store of a computed sample: integer types add 0.5, truncate and are limited to the type's
// range (NaN gives 0); Float keeps the value.
template <class T>
inline void StoreSample(unsigned char* p, float v) {
  if constexpr (std::is_same<T, float>::value) {
    PLStore<float>(p, v);
  } else {
    float r = v + 0.5f;
    T s = !(r > 0.0f) ? T(0) : r >= White<T>() ? static_cast<T>(White<T>()) : static_cast<T>(r);
    PLStore<T>(p, s);
  }
}

template <class T>
inline float LoadSample(const unsigned char* p) {
  return static_cast<float>(PLLoad<T>(p));
}

// Corner-aligned bilinear read of a Float image of `channels` samples at (fx, fy), the cell
// slid back at the last row and column (positions are clamped into the image first).
struct FloatGrid {
  const PLImage* image;
  float lastX, lastY;
  explicit FloatGrid(const PLImage* im)
      : image(im),
        lastX(static_cast<float>(im->lastColumn)),
        lastY(static_cast<float>(im->lastRow)) {}
  void Read(float fx, float fy, float* out, int32_t channels) const {
    fx = !(fx > 0.0f) ? 0.0f : fx > lastX ? lastX : fx;
    fy = !(fy > 0.0f) ? 0.0f : fy > lastY ? lastY : fy;
    int32_t ix = static_cast<int32_t>(fx), iy = static_cast<int32_t>(fy);
    float tx = fx - static_cast<float>(ix), ty = fy - static_cast<float>(iy);
    if (ix >= image->lastColumn) {
      ix = image->lastColumn - 1;
      tx = 1.0f;
    }
    if (iy >= image->lastRow) {
      iy = image->lastRow - 1;
      ty = 1.0f;
    }
    const unsigned char* r0 = image->PixelAddress(ix, iy);
    const unsigned char* r1 = image->PixelAddress(ix, iy + 1);
    const int32_t bpp = image->bytesPerPixel;
    for (int32_t c = 0; c < channels; ++c) {
      float s00 = PLLoad<float>(r0 + 4 * c), s10 = PLLoad<float>(r0 + bpp + 4 * c);
      float s01 = PLLoad<float>(r1 + 4 * c), s11 = PLLoad<float>(r1 + bpp + 4 * c);
      float top = s00 + (s10 - s00) * tx;
      float bottom = s01 + (s11 - s01) * tx;
      out[c] = top + (bottom - top) * ty;
    }
  }
};

// Grid ratio by last indices; 0 for a one-pixel axis.
float Ratio(int32_t toLast, int32_t fromLast) {
  return fromLast > 0 ? static_cast<float>(toLast) / static_cast<float>(fromLast) : 0.0f;
}

// ---- Gather warp --------------------------------------------------------------------------

// The flow's corner-aligned bilinear read of FloatGrid::Read, split into what depends on the
// column (worked out once per worker) and on the row: the same operations in the same order,
// so the same bits.
struct FlowCell {
  int32_t offset;  // bytes from the row start to the cell's left pixel
  float t;         // fraction towards the right (or lower) pixel
};

inline FlowCell CellAt(float f, float last, int32_t lastIndex, int32_t bytesPerStep) {
  f = !(f > 0.0f) ? 0.0f : f > last ? last : f;
  int32_t i = static_cast<int32_t>(f);
  float t = f - static_cast<float>(i);
  if (i >= lastIndex) {
    i = lastIndex - 1;
    t = 1.0f;
  }
  return FlowCell{i * bytesPerStep, t};
}

// Whether the wide loop takes the rows (8-bit samples, bilinear read, every source offset in
// 32 bits, the processor has AVX2), and the source's addressing for it.
template <class T>
bool WideGather(bool chosen, const PLImage* src, int32_t bilinear, chronar::GatherWideRow* wide) {
  if (!std::is_same<T, uint8_t>::value || !bilinear || !chosen || !PLWideAvailable()) return false;
  const unsigned char* first = src->Row(0);
  const unsigned char* last = src->Row(src->lastRow);
  const unsigned char* lowest = first < last ? first : last;
  const ptrdiff_t end = (first < last ? last : first) - lowest +
                        static_cast<ptrdiff_t>(src->width) * src->bytesPerPixel;
  if (end > std::numeric_limits<int32_t>::max()) return false;
  wide->srcBase = lowest;
  wide->srcRow0 = static_cast<int32_t>(first - lowest);
  wide->srcStep = static_cast<int32_t>(src->Row(1) - first);
  wide->srcLastWord = static_cast<int32_t>(end - 4);
  wide->srcBpp = src->bytesPerPixel;
  wide->srcLastColumn = src->lastColumn;
  wide->srcLastRow = src->lastRow;
  return true;
}

template <class T, int32_t C>
void GatherRows(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* dst = args->Next<PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  const PLImage* flow = args->Next<const PLImage*>();
  const int32_t bilinear = args->Next<int32_t>();
  PLImage* mask = args->Next<PLImage*>();
  const int32_t clampOutside = args->Next<int32_t>();
  const float share = *args->Next<const float*>();
  const bool chosen = args->Next<int32_t>() != 0;
  const float toFlowX = Ratio(flow->lastColumn, dst->lastColumn);
  const float toFlowY = Ratio(flow->lastRow, dst->lastRow);
  const float toDstX = Ratio(dst->lastColumn, flow->lastColumn);
  const float toDstY = Ratio(dst->lastRow, flow->lastRow);
  const float lastX = static_cast<float>(src->lastColumn);
  const float lastY = static_cast<float>(src->lastRow);
  const int32_t bpp = src->bytesPerPixel, bps = src->bytesPerSample;
  const int32_t flowBpp = flow->bytesPerPixel;
  const float flowLastX = static_cast<float>(flow->lastColumn);
  const float flowLastY = static_cast<float>(flow->lastRow);
  // Each column's flow cell, offsets and fractions apart for the wide loop's whole loads.
  std::vector<int32_t> columnOffset(static_cast<size_t>(dst->width));
  std::vector<float> columnT(static_cast<size_t>(dst->width));
  for (int32_t x = 0; x < dst->width; ++x) {
    const FlowCell cell =
        CellAt(static_cast<float>(x) * toFlowX, flowLastX, flow->lastColumn, flowBpp);
    columnOffset[x] = cell.offset;
    columnT[x] = cell.t;
  }
  chronar::GatherWideRow wide{};
  const bool useWide = WideGather<T>(chosen, src, bilinear, &wide);
  (void)useWide;  // read only where the build carries the wide loop
  wide.flowBpp = flowBpp;
  wide.columnOffset = columnOffset.data();
  wide.columnT = columnT.data();
  wide.toDstX = toDstX;
  wide.toDstY = toDstY;
  wide.share = share;
  wide.lastX = lastX;
  wide.lastY = lastY;
  wide.clampOutside = clampOutside;
  wide.width = dst->width;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* out = dst->Row(y);
    unsigned char* maskRow = mask ? mask->Row(y) : nullptr;
    const FlowCell row = CellAt(static_cast<float>(y) * toFlowY, flowLastY, flow->lastRow, 1);
    const unsigned char* flow0 = flow->Row(row.offset);
    const unsigned char* flow1 = flow->Row(row.offset + 1);
    const float ty0 = row.t;
    int32_t x = 0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
    if (useWide) {
      wide.flow0 = flow0;
      wide.flow1 = flow1;
      wide.flowT = ty0;
      wide.y = y;
      wide.out = out;
      wide.mask = maskRow;
      x = chronar::GatherRowWide<C>(wide);
      out += x * dst->bytesPerPixel;
    }
#endif
    for (; x < dst->width; ++x, out += dst->bytesPerPixel) {
      const FlowCell cell{columnOffset[x], columnT[x]};
      const unsigned char* f0 = flow0 + cell.offset;
      const unsigned char* f1 = flow1 + cell.offset;
      float uv[2];
      for (int32_t c = 0; c < 2; ++c) {
        float s00 = PLLoad<float>(f0 + 4 * c), s10 = PLLoad<float>(f0 + flowBpp + 4 * c);
        float s01 = PLLoad<float>(f1 + 4 * c), s11 = PLLoad<float>(f1 + flowBpp + 4 * c);
        float top = s00 + (s10 - s00) * cell.t;
        float bottom = s01 + (s11 - s01) * cell.t;
        uv[c] = top + (bottom - top) * ty0;
      }
      float px = static_cast<float>(x) + share * (uv[0] * toDstX);
      float py = static_cast<float>(y) + share * (uv[1] * toDstY);
      bool inside = px >= 0.0f && px <= lastX && py >= 0.0f && py <= lastY;
      if (maskRow) maskRow[x] = inside ? 255 : 0;
      if (!inside) {
        if (!clampOutside) continue;
        px = !(px > 0.0f) ? 0.0f : px > lastX ? lastX : px;
        py = !(py > 0.0f) ? 0.0f : py > lastY ? lastY : py;
      }
      if (!bilinear) {
        int32_t ix = static_cast<int32_t>(px + 0.5f), iy = static_cast<int32_t>(py + 0.5f);
        if (ix > src->lastColumn) ix = src->lastColumn;
        if (iy > src->lastRow) iy = src->lastRow;
        std::memcpy(out, src->PixelAddress(ix, iy), bpp);
        continue;
      }
      int32_t ix = static_cast<int32_t>(px), iy = static_cast<int32_t>(py);
      float tx = px - static_cast<float>(ix), ty = py - static_cast<float>(iy);
      if (ix >= src->lastColumn) {
        ix = src->lastColumn - 1;
        tx = 1.0f;
      }
      if (iy >= src->lastRow) {
        iy = src->lastRow - 1;
        ty = 1.0f;
      }
      const unsigned char* r0 = src->PixelAddress(ix, iy);
      const unsigned char* r1 = src->PixelAddress(ix, iy + 1);
      for (int32_t c = 0; c < C; ++c) {
        float s00 = LoadSample<T>(r0 + c * bps), s10 = LoadSample<T>(r0 + bpp + c * bps);
        float s01 = LoadSample<T>(r1 + c * bps), s11 = LoadSample<T>(r1 + bpp + c * bps);
        float top = s00 + (s10 - s00) * tx;
        float bottom = s01 + (s11 - s01) * tx;
        StoreSample<T>(out + c * bps, top + (bottom - top) * ty);
      }
    }
  }
}

bool Alike(const PLImage* a, const PLImage* b) {
  return a && b && a->data && b->data && a->width == b->width && a->height == b->height &&
         a->channels == b->channels && a->dataType == b->dataType;
}

bool WorkingImage(const PLImage* a) {
  return a && a->data && a->width > 0 && a->height > 0 && a->channels >= 1 && a->channels <= 4 &&
         a->dataType >= PLUChar && a->dataType <= PLFloat;
}

bool FlowImage(const PLImage* f) {
  return f && f->data && f->channels == 2 && f->dataType == PLFloat && f->width >= 2 &&
         f->height >= 2;
}

bool MaskFor(const PLImage* mask, const PLImage* like) {
  return !mask || (mask->data && mask->channels == 1 && mask->dataType == PLUChar &&
                   mask->width == like->width && mask->height == like->height);
}

// ---- Mixes --------------------------------------------------------------------------------

// The plain cross-fade (no masks, no agreement) over rows of packed pixels: one share for
// every sample, so a row is one run of samples. For integer samples a share of exactly 0 or 1
// gives a's or b's sample back (a + (b - a) * 0 = a, and a + (b - a) = b, exactly, for whole
// numbers below 2^24), so those rows are copied.
template <class T, int32_t C>
void PlainMixRows(PLImage* dst, const PLImage* a, const PLImage* b, float f, int32_t firstRow,
                  int32_t lastRow) {
  const size_t samples = static_cast<size_t>(dst->width) * C;
  const bool integer = !std::is_same<T, float>::value;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* out = dst->Row(y);
    const unsigned char* pa = a->Row(y);
    const unsigned char* pb = b->Row(y);
    if (integer && (f == 0.0f || f == 1.0f)) {
      std::memmove(out, f == 0.0f ? pa : pb, samples * sizeof(T));
      continue;
    }
    for (size_t k = 0; k < samples; ++k) {
      float va = LoadSample<T>(pa + k * sizeof(T)), vb = LoadSample<T>(pb + k * sizeof(T));
      StoreSample<T>(out + k * sizeof(T), va + (vb - va) * f);
    }
  }
}

template <class T, int32_t C>
void MixRows(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* dst = args->Next<PLImage*>();
  const PLImage* a = args->Next<const PLImage*>();
  const PLImage* b = args->Next<const PLImage*>();
  const float f = *args->Next<const float*>();
  const PLImage* maskA = args->Next<const PLImage*>();
  const PLImage* maskB = args->Next<const PLImage*>();
  const PLImage* agreement = args->Next<const PLImage*>();
  PLImage* holes = args->Next<PLImage*>();
  const int32_t bps = dst->bytesPerSample;
  const int32_t packed = C * static_cast<int32_t>(sizeof(T));
  if (!maskA && !maskB && !agreement && !holes && dst->bytesPerPixel == packed &&
      a->bytesPerPixel == packed && b->bytesPerPixel == packed) {
    PlainMixRows<T, C>(dst, a, b, f, firstRow, lastRow);
    return;
  }
  const float toMapX = agreement ? Ratio(agreement->lastColumn, dst->lastColumn) : 0.0f;
  const float toMapY = agreement ? Ratio(agreement->lastRow, dst->lastRow) : 0.0f;
  const FloatGrid map(agreement ? agreement : dst);
  const float t = 1.0f - f;  // share of a
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* out = dst->Row(y);
    const unsigned char* pa = a->Row(y);
    const unsigned char* pb = b->Row(y);
    const unsigned char* rowA = maskA ? maskA->Row(y) : nullptr;
    const unsigned char* rowB = maskB ? maskB->Row(y) : nullptr;
    unsigned char* rowHoles = holes ? holes->Row(y) : nullptr;
    for (int32_t x = 0; x < dst->width; ++x) {
      float share = f;
      if (agreement) {
        // The crossing narrows where the flows disagree, down to a cut at the midpoint.
        float s;
        map.Read(static_cast<float>(x) * toMapX, static_cast<float>(y) * toMapY, &s, 1);
        float lo, hi;
        if (s >= 1.0f) {
          lo = 0.0f;
          hi = 1.0f;
        } else if (!(s > 0.0f)) {
          lo = 0.5f;
          hi = 0.5f;
        } else {
          lo = (1.0f - s) / 2.0f;
          hi = 1.0f - (1.0f - s) / 2.0f;
        }
        share = t <= lo ? 1.0f : t >= hi ? 0.0f : 1.0f - (t - lo) / (hi - lo);
      }
      bool coveredA = !rowA || rowA[x] != 0;
      bool coveredB = !rowB || rowB[x] != 0;
      if (coveredA && !coveredB) share = 0.0f;
      if (coveredB && !coveredA) share = 1.0f;
      if (rowHoles) rowHoles[x] = coveredA || coveredB ? 0 : 255;
      const unsigned char* sa = pa + x * a->bytesPerPixel;
      const unsigned char* sb = pb + x * b->bytesPerPixel;
      unsigned char* so = out + x * dst->bytesPerPixel;
      for (int32_t c = 0; c < C; ++c) {
        float va = LoadSample<T>(sa + c * bps), vb = LoadSample<T>(sb + c * bps);
        StoreSample<T>(so + c * bps, va + (vb - va) * share);
      }
    }
  }
}

template <class T, int32_t C>
void PictureRows(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* dst = args->Next<PLImage*>();
  const PLImage* flow = args->Next<const PLImage*>();
  const float scale = *args->Next<const float*>();
  const PLImage* matte = args->Next<const PLImage*>();
  const FloatGrid grid(flow);
  const float toFlowX = Ratio(flow->lastColumn, dst->lastColumn);
  const float toFlowY = Ratio(flow->lastRow, dst->lastRow);
  const float toDstX = Ratio(dst->lastColumn, flow->lastColumn);
  const float toDstY = Ratio(dst->lastRow, flow->lastRow);
  const float white = White<T>();
  const int32_t bps = dst->bytesPerSample;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* out = dst->Row(y);
    for (int32_t x = 0; x < dst->width; ++x, out += dst->bytesPerPixel) {
      float m = 0.0f;
      if (matte) {
        m = LoadSample<T>(matte->PixelAddress(x, y));
        if (!(m > white * 0.5f)) continue;
      }
      float uv[2];
      grid.Read(static_cast<float>(x) * toFlowX, static_cast<float>(y) * toFlowY, uv, 2);
      float values[4] = {(0.5f + uv[0] * toDstX * scale) * white,
                         (0.5f + uv[1] * toDstY * scale) * white, matte ? m : 0.0f, white};
      if (!std::is_same<T, float>::value)
        for (float& v : values) v = !(v > 0.0f) ? 0.0f : v > white ? white : v;
      for (int32_t c = 0; c < C; ++c) {
        if (std::is_same<T, float>::value)
          PLStore<float>(out + c * bps, values[c]);
        else
          StoreSample<T>(out + c * bps, values[c]);
      }
    }
  }
}

template <class T, int32_t C>
void StyleRows(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* dst = args->Next<PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  const int32_t style = args->Next<int32_t>();
  const float amount = *args->Next<const float*>();
  const int32_t colours = C < 3 ? C : 3;
  const int32_t bps = dst->bytesPerSample;
  const float grey = White<T>() * 0.5f;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    for (int32_t x = 0; x < dst->width; ++x) {
      unsigned char* d = dst->PixelAddress(x, y);
      const unsigned char* s = src->PixelAddress(x, y);
      if (style == 3) {
        if (((x / 16 + y / 16) & 1) != 0)
          for (int32_t c = 0; c < colours; ++c) std::memcpy(d + c * bps, s + c * bps, bps);
        continue;
      }
      for (int32_t c = 0; c < colours; ++c) {
        float vd = LoadSample<T>(d + c * bps), vs = LoadSample<T>(s + c * bps);
        float v = style == 0 ? vs + (vd - vs) * amount : grey + (vd - vs) * amount;
        StoreSample<T>(d + c * bps, v);
      }
    }
  }
}

const char kWarpMessage[] = "can't warp image, input files not of correct types and sizes\n";

}  // namespace

int32_t PLGatherWarp(PLImage* dst, const PLImage* src, const PLImage* flow, int32_t bilinear,
                     PLImage* mask, int32_t clampOutside, float share) {
  return chronar::GatherWarpOnPath(PLWideChosen(), dst, src, flow, bilinear, mask, clampOutside,
                                   share);
}

int32_t chronar::GatherWarpOnPath(bool wide, PLImage* dst, const PLImage* src,
                                  const PLImage* flow, int32_t bilinear, PLImage* mask,
                                  int32_t clampOutside, float share) {
  if (!WorkingImage(dst) || !Alike(dst, src) || !FlowImage(flow) || dst->width < 2 ||
      dst->height < 2 || !MaskFor(mask, dst) || dst == src || !std::isfinite(share)) {
    std::fputs(kWarpMessage, stderr);
    return 0;
  }
  PLDispatch(dst->dataType, dst->channels, [&](auto tag) {
    using Tag = decltype(tag);
    PLForkImageRows(dst->height, GatherRows<typename Tag::Type, Tag::Channels>, dst, src, flow,
                    bilinear, mask, clampOutside, &share, int32_t{wide});
  });
  return 1;
}

int32_t PLRetimeMix(PLImage* dst, const PLImage* a, const PLImage* b, float f,
                    const PLImage* maskA, const PLImage* maskB, const PLImage* agreement,
                    PLImage* holes) {
  if (!WorkingImage(dst) || !Alike(dst, a) || !Alike(dst, b) || !MaskFor(maskA, dst) ||
      !MaskFor(maskB, dst) || !MaskFor(holes, dst))
    return 0;
  if (agreement && !(agreement->data && agreement->channels == 1 &&
                     agreement->dataType == PLFloat && agreement->width >= 2 &&
                     agreement->height >= 2))
    return 0;
  PLDispatch(dst->dataType, dst->channels, [&](auto tag) {
    using Tag = decltype(tag);
    PLForkImageRows(dst->height, MixRows<typename Tag::Type, Tag::Channels>, dst, a, b, &f, maskA,
                    maskB, agreement, holes);
  });
  return 1;
}

int32_t PLFlowPicture(PLImage* dst, const PLImage* flow, float scale, const PLImage* matte) {
  if (!WorkingImage(dst) || !FlowImage(flow) || dst->width < 2 || dst->height < 2) return 0;
  if (matte && !(matte->data && matte->channels == 1 && matte->dataType == dst->dataType &&
                 matte->width == dst->width && matte->height == dst->height))
    return 0;
  PLDispatch(dst->dataType, dst->channels, [&](auto tag) {
    using Tag = decltype(tag);
    PLForkImageRows(dst->height, PictureRows<typename Tag::Type, Tag::Channels>, dst, flow, &scale,
                    matte);
  });
  return 1;
}

int32_t PLRetimeStyleMix(PLImage* dst, const PLImage* src, int32_t style, float amount) {
  if (!WorkingImage(dst) || !Alike(dst, src)) return 0;
  if (style != 0 && style != 2 && style != 3) return 1;
  PLDispatch(dst->dataType, dst->channels, [&](auto tag) {
    using Tag = decltype(tag);
    PLForkImageRows(dst->height, StyleRows<typename Tag::Type, Tag::Channels>, dst, src, style,
                    &amount);
  });
  return 1;
}

namespace chronar {

namespace {

bool AnyHole(const PLImage* holes) {
  for (int32_t y = 0; y < holes->height; ++y) {
    const unsigned char* row = holes->Row(y);
    for (int32_t x = 0; x < holes->width; ++x)
      if (row[x]) return true;
  }
  return false;
}

// Fills the pixels where `holes` is non-zero, smoothly from the others.
void FillHoles(PLImage* dst, const PLImage* holes, NuvIdleAndProgressClass* progress) {
  if (!AnyHole(holes)) return;
  NuvIdleAndProgressClass collapsed(progress);
  collapsed.CollapseSubRange();
  PLSingleChannelFill(dst, holes, &collapsed);
}

// One frame towards the output time by `share` of a flow: `gatherFlow` for the gather
// styles (it lives on the grid of the other frame and points to this one), `pushFlow` for
// the forward styles (on this frame's grid, pointing away). `covered` (styles 1 and 2) gets
// the coverage mask.
void WarpFrame(PLImage* dst, const PLImage* src, const PLImage* gatherFlow,
               const PLImage* pushFlow, float share, int32_t style, PLImage* covered) {
  if (style <= 1) {
    if (!PLGatherWarp(dst, src, gatherFlow, 1, style == 1 ? covered : nullptr, 1, share))
      throw PLErrParameter;
    return;
  }
  if (style == 3) {
    CopyWhole(dst, src);  // what no triangle reaches keeps the frame itself
  } else {
    Clear(dst);
  }
  if (!Warp(dst, src, pushFlow, 1, 0, 0, nullptr, 1, 0, 0.0f, share)) throw PLErrParameter;
  if (style == 2) {
    ImagePtr white = NewImage(src->width, src->height, 1, PLUChar);
    FillColor(white.get(), 1.0f, 1.0f, 1.0f, 1.0f);
    Clear(covered);
    if (!Warp(covered, white.get(), pushFlow, 0, 0, 0, nullptr, 1, 0, 0.0f, share))
      throw PLErrParameter;
  }
}

}  // namespace

void WarpAndMix(NuvChronar4Internal* in, PLImage* dst, const PLImage* a, const PLImage* b,
                float w, bool exact, const PLImage* forwardFlow, const PLImage* backwardFlow,
                NuvIdleAndProgressClass* progress, bool layerImages) {
  const int32_t style = in->warpStyle;
  const bool masked = style == 1 || style == 2;
  if (in->interpolation == 0) {
    const PLImage* nearer = w >= 0.5f ? a : b;
    const float share = w >= 0.5f ? 1.0f - w : w;
    if (exact || !forwardFlow) {
      CopyWhole(dst, nearer);
      return;
    }
    ImagePtr covered = masked ? NewImage(dst->width, dst->height, 1, PLUChar) : nullptr;
    WarpFrame(dst, nearer, forwardFlow, forwardFlow, share, style, covered.get());
    if (masked) {
      Invert(covered.get());
      FillHoles(dst, covered.get(), progress);
    }
    return;
  }
  if (exact || !forwardFlow || !backwardFlow) {
    if (!PLRetimeMix(dst, a, b, 1.0f - w, nullptr, nullptr, nullptr, nullptr))
      throw PLErrParameter;
    return;
  }
  // Frame i moves forward by 1 - w, frame j back by w.
  ImagePtr wa = NewImageLike(dst, dst->channels);
  ImagePtr wb = NewImageLike(dst, dst->channels);
  ImagePtr ma = masked ? NewImage(dst->width, dst->height, 1, PLUChar) : nullptr;
  ImagePtr mb = masked ? NewImage(dst->width, dst->height, 1, PLUChar) : nullptr;
  WarpFrame(wa.get(), a, forwardFlow, backwardFlow, 1.0f - w, style, ma.get());
  WarpFrame(wb.get(), b, backwardFlow, forwardFlow, w, style, mb.get());
  if (layerImages) {
    // Each side over the other's picture of the layer, so that where a matte edge moved
    // the layer is not faded against the hole beside it.
    ImagePtr aOverB = NewImageLike(dst, dst->channels);
    CopyWhole(aOverB.get(), wb.get());
    CompositeOver(aOverB.get(), 0, 0, wa.get(), 0, 0, dst->lastColumn, dst->lastRow);
    CompositeOver(wa.get(), 0, 0, wb.get(), 0, 0, dst->lastColumn, dst->lastRow);
    wb = std::move(wa);  // b over a
    wa = std::move(aOverB);
  }
  ImagePtr agreement;
  if (in->interpolation == 2) {
    // Both flows live on the flow grid, so they are of one size as the agreement needs.
    agreement = NewImage(backwardFlow->width, backwardFlow->height, 1, PLFloat);
    PLFlowAgreement(agreement.get(), backwardFlow, forwardFlow);
    PLGaussBlur(agreement.get(), 0, 4.0f);
  }
  ImagePtr holes = masked ? NewImage(dst->width, dst->height, 1, PLUChar) : nullptr;
  if (!PLRetimeMix(dst, wa.get(), wb.get(), 1.0f - w, ma.get(), mb.get(), agreement.get(),
                   holes.get()))
    throw PLErrParameter;
  if (masked) FillHoles(dst, holes.get(), progress);
}

}  // namespace chronar
