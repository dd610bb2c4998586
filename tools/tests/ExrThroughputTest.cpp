// flowblur tool tests: half files held as halves give the packed frames and the written files
// of the float route, bit for bit, for every half value and every channel layout.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <fstream>
#include <random>
#include <sstream>

#include "tools/ClipFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

std::string Bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Every half bit pattern (NaNs, infinities, denormals, both zeros), as a plain RGB frame held
// both ways: the packed frame is the bits themselves, and a result unpacked into either form
// and converted back as a half file is written gives the result's bits.
TEST(ExrThroughput, EveryHalfTakesTheFloatRoutesBits) {
  Frame halves;
  halves.info.width = 256;
  halves.info.height = 86;  // 256 x 86 x 3 covers all 65536 patterns, the rest wrap
  halves.info.channels = 3;
  halves.halves.resize(256 * 86 * 3);
  for (size_t i = 0; i < halves.halves.size(); ++i) halves.halves[i] = static_cast<uint16_t>(i);
  Frame floats = halves;
  SamplesAsFloats(&floats);
  ASSERT_FALSE(floats.HoldsHalves());
  std::vector<uint16_t> a(halves.halves.size()), b(a.size());
  PackColour(halves, 49, a.data());
  PackColour(floats, 49, b.data());
  EXPECT_EQ(a, halves.halves);
  EXPECT_EQ(b, halves.halves);
  // A result of the same patterns in another order.
  std::vector<uint16_t> result(a.rbegin(), a.rend());
  Frame outHalves = WithColourFrom(halves, result.data(), 49);
  Frame outFloats = WithColourFrom(floats, result.data(), 49);
  std::vector<uint16_t> written(result.size());
  FloatsToHalfBits(outFloats.pixels.data(), written.data(), written.size());
  EXPECT_EQ(outHalves.halves, result);
  EXPECT_EQ(written, result);
}

struct Layout {
  const char* name;
  std::vector<std::string> channels;
  bool floatAlpha;  // the last channel stored as float: such a file is read as floats
};

class ExrLayouts : public testing::TestWithParam<Layout> {};

// A file read both ways packs alike, and a result written through the clip sink makes the same
// file at the input's depth, at 16 bits and at float.
TEST_P(ExrLayouts, SameFilesAsTheFloatRoute) {
  const Layout& layout = GetParam();
  test::TempDir dir;
  const int nc = static_cast<int>(layout.channels.size());
  OIIO::ImageSpec spec(37, 19, nc, OIIO::TypeDesc::HALF);
  spec.channelnames = layout.channels;
  if (layout.floatAlpha) {
    spec.channelformats.assign(static_cast<size_t>(nc), OIIO::TypeDesc::HALF);
    spec.channelformats.back() = OIIO::TypeDesc::FLOAT;
  }
  std::mt19937 random(7);
  std::vector<float> stored(37 * 19 * static_cast<size_t>(nc));
  for (float& v : stored) v = static_cast<float>(Imath::half(std::uniform_real_distribution<float>(-2.0f, 4.0f)(random)));
  const std::string in = dir / "in.exr";
  std::string error;
  ASSERT_TRUE(WriteImageSafely(in, spec, OIIO::TypeDesc::FLOAT, stored.data(), false, &error)) << error;

  Frame kept, plain;
  ASSERT_TRUE(ReadFrame(in, &kept, &error, true)) << error;
  ASSERT_TRUE(ReadFrame(in, &plain, &error)) << error;
  EXPECT_EQ(kept.HoldsHalves(), !layout.floatAlpha);
  EXPECT_FALSE(plain.HoldsHalves());
  std::vector<uint16_t> packedKept(37 * 19 * 3), packedPlain(packedKept.size()), result(packedKept.size());
  PackColour(kept, 49, packedKept.data());
  PackColour(plain, 49, packedPlain.data());
  EXPECT_EQ(packedKept, packedPlain);
  for (uint16_t& bits : result) bits = static_cast<uint16_t>(random());

  for (SampleDepth depth : {SampleDepth::kHalf, SampleDepth::k16, SampleDepth::kFloat}) {
    std::string files[2];
    for (int way = 0; way < 2; ++way) {
      SequencePattern pattern;
      files[way] = dir / (std::string(DepthName(depth)) + (way ? "-kept.exr" : "-plain.exr"));
      ASSERT_TRUE(ParseSequencePattern(files[way], &pattern, &error)) << error;
      ClipSink sink;
      ClipSource source;
      const Frame& input = way ? kept : plain;
      ASSERT_TRUE(sink.Prepare(pattern, source, input.info, true, depth, {}, &error)) << error;
      ASSERT_TRUE(sink.Write(files[way], WithColourFrom(input, result.data(), 49), false, &error))
          << error;
    }
    EXPECT_EQ(Bytes(files[0]), Bytes(files[1])) << layout.name << " at " << DepthName(depth);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Channels, ExrLayouts,
    testing::Values(Layout{"rgb", {"R", "G", "B"}, false}, Layout{"rgba", {"R", "G", "B", "A"}, false},
                    Layout{"grey", {"Y"}, false}, Layout{"bgr", {"B", "G", "R"}, false},
                    Layout{"greyAlpha", {"Y", "A"}, false},
                    Layout{"floatAlpha", {"R", "G", "B", "A"}, true}),
    [](const testing::TestParamInfo<Layout>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace flowblur
