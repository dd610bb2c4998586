// flowblur: the morph flow: construction, hints, and the level-by-level spread of the hints
// by the plain pass or the scatter pass.
#include "dissolve/PLMorphFlow.h"

#include <cmath>
#include <memory>

#include "filter/PLKernels.h"
#include "filter/PLResize.h"
#include "flow/PLFlowStages.h"
#include "flow/PLOpticalFlowUChar.h"
#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"

namespace {

inline float* FRow(const PLImage* image, int32_t y) {
  return reinterpret_cast<float*>(image->Row(y));
}


std::unique_ptr<PLImage> NewFloatImage(int32_t width, int32_t height, int32_t channels) {
  std::unique_ptr<PLImage> image(NUV_NEW PLImage(0, width, height, channels, PLFloat, 0));
  if (image->errorCode != 0) throw static_cast<PLErr>(image->errorCode);
  return image;
}

// ---- Scatter workers -------------------------------------------------------------------

// The four bilinear tap weights of a level-0 pixel on the coarse grid.
struct Taps {
  float w00 = 0.0f, w10 = 0.0f, w01 = 0.0f, w11 = 0.0f;
};

inline Taps MakeTaps(float tx, float ty) {
  Taps k;
  k.w00 = (1.0f - tx) * (1.0f - ty);
  k.w10 = tx - tx * ty;
  k.w01 = ty - tx * ty;
  k.w11 = tx * ty;
  return k;
}

// Coarse row of level-0 row y: iy = trunc(y * ky), ty its fraction; at or beyond the last
// coarse row the cell slides back with ty = 1.0.
inline void CoarseRow(int32_t y, float ky, int32_t lastRow, int32_t* iy, float* ty) {
  const float fy = static_cast<float>(y) * ky;
  *iy = static_cast<int32_t>(fy);
  *ty = fy - std::floor(fy);
  if (*iy >= lastRow) {
    *iy = lastRow - 1;
    *ty = 1.0f;
  }
}

// Coarse column of a level-0 column below the last: ix = trunc(kx * x), tx the remainder.
// Rounding never carries such a column to the last coarse one; should it, the cell slides
// back like a bilinear read, so that no tap leaves the image.
inline void CoarseColumn(int32_t x, float kx, int32_t lastColumn, int32_t* ix, float* tx) {
  const float fx = kx * static_cast<float>(x);
  *ix = static_cast<int32_t>(fx);
  *tx = fx - static_cast<float>(*ix);
  if (*ix >= lastColumn) {
    *ix = lastColumn - 1;
    *tx = 1.0f;
  }
}

// Adds one level-0 pixel's share into the coarse rows iy and iy + 1, where they lie in
// this worker's band [firstRow, lastRow].
inline void AddShare(PLImage* t, PLImage* weight, PLImage* flow, int32_t ix, int32_t iy,
                     const Taps& k, float u, float v, int32_t firstRow, int32_t lastRow) {
  if (iy >= firstRow && iy <= lastRow) {
    float* tr = FRow(t, iy);
    float* wr = FRow(weight, iy);
    float* fr = FRow(flow, iy);
    tr[ix] += k.w00;
    tr[ix + 1] += k.w10;
    wr[ix] += 1.0f;
    wr[ix + 1] += 1.0f;
    fr[2 * ix] += u;
    fr[2 * ix + 1] += v;
    fr[2 * ix + 2] += u;
    fr[2 * ix + 3] += v;
  }
  const int32_t iy1 = iy + 1;
  if (iy1 >= firstRow && iy1 <= lastRow) {
    float* tr = FRow(t, iy1);
    float* wr = FRow(weight, iy1);
    float* fr = FRow(flow, iy1);
    tr[ix] += k.w01;
    tr[ix + 1] += k.w11;
    wr[ix] += 1.0f;
    wr[ix + 1] += 1.0f;
    fr[2 * ix] += u;
    fr[2 * ix + 1] += v;
    fr[2 * ix + 2] += u;
    fr[2 * ix + 3] += v;
  }
}

// Forked over the rows of the COARSE level: each worker walks the level-0 rows in order and
// adds only into its own coarse rows, so every coarse pixel sums its shares in the raster
// order of level 0 whatever the split, and no two workers touch one pixel.
void SplatWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* t = args->Next<PLImage*>();
  PLImage* weight = args->Next<PLImage*>();
  PLImage* flow = args->Next<PLImage*>();
  const PLImage* weight0 = args->Next<const PLImage*>();
  const PLImage* flow0 = args->Next<const PLImage*>();
  const float kx = *args->Next<const float*>();
  const float ky = *args->Next<const float*>();
  const int32_t* carryX = args->Next<const int32_t*>();
  const int32_t* carryY = args->Next<const int32_t*>();
  const int32_t last0 = weight0->lastColumn;
  const int32_t lastColumn = weight->lastColumn;
  const int32_t lastCoarseRow = weight->lastRow;
  for (int32_t y = 0; y < weight0->height; ++y) {
    int32_t iy;
    float ty;
    CoarseRow(y, ky, lastCoarseRow, &iy, &ty);
    if (iy > lastRow) break;  // coarse rows grow with y
    if (iy + 1 < firstRow) continue;
    const float* w = FRow(weight0, y);
    const float* f = FRow(flow0, y);
    for (int32_t x = 0; x < last0; ++x) {
      if (w[x] == 0.0f) continue;
      int32_t ix;
      float tx;
      CoarseColumn(x, kx, lastColumn, &ix, &tx);
      AddShare(t, weight, flow, ix, iy, MakeTaps(tx, ty), f[2 * x], f[2 * x + 1], firstRow,
               lastRow);
    }
    if (w[last0] == 0.0f) continue;
    // kept: the last column reuses the tap weights of the last hinted pixel before it, not
    // fresh ones; the result of every hinted right edge depends on it. The last hinted
    // pixel is taken in the raster order of the whole image, which is what one worker walking
    // all rows would hold; with none before it the weights are zero.
    Taps k;
    if (carryX[y] >= 0) {
      int32_t cix, ciy;
      float ctx, cty;
      CoarseColumn(carryX[y], kx, lastColumn, &cix, &ctx);
      CoarseRow(carryY[y], ky, lastCoarseRow, &ciy, &cty);
      k = MakeTaps(ctx, cty);
    }
    int32_t ix = static_cast<int32_t>(kx * static_cast<float>(last0));
    if (ix >= lastColumn) ix = lastColumn - 1;
    AddShare(t, weight, flow, ix, iy, k, f[2 * last0], f[2 * last0 + 1], firstRow, lastRow);
  }
}

