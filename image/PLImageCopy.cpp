// flowblur: predicates, copies, clears and fills of whole images and their rectangles.
#include "image/PLImageCopy.h"

#include <cstring>
#include <type_traits>

#include "image/PLDispatch.h"
#include "image/PLPixelConvert.h"

namespace {

bool HasData(const PLImage* image) { return image && image->data; }

// The rectangle lies inside the image.
bool RectInside(const PLImage* image, int32_t x, int32_t y, int32_t w, int32_t h) {
  return x >= 0 && y >= 0 && w <= image->width - x && h <= image->height - y;
}

// `bytes` read from column x of rows y .. y+h-1 stay before the end of the image's last
// stored row. A same-type copy takes its byte count from dst, so a src of fewer channels
// is read past its rows; that is kept, up to the end of the image's memory.
bool RowsReadable(const PLImage* image, int32_t x, int32_t y, int32_t h, int64_t bytes) {
  int64_t rowA = image->flipped ? image->lastRow - y : y;
  int64_t rowB = image->flipped ? image->lastRow - (y + h - 1) : y + h - 1;
  int64_t highest = (rowA > rowB ? rowA : rowB) * image->rowBytes;
  int64_t end = static_cast<int64_t>(image->lastRow) * image->rowBytes +
                static_cast<int64_t>(image->width) * image->bytesPerPixel;
  return highest + static_cast<int64_t>(x) * image->bytesPerPixel + bytes <= end;
}

// PLDispatch for 1 to 4 channels; any other positive count gets the instance with C == 0,
// whose kernels take the count at run time.
template <class Fn>
bool DispatchAnyChannels(int32_t dataType, int32_t channels, Fn&& fn) {
  if (PLDispatch(dataType, channels, fn)) return true;
  if (channels < 1) return false;
  return PLDispatchType(dataType, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    fn(PLPixelTag<T, 0>{});
  });
}

// One sample as a numeric cast, exactly as the per-sample converters give it.
template <class D, class S>
inline D CastSample(S s) {
  if constexpr (std::is_same<D, S>::value) {
    return s;
  } else if constexpr (std::is_same<D, float>::value) {
    return static_cast<float>(s);
  } else if constexpr (std::is_same<S, float>::value) {
    if constexpr (std::is_same<D, uint8_t>::value) return PLFloatToUChar(s);
    else return PLFloatToUShort(s);
  } else {
    // Between the integer types: zero extension, or the low 8 bits.
    return static_cast<D>(s & 0xFF);
  }
}

// A UChar or UShort store of a scaled float: 0.5 added, truncated, low bits kept.
template <class D>
inline D ScaledStore(float v) {
  if constexpr (std::is_same<D, float>::value) {
    return v;
  } else if constexpr (std::is_same<D, uint8_t>::value) {
    return PLFloatToUChar(v + 0.5f);
  } else {
    return PLFloatToUShort(v + 0.5f);
  }
}

// ---- workers ----

void CopyWholeWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* dst = args->Next<PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  size_t bytes = static_cast<size_t>(dst->width) * static_cast<size_t>(dst->bytesPerPixel);
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* d = dst->Row(y);
    const unsigned char* s = src->Row(y);
    // An image copied onto itself meets its own rows: nothing to do, and memcpy must not
    // see overlapping blocks.
    if (d != s) std::memmove(d, s, bytes);
  }
}

void ClearWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* image = args->Next<PLImage*>();
  size_t bytes = static_cast<size_t>(image->width) * static_cast<size_t>(image->bytesPerPixel);
  for (int32_t y = firstRow; y <= lastRow; ++y) std::memset(image->Row(y), 0, bytes);
}

// Rows of a rectangle, relative to it: row i of the share is (x, y0 + i) on each side.
template <class S, class D, int32_t C>
void ConvertRectWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const PLImage* from = args->Next<const PLImage*>();
  PLImage* to = args->Next<PLImage*>();
  int32_t fromX = args->Next<int32_t>();
  int32_t fromY = args->Next<int32_t>();
  int32_t toX = args->Next<int32_t>();
  int32_t toY = args->Next<int32_t>();
  int32_t w = args->Next<int32_t>();
  const int32_t channels = C > 0 ? C : from->channels;
  const int32_t n = w * channels;
  for (int32_t i = firstRow; i <= lastRow; ++i) {
    const S* s = PLRowPtr<const S>(from, fromY + i) + fromX * channels;
    D* d = PLRowPtr<D>(to, toY + i) + toX * channels;
    for (int32_t k = 0; k < n; ++k) d[k] = CastSample<D, S>(s[k]);
  }
}

