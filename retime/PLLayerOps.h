// flowblur: matte and layer operations shared by the layered motion blur and the retimer.
#pragma once
#include <cstdint>

#include "image/NuvImage.h"
#include "image/PLImage.h"

// Rules for these operations:
// - Images are PLImage pointers, destination first, each addressed by its own row order and
//   padding; samples of caller images are read and written through PLLoad/PLStore.
// - "White" is the white of a data type: 255 for UChar, 65535 for UShort, 1.0 for Float.
// - Checks come first; a refused call writes nothing. Null pointers and images without
//   pixels are refused like any other misfit, never dereferenced.
// - Arithmetic is single precision unless a line says double; integer stores add 0.5f and
//   truncate where a line says "rounded". Row-parallel operations give the same bytes for
//   any number of workers.

// 1 when some a[i] != b[i] for i in 0 .. count-1 (the first unequal pair ends the search),
// else 0. A NaN is unequal to everything. A count below 1 or a null array: 0.
int32_t FloatArraysDiffer(const float* a, const float* b, int32_t count);

// Four-channel views only (UChar, UShort or Float): rewrites each pixel in place so that
// samples 0..3 hold the red, green, blue and matte samples found at the wrapper's
// redIndex, greenIndex, blueIndex and alphaIndex. The wrapper's indices are left as they
// are, so FromCanonicalOrder undoes it. Nothing for indices 0, 1, 2, 3, for any other
// channel count, for a null view, a view without wrapper or pixels, or for an index
// outside 0..3. Row-parallel.
void ToCanonicalOrder(NuvImage* image);
// The reverse: sample 0 goes to redIndex, 1 to greenIndex, 2 to blueIndex, 3 to alphaIndex
// (with repeated indices the later write wins). Same refusals as ToCanonicalOrder.
void FromCanonicalOrder(NuvImage* image);

// dst = max(dst - src, 0) per sample. Both single-channel, of one data type (UChar, UShort
// or Float) and one size; otherwise writes "error in image types for Subtract1Channel\n"
// to the standard error stream and nothing else. Row-parallel.
void Subtract1Channel(PLImage* dst, const PLImage* src);

// dst = (1 - m) * dst per sample, m the matte sample, in float; then limited to the white
// of dst's type, and for UChar and UShort also to 0 (so a matte above 1 gives 0, not a
// wrapped value) and rounded. dst single-channel UChar, UShort or Float; matte
// single-channel Float of dst's size. Otherwise writes
// "error in image types for RenderBlackMatte\n" and nothing else. Row-parallel.
void RenderBlackMatte(PLImage* dst, const PLImage* matte);

// dst 4 channels, src 3 or 4, matte 1, all of one data type (UChar, UShort or Float) and
// one size; otherwise nothing. With m the matte sample and W the white of the type:
//   colour of dst = (colour of src * m) / W        (float; rounded for integer types)
//   matte of dst  = m                              (3-channel src)
//                 = (matte of src * m) / W         (4-channel src, rounded likewise)
// dst may be src itself. Row-parallel.
void ApplyMatte(PLImage* dst, const PLImage* src, const PLImage* matte);

// The matte of one layer into the single-channel dst. Layers run 0 (nearest) to
// layerCount - 1 (farthest); mattes[i] is the matte of layer i for i < layerCount - 1.
// - layer below layerCount - 1: copies mattes[layer] into dst (same size, channels and
//   type; otherwise nothing).
// - the last layer: with a four-channel `image`, its channel 3 goes into channel 0 of dst
//   (CopyCHannelIntoCHannel); otherwise (image null or of other channel counts) dst is
//   filled with white.
// A layer outside 0 .. layerCount - 1, a null list where one is read, or a null dst:
// nothing.
void LayerMatte(PLImage* dst, const PLImage* const* mattes, int32_t layer, int32_t layerCount,
                const PLImage* image);

// Copies channel srcChannel of src into channel dstChannel of dst, converting each sample
// by a numeric cast with no scaling (Float to UChar truncates; 300.0 keeps its low bits).
// Types UChar, UShort, Float on either side. Images of different sizes: writes
// "CopyCHannelIntoCHannel: incompatible images!\n" to the standard error stream and does
// nothing; a channel outside an image or another type: nothing. Row-parallel; dst may be
// src (other channels are not touched).
// kept: the capital H in the name is how callers spell it; renaming breaks them.
void CopyCHannelIntoCHannel(PLImage* dst, int32_t dstChannel, const PLImage* src,
                            int32_t srcChannel);

// Every sample: UChar and UShort get their bits complemented (255 - s, 65535 - s), Float
// becomes 1.0f - s. Other types: nothing. Row-parallel.
void Invert(PLImage* image);

// Lays the rectangle srcX..lastSrcX, srcY..lastSrcY (inclusive) of src over dst with its
// corner at (x, y). Both 4 channels of one data type (UChar, UShort or Float), src with
// premultiplied colour; otherwise nothing. A rectangle that is empty or does not lie
// inside both images is refused (nothing). With a = src matte / W in float:
//   colour of dst = colour of dst * (1 - a) + colour of src
//   matte of dst  = matte of dst + (W - matte of dst) * a
// rounded for integer types (+0.5f, truncated, not clamped: only an src whose colour
// exceeds its matte can pass white). Row-parallel over the rectangle's rows.
void CompositeOver(PLImage* dst, int32_t x, int32_t y, const PLImage* src, int32_t srcX,
                   int32_t srcY, int32_t lastSrcX, int32_t lastSrcY);

// Shrinks (radius > 0) or spreads (radius < 0) the white of a matte with values in 0..1 by
// a soft amount; a fractional radius mixes the two whole radii around it. Accepts Float
// images (every sample alike, 1 to 4 channels); any other writes
// "PLMatte Choke, invalid input\n" to the standard error stream and does nothing more.
// (The rules work on values in 0..1, so integer mattes are read as not accepted.)
// The result lies in 0..1. A NaN radius, or one whose blur would be refused (|radius| of
// 4090 or more), throws PLErrParameter with the image untouched. May throw
// PLErrOutOfMemory (the copy of a fractional radius).
void PLMatteChoke(PLImage* image, float radius);

// One whole-radius step of PLMatteChoke on a Float image. r 0: nothing. r > 0 shrinks; a
// negative r grows with |r|. Blurs with PLGaussBlur, then maps each sample through a
// threshold taken from a kernel of 2w + 1 weights, w = ceil(|r| + 1). Other types: nothing.
// Throws PLErrParameter for a NaN or too large r, before anything is written.
void ChokeStep(PLImage* image, float r);
