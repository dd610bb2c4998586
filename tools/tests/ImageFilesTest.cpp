// flowblur tool tests: channel roles, clamping when packing for the plug-in, exact file round
// trips of mixed channel formats and of floats (no temporary file left behind); floats to halves
// eight at a time give Imath's bits, NaNs included (the one conversion the packed plug-in frames
// and half files written from floats use); half files held as halves pack and write the bits of
// the float route.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <cstring>
#include <vector>

#include "tools/ClipFiles.h"
#include "tools/ImageFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

FrameInfo Classify(const OIIO::ImageSpec& imageSpec, bool expectOk = true) {
  FrameInfo info;
  std::string error;
  EXPECT_EQ(ClassifyFrame("f.exr", imageSpec, &info, &error), expectOk) << error;
  return info;
}

TEST(ClassifyFrame, ColourChannelsAlphaAndDepth) {
  FrameInfo rgba = Classify(OIIO::ImageSpec(4, 2, 4, OIIO::TypeDesc::UINT8));
  EXPECT_FALSE(rgba.grey);
  EXPECT_EQ(rgba.depth, SampleDepth::k8);
  EXPECT_EQ(std::vector<int>(rgba.colour, rgba.colour + 3), (std::vector<int>{0, 1, 2}));

  // Colour found by name, wherever it stands; half depth from the colour channels.
  OIIO::ImageSpec named(4, 2, 4, OIIO::TypeDesc::HALF);
  named.channelnames = {"A", "B", "G", "R"};
  named.alpha_channel = 0;
  FrameInfo byName = Classify(named);
  EXPECT_EQ(std::vector<int>(byName.colour, byName.colour + 3), (std::vector<int>{3, 2, 1}));
  EXPECT_EQ(byName.depth, SampleDepth::kHalf);

  OIIO::ImageSpec greyAlpha(4, 2, 2, OIIO::TypeDesc::UINT16);
  greyAlpha.channelnames = {"Y", "A"};
  greyAlpha.alpha_channel = 1;
  FrameInfo grey = Classify(greyAlpha);
  EXPECT_TRUE(grey.grey);
  EXPECT_EQ(grey.colour[0], 0);
  EXPECT_EQ(grey.colour[2], 0);
  EXPECT_EQ(grey.depth, SampleDepth::k16);

  EXPECT_EQ(Classify(OIIO::ImageSpec(4, 2, 3, OIIO::TypeDesc::FLOAT)).depth, SampleDepth::kFloat);
  EXPECT_EQ(Classify(OIIO::ImageSpec(4, 2, 3, OIIO::TypeDesc::DOUBLE)).depth, SampleDepth::kFloat);
  EXPECT_EQ(Classify(OIIO::ImageSpec(4, 2, 3, OIIO::TypeDesc::UINT32)).depth, SampleDepth::k16);

  // Two plain channels (say, a flow image): neither RGB nor grey.
  OIIO::ImageSpec uv(4, 2, 2, OIIO::TypeDesc::FLOAT);
  uv.channelnames = {"u", "v"};
  Classify(uv, false);
  Classify(OIIO::ImageSpec(0, 2, 3, OIIO::TypeDesc::UINT8), false);
}

// Out of range and NaN clamp on the integer paths.
TEST(PackColour, IntegerPathsClampOutOfRangeAndNaN) {
  Frame f;
  f.info = Classify(OIIO::ImageSpec(1, 1, 3, OIIO::TypeDesc::UINT8));
  f.pixels = {-0.5f, 2.0f, NAN};
  uint8_t packed[3];
  PackColour(f, 24, packed);
  EXPECT_EQ(std::vector<int>(packed, packed + 3), (std::vector<int>{0, 255, 0}));
}

