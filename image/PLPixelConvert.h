// flowblur: sample conversions between the nine data types, as numeric casts.
#pragma once
#include <cstdint>
#include <cstring>

#include "image/PLImage.h"

// Converts one sample: writes *dst from *src. No scaling, no rounding, no clamping.
typedef void (*PLSampleConverter)(void* dst, const void* src);

// The routine for (source type, destination type), or null for a pair without one.
PLSampleConverter PLGetSampleConverter(int32_t srcType, int32_t dstType);
// Type -> Float for the nine codes; null outside them. This is what readSample holds.
PLSampleReader PLGetSampleReader(int32_t dataType);
// Float -> type for the nine codes (Float itself included); null outside them.
PLSampleConverter PLGetSampleWriter(int32_t dataType);

// Truncation toward zero as the hardware's conversion gives it, without undefined
// behaviour: a value outside the 32-bit range, or NaN, gives the integer-indefinite
// value 0x80000000, whose low 8 and 16 bits are 0.
inline int32_t PLTruncToInt32(float f) {
  if (f >= -2147483648.0f && f < 2147483648.0f) return static_cast<int32_t>(f);
  return INT32_MIN;
}
inline int32_t PLTruncToInt32(double f) {
  if (f > -2147483649.0 && f < 2147483648.0) return static_cast<int32_t>(f);
  return INT32_MIN;
}
// Same for 64 bits: out of range or NaN gives 0x8000000000000000.
inline int64_t PLTruncToInt64(float f) {
  if (f >= -9223372036854775808.0f && f < 9223372036854775808.0f) return static_cast<int64_t>(f);
  return INT64_MIN;
}

// Float stores of the integer types: truncate to 32 bits, keep the low bits.
inline uint8_t PLFloatToUChar(float f) {
  return static_cast<uint8_t>(static_cast<uint32_t>(PLTruncToInt32(f)));
}
inline uint16_t PLFloatToUShort(float f) {
  return static_cast<uint16_t>(static_cast<uint32_t>(PLTruncToInt32(f)));
}

// Unaligned-safe loads and stores of a sample.
template <class T>
inline T PLLoad(const void* p) {
  T v;
  std::memcpy(&v, p, sizeof(T));
  return v;
}
template <class T>
inline void PLStore(void* p, T v) {
  std::memcpy(p, &v, sizeof(T));
}
