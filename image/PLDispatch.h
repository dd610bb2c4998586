// flowblur: the one dispatcher from (data type, channel count) to a template instance.
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// Sample type of a working data type code.
template <class T, int32_t C>
struct PLPixelTag {
  using Type = T;
  static constexpr int32_t Channels = C;
};
template <class T>
struct PLTypeTag {
  using Type = T;
};

// Calls fn(PLPixelTag<T, C>{}) for the working types (UChar uint8_t, UShort uint16_t,
// Float float) and 1 to 4 channels, and returns true. Any other pair calls nothing and
// returns false: the caller's silent no-op (or its one stderr line) belongs there.
// Pick the instance once per call, never inside a pixel loop.
template <class T, class Fn>
bool PLDispatchChannels(int32_t channels, Fn&& fn) {
  switch (channels) {
    case 1: fn(PLPixelTag<T, 1>{}); return true;
    case 2: fn(PLPixelTag<T, 2>{}); return true;
    case 3: fn(PLPixelTag<T, 3>{}); return true;
    case 4: fn(PLPixelTag<T, 4>{}); return true;
    default: return false;
  }
}

template <class Fn>
bool PLDispatch(int32_t dataType, int32_t channels, Fn&& fn) {
  switch (dataType) {
    case PLUChar: return PLDispatchChannels<uint8_t>(channels, fn);
    case PLUShort: return PLDispatchChannels<uint16_t>(channels, fn);
    case PLFloat: return PLDispatchChannels<float>(channels, fn);
    default: return false;
  }
}

// Type only, for operations whose channel count is a loop bound.
template <class Fn>
bool PLDispatchType(int32_t dataType, Fn&& fn) {
  switch (dataType) {
    case PLUChar: fn(PLTypeTag<uint8_t>{}); return true;
    case PLUShort: fn(PLTypeTag<uint16_t>{}); return true;
    case PLFloat: fn(PLTypeTag<float>{}); return true;
    default: return false;
  }
}

// Row y of `image` as a typed pointer.
template <class T>
inline T* PLRowPtr(const PLImage* image, int32_t y) {
  return reinterpret_cast<T*>(image->Row(y));
}
