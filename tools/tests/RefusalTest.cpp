// flowblur tool tests: every refused command line and input, for each command: its message,
// its exit code, and a folder left exactly as it was.
#include <gtest/gtest.h>

#include <fstream>

#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

struct Refusal {
  std::vector<std::string> args;  // '@' stands for the test's folder
  int code;
  const char* says;  // '@' likewise
};

// Inputs: in (3 frames), gap (frame 2 missing), bad (frame 2 not a picture), wide (frame 3
// narrower), small (another size), short (2 frames), one (1 frame), odd (63 rows), rgba (with
// alpha), mixed (frame 2 16-bit), whole.mp4 (3 frames) and cut.mp4 (its first half),
// notes.mov (text), words.txt (a time map with a bad line), plainfile, and mine/ holding an
// output the user made.
const Refusal kRefusals[] = {
    // Input sequences and back sequences.
    {{"@/gap.%04d.png", "@/o/o.%04d.png"}, 1, "'@/gap.0002.png' is missing"},
    {{"@/in.####.png", "@/o/o.####.png", "--clip", "1-5"}, 1,
     "'@/in.0004.png' is missing (the sequence runs from 1 to 5)"},
    {{"@/in.####.png", "@/o/o.####.png", "--frames", "0-2"}, 1,
     "--frames starts at 0, outside the clip (frames 1 to 3)"},
    {{"@/none.%04d.png", "@/o/o.%04d.png"}, 1, "no input frames match"},
    {{"@/wide.%04d.png", "@/o/o.%04d.png"}, 1, "'@/wide.0003.png' is 90x64, but"},
    {{"@/bad.%04d.png", "@/o/o.%04d.png"}, 1, "cannot read '@/bad.0002.png'"},
    {{"@/in.%04d.png", "@/o/o.%04d.png", "--motion-from", "@/small.%04d.png"}, 1,
     "back frame '@/small.0001.png' is 48x32"},
    {{"@/in.%04d.png", "@/o/o.%04d.png", "--motion-from", "@/short.%04d.png"}, 1,
     "back frame '@/short.0003.png' is missing"},
    // Outputs that cannot be written; the folders made for them are removed again.
    {{"@/in.%04d.png", "@/in.%04d.png", "--overwrite"}, 3,
     "output '@/in.0001.png' is the input file"},
    {{"@/in.%04d.png", "@/mine/out.%04d.png"}, 3, "'@/mine/out.0002.png' exists; use --overwrite"},
    {{"@/in.%04d.png", "@/plainfile/o.%04d.png"}, 3, "'@/plainfile'"},
    {{"@/in.%04d.png", "/proc/flowblur-nowhere/o.%04d.png"}, 3,
     "cannot create output folder '/proc/flowblur-nowhere'"},
    {{"@/in.%04d.png", "@/new/deeper/o.%04d.png", "--write-flow", "@/plainfile/flow"}, 3,
     "'@/plainfile'"},
    // Controls and command lines.
    {{"@/in.%04d.png", "@/o.%04d.png", "--amount", "12"}, 2,
     "--amount 12 is outside the plug-in's range -2 to 10"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--amount", "nan"}, 2, "is not a number"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--amount", "0.5x"}, 2, "is not a number"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--threads", "0"}, 2, "--threads 0 is outside 1 to 127"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--threads", "128"}, 2, "--threads 128 is outside 1 to 127"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--quality", "ultra"}, 2, "--quality"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--out-depth", "12"}, 2, "--out-depth"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--frames", "5-2"}, 2, "the first frame is after the last"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--clip", "3-1"}, 2,
     "--clip '3-1': the first frame is after the last"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--overwrite", "--skip-existing"}, 2,
     "contradict each other"},
    {{"@/in.%04d.png", "@/single.png"}, 2, "has no frame number"},
    {{"@/in.%04d.png"}, 2, "INPUT and OUTPUT are needed"},
    {{"@/in.%04d.%04d.png", "@/o.%04d.png"}, 2, "more than one frame-number token"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--write-flow-exr"}, 2, "needs --write-flow"},
    // Movies in and out, and colour spaces.
    {{"@/cut.mp4", "@/o.%04d.png"}, 1, "cannot read movie '@/cut.mp4'"},
    {{"@/notes.mov", "@/o.mkv"}, 1, "'@/notes.mov'"},
    {{"@/none.mkv", "@/o.mkv"}, 1, "'@/none.mkv' does not exist"},
    {{"@/whole.mp4", "@/o.%04d.png", "--frames", "9"}, 1, "outside the clip (frames 1 to 3)"},
    {{"@/rgba.%04d.png", "@/o.mp4"}, 3, "cannot hold alpha"},
    {{"@/in.%04d.png", "@/o.mp4", "--codec", "ffv1"}, 3, "cannot hold ffv1"},
    {{"@/in.%04d.png", "@/o.mkv", "--out-depth", "half"}, 3, "cannot hold half"},
    {{"@/in.%04d.png", "@/o.mkv", "--codec", "ffv1", "--crf", "20"}, 2,
     "--crf applies to h264 only"},
    {{"@/in.%04d.png", "@/o.mkv", "--codec", "vp9"}, 2, "--codec"},
    {{"@/in.%04d.png", "@/o.mkv", "--skip-existing"}, 2, "--skip-existing"},
    {{"@/in.%04d.png", "@/o.%04d.png", "--colorspace", "nonsense"}, 2,
     "unknown colour space 'nonsense'"},
    // Retiming and deinterlacing.
    {{"retime", "@/in.%04d.png", "@/o/o.%04d.png", "--timemap", "@/words.txt"}, 2,
     "line 2: 'fast slow' is not two numbers"},
    {{"retime", "@/in.%04d.png", "@/o/o.%04d.png", "--timemap", "@/none.txt"}, 2,
     "cannot read time map"},
    {{"retime", "@/in.%04d.png", "@/o/o.%04d.png", "--speed", "0"}, 2, "--speed 0"},
    {{"retime", "@/in.%04d.png", "@/o/o.%04d.png", "--speed", "half"}, 2,
     "--speed 'half' is not a number"},
    {{"retime", "@/in.%04d.png", "@/o/o.%04d.png", "--speed", "1", "--fps-in", "24", "--fps-out",
      "60"},
     2, "--speed and --fps-in/--fps-out both give the speed"},
    {{"retime", "@/in.%04d.png", "@/o/o.%04d.png", "--fps-in", "24"}, 2,
     "--fps-in and --fps-out go together"},
    {{"retime", "@/in.%04d.png", "@/o/o.%04d.png"}, 2, "retime needs a time map"},
    {{"retime", "@/in.%04d.png", "@/o/o.%04d.png", "--speed", "1", "--shutter", "2"}, 2,
     "--shutter '2'"},
    {{"retime", "@/one.%04d.png", "@/o/o.%04d.png", "--speed", "0.5"}, 1,
     "has one frame; retiming needs two or more"},
    {{"retime", "@/in.%04d.png", "@/in.%04d.png", "--speed", "0.5"}, 3, "is an input file"},
    {{"retime", "@/in.%04d.png", "@/o/o.%04d.png", "--speed", "0.5", "--frames", "9-10"}, 2,
     "--frames starts at 9, outside the output"},
    {{"retime", "@/gap.%04d.png", "@/o/o.%04d.png", "--speed", "0.5"}, 1,
     "'@/gap.0002.png' is missing"},
    {{"retime", "@/wide.%04d.png", "@/o/o.%04d.png", "--speed", "0.5"}, 1,
     "'@/wide.0003.png' is 90x64, but"},
    {{"retime", "@/bad.%04d.png", "@/o/o.%04d.png", "--speed", "0.5"}, 1,
     "cannot read '@/bad.0002.png'"},
    {{"retime", "@/mixed.%04d.png", "@/o/o.%04d.png", "--speed", "0.5"}, 1,
     "'@/mixed.0002.png' has other channels or another depth"},
    {{"@/mixed.%04d.png", "@/o/o.%04d.png"}, 1,
     "'@/mixed.0002.png' has other channels or another depth"},
    {{"retime", "@/in.%04d.png", "@/mine/out.%04d.png", "--speed", "1"}, 3,
     "'@/mine/out.0002.png' exists; use --overwrite"},
    {{"deinterlace", "@/odd.%04d.png", "@/o/o.%04d.png", "--field-order", "tff"}, 1,
     "field work needs an even number of rows"},
    {{"deinterlace", "@/one.%04d.png", "@/o/o.%04d.png", "--field-order", "tff", "--rate",
      "field"},
     1, "has one frame; field rate needs two or more"},
    {{"deinterlace", "@/in.%04d.png", "@/o/o.%04d.png"}, 2, "--field-order is required"},
    // Compression, by OUTPUT's format, in every command.
    {{"@/in.%04d.png", "@/o/o.%04d.png", "--compression", "piz"}, 2,
     "--compression for PNG files is a zlib level 0 to 9, not 'piz'"},
    {{"@/in.%04d.png", "@/o/o.%04d.dpx", "--compression", "3"}, 2,
     "--compression does not apply to .dpx files"},
    {{"@/in.%04d.png", "@/o/o.mp4", "--compression", "9"}, 2, "a movie takes --codec and --crf"},
    {{"@/in.%04d.png", "@/o/o.%04d.jpg", "--compression", "0"}, 2, "a quality 1 to 100, not '0'"},
    {{"retime", "@/in.%04d.png", "@/o/o.%04d.tif", "--speed", "0.5", "--compression", "rle"}, 2,
     "--compression for TIFF files is one of none, lzw, zip, packbits, not 'rle'"},
    // Farm scripts and the demo.
    {{"farm", "slurm", "@/in.%04d.png", "@/o/o.%04d.png", "--chunk", "0"}, 2, "--chunk"},
    {{"farm", "slurm", "@/in.%04d.png", "@/mine/out.%04d.png", "--chunk", "3", "--script",
      "@/job.sh"},
     3, "use --overwrite to replace it or --skip-existing to keep it"},
    {{"demo", "@/mine", "--size", "192", "--length", "4"}, 3, "already holds other files"},
};

