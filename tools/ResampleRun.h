// flowblur: runs that make new frames from a sequence (retime, deinterlace): the retiming
// engine served from a frame plan, and the run loop with the batch host's guarantees.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "retime/NuvChronar4.h"
#include "tools/BatchRun.h"
#include "tools/FlowView.h"
#include "tools/FrameCache.h"
#include "tools/FramePlan.h"
#include "tools/ImageFiles.h"
#include "tools/TimeMap.h"

namespace flowblur {

// The engine's working type for a file depth: 8-bit as UChar, 16-bit as UShort, half and
// float as Float, so that no made frame loses precision its input had.
int32_t WorkingTypeFor(SampleDepth depth);

// A frame's colour and alpha as the engine's 4-channel picture (R, G, B, matte) of
// `dataType`, samples in that type's white units (integers rounded and limited). Grey frames
// give R = G = B; frames without alpha a matte of white.
void ToWorking(const Frame& frame, int32_t dataType, PLImage* out);
// The picture back into `frame` (which carries the layout): colour channels from R, G, B (a
// grey channel from R), the alpha channel, when the frame has one, from the matte. Other
// channels are left as they are.
void FromWorking(const PLImage& picture, Frame* frame);

// The retiming engine over the input frames of one planned output frame. Engine frame n is
// the clip's frame at offset n. A render serves exactly the frames the plan lists for it
// (Serve); a frame past the clip's end, which the engine fetches with weight 0 when a time
// falls on the last frame, is served as that last frame.
//
// Field mode (SetKeptRows 0 or 1): every frame served is first made whole from the rows of
// one parity (0 the even rows, 1 the odd rows) by line averaging, so that the engine moves
// one field's picture through time.
class PlannedChronar : public NuvChronar4 {
 public:
  PlannedChronar(int32_t width, int32_t height, int32_t dataType, int64_t clipFrames);
  ~PlannedChronar() override;

  using Inputs = std::map<FrameRead, std::shared_ptr<const Frame>>;
  // The frames of the next render (front clip); null between renders. Each frame is turned
  // into the engine's picture once and kept while the renders that follow still read it.
  void Serve(const Inputs* inputs);
  // Engine time k (the k-th output frame of the whole run) to source offset: the listed
  // frame's source time less the clip's first frame number, and between listed frames as
  // SourceTimeAt. Null: the identity.
  void SetTimes(const std::vector<TimedFrame>* times, int64_t clipFirst) {
    times_ = times;
    timesFirst_ = clipFirst;
  }
  void SetKeptRows(int32_t parity) { keptRows_ = parity; }
  // A shutter as a fraction of the output frame interval (0: none): the engine blurs made
  // frames along the flow by this fraction of the source motion between two output frames.
  void SetShutterFraction(float fraction);
  // The channels of the pictures shown and made (Render's `out`), chosen for frames like
  // `info` under the settings made so far: 3 (R, G, B) when the clip has no alpha, so that a
  // matte would be thrown away, and every step of the render treats channels alone (gather
  // warp, no dissolve, no shutter, whole frames); else 4. Motion pictures always have 4, so
  // the flow and the made R, G, B are the same bits either way. Call after the settings.
  int32_t ChoosePictureChannels(const FrameInfo& info);

  // The picture at engine time `time` into `out` (of the working type, with the channels
  // ChoosePictureChannels gave). Quality: the engine's code. False with a message.
  bool Render(double time, int32_t quality, PLImage* out, std::string* error);
  // The flow of the last render, forward in time (from frame i to frame j), on its own grid;
  // false when the last render used none (its time fell on a source frame).
  bool LastFlow(FlowField* flow) const;

  int32_t GetFrame(NuvImage** frame, int32_t frameNumber) override;
  int32_t GetMotionFrame(NuvImage** frame, int32_t frameNumber) override;
  void ReleaseFrame(NuvImage* frame) override;
  int32_t GetMatte(NuvImage** matte, int32_t frameNumber, int32_t matteIndex) override;
  void ReleaseMatte(NuvImage* matte) override;
  void MapTime(float time, float* sourceTime) override;
  int32_t FrameKind(float time) override;
  int32_t GetWarpStyle() override { return warpStyle; }
  int32_t OverrideAmount(float* amount) override;

  int32_t warpStyle = 1;  // see NuvChronar4

 private:
  struct Picture;
  struct Served;
  int32_t ServePicture(NuvImage** view, int32_t frameNumber, bool motion);
  int32_t width_, height_, dataType_;
  int64_t clipFrames_;
  const Inputs* inputs_ = nullptr;
  const std::vector<TimedFrame>* times_ = nullptr;
  int64_t timesFirst_ = 0;
  int32_t keptRows_ = -1;
  float shutterFraction_ = 0.0f;
  float renderTime_ = 0.0f;
  int32_t pictureChannels_ = 4;
  std::map<int64_t, std::unique_ptr<Served>> served_;  // by offset in the clip
  std::string lastError_;
};

// Options the commands share with the batch host.
struct ResampleOptions {
  std::string input, output;
  bool haveFrames = false;  // --frames A-B: output frame numbers to make
  int64_t firstFrame = 0, lastFrame = 0;
  int32_t threads = 1;
  bool haveOutDepth = false;
  SampleDepth outDepth = SampleDepth::k8;
  bool overwrite = false, skipExisting = false, quiet = false, progress = true;
  std::string flowFolder;  // --write-flow
  OutputOptions writing;  // --compression; --codec, --crf and the rate of a movie OUTPUT
};

// One planned output frame's picture: `out` arrives as a copy of the input frame at the
// plan's offset (its other channels stand), the callback sets its colour (and alpha), and
// a flow to show when it has one (flow->width 0 otherwise). False with a message.
using MakeFrame = std::function<bool(size_t index, const PlannedChronar::Inputs& inputs,
                                     Frame* out, FlowField* flow, std::string* error)>;

// What a command tells the run once the input is known.
struct ResamplePlan {
  FramePlan plan;  // every output frame of the whole run, in order
  MakeFrame make;
};
// Builds the plan from the input clip and the first frame's header; false after saying why
// (the exit code in *code).
using PlanMaker = std::function<bool(const ClipSpan& clip, const FrameInfo& info,
                                     ResamplePlan* plan, int* code)>;

// The run: input clip, plan, --frames and --skip-existing, every check before the first
// frame (inputs exist and match, outputs are not inputs and do not exist without
// --overwrite, folders writable, memory), then each planned frame made and written safely,
// with progress, Ctrl-C, SIGTERM/SIGUSR1 as the batch host has them. Returns an ExitCode.
int RunResample(const ResampleOptions& options, const PlanMaker& makePlan);

// Sets up the library's workers for frames of this size on `threads` host processors.
void UseWorkers(int32_t threads, int32_t width, int32_t height);

// Frames written by the last RunResample.
int64_t LastResampleFramesWritten();

}  // namespace flowblur