// Where the weight is above 0: s = 1 / weight; flow and t times s.
void NormaliseWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* flow = args->Next<PLImage*>();
  PLImage* t = args->Next<PLImage*>();
  const PLImage* weight = args->Next<const PLImage*>();
  const int32_t width = weight->width;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    float* f = FRow(flow, y);
    float* tr = FRow(t, y);
    const float* w = FRow(weight, y);
    for (int32_t x = 0; x < width; ++x) {
      if (!(w[x] > 0.0f)) continue;
      const float s = 1.0f / w[x];
      f[2 * x] = f[2 * x] * s;
      f[2 * x + 1] = f[2 * x + 1] * s;
      tr[x] = tr[x] * s;
    }
  }
}

// Where the weight is above 0: flow += (hint - flow) * t, both channels.
void RelaxWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* flow = args->Next<PLImage*>();
  const PLImage* hint = args->Next<const PLImage*>();
  const PLImage* t = args->Next<const PLImage*>();
  const PLImage* weight = args->Next<const PLImage*>();
  const int32_t width = weight->width;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    float* f = FRow(flow, y);
    const float* h = FRow(hint, y);
    const float* tr = FRow(t, y);
    const float* w = FRow(weight, y);
    for (int32_t x = 0; x < width; ++x) {
      if (!(w[x] > 0.0f)) continue;
      f[2 * x] = f[2 * x] + (h[2 * x] - f[2 * x]) * tr[x];
      f[2 * x + 1] = f[2 * x + 1] + (h[2 * x + 1] - f[2 * x + 1]) * tr[x];
    }
  }
}

