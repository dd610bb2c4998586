// flowblur tool tests: sequence patterns, frame ranges and the frames found on disk.
#include <gtest/gtest.h>

#include <fstream>

#include "tools/Sequence.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

SequencePattern Parse(const std::string& text) {
  SequencePattern p;
  std::string error;
  EXPECT_TRUE(ParseSequencePattern(text, &p, &error)) << text << ": " << error;
  return p;
}

std::string ParseError(const std::string& text) {
  SequencePattern p;
  std::string error;
  EXPECT_FALSE(ParseSequencePattern(text, &p, &error)) << text;
  return error;
}

void Touch(const std::string& path) { std::ofstream(path) << "x"; }

// The plain spellings run end to end; here the edges: padding is a minimum, a dot in a folder
// name, folders of bare and root-level names.
TEST(SequencePattern, TokensGiveTheFramePaths) {
  EXPECT_EQ(Parse("shot.##.tif").PathFor(12345), "shot.12345.tif");
  EXPECT_EQ(Parse("dir.v2/shot.#.dpx").PathFor(3), "dir.v2/shot.3.dpx");
  EXPECT_EQ(Parse("z.%04d.exr").Folder(), ".");
  EXPECT_EQ(Parse("/z.%04d.exr").Folder(), "/");
}

TEST(SequencePattern, RefusesAmbiguousOrMalformedPatterns) {
  EXPECT_NE(ParseError("a.%04d.%04d.exr").find("more than one"), std::string::npos);
  EXPECT_NE(ParseError("a.##.%d.exr").find("more than one"), std::string::npos);
  EXPECT_NE(ParseError("take%02d/a.exr").find("folder"), std::string::npos);
  EXPECT_NE(ParseError("a.%4d.exr").find("%0Nd"), std::string::npos);
  EXPECT_NE(ParseError("a.%s.exr").find("%0Nd"), std::string::npos);
  EXPECT_NE(ParseError("a.##########.exr").find("9"), std::string::npos);
  EXPECT_NE(ParseError("out/").find("folder"), std::string::npos);
}

TEST(FrameRange, ParsesRangesAndRefusesNonsense) {
  int64_t a = -1, b = -1;
  std::string error;
  ASSERT_TRUE(ParseFrameRange("1-24", &a, &b, &error));
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, 24);
  ASSERT_TRUE(ParseFrameRange("7", &a, &b, &error));
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 7);
  for (const char* bad : {"", "-3", "5-2", "1-", "a-b", "1-2-3", "1 - 2", "1234567890123-1234567890124"})
    EXPECT_FALSE(ParseFrameRange(bad, &a, &b, &error)) << bad;
}

TEST(FindFrames, FindsOnlyTheSpellingThePatternWrites) {
  test::TempDir dir;
  for (const char* name : {"s.0001.png", "s.0002.png", "s.0010.png", "s.00003.png", "s.12345.png",
                           "s.0004.exr", "t.0005.png", "s.000x.png", "s..png"})
    Touch(dir / name);
  std::string error;
  std::vector<int64_t> frames = FindFrames(Parse(dir / "s.%04d.png"), &error);
  EXPECT_TRUE(error.empty()) << error;
  EXPECT_EQ(frames, (std::vector<int64_t>{1, 2, 10, 12345}));
  frames = FindFrames(Parse(dir / "s.%d.png"), &error);
  EXPECT_EQ(frames, (std::vector<int64_t>{12345}));
  frames = FindFrames(Parse(dir / "missing/s.%04d.png"), &error);
  EXPECT_TRUE(frames.empty());
  EXPECT_NE(error.find("missing"), std::string::npos);
}

TEST(SameFile, ComparesFilesNotSpellings) {
  test::TempDir dir;
  Touch(dir / "a.png");
  Touch(dir / "b.png");
  EXPECT_TRUE(SameFile(dir / "a.png", dir.path() + "/./a.png"));
  EXPECT_FALSE(SameFile(dir / "a.png", dir / "b.png"));
  EXPECT_FALSE(SameFile(dir / "a.png", dir / "none.png"));
  ASSERT_EQ(link((dir / "a.png").c_str(), (dir / "hard.png").c_str()), 0);
  EXPECT_TRUE(SameFile(dir / "a.png", dir / "hard.png"));
}

}  // namespace
}  // namespace flowblur
