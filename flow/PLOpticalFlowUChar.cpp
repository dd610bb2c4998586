// flowblur: the estimator object: construction of its pyramids, the public entry points
// and the one-shot convenience.
#include "flow/PLOpticalFlowUChar.h"

#include <cmath>
#include <cstdio>

#include "flow/PLFlowPrivate.h"
#include "flow/PLFlowStages.h"
#include "image/PLImageCopy.h"

// ---- Level geometry ----------------------------------------------------------------------

int32_t PLFlowLevelCount(int32_t workWidth, int32_t workHeight, int32_t minLevelSize) {
  int32_t levels = 1;
  int32_t w = workWidth;
  int32_t h = workHeight;
  for (;;) {
    w /= 2;
    h /= 2;
    // Both being 2 is a stop of its own in the rule and is covered by "below 3".
    if (w < minLevelSize || h < minLevelSize || w < 3 || h < 3) break;
    ++levels;
  }
  return levels;
}

void PLFlowLevelSize(int32_t workWidth, int32_t workHeight, int32_t level, int32_t* width,
                     int32_t* height) {
  int32_t w = workWidth;
  int32_t h = workHeight;
  for (int32_t i = 0; i < level; ++i) {
    // The floor of 2 is a guard: the level count stops before it would act.
    w = w / 2 > 2 ? w / 2 : 2;
    h = h / 2 > 2 ? h / 2 : 2;
  }
  *width = w;
  *height = h;
}

// ---- Construction ------------------------------------------------------------------------

PLOpticalFlowUChar::PLOpticalFlowUChar(int32_t throwOnError, int32_t width, int32_t height,
                                       int32_t modeValue, int32_t hints, int32_t masks,
                                       int32_t minSize) {
  Construct(throwOnError, width, height, modeValue, hints, masks, minSize);
}

PLOpticalFlowUChar::PLOpticalFlowUChar(int32_t width, int32_t height, int32_t modeValue,
                                       int32_t hints, int32_t masks, int32_t minSize) {
  Construct(1, width, height, modeValue, hints, masks, minSize);
}

