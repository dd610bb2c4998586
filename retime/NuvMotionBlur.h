// flowblur: NuvMotionBlur, motion blur with cached flow and optional layers cut by mattes.
#pragma once
#include <cstdint>

#include "flow/PLOpticalFlowUChar.h"
#include "image/NuvImage.h"
#include "image/PLImage.h"
#include "runtime/NuvMem.h"
#include "runtime/NuvProgress.h"

// Rules for this folder:
// - Engines keep what survives between renders in an owned internal object; everything a
//   render makes for itself is released before it returns, also on failure.
// - Inputs arrive as NuvImage views; the work happens on their wrappers (PLImage).
// - A render runs on its caller's thread; the stages it calls fork and join inside it.
// - Bad inputs return PLErrParameter (5) before anything is written; a PLErr raised by any
//   stage is caught and returned, never thrown out of an engine.

// The most layers a picture may have: nine mattes and the farthest layer.
constexpr int32_t kNuvMaxLayers = 10;

// What survives between renders.
class NuvMotionBlurInternal : public NuvMem {
 public:
  NuvMotionBlurInternal();
  virtual ~NuvMotionBlurInternal();
  NuvMotionBlurInternal(const NuvMotionBlurInternal&) = delete;
  NuvMotionBlurInternal& operator=(const NuvMotionBlurInternal&) = delete;

  // Deletes the layer flows and the estimator; the keys stay.
  void ReleaseFlows();
  // The flow of a layer: flowPyramid[0] of the estimator for layer 0, else layerFlows[layer].
  // Null without an estimator, or for a layer outside 0 .. kNuvMaxLayers - 1.
  PLImage* LayerFlow(int32_t layer) const;

  PLImage* layerFlows[kNuvMaxLayers] = {};  // entry 0 stays null
  PLOpticalFlowUChar* estimator = nullptr;
  int32_t sourceWidth = 0;
  int32_t sourceHeight = 0;
  int32_t motionWidth = 0;
  int32_t motionHeight = 0;
  int32_t layerCount = 0;
  int32_t mode = 0;
  int32_t lastMode = 0;
  float levelFactors[kNuvMaxLayers] = {};
  float chokes[kNuvMaxLayers] = {};
  int32_t lastSourceWidth = 0;
  int32_t lastSourceHeight = 0;
  int32_t lastLayerCount = 0;
  int64_t lastQuality = 0;
  float lastStamp = -1.0f;
  int32_t lastMotionWidth = 0;
  int32_t lastMotionHeight = 0;
};

class NuvMotionBlur : public NuvMem {
 public:
  NuvMotionBlur() = default;
  virtual ~NuvMotionBlur();
  NuvMotionBlur(const NuvMotionBlur&) = delete;
  NuvMotionBlur& operator=(const NuvMotionBlur&) = delete;

  // Blurs `source` into `destination` along the flow from `firstMotion` to `secondMotion`.
  // Returns 0, or a PLErr value.
  //
  // amount: of the farthest (or only) layer, a fraction of the motion between the two
  //   motion images; below 0 it sharpens: a blur of 0.5 pushed away from the source by
  //   PLBlend with the amount.
  // topLevelFactor: the estimator's level factor for the farthest (or only) layer.
  // stamp: a key of the flow cache. The pictures are not keys: a caller with new pictures
  //   changes the stamp. Flow is computed again when there is none, or when the layer count,
  //   quality, mode, stamp, source or motion size, a level factor or a choke differs from
  //   the previous render.
  // mode: estimator mode 0, 1 or 2 (working size halved 0, 1, 2 times).
  // quality, reserved: given to PLMotionBlur as 1 when equal to 1, else 0 (1 = bilinear).
  // matteCount: 0 .. 9. With 0 the one-layer path: the motion images may have their own
  //   size, their flow is mapped onto the source. With mattes the picture is cut into
  //   matteCount + 1 layers (layer 0 nearest, the farthest has no matte of its own); each
  //   gets its own flow, amount and level factor, holes left by nearer layers are filled
  //   before a layer is blurred, and the blurred layers are composited back to front.
  // firstMattes, secondMattes: matteCount single-channel views each, of the source's size
  //   and data type, the matte of layer i on each motion image. layerAmounts,
  //   layerLevelFactors, mattesChoke: matteCount values each (layers 0 .. matteCount - 1);
  //   a choke radius spreads the matte of a nearer layer before it is cut out of the
  //   layers behind it.
  // progress: may be null. keepFlow 0 releases the flow and estimator at the end.
  //
  // Views: four-channel views are taken in red, green, blue, matte order by their channel
  // indices; the inputs are put back in their own order at the end (the second motion view
  // is reordered a second time instead, as callers expect), the destination is delivered
  // in its own order.
  //
  // Returns 5, with nothing written and the cached flow kept, when:
  //   - source, firstMotion, secondMotion or destination is null, has no wrapper, no pixels,
  //     or a width or height of 0;
  //   - the two motion images differ in size or channels, or either differs from the source
  //     in data type; with mattes, they differ in size from the source;
  //   - the data type is not UChar, UShort or Float, or mode is not 0, 1 or 2;
  //   - the destination differs from the source in size, data type or channels (with
  //     mattes it must have 4 channels), or shares memory with an input;
  //   - matteCount is negative or above 9, or with mattes: a null array, a missing matte,
  //     a matte that is not single-channel or differs from the source in size or type,
  //     or source or motion images of other than 3 or 4 channels.
  // Any PLErr of a stage (memory, interruption, the renderer's own refusals) is returned;
  // the cached flow is then released (it may be half made) and the inputs' order put back.
  int32_t Render(float amount, float topLevelFactor, float stamp, NuvImage* destination,
                 int32_t mode, int64_t quality, NuvImage* source, NuvImage* firstMotion,
                 NuvImage* secondMotion, int64_t reserved, int32_t matteCount,
                 NuvImage* const* firstMattes, NuvImage* const* secondMattes,
                 const float* layerAmounts, const float* layerLevelFactors,
                 const float* mattesChoke, NuvIdleAndProgressClass* progress, int32_t keepFlow);

  // Releases the cached flows and the estimator, if there is a cache; the cache stays.
  void Clear();

  NuvMotionBlurInternal* cache = nullptr;  // owned; null until the first render

 private:
  // The layered path over checked inputs, farthest layer first: cut, flow (when
  // computeFlow), hole fill, blur, composite into the destination.
  void RenderLayers(float amount, int32_t layerCount, bool computeFlow,
                    const PLImage* const* firstMattes, const PLImage* const* secondMattes,
                    const float* layerAmounts, const float* levelFactors, const float* chokes,
                    PLImage* destination, PLImage* source, PLImage* firstMotion,
                    PLImage* secondMotion, int32_t quality, int32_t reserved,
                    NuvIdleAndProgressClass* local);
};
