// flowblur tool tests: the built `flowblur` command end to end on small generated sequences,
// and every refused run: its message, its exit code, and a folder left as it was.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "tools/ImageFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

constexpr int32_t kW = 96, kH = 64, kFrames = 4;

// The test clip: a still textured background and a textured 20x20 block moving 4 px a frame to
// the right along the top left; the lower right quadrant never moves.
float Texture(double x, double y, int c) {
  return static_cast<float>(0.5 + 0.22 * std::sin(x * 0.61 + c) * std::cos(y * 0.47 - c) +
                            0.18 * std::sin((x + 2.0 * y) * 0.23 + 1.3 * c));
}
float Sample(int32_t t, int32_t x, int32_t y, int c) {
  int32_t bx = 6 + 4 * t, by = 6;
  if (x >= bx && x < bx + 20 && y >= by && y < by + 20)
    return 0.15f + 0.7f * (((x - bx) / 4 + (y - by) / 4 + c) % 2);
  return Texture(x, y, c);
}
bool StillRegion(int32_t x, int32_t y) { return x >= 60 && y >= 40; }
bool MovingRegion(int32_t x, int32_t y) { return x >= 10 && x < 40 && y >= 8 && y < 24; }

// Writes frames first..first+count-1 of `pattern` (printf style) at `depth` with `channels`
// (alpha, when 4 or 2, is a gradient that differs from frame to frame), plus metadata.
void WriteSequence(const std::string& pattern, int32_t first, int32_t count, SampleDepth depth,
                   int32_t channels, int32_t width = kW, int32_t height = kH) {
  for (int32_t t = 0; t < count; ++t) {
    std::vector<float> pixels(static_cast<size_t>(width) * height * channels);
    for (int32_t y = 0; y < height; ++y)
      for (int32_t x = 0; x < width; ++x)
        for (int32_t c = 0; c < channels; ++c) {
          bool alpha = (channels == 4 && c == 3) || (channels == 2 && c == 1);
          float v = alpha ? static_cast<float>((x * 3 + y * 5 + t * 17) % 256) / 255.0f
                          : Sample(t, x, y, channels < 3 ? 0 : c);
          pixels[(static_cast<size_t>(y) * width + x) * channels + c] = v;
        }
    OIIO::ImageSpec imageSpec(width, height, channels, TypeFor(depth));
    if (channels == 2) {
      imageSpec.channelnames = {"Y", "A"};
      imageSpec.alpha_channel = 1;
    }
    imageSpec.attribute("oiio:UnassociatedAlpha", 1);
    imageSpec.attribute("PixelAspectRatio", 1.5f);
    uint32_t timecode[2] = {0x10203000u + static_cast<uint32_t>(t), 0};
    imageSpec.attribute("smpte:TimeCode", OIIO::TypeTimeCode, timecode);
    char path[512];
    std::snprintf(path, sizeof path, pattern.c_str(), first + t);
    std::string error;
    ASSERT_TRUE(WriteImageSafely(path, imageSpec, OIIO::TypeDesc::FLOAT, pixels.data(), false, &error))
        << error;
  }
}

std::string Frame(const std::string& pattern, int32_t frame) {
  char path[512];
  std::snprintf(path, sizeof path, pattern.c_str(), frame);
  return path;
}

// Samples of a file as stored: integers for integer depths, floats otherwise.
struct Stored {
  FrameInfo info;
  std::vector<double> samples;
  double At(int32_t x, int32_t y, int32_t c) const {
    return samples[(static_cast<size_t>(y) * info.width + x) * info.channels + c];
  }
};
Stored Read(const std::string& path) {
  flowblur::Frame f;
  std::string error;
  EXPECT_TRUE(ReadFrame(path, &f, &error)) << error;
  Stored s;
  s.info = f.info;
  double scale = f.info.depth == SampleDepth::k8 ? 255.0 : f.info.depth == SampleDepth::k16 ? 65535.0 : 0.0;
  for (float v : f.pixels) s.samples.push_back(scale > 0.0 ? std::lround(v * scale) : double{v});
  return s;
}

test::RunResult Flowblur(const std::vector<std::string>& args,
                         const test::RunOptions& options = test::RunOptions()) {
  return test::RunCommand(FLOWBLUR_EXE, args, options);
}

// ---- End to end

struct FormatCase {
  const char* name;
  const char* ext;
  SampleDepth depth;
  int32_t channels;
};
class EndToEnd : public ::testing::TestWithParam<FormatCase> {};

