// flowblur tool tests: which colour space a clip is in, and the conversion to linear light
// and back against the published transfer curves.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <cmath>

#include "tools/ClipFiles.h"
#include "tools/ColourSpace.h"

namespace flowblur {
namespace {

// The published decoding curves, written out slowly.
double SrgbToLinear(double v) {
  return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}
double Rec709ToLinear(double v) {
  return v < 0.081 ? v / 4.5 : std::pow((v + 0.099) / 1.099, 1.0 / 0.45);
}

// The conversion is OpenColorIO's processor, whose fast power approximation is good to a few
// parts in 100000: far below half an 8-bit level.
constexpr double kCurveTolerance = 2e-4;

Frame MakeFrame(int32_t width, int32_t height, std::vector<std::string> names) {
  OIIO::ImageSpec imageSpec(width, height, static_cast<int>(names.size()), OIIO::TypeDesc::UINT8);
  imageSpec.channelnames = names;
  for (size_t c = 0; c < names.size(); ++c)
    if (names[c] == "A") imageSpec.alpha_channel = static_cast<int>(c);
  imageSpec.attribute("oiio:ColorSpace", "sRGB");
  Frame f;
  std::string error;
  EXPECT_TRUE(ClassifyFrame("made.png", imageSpec, &f.info, &error)) << error;
  f.pixels.resize(static_cast<size_t>(width) * height * names.size());
  return f;
}

struct Curve {
  const char* name;
  double (*toLinear)(double);
};
class LinearLightCurves : public ::testing::TestWithParam<Curve> {};

TEST_P(LinearLightCurves, EveryEightBitLevelDecodesAsPublishedAndComesBackThroughHalf) {
  const Curve& curve = GetParam();
  LinearLight light;
  std::string error;
  ASSERT_TRUE(light.Create(curve.name, &error)) << error;
  // 256 levels in the red channel, the reversed ramp in blue, a constant in green.
  Frame f = MakeFrame(256, 1, {"R", "G", "B"});
  for (int i = 0; i < 256; ++i)
    for (int c = 0; c < 3; ++c)
      f.pixels[i * 3 + c] = (c == 0 ? i : c == 1 ? 128 : 255 - i) / 255.0f;
  Frame linear = f;
  light.ToLinear(&linear);
  double worst = 0.0;
  for (int i = 0; i < 256; ++i)
    for (int c = 0; c < 3; ++c)
      worst = std::max(worst, std::fabs(linear.pixels[i * 3 + c] -
                                        curve.toLinear(f.pixels[i * 3 + c])));
  EXPECT_LT(worst, kCurveTolerance);
  // Through the plug-in's half format and back: every level lands on itself.
  for (float& v : linear.pixels) v = static_cast<float>(Imath::half(v));
  light.FromLinear(&linear);
  for (int i = 0; i < 256 * 3; ++i)
    EXPECT_EQ(std::lround(linear.pixels[i] * 255.0f), std::lround(f.pixels[i] * 255.0f)) << i;
}

INSTANTIATE_TEST_SUITE_P(Spaces, LinearLightCurves,
                         ::testing::Values(Curve{"sRGB", SrgbToLinear},
                                           Curve{"Rec709", Rec709ToLinear}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(LinearLight, OnlyColourChannelsWhereverTheyAre) {
  LinearLight light;
  std::string error;
  ASSERT_TRUE(light.Create("sRGB", &error)) << error;
  // Channels stored A, B, G, R: alpha first, colour by name.
  Frame f = MakeFrame(1, 1, {"A", "B", "G", "R"});
  f.pixels = {0.25f, 128 / 255.0f, 1.0f, 0.0f};
  light.ToLinear(&f);
  EXPECT_EQ(f.pixels[0], 0.25f);
  EXPECT_NEAR(f.pixels[1], 0.2158, 1e-4);
  EXPECT_NEAR(f.pixels[2], 1.0, 1e-4);
  // A grey frame with alpha: the grey channel is converted, alpha is not.
  Frame g = MakeFrame(1, 1, {"Y", "A"});
  g.pixels = {128 / 255.0f, 128 / 255.0f};
  light.ToLinear(&g);
  EXPECT_NEAR(g.pixels[0], 0.2158, 1e-4);
  EXPECT_EQ(g.pixels[1], 128 / 255.0f);
}

TEST(ColourChoice, WhichSpaceAClipIsConvertedFrom) {
  ColourChoice choice;
  std::string error;
  auto spaceFor = [&](const std::string& text, const char* fileSpace) {
    EXPECT_TRUE(ParseColourChoice(text, &choice, &error)) << text;
    FrameInfo info;
    if (fileSpace) info.imageSpec.attribute("oiio:ColorSpace", fileSpace);
    return EncodedSpaceFor(choice, info);
  };
  EXPECT_EQ(spaceFor("auto", "sRGB"), "sRGB");      // a PNG
  EXPECT_EQ(spaceFor("auto", "Linear"), "");        // an EXR
  EXPECT_EQ(spaceFor("auto", nullptr), "");         // a file that says nothing
  EXPECT_EQ(spaceFor("none", "sRGB"), "");
  EXPECT_EQ(spaceFor("SRGB", nullptr), "sRGB");     // named: the file's tag does not matter
  EXPECT_EQ(spaceFor("rec709", "sRGB"), "Rec709");
  EXPECT_EQ(spaceFor("linear", "sRGB"), "");
  EXPECT_EQ(spaceFor("my_log", nullptr), "my_log");  // left to the configuration
  EXPECT_FALSE(ParseColourChoice("", &choice, &error));
}

TEST(LinearStage, ConvertedClipsGoThroughHalf) {
  LinearStage stage;
  std::string error;
  ColourChoice none{ColourChoice::Mode::kNone, ""}, srgb{ColourChoice::Mode::kNamed, "sRGB"},
      bad{ColourChoice::Mode::kNamed, "nonsense"};
  Frame f = MakeFrame(1, 1, {"R", "G", "B"});
  ASSERT_TRUE(stage.Settle(none, f.info, &error));
  EXPECT_FALSE(stage.Active());
  EXPECT_EQ(stage.FormatCode(SampleDepth::k8), 24);
  ASSERT_TRUE(stage.Settle(srgb, f.info, &error)) << error;
  EXPECT_TRUE(stage.Active());
  EXPECT_EQ(stage.FormatCode(SampleDepth::k8), 49);
  EXPECT_EQ(stage.FormatCode(SampleDepth::k16), 49);
  EXPECT_FALSE(stage.Settle(bad, f.info, &error));
  EXPECT_FALSE(stage.Active());
}

}  // namespace
}  // namespace flowblur
