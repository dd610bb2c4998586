// flowblur tool tests: chunked renders against whole ones, resuming after a kill or a stop
// signal, and the Slurm script run task by task without a scheduler.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "tools/ImageFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

using test::Flowblur;

// The demo clip as PNGs in DIR/input/demo.NNNN.png, frames 1 to `frames`.
std::string DemoInput(const test::TempDir& dir, int32_t frames, int32_t width) {
  test::RunResult r = Flowblur({"demo", dir / "demo", "--size", std::to_string(width), "--length",
                                std::to_string(frames), "-q"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  return dir / "demo/input/demo.%04d.png";
}

TEST(ChunkedRegression, FramesTwoToThreeOfAThreeFrameSequenceMatchTheWholeRun) {
  test::TempDir dir;
  const std::string in = DemoInput(dir, 3, 96);
  ASSERT_TRUE(test::Succeeds({in, dir / "whole/o.%04d.png", "-q"}));
  ASSERT_TRUE(test::Succeeds({in, dir / "part/o.%04d.png", "--frames", "2-3", "-q"}));
  auto whole = test::Snapshot(dir / "whole");
  whole.erase("o.0001.png");
  EXPECT_TRUE(test::Snapshot(dir / "part") == whole);
}

struct StopCase {
  int signal, exitCode;
  const char* says;
};
class Resume : public ::testing::TestWithParam<StopCase> {};

// Outputs of a stopped run: whole frames under final names only, then a resumed run that
// finishes the rest and matches a run that was never stopped.
TEST_P(Resume, AStoppedRunLeavesWholeFramesAndSkipExistingFinishesIt) {
  const auto [signal, exitCode, says] = GetParam();
  test::TempDir dir;
  const std::string in = DemoInput(dir, 24, 256);
  ASSERT_TRUE(test::Succeeds({in, dir / "whole/o.%04d.png", "-q", "--threads", "1"}));
  const std::string first = dir / "out/o.0001.png";
  pid_t stopped = 0;
  test::RunOptions options;
  options.whileRunning = [&](pid_t child) {  // the signal once the first output is there
    stopped = child;
    for (int i = 0; i < 20000 && access(first.c_str(), F_OK) != 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    kill(child, GetParam().signal);
  };
  test::RunResult r = Flowblur({in, dir / "out/o.%04d.png", "--threads", "1"}, options);
  EXPECT_EQ(r.exitCode, exitCode) << r.err;
  EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
  const auto whole = test::Snapshot(dir / "whole");
  const auto written = test::Snapshot(dir / "out");
  EXPECT_GT(written.size(), 0u);
  EXPECT_LT(written.size(), whole.size());
  if (signal != SIGKILL) {
    EXPECT_NE(r.err.find(std::to_string(written.size()) + " of 24 frames written"),
              std::string::npos)
        << r.err;
  }
  for (const auto& [name, bytes] : written) {
    if (name[0] == '.') continue;
    EXPECT_EQ(bytes, whole.at(name)) << "partial or wrong frame " << name;
  }
  // What a write cut short leaves: a hidden temporary of the stopped process.
  std::ofstream(dir / ("out/.o.0024.partial-" + std::to_string(stopped) + ".png")) << "cut";
  r = Flowblur({in, dir / "out/o.%04d.png", "--skip-existing", "--threads", "1"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.err.find("skipped: their output existed"), std::string::npos) << r.err;
  // Nothing else is left, not even a killed write's hidden temporary file.
  const auto resumed = test::Snapshot(dir / "out");
  for (const auto& [name, bytes] : resumed)
    EXPECT_TRUE(whole.count(name) && whole.at(name) == bytes) << "left over or wrong: " << name;
  EXPECT_EQ(resumed.size(), whole.size());
}

// Ctrl-C stops at a frame boundary, a kill anywhere; the stop signals finish the frame.
INSTANTIATE_TEST_SUITE_P(Signals, Resume,
                         ::testing::Values(StopCase{SIGINT, 130, "interrupted"},
                                           StopCase{SIGKILL, 128 + SIGKILL, ""},
                                           StopCase{SIGTERM, 75, "stopped by SIGTERM after a whole frame"},
                                           StopCase{SIGUSR1, 75, "stopped by SIGUSR1 after a whole frame"}));

TEST(FarmLog, OneLineAFrameOffATerminalAndTheSchedulersThreadCount) {
  test::TempDir dir;
  const std::string in = DemoInput(dir, 3, 96);
  test::RunResult r = Flowblur({in, dir / "out/o.%04d.png"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  for (int f = 1; f <= 3; ++f)
    EXPECT_NE(r.err.find("frame " + std::to_string(f) + " done in "), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(" s: " + dir / "out/o.0003.png"), std::string::npos) << r.err;
  setenv("SLURM_CPUS_PER_TASK", "5", 1);
  r = Flowblur({"--help"});
  unsetenv("SLURM_CPUS_PER_TASK");
  EXPECT_NE(r.out.find("--threads INT=5 "), std::string::npos) << r.out;
}

// Each task as the scheduler would start it: a chunk at the clip's start, one in its middle and
// one overshooting its end (7 to 9), with motion from a back sequence, whose handles a chunk
// reads too; together the bytes of a whole run.
TEST(FarmSlurm, TheScriptsTasksGiveTheWholeRun) {
  test::TempDir dir;
  const std::string in = DemoInput(dir, 7, 96);
  const std::vector<std::string> controls = {"--amount", "0.75", "--colorspace", "none",
                                             "--motion-from", dir / "demo/output/demo.%04d.png"};
  std::vector<std::string> whole = {in, dir / "whole/o.%04d.png", "-q"};
  whole.insert(whole.end(), controls.begin(), controls.end());
  ASSERT_TRUE(test::Succeeds(whole));
  const std::string script = dir / "job/render.sh";
  std::vector<std::string> farm = {"farm", "slurm", in, dir / "out/o.%04d.png", "--chunk", "3",
                                   "--script", script, "--threads", "2", "--time", "0:30:00",
                                   "--partition", "debug"};
  farm.insert(farm.end(), controls.begin(), controls.end());
  ASSERT_TRUE(test::Succeeds(farm));
  const std::string text = test::ReadBytes(script);
  for (const char* line : {"#SBATCH --array=0-2\n", "#SBATCH --cpus-per-task=2\n",
                           "#SBATCH --partition=debug\n", "#SBATCH --time=0:30:00\n",
                           "--clip' '1-7'", "--skip-existing", "'--colorspace' 'none'",
                           "'--motion-from'"})
    EXPECT_NE(text.find(line), std::string::npos) << line << " in\n" << text;
  EXPECT_NE(text.find("#SBATCH --output=" + dir / "job/logs/flowblur-%A_%a.log"),
            std::string::npos);
  // --io-threads is passed on only when given, else left to the node's own default.
  EXPECT_EQ(text.find("--io-threads"), std::string::npos) << text;
  ASSERT_TRUE(test::Succeeds({"farm", "slurm", in, dir / "out/o.%04d.png", "--chunk", "3",
                              "--script", dir / "io.sh", "--io-threads", "3",
                              "--compression", "6"}));
  for (const char* passed : {"'--io-threads' '3'", "'--compression' '6'"})
    EXPECT_NE(test::ReadBytes(dir / "io.sh").find(passed), std::string::npos) << passed;
  for (int task = 0; task < 3; ++task) {
    setenv("SLURM_ARRAY_TASK_ID", std::to_string(task).c_str(), 1);
    setenv("SLURM_CPUS_PER_TASK", "2", 1);
    const test::RunResult r = test::RunCommand("/bin/bash", {script});
    EXPECT_EQ(r.exitCode, 0) << r.err;
  }
  unsetenv("SLURM_ARRAY_TASK_ID");
  unsetenv("SLURM_CPUS_PER_TASK");
  EXPECT_TRUE(test::Snapshot(dir / "out") == test::Snapshot(dir / "whole"));
}

}  // namespace
}  // namespace flowblur
