// flowblur: whole-image conversions: nearest-neighbour resize, per-pixel functors, flow coding.
#pragma once
#include <cstdint>

#include "image/PLImage.h"
#include "runtime/NuvMem.h"

// All conversions here are numeric casts between sample types (see PLPixelConvert.h):
// no white-point scaling, no rounding, no clamping; out-of-range floats wrap to the low
// bits of their 32-bit truncation (NaN and values beyond 32 bits store 0). The only
// conversion that scales and clamps is the 16-bit coding of flow vectors below.
// Everything here runs on the calling thread.

// Nearest-neighbour resize from src to dst, converting each sample with the routine for
// (src->dataType, dst->dataType). For each dst pixel (x, y):
//   sy = trunc(y * ((float)(src->height - 1) / (float)(dst->height - 1)) + 0.5)
// (ratio and product in single precision, + 0.5 and truncation in double), sx likewise
// from the widths; then dst->channels samples are converted, each side stepping by its
// own bytesPerSample. dst's channel count governs; src must have at least as many.
// Refused (nothing written): a null or Empty image on either side, a type pair without a
// routine, a Long image on either side (its 8-byte samples 4 bytes apart would run past
// the image), and a dst of width or height 1 (the ratio would be infinite: this is not for
// one-pixel images).
void CopyResized(PLImage* dst, const PLImage* src);

// A per-pixel conversion object: Convert(dstPixel, srcPixel) with the addresses of whole
// pixels. Built on the stack by its caller.
class ConvertImagePixel : public NuvMem {
 public:
  virtual void Convert(void* dstPixel, const void* srcPixel) = 0;

 protected:
  ~ConvertImagePixel() = default;
};

// Two floats (u, v) to two 16-bit flow codes (PLEncodeFlow). `range` is the flow value
// that maps to the extreme code: the image's larger dimension.
class ConvertFloatFlow2ShortFlow : public ConvertImagePixel {
 public:
  explicit ConvertFloatFlow2ShortFlow(int32_t range_) : range(range_) {}
  void Convert(void* dstPixel, const void* srcPixel) override;
  int32_t range;
};

// Two 16-bit flow codes to two floats (PLDecodeFlow).
class ConvertShortFlow2FloatFlow : public ConvertImagePixel {
 public:
  explicit ConvertShortFlow2FloatFlow(int32_t range_) : range(range_) {}
  void Convert(void* dstPixel, const void* srcPixel) override;
  int32_t range;
};

// Calls functor->Convert(&dst(x, y), &src(x, y)) for every pixel of dst, each image by its
// own addressing (flipped included). A dst wider or taller than src is refused (nothing),
// as is a null pointer or an Empty image. The functor must fit both pixel sizes.
void ConvertPixels(PLImage* dst, const PLImage* src, ConvertImagePixel* functor);
// The same on one image, with one address for both arguments.
void ConvertPixelsInPlace(PLImage* image, ConvertImagePixel* functor);

// 16-bit coding of one flow component, `range` > 0 the value mapped to the extreme code:
//   s = (float)((double)v * 32767.0 / (double)(float)range), clamped to [-32767, 32767],
//   code = trunc((double)s + 32767.0 + 0.5).
// 0 codes as 32767, +range as 65534, -range as 0, beyond them the clamp holds; 65535 is
// never produced. A NaN escapes the clamp and truncates to the integer-indefinite value,
// whose low 16 bits give the code 0.
uint16_t PLEncodeFlow(float v, int32_t range);
// Decoding of a (possibly interpolated, non-integer) code:
//   v = (float)(((double)code - 32767.0) / 32767.0 * (double)range).
// 32767 decodes to exactly 0.
float PLDecodeFlow(float code, int32_t range);

// PLImage::SetFlow and PLImage::GetFlow (declared in PLImage.h) live with this coding:
// - SetFlow on a UShort image stores the two codes and prints "whoa\n" to stderr when the
//   u code is above 50000 (the value stands). On any other type it stores u and v as two
//   raw floats when the pixel has room for them (8 bytes or more), otherwise nothing.
// - GetFlow reads a UShort or Float image of 2 or more channels bilinearly at (fx, fy):
//   ix = trunc(fx), tx = fx - ix (likewise y); ix at or beyond lastColumn becomes width - 2
//   with tx 1.0 (likewise y), so the last column and row are reached exactly. In float:
//   top = (b - a) * tx + a, bottom = (d - c) * tx + c, r = (bottom - top) * ty + top; a
//   UShort result is decoded from the interpolated code. Refused, u and v untouched: any
//   other type, fewer than 2 channels, an image narrower or shorter than 2, and a
//   position whose truncation is negative (or NaN, or beyond 32 bits).

// Flow files: no file format exists. ReadFlow always returns null (the image it would
// fill is Empty). WriteFlow prints "Write Flow needs more than 1 channel!\n" to stderr for
// fewer than 2 channels and goes on; a Float image is coded into a 2-channel UShort image
// of the same size (range = the larger dimension), or "can't make flow image to write!\n"
// is printed when that image cannot be made; no bytes are ever written anywhere, and
// `name` is not read.
PLImage* ReadFlow(const char* name);
void WriteFlow(const PLImage* image, const char* name);
