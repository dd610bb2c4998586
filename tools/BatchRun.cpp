// flowblur: the batch run: a frame plan and every check before the first frame, then frame by
// frame through the plug-in, each output written safely, with progress and clean stops.
#include "tools/BatchRun.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <vector>

#include "tools/FlowView.h"
#include "tools/FrameCache.h"
#include "tools/FramePipeline.h"
#include "tools/Messages.h"
#include "tools/Sequence.h"

namespace flowblur {

std::atomic<bool> gInterrupted{false};
std::atomic<int> gStopSignal{0};

namespace {

int64_t gFramesWritten = 0;

void OnInterrupt(int) {
  if (gInterrupted.load()) {
    // A second Ctrl-C: the user does not want to wait for the frame to finish.
    std::signal(SIGINT, SIG_DFL);
    std::raise(SIGINT);
    return;
  }
  gInterrupted.store(true);
}

void OnStop(int signal) { gStopSignal.store(signal); }

std::string FramePath(const SequencePattern& pattern, int64_t frame) {
  return pattern.numbered ? pattern.PathFor(frame) : pattern.text;
}

std::string FlowName(const std::string& folder, int64_t fileFrame, const char* ext) {
  char name[64];
  std::snprintf(name, sizeof name, "/flow.%04lld", static_cast<long long>(fileFrame));
  return folder + name + ext;
}

// The plug-in's flow for frame n and the offsets of its pair, as the flow pictures show it.
struct FrameFlow {
  int64_t n = 0;
  FlowField flow;
  int64_t first = 0, second = 0;
};

// The written flow pictures: hue for direction, saturation for length, a legend wheel.
bool WriteFlowFiles(const FrameFlow& frameFlow, const ClipSpan& clip, const FrameInfo& info,
                    const BatchOptions& options, bool replace, std::string* error) {
  const FlowField& flow = frameFlow.flow;
  const int64_t n = frameFlow.n, first = frameFlow.first, second = frameFlow.second;
  // Shown as motion forward in time at the frame's own size, whichever way the pair runs.
  FlowField picture = ResampleFlow(flow, info.width, info.height);
  if (second < first)
    for (float& value : picture.uv) value = -value;
  float longest = MaxFlowLength(picture);
  std::vector<uint8_t> rgb = FlowToColour(picture, longest);
  DrawFlowLegend(&rgb, info.width, info.height, longest);
  const int64_t fileFrame = clip.first + n;
  OIIO::ImageSpec imageSpec(info.width, info.height, 3, OIIO::TypeDesc::UINT8);
  const std::string picturePath = FlowName(options.flowFolder, fileFrame, ".png");
  ApplyCompression(picturePath, "", &imageSpec);
  if (!WriteImageSafely(picturePath, imageSpec,
                        OIIO::TypeDesc::UINT8, rgb.data(), replace, error))
    return false;
  if (options.flowExr) {
    OIIO::ImageSpec raw(flow.width, flow.height, 2, OIIO::TypeDesc::FLOAT);
    raw.channelnames = {"u", "v"};
    raw.attribute("flowblur:firstFrame", static_cast<int>(clip.first + first));
    raw.attribute("flowblur:secondFrame", static_cast<int>(clip.first + second));
    raw.attribute("flowblur:frameWidth", info.width);
    raw.attribute("flowblur:frameHeight", info.height);
    if (!WriteImageSafely(FlowName(options.flowFolder, fileFrame, ".exr"), raw,
                          OIIO::TypeDesc::FLOAT, flow.uv.data(), replace, error))
      return false;
  }
  return true;
}
}  // namespace

void InstallSignalHandlers() {
  std::signal(SIGINT, OnInterrupt);
  std::signal(SIGTERM, OnStop);
  std::signal(SIGUSR1, OnStop);
  std::signal(SIGXFSZ, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
}

int64_t LastRunFramesWritten() { return gFramesWritten; }

namespace {

// Everything a run settles before its first frame.
struct RunSetup {
  RunRange range;
  bool withBack = false;
  FramePlan plan;
  std::vector<std::string> outputs;  // one a planned frame
  int64_t skipped = 0;               // frames whose output existed (--skip-existing)
  FrameInfo info;                    // of the first input frame read
  int32_t formatCode = 24;
  SampleDepth outDepth = SampleDepth::k8;
  int64_t cacheBudget = 0;
  LinearStage linear;                // linear light for the plug-in, or the stored values
  std::shared_ptr<ClipSink> sink;    // output files or the output movie
  int32_t ioThreads = 0;             // --io-threads
};

std::string InputPath(const RunRange& range, const FrameRead& read) {
  return FramePath(read.clip == kBackClip ? range.back : range.input, range.clip.first + read.offset);
}

// Files or a movie: where the frames of a read come from.
ClipSource& SourceOf(const RunRange& range, const FrameRead& read) {
  return *(read.clip == kBackClip ? range.backSource : range.inputSource);
}

// The output frames of the range, less those --skip-existing finds done, and what each reads.
int PlanRun(const BatchOptions& options, RunSetup* setup) {
  const RunRange& range = setup->range;
  const int64_t count = range.last - range.first + 1;
  if (IsMoviePattern(range.output) && options.skipExisting) {
    Say("--skip-existing cannot resume movie output " + Quote(range.output.text) +
        ": render it again, or into a sequence");
    return kExitUsage;
  }
  if (count > 1 && !range.output.numbered && !IsMoviePattern(range.output)) {
    Say("output " + Quote(range.output.text) +
        " has no frame number (%04d or ####) but the input has " + std::to_string(count) +
        " frames");
    return kExitUsage;
  }
  if (count > 1000000) {
    Say("more than a million frames in one run");
    return kExitUsage;
  }
  std::vector<int64_t> offsets;
  for (int64_t f = range.first; f <= range.last; ++f) {
    std::string path = FramePath(range.output, f);
    if (options.skipExisting && access(path.c_str(), F_OK) == 0) {
      ++setup->skipped;
      continue;
    }
    offsets.push_back(f - range.clip.first);
    setup->outputs.push_back(path);
  }
  setup->withBack = !options.motionFrom.empty();
  const ClipSpan clip = range.clip;
  const bool withBack = setup->withBack, fromBack = options.controls.motionFromBack;
  setup->plan = PlanFrames(clip, offsets, [&](int64_t n) {
    std::vector<FrameRead> reads;
    for (const auto& [c, offset] : PluginSession::FramesRead(n, clip.count, withBack, fromBack))
      reads.push_back({c, offset});
    return reads;
  });
  return kExitOk;
}

// Every frame the plan reads exists and has a readable header; the front frames share one
// size and depth, the back frames that size.
int CheckInputs(RunSetup* setup) {
  const RunRange& range = setup->range;
  std::vector<FrameRead> reads = setup->plan.DistinctReads();
  std::stable_partition(reads.begin(), reads.end(),
                        [](const FrameRead& r) { return r.clip == kFrontClip; });
  const std::string span =
      std::to_string(range.clip.first) + " to " + std::to_string(range.clip.Last());
  std::string error, firstPath;
  for (const FrameRead& read : reads) {
    const std::string path = InputPath(range, read);
    const bool front = read.clip == kFrontClip;
    ClipSource& source = SourceOf(range, read);
    const int64_t number = range.clip.first + read.offset;
    if (!source.Exists(number)) {
      Say(front ? "input frame " + Quote(path) + " is missing (the sequence runs from " +
                      std::to_string(range.clip.first) + " to " +
                      std::to_string(range.clip.Last()) + ")"
                : "back frame " + Quote(path) + " is missing: the back sequence must cover frames " +
                      span);
      return kExitInput;
    }
    FrameInfo header;
    if (!source.ReadInfo(number, &header, &error)) {
      Say(error);
      return kExitInput;
    }
    const FrameInfo& info = setup->info;
    if (firstPath.empty()) {
      setup->info = header;
      firstPath = path;
    } else if (header.width != info.width || header.height != info.height) {
      Say(front ? "input frame " + Quote(path) + " is " + SizeText(header.width, header.height) +
                      ", but " + Quote(firstPath) + " is " + SizeText(info.width, info.height) +
                      ": all frames of a sequence must have one size"
                : "back frame " + Quote(path) + " is " + SizeText(header.width, header.height) +
                      ", but the input frames are " + SizeText(info.width, info.height));
      return kExitInput;
    } else if (front && (header.depth != info.depth || header.channels != info.channels ||
                         header.grey != info.grey)) {
      Say("input frame " + Quote(path) + " has other channels or another depth than " +
          Quote(firstPath) + ": all frames of a sequence must match");
      return kExitInput;
    }
  }
  return kExitOk;
}

// The files a planned frame makes: its flow files (written first), then its output, whose
// presence marks the frame done.
std::vector<std::string> FilesOf(const RunSetup& setup, const BatchOptions& options, size_t i) {
  std::vector<std::string> files;
  if (!options.flowFolder.empty()) {
    const int64_t number = setup.plan.clip.first + setup.plan.frames[i].offset;
    files.push_back(FlowName(options.flowFolder, number, ".png"));
    if (options.flowExr) files.push_back(FlowName(options.flowFolder, number, ".exr"));
  }
  files.push_back(setup.outputs[i]);
  return files;
}

// Outputs: never an input, never an existing file without --overwrite (with --skip-existing,
// the flow files of a frame not finished are its own to replace), folders we can write in.
int CheckOutputs(const BatchOptions& options, const RunSetup& setup,
                 std::vector<std::string>* createdFolders) {
  std::set<std::string> inputNames;
  std::map<std::pair<dev_t, ino_t>, std::string> inputFiles;
  for (const FrameRead& read : setup.plan.DistinctReads()) {
    std::string path = InputPath(setup.range, read);
    inputNames.insert(path);
    struct stat st;
    if (stat(path.c_str(), &st) == 0) inputFiles[{st.st_dev, st.st_ino}] = path;
  }
  for (size_t i = 0; i < setup.plan.frames.size(); ++i)
    for (const std::string& out : FilesOf(setup, options, i)) {
      struct stat st;
      const bool exists = stat(out.c_str(), &st) == 0;
      auto same = exists ? inputFiles.find({st.st_dev, st.st_ino}) : inputFiles.end();
      if (inputNames.count(out) || same != inputFiles.end()) {
        Say("output " + Quote(out) + " is the input file " +
            Quote(same != inputFiles.end() ? same->second : out) + "; choose another output name");
        return kExitOutput;
      }
      if (exists && !options.overwrite && !options.skipExisting) {
        Say("output " + Quote(out) + " exists; use --overwrite to replace it");
        return kExitOutput;
      }
    }
  std::string error;
  if (!PrepareOutputFolder(setup.range.output.Folder(), &error, createdFolders) ||
      (!options.flowFolder.empty() &&
       !PrepareOutputFolder(options.flowFolder, &error, createdFolders))) {
    RemoveCreatedFolders(*createdFolders);
    Say(error);
    return kExitOutput;
  }
  return kExitOk;
}

// What the run holds at once: the frames the plan keeps between uses (every channel as float),
// the output frame, the packed copies of one frame's reads, the host's window and buffers, the
// half planes and the flow estimator's pyramids. Refused, before anything is written, when it
// would not fit.
// The colour stage (linear light or stored values) and the output (files or a movie that can
// hold the frames), settled from the first input frame.
int CheckColourAndOutput(const BatchOptions& options, RunSetup* setup) {
  std::string error;
  if (!setup->linear.Settle(options.colour, setup->info, &error)) {
    Say("input " + Quote(setup->range.input.text) + ": " + error);
    return kExitUsage;
  }
  setup->sink = std::make_shared<ClipSink>();
  if (!setup->sink->Prepare(setup->range.output, *setup->range.inputSource, setup->info,
                            options.haveOutDepth, options.outDepth, options.writing, &error)) {
    Say(error);
    return kExitOutput;
  }
  return kExitOk;
}

int CheckMemory(RunSetup* setup) {
  const FrameInfo& info = setup->info;
  setup->formatCode = setup->linear.FormatCode(info.depth);
  const double pixels = static_cast<double>(info.width) * info.height;
  const double packed =
      static_cast<double>(PackedFrameBytes(info.width, info.height, setup->formatCode));
  const double stored = pixels * info.channels * sizeof(float);
  const double held = static_cast<double>(setup->plan.MostHeld());
  // Room for the frames the plan keeps, counted as the cache counts them.
  setup->cacheBudget = static_cast<int64_t>(held * (stored + 4096.0));
  // Beside the frames kept: the frames decoded ahead (with their packed copies), the frames
  // waiting to be written (the input kept for its other channels, the output, the result), the
  // host's four buffers and the packed copies of the frames kept.
  const PipelineSettings pipeline = PipelineFor(setup->ioThreads);
  const double ahead = pipeline.readAhead, behind = pipeline.writeBehind;
  const double need = (held + 1.0 + ahead + 2.0 * behind) * stored +
                      (held + ahead + behind + 4.0 + 1.0) * packed +
                      (setup->formatCode == 49 ? 3.0 * 12.0 * pixels : 0.0) + 16.0 * pixels;
  const double machine = static_cast<double>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE);
  if (machine > 0.0 && need > 0.75 * machine) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "frames of %s need about %.1f GiB of memory in the host, more than this "
                  "machine can spare (%.1f GiB)",
                  SizeText(info.width, info.height).c_str(), need / 1073741824.0,
                  machine / 1073741824.0);
    Say(text);
    return kExitMemory;
  }
  return kExitOk;
}

