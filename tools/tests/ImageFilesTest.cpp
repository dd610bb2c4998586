// flowblur tool tests: channel roles, packing for the plug-in, exact file round trips at every
// depth (no temporary file left behind), and mixed channel formats.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <random>

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

// A frame of `channels` channels with every representable 8-bit, 16-bit or half value spread
// over it, so packing and unpacking can be checked to be exact.
Frame MakeFrame(int32_t w, int32_t h, int32_t channels, SampleDepth depth, uint32_t seed) {
  OIIO::ImageSpec imageSpec(w, h, channels, TypeFor(depth));
  if (channels == 2) {
    imageSpec.channelnames = {"Y", "A"};
    imageSpec.alpha_channel = 1;
  }
  Frame f;
  std::string error;
  EXPECT_TRUE(ClassifyFrame("x", imageSpec, &f.info, &error)) << error;
  f.pixels.resize(static_cast<size_t>(w) * h * channels);
  std::mt19937 random(seed);
  for (float& v : f.pixels) {
    uint32_t r = random();
    switch (depth) {
      case SampleDepth::k8: v = static_cast<float>(r % 256) / 255.0f; break;
      case SampleDepth::k16: v = static_cast<float>(r % 65536) / 65535.0f; break;
      default: {
        Imath::half hv;
        hv.setBits(static_cast<uint16_t>(r % 0x7C00));  // finite, non-negative halves
        v = hv;
      }
    }
  }
  return f;
}

TEST(PackColour, RoundTripsExactlyAndLeavesOtherChannelsAlone) {
  for (SampleDepth depth : {SampleDepth::k8, SampleDepth::k16, SampleDepth::kHalf}) {
    Frame f = MakeFrame(7, 5, 4, depth, 3);
    int32_t code = FormatCodeFor(depth);
    std::vector<uint8_t> packed(static_cast<size_t>(PackedFrameBytes(7, 5, code)));
    PackColour(f, code, packed.data());
    Frame back = f;
    for (size_t i = 0; i < back.pixels.size(); ++i)
      if (i % 4 != 3) back.pixels[i] = -1.0f;  // colour must come from the packed buffer
    UnpackColour(packed.data(), code, &back);
    EXPECT_EQ(back.pixels, f.pixels) << DepthName(depth);
  }
  // Out of range and NaN clamp on the integer paths.
  Frame f = MakeFrame(1, 1, 3, SampleDepth::k8, 1);
  f.pixels = {-0.5f, 2.0f, NAN};
  uint8_t packed[3];
  PackColour(f, 24, packed);
  EXPECT_EQ(std::vector<int>(packed, packed + 3), (std::vector<int>{0, 255, 0}));
}

TEST(PackColour, GreyIsExpandedAndWrittenBackAsOneChannel) {
  Frame f = MakeFrame(3, 2, 2, SampleDepth::k8, 5);
  ASSERT_TRUE(f.info.grey);
  std::vector<uint8_t> packed(3 * 2 * 3);
  PackColour(f, 24, packed.data());
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(packed[3 * i], packed[3 * i + 1]);
    EXPECT_EQ(packed[3 * i], packed[3 * i + 2]);
  }
  packed[0] = 9;  // R of pixel 0 decides the grey value
  packed[1] = 200;
  Frame back = f;
  UnpackColour(packed.data(), 24, &back);
  EXPECT_FLOAT_EQ(back.pixels[0], 9.0f / 255.0f);
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(back.pixels[2 * i + 1], f.pixels[2 * i + 1]);
}

// The samples as the file stores them: integers for integer depths (a reader may scale by a
// reciprocal rather than divide, which differs in the last float bit), the floats otherwise.
std::vector<double> Stored(const std::vector<float>& pixels, SampleDepth depth) {
  double scale = depth == SampleDepth::k8 ? 255.0 : depth == SampleDepth::k16 ? 65535.0 : 0.0;
  std::vector<double> out;
  for (float v : pixels) out.push_back(scale > 0.0 ? std::lround(v * scale) : double{v});
  return out;
}

// Written with the tool's imageSpec and read back: the same samples, the same depth.
TEST(WriteImageSafely, FilesRoundTripExactlyAtEveryDepth) {
  test::TempDir dir;
  struct Case {
    const char* name;
    SampleDepth depth;
    int32_t channels;
  };
  for (const Case& c : {Case{"a.png", SampleDepth::k8, 4}, Case{"b.tif", SampleDepth::k16, 4},
                        Case{"c.exr", SampleDepth::kHalf, 4}, Case{"d.exr", SampleDepth::kFloat, 3},
                        Case{"e.png", SampleDepth::k8, 1}}) {
    Frame f = MakeFrame(9, 6, c.channels, c.depth, 11);
    if (c.depth == SampleDepth::kFloat)
      for (float& v : f.pixels) v = v * 3.25f - 0.5f;  // float keeps out-of-range values
    std::string error, path = dir / c.name;
    ASSERT_TRUE(WriteImageSafely(path, OutputSpec(f.info, c.depth), OIIO::TypeDesc::FLOAT,
                                 f.pixels.data(), false, &error))
        << error;
    Frame back;
    ASSERT_TRUE(ReadFrame(path, &back, &error)) << error;
    EXPECT_EQ(back.info.depth, c.depth) << c.name;
    EXPECT_EQ(back.info.channels, c.channels) << c.name;
    EXPECT_EQ(Stored(back.pixels, c.depth), Stored(f.pixels, c.depth)) << c.name;
  }
  // Only the finished files: no temporary left behind.
  EXPECT_EQ(test::Names(test::Snapshot(dir.path())),
            (std::vector<std::string>{"a.png", "b.tif", "c.exr", "d.exr", "e.png"}));
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
}

}  // namespace
}  // namespace flowblur
