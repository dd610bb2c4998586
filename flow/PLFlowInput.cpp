// flowblur: input preparation of the estimator: luma, level 0 chains, pyramids, edge mix,
// high-pass prefilter, mask pyramids and flow hints.
#include <cmath>
#include <cstdio>
#include <type_traits>

#include "filter/PLKernels.h"
#include "filter/PLResize.h"
#include "flow/PLFlowPrivate.h"
#include "flow/PLFlowStages.h"
#include "flow/PLOpticalFlowUChar.h"
#include "image/PLDispatch.h"
#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "runtime/PLWidePath.h"

using plflow::FRow;

namespace plflow {

PLImage* NewLuma(int32_t width, int32_t height) {
  PLImage* image = NUV_NEW PLImage(0, width, height, 1, PLFloat, 0);
  if (image->errorCode != 0) {
    PLErr err = static_cast<PLErr>(image->errorCode);
    delete image;
    throw err;
  }
  return image;
}

// The resize's rule with an axis of length 1 mapped to its first sample: a destination
// axis of 1 has scale 0, a source axis of 1 is read without a neighbour.
static void ReduceDegenerate(PLImage* dst, const PLImage* src) {
  const float scaleX = dst->width > 1 ? (static_cast<float>(src->width) - 1.0f) /
                                            static_cast<float>(dst->width - 1)
                                      : 0.0f;
  const float scaleY = dst->height > 1 ? (static_cast<float>(src->height) - 1.0f) /
                                             static_cast<float>(dst->height - 1)
                                       : 0.0f;
  for (int32_t y = 0; y < dst->height; ++y) {
    const Cell cy = BilinearCell(static_cast<float>(y) * scaleY, src->lastRow);
    const float* r0 = FRow(src, cy.i0);
    const float* r1 = FRow(src, cy.i1);
    float* d = FRow(dst, y);
    for (int32_t x = 0; x < dst->width; ++x) {
      const Cell cx = BilinearCell(static_cast<float>(x) * scaleX, src->lastColumn);
      // The resize's own form: a = (right - p) tx + p, b likewise, (b - a) ty + a.
      const float a = (r0[cx.i1] - r0[cx.i0]) * cx.t + r0[cx.i0];
      const float b = (r1[cx.i1] - r1[cx.i0]) * cx.t + r1[cx.i0];
      d[x] = (b - a) * cy.t + a;
    }
  }
}

void Reduce(PLImage* dst, const PLImage* src) {
  if (dst->width < 1 || dst->height < 1 || src->width < 1 || src->height < 1) return;
  if (dst->width < 2 || dst->height < 2 || src->width < 2 || src->height < 2)
    ReduceDegenerate(dst, src);
  else
    PLResizeBilinear(dst, src);
}

}  // namespace plflow

// ---- Luma --------------------------------------------------------------------------------

