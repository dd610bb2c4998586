// flowblur: sample arithmetic over whole images: scaling, products, sums and mattes.
#include "image/PLImageArith.h"

#include <cmath>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "image/PLDispatch.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"

namespace {

bool HasData(const PLImage* image) { return image && image->data; }

// src has at least dst's rows and row length in samples (the serial walk reads a src row
// as a stream of samples, so this is what keeps it inside src).
bool Covers(const PLImage* src, const PLImage* dst) {
  return HasData(src) && src->height >= dst->height &&
         static_cast<int64_t>(src->width) * src->channels >=
             static_cast<int64_t>(dst->width) * dst->channels;
}

// A 16-bit store of a float through a double: trunc((double)v + 0.5), low 16 bits.
inline uint16_t StoreUShortDoubleHalf(float v) {
  return static_cast<uint16_t>(
      static_cast<uint32_t>(PLTruncToInt32(static_cast<double>(v) + 0.5)));
}

// Integer stores of the matte conversions: + 0.5 and truncated, low bits kept.
template <class T>
inline T StoreRounded(float v) {
  if constexpr (std::is_same<T, uint8_t>::value) return PLFloatToUChar(v + 0.5f);
  else return PLFloatToUShort(v + 0.5f);
}

// ---- float runs of the hot paths ----
// Four lanes at a time where SSE2 exists (the build's optimisation level leaves these
// loops scalar). Each lane is the same single-precision multiply or subtract as the
// scalar rule, so the bits are the same; the tail runs scalar.

void MultiplyRun(float* p, int64_t n, float factor) {
  int64_t i = 0;
#if defined(__SSE2__)
  const __m128 f = _mm_set1_ps(factor);
  for (; i + 4 <= n; i += 4) _mm_storeu_ps(p + i, _mm_mul_ps(_mm_loadu_ps(p + i), f));
#endif
  for (; i < n; ++i) p[i] = p[i] * factor;
}

// d[i] = d[i] - s[i]; d and s may be the same row (each lane is loaded before it is stored).
void SubtractRun(float* d, const float* s, int32_t n) {
  int32_t i = 0;
#if defined(__SSE2__)
  for (; i + 4 <= n; i += 4)
    _mm_storeu_ps(d + i, _mm_sub_ps(_mm_loadu_ps(d + i), _mm_loadu_ps(s + i)));
#endif
  for (; i < n; ++i) d[i] = d[i] - s[i];
}

// ---- ScaleUShort / ScaleClampUShort ----

void ScaleUShortRows(const PLImage* image, float factor, int32_t firstRow, int32_t lastRow) {
  const int32_t n = image->width * image->channels;
  for (int32_t y = lastRow; y >= firstRow; --y) {
    unsigned char* p = image->Row(y);  // a wrapped host row: any address
    for (int32_t i = 0; i < n; ++i, p += 2)
      PLStore<uint16_t>(p, StoreUShortDoubleHalf(static_cast<float>(PLLoad<uint16_t>(p)) * factor));
  }
}

void ScaleUShortWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* image = args->Next<const PLImage*>();
  const float factor = *args->Next<const float*>();
  ScaleUShortRows(image, factor, firstRow, lastRow);
}

void ScaleClampWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* image = args->Next<const PLImage*>();
  const float factor = *args->Next<const float*>();
  const float maximum = *args->Next<const float*>();
  const int32_t n = image->width * image->channels;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* p = image->Row(y);  // a wrapped host row: any address
    for (int32_t i = 0; i < n; ++i, p += 2) {
      float v = static_cast<float>(PLLoad<uint16_t>(p)) * factor + 0.5f;
      if (v > maximum) v = maximum;
      if (!(v > 0.0f)) v = 0.0f;
      PLStore<uint16_t>(p, PLFloatToUShort(v));
    }
  }
}

// ---- Multiply (Float) ----