TEST_P(EndToEnd, BlursWhereThingsMoveKeepsTheRestAndEveryOtherChannel) {
  const FormatCase& c = GetParam();
  test::TempDir dir;
  std::string in = dir / (std::string("in.%04d.") + c.ext);
  std::string out = dir / (std::string("out/o.%04d.") + c.ext);
  WriteSequence(in, 1, kFrames, c.depth, c.channels);
  test::RunResult r = Flowblur({in, out, "--amount", "1", "--threads", "2"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  for (int32_t f = 1; f <= kFrames; ++f) {
    Stored a = Read(Frame(in, f)), b = Read(Frame(out, f));
    ASSERT_EQ(b.info.width, kW);
    ASSERT_EQ(b.info.height, kH);
    ASSERT_EQ(b.info.channels, c.channels);
    EXPECT_EQ(b.info.depth, c.depth);
    double moved = 0.0, still = 0.0, alpha = 0.0;
    for (int32_t y = 0; y < kH; ++y)
      for (int32_t x = 0; x < kW; ++x)
        for (int32_t ch = 0; ch < c.channels; ++ch) {
          double d = std::fabs(a.At(x, y, ch) - b.At(x, y, ch));
          if (ch == 3) alpha = std::max(alpha, d);
          else if (MovingRegion(x, y)) moved += d;
          else if (StillRegion(x, y)) still = std::max(still, d);
        }
    EXPECT_GT(moved, 0.0) << "frame " << f << ": no blur where the block moves";
    EXPECT_EQ(still, 0.0) << "frame " << f << ": the still corner changed";
    EXPECT_EQ(alpha, 0.0) << "frame " << f << ": alpha changed";
  }
  // Metadata of the input is kept where the format holds it.
  if (std::string(c.ext) == "exr") {
    Stored b = Read(Frame(out, 2));
    EXPECT_FLOAT_EQ(b.info.imageSpec.get_float_attribute("PixelAspectRatio"), 1.5f);
    const OIIO::ParamValue* tc = b.info.imageSpec.find_attribute("smpte:TimeCode");
    ASSERT_NE(tc, nullptr);
    EXPECT_EQ(static_cast<const uint32_t*>(tc->data())[0], 0x10203001u);
  }
}

TEST_P(EndToEnd, AmountZeroGivesTheInputBack) {
  const FormatCase& c = GetParam();
  test::TempDir dir;
  std::string in = dir / (std::string("in.####.") + c.ext);
  std::string out = dir / (std::string("out.####.") + c.ext);
  WriteSequence(dir / (std::string("in.%04d.") + c.ext), 0, 3, c.depth, c.channels);
  test::RunResult r = Flowblur({in, out, "--amount", "0", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");  // quiet
  for (int32_t f = 0; f < 3; ++f)
    EXPECT_EQ(Read(Frame(dir / (std::string("out.%04d.") + c.ext), f)).samples,
              Read(Frame(dir / (std::string("in.%04d.") + c.ext), f)).samples)
        << f;
}

INSTANTIATE_TEST_SUITE_P(Formats, EndToEnd,
                         ::testing::Values(FormatCase{"Png8Rgba", "png", SampleDepth::k8, 4},
                                           FormatCase{"Tiff16Rgb", "tif", SampleDepth::k16, 3},
                                           FormatCase{"ExrHalfRgba", "exr", SampleDepth::kHalf, 4}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(EndToEndMore, GreyFloatAndDepthChoices) {
  test::TempDir dir;
  // Grey with alpha stays grey with alpha, and the blur shows in it.
  WriteSequence(dir / "g.%04d.png", 1, 3, SampleDepth::k8, 2);
  test::RunResult r = Flowblur({dir / "g.%04d.png", dir / "go.%04d.png", "--amount", "1", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  Stored g = Read(dir / "go.0002.png");
  EXPECT_TRUE(g.info.grey);
  EXPECT_EQ(g.info.channels, 2);
  EXPECT_NE(g.samples, Read(dir / "g.0002.png").samples);
  // 32-bit float goes through half and comes back as float; --out-depth picks another depth.
  WriteSequence(dir / "f.%04d.exr", 1, 3, SampleDepth::kFloat, 3);
  r = Flowblur({dir / "f.%04d.exr", dir / "fo.%04d.exr", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(Read(dir / "fo.0001.exr").info.depth, SampleDepth::kFloat);
  r = Flowblur({dir / "f.%04d.exr", dir / "fo16.%04d.tif", "--out-depth", "16", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(Read(dir / "fo16.0003.tif").info.depth, SampleDepth::k16);
}

TEST(EndToEndMore, TheSameBytesForAnyNumberOfProcessors) {
  // Tall enough (160 rows) that 8 processors all get rows of their own.
  test::TempDir dir;
  WriteSequence(dir / "in.%04d.exr", 1, 3, SampleDepth::kHalf, 4, 96, 160);
  std::map<std::string, std::string> first;
  for (int threads : {1, 2, 3, 8}) {
    std::string out = dir / ("t" + std::to_string(threads));
    test::RunResult r = Flowblur({dir / "in.%04d.exr", out + "/o.%04d.exr", "--threads",
                                  std::to_string(threads), "--amount", "1.5", "-q"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    std::map<std::string, std::string> files = test::Snapshot(out);
    ASSERT_EQ(files.size(), 3u);
    if (threads == 1)
      first = files;
    else
      EXPECT_TRUE(files == first) << threads << " processors gave other bytes";
  }
}

TEST(EndToEndMore, OneFrameHasNoNeighbourAndComesBackUnchanged) {
  test::TempDir dir;
  WriteSequence(dir / "in.%04d.png", 3, 1, SampleDepth::k8, 4);
  test::RunResult r = Flowblur({dir / "in.0003.png", dir / "single.png", "--amount", "2", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(Read(dir / "single.png").samples, Read(dir / "in.0003.png").samples);
}

TEST(EndToEndMore, WritesFlowPicturesAndRawFlow) {
  test::TempDir dir;
  WriteSequence(dir / "in.%04d.png", 1, 3, SampleDepth::k8, 3);
  test::RunResult r = Flowblur({dir / "in.%04d.png", dir / "out.%04d.png", "--write-flow",
                                dir / "flow", "--write-flow-exr", "--quality", "draft", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  for (int32_t f = 1; f <= 3; ++f) {
    Stored picture = Read(Frame(dir / "flow/flow.%04d.png", f));
    EXPECT_EQ(picture.info.width, kW);
    EXPECT_EQ(picture.info.height, kH);
    EXPECT_EQ(picture.info.channels, 3);
    const std::string rawPath = Frame(dir / "flow/flow.%04d.exr", f);
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
  WriteSequence(dir / "front.%04d.png", 1, 3, SampleDepth::k8, 3);
  WriteSequence(dir / "back.%04d.tif", 1, 3, SampleDepth::k16, 3);
  test::RunResult r = Flowblur({dir / "front.%04d.png", dir / "out.%04d.png", "--motion-from",
                                dir / "back.%04d.tif", "-q", "--amount", "1"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(Read(dir / "out.0002.png").samples, Read(dir / "front.0002.png").samples);
}

TEST(EndToEndMore, OverwriteReplacesOnlyWhenAsked) {
  test::TempDir dir;
  WriteSequence(dir / "in.%04d.png", 1, 2, SampleDepth::k8, 3);
  std::ofstream(dir / "out.0002.png") << "mine";
  auto before = test::Snapshot(dir.path());
  test::RunResult r = Flowblur({dir / "in.%04d.png", dir / "out.%04d.png"});
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_NE(r.err.find("'" + dir / "out.0002.png" + "' exists; use --overwrite"), std::string::npos)
      << r.err;
  EXPECT_EQ(test::Snapshot(dir.path()), before);
  r = Flowblur({dir / "in.%04d.png", dir / "out.%04d.png", "--overwrite", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(Read(dir / "out.0002.png").info.width, kW);
}

TEST(EndToEndMore, AFullDiskStopsWithTheFileNamedAndNoPartialFile) {
  test::TempDir dir;
  WriteSequence(dir / "in.%04d.png", 1, 3, SampleDepth::k8, 4);
  auto before = test::Snapshot(dir.path());
  test::RunOptions options;
  options.fileSizeLimit = 1024;  // smaller than one output frame
  test::RunResult r = Flowblur({dir / "in.%04d.png", dir / "out/o.%04d.png"}, options);
  EXPECT_EQ(r.exitCode, 3) << r.err;
  EXPECT_NE(r.err.find("cannot write '" + dir / "out/o.0001.png" + "'"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("0 of 3 frames written"), std::string::npos) << r.err;
  auto after = test::Snapshot(dir.path());
  before["out/"] = "";  // the output folder was made before the first frame; it stays empty
  EXPECT_EQ(test::Names(after), test::Names(before));
}

void InterruptWhenFirstFrameIsWritten(pid_t child, void* context) {
  const std::string& first = *static_cast<std::string*>(context);
  for (int i = 0; i < 20000 && access(first.c_str(), F_OK) != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  kill(child, SIGINT);
}

TEST(EndToEndMore, CtrlCStopsAtAFrameBoundaryAndSaysWhatWasWritten) {
  test::TempDir dir;
  const int32_t frames = 40;
  WriteSequence(dir / "in.%04d.png", 1, frames, SampleDepth::k8, 3, 256, 160);
  std::string first = dir / "out.0001.png";
  test::RunOptions options;
  options.whileRunning = InterruptWhenFirstFrameIsWritten;
  options.context = &first;
  test::RunResult r = Flowblur({dir / "in.%04d.png", dir / "out.%04d.png", "--threads", "1"}, options);
  ASSERT_EQ(r.exitCode, 130) << r.err;
  EXPECT_NE(r.err.find("interrupted"), std::string::npos) << r.err;
  // Every output present is whole and the count matches the report; no partial file.
  int32_t written = 0;
  for (const auto& [name, content] : test::Snapshot(dir.path())) {
    EXPECT_TRUE(name.rfind("out.", 0) == 0 || name.rfind("in.", 0) == 0) << "left behind: " << name;
    if (name.rfind("out.", 0) == 0) {
      ++written;
      EXPECT_EQ(Read(dir / name).info.width, 256) << name;
    }
  }
  EXPECT_GT(written, 0);
  EXPECT_LT(written, frames);
  EXPECT_NE(r.err.find(std::to_string(written) + " of " + std::to_string(frames) + " frames written"),
            std::string::npos)
      << r.err;
}

// ---- Refused runs: one clear message, the exit code, and nothing changed.

class Refused : public ::testing::Test {
 protected:
  void SetUp() override { WriteSequence(dir / "in.%04d.png", 1, 3, SampleDepth::k8, 3); }
  // Runs, then checks the code, that the message holds `says`, and that the folder is as it was.
  void Expect(const std::vector<std::string>& args, int code, const std::string& says) {
    auto before = test::Snapshot(dir.path());
    test::RunResult r = Flowblur(args);
    EXPECT_EQ(r.exitCode, code) << r.err;
    EXPECT_NE(r.err.find(says), std::string::npos) << "message: " << r.err;
    EXPECT_EQ(test::Snapshot(dir.path()), before);
  }
  test::TempDir dir;
};

TEST_F(Refused, MissingFrames) {
  unlink((dir / "in.0002.png").c_str());
  Expect({dir / "in.%04d.png", dir / "out.%04d.png"}, 1,
         "'" + dir / "in.0002.png" + "' is missing");
  WriteSequence(dir / "in.%04d.png", 2, 1, SampleDepth::k8, 3);
  Expect({dir / "in.####.png", dir / "out.####.png", "--clip", "1-5"}, 1,
         "'" + dir / "in.0004.png" + "' is missing (the sequence runs from 1 to 5)");
  // --frames chooses frames within the clip: past its end is clamped, before it is refused.
  Expect({dir / "in.####.png", dir / "out.####.png", "--frames", "0-2"}, 1,
         "--frames starts at 0, outside the clip (frames 1 to 3)");
}

TEST_F(Refused, NoFramesAtAll) {
  Expect({dir / "none.%04d.png", dir / "out.%04d.png"}, 1, "no input frames match");
}

TEST_F(Refused, UnreadableFrame) {
  std::ofstream(dir / "in.0002.png", std::ios::trunc) << "this is not a picture";
  Expect({dir / "in.%04d.png", dir / "out.%04d.png"}, 1, "cannot read '" + dir / "in.0002.png" + "'");
}

TEST_F(Refused, FramesOfDifferentSizes) {
  unlink((dir / "in.0003.png").c_str());
  WriteSequence(dir / "in.%04d.png", 3, 1, SampleDepth::k8, 3, 90, 64);
  Expect({dir / "in.%04d.png", dir / "out.%04d.png"}, 1,
         "'" + dir / "in.0003.png" + "' is 90x64, but");
}

TEST_F(Refused, BackSequenceOfAnotherSizeOrRange) {
  WriteSequence(dir / "small.%04d.png", 1, 3, SampleDepth::k8, 3, 48, 32);
  Expect({dir / "in.%04d.png", dir / "out.%04d.png", "--motion-from", dir / "small.%04d.png"}, 1,
         "back frame '" + dir / "small.0001.png" + "' is 48x32");
  WriteSequence(dir / "short.%04d.png", 1, 2, SampleDepth::k8, 3);
  Expect({dir / "in.%04d.png", dir / "out.%04d.png", "--motion-from", dir / "short.%04d.png"}, 1,
         "back frame '" + dir / "short.0003.png" + "' is missing");
}

TEST_F(Refused, OutputThatNamesAnInput) {
  Expect({dir / "in.%04d.png", dir / "in.%04d.png", "--overwrite"}, 3,
         "output '" + dir / "in.0001.png" + "' is the input file");
  Expect({dir / "in.%04d.png", dir.path() + "/./in.####.png", "--overwrite"}, 3, "is the input file");
}

TEST_F(Refused, UnwritableOutputFolder) {
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

TEST_F(Refused, ControlsOutsideTheirRange) {
  const std::string in = dir / "in.%04d.png", out = dir / "out.%04d.png";
  Expect({in, out, "--amount", "12"}, 2, "--amount 12 is outside the plug-in's range -2 to 10");
  Expect({in, out, "--amount", "-2.5"}, 2, "outside the plug-in's range");
  Expect({in, out, "--amount", "nan"}, 2, "is not a number");
  Expect({in, out, "--amount", "0.5x"}, 2, "is not a number");
  Expect({in, out, "--threads", "0"}, 2, "--threads 0 is outside 1 to 127");
  Expect({in, out, "--threads", "128"}, 2, "--threads 128 is outside 1 to 127");
  Expect({in, out, "--quality", "ultra"}, 2, "--quality");
  Expect({in, out, "--out-depth", "12"}, 2, "--out-depth");
  Expect({in, out, "--frames", "5-2"}, 2, "the first frame is after the last");
  Expect({in, out, "--clip", "3-1"}, 2, "--clip '3-1': the first frame is after the last");
  Expect({in, out, "--overwrite", "--skip-existing"}, 2, "contradict each other");
}

TEST_F(Refused, CommandLinesThatCannotWork) {
  Expect({dir / "in.%04d.png", dir / "single.png"}, 2, "has no frame number");
  Expect({dir / "in.%04d.png"}, 2, "INPUT and OUTPUT are needed");
  Expect({}, 2, "INPUT and OUTPUT are needed");
  Expect({dir / "in.%04d.%04d.png", dir / "o.%04d.png"}, 2, "more than one frame-number token");
  Expect({dir / "in.%04d.png", dir / "o.%04d.png", "--write-flow-exr"}, 2, "needs --write-flow");
}

TEST(Help, TellsTheFormatsAndTheControls) {
  test::RunResult r = Flowblur({"--help"});
  EXPECT_EQ(r.exitCode, 0);
  for (const char* needle : {"--amount", "-2 to 10", "--quality", "--motion-from", "--threads",
                             "32-bit float", "half", "(49)", "alpha", "--write-flow", "demo"})
    EXPECT_NE(r.out.find(needle), std::string::npos) << needle;
}

}  // namespace
}  // namespace flowblur

namespace flowblur {
namespace {

TEST(Demo, WritesClipResultFlowAndSheetAndRunsAgainInItsOwnFolder) {
  test::TempDir dir;
  std::string demo = dir / "demo";
  for (int run = 0; run < 2; ++run) {
    test::RunResult r = Flowblur({"demo", demo, "--size", "192", "--length", "4", "-q"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("contact-sheet.png"), std::string::npos) << r.out;
  }
  for (int32_t f = 1; f <= 4; ++f) {
    Stored in = Read(Frame(demo + "/input/demo.%04d.png", f));
    Stored out = Read(Frame(demo + "/output/demo.%04d.png", f));
    EXPECT_EQ(in.info.width, 192);
    EXPECT_EQ(in.info.height, 108);
    EXPECT_NE(in.samples, out.samples) << "frame " << f << " not blurred";
    EXPECT_EQ(Read(Frame(demo + "/flow/flow.%04d.png", f)).info.width, 192);
  }
  Stored sheet = Read(demo + "/contact-sheet.png");
  EXPECT_EQ(sheet.info.width, 3 * 96 + 4 * 8);
  EXPECT_EQ(sheet.info.height, 4 * 54 + 5 * 8);
  // A folder the demo did not make is refused when it holds anything.
  std::string other = dir / "other";
  mkdir(other.c_str(), 0755);
  std::ofstream(other + "/notes.txt") << "mine";
  auto before = test::Snapshot(other);
  test::RunResult r = Flowblur({"demo", other, "--size", "192", "--length", "4"});
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_NE(r.err.find("already holds other files"), std::string::npos) << r.err;
  EXPECT_EQ(test::Snapshot(other), before);
}

}  // namespace
}  // namespace flowblur
