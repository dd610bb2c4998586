// flowblur tool tests: time maps, and `flowblur retime` and `flowblur deinterlace` end to end
// on small generated sequences: frame counts and numbers, frames on source times given back
// exactly, made frames between their neighbours, chunks equal to a whole run.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <numeric>

#include "tools/ImageFiles.h"
#include "tools/TimeMap.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

// ---- Time maps ------------------------------------------------------------------------------

std::vector<int64_t> Numbers(const std::vector<TimedFrame>& frames) {
  std::vector<int64_t> n;
  for (const TimedFrame& f : frames) n.push_back(f.number);
  return n;
}

// Speeds 0.5 and -2 run end to end; 0.3 is not exact in binary, yet ten steps reach frame 13.
TEST(TimeMaps, SpeedsCoverTheInputForwardAndBackward) {
  const std::vector<TimedFrame> frames = SpeedTimes(10, 13, 0.3, 100);
  ASSERT_EQ(frames.size(), 11u);
  for (size_t k = 0; k < frames.size(); ++k) {
    EXPECT_EQ(frames[k].number, 100 + static_cast<int64_t>(k));
    EXPECT_NEAR(frames[k].sourceTime, 10 + 0.3 * static_cast<double>(k), 1e-12) << k;
  }
}

TEST(TimeMaps, RatesLandExactlyOnSourceFrames) {
  std::string error;
  auto rate = [&](const char* text) {
    Rate r;
    EXPECT_TRUE(ParseRate(text, &r, &error)) << text;
    return r;
  };
  // 24 to 60: five outputs to two inputs, 1 .. 5 gives 11 frames, every fifth on a frame.
  std::vector<TimedFrame> frames = RateTimes(1, 5, rate("24"), rate("60"), 1);
  ASSERT_EQ(frames.size(), 11u);
  for (size_t k = 0; k < frames.size(); k += 5)
    EXPECT_EQ(frames[k].sourceTime, 1.0 + static_cast<double>(k * 2 / 5)) << k;
  EXPECT_DOUBLE_EQ(frames[1].sourceTime, 1.4);
  // 23.976 to 29.97 as fractions: 4 in to 5 out, exactly.
  frames = RateTimes(0, 8, rate("24000/1001"), rate("30000/1001"), 0);
  EXPECT_EQ(frames.size(), 11u);
  EXPECT_EQ(frames[5].sourceTime, 4.0);
  Rate decimal = rate("29.97");
  EXPECT_EQ(decimal.numerator, 2997);
  EXPECT_EQ(decimal.denominator, 100);
  for (const char* bad : {"0", "-24", "24/0", "abc", "24fps", "", "1.2.3", "/1001"})
    EXPECT_FALSE(ParseRate(bad, &decimal, &error)) << bad;
}

TEST(TimeMaps, KeysRampHoldAndReverse) {
  std::vector<TimeKey> keys;
  std::string error;
  ASSERT_TRUE(ParseTimeMap("# ramp\n10 1\n\n14 3.0\n16 3\r\n20 1.5\n", "m", 1, 4, &keys, &error))
      << error;
  std::vector<TimedFrame> frames = KeyedTimes(keys);
  EXPECT_EQ(Numbers(frames), (std::vector<int64_t>{10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}));
  const double expected[] = {1, 1.5, 2, 2.5, 3, 3, 3, 2.625, 2.25, 1.875, 1.5};
  for (size_t k = 0; k < frames.size(); ++k) EXPECT_EQ(frames[k].sourceTime, expected[k]) << k;
  // Past the last key the map goes on along its last step; one key stays put.
  EXPECT_DOUBLE_EQ(SourceTimeAt(frames, 11.0), 1.125);
  EXPECT_DOUBLE_EQ(SourceTimeAt(frames, 0.5), 1.25);
  EXPECT_EQ(SourceTimeAt({{4, 2.5}}, 1.0), 2.5);
}

TEST(TimeMaps, BadMapsNameTheirLine) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "has no keys"},
      {"# only a comment\n\n", "has no keys"},
      {"1 2\nthree four\n", "line 2: 'three four' is not two numbers"},
      {"1\n", "line 1: '1' is not two numbers"},
      {"1 2\n2 2\n3 9.5\n", "line 3: source time 9.5 is outside the input, frames 1 to 4"},
      {"1.5 2\n", "line 1: output frame '1.5' is not a whole frame number"},
      {"5 2\n5 3\n", "line 2: output frame 5 does not come after 5 of line 1"},
      {"1 nan\n", "line 1: '1 nan' is not two numbers"},
  };
  for (const auto& [text, says] : cases) {
    std::vector<TimeKey> keys;
    std::string error;
    EXPECT_FALSE(ParseTimeMap(text, "map.txt", 1, 4, &keys, &error)) << text;
    EXPECT_NE(error.find(says), std::string::npos) << text << " gave: " << error;
    EXPECT_NE(error.find("'map.txt'"), std::string::npos) << error;
    EXPECT_TRUE(keys.empty());
  }
}