// A block of int32 from the library's allocator, freed on unwinding.
struct IntBlock {
  int32_t* data;
  explicit IntBlock(int32_t count)
      : data(static_cast<int32_t*>(
            NuvMemAlloc(sizeof(int32_t) * static_cast<uint64_t>(count > 0 ? count : 1)))) {}
  ~IntBlock() { NuvMemFree(data); }
  IntBlock(const IntBlock&) = delete;
  IntBlock& operator=(const IntBlock&) = delete;
};

}  // namespace

// ---- Level geometry ----------------------------------------------------------------------

int32_t PLMorphLevelCount(int32_t workWidth, int32_t workHeight, int32_t minLevelSize) {
  int32_t levels = 1;
  int32_t w = workWidth;
  int32_t h = workHeight;
  for (;;) {
    w = w / 2;
    h = h / 2;
    if (w < minLevelSize) w = minLevelSize;
    if (h < minLevelSize) h = minLevelSize;
    if (w < 2) w = 2;
    if (h < 2) h = 2;
    ++levels;
    // Both dimensions come down to max(minLevelSize, 2) and stay there, so this ends.
    if ((w == minLevelSize && h == minLevelSize) || (w == 2 && h == 2)) break;
  }
  return levels;
}

// ---- Construction ------------------------------------------------------------------------

PLMorphFlow::PLMorphFlow(int32_t throwOnError, int32_t width, int32_t height, int32_t mode,
                         int32_t minSize) {
  Construct(throwOnError, width, height, mode, minSize);
}

PLMorphFlow::PLMorphFlow(int32_t width, int32_t height, int32_t mode, int32_t minSize) {
  Construct(1, width, height, mode, minSize);
}

void PLMorphFlow::Construct(int32_t throwOnError, int32_t width, int32_t height,
                            int32_t mode, int32_t minSize) {
  iterationsPerLevel = 2;
  minLevelSize = minSize;
  levelFactor = 1.0f;
  int32_t w = width;
  int32_t h = height;
  if (mode >= 1 && mode <= 3) {
    for (int32_t i = 0; i < mode; ++i) {
      w /= 2;
      h /= 2;
    }
  }
  workWidth = w;
  workHeight = h;
  workMaxX = static_cast<float>(w - 1);
  workMaxY = static_cast<float>(h - 1);
  numLevels = w >= 2 && h >= 2 ? PLMorphLevelCount(w, h, minLevelSize) : 1;
  startLevel = numLevels - 1;
  try {
    // Below 2 there is no coarser grid: the splat and the level transfers would divide by
    // a last index of 0.
    if (w < 2 || h < 2) throw PLErrParameter;
    const int32_t count = numLevels + 1;
    PLImage*** pyramids[] = {&flowPyramid, &hintFlowPyramid, &hintWeightPyramid,
                             &scratchPyramid};
    const int32_t channels[] = {2, 2, 1, 1};
    for (PLImage*** p : pyramids) *p = PLFlowNewPyramid(count);
    for (int32_t p = 0; p < 4; ++p) {
      for (int32_t level = 0; level < count; ++level) {
        int32_t lw, lh;
        PLFlowLevelSize(w, h, level, &lw, &lh);  // the estimator's sizes: max(2, half)
        PLImage* image = NUV_NEW PLImage(0, lw, lh, channels[p], PLFloat, 0);
        (*pyramids[p])[level] = image;
        if (image->errorCode != 0) throw static_cast<PLErr>(image->errorCode);
        // Fresh memory would make the first solve depend on whatever it held.
        Clear(image);
      }
    }
  } catch (PLErr& err) {
    ReleaseAll();
    errorCode = err;
    if (throwOnError == 1) {
      PLErr value = err;
      throw value;
    }
  }
}

