// flowblur: the retiming engine: state, defaults of the virtual operations, quality sizing,
// frame fetching and RenderAtTime with its single-layer path.
#include "retime/NuvChronar4.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <utility>

#include "blur/PLMotionBlur.h"
#include "dissolve/PLMorphFlow.h"
#include "fill/InterpolateField.h"
#include "image/PLImageCopy.h"
#include "retime/NuvChronar4Private.h"
#include "retime/PLLayerOps.h"

// ---- State --------------------------------------------------------------------------------

NuvChronar4Internal::NuvChronar4Internal() = default;

NuvChronar4Internal::~NuvChronar4Internal() {
  ReleaseFlows();
  ReleaseSolvers();
}

void NuvChronar4Internal::ReleaseFlows() {
  delete forwardFlow;
  forwardFlow = nullptr;
  delete backwardFlow;
  backwardFlow = nullptr;
  for (int32_t l = 0; l < kNuvChronarMaxLayers; ++l) {
    delete forwardLayerFlows[l];
    forwardLayerFlows[l] = nullptr;
    delete backwardLayerFlows[l];
    backwardLayerFlows[l] = nullptr;
  }
}

void NuvChronar4Internal::ReleaseSolvers() {
  ForgetPyramids();
  delete estimator;
  estimator = nullptr;
  delete morphFlow;
  morphFlow = nullptr;
}

NuvChronar4::NuvChronar4() {
  // A failed allocation leaves internal null: every operation then answers 1.
  try {
    internal = new NuvChronar4Internal();
  } catch (PLErr&) {
    internal = nullptr;
  }
}

NuvChronar4::~NuvChronar4() { delete internal; }

// ---- Defaults of the virtual operations ---------------------------------------------------

int32_t NuvChronar4::OverrideTopLevelFactor(float, float*) { return 0; }
int32_t NuvChronar4::OverrideLevelFactor(float, float*, int32_t) { return 0; }
int32_t NuvChronar4::OverrideChoke(float, float*, int32_t) { return 0; }
void NuvChronar4::UseEstimatorForLayer(float, uint8_t* useEstimator, int32_t) {
  *useEstimator = 1;
}
void NuvChronar4::UseEstimatorForTop(float, uint8_t* useEstimator) { *useEstimator = 1; }
int32_t NuvChronar4::TopLayer() { return internal ? internal->layerCount - 1 : 0; }
int32_t NuvChronar4::BottomLayer() { return 0; }
int32_t NuvChronar4::GetWarpStyle() { return 0; }
int32_t NuvChronar4::UseEdgeBlend() { return 0; }
int32_t NuvChronar4::HintCount(float, float, int32_t) { return 0; }
void NuvChronar4::GetHints(float, float, int32_t, int32_t, int32_t* count, const float** x0,
                           const float** y0, const float** x1, const float** y1) {
  *count = 0;
  *x0 = *y0 = *x1 = *y1 = nullptr;
}
void NuvChronar4::ReservedHook() {}
void NuvChronar4::GetFillColor(uint8_t* red, uint8_t* green, uint8_t* blue) {
  *red = *green = *blue = 255;
}
int32_t NuvChronar4::UsesExternalFlow() { return 0; }
int32_t NuvChronar4::ReservedPointer1(void** out) {
  *out = nullptr;
  return 0;
}
int32_t NuvChronar4::ReservedPointer2(void** out) {
  *out = nullptr;
  return 0;
}
int32_t NuvChronar4::ReservedQuery1() { return 0; }
int32_t NuvChronar4::ReservedQuery2() { return 0; }
void NuvChronar4::GetScale(float* first, float* second) {
  *first = 1.0f;
  *second = 1.0f;
}
int32_t NuvChronar4::OverrideAmount(float*) { return 0; }

// ---- Quality ------------------------------------------------------------------------------