// The planned frames through the plug-in, in order, each input read once into the cache and
// let go after its last use. The frames come next are decoded, and the finished ones encoded
// and written, on the pipeline's I/O threads (--io-threads) while this thread runs the plug-in;
// outcomes are taken in frame order, so the lines, the counts and the stops are those of a
// run that does everything in turn.
class FrameLoop {
 public:
  FrameLoop(const BatchOptions& options, const RunSetup& setup)
      : options_(options),
        setup_(setup),
        lastUse_(setup.plan.LastUse()),
        session_(setup.info.width, setup.info.height, setup.formatCode, setup.plan.clip.count,
                 setup.withBack, options.threads, options.controls),
        cache_(setup.cacheBudget),
        progress_(options.progress && !options.quiet && isatty(2),
                  static_cast<int64_t>(setup.plan.frames.size())),
        frameLines_(!options.quiet && !isatty(2)),
        started_(setup.plan.frames.size()),
        written_(setup.plan.frames.size(), false),
        packedBytes_(static_cast<size_t>(
            PackedFrameBytes(setup.info.width, setup.info.height, setup.formatCode))),
        pipeline_(Settings(setup, options), setup.plan.DistinctReads(),
                  [this](const FrameRead& read, Frame* frame, std::string* error) {
                    return Load(read, frame, error);
                  }) {}

