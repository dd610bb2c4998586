// flowblur: the retimer's layered path: layers cut out by mattes, each with its own flow,
// warped and mixed, then composited back to front.
#include "fill/PLSingleChannelFill.h"
#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"
#include "retime/NuvChronar4Private.h"
#include "retime/PLLayerOps.h"

namespace chronar {

// The matte of layer L on one side with the nearer layers taken away, each nearer matte
// choked by minus its radius (so it spreads over the soft edge) first.
void VisibleMatte(PLImage* visible, const PLImage* const* mattes, int32_t layer,
                  int32_t layerCount, const float* chokes, float matteScale, PLImage* scratchFloat,
                  NuvIdleAndProgressClass* progress) {
  LayerMatte(visible, mattes, layer, layerCount, nullptr);
  for (int32_t k = layer - 1; k >= 0; --k) {
    CopyCHannelIntoCHannel(scratchFloat, 0, mattes[k], 0);
    Multiply(scratchFloat, 1.0f / matteScale);
    PLMatteChoke(scratchFloat, -chokes[k]);
    RenderBlackMatte(visible, scratchFloat);
    progress->Idle();
  }
}

// Mask image for the estimator: white where the layer is not hidden by a nearer one.
void UnhiddenMask(PLImage* mask, const PLImage* const* mattes, int32_t layer, int32_t layerCount,
                  const PLImage* visible) {
  LayerMatte(mask, mattes, layer, layerCount, nullptr);
  Subtract1Channel(mask, visible);
  Invert(mask);
}

namespace {

// The layer picture with the pixels its matte does not fully own filled from the others,
// and the layer's own matte (nearer layers not taken away) as its matte, premultiplied.
void FillLayer(PLImage* layerImage, const PLImage* const* mattes, int32_t layer,
               int32_t layerCount, const PLImage* frame, PLImage* scratchMatte,
               NuvIdleAndProgressClass* progress) {
  Unpremultiply(layerImage);
  CopyCHannelIntoCHannel(scratchMatte, 0, layerImage, 3);
  Invert(scratchMatte);
  NuvIdleAndProgressClass collapsed(progress);
  collapsed.CollapseSubRange();
  PLSingleChannelFill(layerImage, scratchMatte, &collapsed);
  LayerMatte(scratchMatte, mattes, layer, layerCount, frame);
  CopyCHannelIntoCHannel(layerImage, 3, scratchMatte, 0);
  Premultiply(layerImage);
}

}  // namespace

void LayeredPath(NuvChronar4* engine, RenderState& st, PLImage* dst, int32_t i, int32_t j,
                 float w, bool exact, bool newPair, const float* levelFactors,
                 const float* chokes, int32_t matteCount) {
  NuvChronar4Internal* in = st.in;
  const int32_t layerCount = in->layerCount;
  const bool withFlow = in->useFlow && !exact;
  const float ti = static_cast<float>(i), tj = static_cast<float>(j);
  const float matteScale = dst->dataType == PLUChar ? 255.0f : 1.0f;  // kept: UShort too 1.0

  const PLImage* frameI = st.Fetch(Source::kDisplay, i);
  const PLImage* frameJ = st.Fetch(Source::kDisplay, j);
  const PLImage* motionI = withFlow ? st.Fetch(Source::kMotion, i) : frameI;
  const PLImage* motionJ = withFlow ? st.Fetch(Source::kMotion, j) : frameJ;
  const PLImage* mattesI[kNuvChronarMaxLayers] = {};
  const PLImage* mattesJ[kNuvChronarMaxLayers] = {};
  for (int32_t m = 0; m < matteCount; ++m) {
    mattesI[m] = st.Fetch(Source::kMatte, i, m);
    mattesJ[m] = st.Fetch(Source::kMatte, j, m);
  }

  const int32_t wd = dst->width, ht = dst->height, type = dst->dataType;
  ImagePtr visibleI = NewImage(wd, ht, 1, type), visibleJ = NewImage(wd, ht, 1, type);
  ImagePtr scratchFloat = NewImage(wd, ht, 1, PLFloat);
  ImagePtr scratchMatte = NewImage(wd, ht, 1, type);
  ImagePtr maskI = NewImage(wd, ht, 1, type), maskJ = NewImage(wd, ht, 1, type);
  ImagePtr ownI = NewImage(wd, ht, 1, type), ownJ = NewImage(wd, ht, 1, type);
  ImagePtr motionLayerI = NewImage(wd, ht, 4, type), motionLayerJ = NewImage(wd, ht, 4, type);
  ImagePtr layerI = NewImage(wd, ht, 4, type), layerJ = NewImage(wd, ht, 4, type);
  ImagePtr warped = NewImage(wd, ht, 4, type);
  ImagePtr composite = NewImage(wd, ht, 4, type);

  const int32_t top = engine->TopLayer(), bottom = engine->BottomLayer();
  bool first = true;
  for (int32_t layer = top; layer >= bottom; --layer) {
    VisibleMatte(visibleI.get(), mattesI, layer, layerCount, chokes, matteScale,
                 scratchFloat.get(), &st.progress);
    VisibleMatte(visibleJ.get(), mattesJ, layer, layerCount, chokes, matteScale,
                 scratchFloat.get(), &st.progress);
    ApplyMatte(layerI.get(), frameI, visibleI.get());
    ApplyMatte(layerJ.get(), frameJ, visibleJ.get());

    PLImage** forward = &in->forwardLayerFlows[layer];
    PLImage** backward = &in->backwardLayerFlows[layer];
    if (withFlow) {
      BringUpSolver(in, layer, levelFactors[layer]);
      bool need = in->interpolation == 0 ? (newPair || !*forward)
                                         : (newPair || !*forward || !*backward);
      if (need) {
        ApplyMatte(motionLayerI.get(), motionI, visibleI.get());
        ApplyMatte(motionLayerJ.get(), motionJ, visibleJ.get());
        UnhiddenMask(maskI.get(), mattesI, layer, layerCount, visibleI.get());
        UnhiddenMask(maskJ.get(), mattesJ, layer, layerCount, visibleJ.get());
        LayerMatte(ownI.get(), mattesI, layer, layerCount, nullptr);
        LayerMatte(ownJ.get(), mattesJ, layer, layerCount, nullptr);
        LayerInputs iToJ{maskI.get(), maskJ.get(), visibleI.get(),
                         visibleJ.get(), ownI.get(),   ownJ.get()};
        LayerInputs jToI{maskJ.get(), maskI.get(), visibleJ.get(),
                         visibleI.get(), ownJ.get(),   ownI.get()};
        NuvIdleAndProgressClass share(&st.progress);
        share.SetSubRange(static_cast<float>(top - layer) / static_cast<float>(layerCount),
                          static_cast<float>(top - layer + 1) / static_cast<float>(layerCount));
        if (in->interpolation == 0) {
          const int32_t style = in->warpStyle;
          bool fromI = (w < 0.5f && style < 2) || (w >= 0.5f && style >= 2);
          RunFlow(engine, in, forward, fromI ? motionLayerI.get() : motionLayerJ.get(),
                  fromI ? motionLayerJ.get() : motionLayerI.get(), fromI ? ti : tj,
                  fromI ? tj : ti, layer, &share, fromI ? &iToJ : &jToI);
        } else {
          RunFlow(engine, in, forward, motionLayerJ.get(), motionLayerI.get(), tj, ti, layer,
                  &share, &jToI);
          RunFlow(engine, in, backward, motionLayerI.get(), motionLayerJ.get(), ti, tj, layer,
                  &share, &iToJ);
        }
      }
    }
    FillLayer(layerI.get(), mattesI, layer, layerCount, frameI, scratchMatte.get(),
              &st.progress);
    FillLayer(layerJ.get(), mattesJ, layer, layerCount, frameJ, scratchMatte.get(),
              &st.progress);
    WarpAndMix(in, warped.get(), layerI.get(), layerJ.get(), w, exact,
               withFlow ? *forward : nullptr, withFlow ? *backward : nullptr, &st.progress, true);
    if (first)
      CopyWhole(composite.get(), warped.get());
    else
      CompositeOver(composite.get(), 0, 0, warped.get(), 0, 0, wd - 1, ht - 1);
    first = false;
    st.progress.Idle();
  }
  if (dst->channels == 4) {
    CopyWhole(dst, composite.get());
  } else {
    for (int32_t c = 0; c < 3; ++c) CopyCHannelIntoCHannel(dst, c, composite.get(), c);
  }
}

}  // namespace chronar
