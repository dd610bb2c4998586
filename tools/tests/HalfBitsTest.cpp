// flowblur tool tests: floats to halves eight at a time gives Imath's bits, NaNs included, in
// the packed plug-in frames and in half files written from floats.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <cstring>
#include <limits>
#include <vector>

#include "tools/ImageFiles.h"
#include "tools/tests/ToolTestSupport.h"

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

TEST(HalfBits, PackedFramesAndHalfFilesKeepThem) {
  const std::vector<float> values = Values();
  // Four channels, colour in 2, 0, 3 (alpha between them), and more pixels than one run.
  Frame frame;
  frame.info.width = 1031;
  frame.info.height = static_cast<int32_t>(values.size() / 3 / 1031 + 1);
  frame.info.channels = 4;
  frame.info.colour[0] = 2;
  frame.info.colour[1] = 0;
  frame.info.colour[2] = 3;
  const size_t pixels = static_cast<size_t>(frame.info.width) * frame.info.height;
  frame.pixels.resize(pixels * 4);
  for (size_t i = 0; i < frame.pixels.size(); ++i) frame.pixels[i] = values[i % values.size()];
  std::vector<uint16_t> packed(pixels * 3);
  PackColour(frame, 49, packed.data());
  size_t wrong = 0;
  for (size_t p = 0; p < pixels; ++p)
    for (int c = 0; c < 3; ++c)
      wrong += packed[p * 3 + c] !=
               Imath::half(frame.pixels[p * 4 + frame.info.colour[c]]).bits();
  EXPECT_EQ(wrong, 0u);

  test::TempDir dir;
  const std::string path = dir / "h.exr";
  std::string error;
  OIIO::ImageSpec imageSpec(frame.info.width, frame.info.height, 4, OIIO::TypeDesc::HALF);
  ASSERT_TRUE(WriteImageSafely(path, imageSpec, OIIO::TypeDesc::FLOAT, frame.pixels.data(), false,
                               &error))
      << error;
  auto in = OIIO::ImageInput::open(path);
  ASSERT_TRUE(in);
  std::vector<uint16_t> stored(frame.pixels.size());
  ASSERT_TRUE(in->read_image(0, 0, 0, 4, OIIO::TypeDesc::HALF, stored.data()));
  wrong = 0;
  for (size_t i = 0; i < stored.size(); ++i)
    wrong += stored[i] != Imath::half(frame.pixels[i]).bits();
  EXPECT_EQ(wrong, 0u);
}

}  // namespace
}  // namespace flowblur
