// flowblur: RenderVectors, one step between a frame and its neighbour shown as a motion
// vector picture or as the neighbour warped onto the frame.
#include <cmath>

#include "filter/PLBlend.h"
#include "image/PLImageCopy.h"
#include "retime/NuvChronar4Private.h"
#include "retime/PLLayerOps.h"
#include "warp/PLWarp.h"

using chronar::ImagePtr;
using chronar::RenderState;
using chronar::Source;

int32_t NuvChronar4::RenderVectors(NuvImage* output, int32_t frame, int32_t direction,
                                   int32_t outputKind, float vectorScale, int32_t mix,
                                   int32_t quality, int32_t matteCount,
                                   const float* levelFactors, const float* chokes,
                                   NuvIdleAndProgressClass* progress, int32_t pixelType) {
  if (!internal) return 1;
  if (!output || !output->internal) return PLErrParameter;
  if (NuvPixelTypeToDataType(pixelType) != output->internal->dataType) return PLErrParameter;
  return RenderVectors(output, frame, direction, outputKind, vectorScale, mix, quality,
                       matteCount, levelFactors, chokes, progress);
}

namespace {

// Fetch with the soft-failure rule: a neighbour that cannot be had is PLErr 7.
const PLImage* FetchStep(RenderState& st, int32_t frameNumber, bool soft) {
  try {
    return st.Fetch(Source::kMotion, frameNumber);
  } catch (PLErr& err) {
    if (err == PLErrInterrupted) throw;
    if (soft || st.lastFetchEmpty) throw PLErrStep;
    throw;
  }
}

}  // namespace

