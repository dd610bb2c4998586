// flowblur: flow arithmetic: chaining two flows through a bilinear read, and adding them.
#include "dissolve/PLFlowArithmetic.h"

#include <cstdint>
#include <cstdio>

#include "flow/PLFlowPrivate.h"
#include "image/PLConvertImage.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "runtime/NuvMP.h"

namespace {

void Refuse() { std::fputs("can't add two flows together\n", stderr); }

// A flow the chains can read: 2 channels of the given type, at least 2 x 2 (the ratio of
// last indices and the bilinear cell need two samples an axis).
bool ChainableFlow(const PLImage* image, int32_t dataType) {
  return image && image->data && image->channels == 2 && image->dataType == dataType &&
         image->width >= 2 && image->height >= 2;
}

// Lowest and one-past-highest address of an image's rows, as integers.
void Span(const PLImage* image, uintptr_t* low, uintptr_t* high) {
  const int64_t rows = int64_t{image->lastRow} * image->rowBytes;
  *low = reinterpret_cast<uintptr_t>(image->data) + static_cast<uintptr_t>(rows < 0 ? rows : 0);
  *high = reinterpret_cast<uintptr_t>(image->data) + static_cast<uintptr_t>(rows > 0 ? rows : 0) +
          static_cast<uintptr_t>(int64_t{image->width} * image->bytesPerPixel);
}

// Workers write rows of f while others read g anywhere: the two must not share memory.
bool Overlap(const PLImage* f, const PLImage* g) {
  uintptr_t fLow, fHigh, gLow, gHigh;
  Span(f, &fLow, &fHigh);
  Span(g, &gLow, &gHigh);
  return fLow < gHigh && gLow < fHigh;
}

// Both channels of a Float flow g at (sx, sy) by the bilinear rule of the flow stages: at
// or beyond the last index the cell slides back with a fraction of 1.0, so every position
// past the last index reads the same as the last index itself. Capping there first (and
// taking NaN as 0, which no caller produces) keeps the truncation defined for any float
// and the four taps inside g, without changing the bits of any position the rule places.
inline void SampleFlow(const PLImage* g, float sx, float sy, float* a, float* b) {
  const float lastX = static_cast<float>(g->lastColumn);
  const float lastY = static_cast<float>(g->lastRow);
  if (!(sx >= 0.0f)) sx = 0.0f;
  if (sx > lastX) sx = lastX;
  if (!(sy >= 0.0f)) sy = 0.0f;
  if (sy > lastY) sy = lastY;
  const plflow::Cell cx = plflow::BilinearCell(sx, g->lastColumn);
  const plflow::Cell cy = plflow::BilinearCell(sy, g->lastRow);
  const unsigned char* top = g->Row(cy.i0);
  const unsigned char* bottom = g->Row(cy.i1);
  const int32_t left = cx.i0 * g->bytesPerPixel, right = cx.i1 * g->bytesPerPixel;
  float out[2];
  for (int32_t c = 0; c < 2; ++c) {
    const int32_t at = c * 4;
    out[c] = plflow::Bilinear(PLLoad<float>(top + left + at), PLLoad<float>(top + right + at),
                              PLLoad<float>(bottom + left + at),
                              PLLoad<float>(bottom + right + at), cx.t, cy.t);
  }
  *a = out[0];
  *b = out[1];
}

// Arguments of the chain workers: f, g, &kx, &ky.
struct ChainArgs {
  PLImage* f;
  const PLImage* g;
  float kx;
  float ky;
  explicit ChainArgs(NuvMPArgs* args)
      : f(args->Next<PLImage*>()),
        g(args->Next<const PLImage*>()),
        kx(*args->Next<const float*>()),
        ky(*args->Next<const float*>()) {}
};

void ChainFloatRows(int32_t /*thread*/, uint8_t /*reporter*/, int32_t firstRow, int32_t lastRow,
                    NuvMPArgs* args) {
  const ChainArgs in(args);
  const float w = static_cast<float>(in.f->width), h = static_cast<float>(in.f->height);
  const float stepX = 1.0f / in.kx, stepY = 1.0f / in.ky;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* row = in.f->Row(y);
    for (int32_t x = 0; x < in.f->width; ++x) {
      unsigned char* p = row + x * 8;
      float u = PLLoad<float>(p), v = PLLoad<float>(p + 4);
      const float tx = static_cast<float>(x) + u, ty = static_cast<float>(y) + v;
      if (!(tx >= 0.0f && tx < w && ty >= 0.0f && ty < h)) continue;  // NaN: outside
      float a, b;
      SampleFlow(in.g, tx * in.kx, ty * in.ky, &a, &b);
      u = u + a * stepX;
      v = v + b * stepY;
      PLStore<float>(p, u);
      PLStore<float>(p + 4, v);
    }
  }
}

