// flowblur: the command line of the batch host.
#include <CLI/CLI.hpp>
#include <malloc.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "tools/BatchRun.h"
#include "tools/Demo.h"
#include "tools/FarmScript.h"
#include "tools/FramePipeline.h"
#include "tools/ImageFiles.h"
#include "tools/PluginSession.h"
#include "tools/RetimeCli.h"
#include "tools/Sequence.h"

// The package's version, given by the build (cmake/install.cmake).
#ifndef FLOWBLUR_VERSION
#define FLOWBLUR_VERSION "unknown"
#endif

namespace {

constexpr const char* kDescription =
    "flowblur: optical-flow motion blur for image sequences and movies.\n"
    "Runs the flowblur plug-in over INPUT frame by frame, as a compositing host would, and\n"
    "writes OUTPUT. Sequences are written name.%04d.exr or name.####.exr; the clip is what is\n"
    "on disk (or --clip A-B) and --frames A-B renders part of it: a frame is numbered by its\n"
    "place in the clip, so chunks give the bytes of a whole run.\n"
    "\n"
    "Movies: INPUT (or --motion-from) may be a movie (.mp4, .mov, .mkv, .avi, ...), read frame\n"
    "by frame; its frames are numbered from 1. OUTPUT may be a movie (.mp4, .mov, .mkv, .avi),\n"
    "encoded at the input's frame rate and size (--fps for a sequence, default 24) with\n"
    "--codec h264 (lossy, the default; --crf), ffv1 (lossless RGB(A), .mkv or .avi) or prores\n"
    "(.mov or .mkv). Half and float input becomes 16-bit in a movie (10-bit in h264, prores).\n"
    "\n"
    "Linear light: a real shutter adds up light, so by default (--colorspace auto) frames\n"
    "whose colour space is known (a PNG's or JPEG's sRGB, a movie's transfer tag) are\n"
    "converted to linear light before the plug-in and back after it; such 8-bit input then\n"
    "goes through the plug-in's half-float format (49), so nothing is lost to rounding. EXR\n"
    "is linear already. --colorspace none blurs the stored values as they are.\n"
    "\n"
    "Depths: 8-bit files go through the plug-in as 8-bit (format 24), 16-bit (and other\n"
    "integer) files as 16-bit (48), half-float files as half (49); 32-bit float files are\n"
    "rounded to half on the way in (49) and written back as float. The output keeps the\n"
    "input's depth unless --out-depth says otherwise, and the input's metadata (colour space,\n"
    "pixel aspect, timecode). The plug-in sees RGB; alpha and any other channel are carried\n"
    "through unchanged. A greyscale frame is blurred as R = G = B and written back as one\n"
    "channel.\n"
    "\n"
    "Exit codes: 0 done, 1 input problem, 2 bad command line, 3 output problem, 4 plug-in\n"
    "failure, 5 out of memory, 75 stopped by SIGTERM or SIGUSR1 after a whole frame (run\n"
    "again with --skip-existing), 130 interrupted (Ctrl-C stops at the next frame boundary).\n"
    "\n"
    "  flowblur demo [DIR]   renders the built-in clip, blurs it, writes a contact sheet\n"
    "  flowblur retime INPUT OUTPUT --speed F | --fps-in A --fps-out B | --timemap FILE\n"
    "                        slow motion, speed changes, frame-rate conversion\n"
    "  flowblur deinterlace INPUT OUTPUT --field-order tff|bff [--rate field]\n"
    "                        whole frames from interlaced footage\n"
    "  flowblur farm slurm INPUT OUTPUT --chunk N [--submit] [options]\n"
    "                        writes (and submits) a Slurm job array, one task a chunk\n";

}  // namespace