namespace {

// One pixel's luma by the table of layouts. Cells marked double form the weighted sum in
// double with double constants and narrow once; all else is single precision. The YUV
// cells are built as they stand, uneven as they look. `bytes` is the pixel's first byte: a
// wrapped host row may sit at any address, so samples are read with PLLoad.
template <class T, int32_t C, bool kYUV>
inline float Luma(const unsigned char* bytes) {
  const auto p = [bytes](int32_t c) { return PLLoad<T>(bytes + c * sizeof(T)); };
  if constexpr (C == 1) {
    const float c0 = static_cast<float>(p(0));
    if constexpr (std::is_same<T, uint8_t>::value) return c0;
    if constexpr (std::is_same<T, uint16_t>::value) return c0 / 257.0f;
    if constexpr (std::is_same<T, float>::value) return c0 * 255.0f;
  } else if constexpr (C == 3) {
    if constexpr (kYUV) {
      const float c0 = static_cast<float>(p(0));
      if constexpr (std::is_same<T, uint8_t>::value) return ((c0 / 257.0f - 16.0f) * 255.0f) / 219.0f;
      if constexpr (std::is_same<T, uint16_t>::value) return ((c0 / 257.0f) * 255.0f) / 219.0f;
      if constexpr (std::is_same<T, float>::value) return (c0 * 255.0f * 255.0f) / 219.0f;
    } else {
      const double w = 0.3 * static_cast<double>(p(0)) + 0.59 * static_cast<double>(p(1)) +
                       0.11 * static_cast<double>(p(2));
      if constexpr (std::is_same<T, uint8_t>::value) return static_cast<float>(w);
      if constexpr (std::is_same<T, uint16_t>::value) return static_cast<float>(w / 257.0);
      if constexpr (std::is_same<T, float>::value) return static_cast<float>(w * 255.0);
    }
  } else {  // 4 channels: luma is channel 1 in the YUV layout
    if constexpr (kYUV) {
      const float c1 = static_cast<float>(p(1));
      if constexpr (std::is_same<T, uint8_t>::value) return ((c1 - 16.0f) * 255.0f) / 219.0f;
      if constexpr (std::is_same<T, uint16_t>::value) return ((c1 / 257.0f - 16.0f) * 255.0f) / 219.0f;
      if constexpr (std::is_same<T, float>::value) return ((c1 * 255.0f - 16.0f) * 255.0f) / 219.0f;
    } else {
      if constexpr (std::is_same<T, uint8_t>::value) {
        const float c0 = static_cast<float>(p(0));
        const float c1 = static_cast<float>(p(1));
        const float c2 = static_cast<float>(p(2));
        return 0.3f * c0 + 0.59f * c1 + 0.11f * c2;
      } else {
        const double w = 0.3 * static_cast<double>(p(0)) + 0.59 * static_cast<double>(p(1)) +
                         0.11 * static_cast<double>(p(2));
        if constexpr (std::is_same<T, uint16_t>::value) return static_cast<float>(w / 257.0);
        if constexpr (std::is_same<T, float>::value) return static_cast<float>(w * 255.0);
      }
    }
  }
  return 0.0f;
}

// The three double products of 8-bit samples, made once: the weighted sum of an 8-bit RGB
// pixel is then (T0[c0] + T1[c1]) + T2[c2], the same doubles added in the same order.
struct ProductTables {
  double t[3][256];
  ProductTables() {
    for (int32_t i = 0; i < 256; ++i) {
      t[0][i] = 0.3 * static_cast<double>(i);
      t[1][i] = 0.59 * static_cast<double>(i);
      t[2][i] = 0.11 * static_cast<double>(i);
    }
  }
};
const ProductTables& Products() {
  static const ProductTables tables;
  return tables;
}

// The luma of one row of w pixels.
template <class T, int32_t C, bool kYUV>
void LumaRow(float* d, const unsigned char* s, int32_t w, bool wide) {
  (void)wide;  // read only where the build carries the wide loops
  if constexpr (std::is_same<T, uint8_t>::value && C == 3 && !kYUV) {
    // The frame path of the plug-in: table products instead of three conversions and
    // three multiplications.
    const ProductTables& p = Products();
    int32_t x = 0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
    if (wide) {
      x = plflow::LumaRowRGB8Wide(d, s, w);
      s += 3 * x;
    }
#endif
    for (; x < w; ++x, s += 3)
      d[x] = static_cast<float>(p.t[0][s[0]] + p.t[1][s[1]] + p.t[2][s[2]]);
  } else {
    constexpr int32_t kPixelBytes = C * static_cast<int32_t>(sizeof(T));
    int32_t x = 0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
    if constexpr (C == 3 && !kYUV && !std::is_same<T, uint8_t>::value) {
      // The 16-bit and half-float frame paths.
      if (wide)
        x = std::is_same<T, uint16_t>::value ? plflow::LumaRowRGB16Wide(d, s, w)
                                             : plflow::LumaRowRGBFloatWide(d, s, w);
    }
#endif
    for (; x < w; ++x) d[x] = Luma<T, C, kYUV>(s + kPixelBytes * x);
  }
}

template <class T, int32_t C, bool kYUV>
void LumaWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* dest = args->Next<PLImage*>();
  const PLImage* source = args->Next<const PLImage*>();
  const int32_t w = args->Next<int32_t>();
  const bool wide = PLWideChosen();
  for (int32_t y = firstRow; y <= lastRow; ++y)
    LumaRow<T, C, kYUV>(FRow(dest, y), source->Row(y), w, wide);
}

