// flowblur: matte and layer operations: channel copies, complements, matte cuts, compositing
// and the soft matte choke.
#include "retime/PLLayerOps.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <type_traits>

#include "filter/PLKernels.h"
#include "image/PLDispatch.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "runtime/PLErr.h"

namespace {

bool HasPixels(const PLImage* image) {
  return image && image->data && image->width > 0 && image->height > 0;
}
bool SameSize(const PLImage* a, const PLImage* b) {
  return a->width == b->width && a->height == b->height;
}

template <class T>
constexpr float White() {
  return sizeof(T) == 1 ? 255.0f : sizeof(T) == 2 ? 65535.0f : 1.0f;
}

// Integer stores round (+0.5f, truncated, wrapping without UB); Float stores keep the value.
template <class T>
inline T Rounded(float v) {
  if constexpr (sizeof(T) == 1)
    return PLFloatToUChar(v + 0.5f);
  else if constexpr (sizeof(T) == 2)
    return PLFloatToUShort(v + 0.5f);
  else
    return v;
}

// Numeric cast of one sample between the working types, as the library's converters do it.
template <class D, class S>
inline D CastSample(S s) {
  if constexpr (std::is_same<D, S>::value)
    return s;
  else if constexpr (std::is_same<D, float>::value)
    return static_cast<float>(s);
  else if constexpr (std::is_same<S, float>::value)
    return sizeof(D) == 1 ? static_cast<D>(PLFloatToUChar(s)) : static_cast<D>(PLFloatToUShort(s));
  else
    return static_cast<D>(s);  // integer to integer keeps the low bits
}

// Address of sample c of pixel x in row y.
inline unsigned char* At(const PLImage* image, int32_t x, int32_t y, int32_t c) {
  return image->Row(y) + x * image->bytesPerPixel + c * image->bytesPerSample;
}

// ---- workers ---------------------------------------------------------------------------

template <class T, bool kToCanonical>
void ReorderWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* image = args->Next<const PLImage*>();
  const int32_t* index = args->Next<const int32_t*>();
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* p = image->Row(y);
    for (int32_t x = 0; x < image->width; ++x, p += 4 * sizeof(T)) {
      T in[4], out[4];
      for (int32_t k = 0; k < 4; ++k) in[k] = PLLoad<T>(p + k * sizeof(T));
      if (kToCanonical) {
        for (int32_t k = 0; k < 4; ++k) out[k] = in[index[k]];
      } else {
        for (int32_t k = 0; k < 4; ++k) out[k] = in[k];
        for (int32_t k = 0; k < 4; ++k) out[index[k]] = in[k];
      }
      for (int32_t k = 0; k < 4; ++k) PLStore<T>(p + k * sizeof(T), out[k]);
    }
  }
}

template <class T>
void Subtract1Worker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* dst = args->Next<const PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* d = dst->Row(y);
    const unsigned char* s = src->Row(y);
    for (int32_t x = 0; x < dst->width; ++x) {
      const T a = PLLoad<T>(d + x * sizeof(T));
      const T b = PLLoad<T>(s + x * sizeof(T));
      T r;
      if constexpr (std::is_same<T, float>::value) {
        r = a - b;
        if (r < 0.0f) r = 0.0f;
      } else {
        r = a > b ? static_cast<T>(a - b) : T(0);
      }
      PLStore<T>(d + x * sizeof(T), r);
    }
  }
}

template <class T>
void BlackMatteWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* dst = args->Next<const PLImage*>();
  const PLImage* matte = args->Next<const PLImage*>();
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* d = dst->Row(y);
    const unsigned char* m = matte->Row(y);
    for (int32_t x = 0; x < dst->width; ++x) {
      float v = (1.0f - PLLoad<float>(m + x * 4)) * static_cast<float>(PLLoad<T>(d + x * sizeof(T)));
      if (v > White<T>()) v = White<T>();
      // Integer types also stop at 0, so a matte above 1 blacks the sample out instead of
      // wrapping it.
      if (!std::is_same<T, float>::value && v < 0.0f) v = 0.0f;
      PLStore<T>(d + x * sizeof(T), Rounded<T>(v));
    }
  }
}

template <class T, int32_t SC>
void ApplyMatteWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* dst = args->Next<const PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  const PLImage* matte = args->Next<const PLImage*>();
  const float white = White<T>();
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* d = dst->Row(y);
    const unsigned char* s = src->Row(y);
    const unsigned char* mr = matte->Row(y);
    for (int32_t x = 0; x < dst->width; ++x, d += 4 * sizeof(T), s += SC * sizeof(T)) {
      const T mSample = PLLoad<T>(mr + x * sizeof(T));
      const float m = static_cast<float>(mSample);
      T in[SC];
      for (int32_t c = 0; c < SC; ++c) in[c] = PLLoad<T>(s + c * sizeof(T));
      T out[4];
      for (int32_t c = 0; c < 3; ++c) out[c] = Rounded<T>(static_cast<float>(in[c]) * m / white);
      if constexpr (SC == 4)
        out[3] = Rounded<T>(static_cast<float>(in[3]) * m / white);
      else
        out[3] = mSample;
      for (int32_t c = 0; c < 4; ++c) PLStore<T>(d + c * sizeof(T), out[c]);
    }
  }
}

