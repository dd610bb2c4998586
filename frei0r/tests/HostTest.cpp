// flowblur frei0r tests in real hosts: ffmpeg and melt load the built flowblur.so through
// FREI0R_PATH and filter a moving-square clip; raw RGBA in and out, so "unchanged" is exact.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "frei0r/tests/MovingSquare.h"

namespace {

using frei0rtest::Clip;
using Frames = std::vector<std::vector<uint8_t>>;

constexpr int32_t kFrames = 8;
// Rows this far above and below the square are background the motion never reaches (the
// flow is measured at a half or a quarter of the size, and smoothed).
constexpr int32_t kBackgroundMargin = 28;
// Largest change allowed there. The path is lossless and the background still, but the flow,
// measured at a half or a quarter of the size and smoothed, leaves a level or two there at
// some widths (322 pixels).
constexpr int32_t kBackgroundTolerance = 2;
// Mean brightening of the background beside the square's moving edges at amount 1 (the
// square is about 130 levels brighter; about 25 is seen), and the most allowed beside its
// still edges (about 0.2 is seen).
constexpr double kSmeared = 10.0;
constexpr double kNotSmeared = 2.0;
constexpr double kNotSmearedPartial = 6.0;

bool Have(const char* tool) {
  return std::system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()) == 0;
}

class HostTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/flowblur-frei0r-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
  }
  void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }

  // Writes the clip as raw RGBA frames; returns the frames.
  Frames WriteClip(const Clip& clip, const std::string& name) {
    Frames frames;
    std::ofstream out(dir + "/" + name, std::ios::binary);
    for (int32_t f = 0; f < kFrames; ++f) {
      frames.push_back(frei0rtest::Frame(clip, f));
      out.write(reinterpret_cast<const char*>(frames.back().data()),
                static_cast<std::streamsize>(frames.back().size()));
    }
    return frames;
  }

  Frames ReadFrames(const Clip& clip, const std::string& name) {
    std::ifstream in(dir + "/" + name, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    const size_t frameBytes = static_cast<size_t>(clip.width) * clip.height * 4;
    Frames frames;
    for (size_t at = 0; at + frameBytes <= bytes.size(); at += frameBytes)
      frames.emplace_back(bytes.begin() + at, bytes.begin() + at + frameBytes);
    EXPECT_EQ(bytes.size() % frameBytes, 0u) << "a partial frame in " << name;
    return frames;
  }

  // Runs a command in the test folder with the built plug-in first on FREI0R_PATH.
  int Shell(const std::string& command) {
    const std::string line = "cd '" + dir + "' && FREI0R_PATH='" FLOWBLUR_FREI0R_DIR "' " +
                             command + " > host.log 2>&1";
    const int status = std::system(line.c_str());
    if (status != 0) {
      std::ifstream log(dir + "/host.log");
      std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
      ADD_FAILURE() << line << "\n" << text;
    }
    return status;
  }

  std::string RawInput(const Clip& clip) const {
    return "-f rawvideo -pix_fmt rgba -s " + std::to_string(clip.width) + "x" +
           std::to_string(clip.height) + " -r 25 -i in.rgba";
  }

  // ffmpeg with one frei0r filter; params as in -vf frei0r=flowblur:PARAMS.
  Frames Ffmpeg(const Clip& clip, const std::string& params) {
    Shell("ffmpeg -nostdin -v error -y " + RawInput(clip) + " -vf 'frei0r=flowblur:" + params +
          "' -f rawvideo -pix_fmt rgba out.rgba");
    return ReadFrames(clip, "out.rgba");
  }

  // melt, from an uncompressed RGBA file, to raw RGBA; `consumer` adds consumer properties.
  // The clip's own profile is given: left to guess it, melt now and then hung before its
  // first frame. Even so it sometimes ended at once without writing a frame (seen with this
  // plug-in only, about one run in twenty; the cause is not known): such a run is repeated
  // once.
  Frames Melt(const Clip& clip, const std::string& filter, const std::string& consumer) {
    Shell("ffmpeg -nostdin -v error -y " + RawInput(clip) + " -c:v rawvideo -pix_fmt rgba in.avi");
    const std::string w = std::to_string(clip.width), h = std::to_string(clip.height);
    std::ofstream(dir + "/profile") << "description=test\nwidth=" + w + "\nheight=" + h +
                                           "\ndisplay_aspect_num=" + w + "\ndisplay_aspect_den=" +
                                           h + "\nprogressive=1\nsample_aspect_num=1\n"
                                           "sample_aspect_den=1\nframe_rate_num=25\n"
                                           "frame_rate_den=1\ncolorspace=601\n";
    const std::string command = "timeout 120 melt -silent -profile '" + dir +
                                "/profile' in.avi -filter frei0r.flowblur " + filter +
                                " -consumer avformat:out.rgba f=rawvideo vcodec=rawvideo "
                                "pix_fmt=rgba mlt_image_format=rgba an=1 " +
                                consumer + " < /dev/null";
    for (int attempt = 0; attempt < 2; ++attempt) {
      std::remove((dir + "/out.rgba").c_str());
      Shell(command);
      Frames frames = ReadFrames(clip, "out.rgba");
      if (!frames.empty()) return frames;
    }
    return {};
  }

  std::string dir;
};

