// flowblur tests: half/float conversions and the packing workers between host frames and
// working buffers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "host/SparkHost.h"
#include "shell/SparkPack.h"
#include "tests/plugin/PluginTestSupport.h"
#include "tests/support/PLTestWorkers.h"

namespace {

// The 16-bit word `index` of v, from byte `from`.
uint16_t Word(const std::vector<uint8_t>& v, size_t index, size_t from = 0) {
  uint16_t w;
  std::memcpy(&w, &v[from + index * 2], 2);
  return w;
}

uint32_t Bits(float f) {
  uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}
float FromBits(uint32_t b) {
  float f;
  std::memcpy(&f, &b, 4);
  return f;
}

// The value a half stands for, worked out in double from its definition.
double HalfValue(uint16_t h) {
  int e = (h >> 10) & 31, m = h & 1023;
  double v = e == 0 ? std::ldexp(m, -24) : std::ldexp(1024 + m, e - 25);
  return (h & 0x8000) ? -v : v;
}

// Every half converts exactly, and comes back (but -0.0, whose biased exponent of 0 puts it
// under the sign-dropping branch).
TEST(SparkHalf, EveryHalfConvertsExactlyToFloatAndBack) {
  for (uint32_t h = 0; h < 65536; ++h) {
    float f = SparkHalfToFloat(static_cast<uint16_t>(h));
    if (((h >> 10) & 31) == 31) {  // infinities and NaNs keep their bits
      uint32_t want = ((h & 0x8000u) << 16) | 0x7F800000u | ((h & 0x3FFu) << 13);
      ASSERT_EQ(Bits(f), want) << std::hex << h;
    } else {
      ASSERT_EQ(static_cast<double>(f), HalfValue(static_cast<uint16_t>(h))) << std::hex << h;
      ASSERT_EQ(std::signbit(f), (h & 0x8000u) != 0) << std::hex << h;
    }
    ASSERT_EQ(SparkFloatToHalf(f), h == 0x8000 ? 0 : h) << std::hex << h;
  }
}

// Between two neighbouring halves the float rounds on bit 12: the midpoint goes away from
// zero, a float one step nearer zero goes down.
TEST(SparkHalf, RoundsToNearestWithTiesAwayFromZero) {
  for (uint32_t h = 0; h < 0x7C00; ++h) {
    float lo = SparkHalfToFloat(static_cast<uint16_t>(h));
    double hiValue = h == 0x7BFF ? 65536.0 : HalfValue(static_cast<uint16_t>(h + 1));
    float mid = static_cast<float>((lo + hiValue) / 2.0);
    ASSERT_EQ(static_cast<double>(mid), (lo + hiValue) / 2.0);  // exact in float
    float below = std::nextafter(mid, 0.0f);
    float above = std::nextafter(mid, 1e30f);
    uint16_t up = static_cast<uint16_t>(h + 1);  // 0x7C00 past the largest: infinity
    ASSERT_EQ(SparkFloatToHalf(mid), up) << std::hex << h;
    ASSERT_EQ(SparkFloatToHalf(above), up) << std::hex << h;
    ASSERT_EQ(SparkFloatToHalf(below), h) << std::hex << h;
    // Negative: the same with the sign, except that magnitudes below 2^-25 give +0.
    ASSERT_EQ(SparkFloatToHalf(-mid), 0x8000 | up) << std::hex << h;
    uint16_t negBelow = std::fabs(below) < std::ldexp(1.0, -25) ? 0 : (0x8000 | h);
    ASSERT_EQ(SparkFloatToHalf(-below), negBelow) << std::hex << h;
  }
}

// What the two sweeps above do not reach: floats far past the largest half, and NaNs (one
// whose top ten mantissa bits are clear stays a NaN, with mantissa 1).
TEST(SparkHalf, OverflowAndNaNs) {
  const std::pair<uint32_t, uint16_t> rows[] = {{0x501502F9u, 0x7C00}, {0xD01502F9u, 0xFC00},
                                                {0x7F800001u, 0x7C01}, {0xFF801FFFu, 0xFC01},
                                                {0x7FC00000u, 0x7E00}};
  for (const auto& [f, h] : rows) EXPECT_EQ(SparkFloatToHalf(FromBits(f)), h) << std::hex << f;
}

// The wide loop against the rule, sample by sample: every half's float and the floats one
// step either side of it and of each midpoint, each exponent with the mantissas that round,
// carry or fall to zero, and random bits; from an odd byte, with a tail of fewer than 16.
TEST(SparkHalf, WideLoopGivesTheRulesBits) {
  std::vector<uint32_t> bits;
  for (uint32_t h = 0; h < 65536; ++h) {
    const float f = SparkHalfToFloat(static_cast<uint16_t>(h));
    const float next = SparkHalfToFloat(static_cast<uint16_t>(h + 1));
    const float mid = static_cast<float>((static_cast<double>(f) + next) / 2.0);
    for (float g : {f, mid})
      for (float d : {0.0f, 1e30f})
        bits.push_back(Bits(d == 0.0f ? g : std::nextafter(g, g < 0 ? -d : d)));
  }
  const uint32_t mantissas[] = {0,        1,        0xFFF,    0x1000,   0x1001,  0x1FFF,
                                0x2000,   0x3000,   0x7FDFFF, 0x7FE000, 0x7FEFFF, 0x7FF000,
                                0x7FF001, 0x7FFFFF, 0x400000, 0x401000};
  for (uint32_t x = 0; x < 256; ++x)
    for (uint32_t m : mantissas) bits.push_back(x << 23 | m), bits.push_back(1u << 31 | x << 23 | m);
  uint32_t s = 12345;
  for (int32_t i = 0; i < 200000; ++i) bits.push_back(s = s * 1664525u + 1013904223u);
  bits.resize(bits.size() / 16 * 16 + 7);
  std::vector<uint8_t> in(bits.size() * 4 + 1), wide(bits.size() * 2 + 1), plain(wide.size());
  std::memcpy(in.data() + 1, bits.data(), bits.size() * 4);
  SparkFloatsToHalvesOnPath(true, wide.data() + 1, in.data() + 1, bits.size());
  SparkFloatsToHalvesOnPath(false, plain.data() + 1, in.data() + 1, bits.size());
  for (size_t i = 0; i < bits.size(); ++i)
    ASSERT_EQ(Word(wide, i, 1), SparkFloatToHalf(FromBits(bits[i]))) << std::hex << bits[i];
  EXPECT_TRUE(wide == plain);
}

class SparkPack : public plugintest::PluginTest {};

spark_info_struct Info(int32_t format) {
  spark_info_struct info{};
  info.FormatCode = format;
  return info;
}

constexpr int32_t kPixels = 1001;  // not a multiple of 2, 3 or 8 processors

std::vector<uint8_t> Pattern(size_t bytes, uint32_t seed) {
  std::vector<uint8_t> v(bytes);
  uint32_t s = seed;
  for (uint8_t& b : v) {
    s = s * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(s >> 24);
  }
  return v;
}

// Frame channels then the matte's first into the combined buffer, and back without the matte:
// 8-bit samples as they are; 16-bit ones through 12 bits, keeping the target's low 4 bits.
// Each processor converts its own pixels: the rule holds whole for every processor count.
TEST_F(SparkPack, CombineTakesChannelsThenMatteAndUncombineDropsMatte) {
  for (int32_t p : kPLTestWorkerCounts)
    for (int32_t format : {24, 25, 48, 64}) {
      SCOPED_TRACE(std::to_string(format) + " on " + std::to_string(p));
      sparkhost::SetProcessors(p);
      sparkhost::SetFramePixels(kPixels);
      const bool words = format == 48 || format == 64;
      const size_t bytes = words ? 2 : 1;
      std::vector<uint8_t> frame = Pattern(kPixels * 3 * bytes, format);
      std::vector<uint8_t> matte = Pattern(kPixels * 3 * bytes, 2);
      std::vector<uint8_t> combined(kPixels * 4 * bytes, 0xEE);
      EXPECT_EQ(sparkCombineBuffers(Info(format), combined.data(), frame.data(), matte.data()), 1);
      auto at = [&](const std::vector<uint8_t>& v, size_t i) -> uint32_t {
        return words ? Word(v, i) : v[i];
      };
      const int shift = words ? 4 : 0;
      for (int32_t k = 0; k < kPixels * 4; ++k)
        ASSERT_EQ(at(combined, k), at(k % 4 < 3 ? frame : matte, k / 4 * 3 + k % 4 % 3) >> shift);
      std::vector<uint8_t> target = Pattern(frame.size(), 5);
      const std::vector<uint8_t> before = target;
      EXPECT_EQ(sparkUnCombineBuffers(Info(format), target.data(), combined.data()), 1);
      const uint32_t low = words ? 0xF : 0;
      for (int32_t k = 0; k < kPixels * 3; ++k)
        ASSERT_EQ(at(target, k), (at(frame, k) & ~low) | (at(before, k) & low)) << k;
    }
}

// Halves to float planes bit for bit, through either call, and back (-0.0 becoming +0.0),
// for every processor count.
TEST_F(SparkPack, HalfFramesBecomeFloatsAndBack) {
  std::vector<uint8_t> frame = Pattern(kPixels * 6, 6), matte = Pattern(kPixels * 6, 7);
  for (int32_t p : kPLTestWorkerCounts) {
    sparkhost::SetProcessors(p);
    sparkhost::SetFramePixels(kPixels);
    std::vector<uint8_t> viaCombine(kPixels * 12), via16F(kPixels * 12), back(kPixels * 6);
    sparkCombineBuffers(Info(49), viaCombine.data(), frame.data(), matte.data());
    // sparkCombine16FBuffers converts whatever FormatCode says.
    EXPECT_EQ(sparkCombine16FBuffers(Info(24), via16F.data(), frame.data()), 1);
    EXPECT_EQ(viaCombine, via16F);
    sparkUnCombineBuffers(Info(49), back.data(), via16F.data());
    for (int32_t k = 0; k < kPixels * 3; ++k) {
      float f;
      std::memcpy(&f, &via16F[k * 4], 4);
      ASSERT_EQ(Bits(f), Bits(SparkHalfToFloat(Word(frame, k)))) << k << " on " << p;
      ASSERT_EQ(Word(back, k), Word(frame, k) == 0x8000 ? 0 : Word(frame, k)) << k << " on " << p;
    }
  }
}

TEST_F(SparkPack, UnknownFormatsAndNullPointersChangeNothing) {
  sparkhost::SetFramePixels(kPixels);
  std::vector<uint8_t> frame = Pattern(kPixels * 6, 8), matte = Pattern(kPixels * 6, 9);
  std::vector<uint8_t> dst = Pattern(kPixels * 12, 10);
  const std::vector<uint8_t> original = dst;
  for (int32_t format : {0, 23, 26, 47, 50, 63, 65}) {
    EXPECT_EQ(sparkCombineBuffers(Info(format), dst.data(), frame.data(), matte.data()), 1);
    EXPECT_EQ(sparkUnCombineBuffers(Info(format), dst.data(), frame.data()), 1);
  }
  // The matte pointer is required even where it is not read.
  EXPECT_EQ(sparkCombineBuffers(Info(49), dst.data(), frame.data(), nullptr), 1);
  EXPECT_EQ(sparkCombineBuffers(Info(24), dst.data(), nullptr, matte.data()), 1);
  EXPECT_EQ(sparkUnCombineBuffers(Info(24), dst.data(), nullptr), 1);
  EXPECT_EQ(sparkCombine16FBuffers(Info(49), dst.data(), nullptr), 1);
  EXPECT_EQ(dst, original);
  EXPECT_EQ(sparkCombineBuffers(Info(24), nullptr, frame.data(), matte.data()), 1);
  EXPECT_EQ(sparkUnCombineBuffers(Info(24), nullptr, dst.data()), 1);
  EXPECT_EQ(sparkCombine16FBuffers(Info(49), nullptr, frame.data()), 1);
  // Every fork reached the host; every worker asked for its range before giving up.
  EXPECT_EQ(sparkhost::Calls().mpFork, 14 + 7);
  // A worker without its info returns before asking the host.
  const int32_t infos = sparkhost::Calls().mpInfo;
  sparkCombineBuffers_mp(nullptr);
  sparkUnCombineBuffers_mp(nullptr);
  sparkCombine16FBuffers_mp(nullptr);
  EXPECT_EQ(sparkhost::Calls().mpInfo, infos);
  EXPECT_TRUE(sparkhost::HostLog().empty());
}

}  // namespace
