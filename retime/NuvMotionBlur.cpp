// flowblur: NuvMotionBlur: flow kept between renders, one-layer and layered blur paths.
#include "retime/NuvMotionBlur.h"

#include <algorithm>
#include <memory>

#include "blur/PLMotionBlur.h"
#include "fill/PLHoleFill.h"
#include "filter/PLBlend.h"
#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"
#include "retime/PLLayerOps.h"

namespace {

// The wrapper behind a view, or null when the view is null, has none, has a width or height
// of 0, or no pixels.
PLImage* WrapperOf(NuvImage* view) {
  if (!view || !view->internal || view->width == 0 || view->height == 0) return nullptr;
  PLImage* image = view->internal;
  if (!image->data || image->width <= 0 || image->height <= 0) return nullptr;
  return image;
}

bool WorkingType(int32_t dataType) {
  return dataType == PLUChar || dataType == PLUShort || dataType == PLFloat;
}

// Whether the bytes of the rows of two images meet (the destination must not be an input).
bool Overlap(const PLImage* a, const PLImage* b) {
  auto span = [](const PLImage* im, uintptr_t* low, uintptr_t* high) {
    const uintptr_t r0 = reinterpret_cast<uintptr_t>(im->Row(0));
    const uintptr_t r1 = reinterpret_cast<uintptr_t>(im->Row(im->lastRow));
    *low = std::min(r0, r1);
    *high = std::max(r0, r1) + static_cast<uintptr_t>(im->width) * im->bytesPerPixel;
  };
  uintptr_t aLow, aHigh, bLow, bHigh;
  span(a, &aLow, &aHigh);
  span(b, &bLow, &bHigh);
  return aLow < bHigh && bLow < aHigh;
}

// The renderer's call as the frame driver makes it: a negative amount blurs at 0.5 and is
// pushed away from the source by the blend, which sharpens along the motion.
void RenderAmount(PLImage* destination, const PLImage* source, const PLImage* flow, float amount,
                  int32_t quality, int32_t reserved, NuvIdleAndProgressClass* progress) {
  if (amount < 0.0f) {
    PLMotionBlur(destination, source, flow, quality, reserved, progress, 0, 0.5f);
    PLBlend(destination, source, amount);
  } else {
    PLMotionBlur(destination, source, flow, quality, reserved, progress, 0, amount);
  }
}

std::unique_ptr<PLImage> WorkImage(int32_t width, int32_t height, int32_t channels,
                                   int32_t dataType) {
  return std::unique_ptr<PLImage>(NUV_NEW PLImage(width, height, channels, dataType, 0));
}

// Everything one render takes from its arguments, checked.
struct RenderInputs {
  PLImage* destination = nullptr;
  PLImage* source = nullptr;
  PLImage* firstMotion = nullptr;
  PLImage* secondMotion = nullptr;
  const PLImage* firstMattes[kNuvMaxLayers] = {};
  const PLImage* secondMattes[kNuvMaxLayers] = {};
  float levelFactors[kNuvMaxLayers] = {};
  float chokes[kNuvMaxLayers] = {};
  int32_t layerCount = 1;
  int32_t motionWidth = 0;
  int32_t motionHeight = 0;
};

// PLErrNone when the arguments can be rendered, PLErrParameter otherwise.
PLErr CheckInputs(RenderInputs* in, NuvImage* destination, int32_t mode, NuvImage* source,
                  NuvImage* firstMotion, NuvImage* secondMotion, int32_t matteCount,
                  NuvImage* const* firstMattes, NuvImage* const* secondMattes,
                  const float* layerAmounts, const float* layerLevelFactors,
                  const float* mattesChoke, float topLevelFactor) {
  if (matteCount < 0 || matteCount > kNuvMaxLayers - 1) return PLErrParameter;
  if (matteCount > 0 && (!firstMattes || !secondMattes || !layerAmounts ||
                         !layerLevelFactors || !mattesChoke))
    return PLErrParameter;
  if (mode < 0 || mode > 2) return PLErrParameter;
  in->layerCount = matteCount + 1;
  in->source = WrapperOf(source);
  in->firstMotion = WrapperOf(firstMotion);
  in->secondMotion = WrapperOf(secondMotion);
  in->destination = WrapperOf(destination);
  const PLImage* src = in->source;
  const PLImage* first = in->firstMotion;
  const PLImage* second = in->secondMotion;
  const PLImage* dst = in->destination;
  if (!src || !first || !second || !dst) return PLErrParameter;

  for (int32_t i = 0; i < matteCount; ++i) {
    in->levelFactors[i] = layerLevelFactors[i];
    in->chokes[i] = mattesChoke[i];
  }
  in->levelFactors[matteCount] = topLevelFactor;

  // With mattes the motion images are cut by mattes of the source's size.
  in->motionWidth = matteCount > 0 ? src->width : first->width;
  in->motionHeight = matteCount > 0 ? src->height : first->height;
  if (!WorkingType(src->dataType)) return PLErrParameter;
  for (const PLImage* motion : {first, second})
    if (motion->width != in->motionWidth || motion->height != in->motionHeight ||
        motion->dataType != src->dataType)
      return PLErrParameter;
  if (first->channels != second->channels) return PLErrParameter;
  for (int32_t i = 0; i < matteCount; ++i) {
    in->firstMattes[i] = WrapperOf(firstMattes[i]);
    in->secondMattes[i] = WrapperOf(secondMattes[i]);
    for (const PLImage* matte : {in->firstMattes[i], in->secondMattes[i]})
      if (!matte || matte->channels != 1 || matte->dataType != src->dataType ||
          matte->width != src->width || matte->height != src->height)
        return PLErrParameter;
  }

  if (dst->width != src->width || dst->height != src->height || dst->dataType != src->dataType)
    return PLErrParameter;
  if (matteCount == 0) {
    // The renderer's shape rule, and motion images that give luma.
    if (dst->channels != src->channels || src->channels < 1 || src->channels > 4)
      return PLErrParameter;
    if (first->channels != 1 && first->channels != 3 && first->channels != 4)
      return PLErrParameter;
  } else {
    // Layers are cut into four-channel work images from three or four channels.
    if (dst->channels != 4 || (src->channels != 3 && src->channels != 4) ||
        (first->channels != 3 && first->channels != 4))
      return PLErrParameter;
  }
  for (const PLImage* input : {src, first, second})
    if (Overlap(dst, input)) return PLErrParameter;
  for (int32_t i = 0; i < matteCount; ++i)
    if (Overlap(dst, in->firstMattes[i]) || Overlap(dst, in->secondMattes[i]))
      return PLErrParameter;
  return PLErrNone;
}

}  // namespace

