// flowblur: sample arithmetic over whole images: scaling, products, sums and mattes.
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// Conventions of this file:
// - Every image is addressed by its own fields; in a two-image operation the sizes and the
//   channel count come from dst, and nothing compares them with src (callers check with
//   the predicates of PLImageCopy.h). src must be at least as large.
// - Hot paths (Float Subtract and Multiply, the UShort scalings, the matte conversions)
//   run row-parallel through the fork-join; the general fallbacks are serial, read samples
//   as floats through the readers of their type, compute in single precision and write
//   through the writer of dst's type, which truncates and wraps (a negative result in an
//   unsigned image keeps its low bits).
// - An unsupported type or channel count is a silent no-op. The serial per-pixel fallbacks
//   (Multiply, MultiplyColor, MultiplyChannel) serve UChar, UShort and Float only, because
//   the pixel reader knows no other type. The serial two-image walks (Subtract, Add, Min,
//   Max) serve the codes UChar to Double on both sides; a Long image (whose 64-bit samples
//   sit 4 bytes apart and so would run past the last stored row) makes them a no-op.
// - Float arguments are single precision; nothing here takes a null image as an error: a
//   null pointer or an image without data is a no-op.

// UShort images only, with non-zero width and height; otherwise nothing. Each sample s
// becomes trunc((float)s * factor + 0.5), the product in single precision and the 0.5
// added in double, stored in 16 bits with NO clamp: a product of 65536 or more wraps
// (40000 * 2.0 stores 14464). Row-parallel for 4 channels, serial otherwise.
void ScaleUShort(PLImage* image, float factor);
// UShort images only; otherwise nothing. A 4-channel image is first made straight with
// Unpremultiply. Then, row-parallel, every sample s (matte included) becomes
// v = (float)s * factor + 0.5f in single precision, v = maximum if above it, 0 if not
// above 0, truncated and stored.
void ScaleClampUShort(PLImage* image, float factor, float maximum);
// Every sample times factor. |factor - 1.0| < 1e-06 (in double): nothing.
// Float: row-parallel; each worker scales ONE contiguous run of
// (last - first + 1) * width * channels floats starting at the lower address of its two
// end rows. On a padded wrapped Float image this scales the bytes between rows and misses
// as many samples at the end of each worker's range; it never touches memory outside the
// span of the rows it was given. Deliberate: the images it is used on are allocated.
// UChar, UShort: serial GetPixel / multiply / SetPixel, which truncates (255 * 0.5 = 127).
// Other types: nothing.
void Multiply(PLImage* image, float factor);
// Fewer than 4 channels: Multiply. 4 or more: serially, whatever factor is, samples 0, 1
// and 2 of each pixel become factor * s + 0.5 (UChar, UShort; then truncated) or
// factor * s + 0.0 (Float); samples from 3 on stay. A Float image on this path is read
// through GetPixel's 16-bit reading, so the path is meant for UChar and UShort. Other
// types: nothing.
void MultiplyColor(PLImage* image, float factor);
// Sample `channel` of each pixel times factor, serially through GetPixel and SetPixel
// (truncating for integer types). factor exactly 1.0: nothing. channel outside
// 0 .. channels-1, or a type other than UChar, UShort, Float: nothing.
void MultiplyChannel(PLImage* image, float factor, int32_t channel);
// Flow scaling: Float images of 2 channels only, otherwise nothing. u *= uFactor and
// v *= vFactor in single precision, row-parallel, in place.
void MultiplyFlow(PLImage* image, float uFactor, float vFactor);

// dst = dst - src. Row-parallel when both are Float with 1 channel, or both Float with 2
// channels (flow); otherwise the serial fallback. In place on dst.
void Subtract(PLImage* dst, const PLImage* src);
// dst = dst + src, serial fallback walk.
void Add(PLImage* dst, const PLImage* src);
// dst = the smaller of each pair (src's value where it is not above dst's), serial.
void Min(PLImage* dst, const PLImage* src);
// The same; `unused` is not read.
void Min(PLImage* dst, const PLImage* unused, const PLImage* src);
// dst = the larger of each pair: a dst sample below the src sample is replaced. Written
// out (row-parallel) for UChar, UShort and Float with both images of that type and 1
// channel; the serial walk otherwise.
void Max(PLImage* dst, const PLImage* src);

// Straight colour from premultiplied, row-parallel, 4-channel UChar, UShort, or Float with
// whitePoint 1.0; otherwise nothing. Per pixel, colour c and matte m (the matte stays):
//   UChar  m != 0:      c = trunc(min(c * (255.0f / m), 255.0f) + 0.5)   (+0.5 in double)
//   UShort m != 0:      c = trunc(min(c * (65535.0f / m), 65535.0f) + 0.5)
//   Float  m >= 1e-07:  c = c * (1.0f / m), no clamp
// A pixel with m 0 (Float: below 1e-07) keeps its colour.
void Unpremultiply(PLImage* image);
// PremultiplyFrom(image, null, 1.0).
void Premultiply(PLImage* image);
// Row-parallel, 4-channel UChar, UShort or Float; otherwise nothing. With m the matte of
// `source` and k = m * (1.0f / (factor * image->whitePoint)) in single precision, each
// colour sample of `source` times k goes to `image` (UChar, UShort: + 0.5 and truncated,
// no clamp; Float: the product), and the matte of `source` is copied. A null source means
// `image` itself (in place). A source must have the same dataType and 4 channels, and at
// least image's size; otherwise nothing.
void PremultiplyFrom(PLImage* image, const PLImage* source, float factor);
