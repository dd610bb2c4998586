// flowblur: the per-sample conversion routines behind readSample, SetPixel and SetChannel.
#include "image/PLPixelConvert.h"

namespace {
constexpr float kFraction = 1.52587890625e-05f;  // 2 to the power -16

// Readers: type -> float.
void UCharToFloat(float* d, const void* s) { *d = static_cast<float>(PLLoad<uint8_t>(s)); }
void UShortToFloat(float* d, const void* s) { *d = static_cast<float>(PLLoad<uint16_t>(s)); }
void FloatToFloat(float* d, const void* s) { std::memcpy(d, s, 4); }
void CharToFloat(float* d, const void* s) { *d = static_cast<float>(PLLoad<int8_t>(s)); }
void ShortToFloat(float* d, const void* s) { *d = static_cast<float>(PLLoad<int16_t>(s)); }
void ShortFractionToFloat(float* d, const void* s) {
  *d = static_cast<float>(PLLoad<int16_t>(s)) * kFraction;
}
void UShortFractionToFloat(float* d, const void* s) {
  *d = static_cast<float>(PLLoad<uint16_t>(s)) * kFraction;
}
void DoubleToFloat(float* d, const void* s) { *d = static_cast<float>(PLLoad<double>(s)); }
// The Long type is listed as 4 bytes, yet its routines move 64-bit integers.
void LongToFloat(float* d, const void* s) { *d = static_cast<float>(PLLoad<int64_t>(s)); }

// Writers: float -> type.
void FloatToUChar(void* d, const void* s) { PLStore<uint8_t>(d, PLFloatToUChar(PLLoad<float>(s))); }
void FloatToUShort(void* d, const void* s) {
  PLStore<uint16_t>(d, PLFloatToUShort(PLLoad<float>(s)));
}
void FloatToFloatW(void* d, const void* s) { std::memcpy(d, s, 4); }
void FloatToChar(void* d, const void* s) { PLStore<uint8_t>(d, PLFloatToUChar(PLLoad<float>(s))); }
void FloatToShort(void* d, const void* s) {
  PLStore<uint16_t>(d, PLFloatToUShort(PLLoad<float>(s)));
}
// Multiplies by the reading factor, not its inverse: writing then reading does not give
// the value back. Kept so.
void FloatToShortFraction(void* d, const void* s) {
  PLStore<uint16_t>(d, PLFloatToUShort(PLLoad<float>(s) * kFraction));
}
void FloatToUShortFraction(void* d, const void* s) {
  PLStore<uint16_t>(d, PLFloatToUShort(PLLoad<float>(s) * 65536.0f));
}
void FloatToDouble(void* d, const void* s) {
  PLStore<double>(d, static_cast<double>(PLLoad<float>(s)));
}
void FloatToLong(void* d, const void* s) { PLStore<int64_t>(d, PLTruncToInt64(PLLoad<float>(s))); }

// Between the integer working types.
void UCharToUChar(void* d, const void* s) { std::memcpy(d, s, 1); }
void UCharToUShort(void* d, const void* s) {
  PLStore<uint16_t>(d, static_cast<uint16_t>(PLLoad<uint8_t>(s)));
}
void UShortToUChar(void* d, const void* s) {
  PLStore<uint8_t>(d, static_cast<uint8_t>(PLLoad<uint16_t>(s) & 0xFF));
}
void UShortToUShort(void* d, const void* s) { std::memcpy(d, s, 2); }

template <PLSampleReader R>
void AsConverter(void* d, const void* s) {
  R(static_cast<float*>(d), s);
}

const PLSampleReader kReaders[9] = {UCharToFloat, UShortToFloat,         FloatToFloat,
                                    CharToFloat,  ShortToFloat,          ShortFractionToFloat,
                                    UShortFractionToFloat, DoubleToFloat, LongToFloat};
const PLSampleConverter kReadersAsConverters[9] = {
    AsConverter<UCharToFloat>,          AsConverter<UShortToFloat>, AsConverter<FloatToFloat>,
    AsConverter<CharToFloat>,           AsConverter<ShortToFloat>,
    AsConverter<ShortFractionToFloat>,  AsConverter<UShortFractionToFloat>,
    AsConverter<DoubleToFloat>,         AsConverter<LongToFloat>};
const PLSampleConverter kWriters[9] = {FloatToUChar,          FloatToUShort,  FloatToFloatW,
                                       FloatToChar,           FloatToShort,   FloatToShortFraction,
                                       FloatToUShortFraction, FloatToDouble,  FloatToLong};
}  // namespace

PLSampleReader PLGetSampleReader(int32_t dataType) {
  if (dataType < 0 || dataType > 8) return nullptr;
  return kReaders[dataType];
}

PLSampleConverter PLGetSampleWriter(int32_t dataType) {
  if (dataType < 0 || dataType > 8) return nullptr;
  return kWriters[dataType];
}

PLSampleConverter PLGetSampleConverter(int32_t srcType, int32_t dstType) {
  if (dstType == PLFloat) return (srcType >= 0 && srcType <= 8) ? kReadersAsConverters[srcType] : nullptr;
  if (srcType == PLFloat) return PLGetSampleWriter(dstType);
  if (srcType == PLUChar && dstType == PLUChar) return UCharToUChar;
  if (srcType == PLUChar && dstType == PLUShort) return UCharToUShort;
  if (srcType == PLUShort && dstType == PLUChar) return UShortToUChar;
  if (srcType == PLUShort && dstType == PLUShort) return UShortToUShort;
  return nullptr;
}