int32_t NuvChronar4::RenderVectors(NuvImage* output, int32_t frame, int32_t direction,
                                   int32_t outputKind, float vectorScale, int32_t mix,
                                   int32_t quality, int32_t matteCount,
                                   const float* levelFactorsIn, const float* chokesIn,
                                   NuvIdleAndProgressClass* progress) {
  if (!internal) return 1;
  NuvChronar4Internal* in = internal;
  if (!output || !output->internal || !output->internal->data) return PLErrParameter;
  PLImage* out = output->internal;
  if (out->width < 2 || out->height < 2 || out->channels < 1 || out->channels > 4 ||
      out->dataType < PLUChar || out->dataType > PLFloat)
    return PLErrParameter;
  if (matteCount < 0 || matteCount > kNuvChronarMaxLayers - 1) return PLErrParameter;
  if (matteCount > 0 && (!levelFactorsIn || !chokesIn || out->channels < 3))
    return PLErrParameter;
  if ((outputKind != 0 && outputKind != 1) || mix < 0 || mix > 4 || quality < 0 ||
      quality > 5 || !std::isfinite(vectorScale))
    return PLErrParameter;
  const int32_t style = GetWarpStyle();
  if (style < 0 || style > 3) return PLErrParameter;

  RenderState st(this, output, progress);
  const bool warped = outputKind == 1;
  try {
    in->layerCount = matteCount + 1;
    in->direction = direction;
    Clear(out);
    // The flows of a step are not a frame pair of RenderAtTime: none is kept.
    in->ReleaseFlows();
    in->lastFrame = in->lastFirst = in->lastSecond = -1;
    int32_t from = frame, to = frame;
    if (direction == 1) {
      from = warped ? frame + 1 : frame;
      to = warped ? frame : frame - 1;
    } else if (direction == 2) {
      from = warped ? frame - 1 : frame;
      to = warped ? frame : frame + 1;
    }
    const float tFrom = static_cast<float>(from), tTo = static_cast<float>(to);
    const int32_t top = in->layerCount - 1;
    float levelFactors[kNuvChronarMaxLayers];
    float chokes[kNuvChronarMaxLayers];
    for (int32_t k = 0; k < kNuvChronarMaxLayers; ++k) {
      levelFactors[k] = k <= matteCount && levelFactorsIn ? levelFactorsIn[k] : 1.0f;
      chokes[k] = k < matteCount && chokesIn ? chokesIn[k] : 0.0f;
    }
    for (int32_t l = 0; l < top; ++l) OverrideLevelFactor(tFrom, &levelFactors[l], l);
    for (int32_t m = 0; m < matteCount; ++m) OverrideChoke(tFrom, &chokes[m], m);
    for (int32_t l = 0; l < top; ++l) UseEstimatorForLayer(tFrom, &in->useEstimator[l], l);
    OverrideTopLevelFactor(tFrom, &levelFactors[top]);
    UseEstimatorForTop(tFrom, &in->useEstimator[top]);

    float firstScale = 1.0f, secondScale = 1.0f;
    GetScale(&firstScale, &secondScale);
    int32_t firstScaleInt =
        firstScale >= 1.0f ? (firstScale < 2147483647.0f ? static_cast<int32_t>(firstScale)
                                                         : 2147483647)
                           : 0;
    if (int32_t status = SetQuality(out->width, out->height, quality, firstScaleInt,
                                    secondScale, 1, interpolation, style))
      throw static_cast<PLErr>(status);
    if (in->flowWidth < 2 || in->flowHeight < 2) throw PLErrParameter;
    const int32_t topLayer = TopLayer(), bottomLayer = BottomLayer();
    if (topLayer < bottomLayer || bottomLayer < 0 || topLayer > top) throw PLErrParameter;
    in->edgeBlend = UseEdgeBlend() == 1 ? 1 : 0;
    in->hintsPresent = 0;
    for (int32_t l = bottomLayer; l <= topLayer; ++l)
      if (HintCount(tFrom, tTo, l) > 0) in->hintsPresent = 1;

    const PLImage* first = FetchStep(st, from, warped);
    const PLImage* second = FetchStep(st, to, true);
    const PLImage* firstMattes[kNuvChronarMaxLayers] = {};
    const PLImage* secondMattes[kNuvChronarMaxLayers] = {};
    for (int32_t m = 0; m < matteCount; ++m) {
      firstMattes[m] = st.Fetch(Source::kMatte, from, m);
      secondMattes[m] = st.Fetch(Source::kMatte, to, m);
    }

    const int32_t wd = out->width, ht = out->height, type = out->dataType;
    const bool layered = in->layerCount > 1;
    const float matteScale = type == PLUChar ? 255.0f : 1.0f;
    ImagePtr visibleFirst, visibleSecond, scratchFloat, maskFirst, maskSecond, ownFirst,
        ownSecond, layerFirst, layerSecond, scratch, composite;
    if (layered) {
      visibleFirst = chronar::NewImage(wd, ht, 1, type);
      visibleSecond = chronar::NewImage(wd, ht, 1, type);
      scratchFloat = chronar::NewImage(wd, ht, 1, PLFloat);
      maskFirst = chronar::NewImage(wd, ht, 1, type);
      maskSecond = chronar::NewImage(wd, ht, 1, type);
      ownFirst = chronar::NewImage(wd, ht, 1, type);
      ownSecond = chronar::NewImage(wd, ht, 1, type);
      layerFirst = chronar::NewImage(wd, ht, 4, type);
      layerSecond = chronar::NewImage(wd, ht, 4, type);
      composite = chronar::NewImage(wd, ht, 4, type);
    }
    scratch = chronar::NewImage(wd, ht, layered ? 4 : out->channels, type);

    bool firstLayerDone = false;
    for (int32_t layer = topLayer; layer >= bottomLayer; --layer) {
      chronar::BringUpSolver(in, layer, levelFactors[layer]);
      PLImage** flow = layered ? &in->forwardLayerFlows[layer] : &in->forwardFlow;
      const PLImage* pictureFrom = first;
      if (layered) {
        chronar::VisibleMatte(visibleFirst.get(), firstMattes, layer, in->layerCount, chokes,
                              matteScale, scratchFloat.get(), &st.progress);
        chronar::VisibleMatte(visibleSecond.get(), secondMattes, layer, in->layerCount, chokes,
                              matteScale, scratchFloat.get(), &st.progress);
        ApplyMatte(layerFirst.get(), first, visibleFirst.get());
        ApplyMatte(layerSecond.get(), second, visibleSecond.get());
        chronar::UnhiddenMask(maskFirst.get(), firstMattes, layer, in->layerCount,
                              visibleFirst.get());
        chronar::UnhiddenMask(maskSecond.get(), secondMattes, layer, in->layerCount,
                              visibleSecond.get());
        LayerMatte(ownFirst.get(), firstMattes, layer, in->layerCount, nullptr);
        LayerMatte(ownSecond.get(), secondMattes, layer, in->layerCount, nullptr);
        chronar::LayerInputs li{maskFirst.get(),    maskSecond.get(), visibleFirst.get(),
                                visibleSecond.get(), ownFirst.get(),   ownSecond.get()};
        chronar::RunFlow(this, in, flow, layerFirst.get(), layerSecond.get(), tFrom, tTo, layer,
                         &st.progress, &li);
        pictureFrom = layerFirst.get();
      } else {
        chronar::RunFlow(this, in, flow, first, second, tFrom, tTo, layer, &st.progress,
                         nullptr);
      }
      if (!warped) {
        const bool whole = !layered || layer == topLayer;
        if (!PLFlowPicture(out, *flow, vectorScale, whole ? nullptr : visibleFirst.get()))
          throw PLErrParameter;
        if (layered && topLayer == bottomLayer && out->channels >= 3)
          CopyCHannelIntoCHannel(out, 2, visibleFirst.get(), 0);
        continue;
      }
      if (!layered && mix == 4) {
        if (!Warp(out, pictureFrom, *flow, 1, 0, 0, nullptr, 1, 0, 0.0f, 1.0f))
          throw PLErrParameter;
        continue;
      }
      Clear(scratch.get());
      if (!Warp(scratch.get(), pictureFrom, *flow, 1, 0, 0, nullptr, 1, 0, 0.0f, 1.0f))
        throw PLErrParameter;
      if (!layered) {
        CopyWhole(out, scratch.get());
      } else if (!firstLayerDone) {
        CopyWhole(composite.get(), scratch.get());
      } else {
        CompositeOver(composite.get(), 0, 0, scratch.get(), 0, 0, wd - 1, ht - 1);
      }
      firstLayerDone = true;
    }
    if (warped && layered) {
      if (out->channels == 4)
        CopyWhole(out, composite.get());
      else
        for (int32_t c = 0; c < 3; ++c) CopyCHannelIntoCHannel(out, c, composite.get(), c);
    }
    if (warped) {
      // The frame itself is the reference the warped neighbour is compared with.
      if (mix == 0) {
        // PLBlend serves images alike down to their row order; others take the same
        // half-and-half mix here.
        bool blendable = out->channels >= 3 && out->flipped == second->flipped;
        if (!blendable || !PLBlend(out, second, 0.5f)) PLRetimeStyleMix(out, second, 0, 0.5f);
      } else if (mix >= 1 && mix <= 3) {
        static const int32_t kStyles[3] = {0, 2, 3};
        PLRetimeStyleMix(out, second, kStyles[mix - 1], 0.6f);
      }
    }
    FromCanonicalOrder(output);
    st.ReleaseFetched();
    in->ReleaseFlows();
    return 0;
  } catch (PLErr& err) {
    in->ReleaseFlows();
    st.ReleaseFetched();
    if (err == PLErrStep) {
      // A soft failure: a colour that reads as "no motion" (vectors) or as "no picture".
      if (warped)
        FillColor(out, 0.0f, 1.0f, 0.0f, 1.0f);
      else
        FillColor(out, 0.5f, 0.5f, 0.0f, 1.0f);
      return 0;
    }
    return err;
  }
}