TEST(OutputSpec, MixedChannelFormatsSurviveAtTheInputDepth) {
  // Half colour with float alpha: the alpha's float bits must come through.
  test::TempDir dir;
  OIIO::ImageSpec imageSpec(3, 2, 4, OIIO::TypeDesc::HALF);
  imageSpec.channelformats = {OIIO::TypeDesc::HALF, OIIO::TypeDesc::HALF, OIIO::TypeDesc::HALF,
                         OIIO::TypeDesc::FLOAT};
  Frame f;
  std::string error;
  ASSERT_TRUE(ClassifyFrame("x", imageSpec, &f.info, &error)) << error;
  EXPECT_EQ(f.info.depth, SampleDepth::kHalf);
  f.pixels.assign(3 * 2 * 4, 0.25f);
  for (size_t i = 3; i < f.pixels.size(); i += 4) f.pixels[i] = 0.1f + 1e-6f * i;  // not halves
  ASSERT_TRUE(WriteImageSafely(dir / "m.exr", OutputSpec(f.info, SampleDepth::kHalf),
                               OIIO::TypeDesc::FLOAT, f.pixels.data(), false, &error))
      << error;
  Frame back;
  ASSERT_TRUE(ReadFrame(dir / "m.exr", &back, &error)) << error;
  EXPECT_EQ(back.pixels, f.pixels);
  // At another depth every channel takes it.
  OIIO::ImageSpec other = OutputSpec(f.info, SampleDepth::k16);
  EXPECT_TRUE(other.channelformats.empty());
  EXPECT_EQ(other.format, OIIO::TypeDesc::UINT16);
  // At float depth values outside 0 to 1 come through exactly, and no temporary is left.
  for (float& v : f.pixels) v = v * 6.5f - 0.5f;
  ASSERT_TRUE(WriteImageSafely(dir / "f.exr", OutputSpec(f.info, SampleDepth::kFloat),
                               OIIO::TypeDesc::FLOAT, f.pixels.data(), false, &error))
      << error;
  ASSERT_TRUE(ReadFrame(dir / "f.exr", &back, &error)) << error;
  EXPECT_EQ(back.info.depth, SampleDepth::kFloat);
  EXPECT_EQ(back.pixels, f.pixels);
  EXPECT_EQ(test::Names(test::Snapshot(dir.path())), (std::vector<std::string>{"f.exr", "m.exr"}));
}

// ---- Halves
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


struct Layout {
  const char* name;
  std::vector<std::string> channels;
  bool floatAlpha;  // the last channel stored as float: such a file is read as floats
};

class ExrHalves : public testing::TestWithParam<Layout> {};

// Every half bit pattern (NaNs, infinities, denormals, both zeros) in the file and in the
// plug-in's result: read as halves or as floats, the packed frames match, and the result
// written through the clip sink at half, 16 bits and float makes the same files.
TEST_P(ExrHalves, SameBitsAsTheFloatRoute) {
  const Layout& layout = GetParam();
  const int32_t w = 256, h = 86, nc = static_cast<int32_t>(layout.channels.size());
  test::TempDir dir;
  OIIO::ImageSpec header(w, h, nc, OIIO::TypeDesc::HALF);
  header.channelnames = layout.channels;
  if (layout.floatAlpha) {
    header.channelformats.assign(static_cast<size_t>(nc), OIIO::TypeDesc::HALF);
    header.channelformats.back() = OIIO::TypeDesc::FLOAT;
  }
  // Odd strides through the 16-bit patterns: each comes up once in 65536 samples.
  std::vector<uint16_t> stored(static_cast<size_t>(w) * h * nc);
  std::vector<uint16_t> result(static_cast<size_t>(w) * h * 3);
  for (size_t i = 0; i < stored.size(); ++i) stored[i] = static_cast<uint16_t>(i * 7919u);
  for (size_t i = 0; i < result.size(); ++i) result[i] = static_cast<uint16_t>(i * 40503u + 11u);
  std::string error;
  ASSERT_TRUE(WriteImageSafely(dir / "in.exr", header, OIIO::TypeDesc::HALF, stored.data(), false,
                               &error))
      << error;

  Frame kept, plain;
  ASSERT_TRUE(ReadFrame(dir / "in.exr", &kept, &error, true)) << error;
  ASSERT_TRUE(ReadFrame(dir / "in.exr", &plain, &error)) << error;
  EXPECT_EQ(kept.HoldsHalves(), !layout.floatAlpha);
  std::vector<uint16_t> packedKept(result.size()), packedPlain(result.size());
  PackColour(kept, 49, packedKept.data());
  PackColour(plain, 49, packedPlain.data());
  EXPECT_EQ(packedKept, packedPlain);

  for (SampleDepth depth : {SampleDepth::kHalf, SampleDepth::k16, SampleDepth::kFloat}) {
    std::string files[2];
    for (int way = 0; way < 2; ++way) {
      files[way] = dir / (std::string(DepthName(depth)) + (way ? "-kept.exr" : "-plain.exr"));
      SequencePattern pattern;
      ClipSink sink;
      const Frame& input = way ? kept : plain;
      ASSERT_TRUE(ParseSequencePattern(files[way], &pattern, &error)) << error;
      ASSERT_TRUE(sink.Prepare(pattern, ClipSource(), input.info, true, depth, {}, &error)) << error;
      ASSERT_TRUE(sink.Write(files[way], WithColourFrom(input, result.data(), 49), false, &error))
          << error;
    }
    EXPECT_EQ(test::ReadBytes(files[0]), test::ReadBytes(files[1])) << layout.name << " at " << DepthName(depth);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Channels, ExrHalves,
    testing::Values(Layout{"rgb", {"R", "G", "B"}, false}, Layout{"rgba", {"R", "G", "B", "A"}, false},
                    Layout{"grey", {"Y"}, false}, Layout{"greyAlpha", {"Y", "A"}, false},
                    Layout{"floatAlpha", {"R", "G", "B", "A"}, true}),
    [](const testing::TestParamInfo<Layout>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace flowblur