int32_t NuvChronar4::SetQuality(int32_t width, int32_t height, int32_t quality,
                                int32_t firstScale, float secondScale, int32_t useFlowSetting,
                                int64_t interpolationSetting, int32_t warpStyleSetting) {
  if (!internal) return 1;
  if (quality < 0 || quality > 5) return PLErrParameter;
  NuvChronar4Internal* in = internal;
  bool changed = in->width != width || in->height != height || flowQuality != quality ||
                 scaleX != firstScale || !(scaleY == secondScale) ||
                 in->useFlow != useFlowSetting || in->interpolation != interpolationSetting ||
                 in->warpStyle != warpStyleSetting;
  if (changed) {
    in->width = width;
    in->height = height;
    flowQuality = quality;
    scaleX = firstScale;
    scaleY = secondScale;
    scaleYStored = secondScale;
    in->useFlow = useFlowSetting;
    in->interpolation = interpolationSetting;
    in->warpStyle = warpStyleSetting;
  }
  static const int32_t kBase[6] = {3, 3, 3, 2, 1, 0};
  int32_t base = kBase[quality];
  if (firstScale == 0 && base <= 2) ++base;
  in->flowMode = base;
  int32_t w = width, h = height;
  for (int32_t k = 0; k < base; ++k) {
    w /= 2;
    h /= 2;
  }
  in->flowWidth = w;
  in->flowHeight = h;
  return 0;
}