  int Run() {
    const size_t count = setup_.plan.frames.size();
    std::string failed;
    for (size_t i = 0; i < count; ++i) {
      if (!RetireWrites(false, &failed)) return Stopped(failed, kExitOutput);
      if (gInterrupted.load()) return Stopped("interrupted", kExitInterrupted);
      if (int signal = gStopSignal.load())
        return Stopped(std::string("stopped by ") + (signal == SIGUSR1 ? "SIGUSR1" : "SIGTERM") +
                           " after a whole frame; run again with --skip-existing to finish",
                       kExitStopped);
      int code = RenderFrame(i);
      if (code != kExitOk) return code;
    }
    if (!RetireWrites(true, &failed)) return Stopped(failed, kExitOutput);
    progress_.Break();
    std::string error;
    if (!setup_.sink->Finish(&error)) return Stopped(error, kExitOutput);
    if (!options_.quiet) {
      const std::vector<std::string>& out = setup_.outputs;
      Say("wrote " + std::to_string(count) + (count == 1 ? " frame: " : " frames: ") +
          out.front() + (count > 1 && !setup_.sink->IsMovie() ? " to " + out.back() : "") +
          (setup_.skipped > 0 ? " (" + std::to_string(setup_.skipped) +
                                    " skipped: their output existed)"
                              : ""));
    }
    return kExitOk;
  }

