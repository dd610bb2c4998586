// flowblur tool tests: floats to halves eight at a time gives Imath's bits, NaNs included (the
// one conversion the packed plug-in frames and half files written from floats use).
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <cstring>
#include <vector>

#include "tools/ImageFiles.h"

namespace flowblur {
namespace {

float FromBits(uint32_t bits) {
  float v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

// A sweep over the float bit patterns (a prime stride, so every exponent and many mantissas
// come up), and the edges: zeros, the half range's limits, ties, denormals, infinities, quiet
// and signalling NaNs of both signs.
std::vector<float> Values() {
  std::vector<float> values;
  for (uint64_t bits = 0; bits < (uint64_t{1} << 32); bits += 4099) values.push_back(FromBits(static_cast<uint32_t>(bits)));
  for (uint32_t bits : {0x00000000u, 0x80000000u, 0x477fe000u, 0x477ff000u, 0x477fefffu,
                        0x47800000u, 0x33800000u, 0x33000000u, 0x33000001u, 0x387fc000u,
                        0x7f800000u, 0xff800000u, 0x7fc00000u, 0x7f800001u, 0xffa00001u,
                        0x7f801fffu, 0x3f801000u, 0x3f803000u})
    values.push_back(FromBits(bits));
  // Odd lengths leave a tail after the groups of eight.
  values.push_back(1.0f / 3.0f);
  return values;
}

TEST(HalfBits, EveryValueAsImathConvertsIt) {
  const std::vector<float> values = Values();
  std::vector<uint16_t> bits(values.size());
  FloatsToHalfBits(values.data(), bits.data(), values.size());
  size_t wrong = 0;
  for (size_t i = 0; i < values.size(); ++i) wrong += bits[i] != Imath::half(values[i]).bits();
  EXPECT_EQ(wrong, 0u);
}

}  // namespace
}  // namespace flowblur