namespace chronar {

ImagePtr NewImage(int32_t width, int32_t height, int32_t channels, int32_t dataType) {
  ImagePtr image(new PLImage(0, width, height, channels, dataType, 0));
  if (image->errorCode) throw static_cast<PLErr>(image->errorCode);
  Clear(image.get());
  return image;
}

ImagePtr NewImageLike(const PLImage* like, int32_t channels) {
  return NewImage(like->width, like->height, channels, like->dataType);
}

bool NearWhole(float t) {
  float f = t - static_cast<float>(static_cast<int32_t>(t));
  return std::fabs(f) <= 0.005f || std::fabs(f - 1.0f) <= 0.005f;
}

// ---- Fetching -----------------------------------------------------------------------------

RenderState::RenderState(NuvChronar4* e, NuvImage* out, NuvIdleAndProgressClass* parent)
    : engine(e), in(e->internal), outputView(out), output(out->internal), progress(parent) {}

RenderState::~RenderState() { ReleaseFetched(); }

namespace {

bool Usable(const NuvImage* view) {
  return view && view->internal && view->internal->data && view->internal->width > 0 &&
         view->internal->height > 0;
}

bool Canonical(const NuvImage* view) {
  return view->GetRedIndex() == 0 && view->GetGreenIndex() == 1 && view->GetBlueIndex() == 2 &&
         view->GetAlphaIndex() == 3;
}

}  // namespace

PLImage* RenderState::Fetch(Source source, int32_t frameNumber, int32_t matte) {
  int32_t fileFrame = frameNumber;
  if (inputFields) fileFrame = frameNumber / 2;  // mattes follow their frame, unfielded
  NuvImage* view = nullptr;
  lastFetchEmpty = false;
  int32_t status = source == Source::kDisplay  ? engine->GetFrame(&view, fileFrame)
                   : source == Source::kMotion ? engine->GetMotionFrame(&view, fileFrame)
                                               : engine->GetMatte(&view, fileFrame, matte);
  auto giveBack = [&](NuvImage* v) {
    if (!v) return;
    if (source == Source::kMatte)
      engine->ReleaseMatte(v);
    else
      engine->ReleaseFrame(v);
  };
  if (status != 0) {
    giveBack(view);
    bool passed = status == PLErrInterrupted || status == PLErrParameter;
    throw static_cast<PLErr>(passed ? status : PLErrOutOfMemory);
  }
  if (!Usable(view)) {
    giveBack(view);
    lastFetchEmpty = true;
    throw PLErrParameter;
  }
  const PLImage* im = view->internal;
  bool channelsFit =
      source == Source::kMatte ? im->channels == 1 : im->channels == output->channels;
  // A motion frame read for its luma only may keep a matte that the output leaves out.
  if (source == Source::kMotion && motionForLumaOnly && (im->channels == 3 || im->channels == 4) &&
      (output->channels == 3 || output->channels == 4))
    channelsFit = true;
  bool fits = im->width == output->width && im->height == output->height &&
              im->dataType == output->dataType && channelsFit;
  if (!fits) {
    giveBack(view);
    throw PLErrParameter;
  }
  // A view already held (the same frame fetched twice) is reordered only once.
  bool alreadyHeld = false;
  for (const Held& h : held_)
    if (h.view == view) alreadyHeld = true;
  bool reorder = !alreadyHeld && im->channels == 4 && !Canonical(view);
  held_.push_back(Held{view, source, frameNumber, matte, false, nullptr});
  if (reorder) {
    ToCanonicalOrder(view);
    held_.back().reordered = true;
  }
  if (inputFields && source != Source::kMatte) {
    // A whole frame from one field: the field's number follows the parity of n, swapped
    // for the other field order.
    if (im->channels != 4) throw PLErrParameter;
    int32_t parity = frameNumber & 1;
    int32_t field = inputFields == 2 ? 3 - parity : 2 + parity;
    ImagePtr whole = NewImageLike(im, 4);
    InterpolateField(whole.get(), im, PLFieldAverage, field);
    held_.back().field = std::move(whole);
    return held_.back().field.get();
  }
  return view->internal;
}

void RenderState::ReleaseFetched() {
  for (Held& h : held_)
    if (h.reordered) FromCanonicalOrder(h.view);
  std::vector<Held> held = std::move(held_);
  held_.clear();
  for (Held& h : held) {
    if (h.source == Source::kMatte)
      engine->ReleaseMatte(h.view);
    else
      engine->ReleaseFrame(h.view);
  }
}

// ---- Solvers and flow runs ----------------------------------------------------------------

void BringUpSolver(NuvChronar4Internal* in, int32_t layer, float levelFactor) {
  int32_t masks = in->layerCount != 1 ? 1 : 0;
  if (in->useEstimator[layer]) {
    delete in->morphFlow;
    in->morphFlow = nullptr;
    PLOpticalFlowUChar* e = in->estimator;
    if (e && (e->workWidth != in->flowWidth || e->workHeight != in->flowHeight ||
              e->mode != in->flowMode || e->useMasks != masks || e->useHints != in->hintsPresent)) {
      in->ForgetPyramids();
      delete e;
      in->estimator = e = nullptr;
    }
    if (!e) {
      e = new PLOpticalFlowUChar(0, in->width, in->height, in->flowMode, in->hintsPresent, masks,
                                 2);
      if (e->errorCode) {
        PLErr err = static_cast<PLErr>(e->errorCode);
        delete e;
        throw err;
      }
      in->estimator = e;
    }
    e->SetLevelFactor(levelFactor);
  } else {
    in->ForgetPyramids();
    delete in->estimator;
    in->estimator = nullptr;
    PLMorphFlow* m = in->morphFlow;
    if (m && (m->workWidth != in->flowWidth || m->workHeight != in->flowHeight)) {
      delete m;
      in->morphFlow = m = nullptr;
    }
    if (!m) {
      m = new PLMorphFlow(0, in->width, in->height, in->flowMode, 2);
      if (m->errorCode) {
        PLErr err = static_cast<PLErr>(m->errorCode);
        delete m;
        throw err;
      }
      in->morphFlow = m;
    }
    m->SetLevelFactor(levelFactor);
  }
}

namespace {

// Every hint point pair of `layer` for the run from fromTime to toTime, given to `add`.
template <class Add>
void ForEachHint(NuvChronar4* engine, NuvChronar4Internal* in, float fromTime, float toTime,
                 int32_t layer, Add add) {
  int32_t sets = in->hintsPresent ? engine->HintCount(fromTime, toTime, layer) : 0;
  for (int32_t s = 0; s < sets; ++s) {
    int32_t count = 0;
    const float *x0 = nullptr, *y0 = nullptr, *x1 = nullptr, *y1 = nullptr;
    engine->GetHints(fromTime, toTime, layer, s, &count, &x0, &y0, &x1, &y1);
    if (!x0 || !y0 || !x1 || !y1) continue;
    for (int32_t k = 0; k < count; ++k) add(x0[k], y0[k], x1[k], y1[k]);
  }
}

void GiveEstimatorHints(NuvChronar4* engine, NuvChronar4Internal* in, float fromTime,
                        float toTime, int32_t layer) {
  if (!in->hintsPresent) return;
  PLOpticalFlowUChar* e = in->estimator;
  const float w = static_cast<float>(in->width), h = static_cast<float>(in->height);
  e->ClearFlowHints();
  ForEachHint(engine, in, fromTime, toTime, layer,
              [&](float a, float b, float c, float d) { e->AddFlowHint(a, b, c, d, w, h); });
  e->FinishFlowHints();
}

}  // namespace

void RunFlow(NuvChronar4* engine, NuvChronar4Internal* in, PLImage** flowOut,
             const PLImage* from, const PLImage* to, float fromTime, float toTime,
             int32_t layer, NuvIdleAndProgressClass* progress, const LayerInputs* li) {
  // Whatever the estimator held is about to be rebuilt from these pictures.
  in->ForgetPyramids();
  if (!*flowOut) *flowOut = NewImage(in->flowWidth, in->flowHeight, 2, PLFloat).release();
  PLImage* flow = *flowOut;
  const float w = static_cast<float>(in->width), h = static_cast<float>(in->height);
  if (in->estimator) {
    PLOpticalFlowUChar* e = in->estimator;
    GiveEstimatorHints(engine, in, fromTime, toTime, layer);
    in->pyramidSides += 2;
    if (li) {
      e->BuildMaskPyramid(li->fromMaskImage, 0);
      e->BuildMaskPyramid(li->toMaskImage, 1);
      e->BuildPyramidForSide(from, li->fromMatte, li->fromFullMatte, 0, in->edgeBlend != 0);
      e->BuildPyramidForSide(to, li->toMatte, li->toFullMatte, 1, in->edgeBlend != 0);
      e->ComputeFlowFromPyramids(flow, 1, 1, 0, progress);
    } else {
      e->ComputeFlow(flow, from, to, 1, 1, 0, progress, in->edgeBlend != 0);
    }
  } else if (in->morphFlow) {
    PLMorphFlow* m = in->morphFlow;
    m->ClearHints();
    ForEachHint(engine, in, fromTime, toTime, layer,
                [&](float a, float b, float c, float d) { m->AddHint(a, b, c, d, w, h); });
    m->FinishHints();
    m->SolveFromHints(flow, progress, 0);
  } else {
    throw PLErrParameter;
  }
  ++in->flowRuns;
  if (progress) progress->Idle();
}

void RunFrameFlow(NuvChronar4* engine, NuvChronar4Internal* in, PLImage** flowOut,
                  int32_t fromFrame, int32_t toFrame, RenderState& st, float fromTime,
                  float toTime, int32_t layer) {
  PLOpticalFlowUChar* e = in->estimator;
  // Reuse needs the plain run: no masks (their pyramids are not the frames'), two frames.
  const bool reuse = engine->stableFrames == 1 && e && e->useMasks == 0 &&
                     fromFrame != toFrame && fromFrame >= 0 && toFrame >= 0;
  int32_t* held = in->pyramidFrames;
  if (!reuse || (held[0] != fromFrame && held[0] != toFrame && held[1] != fromFrame &&
                 held[1] != toFrame)) {
    const PLImage* from = st.Fetch(Source::kMotion, fromFrame);
    const PLImage* to = st.Fetch(Source::kMotion, toFrame);
    RunFlow(engine, in, flowOut, from, to, fromTime, toTime, layer, &st.progress, nullptr);
    if (reuse && e == in->estimator) {
      held[0] = fromFrame;
      held[1] = toFrame;
    }
    return;
  }
  // One side already holds one of the frames: bring it to its place, prepare the other.
  // Built one side at a time, a pyramid is the same bits as ComputeFlow's.
  if (held[0] == toFrame || held[1] == fromFrame) {
    e->SwapInputs();
    std::swap(held[0], held[1]);
  }
  const bool edge = in->edgeBlend != 0;
  for (int32_t side = 0; side < 2; ++side) {
    const int32_t wanted = side == 0 ? fromFrame : toFrame;
    if (held[side] == wanted) continue;
    const PLImage* picture = st.Fetch(Source::kMotion, wanted);
    held[side] = -1;  // half built if this throws
    e->BuildPyramidForSide(picture, nullptr, nullptr, side, edge);
    e->PrefilterSide(side);
    ++in->pyramidSides;
    held[side] = wanted;
  }
  if (!*flowOut) *flowOut = NewImage(in->flowWidth, in->flowHeight, 2, PLFloat).release();
  GiveEstimatorHints(engine, in, fromTime, toTime, layer);
  e->SolvePyramid(*flowOut, 1, 0, &st.progress);
  ++in->flowRuns;
  st.progress.Idle();
}

}  // namespace chronar