void ChainCodedRows(int32_t /*thread*/, uint8_t /*reporter*/, int32_t firstRow, int32_t lastRow,
                    NuvMPArgs* args) {
  const ChainArgs in(args);
  const int32_t range = in.f->width > in.f->height ? in.f->width : in.f->height;
  const float w = static_cast<float>(in.f->width), h = static_cast<float>(in.f->height);
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    const unsigned char* row = in.f->Row(y);
    for (int32_t x = 0; x < in.f->width; ++x) {
      // f's own vector. GetFlow at a whole position gives exactly the decoded codes of the
      // pixel (the fractions are 0, or 1.0 on the cell before the last column or row, and
      // the codes are exact in float), so they are decoded here directly: GetFlow would
      // touch the neighbouring row, which another worker may be writing.
      float u = PLDecodeFlow(static_cast<float>(PLLoad<uint16_t>(row + x * 4)), range);
      float v = PLDecodeFlow(static_cast<float>(PLLoad<uint16_t>(row + x * 4 + 2)), range);
      const float tx = static_cast<float>(x) + u, ty = static_cast<float>(y) + v;
      if (tx >= 0.0f && tx < w && ty >= 0.0f && ty < h) {
        float a = 0.0f, b = 0.0f;
        in.g->GetFlow(tx, ty, &a, &b, range);  // no size ratio on the coded path
        u = u + a;
        v = v + b;
      }
      // kept: stored in every case, so a code that decoding and coding do not reproduce
      // changes even when its target is outside.
      in.f->SetFlow(x, y, range, u, v);
    }
  }
}

void ChainClampedRows(int32_t /*thread*/, uint8_t /*reporter*/, int32_t firstRow,
                      int32_t lastRow, NuvMPArgs* args) {
  const ChainArgs in(args);
  const float w = static_cast<float>(in.f->width), h = static_cast<float>(in.f->height);
  const float stepX = 1.0f / in.kx, stepY = 1.0f / in.ky;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* row = in.f->Row(y);
    for (int32_t x = 0; x < in.f->width; ++x) {
      unsigned char* p = row + x * 8;
      float u = PLLoad<float>(p), v = PLLoad<float>(p + 4);
      // max(., 0) with a NaN taken as 0; y gets no upper clamp (the cell slides).
      float y1 = static_cast<float>(y) + v;
      if (!(y1 >= 0.0f)) y1 = 0.0f;
      float x1 = static_cast<float>(x) + u;
      if (!(x1 >= 0.0f)) x1 = 0.0f;
      if (x1 > w) x1 = w;
      // kept: the height, not the width, lands in x for every target beyond the bottom;
      // tidying it would move the reads of all those pixels.
      if (!(y1 < h)) x1 = h;
      float a, b;
      SampleFlow(in.g, x1 * in.kx, y1 * in.ky, &a, &b);
      u = u + stepX * a;
      v = v + b * stepY;
      PLStore<float>(p, u);
      PLStore<float>(p + 4, v);
    }
  }
}

// The grid ratios of g over f (last indices, float), and the row fork over f.
void ForkChain(NuvMPWorker worker, PLImage* f, const PLImage* g) {
  const float kx = static_cast<float>(g->lastColumn) / static_cast<float>(f->lastColumn);
  const float ky = static_cast<float>(g->lastRow) / static_cast<float>(f->lastRow);
  PLForkImageRows(f->height, worker, f, g, &kx, &ky);
}

}  // namespace

void ChainFlows(PLImage* f, const PLImage* g) {
  NuvMPWorker worker = nullptr;
  if (ChainableFlow(f, PLFloat) && ChainableFlow(g, PLFloat))
    worker = ChainFloatRows;
  else if (ChainableFlow(f, PLUShort) && ChainableFlow(g, PLUShort))
    worker = ChainCodedRows;
  if (!worker || Overlap(f, g)) return Refuse();
  ForkChain(worker, f, g);
}

void ChainFlowsClamped(PLImage* f, const PLImage* g) {
  if (!ChainableFlow(f, PLFloat) || !ChainableFlow(g, PLFloat) || Overlap(f, g)) return Refuse();
  ForkChain(ChainClampedRows, f, g);
}

void AddFlows(PLImage* f, const PLImage* g) {
  if (!f || !g || !f->data || !g->data) return Refuse();
  // kept: g's type alone picks the branch and only a coded pair is refused; a symmetric
  // test would refuse mixed pairs that this operation accepts.
  const bool coded = g->dataType == PLUShort;
  if (coded && f->dataType == PLUShort) return Refuse();
  if (f->width != g->width || f->height != g->height || f->channels < 2 || g->channels < 2)
    return Refuse();
  // Packed samples of the branch's width from each row start: an image of narrower samples
  // would be walked past its row ends.
  const int32_t sample = coded ? 2 : 4;
  if (f->bytesPerSample < sample || g->bytesPerSample < sample) return Refuse();

  const int32_t fStep = f->channels * sample, gStep = g->channels * sample;
  const float range = static_cast<float>(f->width > f->height ? f->width : f->height);
  for (int32_t y = 0; y < f->height; ++y) {
    unsigned char* fRow = f->Row(y);
    const unsigned char* gRow = g->Row(y);
    for (int32_t x = 0; x < f->width; ++x) {
      unsigned char* fp = fRow + x * fStep;
      const unsigned char* gp = gRow + x * gStep;
      for (int32_t c = 0; c < 2; ++c) {
        if (!coded) {
          PLStore<float>(fp + c * 4, PLLoad<float>(fp + c * 4) + PLLoad<float>(gp + c * 4));
          continue;
        }
        const float cf = static_cast<float>(PLLoad<uint16_t>(fp + c * 2));
        const float cg = static_cast<float>(PLLoad<uint16_t>(gp + c * 2));
        float s = ((((cg - 32767.0f) / 32767.0f) * range + ((cf - 32767.0f) / 32767.0f) * range) *
                   32767.0f) /
                  range;
        if (s < -32767.0f) s = -32767.0f;
        if (s > 32767.0f) s = 32767.0f;
        PLStore<uint16_t>(fp + c * 2, static_cast<uint16_t>(static_cast<int32_t>(s + 32767.0f + 0.5f)));
      }
    }
  }
}