template <class D, class S>
void CopyChannelWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* dst = args->Next<const PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  const int32_t dc = args->Next<int32_t>();
  const int32_t sc = args->Next<int32_t>();
  for (int32_t y = firstRow; y <= lastRow; ++y)
    for (int32_t x = 0; x < dst->width; ++x)
      PLStore<D>(At(dst, x, y, dc), CastSample<D>(PLLoad<S>(At(src, x, y, sc))));
}

template <class T>
void InvertWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* image = args->Next<const PLImage*>();
  const int32_t n = image->width * image->channels;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* p = image->Row(y);
    for (int32_t i = 0; i < n; ++i) {
      const T v = PLLoad<T>(p + i * sizeof(T));
      if constexpr (std::is_same<T, float>::value)
        PLStore<T>(p + i * sizeof(T), 1.0f - v);
      else
        PLStore<T>(p + i * sizeof(T), static_cast<T>(~v));
    }
  }
}

// Rectangle of CompositeOver: destination corner, source corner, width.
struct OverRect {
  int32_t x, y, srcX, srcY, width;
};

template <class T>
void OverWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* dst = args->Next<const PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  const OverRect* r = args->Next<const OverRect*>();
  const float white = White<T>();
  for (int32_t j = firstRow; j <= lastRow; ++j) {
    unsigned char* d = At(dst, r->x, r->y + j, 0);
    const unsigned char* s = At(src, r->srcX, r->srcY + j, 0);
    for (int32_t i = 0; i < r->width; ++i, d += 4 * sizeof(T), s += 4 * sizeof(T)) {
      const float a = static_cast<float>(PLLoad<T>(s + 3 * sizeof(T))) / white;
      for (int32_t c = 0; c < 3; ++c) {
        const float dv = static_cast<float>(PLLoad<T>(d + c * sizeof(T)));
        const float sv = static_cast<float>(PLLoad<T>(s + c * sizeof(T)));
        PLStore<T>(d + c * sizeof(T), Rounded<T>(dv * (1.0f - a) + sv));
      }
      const float md = static_cast<float>(PLLoad<T>(d + 3 * sizeof(T)));
      PLStore<T>(d + 3 * sizeof(T), Rounded<T>(md + (white - md) * a));
    }
  }
}

// Per-sample maps of the matte choke, on Float images of 1 to 4 channels.
enum ChokeMap : int32_t {
  kComplement,  // 1 - v, and 1.0 above 0.999
  kClamp,       // limited to 0..1
  kMix,         // v + (other - v) * fraction, limited to 0..1
  kShrink,      // threshold t: below t 0, else (v - t) / (1 - t), near 1 made 1
  kGrow,        // u = 1 - t: above u 1, else v / u
};

template <int32_t kMap>
void ChokeMapWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* image = args->Next<const PLImage*>();
  const PLImage* other = args->Next<const PLImage*>();
  const float k = *args->Next<const float*>();
  const int32_t n = image->width * image->channels;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* p = image->Row(y);
    const unsigned char* q = other ? other->Row(y) : nullptr;
    for (int32_t i = 0; i < n; ++i) {
      float v = PLLoad<float>(p + i * 4);
      if (kMap == kComplement) {
        v = 1.0f - v;
        // Mask thresholds compare in double with a double constant.
        if (static_cast<double>(v) > 0.999) v = 1.0f;
      } else if (kMap == kClamp) {
        if (v < 0.0f) v = 0.0f;
        if (v > 1.0f) v = 1.0f;
      } else if (kMap == kMix) {
        v = v + (PLLoad<float>(q + i * 4) - v) * k;
        if (v < 0.0f) v = 0.0f;
        if (v > 1.0f) v = 1.0f;
      } else if (kMap == kShrink) {
        if (v < k) {
          v = 0.0f;
        } else {
          v = (v - k) / (1.0f - k);
          if (std::fabs(static_cast<double>(v) - 1.0) < 0.0001) v = 1.0f;
        }
      } else {
        const float u = 1.0f - k;
        v = v > u ? 1.0f : v / u;
      }
      PLStore<float>(p + i * 4, v);
    }
  }
}

template <int32_t kMap>
void RunChokeMap(PLImage* image, const PLImage* other, float k) {
  PLForkImageRows(image->height, ChokeMapWorker<kMap>, image, other, &k);
}