template <class S, class D, int32_t C>
void ScaledRectWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* dst = args->Next<PLImage*>();
  int32_t dstX = args->Next<int32_t>();
  int32_t dstY = args->Next<int32_t>();
  const PLImage* src = args->Next<const PLImage*>();
  int32_t srcX = args->Next<int32_t>();
  int32_t srcY = args->Next<int32_t>();
  int32_t w = args->Next<int32_t>();
  const float k = *args->Next<const float*>();
  const int32_t channels = C > 0 ? C : src->channels;
  const int32_t n = w * channels;
  for (int32_t i = firstRow; i <= lastRow; ++i) {
    const S* s = PLRowPtr<const S>(src, srcY + i) + srcX * channels;
    D* d = PLRowPtr<D>(dst, dstY + i) + dstX * channels;
    for (int32_t j = 0; j < n; ++j) d[j] = ScaledStore<D>(static_cast<float>(s[j]) * k);
  }
}

// Same-type rectangle: the whole of both images on all threads, anything else one memcpy
// per row on this thread, with the byte count of dst.
void CopyRectSameType(PLImage* dst, int32_t dstX, int32_t dstY, const PLImage* src,
                      int32_t srcX, int32_t srcY, int32_t w, int32_t h) {
  size_t bytes = static_cast<size_t>(dst->bytesPerPixel) * static_cast<size_t>(w);
  if (!RowsReadable(src, srcX, srcY, h, static_cast<int64_t>(bytes))) return;
  if (dstX == 0 && dstY == 0 && srcX == 0 && srcY == 0 && w == dst->width && w == src->width &&
      h == dst->height && h == src->height) {
    CopyWhole(dst, src);
    return;
  }
  for (int32_t i = 0; i < h; ++i) {
    unsigned char* d = dst->PixelAddress(dstX, dstY + i);
    const unsigned char* s = src->PixelAddress(srcX, srcY + i);
    if (d != s) std::memmove(d, s, bytes);
  }
}

// Offsets that centre the smaller extent in the larger; returns the copied extent.
int32_t CentreAxis(int32_t dstSize, int32_t srcSize, int32_t* dstOffset, int32_t* srcOffset) {
  *dstOffset = 0;
  *srcOffset = 0;
  if (dstSize > srcSize) *dstOffset = (dstSize - srcSize) / 2;
  if (srcSize > dstSize) *srcOffset = (srcSize - dstSize) / 2;
  return dstSize < srcSize ? dstSize : srcSize;
}

}  // namespace

// ---- predicates ----

bool DifferentSize(const PLImage* a, const PLImage* b) {
  return !a || !b || a->height != b->height || a->width != b->width || !a->data || !b->data;
}

bool DifferentSizeOrChannels(const PLImage* a, const PLImage* b) {
  return DifferentSize(a, b) || a->channels != b->channels;
}

bool DifferentSizeOrType(const PLImage* a, const PLImage* b) {
  return DifferentSize(a, b) || a->dataType != b->dataType;
}

bool DifferentLayout(const PLImage* a, const PLImage* b) {
  return !a || !b || DifferentSize(a, b) || a->channels != b->channels ||
         a->bytesPerSample != b->bytesPerSample;
}

bool DifferentSizeOrFormat(const PLImage* a, const PLImage* b) {
  return DifferentSize(a, b) || a->dataType != b->dataType || a->channels != b->channels ||
         a->bytesPerSample != b->bytesPerSample;
}

bool DifferentFormat(const PLImage* a, const PLImage* b) {
  // `!(==)` also answers true when either white point is NaN.
  return a->dataType != b->dataType || a->channels != b->channels ||
         a->bytesPerSample != b->bytesPerSample || !a->data || !b->data ||
         !(a->whitePoint == b->whitePoint);
}

// ---- copies ----

void CopyWhole(PLImage* dst, const PLImage* src) {
  if (!HasData(dst) || !HasData(src) || dst->width < 1) return;
  PLForkImageRows(dst->height, CopyWholeWorker, dst, src);
}

void CopyRows(PLImage* dst, const PLImage* src) {
  if (DifferentLayout(src, dst)) return;
  CopyWhole(dst, src);
}

void CopyCentered(PLImage* dst, PLImage* src) {
  if (!HasData(dst) || !HasData(src)) return;
  if (!DifferentLayout(dst, src)) {
    CopyRows(dst, src);
    return;
  }
  int32_t dstX, dstY, srcX, srcY;
  int32_t w = CentreAxis(dst->width, src->width, &dstX, &srcX);
  int32_t h = CentreAxis(dst->height, src->height, &dstY, &srcY);
  CopyRect(dst, dstX, dstY, src, srcX, srcY, w, h);
}

void CopyRect(PLImage* dst, int32_t dstX, int32_t dstY, PLImage* src, int32_t srcX,
              int32_t srcY, int32_t w, int32_t h) {
  if (!HasData(dst) || !HasData(src) || w < 1 || h < 1) return;
  if (!RectInside(dst, dstX, dstY, w, h) || !RectInside(src, srcX, srcY, w, h)) return;
  if (dst->dataType == src->dataType) {
    CopyRectSameType(dst, dstX, dstY, src, srcX, srcY, w, h);
    return;
  }
  // Across types the conversion runs from the first image into the second.
  ConvertRect(dst, src, dstX, dstY, srcX, srcY, w, h);
}

