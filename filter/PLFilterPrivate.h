// flowblur: helpers shared by the filter folder's sources (not part of the public interface).
#pragma once
#include <cstdint>
#include <cstring>

#include "image/PLImage.h"
#include "image/PLPixelConvert.h"

namespace plfilter {

// One sample of type T as a float, from possibly unaligned memory.
template <class T>
inline float LoadSample(const unsigned char* p) {
  return static_cast<float>(PLLoad<T>(p));
}

// (int)(v + 0.5) clamped to the type's range; Float is stored as it is. NaN and values
// beyond 32 bits truncate to INT32_MIN and so clamp to 0.
template <class T>
inline void StoreClamped(unsigned char* p, float v);
template <>
inline void StoreClamped<uint8_t>(unsigned char* p, float v) {
  int32_t i = PLTruncToInt32(v + 0.5f);
  *p = static_cast<uint8_t>(i < 0 ? 0 : (i > 255 ? 255 : i));
}
template <>
inline void StoreClamped<uint16_t>(unsigned char* p, float v) {
  int32_t i = PLTruncToInt32(v + 0.5f);
  PLStore<uint16_t>(p, static_cast<uint16_t>(i < 0 ? 0 : (i > 65535 ? 65535 : i)));
}
template <>
inline void StoreClamped<float>(unsigned char* p, float v) {
  PLStore<float>(p, v);
}

// (int)(v + 0.5) with no clamp: the low bits of the truncated value are kept, so an
// out-of-range value wraps. Float is stored as it is.
template <class T>
inline void StoreWrapped(unsigned char* p, float v);
template <>
inline void StoreWrapped<uint8_t>(unsigned char* p, float v) {
  *p = PLFloatToUChar(v + 0.5f);
}
template <>
inline void StoreWrapped<uint16_t>(unsigned char* p, float v) {
  PLStore<uint16_t>(p, PLFloatToUShort(v + 0.5f));
}
template <>
inline void StoreWrapped<float>(unsigned char* p, float v) {
  PLStore<float>(p, v);
}

// Copies width * bytesPerPixel bytes of each selected row of `source` over `destination`,
// each image addressed by its own order and padding. step 1 copies every row from
// firstRow on, step 2 every second one. Local to the filters so that they do not wait on the
// image copy family.
inline void CopyRows(PLImage* destination, const PLImage* source, int32_t firstRow,
                     int32_t lastRow, int32_t step) {
  size_t bytes = static_cast<size_t>(source->width) * static_cast<size_t>(source->bytesPerPixel);
  for (int32_t y = firstRow; y <= lastRow; y += step)
    std::memmove(destination->Row(y), source->Row(y), bytes);
}

}  // namespace plfilter