// One contiguous run per worker from the lower of its two end rows: on padded rows this
// scales the gaps and misses as many samples at the end, which is kept; the run never
// leaves the span of the worker's rows.
void MultiplyFloatWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* image = args->Next<const PLImage*>();
  const float factor = *args->Next<const float*>();
  float* a = PLRowPtr<float>(image, firstRow);
  float* b = PLRowPtr<float>(image, lastRow);
  float* p = a < b ? a : b;
  const int64_t n = static_cast<int64_t>(lastRow - firstRow + 1) * image->width * image->channels;
  MultiplyRun(p, n, factor);
}

void MultiplyFlowWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* image = args->Next<const PLImage*>();
  const float uFactor = *args->Next<const float*>();
  const float vFactor = *args->Next<const float*>();
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    float* p = PLRowPtr<float>(image, y);
    for (int32_t x = 0; x < image->width; ++x, p += 2) {
      p[0] *= uFactor;
      p[1] *= vFactor;
    }
  }
}

// ---- two-image float paths ----

template <int32_t C>
void SubtractFloatWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* dst = args->Next<const PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  const int32_t n = dst->width * C;
  for (int32_t y = firstRow; y <= lastRow; ++y)
    SubtractRun(PLRowPtr<float>(dst, y), PLRowPtr<const float>(src, y), n);
}

template <class T>
void MaxWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* dst = args->Next<const PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    T* d = PLRowPtr<T>(dst, y);
    const T* s = PLRowPtr<const T>(src, y);
    for (int32_t x = 0; x < dst->width; ++x)
      if (d[x] < s[x]) d[x] = s[x];
  }
}

// ---- the serial two-image walk ----

// Reads both sides as floats, combines them in single precision and writes through dst's
// writer. Each side steps by its own bytesPerSample along its row. Long is refused: its
// 64-bit routines at a 4-byte step would pass the end of the last stored row.
template <class Op>
void SerialWalk(PLImage* dst, const PLImage* src, Op op) {
  if (!HasData(dst) || !Covers(src, dst)) return;
  if (dst->dataType == PLLong || src->dataType == PLLong) return;
  PLSampleReader readDst = PLGetSampleReader(dst->dataType);
  PLSampleReader readSrc = PLGetSampleReader(src->dataType);
  PLSampleConverter write = PLGetSampleWriter(dst->dataType);
  if (!readDst || !readSrc || !write) return;
  const int32_t n = dst->width * dst->channels;
  for (int32_t y = 0; y < dst->height; ++y) {
    unsigned char* d = dst->Row(y);
    const unsigned char* s = src->Row(y);
    for (int32_t i = 0; i < n; ++i, d += dst->bytesPerSample, s += src->bytesPerSample) {
      float a, b;
      readDst(&a, d);
      readSrc(&b, s);
      float r = op(a, b);
      write(d, &r);
    }
  }
}

// ---- matte conversions ----

template <class T>
void UnpremultiplyWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* image = args->Next<const PLImage*>();
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    T* p = PLRowPtr<T>(image, y);
    for (int32_t x = 0; x < image->width; ++x, p += 4) {
      const float m = static_cast<float>(p[3]);
      if constexpr (std::is_same<T, float>::value) {
        if (!(m >= 1e-07f)) continue;
        const float inv = 1.0f / m;
        for (int32_t c = 0; c < 3; ++c) p[c] = p[c] * inv;
      } else {
        if (m == 0.0f) continue;
        constexpr float kFull = std::is_same<T, uint8_t>::value ? 255.0f : 65535.0f;
        const float k = kFull / m;
        for (int32_t c = 0; c < 3; ++c) {
          float v = static_cast<float>(p[c]) * k;
          if (!(v < kFull)) v = kFull;  // min(v, full)
          p[c] = static_cast<T>(static_cast<uint32_t>(
              PLTruncToInt32(static_cast<double>(v) + 0.5)));
        }
      }
    }
  }
}

template <class T>
void PremultiplyWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* image = args->Next<const PLImage*>();
  const PLImage* source = args->Next<const PLImage*>();
  const float inv = *args->Next<const float*>();  // 1 / (factor * whitePoint)
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    T* d = PLRowPtr<T>(image, y);
    const T* s = PLRowPtr<const T>(source, y);
    for (int32_t x = 0; x < image->width; ++x, d += 4, s += 4) {
      const T matte = s[3];
      const float k = static_cast<float>(matte) * inv;
      for (int32_t c = 0; c < 3; ++c) {
        float v = static_cast<float>(s[c]) * k;
        if constexpr (std::is_same<T, float>::value) d[c] = v;
        else d[c] = StoreRounded<T>(v);
      }
      d[3] = matte;
    }
  }
}

