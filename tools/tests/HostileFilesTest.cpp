// flowblur tool tests: files that lie (truncated, empty, folders, headers that claim
// enormous frames) give one message naming the file, and the batch host stops with exit code
// 1 and writes nothing; a disk that fills mid-run names the frame that failed.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tools/ImageFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

using test::Flowblur;

const char* const kExtensions[] = {"png", "jpg", "tif", "exr", "dpx"};

// A small textured frame in one of the formats above, returned as the file's bytes.
std::string ValidFile(const test::TempDir& dir, const std::string& ext, int32_t w = 48,
                      int32_t h = 32) {
  std::vector<float> pixels(static_cast<size_t>(w) * h * 3);
  for (size_t i = 0; i < pixels.size(); ++i)
    pixels[i] = 0.5f + 0.4f * std::sin(static_cast<float>(i) * 0.37f);
  SampleDepth depth = ext == "exr" ? SampleDepth::kHalf : ext == "jpg" ? SampleDepth::k8
                                                                        : SampleDepth::k16;
  OIIO::ImageSpec imageSpec(w, h, 3, TypeFor(depth));
  std::string path = dir / ("valid." + ext), error;
  EXPECT_TRUE(WriteImageSafely(path, imageSpec, OIIO::TypeDesc::FLOAT, pixels.data(), true, &error))
      << error;
  const std::string bytes = test::ReadBytes(path);
  unlink(path.c_str());
  return bytes;
}

