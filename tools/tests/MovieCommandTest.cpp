// flowblur tool tests: the built command with movies in and out, motion blur in linear light,
// and the movies and colour spaces it refuses.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>

#include "tools/ColourSpace.h"
#include "tools/ImageFiles.h"
#include "tools/MovieFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

constexpr int32_t kW = 80, kH = 48;

using test::Flowblur;
using test::Numbered;

// An 8-bit frame: a textured background and a block moving 4 px a frame; with `spot`, a dark
// background and a small white square moving 8 px a frame instead.
Frame Picture(int32_t t, int32_t channels = 3, bool spot = false) {
  Frame f;
  OIIO::ImageSpec imageSpec(kW, kH, channels, OIIO::TypeDesc::UINT8);
  if (channels == 4) imageSpec.alpha_channel = 3;
  imageSpec.attribute("oiio:ColorSpace", "sRGB");
  std::string error;
  EXPECT_TRUE(ClassifyFrame("made.png", imageSpec, &f.info, &error)) << error;
  f.pixels.resize(static_cast<size_t>(kW) * kH * channels);
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 0; x < kW; ++x)
      for (int32_t c = 0; c < channels; ++c) {
        double v;
        if (spot) {
          v = x >= 10 + 8 * t && x < 16 + 8 * t && y >= 20 && y < 26 ? 1.0 : 0.06;
        } else {
          v = 0.5 + 0.25 * std::sin(x * 0.21 + c) * std::cos(y * 0.17 - c);
          if (x >= 8 + 4 * t && x < 26 + 4 * t && y >= 8 && y < 26)
            v = 0.2 + 0.6 * (((x - 8 - 4 * t) / 3 + (y - 8) / 3 + c) % 2);
        }
        if (c == 3) v = ((x * 3 + y) % 200) / 255.0;
        f.pixels[(static_cast<size_t>(y) * kW + x) * channels + c] =
            static_cast<float>(std::round(v * 255.0) / 255.0);
      }
  return f;
}

void WritePngs(const std::string& pattern, int32_t count, int32_t channels = 3,
               bool spot = false) {
  for (int32_t t = 0; t < count; ++t) {
    Frame f = Picture(t, channels, spot);
    std::string error;
    ASSERT_TRUE(WriteImageSafely(Numbered(pattern, t + 1), f.info.imageSpec,
                                 OIIO::TypeDesc::FLOAT, f.pixels.data(), false, &error))
        << error;
  }
}

void WriteMovie(const std::string& path, int32_t count, MovieCodec codec) {
  MovieSettings s;
  s.codec = codec;
  s.width = kW;
  s.height = kH;
  s.rate = {30, 1};
  s.tags.transfer = 13;  // sRGB
  MovieWriter writer;
  std::string error;
  ASSERT_TRUE(writer.Open(path, s, false, &error)) << error;
  for (int32_t t = 0; t < count; ++t) ASSERT_TRUE(writer.Write(Picture(t), &error)) << error;
  ASSERT_TRUE(writer.Finish(&error)) << error;
}

std::vector<Frame> ReadMovie(const std::string& path, MovieInfo* info = nullptr) {
  MovieReader reader;
  std::string error;
  std::vector<Frame> frames;
  EXPECT_TRUE(reader.Open(path, &error)) << error;
  for (int64_t i = 0; i < reader.Info().frames; ++i) {
    frames.emplace_back();
    EXPECT_TRUE(reader.Read(i, &frames.back(), &error)) << error;
  }
  if (info) *info = reader.Info();
  return frames;
}

// 8-bit levels: what a lossless 8-bit movie must give back exactly.
std::vector<long> Levels(const Frame& f) {
  std::vector<long> levels;
  for (float v : f.pixels) levels.push_back(std::lround(v * 255.0f));
  return levels;
}

double Psnr(const Frame& a, const Frame& b) {
  double sum = 0.0;
  for (size_t i = 0; i < a.pixels.size(); ++i)
    sum += (a.pixels[i] - b.pixels[i]) * static_cast<double>(a.pixels[i] - b.pixels[i]);
  return sum == 0.0 ? 99.0 : 10.0 * std::log10(a.pixels.size() / sum);
}

// ---- Movies in and out