void PLOpticalFlowUChar::Construct(int32_t throwOnError, int32_t width, int32_t height,
                                   int32_t modeValue, int32_t hints, int32_t masks,
                                   int32_t minSize) {
  iterationsPerLevel = 3;
  mode = modeValue;
  useHints = hints;
  useMasks = masks;
  minLevelSize = minSize;
  inputWidth = width;
  inputHeight = height;
  levelFactor = 1.0f;
  inputIsYUV = 0;
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
  workMaxX = w - 1;
  workMaxY = h - 1;
  numLevels = PLFlowLevelCount(w, h, minLevelSize);
  startLevel = numLevels - 1;
  try {
    // A working size below 1 has no pixel to estimate: outside the domain.
    if (w < 1 || h < 1) throw PLErrParameter;
    PLImage*** pyramids[] = {&structurePyramid, &residualPyramid,  &secondPyramid,
                             &firstPyramid,     &flowPyramid,      &hintFlowPyramid,
                             &hintWeightPyramid, &firstMaskPyramid, &secondMaskPyramid,
                             &gradXPyramid,     &gradYPyramid};
    const int32_t channels[] = {3, 2, 1, 1, 2, 2, 1, 1, 1, 1, 1};
    const bool wanted[] = {true, true, true, true, true, useHints == 1, useHints == 1,
                           useMasks == 1, useMasks == 1, true, true};
    for (int32_t p = 0; p < 11; ++p)
      if (wanted[p]) *pyramids[p] = PLFlowNewPyramid(numLevels);
    for (int32_t p = 0; p < 11; ++p) {
      if (!wanted[p]) continue;
      for (int32_t level = 0; level < numLevels; ++level) {
        int32_t lw, lh;
        PLFlowLevelSize(w, h, level, &lw, &lh);
        PLImage* image = NUV_NEW PLImage(0, lw, lh, channels[p], PLFloat, 0);
        (*pyramids[p])[level] = image;
        if (image->errorCode != 0) throw static_cast<PLErr>(image->errorCode);
      }
    }
    // An unknown mode produces no luma; start it from zero rather than from whatever the
    // fresh memory held, so that such a run is at least repeatable.
    if (mode < 0 || mode > 3) {
      Clear(firstPyramid[0]);
      Clear(secondPyramid[0]);
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

void PLOpticalFlowUChar::ReleaseAll() {
  PLFlowDeletePyramid(structurePyramid, numLevels);
  PLFlowDeletePyramid(residualPyramid, numLevels);
  PLFlowDeletePyramid(secondPyramid, numLevels);
  PLFlowDeletePyramid(firstPyramid, numLevels);
  PLFlowDeletePyramid(flowPyramid, numLevels);
  PLFlowDeletePyramid(hintFlowPyramid, numLevels);
  PLFlowDeletePyramid(hintWeightPyramid, numLevels);
  PLFlowDeletePyramid(firstMaskPyramid, numLevels);
  PLFlowDeletePyramid(secondMaskPyramid, numLevels);
  PLFlowDeletePyramid(gradXPyramid, numLevels);
  PLFlowDeletePyramid(gradYPyramid, numLevels);
}

PLOpticalFlowUChar::~PLOpticalFlowUChar() { ReleaseAll(); }

// ---- Parameters --------------------------------------------------------------------------

void PLOpticalFlowUChar::SetLevelFactor(float factor) { levelFactor = factor; }

void PLOpticalFlowUChar::GetStartLevel(int32_t* level, float* fraction) const {
  PLFlowStartLevel(numLevels, levelFactor, level, fraction);
}

// ---- Entry points ------------------------------------------------------------------------

static bool IncompatibleInputs(const PLImage* first, const PLImage* second) {
  if (!first || !second) return true;
  if (first->width != second->width || first->height != second->height ||
      first->channels != second->channels || first->dataType != second->dataType)
    return true;
  return first->dataType != PLUChar && first->dataType != PLUShort &&
         first->dataType != PLFloat;
}

void PLOpticalFlowUChar::ComputeFlow(PLImage* flowOut, const PLImage* first,
                                     const PLImage* second, int32_t prefilter,
                                     int32_t smoothing, int32_t skipPropagation,
                                     NuvIdleAndProgressClass* progress, bool edgeBlend) {
  if (IncompatibleInputs(first, second)) {
    std::fputs("calculating flow, incompatible inputs!\n", stderr);
    return;
  }
  if (flowOut && (flowOut->width != workWidth || flowOut->height != workHeight ||
                  flowOut->channels != 2))
    std::fputs("calculating flow, incompatible inputs!\n", stderr);
  if (!firstPyramid) return;  // a failed object is never run
  CheckInputSize(first);
  if (prefilter == 1 && !edgeBlend) {
    // The reduction blurs every level but the last exactly as the prefilter would blur it
    // again; keep those blurs in the gradient pyramids (free until the solve) and only
    // subtract. Without the edge mix, which writes level 0 of both gradient pyramids, the
    // outcome is the same to the bit, minus one copy and one blur a level and side.
    BuildInputPyramidKeeping(secondPyramid, second, false, nullptr, gradYPyramid);
    BuildInputPyramidKeeping(firstPyramid, first, false, nullptr, gradXPyramid);
    PrefilterPyramidFromKept(firstPyramid, gradXPyramid);
    PrefilterPyramidFromKept(secondPyramid, gradYPyramid);
  } else {
    BuildInputPyramid(secondPyramid, second, edgeBlend, nullptr);
    BuildInputPyramid(firstPyramid, first, edgeBlend, nullptr);
    PrefilterPyramids(prefilter);
  }
  SolvePyramid(flowOut, smoothing, skipPropagation, progress);
}

void PLOpticalFlowUChar::ComputeFlow(PLImage* flowOut, const PLImage* first,
                                     const PLImage* second, int32_t prefilter,
                                     int32_t smoothing, int32_t skipPropagation,
                                     NuvIdleAndProgressClass* progress) {
  ComputeFlow(flowOut, first, second, prefilter, smoothing, skipPropagation, progress, false);
}

namespace {
// Switches the masks off for one call and puts them back on every way out.
struct MasksOff {
  PLOpticalFlowUChar* flow;
  int32_t useMasks;
  PLImage** firstMask;
  PLImage** secondMask;
  explicit MasksOff(PLOpticalFlowUChar* f)
      : flow(f), useMasks(f->useMasks), firstMask(f->firstMaskPyramid),
        secondMask(f->secondMaskPyramid) {
    f->useMasks = 0;
    f->firstMaskPyramid = nullptr;
    f->secondMaskPyramid = nullptr;
  }
  ~MasksOff() {
    flow->useMasks = useMasks;
    flow->firstMaskPyramid = firstMask;
    flow->secondMaskPyramid = secondMask;
  }
};
}  // namespace

void PLOpticalFlowUChar::ComputeFlowIgnoringMasks(PLImage* flowOut, const PLImage* first,
                                                  const PLImage* second, int32_t prefilter,
                                                  int32_t smoothing, int32_t skipPropagation,
                                                  NuvIdleAndProgressClass* progress,
                                                  bool edgeBlend) {
  try {
    MasksOff off(this);
    ComputeFlow(flowOut, first, second, prefilter, smoothing, skipPropagation, progress,
                edgeBlend);
  } catch (PLErr& err) {
    if (err != PLErrNone) {
      PLErr value = err;
      throw value;
    }
  }
}

void PLOpticalFlowUChar::SolvePyramidIgnoringMasks(PLImage* flowOut, int32_t smoothing,
                                                   int32_t skipPropagation,
                                                   NuvIdleAndProgressClass* progress) {
  try {
    MasksOff off(this);
    SolvePyramid(flowOut, smoothing, skipPropagation, progress);
  } catch (PLErr& err) {
    if (err != PLErrNone) {
      PLErr value = err;
      throw value;
    }
  }
}

void PLOpticalFlowUChar::BuildPyramidForSide(const PLImage* image, const PLImage* other1,
                                             const PLImage* other2, int32_t side,
                                             bool edgeBlend) {
  if (!image) return;
  if (other1 && (!other2 || image->width != other1->width || image->height != other1->height ||
                 image->width != other2->width || image->height != other2->height)) {
    std::fputs("calculating flow, incompatible inputs!\n", stderr);
    return;
  }
  if (!firstPyramid) return;
  CheckInputSize(image);
  PLImage** masks = side == 0 ? firstMaskPyramid : secondMaskPyramid;
  BuildInputPyramid(side == 0 ? firstPyramid : secondPyramid, image, edgeBlend,
                    masks ? masks[0] : nullptr);
}

void PLOpticalFlowUChar::ComputeFlowFromPyramids(PLImage* flowOut, int32_t prefilter,
                                                 int32_t smoothing, int32_t skipPropagation,
                                                 NuvIdleAndProgressClass* progress) {
  if (!firstPyramid) return;
  PrefilterPyramids(prefilter);
  SolvePyramid(flowOut, smoothing, skipPropagation, progress);
}

void PLOpticalFlowUChar::SwapInputs() {
  PLImage** t = firstPyramid;
  firstPyramid = secondPyramid;
  secondPyramid = t;
  t = firstMaskPyramid;
  firstMaskPyramid = secondMaskPyramid;
  secondMaskPyramid = t;
}

PLImage* PLOpticalFlowUChar::GetHintFlow() { return hintFlowPyramid ? hintFlowPyramid[0] : nullptr; }
PLImage* PLOpticalFlowUChar::GetHintWeight() {
  return hintWeightPyramid ? hintWeightPyramid[0] : nullptr;
}
PLImage* PLOpticalFlowUChar::GetFirstMask() {
  return firstMaskPyramid ? firstMaskPyramid[0] : nullptr;
}

// ---- One shot ----------------------------------------------------------------------------

int32_t ComputeFlowOneShot(NuvImage* flow, NuvImage* first, NuvImage* second, int32_t mode,
                           NuvIdleAndProgressClass* progress) {
  if (!flow || !first || !second) return PLErrParameter;
  const PLImage* a = first->internal;
  const PLImage* b = second->internal;
  PLImage* out = flow->internal;
  if (!a || !b || !out) return PLErrParameter;
  if (a->dataType != b->dataType || a->channels != b->channels || a->width != b->width ||
      a->height != b->height)
    return PLErrParameter;
  if (out->channels != 2 || out->dataType != PLFloat) return PLErrParameter;
  try {
    PLOpticalFlowUChar estimator(a->width, a->height, mode, 0, 0, 2);
    const PLImage* level0 = estimator.flowPyramid[0];
    if (out->width != level0->width || out->height != level0->height) return PLErrParameter;
    estimator.ComputeFlow(out, a, b, 1, 1, 0, progress, false);
  } catch (PLErr& err) {
    return err;
  }
  return 0;
}