// ---- RenderAtTime -------------------------------------------------------------------------

using chronar::ImagePtr;
using chronar::RenderState;
using chronar::Source;

namespace {

constexpr float kMaxSourceTime = 268435456.0f;  // 2^28: doubled for fields, still an int32

bool TimeOk(float t) { return std::isfinite(t) && std::fabs(t) < kMaxSourceTime; }

// The single path: one picture of the whole frame from frames i and j.
void SinglePath(NuvChronar4* engine, RenderState& st, PLImage* dst, int32_t i, int32_t j,
                float w, bool exact, bool newPair, const float* levelFactors) {
  NuvChronar4Internal* in = st.in;
  const int32_t layer = engine->TopLayer();
  const bool withFlow = in->useFlow && !exact;
  st.motionForLumaOnly = true;
  const int64_t interp = in->interpolation;
  const int32_t style = in->warpStyle;
  const float ti = static_cast<float>(i), tj = static_cast<float>(j);
  if (withFlow) {
    chronar::BringUpSolver(in, layer, levelFactors[layer]);
    if (interp == 0) {
      bool iToJ = (w < 0.5f && style < 2) || (w >= 0.5f && style >= 2);
      if (newPair || !in->forwardFlow)
        chronar::RunFrameFlow(engine, in, &in->forwardFlow, iToJ ? i : j, iToJ ? j : i, st,
                              iToJ ? ti : tj, iToJ ? tj : ti, layer);
    } else if (newPair || !in->forwardFlow || !in->backwardFlow) {
      chronar::RunFrameFlow(engine, in, &in->forwardFlow, j, i, st, tj, ti, layer);
      chronar::RunFrameFlow(engine, in, &in->backwardFlow, i, j, st, ti, tj, layer);
    }
  }
  const PLImage* a = nullptr;
  const PLImage* b = nullptr;
  if (interp == 0) {
    // Only the nearer frame is shown.
    if (w >= 0.5f)
      a = st.Fetch(Source::kDisplay, i);
    else
      b = st.Fetch(Source::kDisplay, j);
  } else {
    a = st.Fetch(Source::kDisplay, i);
    b = st.Fetch(Source::kDisplay, j);
  }
  chronar::WarpAndMix(in, dst, a, b, w, exact, withFlow ? in->forwardFlow : nullptr,
                      withFlow ? in->backwardFlow : nullptr, &st.progress);
}

// Synthetic shutter: the picture blurred along the pair's flow.
void Shutter(NuvChronar4* engine, RenderState& st, PLImage* dst, float amount) {
  // The pair's flow, or with layers the farthest layer's.
  const PLImage* flow = st.in->forwardFlow;
  if (!flow) flow = st.in->forwardLayerFlows[st.in->lastTopLayer];
  if (!flow || !(std::fabs(amount) >= 1e-06f)) return;  // no flow, or a copy
  ImagePtr copy = chronar::NewImageLike(dst, dst->channels);
  CopyWhole(copy.get(), dst);
  PLMotionBlur(dst, copy.get(), flow, engine->blurQuality == 1 ? 1 : 0, 0, &st.progress, 0,
               amount);
}

// Rows of `field` into the rows of one parity of dst.
void InterleaveRows(PLImage* dst, const PLImage* field, int32_t parity) {
  size_t bytes = static_cast<size_t>(dst->width) * dst->bytesPerPixel;
  for (int32_t y = parity; y < dst->height; y += 2) std::memcpy(dst->Row(y), field->Row(y), bytes);
}

}  // namespace

