// flowblur: the retiming engine over an image sequence on disk: frames (and mattes) read
// through the tool's file layer into a byte-bounded cache, times mapped by a function.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "retime/NuvChronar4.h"
#include "tools/FrameCache.h"
#include "tools/ImageFiles.h"
#include "tools/Sequence.h"

namespace flowblur {

struct SequenceChronarOptions {
  SequencePattern frames;               // the source pictures
  std::vector<SequencePattern> mattes;  // one sequence per matte, nearest layer first (0..9)
  int64_t first = 0, last = 0;          // source frames that exist, inclusive
  // Output time to source time (frames, fractional). Null: the identity.
  std::function<double(double)> timeMap;
  // Frames that begin a new shot: no picture is ever made across such a cut.
  std::vector<int64_t> cuts;
  int32_t dataType = PLFloat;  // working type of the engine: PLUChar, PLUShort or PLFloat
  int64_t cacheBytes = int64_t{512} << 20;
  int32_t warpStyle = 0;  // see NuvChronar4
};

// Serves the engine frames 'first'..'last' of a sequence. Pictures are the file's colour
// channels (grey expanded to R = G = B), scaled to the working type (UChar and UShort rounded
// and limited to the type). Mattes are one channel: the file's alpha (a channel named A or
// alpha) where it has one, else its first channel, scaled alike. The engine's own fields
// (interpolation, useFlow, shutter, blurQuality) are set on this object as usual.
//
// Frame kinds: times before `first` or past `last` (by whole frames) are held frames (kind
// 3: the nearest frame is shown, never a mix), and each shot between cuts has its own label,
// so times across a cut show the nearest frame as well. A frame that cannot be read, or whose
// size differs from the first frame's, makes the render fail with a message.
//
// Forks run on the library's worker count (NuvMPSetThreadCount and the host's processors, as
// a batch command sets them up); results do not depend on it.
class SequenceChronar : public NuvChronar4 {
 public:
  explicit SequenceChronar(SequenceChronarOptions options);
  ~SequenceChronar() override;

  // The picture at output time `time` into `out`: width and height of the source, three
  // colour channels as floats in white units, `out->info` taken from the first source frame
  // (channels 3, colour 0, 1, 2). quality: the engine's code (0 to 5); levelFactor: the
  // estimator's start for every layer (1.0 starts at the coarsest level); chokes: per matte
  // (null: 0). False with a message on any failure (unreadable or mismatched frame, time
  // outside the clip, a refused setting).
  bool Render(double time, int32_t quality, float levelFactor, const float* chokes, Frame* out,
              std::string* error);

  const FrameCache& Cache() const { return cache_; }
  const SequenceChronarOptions& Options() const { return options_; }

  // Engine hooks.
  int32_t GetFrame(NuvImage** frame, int32_t frameNumber) override;
  int32_t GetMotionFrame(NuvImage** frame, int32_t frameNumber) override;
  void ReleaseFrame(NuvImage* frame) override;
  int32_t GetMatte(NuvImage** matte, int32_t frameNumber, int32_t matteIndex) override;
  void ReleaseMatte(NuvImage* matte) override;
  void MapTime(float time, float* sourceTime) override;
  int32_t FrameKind(float time) override;
  int32_t GetWarpStyle() override { return options_.warpStyle; }

 private:
  struct Served;
  int32_t Serve(NuvImage** view, int32_t frameNumber, int32_t stream);
  bool ReadInto(int64_t frame, int32_t stream, Frame* out, std::string* error);

  SequenceChronarOptions options_;
  FrameCache cache_;
  int32_t width_ = 0, height_ = 0;
  FrameInfo firstInfo_;
  std::vector<std::unique_ptr<Served>> served_;
  std::string lastError_;
};

}  // namespace flowblur
