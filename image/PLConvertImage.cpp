// flowblur: whole-image conversions: nearest-neighbour resize, per-pixel functors, flow coding.
#include "image/PLConvertImage.h"

#include <cstdio>
#include <limits>

#include "image/PLPixelConvert.h"

namespace {

bool HasData(const PLImage* image) { return image && image->data; }

// Nearest source index for index i of a grid of dstSize on one of srcSize, corner-aligned:
// ratio and product in float, the 0.5 and the truncation in double.
int32_t NearestIndex(int32_t i, float ratio) {
  float product = static_cast<float>(i) * ratio;
  return PLTruncToInt32(static_cast<double>(product) + 0.5);
}

}  // namespace

// ---- flow coding ----

uint16_t PLEncodeFlow(float v, int32_t range) {
  const double r = static_cast<double>(static_cast<float>(range));
  double scaled;
  if (r != 0.0) {
    scaled = static_cast<double>(v) * 32767.0 / r;
  } else {
    // A zero range gives what IEEE division would: an infinity of v's sign, NaN for 0.
    scaled = v > 0.0f ? 32767.0 * 2.0 : (v < 0.0f ? -32767.0 * 2.0 : std::numeric_limits<double>::quiet_NaN());
  }
  // Narrowing to float then clamping gives the same as clamping then narrowing, since
  // the bounds are exact floats; clamping first keeps the narrowing inside float range.
  if (scaled < -32767.0) scaled = -32767.0;
  if (scaled > 32767.0) scaled = 32767.0;
  const float s = static_cast<float>(scaled);
  const double code = static_cast<double>(s) + 32767.0 + 0.5;
  return static_cast<uint16_t>(static_cast<uint32_t>(PLTruncToInt32(code)));
}

float PLDecodeFlow(float code, int32_t range) {
  return static_cast<float>((static_cast<double>(code) - 32767.0) / 32767.0 *
                            static_cast<double>(range));
}

void ConvertFloatFlow2ShortFlow::Convert(void* dstPixel, const void* srcPixel) {
  const unsigned char* s = static_cast<const unsigned char*>(srcPixel);
  unsigned char* d = static_cast<unsigned char*>(dstPixel);
  // Both components are read before either is written: in place the codes overlay u.
  float u = PLLoad<float>(s);
  float v = PLLoad<float>(s + 4);
  PLStore<uint16_t>(d, PLEncodeFlow(u, range));
  PLStore<uint16_t>(d + 2, PLEncodeFlow(v, range));
}

void ConvertShortFlow2FloatFlow::Convert(void* dstPixel, const void* srcPixel) {
  const unsigned char* s = static_cast<const unsigned char*>(srcPixel);
  unsigned char* d = static_cast<unsigned char*>(dstPixel);
  float u = PLDecodeFlow(static_cast<float>(PLLoad<uint16_t>(s)), range);
  float v = PLDecodeFlow(static_cast<float>(PLLoad<uint16_t>(s + 2)), range);
  PLStore<float>(d, u);
  PLStore<float>(d + 4, v);
}

// ---- whole-image walks ----

void CopyResized(PLImage* dst, const PLImage* src) {
  if (!HasData(dst) || !HasData(src)) return;
  if (dst->dataType == PLLong || src->dataType == PLLong) return;
  if (dst->width < 2 || dst->height < 2 || src->width < 1 || src->height < 1) return;
  if (src->channels < dst->channels) return;
  PLSampleConverter convert = PLGetSampleConverter(src->dataType, dst->dataType);
  if (!convert) return;
  const float ratioY = static_cast<float>(src->height - 1) / static_cast<float>(dst->height - 1);
  const float ratioX = static_cast<float>(src->width - 1) / static_cast<float>(dst->width - 1);
  const int32_t dstSample = dst->bytesPerSample;
  const int32_t srcSample = src->bytesPerSample;
  for (int32_t y = 0; y < dst->height; ++y) {
    const unsigned char* srcRow = src->Row(NearestIndex(y, ratioY));
    unsigned char* d = dst->Row(y);
    for (int32_t x = 0; x < dst->width; ++x) {
      const unsigned char* s = srcRow + NearestIndex(x, ratioX) * src->bytesPerPixel;
      for (int32_t c = 0; c < dst->channels; ++c) {
        convert(d, s);
        d += dstSample;
        s += srcSample;
      }
    }
  }
}

