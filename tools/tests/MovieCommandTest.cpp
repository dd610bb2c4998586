// flowblur tool tests: the built command with movies in and out, and motion blur in linear
// light (the movies and colour spaces it refuses are in RefusalTest).
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

using test::Load;
using test::Numbered;
using test::Succeeds;

// The test clip's first `count` frames as src.NNNN.png and as a lossless movie tagged sRGB.
void WriteMovie(const test::TempDir& dir, const std::string& path, int32_t count) {
  test::WriteClip(dir / "src.%04d.png", 1, count, SampleDepth::k8, 3);
  MovieSettings s{MovieCodec::kFfv1, 18, {30, 1}, 96, 64, 3, SampleDepth::k8, "", {}};
  s.tags.transfer = 13;  // sRGB
  MovieWriter writer;
  std::string error;
  ASSERT_TRUE(writer.Open(path, s, false, &error)) << error;
  for (int32_t t = 1; t <= count; ++t)
    ASSERT_TRUE(writer.Write(Load(Numbered(dir / "src.%04d.png", t)), &error)) << error;
  ASSERT_TRUE(writer.Finish(&error)) << error;
}

// 8-bit levels: what a lossless 8-bit movie must give back exactly.
std::vector<long> Levels(const Frame& f) {
  std::vector<long> levels;
  for (float v : f.pixels) levels.push_back(std::lround(v * 255.0f));
  return levels;
}

// A movie's frames, as levels.
std::vector<std::vector<long>> ReadLevels(const std::string& path, MovieInfo* info) {
  MovieReader reader;
  std::string error;
  std::vector<std::vector<long>> frames;
  EXPECT_TRUE(reader.Open(path, &error)) << error;
  for (int64_t i = 0; i < reader.Info().frames; ++i) {
    Frame f;
    EXPECT_TRUE(reader.Read(i, &f, &error)) << error;
    frames.push_back(Levels(f));
  }
  *info = reader.Info();
  return frames;
}

TEST(MovieRuns, AMovieInGivesASequenceAndMoviesThatDecodeToIt) {
  test::TempDir dir;
  const std::string in = dir / "in.mkv";
  WriteMovie(dir, in, 5);
  ASSERT_TRUE(Succeeds({in, dir / "seq/o.%04d.png", "--amount", "1", "-q"}));
  // Numbered from 1, one file a frame of the movie, and blurred.
  EXPECT_EQ(test::Names(test::Snapshot(dir / "seq")),
            (std::vector<std::string>{"o.0001.png", "o.0002.png", "o.0003.png", "o.0004.png",
                                      "o.0005.png"}));
  std::vector<std::vector<long>> sequence;
  for (int32_t f = 1; f <= 5; ++f)
    sequence.push_back(Levels(Load(Numbered(dir / "seq/o.%04d.png", f))));
  EXPECT_NE(sequence[2], Levels(Load(dir / "src.0003.png")));
  // Lossless: every decoded frame is the sequence's frame exactly, at the input's rate.
  ASSERT_TRUE(Succeeds({in, dir / "out.mkv", "--amount", "1", "--codec", "ffv1", "-q"}));
  MovieInfo info;
  EXPECT_EQ(ReadLevels(dir / "out.mkv", &info), sequence);
  EXPECT_EQ(info.rate.Value(), 30.0);
  EXPECT_EQ(info.pixelFormat, "bgr0");
  // h264 is the default codec.
  ASSERT_TRUE(Succeeds({in, dir / "out.mp4", "--amount", "1", "-q"}));
  EXPECT_EQ(ReadLevels(dir / "out.mp4", &info).size(), 5u);
  EXPECT_EQ(info.codec, "h264");
  // --frames counts from the movie's first frame, and a chunk has the whole run's bytes.
  ASSERT_TRUE(Succeeds({in, dir / "chunk/o.%04d.png", "--amount", "1", "--frames", "2-3", "-q"}));
  auto whole = test::Snapshot(dir / "seq");
  for (const char* outside : {"o.0001.png", "o.0004.png", "o.0005.png"}) whole.erase(outside);
  EXPECT_TRUE(test::Snapshot(dir / "chunk") == whole);
  // A sequence in gives a movie at the rate asked.
  ASSERT_TRUE(Succeeds({dir / "seq/o.%04d.png", dir / "again.avi", "--codec", "ffv1", "--fps",
                        "25", "--amount", "0", "-q"}));
  EXPECT_EQ(ReadLevels(dir / "again.avi", &info), sequence);
  EXPECT_EQ(info.rate.Value(), 25.0);
  // With alpha, the lossless codec takes it and gives it back.
  test::WriteClip(dir / "rgba.%04d.png", 1, 3, SampleDepth::k8, 4);
  ASSERT_TRUE(Succeeds({dir / "rgba.%04d.png", dir / "a.mkv", "--codec", "ffv1", "-q"}));
  const std::vector<long> got = ReadLevels(dir / "a.mkv", &info).at(1);
  const std::vector<long> want = Levels(Load(dir / "rgba.0002.png"));
  for (size_t i = 3; i < want.size(); i += 4) ASSERT_EQ(got[i], want[i]) << i;
}