std::string At(std::string text, const std::string& folder) {
  for (size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at + 1))
    text.replace(at, 1, folder);
  return text;
}

TEST(Refusals, EachNamesItsReasonExitsWithItsCodeAndWritesNothing) {
  test::TempDir dir;
  test::WriteClip(dir / "in.%04d.png", 1, 3, SampleDepth::k8, 3);
  test::WriteClip(dir / "gap.%04d.png", 1, 1, SampleDepth::k8, 3);
  test::WriteClip(dir / "gap.%04d.png", 3, 1, SampleDepth::k8, 3);
  test::WriteClip(dir / "bad.%04d.png", 1, 3, SampleDepth::k8, 3);
  std::ofstream(dir / "bad.0002.png", std::ios::trunc) << "this is not a picture";
  test::WriteClip(dir / "wide.%04d.png", 1, 2, SampleDepth::k8, 3);
  test::WriteClip(dir / "wide.%04d.png", 3, 1, SampleDepth::k8, 3, 90, 64);
  test::WriteClip(dir / "small.%04d.png", 1, 3, SampleDepth::k8, 3, 48, 32);
  test::WriteClip(dir / "short.%04d.png", 1, 2, SampleDepth::k8, 3);
  test::WriteClip(dir / "one.%04d.png", 1, 1, SampleDepth::k8, 3);
  test::WriteClip(dir / "odd.%04d.png", 1, 2, SampleDepth::k8, 3, 96, 63);
  test::WriteClip(dir / "rgba.%04d.png", 1, 3, SampleDepth::k8, 4);
  test::WriteClip(dir / "mixed.%04d.png", 1, 1, SampleDepth::k8, 3);
  test::WriteClip(dir / "mixed.%04d.png", 2, 1, SampleDepth::k16, 3);
  ASSERT_TRUE(test::Succeeds({dir / "in.%04d.png", dir / "whole.mp4", "-q", "--amount", "0"}));
  const std::string movie = test::ReadBytes(dir / "whole.mp4");
  std::ofstream(dir / "cut.mp4", std::ios::binary) << movie.substr(0, movie.size() / 2);
  std::ofstream(dir / "notes.mov") << "not a movie";
  std::ofstream(dir / "words.txt") << "1 1\nfast slow\n";
  std::ofstream(dir / "plainfile") << "x";
  mkdir((dir / "mine").c_str(), 0755);
  std::ofstream(dir / "mine/out.0002.png") << "mine";
  for (const Refusal& r : kRefusals) {
    std::vector<std::string> args;
    for (const std::string& a : r.args) args.push_back(At(a, dir.path()));
    SCOPED_TRACE(r.says);
    const auto before = test::Snapshot(dir.path());
    const test::RunResult run = test::Flowblur(args);
    EXPECT_EQ(run.exitCode, r.code) << run.err;
    EXPECT_NE(run.err.find(At(r.says, dir.path())), std::string::npos) << run.err;
    EXPECT_TRUE(test::Snapshot(dir.path()) == before);
  }
}

}  // namespace
}  // namespace flowblur
