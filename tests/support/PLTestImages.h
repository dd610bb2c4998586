// flowblur test support: images with chosen layouts, exact compares, and worker-count checks.
// Every folder's tests use this one kit.
#pragma once
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "image/PLImage.h"
#include "image/PLPixelConvert.h"
#include "tests/support/PLTestWorkers.h"

namespace pltest {

// An image over a buffer of our own, optionally flipped and with padded rows, so that every
// routine is seen addressing each image by its own fields.
struct TestImage {
  std::vector<unsigned char> buffer;
  std::unique_ptr<PLImage> image;
  PLImage* operator->() const { return image.get(); }
  PLImage* get() const { return image.get(); }
};

inline TestImage MakeImage(int32_t width, int32_t height, int32_t channels, int32_t dataType,
                           int32_t flipped = 0, int32_t padBytes = 0) {
  TestImage t;
  int32_t rowBytes = width * channels * PLBytesPerSample(dataType) + padBytes;
  t.buffer.assign(static_cast<size_t>(rowBytes) * (height > 0 ? height : 1) + 16, 0xCD);
  t.image.reset(new PLImage(t.buffer.data(), width, height, rowBytes, channels, dataType, flipped));
  return t;
}

// The row layouts every row-parallel operation is checked on; padded rows have 12 bytes
// (whole samples of every type) between them.
enum Layout { kPlain, kFlipped, kPadded, kPaddedFlipped };
constexpr Layout kLayouts[] = {kPlain, kFlipped, kPadded, kPaddedFlipped};
inline const char* LayoutName(Layout l) {
  static const char* names[] = {"plain", "flipped", "padded", "padded+flipped"};
  return names[l];
}
inline TestImage MakeImage(int32_t w, int32_t h, int32_t channels, int32_t dataType, Layout l) {
  return MakeImage(w, h, channels, dataType, l == kFlipped || l == kPaddedFlipped,
                   l == kPadded || l == kPaddedFlipped ? 12 : 0);
}

// Sample c of pixel (x, y) as a double, by the image's own addressing.
inline double Get(const PLImage* im, int32_t x, int32_t y, int32_t c) {
  const unsigned char* p = im->PixelAddress(x, y) + c * im->bytesPerSample;
  switch (im->dataType) {
    case PLUChar: return *p;
    case PLUShort: return PLLoad<uint16_t>(p);
    default: return PLLoad<float>(p);
  }
}
inline void Set(PLImage* im, int32_t x, int32_t y, int32_t c, double v) {
  unsigned char* p = im->PixelAddress(x, y) + c * im->bytesPerSample;
  switch (im->dataType) {
    case PLUChar: *p = static_cast<uint8_t>(v); break;
    case PLUShort: PLStore<uint16_t>(p, static_cast<uint16_t>(v)); break;
    default: PLStore<float>(p, static_cast<float>(v)); break;
  }
}

// Random content in the type's range (Float in -0.25 .. 1.25, so that negative values and
// values past white occur).
inline void FillRandom(PLImage* im, uint32_t seed) {
  std::mt19937 rng(seed);
  for (int32_t y = 0; y < im->height; ++y)
    for (int32_t x = 0; x < im->width; ++x)
      for (int32_t c = 0; c < im->channels; ++c) {
        uint32_t r = rng();
        double v = im->dataType == PLUChar    ? r % 256
                   : im->dataType == PLUShort ? r % 65536
                                              : (r % 100000) / 66666.0 - 0.25;
        Set(im, x, y, c, v);
      }
}

// Random content with Float samples in lo .. hi instead.
inline void FillRandom(PLImage* im, uint32_t seed, float lo, float hi) {
  FillRandom(im, seed);
  if (im->dataType != PLFloat) return;
  std::mt19937 rng(seed);
  for (int32_t y = 0; y < im->height; ++y)
    for (int32_t i = 0; i < im->width * im->channels; ++i)
      PLStore<float>(im->Row(y) + 4 * i,
                     lo + (hi - lo) * static_cast<float>(rng() % 100000) / 100000.0f);
}

// Sample c of pixel (x, y) as a float (exact for the three working types).
inline float Sample(const PLImage* im, int32_t x, int32_t y, int32_t c) {
  return static_cast<float>(Get(im, x, y, c));
}

// The two integer stores of the library, for references: `v` rounded (truncation of
// v + 0.5 toward zero) and then either clamped to the type's range or, with no clamp, its
// low 8 or 16 bits kept. Float stores v as it is.
inline float ClampedStore(int32_t dataType, float v) {
  if (dataType == PLFloat) return v;
  const int32_t i = PLTruncToInt32(v + 0.5f), high = dataType == PLUChar ? 255 : 65535;
  return static_cast<float>(i < 0 ? 0 : (i > high ? high : i));
}
inline float WrappedStore(int32_t dataType, float v) {
  if (dataType == PLFloat) return v;
  const uint32_t i = static_cast<uint32_t>(PLTruncToInt32(v + 0.5f));
  return static_cast<float>(dataType == PLUChar ? (i & 0xFF) : (i & 0xFFFF));
}

// The bilinear rule every resampler shares, written out slowly: the cell at (floor x,
// floor y) of channel c, slid back with a fraction of 1.0 at the last column and row so
// that no read leaves the image. x in 0 .. lastColumn, y in 0 .. lastRow, at least 2 x 2.
inline float Bilinear(const PLImage* im, float x, float y, int32_t c) {
  int32_t ix = static_cast<int32_t>(x), iy = static_cast<int32_t>(y);
  float tx = x - static_cast<float>(ix), ty = y - static_cast<float>(iy);
  if (ix >= im->lastColumn) ix = im->lastColumn - 1, tx = 1.0f;
  if (iy >= im->lastRow) iy = im->lastRow - 1, ty = 1.0f;
  auto at = [&](int32_t i, int32_t j) { return static_cast<float>(Get(im, i, j, c)); };
  const float a = (at(ix + 1, iy) - at(ix, iy)) * tx + at(ix, iy);
  const float b = (at(ix + 1, iy + 1) - at(ix, iy + 1)) * tx + at(ix, iy + 1);
  return (b - a) * ty + a;
}

inline void Fill(PLImage* im, double v) {
  for (int32_t y = 0; y < im->height; ++y)
    for (int32_t x = 0; x < im->width; ++x)
      for (int32_t c = 0; c < im->channels; ++c) Set(im, x, y, c, v);
}

// Copies pixels of an image of equal size, type and channels, layouts free.
inline void CopyPixels(PLImage* dst, const PLImage* src) {
  for (int32_t y = 0; y < src->height; ++y)
    std::memcpy(dst->Row(y), src->Row(y), static_cast<size_t>(src->width) * src->bytesPerPixel);
}

// Exact equality of the pixels (not the padding); on failure the count of differing samples
// and the largest difference are reported.
inline ::testing::AssertionResult SamePixels(const PLImage* a, const PLImage* b) {
  if (a->width != b->width || a->height != b->height || a->channels != b->channels)
    return ::testing::AssertionFailure() << "shapes differ";
  int64_t differing = 0;
  double maxDiff = 0.0;
  std::string first;
  for (int32_t y = 0; y < a->height; ++y)
    for (int32_t x = 0; x < a->width; ++x)
      for (int32_t c = 0; c < a->channels; ++c) {
        const unsigned char* pa = a->PixelAddress(x, y) + c * a->bytesPerSample;
        const unsigned char* pb = b->PixelAddress(x, y) + c * b->bytesPerSample;
        if (std::memcmp(pa, pb, a->bytesPerSample) == 0) continue;
        if (differing++ == 0)
          first = "(" + std::to_string(x) + ", " + std::to_string(y) + ") channel " +
                  std::to_string(c);
        const double d = std::fabs(Get(a, x, y, c) - Get(b, x, y, c));
        if (!(d <= maxDiff)) maxDiff = d;  // a NaN difference counts as the largest
      }
  if (differing == 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << differing << " samples differ, first at " << first
                                       << ", max difference " << maxDiff;
}

// Row padding, and the spare bytes after the last row, must stay as filled (0xCD).
inline bool PaddingUntouched(const TestImage& t) {
  const PLImage* im = t.get();
  int32_t used = im->width * im->bytesPerPixel;
  for (int32_t r = 0; r < im->height; ++r)
    for (int32_t b = used; b < im->rowBytes; ++b)
      if (t.buffer[static_cast<size_t>(r) * im->rowBytes + b] != 0xCD) return false;
  for (size_t i = static_cast<size_t>(im->rowBytes) * (im->height > 0 ? im->height : 1);
       i < t.buffer.size(); ++i)
    if (t.buffer[i] != 0xCD) return false;
  return true;
}

// Runs `produce` once per worker count of kPLTestWorkerCounts and expects the same bytes each
// time; `produce` returns the bytes of whatever it made (PixelBytes of its output, say).
template <typename Produce>
inline void ExpectSameForAllWorkers(Produce produce) {
  std::vector<unsigned char> first;
  for (int32_t workers : kPLTestWorkerCounts) {
    PLTestUseWorkers(workers);
    std::vector<unsigned char> bytes = produce();
    if (workers == kPLTestWorkerCounts[0])
      first = bytes;
    else
      EXPECT_TRUE(first == bytes) << "output differs with " << workers << " workers";
  }
  PLTestUseWorkers(1);
}

// Restores one worker when a test ends, even on a failed assertion.
struct WorkerGuard {
  ~WorkerGuard() { PLTestUseWorkers(1); }
};

// The pixel bytes of an image in row order, padding left out.
inline std::vector<unsigned char> PixelBytes(const PLImage* im) {
  std::vector<unsigned char> out;
  size_t used = static_cast<size_t>(im->width) * im->bytesPerPixel;
  out.reserve(used * (im->height > 0 ? im->height : 0));
  for (int32_t y = 0; y < im->height; ++y) {
    const unsigned char* row = im->Row(y);
    out.insert(out.end(), row, row + used);
  }
  return out;
}

// Runs `op(dst, src)` on random 29 x 150 images (so that 8 workers split them) in each
// layout of dst for every worker count, and expects the bytes of one worker, with the
// padding untouched. `padded` false skips the padded layouts.
template <class Op>
void ExpectRowOpSameForAllWorkers(const char* name, int32_t dstType, int32_t srcType,
                                  int32_t channels, Op op, bool padded = true) {
  WorkerGuard guard;
  for (Layout layout : kLayouts) {
    if (!padded && (layout == kPadded || layout == kPaddedFlipped)) continue;
    std::vector<unsigned char> reference;
    for (int32_t workers : kPLTestWorkerCounts) {
      PLTestUseWorkers(workers);
      TestImage dst = MakeImage(29, 150, channels, dstType, layout);
      const Layout srcLayout = layout == kPlain ? kPaddedFlipped : kPlain;
      TestImage src = MakeImage(29, 150, channels, srcType, srcLayout);
      FillRandom(dst.get(), 21, -1.0f, 1.0f);
      FillRandom(src.get(), 22, -0.5f, 1.5f);
      op(dst.get(), src.get());
      EXPECT_TRUE(PaddingUntouched(dst)) << name << " " << LayoutName(layout);
      if (workers == 1)
        reference = PixelBytes(dst.get());
      else
        EXPECT_TRUE(PixelBytes(dst.get()) == reference)
            << name << " " << LayoutName(layout) << " workers " << workers;
    }
  }
}

}  // namespace pltest
