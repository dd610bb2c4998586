// flowblur tool tests: a long sequence. The batch host's memory must not grow with the length
// of a run: the peak resident size of a 1,000-frame run stays within a small margin of a
// 100-frame run of the same frames. Also what a farm task is told about the I/O threads.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "tools/ImageFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

constexpr int32_t kW = 64, kH = 48, kDistinct = 8, kLong = 1000, kShort = 100;

struct Peak {
  int exitCode = -1;
  long maxRssKb = 0;  // the child's own peak resident size
};

// Runs flowblur in a child of its own and takes that child's peak resident size from wait4.
// The sanitizer's quarantine of freed blocks is turned off in the child: it holds back up to
// hundreds of megabytes by design, which would hide the run's own growth.
Peak RunMeasured(const std::vector<std::string>& args) {
  Peak peak;
  pid_t child = fork();
  if (child == 0) {
    const char* old = std::getenv("ASAN_OPTIONS");
    std::string asan = std::string(old ? old : "") +
                       ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0";
    setenv("ASAN_OPTIONS", asan.c_str(), 1);
    int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(null, 1);
    std::vector<char*> argv = {const_cast<char*>(FLOWBLUR_EXE)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(FLOWBLUR_EXE, argv.data());
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  while (wait4(child, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  peak.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  peak.maxRssKb = usage.ru_maxrss;
  return peak;
}

TEST(LongSequence, PeakMemoryDoesNotGrowWithTheLengthOfTheRun) {
  test::TempDir dir;
  // A few distinct noise frames, linked under 1,000 names: writing them costs nothing, and
  // the plug-in still sees motion between neighbours.
  std::vector<std::string> sources;
  for (int32_t k = 0; k < kDistinct; ++k) {
    std::vector<float> pixels(static_cast<size_t>(kW) * kH * 3);
    uint32_t state = 2654435761u * static_cast<uint32_t>(k + 1);
    for (float& v : pixels) {
      state = state * 1664525u + 1013904223u;
      v = static_cast<float>(state >> 24) / 255.0f;
    }
    sources.push_back(dir / ("src" + std::to_string(k) + ".png"));
    std::string error;
    ASSERT_TRUE(WriteImageSafely(sources.back(), OIIO::ImageSpec(kW, kH, 3, OIIO::TypeDesc::UINT8),
                                 OIIO::TypeDesc::FLOAT, pixels.data(), false, &error))
        << error;
  }
  for (int32_t f = 1; f <= kLong; ++f) {
    char name[32];
    std::snprintf(name, sizeof name, "in.%04d.png", f);
    ASSERT_EQ(link(sources[static_cast<size_t>(f % kDistinct)].c_str(), (dir / name).c_str()), 0);
  }
  auto run = [&](int32_t frames, const std::string& out) {
    return RunMeasured({dir / "in.%04d.png", dir / (out + "/o.%04d.png"), "-q", "--quality",
                        "draft", "--threads", "2", "--io-threads", "2", "--frames",
                        "1-" + std::to_string(frames)});
  };
  const Peak shortRun = run(kShort, "short");
  const Peak longRun = run(kLong, "long");
  ASSERT_EQ(shortRun.exitCode, 0);
  ASSERT_EQ(longRun.exitCode, 0);
  std::ifstream last(dir / "long/o.1000.png", std::ios::binary);
  EXPECT_TRUE(last.good()) << "the long run did not write its last frame";
  // A frame kept per frame (a packed 64x48 frame is 9 KiB, a float frame 36 KiB) would add
  // at least 8 MiB over the 900 extra frames; the plan's own per-frame records add well
  // under 1 MiB.
  constexpr long kMarginKb = 4 * 1024;
  EXPECT_LE(longRun.maxRssKb, shortRun.maxRssKb + kMarginKb)
      << "peak resident size: " << shortRun.maxRssKb << " KiB for " << kShort << " frames, "
      << longRun.maxRssKb << " KiB for " << kLong;
  EXPECT_GT(shortRun.maxRssKb, 0);
}

// A farm task passes --io-threads on when the user gave it, and leaves it to the node's own
// default otherwise (each script written without submitting it).
TEST(LongSequence, FarmTasksPassTheIoThreadsOnWhenGiven) {
  test::TempDir dir;
  std::vector<float> grey(static_cast<size_t>(kW) * kH * 3, 0.5f);
  for (const char* name : {"in.0001.png", "in.0002.png"}) {
    std::string error;
    ASSERT_TRUE(WriteImageSafely(dir / name, OIIO::ImageSpec(kW, kH, 3, OIIO::TypeDesc::UINT8),
                                 OIIO::TypeDesc::FLOAT, grey.data(), false, &error))
        << error;
  }
  auto script = [&](const std::string& name, std::vector<std::string> extra) {
    std::vector<std::string> args = {"farm", "slurm", dir / "in.%04d.png", dir / "out/o.%04d.png",
                                     "--chunk", "1", "--script", dir / name};
    args.insert(args.end(), extra.begin(), extra.end());
    test::RunResult r = test::RunCommand(FLOWBLUR_EXE, args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    std::ifstream in(dir / name);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  };
  const std::string given = script("given.sh", {"--io-threads", "3"});
  EXPECT_NE(given.find("'--io-threads' '3'"), std::string::npos) << given;
  const std::string left = script("left.sh", {});
  EXPECT_NE(left.find("'--clip'"), std::string::npos) << left;
  EXPECT_EQ(left.find("--io-threads"), std::string::npos) << left;
}

}  // namespace
}  // namespace flowblur