 private:
  // A movie decodes and encodes frame after frame: its lane of the pipeline is serial.
  static PipelineSettings Settings(const RunSetup& setup, const BatchOptions& options) {
    PipelineSettings settings = PipelineFor(options.ioThreads);
    settings.serialReads = setup.range.inputSource->IsMovie() ||
                           (setup.withBack && setup.range.backSource->IsMovie());
    settings.serialWrites = setup.sink->IsMovie();
    return settings;
  }

  // Runs on an I/O thread (or this one): the frame, its colour stage and its packed copy for
  // the plug-in, so that this thread only runs the plug-in.
  bool Load(const FrameRead& read, Frame* frame, std::string* error) {
    const std::string path = InputPath(setup_.range, read);
    // Half files stay half on the way to the plug-in's half format and back to the output,
    // unless the colour stage needs floats.
    if (!SourceOf(setup_.range, read)
             .Read(setup_.range.clip.first + read.offset, frame, error, !setup_.linear.Active()))
      return false;
    if (frame->info.width != setup_.info.width || frame->info.height != setup_.info.height) {
      *error = Quote(path) + " changed size while the run was under way";
      return false;
    }
    setup_.linear.In(frame);
    auto bytes = std::make_shared<std::vector<uint8_t>>(packedBytes_);
    PackColour(*frame, setup_.formatCode, bytes->data());
    std::lock_guard<std::mutex> lock(packedMutex_);
    packed_[read] = std::move(bytes);
    return true;
  }

