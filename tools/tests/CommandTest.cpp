// flowblur tool tests: the built `flowblur` command end to end on small generated sequences,
// its help and its demo (refused runs are in RefusalTest).
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

constexpr int32_t kW = 96, kH = 64, kFrames = 7;

// ---- End to end

using test::FormatCase;
class EndToEnd : public ::testing::TestWithParam<FormatCase> {};

TEST_P(EndToEnd, BlursWhereThingsMoveKeepsTheRestAndAmountZeroGivesTheInputBack) {
  const FormatCase& c = GetParam();
  const std::string e = c.ext;
  test::TempDir dir;
  const std::string in = dir / ("in.%04d." + e), out = dir / ("out/o.%04d." + e);
  WriteClip(in, 1, kFrames, c.depth, c.channels);
  // In turn on one thread, then the same bytes for any number of processors and I/O threads
  // (flow pictures included; not the raw flow, whose writer stamps the time into the file).
  auto run = [&](const std::string& name, const char* threads, const char* io) {
    return test::Succeeds({in, dir / (name + "/o.%04d." + e), "--amount", "1", "--threads",
                           threads, "--io-threads", io, "--write-flow", dir / (name + "/flow")});
  };
  ASSERT_TRUE(run("out", "1", "0"));
  for (const auto& [threads, io] : {std::pair<const char*, const char*>{"2", "1"}, {"3", "3"},
                                    {"8", "1"}}) {
    ASSERT_TRUE(run(std::string("t") + threads, threads, io));
    EXPECT_TRUE(test::Snapshot(dir / (std::string("t") + threads)) == test::Snapshot(dir / "out"))
        << threads << " threads";
  }
  // Float frames reach the plug-in as halves: what follows holds exactly for the others.
  if (c.depth == SampleDepth::kFloat) return;
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
  if (e == "exr") {
    const Frame b = Load(Numbered(out, 2));
    EXPECT_FLOAT_EQ(b.info.imageSpec.get_float_attribute("PixelAspectRatio"), 1.5f);
    const OIIO::ParamValue* tc = b.info.imageSpec.find_attribute("smpte:TimeCode");
    ASSERT_NE(tc, nullptr);
    EXPECT_EQ(static_cast<const uint32_t*>(tc->data())[0], 0x10203001u);
  }
  // Amount 0, quietly, with the other spelling of the pattern: the input back.
  const test::RunResult r =
      Flowblur({dir / ("in.####." + e), dir / ("z.####." + e), "--amount", "0", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");
  for (int32_t f = 1; f <= kFrames; ++f)
    EXPECT_EQ(Load(Numbered(dir / ("z.%04d." + e), f)).pixels, Load(Numbered(in, f)).pixels) << f;
}

INSTANTIATE_TEST_SUITE_P(Formats, EndToEnd,
                         ::testing::Values(FormatCase{"Png8Rgba", "png", SampleDepth::k8, 4},
                                           FormatCase{"Png8GreyAlpha", "png", SampleDepth::k8, 2},
                                           FormatCase{"Tiff16Rgb", "tif", SampleDepth::k16, 3},
                                           FormatCase{"ExrHalfRgba", "exr", SampleDepth::kHalf, 4},
                                           FormatCase{"ExrFloatGrey", "exr", SampleDepth::kFloat, 1}),
                         test::FormatName);

TEST(EndToEndMore, OneFrameHasNoNeighbourAndComesBackUnchanged) {
  test::TempDir dir;
  WriteClip(dir / "in.%04d.png", 3, 1, SampleDepth::k8, 4);
  ASSERT_TRUE(test::Succeeds({dir / "in.0003.png", dir / "single.png", "--amount", "2", "-q"}));
  EXPECT_EQ(Load(dir / "single.png").pixels, Load(dir / "in.0003.png").pixels);
}

// Flow pictures and raw flow at the estimator's size; --overwrite replaces a file the user made,
// --out-depth sets the depth written.
TEST(EndToEndMore, WritesFlowOverwritesAndTakesTheDepthAsked) {
  test::TempDir dir;
  WriteClip(dir / "in.%04d.png", 1, 3, SampleDepth::k8, 3);
  std::ofstream(dir / "out.0002.png") << "mine";
  ASSERT_TRUE(test::Succeeds({dir / "in.%04d.png", dir / "out.%04d.png", "--write-flow",
                              dir / "flow", "--write-flow-exr", "--quality", "draft",
                              "--overwrite", "--out-depth", "16", "-q"}));
  EXPECT_EQ(Load(dir / "out.0002.png").info.depth, SampleDepth::k16);
  for (int32_t f = 1; f <= 3; ++f) {
    EXPECT_EQ(Load(Numbered(dir / "flow/flow.%04d.png", f)).info.channels, 3);
    const std::string rawPath = Numbered(dir / "flow/flow.%04d.exr", f);
    auto raw = OIIO::ImageInput::create(rawPath);
    OIIO::ImageSpec header;
    ASSERT_TRUE(raw && raw->open(rawPath, header)) << OIIO::geterror();
    EXPECT_EQ(header.nchannels, 2);
    EXPECT_EQ(header.format, OIIO::TypeDesc::FLOAT);
    EXPECT_EQ(header.width, kW / 4);  // draft: the estimator works at a quarter
    EXPECT_EQ(header.get_int_attribute("flowblur:firstFrame"), f == 1 ? 2 : f);
  }
}

// Outputs are compressed as asked, or by the format's default, in both commands; amount 0
// (and speed 1) gives the input back, so no choice may lose a bit.
TEST(EndToEndMore, CompressionIsTheChoiceOrTheDefaultAndLosesNothing) {
  test::TempDir dir;
  WriteClip(dir / "in.%04d.exr", 1, 2, SampleDepth::kHalf, 4);
  WriteClip(dir / "in.%04d.tif", 1, 2, SampleDepth::k16, 3);
  WriteClip(dir / "in.%04d.png", 1, 2, SampleDepth::k8, 3);
  struct Case {
    const char* ext;
    const char* choice;
    const char* written;  // what the file says, "" for PNG, which does not say
    bool retime;
  };
  for (const Case& c : {Case{"exr", "", "piz", false}, Case{"exr", "zip", "zip", true},
                        Case{"tif", "", "lzw", true}, Case{"tif", "packbits", "packbits", false},
                        Case{"png", "", "", false}, Case{"png", "0", "", false}}) {
    const std::string in = dir / (std::string("in.%04d.") + c.ext);
    const std::string out = dir / (std::string(c.ext) + c.choice + "/o.%04d." + c.ext);
    std::vector<std::string> args = {in, out, "-q", "--amount", "0"};
    if (c.retime) args = {"retime", in, out, "-q", "--speed", "1"};
    if (*c.choice) args.insert(args.end(), {"--compression", c.choice});
    ASSERT_TRUE(test::Succeeds(args));
    const Frame f = Load(Numbered(out, 2));
    if (*c.written) {
      EXPECT_EQ(f.info.imageSpec.get_string_attribute("compression"), c.written);
    }
    EXPECT_EQ(f.pixels, Load(Numbered(in, 2)).pixels) << c.ext << " " << c.choice;
  }
  // PNG level 0 stores the rows as they are: larger than the default level 1. JPEG loses
  // detail by design: quality 30 makes a smaller file than the default 95.
  EXPECT_GT(test::ReadBytes(Numbered(dir / "png0/o.%04d.png", 2)).size(),
            test::ReadBytes(Numbered(dir / "png/o.%04d.png", 2)).size());
  ASSERT_TRUE(test::Succeeds({dir / "in.0001.png", dir / "q95.jpg", "-q"}));
  ASSERT_TRUE(test::Succeeds({dir / "in.0001.png", dir / "q30.jpg", "-q", "--compression", "30"}));
  EXPECT_LT(test::ReadBytes(dir / "q30.jpg").size(), test::ReadBytes(dir / "q95.jpg").size());
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
}

}  // namespace
}  // namespace flowblur