// ---- End to end ------------------------------------------------------------------------------

constexpr int32_t kW = 96, kH = 64;

using test::Flowblur;
using test::Load;
using test::WriteClip;
using test::Numbered;

// Mean absolute difference of the colour channels.
double Distance(const Frame& a, const Frame& b) {
  double sum = 0.0;
  size_t n = 0;
  for (size_t i = 0; i < a.pixels.size(); ++i)
    if (static_cast<int32_t>(i % a.info.channels) < 3) {
      sum += std::fabs(a.pixels[i] - b.pixels[i]);
      ++n;
    }
  return sum / static_cast<double>(n);
}

// The output numbers in a folder, from names o.NNNN.ext.
std::vector<int64_t> OutputNumbers(const std::string& folder) {
  std::vector<int64_t> numbers;
  for (const auto& [name, content] : test::Snapshot(folder))
    if (name.rfind("o.", 0) == 0) numbers.push_back(std::stoll(name.substr(2, 4)));
  return numbers;
}

using test::FormatCase;
class RetimeFormats : public ::testing::TestWithParam<FormatCase> {};

TEST_P(RetimeFormats, HalfSpeedKeepsSourceFramesAndMakesFramesBetweenThem) {
  const FormatCase& c = GetParam();
  test::TempDir dir;
  const std::string in = dir / (std::string("in.%04d.") + c.ext);
  const std::string out = dir / (std::string("out/o.%04d.") + c.ext);
  WriteClip(in, 5, 4, c.depth, c.channels);
  ASSERT_TRUE(test::Succeeds({"retime", in, out, "--speed", "0.5", "--threads", "2", "-q"}));
  EXPECT_EQ(OutputNumbers(dir / "out"), (std::vector<int64_t>{5, 6, 7, 8, 9, 10, 11}));
  for (int32_t k = 0; k < 7; ++k) {
    const Frame made = Load(Numbered(out, 5 + k));
    EXPECT_EQ(made.info.depth, c.depth);
    ASSERT_EQ(made.info.channels, c.channels);
    if (k % 2 == 0) {
      // On a source frame: that frame, every sample, alpha included.
      EXPECT_EQ(made.pixels, Load(Numbered(in, 5 + k / 2)).pixels) << "output " << 5 + k;
      continue;
    }
    // Between: nearer to each neighbour than the neighbours are to each other, and the
    // still corner untouched by the motion. The outermost row and column are left out: the
    // gather warp counts a read a hair outside the frame as a hole and fills it.
    const Frame a = Load(Numbered(in, 5 + k / 2)), b = Load(Numbered(in, 6 + k / 2));
    const double apart = Distance(a, b);
    EXPECT_LT(Distance(made, a), 0.75 * apart) << "output " << 5 + k;
    EXPECT_LT(Distance(made, b), 0.75 * apart) << "output " << 5 + k;
    auto at = [&](const Frame& f, int32_t x, int32_t y, int32_t ch) -> double {
      return f.pixels[(static_cast<size_t>(y) * kW + x) * c.channels + ch];
    };
    double still = 0.0, alphaMid = 0.0;
    for (int32_t y = 44; y < kH - 1; ++y)
      for (int32_t x = 70; x < kW - 1; ++x)
        for (int32_t ch = 0; ch < 3; ++ch)
          still = std::max(still, std::fabs(at(made, x, y, ch) - at(a, x, y, ch)));
    EXPECT_LT(still, 0.02) << "output " << 5 + k;
    // The alpha ramp moves with the block by half of its 3 px step: the made frame's alpha is
    // near the mean of its neighbours' at the block's leading edge.
    if (c.channels < 4) continue;
    for (int32_t y = 10; y < 26; ++y)
      alphaMid += std::fabs(at(made, 40, y, 3) - 0.5 * (at(a, 40, y, 3) + at(b, 40, y, 3)));
    EXPECT_LT(alphaMid / 16.0, 0.1) << "alpha of output " << 5 + k;
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, RetimeFormats,
                         ::testing::Values(FormatCase{"Png8Rgb", "png", SampleDepth::k8, 3},
                                           FormatCase{"Tiff16Rgb", "tif", SampleDepth::k16, 3},
                                           FormatCase{"ExrHalfRgba", "exr", SampleDepth::kHalf, 4}),
                         test::FormatName);

TEST(Retime, RatesAndTimeMapsNumberTheirFramesAndHitSourceFrames) {
  test::TempDir dir;
  const std::string in = dir / "in.%04d.png";
  WriteClip(in, 1, 5, SampleDepth::k8, 3);
  ASSERT_TRUE(test::Succeeds({"retime", in, dir / "r/o.%04d.png", "--fps-in", "24", "--fps-out",
                              "60", "--start", "100", "--method", "nearest", "-q"}));
  std::vector<int64_t> expected(11);
  std::iota(expected.begin(), expected.end(), 100);
  EXPECT_EQ(OutputNumbers(dir / "r"), expected);
  EXPECT_EQ(Load(dir / "r/o.0105.png").pixels, Load(dir / "in.0003.png").pixels);
  EXPECT_EQ(Load(dir / "r/o.0110.png").pixels, Load(dir / "in.0005.png").pixels);

  // A ramp up to frame 4, a hold, and back to frame 2, numbered as the map numbers them.
  std::ofstream(dir / "map.txt") << "20 1\n26 4\n28 4\n32 2\n";
  ASSERT_TRUE(test::Succeeds({"retime", in, dir / "m/o.%04d.png", "--timemap", dir / "map.txt",
                              "-q", "--method", "dissolve", "--warp", "forward", "--shutter",
                              "0.5"}));
  expected.resize(13);
  std::iota(expected.begin(), expected.end(), 20);
  EXPECT_EQ(OutputNumbers(dir / "m"), expected);
  // Backwards at double speed from frame 5.
  ASSERT_TRUE(test::Succeeds({"retime", in, dir / "b/o.%04d.png", "--speed", "-2", "-q"}));
  EXPECT_EQ(OutputNumbers(dir / "b"), (std::vector<int64_t>{1, 2, 3}));
  EXPECT_EQ(Load(dir / "b/o.0001.png").pixels, Load(dir / "in.0005.png").pixels);
  EXPECT_EQ(Load(dir / "b/o.0003.png").pixels, Load(dir / "in.0001.png").pixels);
}

TEST(Retime, ChunksGiveTheBytesOfAWholeRunForAnyProcessorCount) {
  test::TempDir dir;
  const std::string in = dir / "in.%04d.exr";
  WriteClip(in, 1, 4, SampleDepth::kHalf, 4);
  const std::vector<std::string> retime = {"retime", in, "--speed", "0.4", "-q"};
  auto run = [&](const std::string& out, std::vector<std::string> extra) {
    std::vector<std::string> args = retime;
    args.insert(args.begin() + 2, out + "/o.%04d.exr");
    args.insert(args.end(), extra.begin(), extra.end());
    return test::Succeeds(args);
  };
  ASSERT_TRUE(run(dir / "whole", {"--threads", "1"}));
  for (const char* chunk : {"1-3", "4-5", "6-99"})
    ASSERT_TRUE(run(dir / "parts", {"--frames", chunk, "--threads", "3"})) << chunk;
  EXPECT_EQ(OutputNumbers(dir / "whole").size(), 8u);
  EXPECT_TRUE(test::Snapshot(dir / "whole") == test::Snapshot(dir / "parts"));
  // A resumed run makes only what is missing, and the same bytes.
  std::remove((dir / "parts/o.0004.exr").c_str());
  std::remove((dir / "parts/o.0008.exr").c_str());
  const test::RunResult r = Flowblur({"retime", in, dir / "parts/o.%04d.exr", "--speed", "0.4",
                                      "--skip-existing"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.err.find("2 frames"), std::string::npos) << r.err;
  EXPECT_TRUE(test::Snapshot(dir / "whole") == test::Snapshot(dir / "parts"));
}

TEST(RetimeDemo, WritesSlowMotionTruthFlowAndSheet) {
  test::TempDir dir;
  const std::string folder = dir / "demo";
  ASSERT_TRUE(test::Succeeds({"demo", folder, "--retime", "--size", "96", "--length", "3", "-q"}));
  auto files = test::Snapshot(folder);
  for (const char* name : {"input/demo.0003.png", "retime/demo.0005.png", "retime-flow/flow.0004.png",
                           "truth/demo.0006.png", "retime-sheet.png"})
    EXPECT_EQ(files.count(name), 1u) << name;
  EXPECT_EQ(files.count("retime/demo.0006.png"), 0u);
  // Output 3 is source frame 2; output 2 is made, and nearer to the true half frame than
  // either source frame is.
  EXPECT_EQ(Load(folder + "/retime/demo.0003.png").pixels, Load(folder + "/input/demo.0002.png").pixels);
  const Frame made = Load(folder + "/retime/demo.0002.png"), truth = Load(folder + "/truth/demo.0002.png");
  EXPECT_LT(Distance(made, truth), Distance(Load(folder + "/input/demo.0001.png"), truth));
  EXPECT_LT(Distance(made, truth), Distance(Load(folder + "/input/demo.0002.png"), truth));
  // The made frame's flow picture shows motion; the source frame's is white (in the left half,
  // away from the legend).
  auto coloured = [](const Frame& f) {
    const size_t w = static_cast<size_t>(f.info.width);
    int64_t n = 0;
    for (size_t i = 0; i < f.pixels.size(); ++i) n += i / 3 % w < w / 2 && f.pixels[i] < 0.9f;
    return n;
  };
  EXPECT_GT(coloured(Load(folder + "/retime-flow/flow.0002.png")), 1000);
  EXPECT_EQ(coloured(Load(folder + "/retime-flow/flow.0003.png")), 0);
}

// ---- Deinterlacing ---------------------------------------------------------------------------

// Rows of one parity of two frames: the largest difference of any sample.
double RowsDiffer(const Frame& a, const Frame& b, int32_t parity) {
  double most = 0.0;
  const size_t row = static_cast<size_t>(kW) * a.info.channels;
  for (int32_t y = parity; y < kH; y += 2)
    for (size_t i = 0; i < row; ++i)
      most = std::max(most, static_cast<double>(
                                std::fabs(a.pixels[y * row + i] - b.pixels[y * row + i])));
  return most;
}

TEST(Deinterlace, KeepsTheFieldRowsAndRebuildsTheOthersAtFrameAndFieldRate) {
  test::TempDir dir;
  const std::string in = dir / "in.%04d.tif";
  WriteClip(in, 1, 3, SampleDepth::k16, 4);
  for (const char* order : {"tff", "bff"}) {
    const int32_t first = std::string(order) == "tff" ? 0 : 1;
    for (const char* method : {"line", "average", "edge3", "edge5"}) {
      const std::string out = dir / (std::string(order) + method);
      ASSERT_TRUE(test::Succeeds({"deinterlace", in, out + "/o.%04d.tif", "--field-order", order,
                                  "--method", method, "-q"}));
      ASSERT_EQ(OutputNumbers(out), (std::vector<int64_t>{1, 2, 3}));
      const Frame a = Load(Numbered(in, 2)), b = Load(Numbered(out + "/o.%04d.tif", 2));
      EXPECT_EQ(RowsDiffer(a, b, first), 0.0) << order << " " << method;
      EXPECT_GT(RowsDiffer(a, b, 1 - first), 0.0) << order << " " << method;
      // Progressive input: rebuilt rows stay close to the rows that were there.
      EXPECT_LT(Distance(a, b), 0.05) << order << " " << method;
    }
    const std::string out = dir / (std::string(order) + "field");
    ASSERT_TRUE(test::Succeeds({"deinterlace", in, out + "/o.%04d.tif", "--field-order", order,
                                "--rate", "field", "--start", "10", "-q"}));
    ASSERT_EQ(OutputNumbers(out), (std::vector<int64_t>{10, 11, 12, 13, 14, 15}));
    // Outputs 10 + 2n and 11 + 2n keep the first and the second field of frame 1 + n.
    for (int32_t k = 0; k < 6; ++k) {
      const Frame a = Load(Numbered(in, 1 + k / 2));
      const Frame f = Load(Numbered(out + "/o.%04d.tif", 10 + k));
      EXPECT_EQ(RowsDiffer(a, f, k % 2 == 0 ? first : 1 - first), 0.0) << order << " output " << k;
    }
    // The middle frame's missing rows come from motion between its neighbours: on a
    // progressive clip the first field's picture is close to the frame itself.
    EXPECT_LT(Distance(Load(Numbered(in, 2)), Load(Numbered(out + "/o.%04d.tif", 12))), 0.03) << order;
  }
}

}  // namespace
}  // namespace flowblur