  // The packed copy Load made of a frame in the cache.
  std::shared_ptr<const std::vector<uint8_t>> PackedOf(const FrameRead& read, const Frame& frame) {
    {
      std::lock_guard<std::mutex> lock(packedMutex_);
      auto it = packed_.find(read);
      if (it != packed_.end()) return it->second;
    }
    auto bytes = std::make_shared<std::vector<uint8_t>>(packedBytes_);
    PackColour(frame, setup_.formatCode, bytes->data());
    std::lock_guard<std::mutex> lock(packedMutex_);
    packed_[read] = bytes;
    return bytes;
  }

  int RenderFrame(size_t i) {
    started_[i] = std::chrono::steady_clock::now();
    const PlannedFrame& planned = setup_.plan.frames[i];
    std::string error;
    std::map<FrameRead, std::shared_ptr<const Frame>> inputs;
    std::map<FrameRead, std::shared_ptr<const std::vector<uint8_t>>> packed;
    for (const FrameRead& read : planned.reads) {
      auto frame = cache_.Get(
          read.offset, read.clip,
          [&](Frame* into, std::string* why) { return pipeline_.Take(read, into, why); }, &error);
      if (!frame) return Stopped(error, kExitInput);
      inputs[read] = frame;
      packed[read] = PackedOf(read, *frame);
    }
    const void* result = session_.Process(
        planned.offset,
        [&](int32_t clip, int64_t offset) -> const void* {
          auto it = packed.find({clip, offset});
          return it == packed.end() ? nullptr : it->second->data();
        },
        &error);
    if (!result)
      return Stopped("frame " + Quote(InputPath(setup_.range, {kFrontClip, planned.offset})) +
                         ": " + error,
                     kExitPlugin);
    // The plug-in's flow is computed here, by its own calls; drawn and written with the frame.
    std::shared_ptr<FrameFlow> flow;
    if (!options_.flowFolder.empty()) {
      flow = std::make_shared<FrameFlow>();
      flow->n = planned.offset;
      if (!session_.PluginFlow(planned.offset, &flow->flow.uv, &flow->flow.width,
                               &flow->flow.height, &flow->first, &flow->second, &error))
        return Stopped(error, kExitOutput);
    }
    auto bytes = std::make_shared<std::vector<uint8_t>>(
        static_cast<const uint8_t*>(result),
        static_cast<const uint8_t*>(result) + session_.FrameBytes());
    // Other channels come from the input frame as stored.
    std::shared_ptr<const Frame> input = inputs.at({kFrontClip, planned.offset});
    pipeline_.Write([this, i, input, bytes, flow](std::string* error) {
      Frame out = WithColourFrom(*input, bytes->data(), setup_.formatCode);
      setup_.linear.Out(&out);
      const bool replace = options_.overwrite || options_.skipExisting;
      if (flow && !WriteFlowFiles(*flow, setup_.plan.clip, setup_.info, options_, replace, error))
        return false;
      return setup_.sink->Write(setup_.outputs[i], out, options_.overwrite, error);
    });
    for (const FrameRead& read : planned.reads)
      if (lastUse_[read] == i) {
        cache_.Drop(read.offset, read.clip);
        std::lock_guard<std::mutex> lock(packedMutex_);
        packed_.erase(read);
      }
    return kExitOk;
  }

