// flowblur: the per-pixel stages of the flow solve, usable on their own.
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// A pyramid's array of `levels` null image pointers, from the library's allocator; and its
// release: each non-null level deleted, the array freed, the pointer set to null.
PLImage** PLFlowNewPyramid(int32_t levels);
void PLFlowDeletePyramid(PLImage**& pyramid, int32_t levels);

// The start level and its fraction for a pyramid of `levels` levels and a level factor:
// s = levels + log(pow(factor, 2)) / log(2) in double, narrowed once to float. s below 0 or
// NaN gives level 0 and fraction 0; s at or beyond `levels` gives the last level and 1.0.
void PLFlowStartLevel(int32_t levels, float levelFactor, int32_t* level, float* fraction);

// Adds the hint (x0, y0) -> (x1, y1), given in a source of sourceWidth x sourceHeight, to
// level 0 of a hint pyramid whose last column and row are workMaxX and workMaxY: the vector
// is added to hintFlow (2 channels) and 1.0 to hintWeight at the pixel nearest the scaled
// start. A start outside the level, NaN or huge, is dropped.
void PLFlowAddHint(PLImage* hintFlow, PLImage* hintWeight, float workMaxX, float workMaxY,
                   float x0, float y0, float x1, float y1, float sourceWidth,
                   float sourceHeight);

// All images here are Float. Flows are in the internal sign: second(x - u, y - v) matches
// first(x, y). Each stage forks over the rows of the image it writes; in-place stages touch
// each pixel only at that pixel. Apart from UpsampleFlow they check nothing: the images
// must have the shapes stated and equal sizes.

// Mean of the one-sided differences that exist, left (upper) term first; the single
// one-sided difference at a border; 0/0 (NaN) along an axis of length 1. gradX, gradY
// and image are 1-channel.
void ComputeGradients(PLImage* gradX, PLImage* gradY, const PLImage* image);

// Sets gx and gy to 0 where the mask at the pixel or at an existing 4-neighbour is below
// 0.95 (double).
void GateGradients(PLImage* gradX, PLImage* gradY, const PLImage* mask);

// structure (3 channels) = gx*gx, gy*gx, gy*gy.
void ComputeMoments(PLImage* structure, const PLImage* gradX, const PLImage* gradY);

// ComputeGradients then ComputeMoments in one pass (one fork, each row's moments while its
// gradients are in cache): the same images, bit for bit. Only where nothing comes between
// them (no gradient gate).
void ComputeGradientsAndMoments(PLImage* gradX, PLImage* gradY, PLImage* structure,
                                const PLImage* image);
// The same on a chosen loop (wide: AVX2 where PLWideAvailable(); same bytes).
// ComputeGradientsAndMoments, ComputeGradients and ComputeMoments take PLWideChosen().
// For tests and benchmarks.
void ComputeGradientsAndMomentsOnPath(bool wide, PLImage* gradX, PLImage* gradY,
                                      PLImage* structure, const PLImage* image);

// residual (2 channels) = (gx*d, d*gy), d = second(x - u, y - v) - first(x, y) sampled
// bilinearly, or (0, 0) where the target is outside the frame (or not a number) and, with
// useMasks nonzero, where secondMask sampled there is below 0.999 (double).
void ComputeResidual(PLImage* residual, const PLImage* first, const PLImage* second,
                     const PLImage* gradX, const PLImage* gradY, const PLImage* flow,
                     int32_t useMasks, const PLImage* secondMask);
// The same on a chosen loop: `wide` true takes the AVX2 loop where PLWideAvailable()
// (runtime/PLWidePath.h) and the images are at least 2x2 and unmasked, false the plain one;
// same bytes. ComputeResidual passes PLWideChosen(). For tests and benchmarks.
void ComputeResidualOnPath(bool wide, PLImage* residual, const PLImage* first,
                           const PLImage* second, const PLImage* gradX, const PLImage* gradY,
                           const PLImage* flow, int32_t useMasks, const PLImage* secondMask);

// The 2x2 least-squares step: with det = b*b - a*c, where |det| > 40.0 (strictly),
// u += (b*q - c*p) / det and v += (b*p - a*q) / det.
void UpdateFlow(PLImage* flow, const PLImage* structure, const PLImage* residual);
// The same on a chosen loop (wide: AVX2 where PLWideAvailable(); same bytes). UpdateFlow
// passes PLWideChosen(). For tests and benchmarks.
void UpdateFlowOnPath(bool wide, PLImage* flow, const PLImage* structure,
                      const PLImage* residual);

// In place, all channels, rows and columns. smoothing 0: box of radius 2; 1: Gaussian of
// radius 7 (moments) or 5 (flow); 2: Gaussian of radius 5 (moments) or 3 (flow); other:
// nothing.
void SmoothStage(PLImage* image, bool asMoments, int32_t smoothing);

// Where hintWeight is not 0: replace 1 sets flow = hintFlow / hintWeight; any other
// value pulls it: flow + (hintFlow - hintWeight * flow).
void ApplyHints(PLImage* flow, const PLImage* hintFlow, const PLImage* hintWeight,
                int32_t replace);

// False for a null pyramid; otherwise whether any sample of pyramid[level] is not 0.
bool HasHintWeight(PLImage* const* pyramid, int32_t level);

// Carries a flow to a finer grid, corner-aligned, scaling u and v by the grid ratios
// (last index over last index). Throws PLErrParameter unless both are Float with equal
// channels (2), and, as a guard added here, unless src is at least 2x2 and dst is not
// smaller than src: coarser grids only.
void UpsampleFlow(PLImage* dst, const PLImage* src);
// The same on a chosen loop (wide: AVX2 where PLWideAvailable(); same bytes). UpsampleFlow
// passes PLWideChosen(). For tests and benchmarks.
void UpsampleFlowOnPath(bool wide, PLImage* dst, const PLImage* src);

// Multiplies channel 0 by sx and channel 1 by sy, on the calling thread. Refuses with
// "error in ScaleXY!\n" only when the image has both a channel count other than 2 and a
// type other than Float. Any other image is walked as 2 floats per pixel; as a guard added
// here, only the pixels whose two floats lie inside their own row are touched.
void ScaleXY(PLImage* image, float sx, float sy);

// Each sample of a 1-channel Float image becomes 1.0 if at least 0.9999 (double), else 0.0.
void Binarise(PLImage* image);