// ---- Luma, blur and reduction in bands -------------------------------------------------
//
// The first step of every halving mode, luma at the input size, the binomial blur and the
// reduction to half size, made a band of destination rows at a time: the luma rows a band
// needs (and the blur's two rows either side) are made, blurred by rows and by columns and
// reduced while they are in cache, and the input-sized luma is never held whole. Each
// sample goes through the same rule as in the three whole-image stages, so the bytes are
// theirs for any band and worker count; halo rows are made by both bands that need them.

constexpr int32_t kLevelBand = 16;  // destination rows a band

// The rows a band of destination rows y0 .. y1 - 1 needs: blurred rows from .. to - 1,
// which read luma rows top .. end - 1.
struct BandRows {
  int32_t from, to, top, end;
  BandRows(int32_t y0, int32_t y1, float scaleY, int32_t h, int32_t reach)
      : from(PLResizeCellOf(y0, scaleY, h - 1).index),
        to(PLResizeCellOf(y1 - 1, scaleY, h - 1).index + 2),
        top(from - reach > 0 ? from - reach : 0),
        end(to + reach < h ? to + reach : h) {}
};

// Calls band(y0, y1) for each band of rows firstRow .. lastRow.
template <class Band>
void ForEachBand(int32_t firstRow, int32_t lastRow, Band band) {
  for (int32_t y0 = firstRow; y0 <= lastRow; y0 += kLevelBand)
    band(y0, y0 + kLevelBand <= lastRow + 1 ? y0 + kLevelBand : lastRow + 1);
}

// Per-worker storage, made before the fork: room for the most luma rows a band needs, and
// the row pass's line.
struct LevelBandStore {
  int32_t rowsCap;
  int32_t width;
  uint64_t floatsEach;
  float* block;
  LevelBandStore(int32_t workers, int32_t rowsCap, int32_t width, int32_t lineFloats)
      : rowsCap(rowsCap),
        width(width),
        floatsEach(static_cast<uint64_t>(rowsCap) * static_cast<uint64_t>(width) +
                   static_cast<uint64_t>(lineFloats)),
        block(static_cast<float*>(
            NuvMemAlloc(floatsEach * static_cast<uint64_t>(workers) * sizeof(float)))) {}
  ~LevelBandStore() { NuvMemFree(block); }
  float* Rows(int32_t worker) const { return block + floatsEach * static_cast<uint64_t>(worker); }
  float* Line(int32_t worker) const {
    return Rows(worker) + static_cast<uint64_t>(rowsCap) * static_cast<uint64_t>(width);
  }
};

struct LevelBandJob {
  PLImage* dest;
  const PLImage* source;
  const SeparableKernel* kernel;
  const ExpandedKernel* expanded;
  const LevelBandStore* store;
  float scaleY;
  bool wide;
};

