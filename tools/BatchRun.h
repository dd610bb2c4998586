// flowblur: one run of the batch host over an image sequence: checks, frames through the
// plug-in in the order of a frame plan, safe output, flow pictures, progress and stops.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "tools/ClipFiles.h"
#include "tools/FramePlan.h"
#include "tools/ImageFiles.h"
#include "tools/PluginSession.h"
#include "tools/Sequence.h"

// Rules for this folder:
// - The plug-in is driven only as a host drives it: its exported entry points and control
//   records, through the host simulator (PluginSession). The flow pictures use the plug-in's
//   own flow calls; nothing here reaches into the image library.
// - All file I/O goes through OpenImageIO, and every file the tool makes through
//   WriteImageSafely: nothing partial under a final name, nothing replaced without --overwrite.
// - Every check that can refuse a run comes before the first frame; a refused run changes
//   nothing on disk.
// - Messages are one line on standard error, "flowblur: ...", naming the file concerned.
// - DemoClip depends on nothing but the standard library: benchmarks and harnesses link it.

namespace flowblur {

// Exit codes of the command.
enum ExitCode : int {
  kExitOk = 0,
  kExitInput = 1,        // missing, unreadable or mismatched input frames
  kExitUsage = 2,        // bad command line or a control outside its range
  kExitOutput = 3,       // output exists, names an input, cannot be written
  kExitPlugin = 4,       // the plug-in reported a failure
  kExitMemory = 5,       // out of memory, or a run this machine cannot hold
  kExitStopped = 75,     // SIGTERM or SIGUSR1: stopped after a whole frame; rerun to resume
  kExitInterrupted = 130,
};

struct BatchOptions {
  std::string input;       // sequence pattern, one file, or a movie
  std::string output;      // sequence pattern, one file (for one frame), or a movie
  std::string motionFrom;  // back clip pattern or movie; empty: none
  bool haveFrames = false;
  int64_t firstFrame = 0, lastFrame = 0;  // with haveFrames; a last frame past the clip is clamped
  bool haveClip = false;                  // the clip is clipFirst..clipLast, not what is on disk
  int64_t clipFirst = 0, clipLast = 0;
  PluginControls controls;
  int32_t threads = 1;  // 1 to 127
  // Threads that decode the frames to come and encode and write finished ones beside the
  // plug-in (tools/FramePipeline.h); 0: everything in turn on one thread.
  int32_t ioThreads = 0;
  bool haveIoThreads = false;  // --io-threads was given (a farm task then passes it on)
  bool haveOutDepth = false;
  SampleDepth outDepth = SampleDepth::k8;
  bool overwrite = false;
  bool skipExisting = false;  // frames whose output exists are left alone, not refused
  bool progress = true;  // a progress line when standard error is a terminal, else a line a frame
  bool quiet = false;    // nothing but errors
  std::string flowFolder;  // --write-flow; empty: none
  bool flowExr = false;    // also the raw flow as EXR
  ColourChoice colour;       // --colorspace: the input's encoding, converted to linear light
  OutputOptions writing;  // --compression; --codec, --crf, --fps for a movie OUTPUT
};

// Set by the SIGINT handler; the run stops at the next frame boundary.
extern std::atomic<bool> gInterrupted;
// The SIGTERM or SIGUSR1 that asked the run to stop after its current frame (0: none); a
// scheduler sends them before it ends or requeues a job.
extern std::atomic<int> gStopSignal;
// Installs those handlers (a second Ctrl-C ends the process at once) and ignores SIGXFSZ and
// SIGPIPE so that a full disk or file-size limit surfaces as a write error.
void InstallSignalHandlers();

// The patterns of a run, its clip and the file frames it renders (before --skip-existing),
// settled as the run settles them. Returns kExitOk, or an ExitCode after saying why.
struct RunRange {
  SequencePattern input, output, back;
  // Where the front and back frames come from (files or a movie), opened by ResolveRunRange.
  std::shared_ptr<ClipSource> inputSource, backSource;
  ClipSpan clip;
  int64_t first = 0, last = 0;  // file frame numbers, inside the clip
};
int ResolveRunRange(const BatchOptions& options, RunRange* range);

// The whole run; messages go to standard error. Returns an ExitCode.
int RunBatch(const BatchOptions& options);

// Frames written by the last RunBatch (for the demo's summary).
int64_t LastRunFramesWritten();

}  // namespace flowblur