TEST(MovieRuns, AMovieInGivesASequenceAndMoviesThatDecodeToIt) {
  test::TempDir dir;
  const std::string in = dir / "in.mkv";
  WriteMovie(in, 5, MovieCodec::kFfv1);
  test::RunResult r = Flowblur({in, dir / "seq/o.%04d.png", "--amount", "1", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // Numbered from 1, one file a frame of the movie, and blurred.
  auto files = test::Names(test::Snapshot(dir / "seq"));
  EXPECT_EQ(files, (std::vector<std::string>{"o.0001.png", "o.0002.png", "o.0003.png",
                                             "o.0004.png", "o.0005.png"}));
  std::vector<Frame> sequence;
  for (int32_t f = 1; f <= 5; ++f) sequence.push_back(test::Load(Numbered(dir / "seq/o.%04d.png", f)));
  EXPECT_NE(sequence[2].pixels, Picture(2).pixels);

  // Lossless: every decoded frame is the sequence's frame exactly, at the input's rate.
  r = Flowblur({in, dir / "out.mkv", "--amount", "1", "--codec", "ffv1", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  MovieInfo info;
  std::vector<Frame> lossless = ReadMovie(dir / "out.mkv", &info);
  ASSERT_EQ(lossless.size(), 5u);
  EXPECT_EQ(info.rate.Value(), 30.0);
  EXPECT_EQ(info.pixelFormat, "bgr0");
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(Levels(lossless[i]), Levels(sequence[i])) << i;

  // Lossy h264 (the default codec): close to it. 4:2:0 alone limits this small picture of
  // saturated colour edges to about 27 dB (FFmpeg's own conversion gives the same).
  r = Flowblur({in, dir / "out.mp4", "--amount", "1", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::vector<Frame> lossy = ReadMovie(dir / "out.mp4", &info);
  ASSERT_EQ(lossy.size(), 5u);
  EXPECT_EQ(info.codec, "h264");
  for (size_t i = 0; i < 5; ++i) EXPECT_GT(Psnr(lossy[i], sequence[i]), 24.0) << i;

  // --frames counts from the movie's first frame, and a chunk has the whole run's bytes.
  r = Flowblur({in, dir / "chunk/o.%04d.png", "--amount", "1", "--frames", "2-3", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  auto chunk = test::Snapshot(dir / "chunk"), whole = test::Snapshot(dir / "seq");
  ASSERT_EQ(chunk.size(), 2u);
  EXPECT_EQ(chunk["o.0002.png"], whole["o.0002.png"]);
  EXPECT_EQ(chunk["o.0003.png"], whole["o.0003.png"]);

  // A sequence in gives a movie at the rate asked.
  r = Flowblur({dir / "seq/o.%04d.png", dir / "again.avi", "--codec", "ffv1", "--fps", "25",
                "--amount", "0", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::vector<Frame> again = ReadMovie(dir / "again.avi", &info);
  ASSERT_EQ(again.size(), 5u);
  EXPECT_EQ(info.rate.Value(), 25.0);
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(Levels(again[i]), Levels(sequence[i])) << i;
}

TEST(MovieRuns, RetimeReadsAndWritesMoviesAtTheOutputRate) {
  test::TempDir dir;
  WriteMovie(dir / "in.mkv", 4, MovieCodec::kFfv1);
  test::RunResult r = Flowblur({"retime", dir / "in.mkv", dir / "out.mkv", "--fps-in", "30",
                                "--fps-out", "60", "--codec", "ffv1", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  MovieInfo info;
  std::vector<Frame> movie = ReadMovie(dir / "out.mkv", &info);
  EXPECT_EQ(info.rate.Value(), 60.0);
  ASSERT_EQ(movie.size(), 7u);  // every source frame and one made between each pair
  // Source frames come through as they were.
  EXPECT_EQ(Levels(movie[2]), Levels(Picture(1)));
  r = Flowblur({"retime", dir / "in.mkv", dir / "slow.%04d.png", "--speed", "0.5", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(test::Snapshot(dir.path()).count("slow.0007.png"), 1u);
}

// ---- Linear light

TEST(LinearLightRuns, ABrightMovingSpotKeepsMoreOfItsLightThanInStoredValues) {
  test::TempDir dir;
  WritePngs(dir / "in.%04d.png", 5, 3, true);
  for (const char* space : {"none", "auto"}) {
    test::RunResult r = Flowblur({dir / "in.%04d.png", dir / (std::string(space) + ".%04d.png"),
                                  "--amount", "1", "--colorspace", space, "-q"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
  }
  // The light of the streak, decoded from sRGB: the frame's light above the background's.
  LinearLight light;
  std::string error;
  ASSERT_TRUE(light.Create("sRGB", &error)) << error;
  auto streakLight = [&](const std::string& path) {
    Frame f = test::Load(path);
    light.ToLinear(&f);
    Frame background = f;
    for (float& v : background.pixels) v = 0.06f;
    light.ToLinear(&background);
    double sum = 0.0;
    for (size_t i = 0; i < f.pixels.size(); ++i) sum += f.pixels[i] - background.pixels[i];
    return sum;
  };
  const double source = streakLight(dir / "in.0003.png");
  const double none = streakLight(dir / "none.0003.png");
  const double linear = streakLight(dir / "auto.0003.png");
  // The spread streak: in linear light it keeps about the spot's light; averaging encoded
  // values loses a large part of it.
  EXPECT_GT(linear, 1.2 * none) << "none " << none << " auto " << linear;
  EXPECT_NEAR(linear, source, 0.15 * source);
  EXPECT_NE(test::Snapshot(dir.path())["auto.0003.png"], test::Snapshot(dir.path())["none.0003.png"]);
}

TEST(LinearLightRuns, ANamedSpaceOfTheUsersConfiguration) {
  test::TempDir dir;
  WritePngs(dir / "in.%04d.png", 3);
  // A configuration with one encoded space, "square": linear = value squared.
  std::ofstream(dir / "config.ocio") << "ocio_profile_version: 1\n"
                                        "roles:\n  default: linear\n  scene_linear: linear\n"
                                        "displays:\n  sRGB:\n    - !<View> {name: Raw, colorspace: linear}\n"
                                        "colorspaces:\n"
                                        "  - !<ColorSpace>\n    name: linear\n"
                                        "  - !<ColorSpace>\n    name: square\n"
                                        "    to_reference: !<ExponentTransform> {value: [2, 2, 2, 1]}\n";
  // Unknown without the configuration, known with it.
  test::RunResult unknown = Flowblur({dir / "in.%04d.png", dir / "x.%04d.png", "--colorspace",
                                      "square", "-q"});
  setenv("OCIO", (dir / "config.ocio").c_str(), 1);
  test::RunResult known = Flowblur({dir / "in.%04d.png", dir / "sq.%04d.png", "--colorspace",
                                    "square", "--amount", "1", "-q"});
  unsetenv("OCIO");
  EXPECT_EQ(unknown.exitCode, 2) << unknown.err;
  EXPECT_NE(unknown.err.find("unknown colour space 'square'"), std::string::npos) << unknown.err;
  EXPECT_EQ(test::Snapshot(dir.path()).count("x.0001.png"), 0u);
  ASSERT_EQ(known.exitCode, 0) << known.err;
  // Blurred in the configuration's linear light: not what sRGB's gives.
  test::RunResult srgb = Flowblur({dir / "in.%04d.png", dir / "s.%04d.png", "--colorspace",
                                   "srgb", "--amount", "1", "-q"});
  ASSERT_EQ(srgb.exitCode, 0) << srgb.err;
  EXPECT_NE(Levels(test::Load(dir / "sq.0002.png")), Levels(test::Load(dir / "s.0002.png")));
}

// ---- Refused: a message naming the file and the reason, the exit code, nothing written.

class MovieRefused : public ::testing::Test {
 protected:
  void Expect(const std::vector<std::string>& args, int code, const std::string& says) {
    test::ExpectRefused(dir.path(), args, code, says);
  }
  test::TempDir dir;
};

TEST_F(MovieRefused, MoviesThatCannotBeRead) {
  WriteMovie(dir / "whole.mp4", 4, MovieCodec::kH264);
  const std::string bytes = test::Snapshot(dir.path())["whole.mp4"];
  std::ofstream(dir / "cut.mp4", std::ios::binary) << bytes.substr(0, bytes.size() / 2);
  Expect({dir / "cut.mp4", dir / "o.%04d.png"}, 1, "cannot read movie '" + dir / "cut.mp4" + "'");
  std::ofstream(dir / "notes.mov") << "not a movie";
  Expect({dir / "notes.mov", dir / "o.mkv"}, 1, "'" + dir / "notes.mov" + "'");
  Expect({dir / "none.mkv", dir / "o.mkv"}, 1, "'" + dir / "none.mkv" + "' does not exist");
  Expect({dir / "whole.mp4", dir / "o.%04d.png", "--frames", "9"}, 1, "outside the clip (frames 1 to 4)");
}

TEST_F(MovieRefused, MoviesThatCannotHoldWhatIsAsked) {
  WritePngs(dir / "rgba.%04d.png", 3, 4);
  WritePngs(dir / "rgb.%04d.png", 3, 3);
  Expect({dir / "rgba.%04d.png", dir / "o.mp4"}, 3, "cannot hold alpha");
  Expect({dir / "rgb.%04d.png", dir / "o.mp4", "--codec", "ffv1"}, 3, "cannot hold ffv1");
  Expect({dir / "rgb.%04d.png", dir / "o.mkv", "--out-depth", "half"}, 3, "cannot hold half");
  Expect({dir / "rgb.%04d.png", dir / "o.mkv", "--codec", "ffv1", "--crf", "20"}, 2,
         "--crf applies to h264 only");
  Expect({dir / "rgb.%04d.png", dir / "o.mkv", "--codec", "vp9"}, 2, "--codec");
  Expect({dir / "rgb.%04d.png", dir / "o.%04d.png", "--colorspace", "nonsense"}, 2,
         "unknown colour space 'nonsense'");
  Expect({dir / "rgb.%04d.png", dir / "o.mkv", "--skip-existing"}, 2, "--skip-existing");
  // With alpha, the lossless codec takes it and gives it back.
  test::RunResult r = Flowblur({dir / "rgba.%04d.png", dir / "a.mkv", "--codec", "ffv1", "-q"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::vector<Frame> movie = ReadMovie(dir / "a.mkv");
  ASSERT_EQ(movie.size(), 3u);
  const Frame in = test::Load(dir / "rgba.0002.png");
  const std::vector<long> got = Levels(movie[1]), want = Levels(in);
  for (size_t i = 3; i < want.size(); i += 4) ASSERT_EQ(got[i], want[i]) << i;
}

}  // namespace
}  // namespace flowblur