template <class T, int32_t C, bool kYUV>
void LumaLevelWorker(int32_t index, uint8_t, int32_t firstRow, int32_t lastRow,
                     NuvMPArgs* args) {
  const LevelBandJob& job = *args->Next<const LevelBandJob*>();
  const int32_t w = job.source->width;
  const int32_t h = job.source->height;
  const int32_t reach = job.kernel->count - 1;
  const plflow::FView out(job.dest);
  float* rows = job.store->Rows(index);
  float* line = job.store->Line(index);
  ForEachBand(firstRow, lastRow, [&](int32_t y0, int32_t y1) {
    const BandRows band(y0, y1, job.scaleY, h, reach);
    for (int32_t g = band.top; g < band.end; ++g) {
      float* row = rows + static_cast<ptrdiff_t>(g - band.top) * w;
      LumaRow<T, C, kYUV>(row, job.source->Row(g), w, job.wide);
      ConvolveFloatRowHere(row, row, w, job.kernel, job.expanded, line, job.wide);
    }
    // The column pass in place: it copies each strip out before storing.
    float* blurred = rows + static_cast<ptrdiff_t>(band.from - band.top) * w;
    ConvolveFloatColumnsHere(FloatRows{rows, w, band.top}, w, h, band.from, band.to, blurred,
                             w, job.kernel, job.expanded, job.wide);
    PLResizeFloatRowsHere(FloatRows{blurred, w, band.from}, w, h, out.Row(y0), out.step,
                          job.dest->width, job.dest->height, y0, y1, job.wide);
  });
}

}  // namespace

namespace plflow {

bool LumaBlurReduce(PLImage* dest, const PLImage* source, uint8_t isYUV, bool wide) {
  if (!dest || !source || !dest->data || !source->data) return false;
  if (dest->dataType != PLFloat || dest->channels != 1) return false;
  if (source->dataType == PLFloat && source->whitePoint != 1.0f) return false;
  const int32_t w = source->width;
  const int32_t h = source->height;
  SeparableKernel kernel;
  PLBinomial5Kernel(&kernel);
  const int32_t c = kernel.count;
  // Where the whole-image stages would refuse or take another rule, they run instead.
  if (w < 2 || h < 2 || dest->width < 2 || dest->height < 2) return false;
  if (w + 2 * c > kSeparableLineMax || h + 2 * c > kSeparableLineMax) return false;
  if (source->channels == 2 || !PLDispatch(source->dataType, source->channels, [](auto) {}))
    return false;

  ExpandedKernel expanded;
  ExpandKernel(&expanded, &kernel);
  const float scaleY = PLResizeScale(h, dest->height);
  const int32_t rows = dest->height;
  const int32_t workers = NuvMPThreadsForRows(rows);
  int32_t rowsCap = 0;
  for (int32_t index = 0; index < workers; ++index) {
    int32_t first, last;
    NuvMPRowRange(workers, index, rows, &first, &last);
    ForEachBand(first, last, [&](int32_t y0, int32_t y1) {
      const BandRows band(y0, y1, scaleY, h, c - 1);
      if (band.end - band.top > rowsCap) rowsCap = band.end - band.top;
    });
  }
  const LevelBandStore store(workers, rowsCap, w, w + 2 * c);
  const LevelBandJob job{dest,   source, &kernel, &expanded, &store,
                         scaleY, wide && PLWideAvailable()};
  PLDispatch(source->dataType, source->channels, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    constexpr int32_t C = decltype(tag)::Channels;
    if constexpr (C != 2) {
      if (isYUV)
        PLForkImageRowsOn(workers, rows, LumaLevelWorker<T, C, true>, &job);
      else
        PLForkImageRowsOn(workers, rows, LumaLevelWorker<T, C, false>, &job);
    }
  });
  return true;
}

}  // namespace plflow

void PLOpticalFlowUChar::ConvertToLuma(PLImage* dest, const PLImage* source, uint8_t isYUV) {
  if (source->dataType == PLFloat && source->whitePoint != 1.0f) {
    std::fputs(" floating image input to PLOpticalFlowUChar is not in correct range\n", stderr);
    return;
  }
  if (!source->data || !dest->data) return;
  // Only the rectangle both images share is converted, so that a source of another size
  // is never read outside itself.
  const int32_t w = dest->width < source->width ? dest->width : source->width;
  const int32_t h = dest->height < source->height ? dest->height : source->height;
  if (w < 1) return;
  PLDispatch(source->dataType, source->channels, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    constexpr int32_t C = decltype(tag)::Channels;
    if constexpr (C != 2) {
      if (isYUV)
        PLForkImageRows(h, LumaWorker<T, C, true>, dest, source, w);
      else
        PLForkImageRows(h, LumaWorker<T, C, false>, dest, source, w);
    }
  });
}