  // The outcomes of finished writes (each planned frame queues one, in order): a line a
  // frame, the progress and the count. False with the first failure's message; the writes
  // queued after it are then dropped.
  bool RetireWrites(bool wait, std::string* failed) {
    FramePipeline::Outcome outcome;
    while (pipeline_.Retire(wait, &outcome)) {
      const size_t i = static_cast<size_t>(outcome.number);
      if (!outcome.ok) {
        if (failed->empty()) {
          *failed = outcome.error;
          pipeline_.CancelQueuedWrites();
        }
        continue;
      }
      ++gFramesWritten;
      written_[i] = true;
      const int64_t number = setup_.plan.frames[i].outputNumber;
      if (frameLines_) {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started_[i]).count();
        char text[64];
        std::snprintf(text, sizeof text, "frame %lld done in %.2f s: ",
                      static_cast<long long>(number), seconds);
        Say(text + setup_.outputs[i]);
      }
      progress_.Update(gFramesWritten, number);
    }
    return failed->empty();
  }

  // The frames written, for the closing line: "a to b", and any written after a gap.
  std::string WrittenText() const {
    std::string text;
    size_t i = 0;
    while (i < written_.size()) {
      if (!written_[i]) {
        ++i;
        continue;
      }
      size_t last = i;
      while (last + 1 < written_.size() && written_[last + 1]) ++last;
      text += (text.empty() ? "" : ", ") + setup_.outputs[i] +
              (last > i ? " to " + setup_.outputs[last] : "");
      i = last + 1;
    }
    return text;
  }

  // Stops the run: the frames already queued are written first (a stop comes after whole
  // frames), then the reason and what was written.
  int Stopped(const std::string& why, int code) {
    std::string failed;
    RetireWrites(true, &failed);
    progress_.Break();
    Say(why);
    if (!failed.empty() && failed != why) Say(failed);
    const int64_t count = static_cast<int64_t>(setup_.plan.frames.size());
    if (setup_.sink->IsMovie()) {
      // The unfinished movie goes with the run (its temporary file is removed).
      Say("no movie written: " + Quote(setup_.outputs[0]) + " would have held " +
          std::to_string(count) + " frames");
      return code;
    }
    if (gFramesWritten > 0 || count > 1)
      Say(std::to_string(gFramesWritten) + " of " + std::to_string(count) + " frames written" +
          (gFramesWritten > 0 ? " (" + WrittenText() + ")" : ""));
    return code;
  }

  const BatchOptions& options_;
  const RunSetup& setup_;
  std::map<FrameRead, size_t> lastUse_;
  ClipSession session_;
  FrameCache cache_;  // keyed by (offset in the clip, clip)
  std::mutex packedMutex_;
  std::map<FrameRead, std::shared_ptr<const std::vector<uint8_t>>> packed_;  // by Load
  Progress progress_;
  bool frameLines_;
  std::vector<std::chrono::steady_clock::time_point> started_;
  std::vector<bool> written_;
  const size_t packedBytes_;  // of a packed frame; the I/O threads do not ask the host
  FramePipeline pipeline_;  // last: ended first, while what its jobs use is alive
};

// Temporary files a killed run left beside the outputs this run is about to write: hidden
// names as WriteImageSafely makes them, of a process that no longer exists.
void RemoveStaleTemporaries(const RunSetup& setup) {
  const std::string ours = "-" + std::to_string(getpid());
  std::map<std::string, std::set<std::pair<std::string, std::string>>> byFolder;
  for (const std::string& out : setup.outputs) {
    const std::string temp = TemporaryPathFor(out);
    const size_t pid = temp.rfind(ours), slash = temp.rfind('/');
    if (pid == std::string::npos) continue;
    const size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    byFolder[temp.substr(0, nameStart)].insert(
        {temp.substr(nameStart, pid + 1 - nameStart), temp.substr(pid + ours.size())});
  }
  for (const auto& [folder, names] : byFolder) {
    DIR* dir = opendir(folder.empty() ? "." : folder.c_str());
    if (!dir) continue;
    while (dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      for (const auto& [head, tail] : names) {
        if (name.size() <= head.size() + tail.size() || name.compare(0, head.size(), head) != 0 ||
            name.compare(name.size() - tail.size(), tail.size(), tail) != 0)
          continue;
        const std::string digits = name.substr(head.size(), name.size() - head.size() - tail.size());
        if (digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos)
          continue;
        if (kill(static_cast<pid_t>(std::stol(digits)), 0) != 0 && errno == ESRCH)
          unlink((folder + name).c_str());
      }
    }
    closedir(dir);
  }
}

