// flowblur tool tests: channel roles, clamping when packing for the plug-in, and exact file
// round trips of mixed channel formats and of floats (no temporary file left behind).
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace flowblur