void PLMorphFlow::ReleaseAll() {
  PLFlowDeletePyramid(flowPyramid, numLevels + 1);
  PLFlowDeletePyramid(hintFlowPyramid, numLevels + 1);
  PLFlowDeletePyramid(hintWeightPyramid, numLevels + 1);
  PLFlowDeletePyramid(scratchPyramid, numLevels + 1);
}

PLMorphFlow::~PLMorphFlow() { ReleaseAll(); }

// ---- Parameters and hints ----------------------------------------------------------------

void PLMorphFlow::SetLevelFactor(float factor) { levelFactor = factor; }

void PLMorphFlow::ClearHints() {
  if (!hintFlowPyramid) return;
  for (int32_t level = 0; level < numLevels; ++level) {
    Clear(hintFlowPyramid[level]);
    Clear(hintWeightPyramid[level]);
  }
}

void PLMorphFlow::AddHint(float x0, float y0, float x1, float y1, float sourceWidth,
                          float sourceHeight) {
  if (!hintFlowPyramid) return;
  PLFlowAddHint(hintFlowPyramid[0], hintWeightPyramid[0], workMaxX, workMaxY, x0, y0, x1, y1,
                sourceWidth, sourceHeight);
}

void PLMorphFlow::FinishHints() {
  if (!hintFlowPyramid) return;
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
}

// ---- The solve ---------------------------------------------------------------------------

// kept: the hints are reduced without scaling their values to the coarser grid, while the
// transfer of the flow down the levels still scales by the grid ratio; the flows of the
// coarse levels are therefore larger than their grid, and scaling here would change every
// result.
void PLMorphFlow::BuildHintPyramids() {
  for (int32_t level = 1; level < numLevels; ++level) {
    PLImage* finerFlow = hintFlowPyramid[level - 1];
    PLImage* finerWeight = hintWeightPyramid[level - 1];
    PLImage* flowScratch = flowPyramid[level - 1];
    PLImage* weightScratch = scratchPyramid[level - 1];
    CopyRect(flowScratch, 0, 0, finerFlow, 0, 0, finerFlow->width, finerFlow->height);
    PLBinomial5Blur(flowScratch);
    PLResizeBilinear(hintFlowPyramid[level], flowScratch);
    CopyRect(weightScratch, 0, 0, finerWeight, 0, 0, finerWeight->width, finerWeight->height);
    PLBinomial5Blur(weightScratch);
    PLResizeBilinear(hintWeightPyramid[level], weightScratch);
  }
}

void PLMorphFlow::Splat(int32_t level, PLImage* t) {
  const PLImage* weight0 = hintWeightPyramid[0];
  const PLImage* flow0 = hintFlowPyramid[0];
  PLImage* weight = hintWeightPyramid[level];
  const float kx =
      static_cast<float>(weight->lastColumn) / static_cast<float>(weight0->lastColumn);
  const float ky = static_cast<float>(weight->lastRow) / static_cast<float>(weight0->lastRow);
  // For each level-0 row, the last hinted pixel left of the last column, in raster order up
  // to that row: whose tap weights the row's last column reuses.
  const int32_t rows0 = weight0->height;
  IntBlock carryX(rows0);
  IntBlock carryY(rows0);
  int32_t lastX = -1;
  int32_t lastY = -1;
  for (int32_t y = 0; y < rows0; ++y) {
    const float* w = FRow(weight0, y);
    for (int32_t x = weight0->lastColumn - 1; x >= 0; --x) {
      if (w[x] != 0.0f) {
        lastX = x;
        lastY = y;
        break;
      }
    }
    carryX.data[y] = lastX;
    carryY.data[y] = lastY;
  }
  PLForkImageRows(weight->height, SplatWorker, t, weight, hintFlowPyramid[level], weight0,
                  flow0, &kx, &ky, static_cast<const int32_t*>(carryX.data),
                  static_cast<const int32_t*>(carryY.data));
}

