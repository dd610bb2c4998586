// flowblur tool tests: a long sequence. The batch host's memory must not grow with the length
// of a run: the peak resident size of a 1,000-frame run stays within a small margin of a
// 100-frame run of the same frames.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "tools/ImageFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

constexpr int32_t kW = 64, kH = 48, kDistinct = 8, kLong = 1000, kShort = 100;

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
    test::WriteRgb8(sources.back(), kW, kH, pixels);
  }
  for (int32_t f = 1; f <= kLong; ++f) {
    const std::string& source = sources[static_cast<size_t>(f % kDistinct)];
    ASSERT_EQ(link(source.c_str(), test::Numbered(dir / "in.%04d.png", f).c_str()), 0);
  }
  test::RunOptions measured;
  measured.noQuarantine = true;
  auto run = [&](int32_t frames, const std::string& out) {
    return test::Flowblur({dir / "in.%04d.png", dir / (out + "/o.%04d.png"), "-q", "--quality",
                           "draft", "--threads", "2", "--io-threads", "2", "--frames",
                           "1-" + std::to_string(frames)},
                          measured);
  };
  // The peak of one run moves by a few MiB with how the reading, working and writing threads
  // happen to overlap (more so on a loaded machine), and a long run has more chances to meet a
  // high one. A leak is in every long run, so the lowest long peak is set against the highest
  // short one, the runs interleaved so that a spell of load touches both kinds.
  long shortPeakKb = 0, longPeakKb = 0;
  for (int32_t k = 0; k < 5; ++k) {
    const bool isLong = k % 2 == 1;
    const std::string out = (isLong ? "long" : "short") + std::to_string(k);
    const test::RunResult result = run(isLong ? kLong : kShort, out);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    ASSERT_GT(result.maxRssKb, 0);
    if (isLong) {
      EXPECT_EQ(access((dir / (out + "/o.1000.png")).c_str(), F_OK), 0) << "no last frame";
      longPeakKb = longPeakKb == 0 ? result.maxRssKb : std::min(longPeakKb, result.maxRssKb);
    } else {
      shortPeakKb = std::max(shortPeakKb, result.maxRssKb);
    }
  }
  // A frame kept per frame (a packed 64x48 frame is 9 KiB, a float frame 36 KiB) would add
  // at least 8 MiB over the 900 extra frames; the plan's own per-frame records add well
  // under 1 MiB.
  constexpr long kMarginKb = 4 * 1024;
  EXPECT_LE(longPeakKb, shortPeakKb + kMarginKb)
      << "peak resident size: at most " << shortPeakKb << " KiB for " << kShort
      << " frames, at least " << longPeakKb << " KiB for " << kLong;
}

}  // namespace
}  // namespace flowblur