bool FloatMatte(const PLImage* image) {
  return HasPixels(image) && image->dataType == PLFloat && image->channels >= 1 &&
         image->channels <= 4;
}

// Whole radii of the choke stay where the blur accepts them (radius below 4096; the blur
// radius is at most |r| + 3).
constexpr float kChokeRadiusLimit = 4090.0f;

void Reorder(NuvImage* view, bool toCanonical) {
  if (!view || !view->internal) return;
  const PLImage* image = view->internal;
  if (!HasPixels(image) || image->channels != 4) return;
  const int32_t index[4] = {view->internal->redIndex, view->internal->greenIndex,
                            view->internal->blueIndex, view->internal->alphaIndex};
  for (int32_t k = 0; k < 4; ++k)
    if (index[k] < 0 || index[k] > 3) return;
  if (index[0] == 0 && index[1] == 1 && index[2] == 2 && index[3] == 3) return;
  PLDispatchType(image->dataType, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    if (toCanonical)
      PLForkImageRows(image->height, ReorderWorker<T, true>, image, index);
    else
      PLForkImageRows(image->height, ReorderWorker<T, false>, image, index);
  });
}

}  // namespace

int32_t FloatArraysDiffer(const float* a, const float* b, int32_t count) {
  if (!a || !b) return 0;
  for (int32_t i = 0; i < count; ++i)
    if (a[i] != b[i]) return 1;
  return 0;
}

void ToCanonicalOrder(NuvImage* image) { Reorder(image, true); }
void FromCanonicalOrder(NuvImage* image) { Reorder(image, false); }

void Subtract1Channel(PLImage* dst, const PLImage* src) {
  if (!HasPixels(dst) || !HasPixels(src) || dst->channels != 1 || src->channels != 1 ||
      dst->dataType != src->dataType || !SameSize(dst, src) ||
      !PLDispatchType(dst->dataType, [&](auto tag) {
        using T = typename decltype(tag)::Type;
        PLForkImageRows(dst->height, Subtract1Worker<T>, dst, src);
      }))
    std::fputs("error in image types for Subtract1Channel\n", stderr);
}

void RenderBlackMatte(PLImage* dst, const PLImage* matte) {
  if (!HasPixels(dst) || !HasPixels(matte) || dst->channels != 1 || matte->channels != 1 ||
      matte->dataType != PLFloat || !SameSize(dst, matte) ||
      !PLDispatchType(dst->dataType, [&](auto tag) {
        using T = typename decltype(tag)::Type;
        PLForkImageRows(dst->height, BlackMatteWorker<T>, dst, matte);
      }))
    std::fputs("error in image types for RenderBlackMatte\n", stderr);
}

void ApplyMatte(PLImage* dst, const PLImage* src, const PLImage* matte) {
  if (!HasPixels(dst) || !HasPixels(src) || !HasPixels(matte)) return;
  if (dst->channels != 4 || (src->channels != 3 && src->channels != 4) || matte->channels != 1)
    return;
  if (src->dataType != dst->dataType || matte->dataType != dst->dataType) return;
  if (!SameSize(dst, src) || !SameSize(dst, matte)) return;
  PLDispatchType(dst->dataType, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    if (src->channels == 3)
      PLForkImageRows(dst->height, ApplyMatteWorker<T, 3>, dst, src, matte);
    else
      PLForkImageRows(dst->height, ApplyMatteWorker<T, 4>, dst, src, matte);
  });
}

void LayerMatte(PLImage* dst, const PLImage* const* mattes, int32_t layer, int32_t layerCount,
                const PLImage* image) {
  if (!HasPixels(dst) || layer < 0 || layer >= layerCount) return;
  if (layer < layerCount - 1) {
    if (!mattes) return;
    const PLImage* matte = mattes[layer];
    if (!HasPixels(matte) || !SameSize(dst, matte) || matte->channels != dst->channels ||
        matte->dataType != dst->dataType)
      return;
    CopyRows(dst, matte);
  } else if (image && image->channels == 4) {
    CopyCHannelIntoCHannel(dst, 0, image, 3);
  } else {
    FillColor(dst, 1.0f, 1.0f, 1.0f, 1.0f);  // white of dst's type
  }
}

void CopyCHannelIntoCHannel(PLImage* dst, int32_t dstChannel, const PLImage* src,
                            int32_t srcChannel) {
  if (!HasPixels(dst) || !HasPixels(src)) return;
  if (!SameSize(dst, src)) {
    std::fputs("CopyCHannelIntoCHannel: incompatible images!\n", stderr);
    return;
  }
  if (dstChannel < 0 || dstChannel >= dst->channels || srcChannel < 0 ||
      srcChannel >= src->channels)
    return;
  PLDispatchType(dst->dataType, [&](auto dtag) {
    using D = typename decltype(dtag)::Type;
    PLDispatchType(src->dataType, [&](auto stag) {
      using S = typename decltype(stag)::Type;
      PLForkImageRows(dst->height, CopyChannelWorker<D, S>, dst, src, dstChannel, srcChannel);
    });
  });
}