// ---- Level 0 and the pyramid -------------------------------------------------------------

void PLOpticalFlowUChar::CheckInputSize(const PLImage* image) const {
  int32_t w = image->width;
  int32_t h = image->height;
  const int32_t halvings = (mode >= 1 && mode <= 3) ? mode : 0;
  for (int32_t i = 0; i < halvings; ++i) {
    w /= 2;
    h /= 2;
  }
  if (w != workWidth || h != workHeight) std::fputs("incorrect with and height\n", stderr);
}

namespace {
// Temporaries of one preparation, deleted on every way out.
struct Temporaries {
  PLImage* t[3] = {nullptr, nullptr, nullptr};
  ~Temporaries() {
    for (PLImage*& image : t) {
      delete image;
      image = nullptr;
    }
  }
  // t1 at the input size for modes 1-3, t2 at half of it for 2-3, t3 at a quarter for 3;
  // those from `first` on.
  void Make(int32_t mode, int32_t width, int32_t height, int32_t first = 0) {
    for (int32_t i = 0; i < 3 && i < mode && mode <= 3; ++i) {
      if (i >= first) t[i] = plflow::NewLuma(width, height);
      width /= 2;
      height /= 2;
    }
  }
};
}  // namespace

void PLOpticalFlowUChar::BuildLevelZero(PLImage** pyramid, const PLImage* image) {
  if (!pyramid || !image) return;
  CheckInputSize(image);
  Temporaries temps;
  temps.Make(mode, image->width, image->height, 1);
  PLImage* level0 = pyramid[0];
  // The first halving in bands when it can (the same bytes), else stage by stage through
  // an input-sized temporary.
  auto firstHalving = [&](PLImage* half) {
    if (plflow::LumaBlurReduce(half, image, inputIsYUV, PLWideChosen())) return;
    temps.t[0] = plflow::NewLuma(image->width, image->height);
    ConvertToLuma(temps.t[0], image, inputIsYUV);
    PLBinomial5Blur(temps.t[0]);
    plflow::Reduce(half, temps.t[0]);
  };
  switch (mode) {
    case 0:
      ConvertToLuma(level0, image, inputIsYUV);
      break;
    case 1:
      firstHalving(level0);
      break;
    case 2:
    case 3: {
      firstHalving(temps.t[1]);
      PLBinomial5Blur(temps.t[1]);
      if (mode == 3) {
        plflow::Reduce(temps.t[2], temps.t[1]);
        PLBinomial5Blur(temps.t[2]);
        plflow::Reduce(level0, temps.t[2]);
      } else {
        plflow::Reduce(level0, temps.t[1]);
      }
      break;
    }
    default:
      break;  // no luma for an unknown mode: level 0 keeps what it held
  }
}

namespace {
// value = (value + e * 255.0) * 0.5 in double, e the gradient magnitude over 20, at most 1.
void EdgeMixWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* image = args->Next<PLImage*>();
  const PLImage* gradX = args->Next<const PLImage*>();
  const PLImage* gradY = args->Next<const PLImage*>();
  const int32_t w = image->width;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    float* v = FRow(image, y);
    const float* gx = FRow(gradX, y);
    const float* gy = FRow(gradY, y);
    for (int32_t x = 0; x < w; ++x) {
      const float m = std::sqrt(gx[x] * gx[x] + gy[x] * gy[x]);
      const float e = m > 20.0f ? 1.0f : m / 20.0f;
      v[x] = static_cast<float>((static_cast<double>(v[x]) + static_cast<double>(e) * 255.0) *
                                0.5);
    }
  }
}
}  // namespace