int32_t NuvChronar4::RenderAtTime(NuvImage* output, float time, int32_t quality, int32_t keepFlow,
                                  NuvIdleAndProgressClass* progress) {
  float levelFactors[kNuvChronarMaxLayers];
  float chokes[kNuvChronarMaxLayers];
  for (int32_t k = 0; k < kNuvChronarMaxLayers; ++k) {
    levelFactors[k] = 1.0f;
    chokes[k] = 0.0f;
  }
  return RenderAtTime(output, time, quality, 0, 0, 0, levelFactors, chokes, keepFlow, progress);
}

int32_t NuvChronar4::RenderAtTime(NuvImage* output, float time, int32_t quality,
                                  int32_t inputFields, int32_t outputFields, int32_t matteCount,
                                  const float* levelFactorsIn, const float* chokesIn,
                                  int32_t keepFlow, NuvIdleAndProgressClass* progress) {
  if (!internal) return 1;
  NuvChronar4Internal* in = internal;
  // Checks before anything is written.
  if (!output || !output->internal || !output->internal->data) return PLErrParameter;
  PLImage* out = output->internal;
  if (out->width < 1 || out->height < 1 || out->channels < 1 || out->channels > 4 ||
      out->dataType < PLUChar || out->dataType > PLFloat)
    return PLErrParameter;
  if (matteCount < 0 || matteCount > kNuvChronarMaxLayers - 1) return PLErrParameter;
  if (matteCount > 0 && (!levelFactorsIn || !chokesIn || out->channels < 3))
    return PLErrParameter;
  if (!std::isfinite(time) || quality < 0 || quality > 5) return PLErrParameter;
  if (inputFields < 0 || inputFields > 2 || outputFields < 0 || outputFields > 2)
    return PLErrParameter;
  if (interpolation < 0 || interpolation > 2) return PLErrParameter;
  const int32_t style = GetWarpStyle();
  if (style < 0 || style > 3) return PLErrParameter;

  RenderState st(this, output, progress);
  st.inputFields = inputFields;
  try {
    in->layerCount = matteCount + 1;
    Clear(out);
    ImagePtr fieldBuffer;
    if (outputFields) fieldBuffer = chronar::NewImageLike(out, out->channels);
    for (int32_t k = 0; k < kNuvChronarMaxLayers; ++k) in->useEstimator[k] = 1;
    if (UsesExternalFlow() == 1) keepFlow = 0;

    const float passStep = outputFields ? 0.5f : 1.0f;
    float t0 = 0.0f, t1 = 0.0f;
    MapTime(time, &t0);
    MapTime(time + passStep, &t1);
    if (!TimeOk(t0) || !TimeOk(t1)) throw PLErrParameter;
    int32_t kind = FrameKind(t0);
    int32_t nextKind = FrameKind(t0 + (inputFields ? 0.5f : 1.0f));
    int64_t interpNow = interpolation;
    int32_t useFlowNow = useFlow;
    if (kind != nextKind || kind == 3 || kind == 4) {
      // Across a change of shot, or at a frame that must not be mixed: the nearest frame.
      keepFlow = 0;
      interpNow = 0;
      useFlowNow = 0;
    }
    float firstScale = 1.0f, secondScale = 1.0f;
    GetScale(&firstScale, &secondScale);
    int32_t firstScaleInt =
        firstScale >= 1.0f ? (firstScale < 2147483647.0f ? static_cast<int32_t>(firstScale)
                                                         : 2147483647)
                           : 0;
    if (int32_t status = SetQuality(out->width, out->height, quality, firstScaleInt,
                                    secondScale, useFlowNow, interpNow, style))
      throw static_cast<PLErr>(status);
    // A flow grid below 2 x 2 cannot be estimated or read: such outputs are mixed only.
    if (in->flowWidth < 2 || in->flowHeight < 2) in->useFlow = 0;
    if (!(firstScale > 0.01f && secondScale >= 0.01f)) {
      st.ReleaseFetched();
      if (!keepFlow) in->ReleaseFlows();
      return 0;  // nothing to show at this scale: the output stays clear
    }

    float levelFactors[kNuvChronarMaxLayers];
    float chokes[kNuvChronarMaxLayers];
    for (int32_t k = 0; k < kNuvChronarMaxLayers; ++k) {
      levelFactors[k] = k <= matteCount && levelFactorsIn ? levelFactorsIn[k] : 1.0f;
      chokes[k] = k < matteCount && chokesIn ? chokesIn[k] : 0.0f;
    }
    const int32_t top = in->layerCount - 1;
    const int32_t passes = outputFields ? 2 : 1;
    bool anyExact = false;
    for (int32_t pass = 0; pass < passes; ++pass) {
      PLImage* dst = pass == 0 ? out : fieldBuffer.get();
      if (outputFields) {
        MapTime(time + pass * passStep, &t0);
        MapTime(time + (pass + 1) * passStep, &t1);
        if (!TimeOk(t0) || !TimeOk(t1)) throw PLErrParameter;
      }
      const float span = std::fabs(t0 - t1);
      const bool shutterOn = span > 1e-06f && shutter > 0.005f;
      float amount = (span - 1.0f) * shutter;
      amount = amount < -10.0f ? -10.0f : amount > 20.0f ? 20.0f : amount;
      OverrideAmount(&amount);
      for (int32_t l = 0; l < top; ++l) OverrideLevelFactor(t0, &levelFactors[l], l);
      for (int32_t m = 0; m < matteCount; ++m) OverrideChoke(t0, &chokes[m], m);
      for (int32_t l = 0; l < top; ++l) UseEstimatorForLayer(t0, &in->useEstimator[l], l);
      OverrideTopLevelFactor(t0, &levelFactors[top]);
      UseEstimatorForTop(t0, &in->useEstimator[top]);
      if (inputFields) {
        t0 *= 2.0f;
        t1 *= 2.0f;
      }
      bool chokesZero = true;
      for (int32_t m = 0; m < matteCount; ++m)
        if (chokes[m] != 0.0f) chokesZero = false;
      const bool exact = chronar::NearWhole(t0) && (in->layerCount == 1 || chokesZero) &&
                         !shutterOn;
      anyExact = anyExact || exact;
      const int32_t i = static_cast<int32_t>(t0);  // kept: toward zero, as frame numbers
      const int32_t j = i + 1;
      const float w = 1.0f - (t0 - static_cast<float>(i));

      int32_t nearFirst = w >= 0.5f ? i : j, nearSecond = w >= 0.5f ? j : i;
      bool newPair = false;
      if (!exact) {
        if (in->interpolation == 0)
          newPair = in->lastFirst != nearFirst || in->lastSecond != nearSecond;
        else
          newPair = in->lastFrame != i;
      }
      in->lastFrame = i;
      in->lastFirst = nearFirst;
      in->lastSecond = nearSecond;

      const int32_t topLayer = TopLayer(), bottomLayer = BottomLayer();
      if (topLayer < bottomLayer || bottomLayer < 0 || topLayer > top)
        throw PLErrParameter;  // a layer range the pictures do not have
      const uint8_t edge = UseEdgeBlend() == 1 ? 1 : 0;
      bool keysDiffer =
          in->interpolation != in->lastInterpolation || in->useFlow != in->lastUseFlow ||
          in->layerCount != in->lastLayerCount || in->flowMode != in->lastFlowMode ||
          in->warpStyle != in->lastWarpStyle || inputFields != in->lastInputFields ||
          outputFields != in->lastOutputFields ||
          !(static_cast<float>(scaleX) == in->lastScaleX) || !(scaleY == in->lastScaleY) ||
          topLayer != in->lastTopLayer || bottomLayer != in->lastBottomLayer ||
          edge != in->edgeBlend || FloatArraysDiffer(levelFactors, in->levelFactors, top + 1) ||
          FloatArraysDiffer(chokes, in->chokes, matteCount);
      // Prepared pyramids outlive exact frames (their frames stay the same), not a change of
      // settings or flow keeping turned off.
      if (!keepFlow || keysDiffer) in->ForgetPyramids();
      if (!in->useFlow || exact || !keepFlow || keysDiffer) {
        in->ReleaseFlows();
        if (!exact) newPair = true;
      }
      bool solverMisfit =
          (in->estimator && (in->estimator->workWidth != in->flowWidth ||
                             in->estimator->workHeight != in->flowHeight)) ||
          (in->morphFlow && (in->morphFlow->workWidth != in->flowWidth ||
                             in->morphFlow->workHeight != in->flowHeight));
      if (solverMisfit) {
        in->ReleaseFlows();
        in->ReleaseSolvers();
        if (!exact) newPair = true;
      }
      if (in->useFlow && !exact) {
        uint8_t hints = 0;
        for (int32_t l = bottomLayer; l <= topLayer; ++l)
          if (HintCount(static_cast<float>(i), static_cast<float>(j), l) > 0) hints = 1;
        if (hints != in->hintsPresent) {
          in->ReleaseFlows();
          in->hintsPresent = hints;
          newPair = true;
        }
      }
      in->lastInterpolation = in->interpolation;
      in->lastUseFlow = in->useFlow;
      in->lastLayerCount = in->layerCount;
      in->lastFlowMode = in->flowMode;
      in->lastWarpStyle = in->warpStyle;
      in->lastInputFields = inputFields;
      in->lastOutputFields = outputFields;
      in->lastScaleX = static_cast<float>(scaleX);
      in->lastScaleY = scaleY;
      in->lastTopLayer = topLayer;
      in->lastBottomLayer = bottomLayer;
      in->edgeBlend = edge;
      for (int32_t k = 0; k < kNuvChronarMaxLayers; ++k) {
        in->levelFactors[k] = levelFactors[k];
        in->chokes[k] = chokes[k];
      }

      if (in->layerCount == 1 || topLayer == bottomLayer)
        SinglePath(this, st, dst, i, j, w, exact, newPair, levelFactors);
      else
        chronar::LayeredPath(this, st, dst, i, j, w, exact, newPair, levelFactors, chokes,
                             matteCount);
      if (shutterOn) Shutter(this, st, dst, amount);
      st.ReleaseFetched();
      if (exact) in->ReleaseFlows();
    }
    if (outputFields) {
      // Pass 0 is the first field in time: the even rows with field order 1, the odd
      // rows with 2; pass 1 fills the other rows. The output holds pass 0 already.
      InterleaveRows(out, fieldBuffer.get(), outputFields == 1 ? 1 : 0);
    }
    FromCanonicalOrder(output);
    st.ReleaseFetched();
    if (anyExact || !keepFlow) in->ReleaseFlows();
    return 0;
  } catch (PLErr& err) {
    in->ReleaseFlows();
    in->ForgetPyramids();
    st.ReleaseFetched();
    return err;
  }
}