// What every host must show: the input's frame count and size, the first frame unchanged,
// the still background unchanged, and the square smeared along its motion (its left and
// right edges) but not across it (its top and bottom edges). With `partial`, for a host that
// deals frames to several instances: each instance passes its first frame through and
// blurs along the motion between the frames it saw, so frames may come back unchanged and
// the smear's length is not known; it must still never go across the motion, and some
// frames must be blurred.
void ExpectBlurredAlongTheMotion(const Clip& clip, const Frames& in, const Frames& out,
                                 bool partial = false) {
  ASSERT_EQ(out.size(), in.size());
  EXPECT_TRUE(out[0] == in[0]) << "the first frame has no neighbour";
  const int32_t top = clip.Top(), bottom = clip.Top() + clip.Side() - 1;
  size_t blurred = 0;
  for (size_t f = 0; f < out.size(); ++f) {
    SCOPED_TRACE("frame " + std::to_string(f));
    auto diff = [&](int32_t x0, int32_t x1, int32_t y0, int32_t y1, int32_t channels = 3) {
      return frei0rtest::Compare(out[f], in[f], clip, x0, x1, y0, y1, channels);
    };
    EXPECT_LE(diff(0, clip.width, 0, top - kBackgroundMargin, 4).largest, kBackgroundTolerance);
    EXPECT_LE(diff(0, clip.width, bottom + kBackgroundMargin, clip.height, 4).largest,
              kBackgroundTolerance);
    // Alpha is carried through everywhere.
    for (size_t i = 3; i < in[f].size(); i += 4) ASSERT_EQ(out[f][i], in[f][i]);
    if (f == 0 || (partial && out[f] == in[f])) continue;
    ++blurred;
    const int32_t left = clip.Left(static_cast<int32_t>(f)), right = left + clip.Side() - 1;
    // The bright square smeared into the dark background beside its left and right edges;
    // the background just above and below it keeps its brightness.
    const int32_t rows0 = top + 6, rows1 = bottom - 6, cols0 = left + 8, cols1 = right - 8;
    if (!partial) {
      EXPECT_GT(diff(left - 4, left - 1, rows0, rows1).mean, kSmeared);
      EXPECT_GT(diff(right + 1, right + 4, rows0, rows1).mean, kSmeared);
    }
    // A flow over two or three frames is coarser: a little more leaks there.
    const double across = partial ? kNotSmearedPartial : kNotSmeared;
    EXPECT_LT(std::abs(diff(cols0, cols1, top - 3, top - 1).mean), across);
    EXPECT_LT(std::abs(diff(cols0, cols1, bottom + 1, bottom + 3).mean), across);
  }
  EXPECT_GE(blurred, partial ? size_t{2} : out.size() - 1) << "frames blurred";
}

// ffmpeg at two widths, then melt, serially and rendering in parallel, on the second.
TEST_F(HostTest, FfmpegAndMeltBlurAlongTheMotionAndSendTheAmountAsWritten) {
  if (!Have("ffmpeg")) GTEST_SKIP() << "ffmpeg is not installed (scripts/deps.sh installs it)";
  // A value above 1 is limited to amount 10, not refused: the same as 1 exactly.
  const Clip small{96, 72};
  WriteClip(small, "in.rgba");
  EXPECT_TRUE(Ffmpeg(small, "3.0|n") == Ffmpeg(small, "1.0|n"));
  // 322 pixels: rows ffmpeg re-aligns, whose frames it stamps all alike. 192 comes last:
  // melt below takes its input and ffmpeg's result.
  Frames in, blurred;
  const Clip clip{192, 176};
  for (int32_t width : {322, 192}) {
    SCOPED_TRACE("width " + std::to_string(width));
    const Clip c{width, 176};
    in = WriteClip(c, "in.rgba");
    // ffmpeg itself damages the bottom rows of the first frame of such a width, with any
    // plug-in: compare with what it delivers, our output at amount 0 (the input unchanged).
    // 0.1667 is amount 0: the input comes back unchanged.
    const Frames unchanged = Ffmpeg(c, "0.1667|n");
    if (width % 8 != 0) in = unchanged;
    EXPECT_TRUE(unchanged == in);
    blurred = Ffmpeg(c, "0.25|n");
    ExpectBlurredAlongTheMotion(c, in, blurred);
    ExpectBlurredAlongTheMotion(c, in, Ffmpeg(c, "0.25|y"));
  }
  if (!Have("melt")) GTEST_SKIP() << "melt is not installed (scripts/deps.sh installs it)";
  // melt's serial render is ffmpeg's: both send frames in order, in seconds or milliseconds.
  EXPECT_TRUE(Melt(clip, "0=0.25", "real_time=-1") == blurred);
  // melt's parallel rendering: two instances on two threads at once, each seeing some of
  // the frames.
  ExpectBlurredAlongTheMotion(clip, in, Melt(clip, "0=0.25", "real_time=-2"), true);
  // melt sends the amount as written, too.
  EXPECT_TRUE(Melt(clip, "0=0.1667", "real_time=-1") == in);
}

}  // namespace
