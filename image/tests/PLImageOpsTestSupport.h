// flowblur test support: images in every row layout, random content and byte snapshots.
#pragma once
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

// Row layouts every row-parallel operation is checked on.
enum Layout { kPlain, kFlipped, kPadded, kPaddedFlipped };
constexpr Layout kLayouts[] = {kPlain, kFlipped, kPadded, kPaddedFlipped};
inline const char* LayoutName(Layout l) {
  static const char* names[] = {"plain", "flipped", "padded", "padded+flipped"};
  return names[l];
}

constexpr unsigned char kPadByte = 0xAB;

// An image in one layout. Padded ones wrap a store whose row gaps hold kPadByte, and the
// store has one spare row after the image so that writes past the end are visible.
struct TestImage {
  std::vector<unsigned char> store;
  std::unique_ptr<PLImage> image;
  PLImage* operator->() const { return image.get(); }
  PLImage* get() const { return image.get(); }
};

inline TestImage MakeImage(int32_t w, int32_t h, int32_t c, int32_t type, Layout layout) {
  TestImage t;
  int32_t flipped = (layout == kFlipped || layout == kPaddedFlipped) ? 1 : 0;
  if (layout == kPlain || layout == kFlipped) {
    t.image.reset(new PLImage(w, h, c, type, flipped));
    return t;
  }
  int32_t bps = PLBytesPerSample(type);
  int32_t rowBytes = w * c * bps + 3 * bps;  // three samples of padding
  t.store.assign(static_cast<size_t>(rowBytes) * (h + 1), kPadByte);
  t.image.reset(new PLImage(t.store.data(), w, h, rowBytes, c, type, flipped));
  return t;
}

// Deterministic samples: UChar 0..255, UShort 0..65535, Float in [lo, hi).
inline void FillRandom(PLImage* image, uint32_t seed, float lo = -2.0f, float hi = 2.0f) {
  std::mt19937 rng(seed);
  for (int32_t y = 0; y < image->height; ++y) {
    unsigned char* p = image->Row(y);
    for (int32_t i = 0; i < image->width * image->channels; ++i) {
      switch (image->dataType) {
        case PLUChar: p[i] = static_cast<uint8_t>(rng() & 0xFF); break;
        case PLUShort: PLStore<uint16_t>(p + 2 * i, static_cast<uint16_t>(rng() & 0xFFFF)); break;
        case PLFloat: {
          float f = lo + (hi - lo) * static_cast<float>(rng() % 100000) / 100000.0f;
          PLStore<float>(p + 4 * i, f);
          break;
        }
        default: p[i] = static_cast<uint8_t>(rng()); break;
      }
    }
  }
}

// The image's pixel bytes in row order y = 0, 1, ... (padding excluded).
inline std::vector<unsigned char> PixelBytes(const PLImage* image) {
  std::vector<unsigned char> out;
  size_t row = static_cast<size_t>(image->width) * image->bytesPerPixel;
  for (int32_t y = 0; y < image->height; ++y)
    out.insert(out.end(), image->Row(y), image->Row(y) + row);
  return out;
}

// True when every byte of the store outside the image's rows still holds kPadByte.
inline bool PaddingIntact(const TestImage& t) {
  if (t.store.empty()) return true;
  const PLImage* im = t.image.get();
  size_t row = static_cast<size_t>(im->width) * im->bytesPerPixel;
  for (size_t i = 0; i < t.store.size(); ++i) {
    size_t r = i / im->rowBytes, col = i % im->rowBytes;
    bool inside = r < static_cast<size_t>(im->height) && col < row;
    if (!inside && t.store[i] != kPadByte) return false;
  }
  return true;
}

// Sample i of row y as a float, any working type.
inline float Sample(const PLImage* image, int32_t x, int32_t y, int32_t c) {
  float v = 0.0f;
  image->GetChannel(x, y, &v, c);
  return v;
}

// Number of bytes that differ, for failure messages.
inline size_t CountDiff(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b) {
  size_t n = a.size() == b.size() ? 0 : 1;
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) n += a[i] != b[i];
  return n;
}

// Restores one worker when a test ends, even on a failed assertion.
struct WorkerGuard {
  ~WorkerGuard() { PLTestUseWorkers(1); }
};

// Runs `op(dst, src)` on fresh random images (150 rows, so that 8 workers split them) in
// each layout of dst for every worker count, and expects the bytes of one worker, with the
// padding of wrapped images untouched. `padded` false skips the padded layouts.
template <class Op>
void ExpectSameForAllWorkers(const char* name, int32_t dstType, int32_t srcType,
                             int32_t channels, Op op, bool padded = true) {
  WorkerGuard guard;
  for (Layout layout : kLayouts) {
    if (!padded && (layout == kPadded || layout == kPaddedFlipped)) continue;
    std::vector<unsigned char> reference;
    for (int32_t workers : kPLTestWorkerCounts) {
      PLTestUseWorkers(workers);
      TestImage dst = MakeImage(29, 150, channels, dstType, layout);
      TestImage src = MakeImage(29, 150, channels, srcType,
                                layout == kPlain ? kPaddedFlipped : kPlain);
      FillRandom(dst.get(), 21, -1.0f, 1.0f);
      FillRandom(src.get(), 22, -0.5f, 1.5f);
      op(dst.get(), src.get());
      std::vector<unsigned char> bytes = PixelBytes(dst.get());
      EXPECT_TRUE(PaddingIntact(dst)) << name << " " << LayoutName(layout);
      if (workers == 1)
        reference = bytes;
      else
        EXPECT_EQ(CountDiff(bytes, reference), 0u)
            << name << " " << LayoutName(layout) << " workers " << workers;
    }
  }
}

}  // namespace pltest
