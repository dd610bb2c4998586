// flowblur: the command lines of `flowblur retime`, `flowblur deinterlace` and the demo's
// --retime.
#include "tools/RetimeCli.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "fill/InterpolateField.h"
#include "tools/ClipFiles.h"
#include "tools/ImageFiles.h"
#include "tools/Messages.h"

namespace flowblur {

namespace {

constexpr const char* kRetimeHelp =
    "Makes frames that were never shot: slow motion, speed changes, frame-rate conversion,\n"
    "speed ramps. Output frame k shows a source time given by exactly one of --speed,\n"
    "--fps-in/--fps-out or --timemap; frames between two source frames are made from the\n"
    "optical flow between them, times on a source frame give that frame back unchanged.\n"
    "Depth and alpha are kept; output frames are numbered from the first input frame (or\n"
    "--start N). Example:\n"
    "  flowblur retime shot.####.exr slow/shot.####.exr --speed 0.5 --shutter 0.5\n";

constexpr const char* kDeinterlaceHelp =
    "Makes whole frames of interlaced footage. By default one frame out per frame in: the\n"
    "first field's rows are kept and the other rows rebuilt by --method. With --rate field,\n"
    "two frames out per frame in, one per field: each keeps its field's rows and takes the\n"
    "others from the motion-compensated picture of the neighbouring fields. Example:\n"
    "  flowblur deinterlace tape.####.png out/tape.####.png --field-order tff --rate field\n";

int Usage(const std::string& text) {
  Say(text);
  return kExitUsage;
}

bool WholeNumber(const std::string& text, int64_t* value) {
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  *value = v;
  return !text.empty() && *end == '\0' && v >= 0;
}

}  // namespace

RetimeCli::RetimeCli(CLI::App* app, CLI::App* demo, int32_t threads) {
  retimeCommon_.threads = threads;
  deinterlaceCommon_.threads = threads;

  retime_ = app->add_subcommand("retime", "Slow motion, speed changes, frame-rate conversion");
  retime_->description(kRetimeHelp);
  AddCommon(retime_, &retimeOptions_.run, &retimeCommon_);
  retime_->add_option("--speed", speed_,
                      "Playback speed: 0.5 plays at half speed (about twice the frames), 2 at "
                      "double speed, negative backwards");
  retime_->add_option("--fps-in", fpsIn_, "Input frame rate, e.g. 24 or 24000/1001 (with --fps-out)");
  retime_->add_option("--fps-out", fpsOut_, "Output frame rate, e.g. 60 (with --fps-in)");
  retime_->add_option("--timemap", retimeOptions_.timeMapFile,
                      "File of lines 'OUTPUT_FRAME SOURCE_TIME' (source time in input frame "
                      "numbers, fractional), interpolated linearly between keys; output frames "
                      "are numbered as the file numbers them");
  retime_->add_option("--method", method_,
                      "nearest: the nearer frame moved along the flow; blend: cross-fade, no "
                      "flow; flow: both frames moved along the flow and cross-faded; dissolve: "
                      "as flow, a cut where the flows disagree")
      ->check(CLI::IsMember({"nearest", "blend", "flow", "dissolve"}))
      ->default_str("flow");
  retime_->add_option("--warp", warp_,
                      "gather: each pixel fetches along the flow; forward: the frame is pushed "
                      "along the flow as a mesh. Holes are filled either way")
      ->check(CLI::IsMember({"gather", "forward"}))
      ->default_str("gather");
  retime_->add_option("--shutter", shutter_,
                      "Motion blur on made frames, a fraction of the output frame interval "
                      "(0 to 1; 0: none, 0.5: a half-open shutter)")
      ->default_str("0");

  deinterlace_ = app->add_subcommand("deinterlace", "Whole frames from interlaced footage");
  deinterlace_->description(kDeinterlaceHelp);
  AddCommon(deinterlace_, &deinterlaceOptions_.run, &deinterlaceCommon_);
  deinterlace_->add_option("--field-order", fieldOrder_,
                           "tff: the top field (row 0) is first in time; bff: the bottom")
      ->check(CLI::IsMember({"tff", "bff"}))
      ->required();
  deinterlace_->add_option("--method", fieldMethod_,
                           "Rebuilding rows from one field: line (repeat), average, edge3, "
                           "edge5 (edge-directed). At field rate: the first and last fields")
      ->check(CLI::IsMember({"line", "average", "edge3", "edge5"}))
      ->default_str("average");
  deinterlace_->add_option("--rate", rate_,
                           "frame: one frame out per frame in; field: two, one per field, "
                           "motion compensated")
      ->check(CLI::IsMember({"frame", "field"}))
      ->default_str("frame");

  demo->add_flag("--retime", demoRetime_,
                 "Write a half-speed version of the demo clip instead of blurring it, with a "
                 "contact sheet of source, made frame and flow");
}

void RetimeCli::AddCommon(CLI::App* command, ResampleOptions* run, Common* common) {
  command->add_option("INPUT", run->input, "Input sequence, e.g. shot.%04d.exr or shot.####.exr")
      ->required();
  command->add_option("OUTPUT", run->output, "Output sequence (a new name; see --overwrite)")
      ->required();
  command->add_option("--start", common->start,
                      "Number of the first output frame (default: the first input frame's)");
  command->add_option("--frames", common->frames,
                      "Output frames to make, A-B (or one frame A); chunks give the bytes of "
                      "a whole run");
  command->add_option("--quality", common->quality,
                      "best: flow at half the frame size; draft: at a quarter")
      ->check(CLI::IsMember({"best", "draft"}))
      ->default_str("best");
  command->add_option("--threads", common->threads, "Processors, 1 to 127")
      ->default_str(std::to_string(common->threads));
  command->add_option("--out-depth", common->outDepth,
                      "Output depth: 8, 16, half or float (default: input's)")
      ->check(CLI::IsMember({"8", "16", "half", "float"}));
  command->add_option("--compression", run->writing.compression, kCompressionHelp);
  command->add_option_function<std::string>(
             "--codec",
             [run](const std::string& text) {
               run->writing.haveCodec = ParseMovieCodec(text, &run->writing.codec);
             },
             "Movie OUTPUT codec: h264 (lossy, default), ffv1 (lossless; .mkv, .avi), prores "
             "(.mov, .mkv)")
      ->check(CLI::IsMember({"h264", "ffv1", "prores"}));
  command->add_option_function<int32_t>(
             "--crf",
             [run](const int32_t& crf) {
               run->writing.crf = crf;
               run->writing.haveCrf = true;
             },
             "h264 quality: constant rate factor, 0 (lossless) to 51 (default 18)")
      ->check(CLI::Range(0, 51));
  command->add_flag("--overwrite", run->overwrite, "Replace existing output files");
  command->add_flag("--skip-existing", run->skipExisting,
                    "Leave frames whose output exists alone (to resume a stopped run)");
  command->add_flag("-q,--quiet", run->quiet, "Errors only");
  command->add_option("--write-flow", run->flowFolder,
                      "Also write the flow of each made frame into DIR as flow.NNNN.png (white: "
                      "no motion, e.g. a frame taken straight from the input)");
}

bool RetimeCli::Parsed() const { return retime_->parsed() || deinterlace_->parsed(); }

int RetimeCli::Run() {
  return retime_->parsed() ? RunRetimeCommand() : RunDeinterlaceCommand();
}

int RetimeCli::Settle(const Common& common, ResampleOptions* run, bool* draft, bool* haveStart,
                      int64_t* start) {
  if (common.threads < 1 || common.threads > 127)
    return Usage("--threads " + std::to_string(common.threads) + " is outside 1 to 127");
  run->threads = common.threads;
  if (!common.outDepth.empty()) {
    run->haveOutDepth = ParseDepth(common.outDepth, &run->outDepth);
    if (!run->haveOutDepth) return Usage("--out-depth must be 8, 16, half or float");
  }
  if (!common.frames.empty()) {
    std::string error;
    if (!ParseFrameRange(common.frames, &run->firstFrame, &run->lastFrame, &error))
      return Usage(error);
    run->haveFrames = true;
  }
  if (run->overwrite && run->skipExisting)
    return Usage("--overwrite and --skip-existing contradict each other; give one");
  std::string error;
  if (!CheckOutputCompression(run->output, run->writing.compression, &error)) return Usage(error);
  *draft = common.quality == "draft";
  *haveStart = !common.start.empty();
  if (*haveStart && !WholeNumber(common.start, start))
    return Usage("--start '" + common.start + "' is not a frame number of 0 or more");
  return kExitOk;
}

int RetimeCli::RunRetimeCommand() {
  RetimeOptions& o = retimeOptions_;
  if (int code = Settle(retimeCommon_, &o.run, &o.draft, &o.haveStart, &o.start)) return code;
  const bool rates = !fpsIn_.empty() || !fpsOut_.empty();
  const int maps = (!speed_.empty() ? 1 : 0) + (rates ? 1 : 0) + (!o.timeMapFile.empty() ? 1 : 0);
  if (maps == 0) return Usage("retime needs a time map: --speed, --fps-in with --fps-out, or --timemap");
  if (!speed_.empty() && rates)
    return Usage("--speed and --fps-in/--fps-out both give the speed; give one of them");
  if (maps > 1) return Usage("--timemap and --speed or --fps-in/--fps-out both give the timing; give one");
  std::string error;
  if (!speed_.empty()) {
    o.haveSpeed = true;
    if (!ParseSpeed(speed_, &o.speed, &error)) return Usage(error);
  }
  if (rates) {
    if (fpsIn_.empty() || fpsOut_.empty()) return Usage("--fps-in and --fps-out go together");
    o.haveRates = true;
    if (!ParseRate(fpsIn_, &o.rateIn, &error) || !ParseRate(fpsOut_, &o.rateOut, &error))
      return Usage("--fps-in/--fps-out: " + error);
    // A movie OUTPUT plays at the output rate.
    if (o.rateOut.numerator <= INT32_MAX && o.rateOut.denominator <= INT32_MAX) {
      o.run.writing.haveRate = true;
      o.run.writing.rate = {static_cast<int32_t>(o.rateOut.numerator),
                            static_cast<int32_t>(o.rateOut.denominator)};
    }
  }
  if (!o.timeMapFile.empty() && o.haveStart)
    return Usage("--start cannot be used with --timemap: the time map numbers the output frames");
  ParseRetimeMethod(method_, &o.method);
  o.warpStyle = warp_ == "forward" ? 2 : 1;
  char* end = nullptr;
  const double shutter = std::strtod(shutter_.c_str(), &end);
  if (shutter_.empty() || *end != '\0' || !(shutter >= 0.0 && shutter <= 1.0))
    return Usage("--shutter '" + shutter_ + "' is not a number from 0 to 1");
  o.shutter = static_cast<float>(shutter);
  return RunRetime(o);
}

int RetimeCli::RunDeinterlaceCommand() {
  DeinterlaceOptions& o = deinterlaceOptions_;
  if (int code = Settle(deinterlaceCommon_, &o.run, &o.draft, &o.haveStart, &o.start)) return code;
  o.order = fieldOrder_ == "bff" ? FieldOrder::kBottomFirst : FieldOrder::kTopFirst;
  o.method = fieldMethod_ == "line"      ? PLFieldReplicate
             : fieldMethod_ == "edge3"   ? PLFieldEdgeThree
             : fieldMethod_ == "edge5"   ? PLFieldEdgeFive
                                         : PLFieldAverage;
  o.fieldRate = rate_ == "field";
  return RunDeinterlace(o);
}

int RetimeCli::RunDemo(const std::string& folder, int32_t width, int32_t height, int32_t frames,
                       int32_t threads, bool quiet) {
  RetimeOptions o;
  o.run.threads = threads;
  o.run.quiet = quiet;
  o.haveSpeed = true;
  o.speed = 0.5;
  return RunRetimeDemo(folder, o, width, height, frames);
}

}  // namespace flowblur