// ---- cache ---------------------------------------------------------------------------------

NuvMotionBlurInternal::NuvMotionBlurInternal() = default;

NuvMotionBlurInternal::~NuvMotionBlurInternal() { ReleaseFlows(); }

void NuvMotionBlurInternal::ReleaseFlows() {
  for (PLImage*& flow : layerFlows) {
    delete flow;
    flow = nullptr;
  }
  delete estimator;
  estimator = nullptr;
}

PLImage* NuvMotionBlurInternal::LayerFlow(int32_t layer) const {
  if (!estimator || layer < 0 || layer >= kNuvMaxLayers) return nullptr;
  if (layer == 0) return estimator->flowPyramid ? estimator->flowPyramid[0] : nullptr;
  return layerFlows[layer];
}

// ---- engine --------------------------------------------------------------------------------

NuvMotionBlur::~NuvMotionBlur() {
  delete cache;
  cache = nullptr;
}

void NuvMotionBlur::Clear() {
  if (cache) cache->ReleaseFlows();
}

int32_t NuvMotionBlur::Render(float amount, float topLevelFactor, float stamp,
                              NuvImage* destination, int32_t mode, int64_t quality,
                              NuvImage* source, NuvImage* firstMotion, NuvImage* secondMotion,
                              int64_t reserved, int32_t matteCount,
                              NuvImage* const* firstMattes, NuvImage* const* secondMattes,
                              const float* layerAmounts, const float* layerLevelFactors,
                              const float* mattesChoke, NuvIdleAndProgressClass* progress,
                              int32_t keepFlow) {
  if (!cache) {
    try {
      cache = NUV_NEW NuvMotionBlurInternal();
    } catch (PLErr& err) {
      return err;
    }
  }
  NuvMotionBlurInternal* const c = cache;
  NuvIdleAndProgressClass local(progress);

  RenderInputs in;
  const PLErr check =
      CheckInputs(&in, destination, mode, source, firstMotion, secondMotion, matteCount,
                  firstMattes, secondMattes, layerAmounts, layerLevelFactors, mattesChoke,
                  topLevelFactor);
  if (check != PLErrNone) return check;
  PLImage* const dst = in.destination;
  PLImage* const src = in.source;
  PLImage* const first = in.firstMotion;
  PLImage* const second = in.secondMotion;
  const int32_t layerCount = in.layerCount;
  const int32_t renderQuality = quality == 1 ? 1 : 0;
  const int32_t renderReserved = reserved == 1 ? 1 : 0;

  c->layerCount = layerCount;
  c->mode = mode;
  c->sourceWidth = src->width;
  c->sourceHeight = src->height;
  c->motionWidth = in.motionWidth;
  c->motionHeight = in.motionHeight;

  // The keys of the flow; the pictures are not among them.
  const bool computeFlow =
      !c->estimator || c->layerCount != c->lastLayerCount || quality != c->lastQuality ||
      c->mode != c->lastMode || stamp != c->lastStamp ||
      c->sourceWidth != c->lastSourceWidth || c->sourceHeight != c->lastSourceHeight ||
      c->motionWidth != c->lastMotionWidth || c->motionHeight != c->lastMotionHeight ||
      FloatArraysDiffer(in.levelFactors, c->levelFactors, layerCount) ||
      FloatArraysDiffer(in.chokes, c->chokes, matteCount);
  if (computeFlow) c->ReleaseFlows();
  c->lastLayerCount = c->layerCount;
  c->lastQuality = quality;
  c->lastMode = c->mode;
  c->lastStamp = stamp;
  c->lastSourceWidth = c->sourceWidth;
  c->lastSourceHeight = c->sourceHeight;
  c->lastMotionWidth = c->motionWidth;
  c->lastMotionHeight = c->motionHeight;
  std::copy(in.levelFactors, in.levelFactors + kNuvMaxLayers, c->levelFactors);
  std::copy(in.chokes, in.chokes + kNuvMaxLayers, c->chokes);

  bool reordered = false;
  // Puts the inputs back in their own order and delivers the destination in its own.
  auto restoreOrder = [&]() {
    FromCanonicalOrder(source);
    if (firstMotion != source) FromCanonicalOrder(firstMotion);
    // kept: the second motion view is taken to canonical order a second time rather than
    // back; callers that pass it reordered rely on this.
    ToCanonicalOrder(secondMotion);
    FromCanonicalOrder(destination);
  };

  try {
    if (!c->estimator) {
      c->estimator = NUV_NEW PLOpticalFlowUChar(0, c->motionWidth, c->motionHeight, mode, 0,
                                                layerCount != 1 ? 1 : 0, 2);
      if (c->estimator->errorCode != 0) throw static_cast<PLErr>(c->estimator->errorCode);
      for (int32_t layer = 1; layer < layerCount; ++layer) {
        c->layerFlows[layer] = NUV_NEW PLImage(0, c->estimator->workWidth,
                                               c->estimator->workHeight, 2, PLFloat, 0);
        if (c->layerFlows[layer]->errorCode != 0)
          throw static_cast<PLErr>(c->layerFlows[layer]->errorCode);
      }
    }
    PLOpticalFlowUChar* const estimator = c->estimator;

    ToCanonicalOrder(source);
    if (firstMotion != source) ToCanonicalOrder(firstMotion);
    ToCanonicalOrder(secondMotion);
    reordered = true;

    if (layerCount == 1) {
      estimator->SetLevelFactor(topLevelFactor);
      if (computeFlow) estimator->ComputeFlow(nullptr, first, second, 1, 1, 0, &local, false);
      RenderAmount(dst, src, c->LayerFlow(0), amount, renderQuality, renderReserved, &local);
    } else {
      RenderLayers(amount, layerCount, computeFlow, in.firstMattes, in.secondMattes,
                   layerAmounts, in.levelFactors, in.chokes, dst, src, first, second,
                   renderQuality, renderReserved, &local);
    }

    restoreOrder();
    if (keepFlow == 0) Clear();
  } catch (PLErr& err) {
    if (reordered) restoreOrder();
    // A failed render may leave a half-made flow behind: none of it is kept.
    c->ReleaseFlows();
    return err;
  }
  return PLErrNone;
}

