// flowblur: blending a second image into a first in place, also outside 0..1 (sharpening).
#include "filter/PLBlend.h"

#include <cstdio>

#include "filter/PLFilterPrivate.h"
#include "image/PLDispatch.h"
#include "runtime/NuvMP.h"

using plfilter::LoadSample;

namespace {

// Destination sample d and source sample s blended at t, in float: one table for all
// 3-channel 8-bit blends, rebuilt each call (so two such blends must not overlap).
uint8_t gBlendTable[256 * 256];

bool Alike(const PLImage* d, const PLImage* s) {
  return d->width == s->width && d->height == s->height && d->channels == s->channels &&
         d->bytesPerSample == s->bytesPerSample && d->flipped == s->flipped &&
         d->dataType == s->dataType && (d->channels == 3 || d->channels == 4);
}

bool HasPixels(const PLImage* image) {
  return image->data != nullptr && image->width > 0 && image->height > 0;
}

inline float Blend(float d, float s, float t) { return s + (d - s) * t; }

inline float Limit(float v, float low, float high) {
  if (v < low) v = low;
  if (v > high) v = high;
  return v;
}

template <class T>
inline void Put(unsigned char* p, int32_t v) {
  PLStore<T>(p, static_cast<T>(v));
}

const char kWhitePointMessage[] = "PLBlend: float image doesn't have 1.0 for white point\n";

void BuildTable(float t) {
  const bool inside = t >= 0.0f && t <= 1.0f;
  for (int32_t d = 0; d < 256; ++d) {
    for (int32_t s = 0; s < 256; ++s) {
      float v = static_cast<float>(s) * (1.0f - t) + static_cast<float>(d) * t + 0.5f;
      // Inside 0..1 the value cannot leave 0.5 .. 255.5; outside it is limited first.
      if (!inside) v = Limit(v, 0.0f, 255.0f);
      gBlendTable[d * 256 + s] = static_cast<uint8_t>(PLTruncToInt32(v));
    }
  }
}

// Serial rows of the field: 3 channels.
template <class T>
void BlendRows3(PLImage* destination, const PLImage* source, int32_t first, int32_t step,
                float t) {
  const int32_t samples = destination->width * 3;
  for (int32_t y = first; y < destination->height; y += step) {
    unsigned char* d = destination->Row(y);
    const unsigned char* s = source->Row(y);
    for (int32_t i = 0; i < samples; ++i, d += sizeof(T), s += sizeof(T)) {
      if constexpr (sizeof(T) == 1) {
        *d = gBlendTable[*d * 256 + *s];
      } else if constexpr (sizeof(T) == 2) {
        const int32_t dv = PLLoad<uint16_t>(d);
        const int32_t sv = PLLoad<uint16_t>(s);
        float v = static_cast<float>(sv) + static_cast<float>(dv - sv) * t + 0.5f;
        v = Limit(v, 0.0f, 65535.0f);
        Put<uint16_t>(d, PLTruncToInt32(v));
      } else {
        PLStore<float>(d, Blend(PLLoad<float>(d), PLLoad<float>(s), t));
      }
    }
  }
}

// Serial rows of the field: 4 channels, premultiplied, with the matte kept legal.
template <class T>
void BlendRows4(PLImage* destination, const PLImage* source, int32_t first, int32_t step,
                float t) {
  constexpr bool kFloat = sizeof(T) == 4;
  const float white = sizeof(T) == 1 ? 255.0f : (sizeof(T) == 2 ? 65535.0f : 1.0f);
  for (int32_t y = first; y < destination->height; y += step) {
    unsigned char* d = destination->Row(y);
    const unsigned char* s = source->Row(y);
    for (int32_t x = 0; x < destination->width; ++x, d += 4 * sizeof(T), s += 4 * sizeof(T)) {
      const float a = Blend(LoadSample<T>(d + 3 * sizeof(T)), LoadSample<T>(s + 3 * sizeof(T)), t);
      const float m = a / white;
      if (!(kFloat ? a > 0.0f : m > 0.0f)) {
        for (int32_t c = 0; c < 4; ++c) PLStore<T>(d + c * sizeof(T), T(0));
        continue;
      }
      float colour[3];
      for (int32_t c = 0; c < 3; ++c) {
        colour[c] = Blend(LoadSample<T>(d + c * sizeof(T)), LoadSample<T>(s + c * sizeof(T)), t);
        if (m > 1.0f) colour[c] = colour[c] / m;
      }
      if constexpr (kFloat) {
        for (int32_t c = 0; c < 3; ++c) PLStore<float>(d + c * sizeof(T), colour[c]);
        PLStore<float>(d + 3 * sizeof(T), Limit(a, 0.0f, 1.0f));
      } else {
        const int32_t matte = PLTruncToInt32(Limit(a, 0.0f, white) + 0.5f);
        for (int32_t c = 0; c < 3; ++c) {
          int32_t v = PLTruncToInt32(Limit(colour[c], 0.0f, white) + 0.5f);
          if (v > matte) v = matte;  // a legal premultiplied pixel
          Put<T>(d + c * sizeof(T), v);
        }
        Put<T>(d + 3 * sizeof(T), matte);
      }
    }
  }
}

// The row-parallel 4-channel blend: no division by the matte, no limit to it, and the
// matte truncated without 0.5.
template <class T>
void BlendWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* destination = args->Next<PLImage*>();
  const PLImage* source = args->Next<const PLImage*>();
  const float t = *args->Next<const float*>();
  const float white = source->whitePoint;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* d = destination->Row(y);
    const unsigned char* s = source->Row(y);
    for (int32_t x = 0; x < destination->width; ++x, d += 4 * sizeof(T), s += 4 * sizeof(T)) {
      const float a = Blend(LoadSample<T>(d + 3 * sizeof(T)), LoadSample<T>(s + 3 * sizeof(T)), t);
      const float matte = a < white ? a : white;
      if (a < 0.0f || !(matte > 0.0f)) {
        for (int32_t c = 0; c < 4; ++c) PLStore<T>(d + c * sizeof(T), T(0));
        continue;
      }
      for (int32_t c = 0; c < 3; ++c) {
        const float v = Blend(LoadSample<T>(d + c * sizeof(T)), LoadSample<T>(s + c * sizeof(T)), t);
        if constexpr (sizeof(T) == 4) {
          PLStore<float>(d + c * sizeof(T), v);
        } else {
          float u = v + 0.5f;
          if (u > white) u = white;
          if (u < 0.0f) u = 0.0f;
          Put<T>(d + c * sizeof(T), PLTruncToInt32(u));
        }
      }
      if constexpr (sizeof(T) == 4)
        PLStore<float>(d + 3 * sizeof(T), matte);
      else
        Put<T>(d + 3 * sizeof(T), PLTruncToInt32(matte));
    }
  }
}

}  // namespace