TEST(MovieRuns, RetimeReadsAndWritesMoviesAtTheOutputRate) {
  test::TempDir dir;
  WriteMovie(dir, dir / "in.mkv", 4);
  ASSERT_TRUE(Succeeds({"retime", dir / "in.mkv", dir / "out.mkv", "--fps-in", "30", "--fps-out",
                        "60", "--codec", "ffv1", "-q"}));
  MovieInfo info;
  const std::vector<std::vector<long>> movie = ReadLevels(dir / "out.mkv", &info);
  EXPECT_EQ(info.rate.Value(), 60.0);
  ASSERT_EQ(movie.size(), 7u);  // every source frame and one made between each pair
  EXPECT_EQ(movie[2], Levels(Load(dir / "src.0002.png")));  // a source frame as it was
  ASSERT_TRUE(Succeeds({"retime", dir / "in.mkv", dir / "slow.%04d.png", "--speed", "0.5", "-q"}));
  EXPECT_EQ(test::Snapshot(dir.path()).count("slow.0007.png"), 1u);
}

// ---- Linear light

TEST(LinearLightRuns, ABrightMovingSpotKeepsMoreOfItsLightThanInStoredValues) {
  test::TempDir dir;
  // A dark background and a small white square moving 8 px a frame.
  const int32_t w = 80, h = 48;
  for (int32_t t = 0; t < 5; ++t) {
    std::vector<float> pixels(static_cast<size_t>(w) * h * 3);
    for (size_t i = 0; i < pixels.size(); ++i) {
      const int32_t x = static_cast<int32_t>(i / 3 % w), y = static_cast<int32_t>(i / 3 / w);
      pixels[i] = x >= 10 + 8 * t && x < 16 + 8 * t && y >= 20 && y < 26 ? 1.0f : 15 / 255.0f;
    }
    test::WriteRgb8(Numbered(dir / "in.%04d.png", t + 1), w, h, pixels);
  }
  for (const char* space : {"none", "auto"})
    ASSERT_TRUE(Succeeds({dir / "in.%04d.png", dir / (std::string(space) + ".%04d.png"),
                          "--amount", "1", "--colorspace", space, "-q"}));
  // The light of the streak, decoded from sRGB: the frame's light above the background's.
  LinearLight light;
  std::string error;
  ASSERT_TRUE(light.Create("sRGB", &error)) << error;
  auto streakLight = [&](const std::string& path) {
    Frame f = Load(path);
    light.ToLinear(&f);
    Frame background = f;
    for (float& v : background.pixels) v = 15 / 255.0f;
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
  // A space of the user's configuration, "square" (linear = value squared), named through $OCIO:
  // blurred in its own linear light, not in sRGB's.
  std::ofstream(dir / "config.ocio") << "ocio_profile_version: 1\n"
                                        "roles:\n  default: linear\n  scene_linear: linear\n"
                                        "displays:\n  sRGB:\n    - !<View> {name: Raw, colorspace: linear}\n"
                                        "colorspaces:\n"
                                        "  - !<ColorSpace>\n    name: linear\n"
                                        "  - !<ColorSpace>\n    name: square\n"
                                        "    to_reference: !<ExponentTransform> {value: [2, 2, 2, 1]}\n";
  setenv("OCIO", (dir / "config.ocio").c_str(), 1);
  const ::testing::AssertionResult known = Succeeds({dir / "in.%04d.png", dir / "sq.%04d.png",
                                                     "--colorspace", "square", "--amount", "1", "-q"});
  unsetenv("OCIO");
  ASSERT_TRUE(known);
  EXPECT_NE(Levels(Load(dir / "sq.0003.png")), Levels(Load(dir / "auto.0003.png")));
}

}  // namespace
}  // namespace flowblur
