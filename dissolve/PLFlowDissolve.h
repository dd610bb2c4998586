// flowblur: PLFlowDissolve, one in-between picture of two images and their flows.
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// The styles, from a hard cut to a multiband blend.
enum PLDissolveStyle : int32_t {
  PLDissolveCut = 0,          // imageA if t >= 0.5, else imageB
  PLDissolveWarpNearer = 1,   // the nearer image pushed along its flow
  PLDissolvePlain = 2,        // dissolve without warp
  PLDissolveWarpBoth = 3,     // both pushed along their flows, then dissolved
  PLDissolveAgreement = 4,    // as 3, towards a cut where the two flows disagree
  PLDissolveWarpPyramid = 5,  // both pushed, then blended through Laplacian pyramids
  PLDissolvePyramid = 6,      // the images blended through Laplacian pyramids, no warp
};

// t in 0 .. 1 is the share of imageA: 1 shows imageA, 0 imageB. Images are UChar; flows
// are 2-channel Float images in the delivered sign (first(x, y) is found at
// second(x + u, y + v)), flowA from imageA to imageB and flowB the reverse, each of any
// size of at least 2 x 2 (mapped corner-aligned onto the images). A dissolve of P and Q by
// f is, per 8-bit sample, trunc(p + (q - p) * f + 0.5) with q - p an integer and the rest
// in single precision.
//
// In order:
//   1. imageA not UChar (or null): "PLFlowDissolve only supports unsigned char\n" on stderr.
//   2. both flows null and style not 0: "PLFlowDissolve what?\n" on stderr.
//   3. ZeroFlowBorder on each flow given: the caller's flows CHANGE, so that no warp pulls
//      from beyond the frame.
//   4. a style outside 0 .. 6 does nothing more.
// Then, as ours, checked before any work (nothing is written on a refusal):
//   - dst, imageA and imageB must be UChar images with data, of one width and height (at
//     least 2 x 2 for styles 1, 3, 4, 5, which warp) and one channel count; 4 channels for
//     styles 1 to 5, 1 to 4 for styles 0 and 6. Otherwise
//     "PLFlowDissolve: images do not match\n" on stderr.
//   - styles 3, 4 and 5 need both flows, 2-channel Float of at least 2 x 2, and style 4
//     both of one size; otherwise "PLFlowDissolve what?\n" on stderr. Style 1 with the
//     chosen flow null does nothing, silently.
// Styles:
//   0  CopyRect of imageA if t >= 0.5, else of imageB.
//   1  if t < 0.5, t becomes 1 - t and imageB with flowB replaces imageA with flowA; the
//      image is warped into dst with amount 1 - t (pixels the warp does not reach keep
//      what dst held).
//   2  dissolve of imageA and imageB by 1 - t.
//   3  imageA warped with flowA by 1 - t and imageB with flowB by t, into cleared
//      temporaries; dissolve of the two by 1 - t.
//   4  as 3, the dissolve driven per pixel by the agreement of the flows: the map of
//      PLFlowAgreement is pushed along flowA by 1 - t (average rule), Gaussian-blurred
//      (radius 4), and read bilinearly at (x * sx, y * sy) with sx = (flowA lastColumn /
//      image lastColumn) by INTEGER division, likewise sy: equal sizes read their own
//      pixel, a flow smaller than the images reads the map's corner everywhere. From the
//      sample s a span (lo, hi) is (0, 1) for s >= 1, (0.5, 0.5) for s <= 0, else
//      ((1 - s) / 2, 1 - (1 - s) / 2); f = 1 at t <= lo, 0 at t >= hi, else
//      1 - (t - lo) / (hi - lo); the pixel is the dissolve of the two warps by f.
//      Kept as the rules compose: the warp's average rule turns every hit sample other
//      than 0 into infinity (it divides by a count read as a subnormal float), the
//      bilinear read of a cell that holds infinity is NaN, and a NaN share stores 0 in all
//      four samples; so where the flows agree the pixels come out 0.
//   5  both warped as in 3, then each of the 4 channels blended through Laplacian pyramids
//      (LaplacePyramid::BlendInto with a GaussStepOneDPyramid for the smaller side of
//      imageA): fine detail changes over quickly, broad tone slowly. Images whose smaller
//      side is below 20 have one level and blend at one rate.
//   6  as 5 on the images themselves, without warp, in every channel they have.
// The blend loops run on the calling thread; the warps, blurs and pyramid stages inside
// give the same bytes for any worker count. Any PLErr raised inside a style (a failed
// temporary included) releases the temporaries and leaves as PLErrOutOfMemory, whatever
// its value.
void PLFlowDissolve(float t, PLImage* dst, const PLImage* imageA, PLImage* flowA,
                    const PLImage* imageB, PLImage* flowB, int32_t style);

// Sets the flow to (0, 0) in the first and last row and the first and last column. Only
// 2-channel Float images with data; anything else is left alone.
void ZeroFlowBorder(PLImage* flow);

// The agreement of a pair of flows, into c (1-channel Float of flowA's size), on the
// calling thread. With W = flowA's width, lo = W / 320.0 in float and hi = (W * 12) / 320
// by integer division, as float (320: 1 and 12; 1000: 3.125 and 37). Per pixel (x, y):
// 0 on the last row and column; 0 where (px, py) = (x + uA, y + vA) is not in
// [0, lastColumn) x [0, lastRow) of flowA (a NaN is not); otherwise flowB is read there
// bilinearly (cell slid back at its last row and column) as (uB, vB), e^2 = (x - (px +
// uB))^2 + (y - (py + vB))^2, and c = 1 if e^2 < lo^2, 0 if e^2 > hi^2, else
// 1 - (e - lo) / (hi - lo) clamped to 0 .. 1. Nothing is checked beyond null pointers:
// c must be of flowA's size, both flows 2-channel Float, flowB at least 2 x 2.
void PLFlowAgreement(PLImage* c, const PLImage* flowA, const PLImage* flowB);