void ConvertPixels(PLImage* dst, const PLImage* src, ConvertImagePixel* functor) {
  if (!HasData(dst) || !HasData(src) || !functor) return;
  if (dst->width > src->width || dst->height > src->height) return;
  for (int32_t y = 0; y < dst->height; ++y) {
    unsigned char* d = dst->Row(y);
    const unsigned char* s = src->Row(y);
    for (int32_t x = 0; x < dst->width; ++x)
      functor->Convert(d + x * dst->bytesPerPixel, s + x * src->bytesPerPixel);
  }
}

void ConvertPixelsInPlace(PLImage* image, ConvertImagePixel* functor) {
  if (!HasData(image) || !functor) return;
  for (int32_t y = 0; y < image->height; ++y) {
    unsigned char* p = image->Row(y);
    for (int32_t x = 0; x < image->width; ++x) {
      unsigned char* pixel = p + x * image->bytesPerPixel;
      functor->Convert(pixel, pixel);
    }
  }
}

// ---- flow members of PLImage ----

void PLImage::SetFlow(int32_t x, int32_t y, int32_t range, float u, float v) {
  if (!data) return;
  unsigned char* p = PixelAddress(x, y);
  if (dataType == PLUShort) {
    uint16_t codeU = PLEncodeFlow(u, range);
    uint16_t codeV = PLEncodeFlow(v, range);
    PLStore<uint16_t>(p, codeU);
    PLStore<uint16_t>(p + 2, codeV);
    // A warning left for anyone who sees flows this large; the value still stands.
    if (codeU > 50000) std::fputs("whoa\n", stderr);
    return;
  }
  // Raw floats, range unused. A pixel too small for two floats is left alone.
  if (bytesPerPixel < 8) return;
  PLStore<float>(p, u);
  PLStore<float>(p + 4, v);
}

void PLImage::GetFlow(float fx, float fy, float* u, float* v, int32_t range) const {
  if (!data || (dataType != PLUShort && dataType != PLFloat) || channels < 2) return;
  if (width < 2 || height < 2) return;
  int32_t ix = PLTruncToInt32(fx);
  int32_t iy = PLTruncToInt32(fy);
  float tx = fx - static_cast<float>(ix);
  float ty = fy - static_cast<float>(iy);
  // The last column and row are read from the cell before them with a fraction of 1.
  if (ix >= lastColumn) {
    ix = width - 2;
    tx = 1.0f;
  }
  if (iy >= lastRow) {
    iy = height - 2;
    ty = 1.0f;
  }
  if (ix < 0 || iy < 0) return;
  const unsigned char* a = PixelAddress(ix, iy);
  const unsigned char* b = a + bytesPerPixel;
  const unsigned char* c = a + rowStep;
  const unsigned char* d = c + bytesPerPixel;
  float result[2];
  for (int32_t ch = 0; ch < 2; ++ch) {
    const int32_t off = ch * bytesPerSample;
    float va, vb, vc, vd;
    readSample(&va, a + off);
    readSample(&vb, b + off);
    readSample(&vc, c + off);
    readSample(&vd, d + off);
    float top = (vb - va) * tx + va;
    float bottom = (vd - vc) * tx + vc;
    result[ch] = (bottom - top) * ty + top;
  }
  if (dataType == PLUShort) {
    // Interpolated codes, decoded afterwards: not whole numbers.
    *u = PLDecodeFlow(result[0], range);
    *v = PLDecodeFlow(result[1], range);
  } else {
    *u = result[0];
    *v = result[1];
  }
}

// ---- flow files ----

PLImage* ReadFlow(const char* name) {
  PLImage coded(name, 0);
  if (!coded.data) return nullptr;  // always: no file decoder exists
  PLImage* flow = NUV_NEW PLImage(0, coded.width, coded.height, 2, PLFloat, coded.flipped);
  if (flow->errorCode) {
    delete flow;
    return nullptr;
  }
  int32_t range = coded.width > coded.height ? coded.width : coded.height;
  ConvertShortFlow2FloatFlow convert(range);
  ConvertPixels(flow, &coded, &convert);
  return flow;
}

void WriteFlow(const PLImage* image, const char* name) {
  if (!image) return;
  if (image->channels < 2) std::fputs("Write Flow needs more than 1 channel!\n", stderr);
  if (image->dataType != PLFloat) return;  // the coded image has no writer: no bytes
  PLImage coded(0, image->width, image->height, 2, PLUShort, image->flipped);
  if (coded.errorCode) {
    std::fputs("can't make flow image to write!\n", stderr);
    return;
  }
  // A 1-channel image has no v to read; its coded image stays unwritten.
  if (image->channels >= 2) {
    int32_t range = image->width > image->height ? image->width : image->height;
    ConvertFloatFlow2ShortFlow convert(range);
    ConvertPixels(&coded, image, &convert);
  }
  WriteFlow(&coded, name);
}
