// flowblur: the batch run: every check before the first frame, then frame by frame through the
// plug-in, each output written safely, with progress and a clean stop on Ctrl-C.
#include "tools/BatchRun.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <vector>

#include "tools/FlowView.h"
#include "tools/Sequence.h"

namespace flowblur {

std::atomic<bool> gInterrupted{false};

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

void Say(const std::string& text) { std::fprintf(stderr, "flowblur: %s\n", text.c_str()); }

std::string Quote(const std::string& path) { return "'" + path + "'"; }

std::string SizeText(int32_t width, int32_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

// Progress on one line of a terminal: frame, rate, time left.
class Progress {
 public:
  Progress(bool show, int64_t total) : show_(show), total_(total) {
    start_ = std::chrono::steady_clock::now();
  }
  void Update(int64_t done, int64_t fileFrame) {
    if (!show_) return;
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    double fps = seconds > 0.0 ? done / seconds : 0.0;
    double left = fps > 0.0 ? (total_ - done) / fps : 0.0;
    int64_t leftSeconds = static_cast<int64_t>(left + 0.5);
    std::fprintf(stderr, "\rflowblur: frame %lld (%lld of %lld)  %.2f fps  %lld:%02lld left   ",
                 static_cast<long long>(fileFrame), static_cast<long long>(done),
                 static_cast<long long>(total_), fps, static_cast<long long>(leftSeconds / 60),
                 static_cast<long long>(leftSeconds % 60));
    std::fflush(stderr);
    dirty_ = true;
  }
  // Ends the progress line before any other message.
  void Break() {
    if (dirty_) std::fputc('\n', stderr);
    dirty_ = false;
  }

 private:
  bool show_;
  bool dirty_ = false;
  int64_t total_;
  std::chrono::steady_clock::time_point start_;
};

// The frame numbers of a sequence: the given range, every file of which must exist, or the
// range found on disk, which must have no gaps. A pattern without a frame number is one file.
bool ResolveFrames(const SequencePattern& pattern, const BatchOptions& options, const char* role,
                   std::vector<int64_t>* frames, std::string* error) {
  frames->clear();
  if (!pattern.numbered) {
    if (options.haveFrames && options.firstFrame != options.lastFrame) {
      *error = std::string(role) + " " + Quote(pattern.text) +
               " has no frame number in its name, so --frames cannot select a range";
      return false;
    }
    if (access(pattern.text.c_str(), F_OK) != 0) {
      *error = std::string(role) + " frame " + Quote(pattern.text) + " does not exist";
      return false;
    }
    frames->push_back(options.haveFrames ? options.firstFrame : 0);
    return true;
  }
  int64_t first, last;
  if (options.haveFrames) {
    first = options.firstFrame;
    last = options.lastFrame;
  } else {
    std::string why;
    std::vector<int64_t> found = FindFrames(pattern, &why);
    if (!why.empty()) {
      *error = why;
      return false;
    }
    if (found.empty()) {
      *error = "no " + std::string(role) + " frames match " + Quote(pattern.text);
      return false;
    }
    first = found.front();
    last = found.back();
  }
  for (int64_t f = first; f <= last; ++f) {
    std::string path = pattern.PathFor(f);
    if (access(path.c_str(), F_OK) != 0) {
      *error = std::string(role) + " frame " + Quote(path) + " is missing (the sequence runs from " +
               std::to_string(first) + " to " + std::to_string(last) + ")";
      return false;
    }
    frames->push_back(f);
  }
  return true;
}

std::string FramePath(const SequencePattern& pattern, int64_t frame) {
  return pattern.numbered ? pattern.PathFor(frame) : pattern.text;
}

// The written flow pictures: hue for direction, saturation for length, a legend wheel.
bool WriteFlowFiles(PluginSession& session, int32_t index, int64_t fileFrame,
                    const std::vector<int64_t>& frames, const FrameInfo& info,
                    const BatchOptions& options, std::string* error) {
  FlowField flow;
  int32_t first, second;
  if (!session.PluginFlow(index, &flow.uv, &flow.width, &flow.height, &first, &second, error))
    return false;
  // Shown as motion forward in time at the frame's own size, whichever way the pair runs.
  FlowField picture = ResampleFlow(flow, info.width, info.height);
  if (second < first)
    for (float& value : picture.uv) value = -value;
  float longest = MaxFlowLength(picture);
  std::vector<uint8_t> rgb = FlowToColour(picture, longest);
  DrawFlowLegend(&rgb, info.width, info.height, longest);
  char name[64];
  std::snprintf(name, sizeof name, "/flow.%04lld", static_cast<long long>(fileFrame));
  OIIO::ImageSpec imageSpec(info.width, info.height, 3, OIIO::TypeDesc::UINT8);
  if (!WriteImageSafely(options.flowFolder + name + ".png", imageSpec, OIIO::TypeDesc::UINT8,
                        rgb.data(), options.overwrite, error))
    return false;
  if (options.flowExr) {
    OIIO::ImageSpec raw(flow.width, flow.height, 2, OIIO::TypeDesc::FLOAT);
    raw.channelnames = {"u", "v"};
    raw.attribute("flowblur:firstFrame", static_cast<int>(frames[static_cast<size_t>(first)]));
    raw.attribute("flowblur:secondFrame", static_cast<int>(frames[static_cast<size_t>(second)]));
    raw.attribute("flowblur:frameWidth", info.width);
    raw.attribute("flowblur:frameHeight", info.height);
    if (!WriteImageSafely(options.flowFolder + name + ".exr", raw, OIIO::TypeDesc::FLOAT,
                          flow.uv.data(), options.overwrite, error))
      return false;
  }
  return true;
}

}  // namespace

void InstallSignalHandlers() {
  std::signal(SIGINT, OnInterrupt);
  std::signal(SIGXFSZ, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
}

int64_t LastRunFramesWritten() { return gFramesWritten; }

int RunBatch(const BatchOptions& options) {
  gFramesWritten = 0;
  std::string error;
  // ---- Patterns and frame lists
  SequencePattern inPattern, outPattern, backPattern;
  if (!ParseSequencePattern(options.input, &inPattern, &error) ||
      !ParseSequencePattern(options.output, &outPattern, &error) ||
      (!options.motionFrom.empty() &&
       !ParseSequencePattern(options.motionFrom, &backPattern, &error))) {
    Say(error);
    return kExitUsage;
  }
  std::vector<int64_t> frames;
  if (!ResolveFrames(inPattern, options, "input", &frames, &error)) {
    Say(error);
    return kExitInput;
  }
  if (frames.size() > 1 && !outPattern.numbered) {
    Say("output " + Quote(outPattern.text) +
        " has no frame number (%04d or ####) but the input has " + std::to_string(frames.size()) +
        " frames");
    return kExitUsage;
  }
  if (frames.size() > 1000000) {
    Say("more than a million frames in one run");
    return kExitUsage;
  }
  const bool withBack = !options.motionFrom.empty();

  // ---- Every input header: readable, one size, one depth
  std::vector<std::string> inputPaths, backPaths;
  FrameInfo info;
  for (size_t i = 0; i < frames.size(); ++i) {
    std::string path = FramePath(inPattern, frames[i]);
    FrameInfo header;
    if (!ReadFrameInfo(path, &header, &error)) {
      Say(error);
      return kExitInput;
    }
    if (i == 0) {
      info = header;
    } else if (header.width != info.width || header.height != info.height) {
      Say("input frame " + Quote(path) + " is " + SizeText(header.width, header.height) +
          ", but " + Quote(inputPaths[0]) + " is " + SizeText(info.width, info.height) +
          ": all frames of a sequence must have one size");
      return kExitInput;
    } else if (header.depth != info.depth || header.channels != info.channels ||
               header.grey != info.grey) {
      Say("input frame " + Quote(path) + " has other channels or another depth than " +
          Quote(inputPaths[0]) + ": all frames of a sequence must match");
      return kExitInput;
    }
    inputPaths.push_back(path);
  }
  if (withBack) {
    for (int64_t f : frames) {
      std::string path = FramePath(backPattern, f);
      if (access(path.c_str(), F_OK) != 0) {
        Say("back frame " + Quote(path) + " is missing: the back sequence must cover frames " +
            std::to_string(frames.front()) + " to " + std::to_string(frames.back()));
        return kExitInput;
      }
      FrameInfo header;
      if (!ReadFrameInfo(path, &header, &error)) {
        Say(error);
        return kExitInput;
      }
      if (header.width != info.width || header.height != info.height) {
        Say("back frame " + Quote(path) + " is " + SizeText(header.width, header.height) +
            ", but the input frames are " + SizeText(info.width, info.height));
        return kExitInput;
      }
      backPaths.push_back(path);
    }
  }

  // ---- Outputs: never an input, never an existing file without --overwrite, a folder we
  // can write in. All of it before the first frame, so a refused run changes nothing.
  std::vector<std::string> outputPaths;
  for (int64_t f : frames) outputPaths.push_back(FramePath(outPattern, f));
  std::vector<std::string> planned = outputPaths;
  if (!options.flowFolder.empty())
    for (int64_t f : frames) {
      char name[64];
      std::snprintf(name, sizeof name, "/flow.%04lld", static_cast<long long>(f));
      planned.push_back(options.flowFolder + name + ".png");
      if (options.flowExr) planned.push_back(options.flowFolder + name + ".exr");
    }
  for (const std::string& out : planned) {
    for (const std::vector<std::string>* inputs : {&inputPaths, &backPaths})
      for (const std::string& in : *inputs)
        if (out == in || SameFile(out, in)) {
          Say("output " + Quote(out) + " is the input file " + Quote(in) +
              "; choose another output name");
          return kExitOutput;
        }
    if (!options.overwrite && access(out.c_str(), F_OK) == 0) {
      Say("output " + Quote(out) + " exists; use --overwrite to replace it");
      return kExitOutput;
    }
  }
  std::vector<std::string> createdFolders;
  if (!PrepareOutputFolder(outPattern.Folder(), &error, &createdFolders) ||
      (!options.flowFolder.empty() &&
       !PrepareOutputFolder(options.flowFolder, &error, &createdFolders))) {
    RemoveCreatedFolders(createdFolders);
    Say(error);
    return kExitOutput;
  }

  // ---- The plug-in session
  const int32_t count = static_cast<int32_t>(frames.size());
  const int32_t formatCode = FormatCodeFor(info.depth);
  // The host keeps the whole clip in memory. Asking for more than the machine has would end
  // in the kernel killing the run halfway; say so now instead.
  double clipBytes = static_cast<double>(PackedFrameBytes(info.width, info.height, formatCode)) *
                     count * (withBack ? 2.0 : 1.0);
  double machineBytes = static_cast<double>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE);
  if (machineBytes > 0.0 && clipBytes > 0.75 * machineBytes) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "the clip needs %.1f GiB of memory in the host, more than this machine can "
                  "spare (%.1f GiB); process it in parts with --frames",
                  clipBytes / 1073741824.0, machineBytes / 1073741824.0);
    Say(text);
    return kExitInput;
  }
  const SampleDepth outDepth = options.haveOutDepth ? options.outDepth : info.depth;
  PluginSession session(info.width, info.height, formatCode, count, withBack, options.threads,
                        options.controls);
  std::vector<uint8_t> packed(static_cast<size_t>(session.FrameBytes()));
  std::vector<bool> loaded[2] = {std::vector<bool>(frames.size()), std::vector<bool>(frames.size())};
  std::map<int32_t, Frame> frontFrames;  // read but not yet written

  Progress progress(options.progress && !options.quiet && isatty(2), count);
  auto stopped = [&](const std::string& why, int code) {
    progress.Break();
    Say(why);
    if (gFramesWritten > 0 || count > 1)
      Say(std::to_string(gFramesWritten) + " of " + std::to_string(count) + " frames written" +
          (gFramesWritten > 0 ? " (" + outputPaths[0] + " to " +
                                    outputPaths[static_cast<size_t>(gFramesWritten - 1)] + ")"
                              : ""));
    return code;
  };

  for (int32_t k = 0; k < count; ++k) {
    if (gInterrupted.load()) return stopped("interrupted", kExitInterrupted);
    for (const auto& [clip, index] : session.FramesNeeded(k)) {
      if (loaded[clip][static_cast<size_t>(index)]) continue;
      const std::string& path = (clip == 0 ? inputPaths : backPaths)[static_cast<size_t>(index)];
      Frame frame;
      if (!ReadFrame(path, &frame, &error)) return stopped(error, kExitInput);
      if (frame.info.width != info.width || frame.info.height != info.height)
        return stopped(Quote(path) + " changed size while the run was under way", kExitInput);
      PackColour(frame, formatCode, packed.data());
      session.SetFrame(clip, index, packed.data());
      loaded[clip][static_cast<size_t>(index)] = true;
      if (clip == 0 && index >= k) frontFrames[index] = std::move(frame);
    }
    const void* result = session.Process(k, &error);
    if (!result)
      return stopped("frame " + Quote(inputPaths[static_cast<size_t>(k)]) + ": " + error,
                     kExitPlugin);
    auto it = frontFrames.find(k);
    if (it == frontFrames.end()) {
      // Read earlier and already released: read it again for its other channels.
      Frame frame;
      if (!ReadFrame(inputPaths[static_cast<size_t>(k)], &frame, &error))
        return stopped(error, kExitInput);
      it = frontFrames.emplace(k, std::move(frame)).first;
    }
    Frame& out = it->second;
    UnpackColour(result, formatCode, &out);
    OIIO::ImageSpec imageSpec = OutputSpec(out.info, outDepth);
    if (!WriteImageSafely(outputPaths[static_cast<size_t>(k)], imageSpec, OIIO::TypeDesc::FLOAT,
                          out.pixels.data(), options.overwrite, &error))
      return stopped(error, kExitOutput);
    ++gFramesWritten;
    frontFrames.erase(frontFrames.begin(), frontFrames.upper_bound(k));
    if (!options.flowFolder.empty() &&
        !WriteFlowFiles(session, k, frames[static_cast<size_t>(k)], frames, info, options, &error))
      return stopped(error, kExitOutput);
    progress.Update(k + 1, frames[static_cast<size_t>(k)]);
  }
  progress.Break();
  if (!options.quiet)
    Say("wrote " + std::to_string(count) + (count == 1 ? " frame: " : " frames: ") +
        outputPaths.front() + (count > 1 ? " to " + outputPaths.back() : ""));
  return kExitOk;
}

}  // namespace flowblur
