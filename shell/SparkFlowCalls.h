// flowblur: the four calls between the frame driver and the library, which wrap host pixels
// as images without copying and turn every thrown PLErr into a return code.
#pragma once
#include <cstdint>

class PLOpticalFlowUChar;

// A PLOpticalFlowUChar for a frame of width x height in `mode` (0 full size, 1 half,
// 2 quarter), without hints or masks, minimum level size 12, from the library allocator.
// Null when anything fails (the failure goes no further) and for any other mode.
PLOpticalFlowUChar* CreateFlowEstimator(int32_t width, int32_t height, int32_t mode);

// Nothing for null.
void DestroyFlowEstimator(PLOpticalFlowUChar* estimator);

// Row order arguments: 1 for rows stored top-down, 0 for bottom-up (the image is then
// flipped). Pixel type: 0 UChar, 1 UShort, 2 Float; three channels.

// Flow from first to second into the estimator's flowPyramid[0], at the estimator's
// working size. 5 when the two sizes differ (nothing built), otherwise 0 or the value of
// a PLErr raised by the run; 1 for a null estimator (what a failed CreateFlowEstimator
// means), after the size test. With pixel type 1 and a white point other than 65535 both
// images are brought back to that white point afterwards.
int32_t CalculateFlow(PLOpticalFlowUChar* estimator, void* firstPixels, int32_t width,
                      int32_t height, int32_t rowBytes, int32_t firstRowOrder, void* secondPixels,
                      int32_t secondWidth, int32_t secondHeight, int32_t secondRowBytes,
                      int32_t secondRowOrder, int32_t pixelType, bool edgeBlend, float levelFactor,
                      float whitePoint);

// Source blurred along the estimator's flow into the destination (cleared first). A
// negative amount renders at 0.5 and extrapolates: source + (blurred - source) x amount,
// limited to the pixel type's range. 5 when the sizes differ (destination untouched),
// otherwise 0 or the value of a PLErr raised; 1 for a null estimator. With pixel type 1 and a white
// point other than 65535 the source is first widened to 65535.
int32_t RenderBlur(PLOpticalFlowUChar* estimator, void* destPixels, int32_t width, int32_t height,
                   int32_t rowBytes, int32_t destRowOrder, void* sourcePixels, int32_t sourceWidth,
                   int32_t sourceHeight, int32_t sourceRowBytes, int32_t sourceRowOrder,
                   int32_t pixelType, float amount, float whitePoint);
