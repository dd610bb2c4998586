// flowblur: the frei0r filter instance: frames one at a time, each blurred along the flow
// from the frame before it, as the Spark plug-in's driver blurs every frame after the first.
#pragma once
#include <cstddef>
#include <cstdint>

namespace frei0rblur {

// ---- Parameters as a frei0r host sends them (doubles, nominally 0 to 1)

// Parameter 0, "amount": the Amount of Blur, -2 to 10, sent as v = (amount + 2) / 12.
// amount = v x 12 - 2, limited to -2 .. 10 and rounded to the nearest 0.001, so that a
// host's short decimal means a round amount (0.2083 is 0.5, 0.25 is 1, 0.1667 is 0). NaN
// gives the default. A filter cannot refuse a value: anything outside is limited.
constexpr float kDefaultAmount = 0.5f;
float AmountFromParam(double value);
// The value that stands for an amount (what f0r_get_param_value reports).
double ParamFromAmount(float amount);

// Parameter 1, "draft": a boolean (0 or 1). At 0.5 or more, Draft quality (the flow at a
// quarter of the frame size); below, or NaN, Best (half size), the default.
bool DraftFromParam(double value);
// The estimator mode of each quality, as the Spark driver picks it.
int32_t EstimatorMode(bool draft);

// ---- Which frame a frame is blurred against

// What a frame's time says about the frame before it.
enum class FrameStep {
  kNoNeighbour,  // first frame, or a jump: passes through unchanged
  kSuccessor,    // blurred along the flow from the previous frame
  kRepeat,       // the previous frame again: the previous result again
};

// Hosts stamp frames in seconds or milliseconds, and some send one meaningless stamp for
// every frame, so units are never assumed; only steps between stamps count:
//   - no previous frame, or a stamp (this or the previous) that is not finite: no neighbour;
//   - a step backwards: no neighbour (a seek or a step back);
//   - a step forwards more than kMaxStepRatio times the last accepted forward step: no
//     neighbour (a seek, or frames the host dealt to another instance); otherwise a
//     successor, and this step becomes the last one. The first step after the first frame
//     has nothing to be compared with and is accepted;
//   - the same stamp again: a repeat when the pixels are the same (hosts repeat the last
//     frame at the end of a clip), otherwise a successor: a host that gives every frame one
//     stamp still delivers them in order (ffmpeg's re-aligned frames carry no time).
class FrameClock {
 public:
  static constexpr double kMaxStepRatio = 1.5;

  // True when `time` equals the previous frame's stamp (the caller then compares pixels).
  bool SameStampAsPrevious(double time) const;
  // What a frame of this stamp is; `samePixels` is read only for a repeated stamp.
  FrameStep Classify(double time, bool samePixels) const;
  // Takes the frame as the previous one, after Classify gave `step` for it.
  void Remember(double time, FrameStep step);
  // No previous frame (the step length already learned is kept).
  void Forget() { havePrevious_ = false; }

 private:
  bool havePrevious_ = false;
  double previousTime_ = 0.0;
  double lastStep_ = 0.0;  // 0: none accepted yet
};

// ---- The instance

// Frames of width x height pixels, 4 bytes a pixel in R, G, B, A order (frei0r's RGBA8888),
// rows packed. RGB is blurred exactly as the Spark plug-in blurs an 8-bit RGB frame; alpha
// is copied from the input frame, untouched.
class FlowBlurFilter {
 public:
  // Allocation of the frame-sized working buffers; returns null on failure. Replaceable for
  // tests; malloc by default.
  typedef void* (*Allocate)(size_t bytes);

  FlowBlurFilter(uint32_t width, uint32_t height);
  ~FlowBlurFilter();
  FlowBlurFilter(const FlowBlurFilter&) = delete;
  FlowBlurFilter& operator=(const FlowBlurFilter&) = delete;

  // Parameters as the host sends them; see above.
  void SetParam(int index, double value);
  double GetParam(int index) const;
  float Amount() const { return amount_; }
  bool Draft() const { return draft_; }

  // One frame. `in` and `out` hold width x height pixels and may be the same block. Never
  // throws; a frame that cannot be processed (working memory refused, a size the library
  // refuses such as one row or one column, any library failure) passes through unchanged
  // and the next frame has no neighbour.
  void Update(double time, const uint32_t* in, uint32_t* out);

  // What the last Update did with its frame (for tests and diagnostics).
  enum class Outcome { kNone, kPassedThrough, kBlurred, kRepeated };
  Outcome LastOutcome() const { return outcome_; }

  void SetAllocator(Allocate allocate);

 private:
  bool EnsureBuffers();
  void ReleaseBuffers();
  void PassThrough(const uint32_t* in, uint32_t* out);
  bool Render();
  void Emit(const uint32_t* in, uint32_t* out) const;

  uint32_t width_;
  uint32_t height_;
  float amount_ = kDefaultAmount;
  bool draft_ = false;
  Allocate allocate_;
  // Packed RGB planes of width x height x 3 bytes: this frame, the previous frame, and the
  // last result (valid while lastRendered_).
  uint8_t* current_ = nullptr;
  uint8_t* previous_ = nullptr;
  uint8_t* result_ = nullptr;
  bool lastRendered_ = false;
  FrameClock clock_;
  Outcome outcome_ = Outcome::kNone;
};

}  // namespace frei0rblur