// The per-pixel serial path of the multiplications: GetPixel, change, SetPixel, for the
// three working types (GetPixel reads no other).
bool PixelPathType(const PLImage* image) {
  return image->dataType == PLUChar || image->dataType == PLUShort || image->dataType == PLFloat;
}

class ScratchPixel {
 public:
  explicit ScratchPixel(int32_t channels)
      : values(static_cast<float*>(NuvMemAlloc(sizeof(float) * static_cast<uint64_t>(channels)))) {
    for (int32_t c = 0; c < channels; ++c) values[c] = 0.0f;
  }
  ~ScratchPixel() { NuvMemFree(values); }
  ScratchPixel(const ScratchPixel&) = delete;
  ScratchPixel& operator=(const ScratchPixel&) = delete;
  float* values;
};

}  // namespace

void ScaleUShort(PLImage* image, float factor) {
  if (!image || image->width == 0 || image->height == 0 || image->dataType != PLUShort) return;
  if (!image->data || image->lastRow < 0) return;
  if (image->channels == 4) {
    PLForkImageRows(image->height, ScaleUShortWorker, image, &factor);
    return;
  }
  // Serial, from the last row down, as the other channel counts always ran.
  ScaleUShortRows(image, factor, 0, image->lastRow);
}

void ScaleClampUShort(PLImage* image, float factor, float maximum) {
  if (!HasData(image) || image->dataType != PLUShort) return;
  if (image->channels == 4) Unpremultiply(image);
  PLForkImageRows(image->height, ScaleClampWorker, image, &factor, &maximum);
}

void Multiply(PLImage* image, float factor) {
  if (std::fabs(static_cast<double>(factor) - 1.0) < 1e-06) return;
  if (!HasData(image) || image->width < 1 || image->channels < 1) return;
  if (image->dataType == PLFloat) {
    PLForkImageRows(image->height, MultiplyFloatWorker, image, &factor);
    return;
  }
  if (!PixelPathType(image)) return;
  ScratchPixel pixel(image->channels);
  for (int32_t y = 0; y < image->height; ++y)
    for (int32_t x = 0; x < image->width; ++x) {
      image->GetPixel(x, y, pixel.values);
      for (int32_t c = 0; c < image->channels; ++c) pixel.values[c] = pixel.values[c] * factor;
      image->SetPixel(x, y, pixel.values);
    }
}

void MultiplyColor(PLImage* image, float factor) {
  if (!HasData(image)) return;
  if (image->channels < 4) {
    Multiply(image, factor);
    return;
  }
  if (!PixelPathType(image)) return;
  const float offset = image->dataType == PLFloat ? 0.0f : 0.5f;
  ScratchPixel pixel(image->channels);
  for (int32_t y = 0; y < image->height; ++y)
    for (int32_t x = 0; x < image->width; ++x) {
      image->GetPixel(x, y, pixel.values);
      for (int32_t c = 0; c < 3; ++c) pixel.values[c] = factor * pixel.values[c] + offset;
      image->SetPixel(x, y, pixel.values);
    }
}

void MultiplyChannel(PLImage* image, float factor, int32_t channel) {
  if (factor == 1.0f) return;
  if (!HasData(image) || !PixelPathType(image)) return;
  if (channel < 0 || channel >= image->channels) return;
  ScratchPixel pixel(image->channels);
  for (int32_t y = 0; y < image->height; ++y)
    for (int32_t x = 0; x < image->width; ++x) {
      image->GetPixel(x, y, pixel.values);
      pixel.values[channel] = pixel.values[channel] * factor;
      image->SetPixel(x, y, pixel.values);
    }
}

void MultiplyFlow(PLImage* image, float uFactor, float vFactor) {
  if (!HasData(image) || image->dataType != PLFloat || image->channels != 2) return;
  PLForkImageRows(image->height, MultiplyFlowWorker, image, &uFactor, &vFactor);
}