void PLOpticalFlowUChar::ReducePyramid(PLImage** pyramid, bool binarise, PLImage** keep) {
  for (int32_t level = 1; level < numLevels; ++level) {
    const PLImage* finer = pyramid[level - 1];
    // The blurred copy either is a temporary of its own or stays in keep[level - 1] for the
    // high-pass prefilter, which would blur the same level into the same bits.
    PLImage* temp = keep ? keep[level - 1] : plflow::NewLuma(finer->width, finer->height);
    try {
      PLBinomial5BlurFrom(temp, finer);
      plflow::Reduce(pyramid[level], temp);
    } catch (PLErr&) {
      if (!keep) delete temp;
      throw;
    }
    if (!keep) delete temp;
    if (binarise) Binarise(pyramid[level]);
  }
}

void PLOpticalFlowUChar::BuildInputPyramid(PLImage** pyramid, const PLImage* image,
                                           bool edgeBlend, const PLImage* mask) {
  BuildInputPyramidKeeping(pyramid, image, edgeBlend, mask, nullptr);
}

void PLOpticalFlowUChar::BuildInputPyramidKeeping(PLImage** pyramid, const PLImage* image,
                                                  bool edgeBlend, const PLImage* mask,
                                                  PLImage** keep) {
  if (!pyramid || !image) return;
  BuildLevelZero(pyramid, image);
  if (edgeBlend) {
    PLImage* level0 = pyramid[0];
    PLGaussBlur(level0, 0, 2.0f);
    ComputeGradients(gradXPyramid[0], gradYPyramid[0], level0);
    if (mask) GateGradients(gradXPyramid[0], gradYPyramid[0], mask);
    PLForkImageRows(level0->height, EdgeMixWorker, level0,
                    static_cast<const PLImage*>(gradXPyramid[0]),
                    static_cast<const PLImage*>(gradYPyramid[0]));
  }
  ReducePyramid(pyramid, false, keep);
}

// ---- High-pass prefilter -----------------------------------------------------------------

// Each level becomes its difference from its own binomial-blurred self; gradXPyramid is
// the scratch.
void PLOpticalFlowUChar::PrefilterPyramid(PLImage** pyramid) {
  for (int32_t level = 0; level < numLevels; ++level) {
    PLImage* image = pyramid[level];
    PLImage* scratch = gradXPyramid[level];
    PLBinomial5BlurFrom(scratch, image);
    Subtract(image, scratch);
  }
}

// The prefilter of a pyramid whose levels 0 .. numLevels - 2 were blurred into kept[] while
// it was reduced (and not changed since): the subtraction alone; the last level as usual.
void PLOpticalFlowUChar::PrefilterPyramidFromKept(PLImage** pyramid, PLImage** kept) {
  for (int32_t level = 0; level < numLevels; ++level) {
    PLImage* image = pyramid[level];
    if (level + 1 < numLevels) {
      Subtract(image, kept[level]);
    } else {
      PLImage* scratch = gradXPyramid[level];
      PLBinomial5BlurFrom(scratch, image);
      Subtract(image, scratch);
    }
  }
}

void PLOpticalFlowUChar::HighPassPyramids() {
  if (!firstPyramid) return;
  PrefilterPyramid(firstPyramid);
  PrefilterPyramid(secondPyramid);
}

void PLOpticalFlowUChar::PrefilterSide(int32_t side) {
  if (!firstPyramid) return;
  PrefilterPyramid(side == 0 ? firstPyramid : secondPyramid);
}

void PLOpticalFlowUChar::PrefilterPyramids(int32_t prefilter) {
  if (prefilter == 1) HighPassPyramids();
}

// ---- Masks -------------------------------------------------------------------------------

void PLOpticalFlowUChar::BuildMaskPyramid(const PLImage* image, int32_t side) {
  PLImage** pyramid = side == 0 ? firstMaskPyramid : secondMaskPyramid;
  if (!pyramid || !image) return;
  const float scale = 0.003921569f;  // 1/255: luma back to 0..1
  Temporaries temps;
  temps.Make(mode, image->width, image->height);
  PLImage* level0 = pyramid[0];
  if (mode == 0) {
    ConvertToLuma(level0, image, inputIsYUV);
    Multiply(level0, scale);
  } else if (mode >= 1 && mode <= 3) {
    ConvertToLuma(temps.t[0], image, inputIsYUV);
    Multiply(temps.t[0], scale);
    for (int32_t step = 0; step < mode; ++step) {
      PLImage* from = temps.t[step];
      PLImage* into = step + 1 < mode ? temps.t[step + 1] : level0;
      Binarise(from);
      PLBinomial5Blur(from);
      plflow::Reduce(into, from);
    }
  }
  Binarise(level0);
  ReducePyramid(pyramid, true, nullptr);
}

