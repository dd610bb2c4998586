// flowblur: packing workers between host frames, mattes and working buffers, and the exact
// half/float conversions they use.
#include "shell/SparkPack.h"

#include <cstring>

#include "runtime/PLWidePath.h"

namespace {
// Set by the caller-side operation before its fork, read by its workers.
void* gDestination = nullptr;
void* gFirstSource = nullptr;
void* gSecondSource = nullptr;

// Unaligned-safe access to host words.
template <class T>
T Load(const unsigned char* p) {
  T v;
  std::memcpy(&v, p, sizeof(T));
  return v;
}
template <class T>
void Store(unsigned char* p, T v) {
  std::memcpy(p, &v, sizeof(T));
}

uint32_t FloatBits(float f) {
  uint32_t b;
  std::memcpy(&b, &f, sizeof b);
  return b;
}
float BitsFloat(uint32_t b) {
  float f;
  std::memcpy(&f, &b, sizeof f);
  return f;
}

// The host runs a void(void*) function; this gives each worker that form without calling
// it through a pointer of another type.
template <void (*Worker)(spark_info_struct*)>
void Run(void* info) {
  Worker(static_cast<spark_info_struct*>(info));
}

// Pixel range of this processor.
void HostRange(uint64_t* offset, uint64_t* count) {
  *offset = 0;
  *count = 0;
  sparkMpInfo(offset, count);
}

// The float bits of every half, worked out once by SparkHalfToFloat: the frame loops look
// them up instead of taking the rule's branches for each sample (they were about a quarter of
// a half-float frame's time). Bits, not floats, so that NaN payloads pass untouched.
struct HalfBitsTable {
  uint32_t bits[65536];
  HalfBitsTable() {
    for (uint32_t h = 0; h < 65536; ++h)
      bits[h] = FloatBits(SparkHalfToFloat(static_cast<uint16_t>(h)));
  }
};

const uint32_t* HalfBits() {
  static const HalfBitsTable table;  // built once, thread-safe, on the first half frame
  return table.bits;
}

void HalvesToFloats(unsigned char* dst, const unsigned char* src, uint64_t offset, uint64_t count) {
  const uint32_t* bits = HalfBits();
  for (uint64_t k = offset; k < offset + count; ++k) {
    const unsigned char* s = src + k * 6;
    unsigned char* d = dst + k * 12;
    Store<uint32_t>(d, bits[Load<uint16_t>(s)]);
    Store<uint32_t>(d + 4, bits[Load<uint16_t>(s + 2)]);
    Store<uint32_t>(d + 8, bits[Load<uint16_t>(s + 4)]);
  }
}
}  // namespace

float SparkHalfToFloat(uint16_t half) {
  uint32_t sign = static_cast<uint32_t>(half & 0x8000u) << 16;
  uint32_t e = (half >> 10) & 0x1Fu;
  uint32_t m = half & 0x3FFu;
  if (e == 0 && m == 0) return BitsFloat(sign);
  if (e == 31) return BitsFloat(sign | 0x7F800000u | (m << 13));
  int32_t exponent = static_cast<int32_t>(e);
  if (e == 0) {
    // Subnormal: shift until the hidden bit appears, one exponent step per extra doubling.
    exponent = 0;
    m <<= 1;
    while (!(m & 0x400u)) {
      m <<= 1;
      --exponent;
    }
    m &= ~0x400u;
  }
  uint32_t field = static_cast<uint32_t>(exponent + 112);
  return BitsFloat(sign | (field << 23) | (m << 13));
}

uint16_t SparkFloatToHalf(float value) {
  uint32_t f = FloatBits(value);
  uint32_t h = (f >> 16) & 0x8000u;
  int32_t x = static_cast<int32_t>((f >> 23) & 0xFFu);
  uint32_t m = f & 0x7FFFFFu;
  int32_t e = x - 112;
  if (e <= 0) {
    // Too small for a normal half. Below 2^-25 the sign is dropped on purpose.
    if (e < -10) return 0;
    uint32_t v = (m | 0x800000u) >> (1 - e);
    if (v & 0x1000u) v += 0x2000u;
    return static_cast<uint16_t>(h | (v >> 13));
  }
  if (x == 255) {
    if (m == 0) return static_cast<uint16_t>(h | 0x7C00u);
    uint32_t t = m >> 13;
    return static_cast<uint16_t>(h | 0x7C00u | t | (t == 0 ? 1u : 0u));
  }
  if (f & 0x1000u) {
    m += 0x2000u;
    if (m & 0x800000u) {
      e += 1;
      m = 0;
    }
  }
  if (e >= 31) return static_cast<uint16_t>(h | 0x7C00u);
  return static_cast<uint16_t>(h | (static_cast<uint32_t>(e) << 10) | (m >> 13));
}