void Put(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

uint32_t Crc32(const std::string& bytes, size_t from, size_t to) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = from; i < to; ++i) {
    crc ^= static_cast<uint8_t>(bytes[i]);
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void PutBigEndian(std::string* bytes, size_t at, uint32_t v) {
  for (int k = 0; k < 4; ++k) (*bytes)[at + k] = static_cast<char>(v >> (24 - 8 * k));
}

// The variants of one valid file that must all be refused.
std::vector<std::pair<std::string, std::string>> Lies(const std::string& ext,
                                                      const std::string& valid) {
  std::vector<std::pair<std::string, std::string>> lies = {
      {"empty", ""},
      {"header only", valid.substr(0, 24)},
      {"cut in half", valid.substr(0, valid.size() / 2)},
      {"last bytes missing", valid.substr(0, valid.size() - 16)},
  };
  if (ext == "png" || ext == "dpx") {
    // The PNG's IHDR or the DPX's pixels per line and lines per element claim 100000 x 100000;
    // the PNG's checksum is put right, so that only the size lies.
    std::string huge = valid;
    const size_t at = ext == "png" ? 16 : 772;
    PutBigEndian(&huge, at, 100000);
    PutBigEndian(&huge, at + 4, 100000);
    if (ext == "png") PutBigEndian(&huge, 29, Crc32(huge, 12, 29));
    lies.push_back({"claims 100000x100000", huge});
  }
  return lies;
}

// Each lie as the first frame of a sequence (a good second frame behind it): read directly and
// from memory (as the fuzz target reads it), one message naming the file; through the batch
// host, exit code 1, that one message, and nothing written.
TEST(HostileFiles, EveryLieIsOneMessageNamingTheFileAndTheBatchHostWritesNothing) {
  for (const char* ext : kExtensions) {
    test::TempDir dir;
    const std::string valid = ValidFile(dir, ext), e = ext;
    ASSERT_GT(valid.size(), 200u) << ext;
    std::vector<std::pair<std::string, std::string>> cases = Lies(ext, valid);
    cases.push_back({"folder", ""});
    const std::string first = dir / ("in.0001." + e);
    Put(dir / ("in.0002." + e), valid);
    for (const auto& [what, bytes] : cases) {
      SCOPED_TRACE(e + ": " + what);
      test::TempDir::Remove(first);
      if (what == "folder") {
        mkdir(first.c_str(), 0755);
      } else {
        Put(first, bytes);
        Frame frame, fromMemory;
        std::string error, memoryError;
        EXPECT_FALSE(ReadFrame(first, &frame, &error));
        EXPECT_EQ(error.find("'" + first + "'"), error.find('\'')) << error;
        EXPECT_NE(error.find("'" + first + "'"), std::string::npos) << error;
        EXPECT_TRUE(frame.pixels.empty());
        EXPECT_FALSE(ReadFrameFromMemory("mem." + e, bytes.data(), bytes.size(), &fromMemory,
                                         &memoryError));
        EXPECT_NE(memoryError.find("'mem." + e + "'"), std::string::npos);
        // The PNG reader passes the claimed size on (and it is refused as too large); the DPX
        // reader already rejects the header itself.
        if (what.find("claims") == 0 && e == "png") {
          EXPECT_NE(error.find("claims 100000x100000 pixels, far more than its"), std::string::npos)
              << error;
        }
      }
      auto before = test::Names(test::Snapshot(dir.path()));
      test::RunResult r = Flowblur({dir / ("in.%04d." + e), dir / ("o.%04d." + e), "-q"});
      EXPECT_EQ(r.exitCode, 1) << r.err;
      EXPECT_NE(r.err.find("'" + first + "'"), std::string::npos) << r.err;
      // One message about the file (the PNG library may print its own line before it, and a
      // run that had started adds its count of frames written).
      int32_t ours = 0;
      std::istringstream lines(r.err);
      for (std::string line; std::getline(lines, line);)
        ours += line.rfind("libpng ", 0) != 0 && line.find(" frames written") == std::string::npos;
      EXPECT_EQ(ours, 1) << r.err;
      EXPECT_EQ(test::Names(test::Snapshot(dir.path())), before);
    }
    // The valid file itself reads, from disk and from memory alike.
    Frame a, b;
    std::string error;
    ASSERT_TRUE(ReadFrame(dir / ("in.0002." + e), &a, &error)) << error;
    ASSERT_TRUE(ReadFrameFromMemory("ok." + e, valid.data(), valid.size(), &b, &error)) << error;
    EXPECT_EQ(a.pixels, b.pixels);
  }
}

// A header within the format's means but over the frame limit is refused by its numbers.
TEST(HostileFiles, HeadersOverTheFrameLimit) {
  FrameInfo info;
  std::string error;
  EXPECT_TRUE(ClassifyFrame("a.exr", OIIO::ImageSpec(8192, 8192, 4, OIIO::TypeDesc::HALF), &info,
                            &error));
  EXPECT_FALSE(ClassifyFrame("b.exr", OIIO::ImageSpec(8192, 8192, 5, OIIO::TypeDesc::HALF), &info,
                             &error));
  EXPECT_EQ(error, "'b.exr' claims 8192x8192 pixels of 5 channels, more than a frame may have "
                   "(268435456 samples)");
  EXPECT_FALSE(ClassifyFrame("c.exr", OIIO::ImageSpec(1 << 20, 1 << 20, 1, OIIO::TypeDesc::HALF),
                             &info, &error));
}

// Header sizes are checked before any reader allocates them: an EXR attribute claiming about
// 2 GB in a file of a few hundred bytes, a data window of 2^40 pixels, or DPX user data of
// about 2 GB (found by the file fuzzer) is refused with its reason, from disk and from memory.
TEST(HostileFiles, HeadersThatClaimMoreThanTheFileHolds) {
  test::TempDir dir;
  const std::string valid = ValidFile(dir, "exr");
  auto patched = [](std::string bytes, const std::string& attribute, size_t offset,
                    uint32_t value) {
    const size_t at = bytes.find(attribute + '\0');
    EXPECT_NE(at, std::string::npos) << attribute;
    const size_t field = bytes.find('\0', at + attribute.size() + 1) + 1 + offset;
    for (int k = 0; k < 4; ++k) bytes[field + k] = static_cast<char>(value >> (8 * k));
    return bytes;
  };
  std::string dpx = ValidFile(dir, "dpx");
  // A row 16843009 pixels wide and one row high (the same numbers in either byte order).
  std::string wide = dpx;
  wide.replace(772, 8, std::string("\x01\x01\x01\x01\x00\x00\x00\x00", 8));
  wide[dpx[0] == 'S' ? 779 : 776] = 1;
  dpx.replace(32, 4, "\x7F\x7F\x7F\x7F");
  const std::tuple<std::string, std::string, std::string> all[] = {
      {"exr", patched(valid, "compression", 0, 0x7FFFFFF0u),
       "attribute 'compression' claims 2147483632 bytes"},
      {"exr",
       patched(patched(valid, "dataWindow", 4 + 8, 1u << 20), "dataWindow", 4 + 12, 1u << 20),
       "claims 1048577x1048577 pixels"},
      {"dpx", dpx, "user data claims 2139062143 bytes"},
      {"dpx", wide, "(16843009 pixels), wider than a frame may have (4194304 bytes)"}};
  for (const auto& [ext, bytes, says] : all) {
    Put(dir / ("x." + ext), bytes);
    FrameInfo info;
    Frame frame;
    std::string error;
    EXPECT_FALSE(ReadFrameInfo(dir / ("x." + ext), &info, &error));
    EXPECT_NE(error.find(says), std::string::npos) << error;
    EXPECT_NE(error.find("x." + ext), std::string::npos) << error;
    error.clear();
    EXPECT_FALSE(ReadFrameFromMemory("m." + ext, bytes.data(), bytes.size(), &frame, &error));
    EXPECT_NE(error.find(says), std::string::npos) << error;
  }
}

TEST(HostileFiles, FoldersAndSpecialFilesAreNotRead) {
  test::TempDir dir;
  mkdir((dir / "frame.0001.png").c_str(), 0755);
  Frame frame;
  std::string error;
  EXPECT_FALSE(ReadFrame(dir / "frame.0001.png", &frame, &error));
  EXPECT_EQ(error, "cannot read '" + dir / "frame.0001.png" + "': it is a folder, not an image file");
  EXPECT_FALSE(ReadFrame("/dev/null", &frame, &error));
  EXPECT_EQ(error, "cannot read '/dev/null': it is not a regular file");
  FrameInfo info;
  EXPECT_FALSE(ReadFrameInfo(dir / "frame.0001.png", &info, &error));
}

// Frame 1 is flat (its output compresses to little), frames 2 and 3 are noise: a file-size
// limit between the two lets the first frame through and stops the second.
TEST(HostileFiles, ADiskFullMidRunNamesTheFrameAndLeavesNoPartialFile) {
  test::TempDir dir;
  const int32_t w = 64, h = 48;
  for (int32_t t = 1; t <= 3; ++t) {
    std::vector<float> pixels(static_cast<size_t>(w) * h * 3, 0.5f);
    uint32_t seed = 12345u * static_cast<uint32_t>(t);
    if (t > 1)
      for (float& v : pixels) {
        seed = seed * 1664525u + 1013904223u;
        v = static_cast<float>(seed >> 8) / 16777216.0f;
      }
    test::WriteRgb8(dir / ("in.000" + std::to_string(t) + ".png"), w, h, pixels);
  }
  struct stat flat, noisy;
  ASSERT_EQ(stat((dir / "in.0001.png").c_str(), &flat), 0);
  ASSERT_EQ(stat((dir / "in.0002.png").c_str(), &noisy), 0);
  ASSERT_LT(flat.st_size * 4, noisy.st_size);
  test::RunOptions options;
  options.fileSizeLimit = noisy.st_size / 2;
  test::RunResult r = Flowblur({dir / "in.%04d.png", dir / "out.%04d.png", "--amount", "0"},
                               options);
  EXPECT_EQ(r.exitCode, 3) << r.err;
  EXPECT_NE(r.err.find("cannot write '" + dir / "out.0002.png" + "'"), std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("1 of 3 frames written"), std::string::npos) << r.err;
  std::vector<std::string> names = test::Names(test::Snapshot(dir.path()));
  EXPECT_EQ(names, (std::vector<std::string>{"in.0001.png", "in.0002.png", "in.0003.png",
                                             "out.0001.png"}));
}

// A frame whose header reads but whose pixels do not (cut short after the checks passed it)
// stops the run with the input's exit code and the file named, whatever the pipeline had read
// ahead or had still to write: the frames written are those a run done in turn writes, whole,
// and no temporary file is left.
TEST(PipelineRunStops, AReadThatFailsMidRun) {
  test::TempDir dir;
  const std::string in = dir / "in.%04d.exr";
  test::WriteClip(in, 1, 7, SampleDepth::kHalf, 3);
  const std::string bytes = test::ReadBytes(dir / "in.0005.exr");
  std::ofstream(dir / "in.0005.exr", std::ios::binary | std::ios::trunc)
      << bytes.substr(0, bytes.size() / 2);
  std::map<std::string, std::string> inTurn;
  for (const char* io : {"0", "3"}) {
    const std::string out = dir / (std::string("io") + io);
    test::RunResult r = Flowblur({in, out + "/o.%04d.exr", "--io-threads", io, "--threads", "2"});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_NE(r.err.find("cannot read '" + dir / "in.0005.exr" + "'"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(" of 7 frames written"), std::string::npos) << r.err;
    const auto written = test::Snapshot(out);
    for (const auto& [name, bytes] : written) EXPECT_NE(name[0], '.') << "left behind: " << name;
    if (std::string(io) == "0") {
      inTurn = written;
      EXPECT_GT(inTurn.size(), 0u);
    } else {
      EXPECT_TRUE(written == inTurn) << "--io-threads " << io;
    }
  }
}

}  // namespace
}  // namespace flowblur
