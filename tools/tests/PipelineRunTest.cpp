// flowblur tool tests: the batch host with its I/O pipeline against the same run done in turn
// on one thread: the same bytes in every format, and a read that fails mid-run stops the run
// as it would without the pipeline.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "tools/ImageFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

constexpr int32_t kFrames = 7;

using test::Flowblur;

struct Format {
  const char* ext;
  SampleDepth depth;
  int32_t channels;
  bool flow;  // also --write-flow
};
class PipelineRun : public ::testing::TestWithParam<Format> {};

TEST_P(PipelineRun, GivesTheBytesOfARunDoneInTurn) {
  const Format f = GetParam();
  test::TempDir dir;
  const std::string in = dir / (std::string("in.%04d.") + f.ext);
  test::WriteClip(in, 1, kFrames, f.depth, f.channels);
  auto run = [&](const std::string& name, const std::string& threads, const std::string& io) {
    std::vector<std::string> args = {in, dir / (name + "/o.%04d." + f.ext), "-q", "--amount", "1.5",
                                     "--threads", threads, "--io-threads", io};
    // (Not --write-flow-exr: its writer stamps the time into the file.)
    if (f.flow) args.insert(args.end(), {"--write-flow", dir / (name + "/flow")});
    test::RunResult r = Flowblur(args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return test::Snapshot(dir / name);
  };
  const auto inTurn = run("in-turn", "1", "0");
  ASSERT_EQ(inTurn.count(std::string("o.0007.") + f.ext), 1u);
  EXPECT_EQ(test::Load(dir / (std::string("in-turn/o.0001.") + f.ext)).info.depth, f.depth);
  // Identical bytes for any number of processors and I/O threads.
  for (const auto& [threads, io] : {std::pair<const char*, const char*>{"2", "1"}, {"3", "3"},
                                    {"8", "1"}}) {
    const std::string name = std::string("t") + threads + "-io" + io;
    EXPECT_TRUE(run(name, threads, io) == inTurn) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, PipelineRun,
                         ::testing::Values(Format{"png", SampleDepth::k8, 4, true},
                                           Format{"tif", SampleDepth::k16, 3, false},
                                           Format{"exr", SampleDepth::kHalf, 4, false},
                                           Format{"exr", SampleDepth::kFloat, 1, false}),
                         [](const ::testing::TestParamInfo<Format>& info) {
                           return std::string(info.param.ext) + DepthName(info.param.depth);
                         });

// A frame whose header reads but whose pixels do not (cut short after the checks passed it)
// stops the run with the input's exit code and the file named, whatever the pipeline had read
// ahead or had still to write: the frames written are those a run done in turn writes, whole,
// and no temporary file is left.
TEST(PipelineRunStops, AReadThatFailsMidRun) {
  test::TempDir dir;
  const std::string in = dir / "in.%04d.exr";
  test::WriteClip(in, 1, kFrames, SampleDepth::kHalf, 3);
  {
    const std::string cut = dir / "in.0005.exr";
    std::ifstream file(cut, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    file.close();
    std::ofstream(cut, std::ios::binary | std::ios::trunc) << bytes.substr(0, bytes.size() / 2);
  }
  std::map<std::string, std::string> inTurn;
  for (const char* io : {"0", "1", "3"}) {
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