void ConvertRect(const PLImage* from, PLImage* to, int32_t fromX, int32_t fromY, int32_t toX,
                 int32_t toY, int32_t w, int32_t rows) {
  if (!HasData(from) || !HasData(to) || w < 1 || rows < 1) return;
  if (from->channels != to->channels) return;
  if (!RectInside(from, fromX, fromY, w, rows) || !RectInside(to, toX, toY, w, rows)) return;
  DispatchAnyChannels(from->dataType, from->channels, [&](auto fromTag) {
    using S = typename decltype(fromTag)::Type;
    constexpr int32_t C = decltype(fromTag)::Channels;
    PLDispatchType(to->dataType, [&](auto toTag) {
      using D = typename decltype(toTag)::Type;
      PLForkImageRows(rows, ConvertRectWorker<S, D, C>, from, to, fromX, fromY, toX, toY, w);
    });
  });
}

void CopyRectScaled(PLImage* dst, int32_t dstX, int32_t dstY, const PLImage* src, int32_t srcX,
                    int32_t srcY, int32_t w, int32_t h) {
  if (!HasData(dst) || !HasData(src) || w < 1 || h < 1) return;
  if (!RectInside(dst, dstX, dstY, w, h) || !RectInside(src, srcX, srcY, w, h)) return;
  if (dst->dataType == src->dataType && dst->whitePoint == src->whitePoint) {
    CopyRectSameType(dst, dstX, dstY, src, srcX, srcY, w, h);
    return;
  }
  if (dst->channels != src->channels) return;
  // Only the working types go on, and their white points are never 0.
  if (src->dataType < PLUChar || src->dataType > PLFloat) return;
  if (dst->dataType < PLUChar || dst->dataType > PLFloat) return;
  const float k = dst->whitePoint / src->whitePoint;
  DispatchAnyChannels(src->dataType, src->channels, [&](auto srcTag) {
    using S = typename decltype(srcTag)::Type;
    constexpr int32_t C = decltype(srcTag)::Channels;
    PLDispatchType(dst->dataType, [&](auto dstTag) {
      using D = typename decltype(dstTag)::Type;
      PLForkImageRows(h, ScaledRectWorker<S, D, C>, dst, dstX, dstY, src, srcX, srcY, w, &k);
    });
  });
}

void CopyCenteredScaled(PLImage* dst, const PLImage* src) {
  if (!HasData(dst) || !HasData(src)) return;
  bool sameWhite = dst->whitePoint == src->whitePoint;  // false for a NaN
  if (!DifferentLayout(dst, src)) {
    if (sameWhite)
      CopyRows(dst, src);
    else
      CopyRectScaled(dst, 0, 0, src, 0, 0, dst->width, dst->height);
    return;
  }
  int32_t dstX, dstY, srcX, srcY;
  int32_t w = CentreAxis(dst->width, src->width, &dstX, &srcX);
  int32_t h = CentreAxis(dst->height, src->height, &dstY, &srcY);
  CopyRectScaled(dst, dstX, dstY, src, srcX, srcY, w, h);
}

// ---- clear and fill ----

void Clear(PLImage* image) {
  if (!HasData(image) || image->width < 1) return;
  PLForkImageRows(image->height, ClearWorker, image);
}

void FillColor(PLImage* image, float r, float g, float b, float a) {
  if (!HasData(image) || image->width < 1) return;
  const float in[4] = {r, g, b, a};
  PLDispatch(image->dataType, image->channels, [&](auto tag) {
    using T = typename decltype(tag)::Type;
    constexpr int32_t C = decltype(tag)::Channels;
    T value[C];
    for (int32_t c = 0; c < C; ++c) {
      if constexpr (std::is_same<T, uint8_t>::value) {
        value[c] = static_cast<uint8_t>(
            static_cast<uint32_t>(PLTruncToInt32(static_cast<double>(in[c]) * 255.0 + 0.5)));
      } else if constexpr (std::is_same<T, uint16_t>::value) {
        // 0.499 here beside the 0.5 of the 8-bit case: the 16-bit fill rounds a hair down.
        value[c] = static_cast<uint16_t>(
            static_cast<uint32_t>(PLTruncToInt32(static_cast<double>(in[c]) * 65535.0 + 0.499)));
      } else {
        value[c] = in[c] * image->whitePoint;
      }
    }
    // A pixel of zero bytes (black, the renderer's clear) is a plain byte fill of each row.
    unsigned char pixel[sizeof(value)];
    std::memcpy(pixel, value, sizeof(value));
    bool zero = true;
    for (unsigned char b : pixel) zero = zero && b == 0;
    if (zero) {
      const size_t bytes = sizeof(value) * static_cast<size_t>(image->width);
      for (int32_t y = 0; y < image->height; ++y) std::memset(image->Row(y), 0, bytes);
      return;
    }
    // The image may wrap a host row at any address: samples are stored with PLStore.
    for (int32_t y = 0; y < image->height; ++y) {
      unsigned char* row = image->Row(y);
      for (int32_t x = 0; x < image->width; ++x, row += C * sizeof(T))
        for (int32_t c = 0; c < C; ++c) PLStore<T>(row + c * sizeof(T), value[c]);
    }
  });
}
