// flowblur: the flow and render calls of the frame driver.
#include "shell/SparkFlowCalls.h"

#include "blur/PLMotionBlur.h"
#include "filter/PLBlend.h"
#include "flow/PLOpticalFlowUChar.h"
#include "image/PLImage.h"
#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"
#include "runtime/NuvMem.h"
#include "runtime/PLErr.h"

namespace {
// The row order argument inverted into the image flag.
int32_t FlippedFlag(int32_t rowOrder) { return rowOrder == 0 ? 1 : 0; }
constexpr int32_t kChannels = 3;
constexpr float kLibraryWhite = 65535.0f;
}  // namespace

PLOpticalFlowUChar* CreateFlowEstimator(int32_t width, int32_t height, int32_t mode) {
  if (mode < 0 || mode > 2) return nullptr;
  try {
    // A constructor that throws under NUV_NEW releases its block through the matching
    // delete; nothing else is held here.
    return NUV_NEW PLOpticalFlowUChar(width, height, mode, 0, 0, 12);
  } catch (...) {
    return nullptr;
  }
}

void DestroyFlowEstimator(PLOpticalFlowUChar* estimator) { delete estimator; }

int32_t CalculateFlow(PLOpticalFlowUChar* estimator, void* firstPixels, int32_t width,
                      int32_t height, int32_t rowBytes, int32_t firstRowOrder, void* secondPixels,
                      int32_t secondWidth, int32_t secondHeight, int32_t secondRowBytes,
                      int32_t secondRowOrder, int32_t pixelType, bool edgeBlend, float levelFactor,
                      float whitePoint) {
  if (width != secondWidth || height != secondHeight) return PLErrParameter;
  if (!estimator) return PLErrOutOfMemory;  // no estimator: what a failed build means
  // Wrappers on the stack: nothing to allocate, so nothing can fail before the run, and
  // they go second first.
  PLImage first(firstPixels, width, height, rowBytes, kChannels, pixelType,
                FlippedFlag(firstRowOrder));
  PLImage second(secondPixels, secondWidth, secondHeight, secondRowBytes, kChannels, pixelType,
                 FlippedFlag(secondRowOrder));
  try {
    estimator->SetLevelFactor(levelFactor);
    estimator->ComputeFlow(nullptr, &first, &second, 1, 1, 0, nullptr, edgeBlend);
    if (first.dataType == PLUShort && whitePoint != kLibraryWhite) {
      float factor = whitePoint / kLibraryWhite;
      ScaleClampUShort(&first, factor, whitePoint);
      ScaleClampUShort(&second, factor, whitePoint);
    }
  } catch (PLErr& err) {
    return err;
  }
  return 0;
}

int32_t RenderBlur(PLOpticalFlowUChar* estimator, void* destPixels, int32_t width, int32_t height,
                   int32_t rowBytes, int32_t destRowOrder, void* sourcePixels, int32_t sourceWidth,
                   int32_t sourceHeight, int32_t sourceRowBytes, int32_t sourceRowOrder,
                   int32_t pixelType, float amount, float whitePoint) {
  if (width != sourceWidth || height != sourceHeight) return PLErrParameter;
  if (!estimator) return PLErrOutOfMemory;
  PLImage source(sourcePixels, sourceWidth, sourceHeight, sourceRowBytes, kChannels, pixelType,
                 FlippedFlag(sourceRowOrder));
  PLImage destination(destPixels, width, height, rowBytes, kChannels, pixelType,
                      FlippedFlag(destRowOrder));
  try {
    if (source.dataType == PLUShort && whitePoint != kLibraryWhite)
      ScaleUShort(&source, kLibraryWhite / whitePoint);
    FillColor(&destination, 0.0f, 0.0f, 0.0f, 0.0f);
    const PLImage* flow = estimator->flowPyramid ? estimator->flowPyramid[0] : nullptr;
    if (!(amount < 0.0f)) {
      PLMotionBlur(&destination, &source, flow, 1, 0, nullptr, 0, amount);
    } else {
      // Half a blur, then pushed away from it: sharpening along the motion.
      PLMotionBlur(&destination, &source, flow, 1, 0, nullptr, 0, 0.5f);
      PLBlend(&destination, &source, amount);
    }
  } catch (PLErr& err) {
    return err;
  }
  return 0;
}