void SparkFloatsToHalvesOnPath(bool wide, unsigned char* dst, const unsigned char* src,
                               uint64_t n) {
  uint64_t i = 0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
  if (wide && PLWideAvailable()) i = SparkFloatsToHalvesWide(dst, src, n);
#else
  (void)wide;
#endif
  for (; i < n; ++i) Store<uint16_t>(dst + 2 * i, SparkFloatToHalf(Load<float>(src + 4 * i)));
}

void SparkFloatsToHalves(unsigned char* dst, const unsigned char* src, uint64_t n) {
  SparkFloatsToHalvesOnPath(PLWideChosen(), dst, src, n);
}

extern "C" {
void sparkCombineBuffers_mp(spark_info_struct* info) {
  if (!info) return;
  uint64_t offset, count;
  HostRange(&offset, &count);
  unsigned char* dst = static_cast<unsigned char*>(gDestination);
  const unsigned char* frame = static_cast<const unsigned char*>(gFirstSource);
  const unsigned char* matte = static_cast<const unsigned char*>(gSecondSource);
  if (!dst || !frame || !matte) return;
  switch (info->FormatCode) {
    case 24:
    case 25:
      for (uint64_t k = offset; k < offset + count; ++k) {
        unsigned char* d = dst + k * 4;
        const unsigned char* s = frame + k * 3;
        d[0] = s[0];
        d[1] = s[1];
        d[2] = s[2];
        d[3] = matte[k * 3];
      }
      break;
    case 48:
    case 64:
      for (uint64_t k = offset; k < offset + count; ++k) {
        unsigned char* d = dst + k * 8;
        const unsigned char* s = frame + k * 6;
        Store<uint16_t>(d, static_cast<uint16_t>(Load<uint16_t>(s) >> 4));
        Store<uint16_t>(d + 2, static_cast<uint16_t>(Load<uint16_t>(s + 2) >> 4));
        Store<uint16_t>(d + 4, static_cast<uint16_t>(Load<uint16_t>(s + 4) >> 4));
        Store<uint16_t>(d + 6, static_cast<uint16_t>(Load<uint16_t>(matte + k * 6) >> 4));
      }
      break;
    case 49:  // the matte is not read
      HalvesToFloats(dst, frame, offset, count);
      break;
    default:
      break;
  }
}

void sparkUnCombineBuffers_mp(spark_info_struct* info) {
  if (!info) return;
  uint64_t offset, count;
  HostRange(&offset, &count);
  unsigned char* frame = static_cast<unsigned char*>(gDestination);
  const unsigned char* src = static_cast<const unsigned char*>(gFirstSource);
  if (!frame || !src) return;
  switch (info->FormatCode) {
    case 24:
    case 25:
      for (uint64_t k = offset; k < offset + count; ++k) {
        unsigned char* d = frame + k * 3;
        const unsigned char* s = src + k * 4;
        d[0] = s[0];
        d[1] = s[1];
        d[2] = s[2];
      }
      break;
    case 48:
    case 64:
      // The frame's four low bits survive the trip through the 12-bit form.
      for (uint64_t k = offset; k < offset + count; ++k) {
        unsigned char* d = frame + k * 6;
        const unsigned char* s = src + k * 8;
        for (int c = 0; c < 3; ++c) {
          uint32_t low = Load<uint16_t>(d + 2 * c) & 0xFu;
          uint32_t high = static_cast<uint32_t>(Load<uint16_t>(s + 2 * c)) << 4;
          Store<uint16_t>(d + 2 * c, static_cast<uint16_t>(low | high));
        }
      }
      break;
    case 49:  // sample by sample: the pixels' channels need nothing apart
      SparkFloatsToHalves(frame + offset * 6, src + offset * 12, count * 3);
      break;
    default:
      break;
  }
}

void sparkCombine16FBuffers_mp(spark_info_struct* info) {
  if (!info) return;
  uint64_t offset, count;
  HostRange(&offset, &count);
  unsigned char* dst = static_cast<unsigned char*>(gDestination);
  const unsigned char* frame = static_cast<const unsigned char*>(gFirstSource);
  if (!dst || !frame || count == 0) return;
  HalvesToFloats(dst, frame, offset, count);
}

int sparkCombineBuffers(spark_info_struct info, void* destination, void* frame, void* matte) {
  gDestination = destination;
  gFirstSource = frame;
  gSecondSource = matte;
  sparkMpFork(Run<sparkCombineBuffers_mp>, 1, &info);
  return 1;
}

int sparkUnCombineBuffers(spark_info_struct info, void* frame, void* source) {
  gDestination = frame;
  gFirstSource = source;
  gSecondSource = nullptr;
  sparkMpFork(Run<sparkUnCombineBuffers_mp>, 1, &info);
  return 1;
}

int sparkCombine16FBuffers(spark_info_struct info, void* destination, void* frame) {
  gDestination = destination;
  gFirstSource = frame;
  gSecondSource = nullptr;
  sparkMpFork(Run<sparkCombine16FBuffers_mp>, 1, &info);
  return 1;
}
}