int main(int argc, char** argv) {
  using namespace flowblur;
  InstallSignalHandlers();
  // Every frame allocates and frees buffers of whole frames. Kept in the process instead of
  // being handed back to the system (large blocks are mapped and unmapped by default), they
  // are not faulted in and zeroed again by the kernel frame after frame: on a half-float
  // sequence at 1080p that was a third of a second of system time every six frames.
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, INT_MAX);

  BatchOptions options;
  std::string amountText = "0.5";
  std::string quality = "best";
  std::string frames, clipText;
  FarmOptions farmOptions;
  std::string outDepth;
  std::string colourText = "auto", codecText, fpsText;
  int32_t crf = 18;
  bool demoMovie = false;
  int32_t threads = static_cast<int32_t>(std::thread::hardware_concurrency());
  // On a farm node, the CPUs the scheduler gave this task, not the machine's.
  if (const char* cpus = std::getenv("SLURM_CPUS_PER_TASK")) {
    char* end = nullptr;
    long given = std::strtol(cpus, &end, 10);
    if (end != cpus && *end == '\0' && given >= 1) threads = static_cast<int32_t>(std::min(given, 127L));
  }
  if (threads < 1) threads = 1;
  if (threads > 127) threads = 127;
  // Decoding and encoding beside the plug-in: half the cores, at least 2 and at most 8 (more
  // threads mostly hold more frames).
  int32_t ioThreads =
      std::min(std::max(static_cast<int32_t>(std::thread::hardware_concurrency()) / 2, 2), 8);
  std::string demoFolder = "flowblur-demo";
  int32_t demoWidth = 960, demoHeight = 540, demoFrames = 24;

  CLI::App app{kDescription, "flowblur"};
  app.get_formatter()->column_width(34);
  app.require_subcommand(0, 1);
  app.set_version_flag("--version", std::string("flowblur ") + FLOWBLUR_VERSION,
                       "Print the version and exit");
  CLI::App* demo = app.add_subcommand("demo", "Render, blur and show the built-in demo clip");
  demo->fallthrough();
  CLI::App* farm = app.add_subcommand("farm", "Split a render into chunks for a render farm");
  farm->fallthrough();
  farm->require_subcommand(1, 1);
  CLI::App* slurm = farm->add_subcommand(
      "slurm", "Write a Slurm batch script with one array task a chunk (and submit it)");
  slurm->fallthrough();
  slurm->add_option("INPUT", options.input, "Input sequence")->required();
  slurm->add_option("OUTPUT", options.output, "Output sequence")->required();
  slurm->add_option("--chunk", farmOptions.chunk, "Frames a task")->required()->check(CLI::PositiveNumber);
  slurm->add_option("--partition", farmOptions.partition, "Slurm partition (default: the cluster's)");
  slurm->add_option("--time", farmOptions.time,
                    "Time limit a task, as sbatch takes it (e.g. 2:00:00); two minutes before "
                    "it the task finishes its frame and is requeued");
  slurm->add_option("--script", farmOptions.script,
                    "Where the script goes (default: OUTPUT's folder/flowblur-slurm.sh); task "
                    "logs go to logs/ beside it");
  slurm->add_flag("--submit", farmOptions.submit, "Run sbatch on it and print the job id");

  app.add_option("INPUT", options.input, "Input sequence, e.g. shot.%04d.exr or shot.####.exr");
  app.add_option("OUTPUT", options.output, "Output sequence (a new name; see --overwrite)");
  app.add_option("--amount", amountText,
                 "Amount of Blur, a fraction of the frame-to-frame motion, -2 to 10 "
                 "(negative sharpens along the motion)")
      ->default_str("0.5");
  app.add_option("--quality", quality,
                 "best: flow at half the frame size; draft: at a quarter")
      ->check(CLI::IsMember({"best", "draft"}, CLI::ignore_case))
      ->default_str("best");
  app.add_option("--motion-from", options.motionFrom,
                 "Back sequence that supplies the motion (Motion From Back); the input "
                 "still supplies the pixels. Same size and frame range as the input");
  app.add_option("--frames", frames,
                 "Frames to render, A-B (or one frame A), within the clip; a last frame past "
                 "the clip's end is clamped. Default: the whole clip");
  app.add_option("--clip", clipText,
                 "The clip, A-B: the frames numbered from 0 for the plug-in and read as "
                 "neighbours. Default: every frame of INPUT on disk");
  app.add_option("--threads", threads, "Host processors for the plug-in, 1 to 127")
      ->default_str(std::to_string(threads));
  app.add_option("--io-threads", ioThreads,
                 "Threads that read and decode the next frames and encode and write finished "
                 "ones while the plug-in works, 0 to 64 (0: all in turn on one thread). Memory: "
                 "up to N more input frames decoded ahead and N finished frames waiting to be "
                 "written, about 3 x N frames as float beside the run's own")
      ->default_str(std::to_string(ioThreads));
  app.add_option("--out-depth", outDepth, "Output depth: 8, 16, half or float (default: input's)")
      ->check(CLI::IsMember({"8", "16", "half", "float"}));
  app.add_option("--colorspace", colourText,
                 "The input's encoding: auto (from the file; EXR is linear), none (blur the "
                 "stored values), linear, srgb, rec709, or a name of $OCIO's configuration. "
                 "Encoded input is blurred in linear light, through half-float")
      ->default_str("auto");
  app.add_option("--compression", options.writing.compression, kCompressionHelp);
  app.add_option("--codec", codecText,
                 "Movie OUTPUT codec: h264 (lossy, default), ffv1 (lossless; .mkv, .avi), "
                 "prores (.mov, .mkv)");
  app.add_option("--crf", crf, "h264 quality: constant rate factor, 0 (lossless) to 51")
      ->default_str("18");
  app.add_option("--fps", fpsText,
                 "Movie OUTPUT frame rate, e.g. 25 or 30000/1001 (default: the input movie's, "
                 "else 24)");
  app.add_flag("--overwrite", options.overwrite, "Replace existing output files");
  app.add_flag("--skip-existing", options.skipExisting,
               "Leave frames whose output exists alone (to resume a stopped run)");
  app.add_flag("-q,--quiet", options.quiet,
               "No progress line (or line a frame, off a terminal) and no summary; errors only");
  app.add_option("--write-flow", options.flowFolder,
                 "Also write each frame's flow into DIR as flow.NNNN.png (hue: direction of "
                 "motion, saturation: length, legend wheel lower right)");
  app.add_flag("--write-flow-exr", options.flowExr,
               "With --write-flow: also the raw flow as two-channel float EXR (u, v) at the "
               "estimator's size, as the estimator delivers it");
  demo->add_option("DIR", demoFolder, "Folder for the demo's files")->default_str("flowblur-demo");
  demo->add_option("--size", demoWidth, "Demo frame width (height follows 16:9)")
      ->check(CLI::Range(64, 3840));
  demo->add_option("--length", demoFrames, "Demo frames")->check(CLI::Range(2, 240));
  demo->add_flag("--movie", demoMovie, "Also write DIR/demo.mp4 of the blurred frames");
  RetimeCli retimeCli(&app, demo, threads);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int code = app.exit(e);
    return code == 0 ? kExitOk : kExitUsage;
  }

  if (retimeCli.Parsed()) return retimeCli.Run();
  auto usage = [](const std::string& text) {
    std::fprintf(stderr, "flowblur: %s\n", text.c_str());
    return kExitUsage;
  };
  // Controls outside their range are refused, not clamped: a silently different amount
  // would be a silently different picture.
  char* end = nullptr;
  double amount = std::strtod(amountText.c_str(), &end);
  if (amountText.empty() || *end != '\0' || !std::isfinite(amount))
    return usage("--amount '" + amountText + "' is not a number");
  if (amount < AmountMinimum() || amount > AmountMaximum()) {
    char text[160];
    std::snprintf(text, sizeof text, "--amount %s is outside the plug-in's range %g to %g",
                  amountText.c_str(), static_cast<double>(AmountMinimum()),
                  static_cast<double>(AmountMaximum()));
    return usage(text);
  }
  options.controls.amount = static_cast<float>(amount);
  options.controls.quality = CLI::detail::to_lower(quality) == "draft" ? 1 : 0;
  options.controls.motionFromBack = !options.motionFrom.empty();
  if (threads < 1 || threads > 127)
    return usage("--threads " + std::to_string(threads) + " is outside 1 to 127");
  options.threads = threads;
  if (ioThreads < 0 || ioThreads > kMaxIoThreads)
    return usage("--io-threads " + std::to_string(ioThreads) + " is outside 0 to " +
                 std::to_string(kMaxIoThreads));
  options.ioThreads = ioThreads;
  options.haveIoThreads = app.count("--io-threads") > 0;
  if (!outDepth.empty()) {
    options.haveOutDepth = ParseDepth(outDepth, &options.outDepth);
    if (!options.haveOutDepth) return usage("--out-depth must be 8, 16, half or float");
  }
  if (!frames.empty()) {
    std::string error;
    if (!ParseFrameRange(frames, &options.firstFrame, &options.lastFrame, &error))
      return usage(error);
    options.haveFrames = true;
  }
  if (!clipText.empty()) {
    std::string error;
    if (!ParseFrameRange(clipText, &options.clipFirst, &options.clipLast, &error))
      return usage("--clip" + error.substr(error.find(' ')));
    options.haveClip = true;
  }
  if (options.overwrite && options.skipExisting)
    return usage("--overwrite and --skip-existing contradict each other; give one");
  if (options.flowExr && options.flowFolder.empty())
    return usage("--write-flow-exr needs --write-flow DIR");
  {
    std::string error;
    if (!ParseColourChoice(colourText, &options.colour, &error)) return usage(error);
    if (!codecText.empty() && !ParseMovieCodec(codecText, &options.writing.codec))
      return usage("--codec must be h264, ffv1 or prores, not '" + codecText + "'");
    options.writing.haveCodec = !codecText.empty();
    options.writing.haveCrf = app.count("--crf") > 0;
    options.writing.crf = crf;
    if (options.writing.haveCrf && options.writing.codec != MovieCodec::kH264)
      return usage(std::string("--crf applies to h264 only, not to ") +
                   MovieCodecName(options.writing.codec));
    if (crf < 0 || crf > 51) return usage("--crf " + std::to_string(crf) + " is outside 0 to 51");
    if (!fpsText.empty() && !ParseFrameRate(fpsText, &options.writing.rate, &error))
      return usage("--fps: " + error);
    options.writing.haveRate = !fpsText.empty();
    if (!CheckOutputCompression(options.output, options.writing.compression, &error))
      return usage(error);
  }

  if (slurm->parsed()) {
    farmOptions.threads = app.count("--threads") > 0 ? threads : 0;
    return RunFarmSlurm(options, farmOptions);
  }
  if (demo->parsed()) {
    if (!options.input.empty() || !options.output.empty())
      return usage("demo takes only a folder");
    demoHeight = std::max(demoWidth * 9 / 16, 36);
    if (retimeCli.DemoWanted())
      return retimeCli.RunDemo(demoFolder, demoWidth, demoHeight, demoFrames, threads,
                               options.quiet);
    return RunDemo(demoFolder, options, demoWidth, demoHeight, demoFrames, demoMovie);
  }
  if (options.input.empty() || options.output.empty())
    return usage("INPUT and OUTPUT are needed (or: flowblur demo [DIR]); see --help");
  return RunBatch(options);
}
