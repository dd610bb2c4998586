// flowblur: the frei0r filter instance: parameters, the frame clock, and one frame's work
// through the same flow and render calls as the Spark plug-in's driver.
#include "frei0r/FlowBlurFilter.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "frei0r/Frei0rProcessors.h"
#include "shell/SparkDriver.h"
#include "shell/SparkFlowCalls.h"

namespace frei0rblur {
namespace {

constexpr double kMinAmount = -2.0;
constexpr double kMaxAmount = 10.0;
constexpr double kAmountSpan = kMaxAmount - kMinAmount;
constexpr double kAmountSteps = 1000.0;  // the amount is kept to 0.001
constexpr int32_t kUChar = 0;           // library pixel type of 8-bit samples

void* DefaultAllocate(size_t bytes) { return std::malloc(bytes); }

}  // namespace

float AmountFromParam(double value) {
  if (std::isnan(value)) return kDefaultAmount;
  double amount = value * kAmountSpan + kMinAmount;
  if (!(amount > kMinAmount)) amount = kMinAmount;  // also -inf
  if (!(amount < kMaxAmount)) amount = kMaxAmount;
  return static_cast<float>(std::round(amount * kAmountSteps) / kAmountSteps);
}

double ParamFromAmount(float amount) { return (double{amount} - kMinAmount) / kAmountSpan; }

bool DraftFromParam(double value) { return value >= 0.5; }

// The Spark driver's mapping: Draft is mode 2 (a quarter of the frame), Best mode 1 (half).
int32_t EstimatorMode(bool draft) { return draft ? 2 : 1; }

bool FrameClock::SameStampAsPrevious(double time) const {
  return havePrevious_ && std::isfinite(time) && std::isfinite(previousTime_) &&
         time == previousTime_;
}

FrameStep FrameClock::Classify(double time, bool samePixels) const {
  if (!havePrevious_ || !std::isfinite(time) || !std::isfinite(previousTime_))
    return FrameStep::kNoNeighbour;
  const double step = time - previousTime_;
  if (step == 0.0) return samePixels ? FrameStep::kRepeat : FrameStep::kSuccessor;
  // A difference of two huge finite stamps can overflow to infinity: a jump as well.
  if (!(step > 0.0) || !std::isfinite(step)) return FrameStep::kNoNeighbour;
  if (lastStep_ > 0.0 && step > kMaxStepRatio * lastStep_) return FrameStep::kNoNeighbour;
  return FrameStep::kSuccessor;
}

void FrameClock::Remember(double time, FrameStep step) {
  if (step == FrameStep::kSuccessor && havePrevious_ && time > previousTime_)
    lastStep_ = time - previousTime_;
  havePrevious_ = true;
  previousTime_ = time;
}

FlowBlurFilter::FlowBlurFilter(uint32_t width, uint32_t height)
    : width_(width), height_(height), allocate_(DefaultAllocate) {}

FlowBlurFilter::~FlowBlurFilter() { ReleaseBuffers(); }

void FlowBlurFilter::SetParam(int index, double value) {
  if (index == 0) amount_ = AmountFromParam(value);
  if (index == 1) draft_ = DraftFromParam(value);
}

double FlowBlurFilter::GetParam(int index) const {
  if (index == 0) return ParamFromAmount(amount_);
  if (index == 1) return draft_ ? 1.0 : 0.0;
  return 0.0;
}

void FlowBlurFilter::SetAllocator(Allocate allocate) {
  ReleaseBuffers();
  allocate_ = allocate ? allocate : DefaultAllocate;
  clock_.Forget();
}

void FlowBlurFilter::ReleaseBuffers() {
  std::free(current_);
  std::free(previous_);
  std::free(result_);
  current_ = previous_ = result_ = nullptr;
  lastRendered_ = false;
}

bool FlowBlurFilter::EnsureBuffers() {
  if (current_ && previous_ && result_) return true;
  ReleaseBuffers();
  // The library addresses rows with 32-bit byte counts.
  const uint64_t rowBytes = uint64_t{width_} * 3;
  if (rowBytes > static_cast<uint64_t>(std::numeric_limits<int32_t>::max()) ||
      height_ > static_cast<uint32_t>(std::numeric_limits<int32_t>::max()))
    return false;
  const uint64_t bytes = rowBytes * height_;
  if (bytes > std::numeric_limits<size_t>::max() / 2) return false;
  current_ = static_cast<uint8_t*>(allocate_(static_cast<size_t>(bytes)));
  previous_ = static_cast<uint8_t*>(allocate_(static_cast<size_t>(bytes)));
  result_ = static_cast<uint8_t*>(allocate_(static_cast<size_t>(bytes)));
  if (current_ && previous_ && result_) return true;
  ReleaseBuffers();
  return false;
}

void FlowBlurFilter::PassThrough(const uint32_t* in, uint32_t* out) {
  if (in != out) std::memmove(out, in, size_t{width_} * height_ * sizeof(uint32_t));
  outcome_ = Outcome::kPassedThrough;
}

// The flow from this frame to the previous one and the render, with the arguments the
// Spark driver gives for an 8-bit frame n >= 1: the current frame first, rows top-down,
// no edge blend, its level factor and white point.
bool FlowBlurFilter::Render() {
  const int32_t w = static_cast<int32_t>(width_);
  const int32_t h = static_cast<int32_t>(height_);
  const int32_t rowBytes = w * 3;
  LibraryTurn turn(w, h);
  PLOpticalFlowUChar* estimator = CreateFlowEstimator(w, h, EstimatorMode(draft_));
  int32_t code = CalculateFlow(estimator, current_, w, h, rowBytes, kSparkRowOrder, previous_, w,
                               h, rowBytes, kSparkRowOrder, kUChar, false, kSparkLevelFactor,
                               kSparkWhitePoint);
  if (code == 0)
    code = RenderBlur(estimator, result_, w, h, rowBytes, kSparkRowOrder, current_, w, h,
                      rowBytes, kSparkRowOrder, kUChar, amount_, kSparkWhitePoint);
  DestroyFlowEstimator(estimator);
  return code == 0;
}

// The result's RGB with the input's alpha. `in` may be `out`: each pixel is read before
// it is written.
void FlowBlurFilter::Emit(const uint32_t* in, uint32_t* out) const {
  const size_t pixels = size_t{width_} * height_;
  const uint8_t* from = reinterpret_cast<const uint8_t*>(in);
  uint8_t* to = reinterpret_cast<uint8_t*>(out);
  for (size_t i = 0; i < pixels; ++i) {
    const uint8_t alpha = from[4 * i + 3];
    to[4 * i + 0] = result_[3 * i + 0];
    to[4 * i + 1] = result_[3 * i + 1];
    to[4 * i + 2] = result_[3 * i + 2];
    to[4 * i + 3] = alpha;
  }
}

void FlowBlurFilter::Update(double time, const uint32_t* in, uint32_t* out) {
  outcome_ = Outcome::kNone;
  if (!in || !out || width_ == 0 || height_ == 0) return;
  try {
    if (!EnsureBuffers()) {
      clock_.Forget();
      PassThrough(in, out);
      return;
    }
    const size_t pixels = size_t{width_} * height_;
    const uint8_t* from = reinterpret_cast<const uint8_t*>(in);
    for (size_t i = 0; i < pixels; ++i) {
      current_[3 * i + 0] = from[4 * i + 0];
      current_[3 * i + 1] = from[4 * i + 1];
      current_[3 * i + 2] = from[4 * i + 2];
    }
    const bool samePixels = clock_.SameStampAsPrevious(time) &&
                            std::memcmp(current_, previous_, pixels * 3) == 0;
    const FrameStep step = clock_.Classify(time, samePixels);
    if (step == FrameStep::kRepeat) {
      if (lastRendered_) {
        Emit(in, out);
        outcome_ = Outcome::kRepeated;
      } else {
        PassThrough(in, out);
      }
      return;  // the previous frame stays, with its stamp
    }
    lastRendered_ = step == FrameStep::kSuccessor && Render();
    if (lastRendered_) {
      Emit(in, out);
      outcome_ = Outcome::kBlurred;
      clock_.Remember(time, step);
    } else {
      PassThrough(in, out);
      // A frame whose successor step failed still serves as the next frame's neighbour.
      clock_.Remember(time, FrameStep::kNoNeighbour);
    }
    std::swap(current_, previous_);
  } catch (...) {
    // Nothing reaches the host; this frame as it came, and no neighbour for the next.
    lastRendered_ = false;
    clock_.Forget();
    PassThrough(in, out);
  }
}

}  // namespace frei0rblur