void NuvMotionBlur::RenderLayers(float amount, int32_t layerCount, bool computeFlow,
                                 const PLImage* const* firstMattes,
                                 const PLImage* const* secondMattes, const float* layerAmounts,
                                 const float* levelFactors, const float* chokes,
                                 PLImage* destination, PLImage* source, PLImage* firstMotion,
                                 PLImage* secondMotion, int32_t quality, int32_t reserved,
                                 NuvIdleAndProgressClass* local) {
  NuvMotionBlurInternal* const c = cache;
  PLOpticalFlowUChar* const estimator = c->estimator;
  const int32_t width = c->motionWidth;
  const int32_t height = c->motionHeight;
  const int32_t type = source->dataType;
  // kept: only 8-bit mattes are scaled to 0..1; 16-bit ones stay far above 1, so that any
  // non-zero sample of a nearer matte cuts the layers behind it fully.
  const double matteScale = type == PLUChar ? 255.0 : 1.0;
  const float inverseMatteScale = static_cast<float>(1.0 / matteScale);

  std::unique_ptr<PLImage> layerImage = WorkImage(width, height, 4, type);
  std::unique_ptr<PLImage> firstImage = WorkImage(width, height, 4, type);
  std::unique_ptr<PLImage> secondImage = WorkImage(width, height, 4, type);
  std::unique_ptr<PLImage> firstMatte = WorkImage(width, height, 1, type);
  std::unique_ptr<PLImage> secondMatte = WorkImage(width, height, 1, type);
  std::unique_ptr<PLImage> scratchFloat = WorkImage(width, height, 1, PLFloat);
  std::unique_ptr<PLImage> scratchMatte = WorkImage(width, height, 1, type);

  const PLImage* const* sideMattes[2] = {firstMattes, secondMattes};
  PLImage* const sideMatte[2] = {firstMatte.get(), secondMatte.get()};

  for (int32_t layer = layerCount - 1; layer >= 0; --layer) {
    estimator->SetLevelFactor(levelFactors[layer]);
    // The farthest layer has no matte of its own and starts white.
    LayerMatte(firstMatte.get(), firstMattes, layer, layerCount, nullptr);
    LayerMatte(secondMatte.get(), secondMattes, layer, layerCount, nullptr);
    // Cut out every nearer layer, its matte spread by its choke radius.
    for (int32_t nearer = layer - 1; nearer >= 0; --nearer) {
      for (int32_t side = 0; side < 2; ++side) {
        CopyCHannelIntoCHannel(scratchFloat.get(), 0, sideMattes[side][nearer], 0);
        Multiply(scratchFloat.get(), inverseMatteScale);
        PLMatteChoke(scratchFloat.get(), -chokes[nearer]);
        RenderBlackMatte(sideMatte[side], scratchFloat.get());
      }
      local->Idle();
    }
    ApplyMatte(firstImage.get(), firstMotion, firstMatte.get());
    local->Idle();
    ApplyMatte(secondImage.get(), secondMotion, secondMatte.get());
    local->Idle();

    local->SetSubRange(static_cast<float>(layer / layerCount),
                       (static_cast<float>(layer) + 0.5f) / static_cast<float>(layerCount));
    if (computeFlow) {
      // Masks: valid everywhere but where a nearer layer hides this one.
      for (int32_t side = 0; side < 2; ++side) {
        LayerMatte(scratchMatte.get(), sideMattes[side], layer, layerCount, nullptr);
        local->Idle();
        Subtract1Channel(scratchMatte.get(), sideMatte[side]);
        local->Idle();
        Invert(scratchMatte.get());
        local->Idle();
        estimator->BuildMaskPyramid(scratchMatte.get(), side);
        local->Idle();
      }
      LayerMatte(scratchMatte.get(), firstMattes, layer, layerCount, nullptr);
      local->Idle();
      estimator->BuildPyramidForSide(firstImage.get(), firstMatte.get(), scratchMatte.get(), 0,
                                     false);
      local->Idle();
      LayerMatte(scratchMatte.get(), secondMattes, layer, layerCount, nullptr);
      local->Idle();
      estimator->BuildPyramidForSide(secondImage.get(), secondMatte.get(), scratchMatte.get(), 1,
                                     false);
      local->Idle();
      estimator->ComputeFlowFromPyramids(c->LayerFlow(layer), 1, 1, 0, local);
      local->Idle();
    }
    // kept: the start adds 0.5 / layerCount to the undivided layer index; progress callers
    // see the value they always saw.
    local->SetSubRange(static_cast<float>(layer) + 0.5f / static_cast<float>(layerCount),
                       static_cast<float>(layer + 1) / static_cast<float>(layerCount));

    // The layer's picture with the holes of nearer layers filled from its own pixels, then
    // given its full matte back.
    ApplyMatte(layerImage.get(), source, firstMatte.get());
    CopyCHannelIntoCHannel(scratchMatte.get(), 0, layerImage.get(), 3);
    Invert(scratchMatte.get());
    PLVoronoiFill(layerImage.get(), scratchMatte.get());
    PLSmallHoleFill(layerImage.get(), scratchMatte.get(), 30);
    LayerMatte(scratchMatte.get(), firstMattes, layer, layerCount, source);
    CopyCHannelIntoCHannel(layerImage.get(), 3, scratchMatte.get(), 0);
    Premultiply(layerImage.get());

    const float layerAmount = layer == layerCount - 1 ? amount : layerAmounts[layer];
    RenderAmount(firstImage.get(), layerImage.get(), c->LayerFlow(layer), layerAmount, quality,
                 reserved, local);
    if (layer == layerCount - 1)
      CopyRect(destination, 0, 0, firstImage.get(), 0, 0, c->sourceWidth, c->sourceHeight);
    else
      CompositeOver(destination, 0, 0, firstImage.get(), 0, 0, c->sourceWidth - 1,
                    c->sourceHeight - 1);
  }
}