void Subtract(PLImage* dst, const PLImage* src) {
  if (!HasData(dst) || !HasData(src)) return;
  bool parallel = false;
  if (src->dataType == dst->dataType && src->channels == dst->channels) {
    PLDispatch(dst->dataType, dst->channels, [&](auto tag) {
      using T = typename decltype(tag)::Type;
      constexpr int32_t C = decltype(tag)::Channels;
      // Float luma levels (1 channel) and flow (2 channels) are the estimator's hot pairs.
      if constexpr (std::is_same<T, float>::value && (C == 1 || C == 2)) {
        parallel = true;
        if (Covers(src, dst)) PLForkImageRows(dst->height, SubtractFloatWorker<C>, dst, src);
      }
    });
  }
  if (!parallel) SerialWalk(dst, src, [](float a, float b) { return a - b; });
}

void Add(PLImage* dst, const PLImage* src) {
  SerialWalk(dst, src, [](float a, float b) { return a + b; });
}

void Min(PLImage* dst, const PLImage* src) {
  // src's value wherever it is not above dst's (a NaN on either side takes src's).
  SerialWalk(dst, src, [](float a, float b) { return b > a ? a : b; });
}

void Min(PLImage* dst, const PLImage* /*unused*/, const PLImage* src) { Min(dst, src); }

void Max(PLImage* dst, const PLImage* src) {
  if (!HasData(dst) || !HasData(src)) return;
  if (dst->dataType == src->dataType && dst->channels == 1 && src->channels == 1) {
    bool done = PLDispatchType(dst->dataType, [&](auto tag) {
      using T = typename decltype(tag)::Type;
      if (!Covers(src, dst)) return;
      PLForkImageRows(dst->height, MaxWorker<T>, dst, src);
    });
    if (done) return;
  }
  SerialWalk(dst, src, [](float a, float b) { return a < b ? b : a; });
}

void Unpremultiply(PLImage* image) {
  if (!HasData(image) || image->channels != 4) return;
  if (image->dataType == PLFloat && image->whitePoint != 1.0f) return;
  PLDispatchType(image->dataType, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    PLForkImageRows(image->height, UnpremultiplyWorker<T>, image);
  });
}

void Premultiply(PLImage* image) { PremultiplyFrom(image, nullptr, 1.0f); }

void PremultiplyFrom(PLImage* image, const PLImage* source, float factor) {
  if (!HasData(image) || image->channels != 4) return;
  if (!source) source = image;
  if (!HasData(source) || source->dataType != image->dataType || source->channels != 4 ||
      source->width < image->width || source->height < image->height)
    return;
  const float scale = factor * image->whitePoint;
  // A zero factor gives the infinity IEEE division would, without dividing by zero.
  const float inv = scale != 0.0f ? 1.0f / scale : std::copysign(INFINITY, scale);
  PLDispatchType(image->dataType, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    PLForkImageRows(image->height, PremultiplyWorker<T>, image, source, &inv);
  });
}

// ---- matte members of PLImage ----

void PLImage::ToStraightMatte() {
  if (matteMode != MattePremultiplied) return;
  Unpremultiply(this);
  matteMode = MatteStraight;
}

void PLImage::ToPremultipliedMatte() {
  if (matteMode != MatteStraight) return;
  Premultiply(this);
  matteMode = MattePremultiplied;
}

void PLImage::UpdateMatteMode(int32_t premultiplied) {
  if (!data || channels != 4) return;
  bool belowFull = false;
  PLDispatchType(dataType, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    const T full = static_cast<T>(whitePoint);
    for (int32_t y = 0; y < height && !belowFull; ++y) {
      const T* p = PLRowPtr<const T>(this, y);
      for (int32_t x = 0; x < width; ++x, p += 4)
        if (p[3] < full) {
          belowFull = true;
          break;
        }
    }
  });
  if (dataType != PLUChar && dataType != PLUShort && dataType != PLFloat) return;
  if (!belowFull)
    matteMode = MatteOpaque;
  else if (matteMode == MatteUnknown)
    matteMode = premultiplied ? MattePremultiplied : MatteStraight;
}