int RunPlanned(const BatchOptions& options, RunSetup* setup) {
  setup->ioThreads = options.ioThreads;
  int code = ResolveRunRange(options, &setup->range);
  if (code == kExitOk) code = PlanRun(options, setup);
  if (code != kExitOk) return code;
  if (setup->plan.frames.empty()) {
    if (!options.quiet)
      Say("all " + std::to_string(setup->skipped) +
          " frames have their output already (--skip-existing); nothing to do");
    return kExitOk;
  }
  std::vector<std::string> createdFolders;
  if ((code = CheckInputs(setup)) != kExitOk ||
      (code = CheckColourAndOutput(options, setup)) != kExitOk ||
      (code = CheckMemory(setup)) != kExitOk ||
      (code = CheckOutputs(options, *setup, &createdFolders)) != kExitOk)
    return code;
  if (options.skipExisting) RemoveStaleTemporaries(*setup);
  FrameLoop loop(options, *setup);
  return loop.Run();
}

}  // namespace

int ResolveRunRange(const BatchOptions& options, RunRange* range) {
  std::string error;
  if (!ParseSequencePattern(options.input, &range->input, &error) ||
      !ParseSequencePattern(options.output, &range->output, &error) ||
      (!options.motionFrom.empty() &&
       !ParseSequencePattern(options.motionFrom, &range->back, &error))) {
    Say(error);
    return kExitUsage;
  }
  const SequencePattern& input = range->input;
  range->inputSource = std::make_shared<ClipSource>();
  range->backSource = std::make_shared<ClipSource>();
  if (!range->inputSource->Open(input, &error) ||
      (!options.motionFrom.empty() && !range->backSource->Open(range->back, &error))) {
    Say(error);
    return kExitInput;
  }
  const bool movie = range->inputSource->IsMovie();
  if (!input.numbered && !movie) {
    // One file: a clip of one frame, numbered by --frames (0 without).
    if (options.haveFrames && options.firstFrame != options.lastFrame) {
      Say("input " + Quote(input.text) +
          " has no frame number in its name, so --frames cannot select a range");
      return kExitInput;
    }
    if (access(input.text.c_str(), F_OK) != 0) {
      Say("input frame " + Quote(input.text) + " does not exist");
      return kExitInput;
    }
    range->clip = {options.haveFrames ? options.firstFrame : 0, 1};
    range->first = range->last = range->clip.first;
    return kExitOk;
  }
  if (options.haveClip) {
    range->clip = {options.clipFirst, options.clipLast - options.clipFirst + 1};
  } else if (movie) {
    range->clip = {kMovieFirstFrame, range->inputSource->MovieFrames()};
  } else {
    std::vector<int64_t> found = FindFrames(input, &error);
    if (!error.empty()) {
      Say(error);
      return kExitInput;
    }
    if (found.empty()) {
      Say("no input frames match " + Quote(input.text));
      return kExitInput;
    }
    range->clip = {found.front(), found.back() - found.front() + 1};
  }
  if (range->clip.count > INT32_MAX) {
    Say("the clip has more frames than a host can number");
    return kExitUsage;
  }
  if (!ChooseRenderRange(range->clip, options.haveFrames, options.firstFrame, options.lastFrame,
                         &range->first, &range->last, &error)) {
    Say(error);
    return kExitInput;
  }
  return kExitOk;
}

int RunBatch(const BatchOptions& options) {
  gFramesWritten = 0;
  try {
    RunSetup setup;
    return RunPlanned(options, &setup);
  } catch (const std::bad_alloc&) {
    Say("out of memory");
    return kExitMemory;
  }
}

}  // namespace flowblur