void PLMorphFlow::ScatterRelax(int32_t level, PLImage* t, NuvIdleAndProgressClass* progress) {
  PLImage* flow = flowPyramid[level];
  PLImage* hint = hintFlowPyramid[level];
  PLImage* weight = hintWeightPyramid[level];
  PLGaussBlur(t, 0, 1.95f);
  PLGaussBlur(hint, 0, 1.95f);
  progress->Idle();
  PLGaussBlur(weight, 0, 1.95f);
  progress->Idle();
  PLForkImageRows(weight->height, NormaliseWorker, hint, t, static_cast<const PLImage*>(weight));
  Multiply(t, 2.0f);
  for (int32_t i = 0; i < iterationsPerLevel; ++i) {
    for (int32_t twice = 0; twice < 2; ++twice) {
      PLForkImageRows(weight->height, RelaxWorker, flow, static_cast<const PLImage*>(hint),
                      static_cast<const PLImage*>(t), static_cast<const PLImage*>(weight));
      progress->Idle();
    }
    PLGaussBlur(flow, 0, 2.5f);
  }
}

void PLMorphFlow::SolveFromHints(PLImage* flowOut, NuvIdleAndProgressClass* progress,
                                 uint8_t scatter) {
  if (!flowPyramid) return;  // a failed object is never run
  NuvIdleAndProgressClass local(progress);

  float totalWork = 0.0f;
  for (int32_t level = startLevel; level >= 0; --level)
    totalWork += static_cast<float>(iterationsPerLevel) *
                 static_cast<float>(hintFlowPyramid[level]->width *
                                    hintFlowPyramid[level]->height);
  // kept: the level cleared is the start of the previous run; when this run starts
  // elsewhere, its start level keeps what it held (callers that change the factor between
  // runs see the old content there, blurred).
  Clear(flowPyramid[startLevel]);
  BuildHintPyramids();
  float startFraction = 0.0f;
  PLFlowStartLevel(numLevels, levelFactor, &startLevel, &startFraction);
  float doneWork = 0.0f;

  for (int32_t level = startLevel; level >= 0; --level) {
    PLImage* flow = flowPyramid[level];
    PLImage* hint = hintFlowPyramid[level];
    PLImage* weight = hintWeightPyramid[level];
    if (scatter == 0) {
      ApplyHints(flow, hint, weight, 1);
      SmoothStage(flow, false, 1);
      local.Idle();
      if (level == 0) {
        ApplyHints(flow, hint, weight, 1);
        local.Idle();
      }
    } else {
      std::unique_ptr<PLImage> t = NewFloatImage(flow->width, flow->height, 1);
      Clear(weight);
      Clear(t.get());
      Clear(hint);
      // kept: at level 0 the clear above has just emptied the level-0 hints the refill
      // reads, so level 0 is refilled with nothing and keeps no hints; reading them before
      // the clear would change every scatter result at the finest level.
      if (level > 0) Splat(level, t.get());
      local.Idle();
      if (level == startLevel) {
        ApplyHints(flow, hint, weight, 1);
        SmoothStage(flow, false, 1);
        local.Idle();
      }
      if (level == 0) {
        ApplyHints(flow, hint, weight, 1);
        PLGaussBlur(flow, 0, 5.0f);
        ApplyHints(flow, hint, weight, 1);
      } else {
        ScatterRelax(level, t.get(), &local);
      }
    }
    if (level == startLevel) Multiply(flow, startFraction);
    if (level > 0) UpsampleFlow(flowPyramid[level - 1], flow);
    doneWork += static_cast<float>(hint->width * hint->height);
    local.Progress(doneWork / totalWork);
  }

  if (flowOut && flowOut != flowPyramid[0] && flowOut->dataType == PLFloat &&
      flowOut->channels == 2 && flowOut->data) {
    const int32_t w = flowOut->width < workWidth ? flowOut->width : workWidth;
    const int32_t h = flowOut->height < workHeight ? flowOut->height : workHeight;
    if (w > 0 && h > 0) CopyRect(flowOut, 0, 0, flowPyramid[0], 0, 0, w, h);
  }
  local.Progress(1.0f);
}
