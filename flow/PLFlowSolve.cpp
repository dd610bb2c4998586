// flowblur: the coarse-to-fine run over the pyramid levels.
#include <cstdint>
#include <cstring>

#include "flow/PLFlowPrivate.h"
#include "flow/PLFlowStages.h"
#include "flow/PLOpticalFlowUChar.h"
#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"

using plflow::FRow;

namespace {

// True when some pixel of the flow, added (not subtracted) to its position, lands in the
// frame, bounds included. The plus sign is deliberate and kept.
bool AnyPixelInside(const PLImage* flow) {
  const float maxX = static_cast<float>(flow->width - 1);
  const float maxY = static_cast<float>(flow->height - 1);
  for (int32_t y = 0; y < flow->height; ++y) {
    const float* f = FRow(flow, y);
    const float fy = static_cast<float>(y);
    for (int32_t x = 0; x < flow->width; ++x) {
      const float px = static_cast<float>(x) + f[2 * x];
      const float py = fy + f[2 * x + 1];
      if (px >= 0.0f && px <= maxX && py >= 0.0f && py <= maxY) return true;
    }
  }
  return false;
}

// Flips the sign bit of both channels of every pixel of the working rectangle.
void NegateFlow(PLImage* flow, int32_t width, int32_t height) {
  for (int32_t y = 0; y < height; ++y) {
    unsigned char* row = flow->Row(y);
    for (int32_t i = 0; i < 2 * width; ++i) {
      uint32_t bits;
      std::memcpy(&bits, row + 4 * i, 4);
      bits ^= 0x80000000u;
      std::memcpy(row + 4 * i, &bits, 4);
    }
  }
}

}  // namespace

void PLOpticalFlowUChar::SolvePyramid(PLImage* flowOut, int32_t smoothing,
                                      int32_t skipPropagation,
                                      NuvIdleAndProgressClass* progress) {
  if (!firstPyramid) return;  // a failed object is never run
  NuvIdleAndProgressClass local(progress);

  // Each level counted once per iteration; the fraction reported below counts it once, so
  // the reports end near a third. Kept as it stands.
  float totalWork = 0.0f;
  for (int32_t level = startLevel; level >= 0; --level)
    totalWork += static_cast<float>(iterationsPerLevel) *
                 static_cast<float>(firstPyramid[level]->width * firstPyramid[level]->height);

  float startFraction = 0.0f;
  GetStartLevel(&startLevel, &startFraction);
  Clear(flowPyramid[startLevel]);
  bool stillSearching = true;
  const bool hints = useHints == 1 && hintFlowPyramid && hintWeightPyramid;
  const bool masks = useMasks == 1 && firstMaskPyramid && secondMaskPyramid;
  const bool skip = skipPropagation != 0;
  float doneWork = 0.0f;

  for (int32_t level = startLevel; level >= 0; --level) {
    PLImage* flow = flowPyramid[level];
    PLImage* gradX = gradXPyramid[level];
    PLImage* gradY = gradYPyramid[level];
    PLImage* structure = structurePyramid[level];
    PLImage* residual = residualPyramid[level];
    if (hints) ApplyHints(flow, hintFlowPyramid[level], hintWeightPyramid[level], 1);
    if (masks) {
      ComputeGradients(gradX, gradY, firstPyramid[level]);
      local.Idle();
      GateGradients(gradX, gradY, firstMaskPyramid[level]);
      ComputeMoments(structure, gradX, gradY);
    } else {
      // Nothing between the two stages: one pass.
      ComputeGradientsAndMoments(gradX, gradY, structure, firstPyramid[level]);
      local.Idle();
    }
    local.Idle();
    SmoothStage(structure, true, smoothing);
    local.Idle();
    local.Idle();
    // The structure stays the same through the iterations: the gradients are the first
    // image's.
    for (int32_t i = 0; i < iterationsPerLevel; ++i) {
      ComputeResidual(residual, firstPyramid[level], secondPyramid[level], gradX, gradY, flow,
                      masks ? 1 : 0, masks ? secondMaskPyramid[level] : nullptr);
      local.Idle();
      SmoothStage(residual, true, smoothing);
      local.Idle();
      UpdateFlow(flow, structure, residual);
      local.Idle();
      SmoothStage(flow, false, smoothing);
      local.Idle();
      // At level 0 the sweeps come before the last iteration, which polishes the field.
      if (i + 2 == iterationsPerLevel && level == 0) {
        PropagateFlow(0, skip, &local);
        if (hints) ApplyHints(flow, hintFlowPyramid[level], hintWeightPyramid[level], 1);
      }
    }
    if (level != 0) PropagateFlow(level, skip, &local);
    if (hints) ApplyHints(flow, hintFlowPyramid[level], hintWeightPyramid[level], 1);

    // A level whose flow carries every pixel out of the frame is dropped, until one passes.
    if (stillSearching && (!hints || !HasHintWeight(hintWeightPyramid, level))) {
      if (AnyPixelInside(flow))
        stillSearching = false;
      else
        Clear(flow);
    }
    if ((flow->width < 3 || flow->height < 3) && useHints != 0 &&
        !HasHintWeight(hintWeightPyramid, level))
      Clear(flow);
    // The only place the fraction acts: it damps what the first level found.
    if (level == startLevel) Multiply(flow, startFraction);
    if (level > 0) UpsampleFlow(flowPyramid[level - 1], flow);

    doneWork += static_cast<float>(firstPyramid[level]->width * firstPyramid[level]->height);
    local.Progress(doneWork / totalWork);
  }

  NegateFlow(flowPyramid[0], workWidth, workHeight);
  if (flowOut && flowOut != flowPyramid[0]) {
    PLImage* level0 = flowPyramid[0];
    // A flowOut of the wrong shape was reported by the caller; copy only what both images
    // hold, and nothing into one that is not a 2-channel Float image.
    if (flowOut->dataType == PLFloat && flowOut->channels == 2 && flowOut->data) {
      const int32_t w = flowOut->width < workWidth ? flowOut->width : workWidth;
      const int32_t h = flowOut->height < workHeight ? flowOut->height : workHeight;
      if (w > 0 && h > 0) CopyRect(flowOut, 0, 0, level0, 0, 0, w, h);
    }
  }
}