int32_t PLBlendRows(PLImage* destination, const PLImage* source, int32_t field, float t) {
  if (!Alike(destination, source)) return 0;
  // No pixels to reach: refused like images that are not alike.
  if ((destination->data == nullptr || source->data == nullptr) &&
      destination->width > 0 && destination->height > 0)
    return 0;
  const int32_t first = field == 3 ? 1 : 0;
  const int32_t step = field == 1 ? 1 : 2;
  if (t == 1.0f) return 1;
  if (t == 0.0f) {
    plfilter::CopyRows(destination, source, first, destination->height - 1, step);
    return 1;
  }
  const bool four = destination->channels == 4;
  switch (destination->dataType) {
    case PLUChar:
      if (four) {
        BlendRows4<uint8_t>(destination, source, first, step, t);
      } else {
        BuildTable(t);
        BlendRows3<uint8_t>(destination, source, first, step, t);
      }
      return 1;
    case PLUShort:
      if (four)
        BlendRows4<uint16_t>(destination, source, first, step, t);
      else
        BlendRows3<uint16_t>(destination, source, first, step, t);
      return 1;
    case PLFloat:
      if (destination->whitePoint != 1.0f || source->whitePoint != 1.0f) {
        std::fputs(kWhitePointMessage, stderr);
        return 0;
      }
      if (four)
        BlendRows4<float>(destination, source, first, step, t);
      else
        BlendRows3<float>(destination, source, first, step, t);
      return 1;
    default:
      return 0;
  }
}

int32_t PLBlend(PLImage* destination, const PLImage* source, float t) {
  if (destination->channels == 4 && source->channels == 4) {
    if (!HasPixels(destination) || !HasPixels(source) || destination->width != source->width ||
        destination->height != source->height || destination->dataType != source->dataType ||
        destination->channels != source->channels ||
        destination->bytesPerSample != source->bytesPerSample)
      return 1;
    if (!Alike(destination, source)) return 1;
    if (t == 1.0f) return 1;
    if (t == 0.0f) {
      plfilter::CopyRows(destination, source, 0, destination->height - 1, 1);
      return 1;
    }
    const int32_t rows = destination->height;
    PLDispatchType(destination->dataType, [&](auto tag) {
      using T = typename decltype(tag)::Type;
      const int32_t threads = NuvMPThreadsForRows(rows);
      NuvMPFork(threads, rows, BlendWorker<T>, destination, source, &t);
    });
    return 1;
  }
  if (destination->channels == 4) {
    PLBlendRows(destination, source, 1, t);  // not alike: refuses
    return 1;
  }
  return PLBlendRows(destination, source, 1, t);
}
