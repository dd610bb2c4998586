// flowblur tool tests: half files held as halves pack and write the bits of the float route.
#include <gtest/gtest.h>

#include "tools/ClipFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

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
