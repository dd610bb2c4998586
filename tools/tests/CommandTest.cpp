// flowblur tool tests: the built `flowblur` command end to end on small generated sequences,
// and every refused run: its message, its exit code, and a folder left as it was.
#include <gtest/gtest.h>

#include <cmath>

#include "tools/ImageFiles.h"
#include "tools/MovieFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

using test::Flowblur;
using test::Load;
using test::Numbered;
using test::WriteClip;

constexpr int32_t kW = 96, kH = 64, kFrames = 4;

// ---- End to end

struct FormatCase {
  const char* name;
  const char* ext;
  SampleDepth depth;
  int32_t channels;
};
class EndToEnd : public ::testing::TestWithParam<FormatCase> {};

TEST_P(EndToEnd, BlursWhereThingsMoveKeepsTheRestAndAmountZeroGivesTheInputBack) {
  const FormatCase& c = GetParam();
  test::TempDir dir;
  const std::string in = dir / (std::string("in.%04d.") + c.ext);
  const std::string out = dir / (std::string("out/o.%04d.") + c.ext);
  WriteClip(in, 1, kFrames, c.depth, c.channels);
  test::RunResult r = Flowblur({in, out, "--amount", "1", "--threads", "2"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  for (int32_t f = 1; f <= kFrames; ++f) {
    const Frame a = Load(Numbered(in, f)), b = Load(Numbered(out, f));
    ASSERT_EQ(b.info.width, kW);
    ASSERT_EQ(b.info.height, kH);
    ASSERT_EQ(b.info.channels, c.channels);
    EXPECT_EQ(b.info.depth, c.depth);
    EXPECT_EQ(b.info.grey, c.channels < 3);
    double moved = 0.0, still = 0.0, alpha = 0.0;
    for (int32_t y = 0; y < kH; ++y)
      for (int32_t x = 0; x < kW; ++x)
        for (int32_t ch = 0; ch < c.channels; ++ch) {
          const size_t i = (static_cast<size_t>(y) * kW + x) * c.channels + ch;
          const double d = std::fabs(a.pixels[i] - b.pixels[i]);
          if (c.channels % 2 == 0 && ch == c.channels - 1)
            alpha = std::max(alpha, d);
          else if (x >= 10 && x < 40 && y >= 8 && y < 24)
            moved += d;
          else if (x >= 60 && y >= 40)
            still = std::max(still, d);
        }
    EXPECT_GT(moved, 0.0) << "frame " << f << ": no blur where the block moves";
    EXPECT_EQ(still, 0.0) << "frame " << f << ": the still corner changed";
    EXPECT_EQ(alpha, 0.0) << "frame " << f << ": alpha changed";
  }
  // Metadata of the input is kept where the format holds it.
  if (std::string(c.ext) == "exr") {
    const Frame b = Load(Numbered(out, 2));
    EXPECT_FLOAT_EQ(b.info.imageSpec.get_float_attribute("PixelAspectRatio"), 1.5f);
    const OIIO::ParamValue* tc = b.info.imageSpec.find_attribute("smpte:TimeCode");
    ASSERT_NE(tc, nullptr);
    EXPECT_EQ(static_cast<const uint32_t*>(tc->data())[0], 0x10203001u);
  }
  // Amount 0, quietly, with the other spelling of the pattern: the input back.
  r = Flowblur({dir / (std::string("in.####.") + c.ext), dir / (std::string("z.####.") + c.ext),
                "--amount", "0", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");
  for (int32_t f = 1; f <= kFrames; ++f)
    EXPECT_EQ(Load(Numbered(dir / (std::string("z.%04d.") + c.ext), f)).pixels,
              Load(Numbered(in, f)).pixels)
        << f;
}

INSTANTIATE_TEST_SUITE_P(Formats, EndToEnd,
                         ::testing::Values(FormatCase{"Png8Rgba", "png", SampleDepth::k8, 4},
                                           FormatCase{"Png8GreyAlpha", "png", SampleDepth::k8, 2},
                                           FormatCase{"Tiff16Rgb", "tif", SampleDepth::k16, 3},
                                           FormatCase{"ExrHalfRgba", "exr", SampleDepth::kHalf, 4}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(EndToEndMore, OneFrameHasNoNeighbourAndComesBackUnchanged) {
  test::TempDir dir;
  WriteClip(dir / "in.%04d.png", 3, 1, SampleDepth::k8, 4);
  test::RunResult r = Flowblur({dir / "in.0003.png", dir / "single.png", "--amount", "2", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(Load(dir / "single.png").pixels, Load(dir / "in.0003.png").pixels);
}

TEST(EndToEndMore, WritesFlowPicturesAndRawFlow) {
  test::TempDir dir;
  WriteClip(dir / "in.%04d.png", 1, 3, SampleDepth::k8, 3);
  test::RunResult r = Flowblur({dir / "in.%04d.png", dir / "out.%04d.png", "--write-flow",
                                dir / "flow", "--write-flow-exr", "--quality", "draft", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  for (int32_t f = 1; f <= 3; ++f) {
    const Frame picture = Load(Numbered(dir / "flow/flow.%04d.png", f));
    EXPECT_EQ(picture.info.width, kW);
    EXPECT_EQ(picture.info.channels, 3);
    const std::string rawPath = Numbered(dir / "flow/flow.%04d.exr", f);
    auto raw = OIIO::ImageInput::create(rawPath);
    ASSERT_TRUE(raw) << OIIO::geterror();
    OIIO::ImageSpec header;
    ASSERT_TRUE(raw->open(rawPath, header)) << raw->geterror();
    EXPECT_EQ(header.nchannels, 2);
    EXPECT_EQ(header.format, OIIO::TypeDesc::FLOAT);
    EXPECT_EQ(header.width, kW / 4);  // draft: the estimator works at a quarter
    EXPECT_EQ(header.get_int_attribute("flowblur:firstFrame"), f == 1 ? 2 : f);
  }
}

TEST(EndToEndMore, MotionFromABackSequence) {
  test::TempDir dir;
  WriteClip(dir / "front.%04d.png", 1, 3, SampleDepth::k8, 3);
  WriteClip(dir / "back.%04d.tif", 1, 3, SampleDepth::k16, 3);
  test::RunResult r = Flowblur({dir / "front.%04d.png", dir / "out.%04d.png", "--motion-from",
                                dir / "back.%04d.tif", "-q", "--amount", "1"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(Load(dir / "out.0002.png").pixels, Load(dir / "front.0002.png").pixels);
}

TEST(EndToEndMore, OverwriteReplacesOnlyWhenAskedAndOutDepthPicksTheDepth) {
  test::TempDir dir;
  WriteClip(dir / "in.%04d.png", 1, 2, SampleDepth::k8, 3);
  std::ofstream(dir / "out.0002.png") << "mine";
  test::ExpectRefused(dir.path(), {dir / "in.%04d.png", dir / "out.%04d.png"}, 3,
                      "'" + dir / "out.0002.png" + "' exists; use --overwrite");
  test::RunResult r = Flowblur({dir / "in.%04d.png", dir / "out.%04d.png", "--overwrite",
                                "--out-depth", "16", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(Load(dir / "out.0002.png").info.depth, SampleDepth::k16);
}

// ---- Refused runs: one clear message, the exit code, and nothing changed.

class Refused : public ::testing::Test {
 protected:
  void SetUp() override { WriteClip(dir / "in.%04d.png", 1, 3, SampleDepth::k8, 3); }
  void Expect(const std::vector<std::string>& args, int code, const std::string& says) {
    test::ExpectRefused(dir.path(), args, code, says);
  }
  test::TempDir dir;
};

TEST_F(Refused, MissingFrames) {
  unlink((dir / "in.0002.png").c_str());
  Expect({dir / "in.%04d.png", dir / "out.%04d.png"}, 1,
         "'" + dir / "in.0002.png" + "' is missing");
  WriteClip(dir / "in.%04d.png", 2, 1, SampleDepth::k8, 3);
  Expect({dir / "in.####.png", dir / "out.####.png", "--clip", "1-5"}, 1,
         "'" + dir / "in.0004.png" + "' is missing (the sequence runs from 1 to 5)");
  // --frames chooses frames within the clip: past its end is clamped, before it is refused.
  Expect({dir / "in.####.png", dir / "out.####.png", "--frames", "0-2"}, 1,
         "--frames starts at 0, outside the clip (frames 1 to 3)");
  Expect({dir / "none.%04d.png", dir / "out.%04d.png"}, 1, "no input frames match");
}

TEST_F(Refused, UnreadableFramesAndFramesOfDifferentSizes) {
  WriteClip(dir / "wide.%04d.png", 1, 2, SampleDepth::k8, 3);
  WriteClip(dir / "wide.%04d.png", 3, 1, SampleDepth::k8, 3, 90, 64);
  Expect({dir / "wide.%04d.png", dir / "out.%04d.png"}, 1,
         "'" + dir / "wide.0003.png" + "' is 90x64, but");
  std::ofstream(dir / "in.0002.png", std::ios::trunc) << "this is not a picture";
  Expect({dir / "in.%04d.png", dir / "out.%04d.png"}, 1, "cannot read '" + dir / "in.0002.png" + "'");
}

TEST_F(Refused, BackSequenceOfAnotherSizeOrRange) {
  WriteClip(dir / "small.%04d.png", 1, 3, SampleDepth::k8, 3, 48, 32);
  Expect({dir / "in.%04d.png", dir / "out.%04d.png", "--motion-from", dir / "small.%04d.png"}, 1,
         "back frame '" + dir / "small.0001.png" + "' is 48x32");
  WriteClip(dir / "short.%04d.png", 1, 2, SampleDepth::k8, 3);
  Expect({dir / "in.%04d.png", dir / "out.%04d.png", "--motion-from", dir / "short.%04d.png"}, 1,
         "back frame '" + dir / "short.0003.png" + "' is missing");
}

TEST_F(Refused, OutputsThatCannotBeWritten) {
  Expect({dir / "in.%04d.png", dir / "in.%04d.png", "--overwrite"}, 3,
         "output '" + dir / "in.0001.png" + "' is the input file");
  Expect({dir / "in.%04d.png", dir.path() + "/./in.####.png", "--overwrite"}, 3, "is the input file");
  std::ofstream(dir / "plainfile") << "x";
  Expect({dir / "in.%04d.png", dir / "plainfile/out.%04d.png"}, 3,
         "'" + dir / "plainfile" + "'");
  Expect({dir / "in.%04d.png", "/proc/flowblur-nowhere/out.%04d.png"}, 3,
         "cannot create output folder '/proc/flowblur-nowhere'");
  // The output folder could be made, the flow folder not: neither is left behind.
  Expect({dir / "in.%04d.png", dir / "new/deeper/out.%04d.png", "--write-flow",
          dir / "plainfile/flow"},
         3, "'" + dir / "plainfile" + "'");
}

TEST_F(Refused, ControlsOutsideTheirRangeAndCommandLinesThatCannotWork) {
  const std::string in = dir / "in.%04d.png", out = dir / "out.%04d.png";
  Expect({in, out, "--amount", "12"}, 2, "--amount 12 is outside the plug-in's range -2 to 10");
  Expect({in, out, "--amount", "nan"}, 2, "is not a number");
  Expect({in, out, "--amount", "0.5x"}, 2, "is not a number");
  Expect({in, out, "--threads", "0"}, 2, "--threads 0 is outside 1 to 127");
  Expect({in, out, "--threads", "128"}, 2, "--threads 128 is outside 1 to 127");
  Expect({in, out, "--quality", "ultra"}, 2, "--quality");
  Expect({in, out, "--out-depth", "12"}, 2, "--out-depth");
  Expect({in, out, "--frames", "5-2"}, 2, "the first frame is after the last");
  Expect({in, out, "--clip", "3-1"}, 2, "--clip '3-1': the first frame is after the last");
  Expect({in, out, "--overwrite", "--skip-existing"}, 2, "contradict each other");
  Expect({in, dir / "single.png"}, 2, "has no frame number");
  Expect({in}, 2, "INPUT and OUTPUT are needed");
  Expect({}, 2, "INPUT and OUTPUT are needed");
  Expect({dir / "in.%04d.%04d.png", out}, 2, "more than one frame-number token");
  Expect({in, out, "--write-flow-exr"}, 2, "needs --write-flow");
}

// Each command's help names its controls and what it reads and writes.
TEST(Help, EachCommandExplainsItself) {
  const std::pair<std::vector<std::string>, std::vector<const char*>> cases[] = {
      {{"--help"},
       {"--amount", "-2 to 10", "--quality", "--motion-from", "--threads", "32-bit float", "half",
        "(49)", "alpha", "--write-flow", "demo", "--colorspace", "linear", "half-float",
        "--codec", "ffv1", "h264", "--crf", "--fps", ".mp4"}},
      {{"retime", "--help"},
       {"--speed", "--fps-in", "--timemap", "--method", "--warp", "--shutter", "--write-flow",
        "--skip-existing", "--start"}},
      {{"deinterlace", "--help"}, {"--field-order", "tff", "edge5", "--rate"}},
  };
  for (const auto& [args, needles] : cases) {
    test::RunResult r = Flowblur(args);
    EXPECT_EQ(r.exitCode, 0);
    for (const char* needle : needles) EXPECT_NE(r.out.find(needle), std::string::npos) << needle;
  }
}

TEST(Demo, WritesClipResultFlowSheetAndMovieAndRunsAgainInItsOwnFolder) {
  test::TempDir dir;
  std::string demo = dir / "demo";
  for (int run = 0; run < 2; ++run) {
    std::vector<std::string> args = {"demo", demo, "--size", "192", "--length", "4", "-q"};
    if (run == 0) args.push_back("--movie");
    test::RunResult r = Flowblur(args);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("contact-sheet.png"), std::string::npos) << r.out;
  }
  for (int32_t f = 1; f <= 4; ++f) {
    const Frame in = Load(Numbered(demo + "/input/demo.%04d.png", f));
    EXPECT_EQ(in.info.width, 192);
    EXPECT_EQ(in.info.height, 108);
    EXPECT_NE(in.pixels, Load(Numbered(demo + "/output/demo.%04d.png", f)).pixels) << f;
    EXPECT_EQ(Load(Numbered(demo + "/flow/flow.%04d.png", f)).info.width, 192);
  }
  const Frame sheet = Load(demo + "/contact-sheet.png");
  EXPECT_EQ(sheet.info.width, 3 * 96 + 4 * 8);
  EXPECT_EQ(sheet.info.height, 4 * 54 + 5 * 8);
  MovieReader movie;
  std::string error;
  ASSERT_TRUE(movie.Open(demo + "/output/demo.mp4", &error)) << error;
  EXPECT_EQ(movie.Info().frames, 4);
  EXPECT_EQ(movie.Info().width, 192);
  // A folder the demo did not make is refused when it holds anything.
  const std::string other = dir / "other";
  mkdir(other.c_str(), 0755);
  std::ofstream(other + "/notes.txt") << "mine";
  test::ExpectRefused(other, {"demo", other, "--size", "192", "--length", "4"}, 3,
                      "already holds other files");
}

}  // namespace
}  // namespace flowblur