void Invert(PLImage* image) {
  if (!HasPixels(image)) return;
  PLDispatchType(image->dataType, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    PLForkImageRows(image->height, InvertWorker<T>, image);
  });
}

void CompositeOver(PLImage* dst, int32_t x, int32_t y, const PLImage* src, int32_t srcX,
                   int32_t srcY, int32_t lastSrcX, int32_t lastSrcY) {
  if (!HasPixels(dst) || !HasPixels(src) || dst->dataType != src->dataType) return;
  if (dst->channels != 4 || src->channels != 4) return;
  // Everything in 64 bits, so that no corner or extent can overflow.
  const int64_t w = int64_t{lastSrcX} - srcX + 1;
  const int64_t h = int64_t{lastSrcY} - srcY + 1;
  if (w < 1 || h < 1 || srcX < 0 || srcY < 0 || x < 0 || y < 0) return;
  if (srcX + w > src->width || srcY + h > src->height || x + w > dst->width ||
      y + h > dst->height)
    return;
  const OverRect rect{x, y, srcX, srcY, static_cast<int32_t>(w)};
  PLDispatchType(dst->dataType, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    PLForkImageRows(static_cast<int32_t>(h), OverWorker<T>, dst, src, &rect);
  });
}

void ChokeStep(PLImage* image, float r) {
  if (r == 0.0f) return;
  if (!FloatMatte(image)) return;
  const bool growing = r < 0.0f;
  const float radius = growing ? -r : r;
  if (!(radius < kChokeRadiusLimit)) throw PLErrParameter;  // NaN too

  float rPlus1 = radius + 1.0f;
  float w = std::ceil(rPlus1);
  float d = w - rPlus1;
  if (d < 0.01f) {
    rPlus1 = radius + 0.01f + 1.0f;
    w = std::ceil(rPlus1);
    d = w - rPlus1;
  }
  PLGaussBlur(image, 0, w + (1.0f - d));

  // Threshold from a kernel of n = 2w + 1 weights 2^(-(x^2 / (w/3)^2)), normalised to sum 1:
  // the share of the weights from index 2 (and 3) upward. The weights are formed twice
  // (same bits each time) rather than stored.
  const int32_t wi = static_cast<int32_t>(w);
  const int32_t n = 2 * wi + 1;
  const float q = w / 3.0f;
  const float qq = q * q;
  auto weight = [&](int32_t i) {
    const float x = static_cast<float>(i - wi);
    const float exponent = -x * x / qq;
    return static_cast<float>(std::pow(2.0, static_cast<double>(exponent)));
  };
  float sum = 0.0f;
  for (int32_t i = 0; i < n; ++i) sum += weight(i);
  float s2 = 0.0f;
  for (int32_t i = 2; i < n; ++i) s2 += weight(i) / sum;
  float s3 = 0.0f;
  for (int32_t i = 3; i < n; ++i) s3 += weight(i) / sum;
  const float t = s3 + (s2 - s3) * (1.0f - d);

  if (growing)
    RunChokeMap<kGrow>(image, nullptr, t);
  else
    RunChokeMap<kShrink>(image, nullptr, t);
}

void PLMatteChoke(PLImage* image, float radius) {
  if (!FloatMatte(image)) {
    std::fputs("PLMatte Choke, invalid input\n", stderr);
    return;
  }
  if (!(std::fabs(radius) < kChokeRadiusLimit)) throw PLErrParameter;  // NaN too
  const bool negative = radius < 0.0f;
  const float magnitude = negative ? -radius : radius;
  // The copy of a fractional radius is made before anything is written.
  const float f = std::floor(magnitude);
  const float c = std::ceil(magnitude);
  std::unique_ptr<PLImage> copy;
  if (f != c) {
    copy.reset(NUV_NEW PLImage(image->width, image->height, image->channels, PLFloat, 0));
  }
  if (negative) RunChokeMap<kComplement>(image, nullptr, 0.0f);
  if (!copy) {
    ChokeStep(image, f);
  } else {
    CopyWhole(copy.get(), image);
    ChokeStep(image, f);
    ChokeStep(copy.get(), c);
    RunChokeMap<kMix>(image, copy.get(), magnitude - f);
  }
  if (negative) RunChokeMap<kComplement>(image, nullptr, 0.0f);
  RunChokeMap<kClamp>(image, nullptr, 0.0f);
}