// ---- Hints -------------------------------------------------------------------------------

void PLOpticalFlowUChar::ClearFlowHints() {
  if (!hintFlowPyramid || !hintWeightPyramid) return;
  Clear(hintFlowPyramid[0]);
  Clear(hintWeightPyramid[0]);
}

void PLOpticalFlowUChar::AddFlowHint(float x0, float y0, float x1, float y1, float sourceWidth,
                                     float sourceHeight) {
  if (!hintFlowPyramid || !hintWeightPyramid) return;
  PLFlowAddHint(hintFlowPyramid[0], hintWeightPyramid[0], static_cast<float>(workMaxX),
                static_cast<float>(workMaxY), x0, y0, x1, y1, sourceWidth, sourceHeight);
}

void PLOpticalFlowUChar::PinFlowHint(float x, float y, float sourceWidth, float sourceHeight) {
  if (!hintFlowPyramid || !hintWeightPyramid) return;
  const float sx = static_cast<float>(workMaxX) / sourceWidth;
  const float sy = static_cast<float>(workMaxY) / sourceHeight;
  const int32_t ix = PLTruncToInt32(x * sx + 0.5f);
  const int32_t iy = PLTruncToInt32(y * sy + 0.5f);
  if (ix < 0 || iy < 0 || ix >= workWidth || iy >= workHeight) return;
  float* f = FRow(hintFlowPyramid[0], iy) + 2 * ix;
  f[0] = 0.0f;
  f[1] = 0.0f;
  FRow(hintWeightPyramid[0], iy)[ix] = 1.0f;
}

void PLOpticalFlowUChar::FinishFlowHints() {
  if (!hintFlowPyramid || !hintWeightPyramid) return;
  PLImage* flow0 = hintFlowPyramid[0];
  PLImage* weight0 = hintWeightPyramid[0];
  for (int32_t y = 0; y < weight0->height; ++y) {
    float* f = FRow(flow0, y);
    float* w = FRow(weight0, y);
    for (int32_t x = 0; x < weight0->width; ++x) {
      if (w[x] > 0.0f) {
        f[2 * x] = f[2 * x] / w[x];
        f[2 * x + 1] = f[2 * x + 1] / w[x];
        w[x] = 1.0f;
      }
    }
  }
  // Hints are given forward, like delivered flow; the run works in the opposite sign.
  ScaleXY(flow0, -1.0f, -1.0f);
  for (int32_t level = 1; level < numLevels; ++level) {
    PLImage* finerFlow = hintFlowPyramid[level - 1];
    PLImage* finerWeight = hintWeightPyramid[level - 1];
    PLImage* flowScratch = flowPyramid[level - 1];
    PLImage* weightScratch = gradXPyramid[level - 1];
    CopyRect(flowScratch, 0, 0, finerFlow, 0, 0, finerFlow->width, finerFlow->height);
    PLBinomial5Blur(flowScratch);
    PLResizeBilinear(hintFlowPyramid[level], flowScratch);
    CopyRect(weightScratch, 0, 0, finerWeight, 0, 0, finerWeight->width, finerWeight->height);
    PLBinomial5Blur(weightScratch);
    PLResizeBilinear(hintWeightPyramid[level], weightScratch);
    const PLImage* coarse = hintFlowPyramid[level];
    ScaleXY(hintFlowPyramid[level],
            static_cast<float>(coarse->width - 1) / static_cast<float>(finerFlow->width - 1),
            static_cast<float>(coarse->height - 1) / static_cast<float>(finerFlow->height - 1));
  }
}
