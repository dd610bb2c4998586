// flowblur: driving the statically linked plug-in through the host simulator.
#include "tools/PluginSession.h"

#include <algorithm>
#include <cstring>

#include "flow/PLOpticalFlowUChar.h"
#include "host/SparkHost.h"
#include "runtime/NuvMP.h"
#include "shell/SparkDriver.h"
#include "shell/SparkFlowCalls.h"
#include "shell/SparkPack.h"

namespace flowblur {
namespace {

// The estimator's pixel type for a host format: 8-bit, 16-bit, or float planes for half.
int32_t PixelTypeFor(int32_t formatCode) {
  if (formatCode == 48 || formatCode == 64) return 1;
  if (formatCode == 49) return 2;
  return 0;
}

spark_info_struct SessionInfo(int32_t formatCode, int32_t processors) {
  spark_info_struct info;
  std::memset(&info, 0, sizeof info);
  info.FormatCode = formatCode;
  info.ProcessorCount = static_cast<int8_t>(processors);
  return info;
}

}  // namespace

float AmountMinimum() { return SparkFloat0.minimum; }
float AmountMaximum() { return SparkFloat0.maximum; }

PluginSession::PluginSession(int32_t width, int32_t height, int32_t formatCode, int32_t frames,
                             bool withBack, int32_t processors, const PluginControls& controls,
                             FrameSource source)
    : width_(width),
      height_(height),
      formatCode_(formatCode),
      frames_(frames),
      processors_(processors),
      withBack_(withBack),
      controls_(controls),
      source_(std::move(source)) {
  sparkhost::Reset();
  sparkhost::SetProcessors(processors);
  sparkhost::FrameLayout layout;
  layout.width = width;
  layout.height = height;
  layout.formatCode = formatCode;
  layout.stride = 0;
  auto setClip = [&](int32_t clip) {
    if (!source_) return sparkhost::SetClip(clip, layout, frames);
    sparkhost::SetClipSource(clip, layout, frames,
                             [this, clip](int32_t frame) { return source_(clip, frame); });
  };
  setClip(kFrontClip);
  // The plug-in fetches the back buffer on every frame, so it needs one even when no back
  // clip is connected; it then holds black and is never read.
  if (withBack)
    setClip(kBackClip);
  else
    sparkhost::SetBuffer(sparkhost::kBackBuffer, layout);
  SparkInitialise(SessionInfo(formatCode, processors));
  SparkMemoryTempBuffers();
  // After SparkInitialise, which restores the host's saved setup: the caller's choice wins.
  SparkFloat0.value = controls.amount;
  SparkPup1.value = controls.quality;
  SparkBoolean2.value = controls.motionFromBack ? 1 : 0;
  notesSeen_ = sparkhost::Notes().size();
}

PluginSession::~PluginSession() { SparkUnInitialise(SessionInfo(formatCode_, processors_)); }

int64_t PluginSession::FrameBytes() const {
  return sparkhost::FrameBytes(sparkhost::ClipLayout(kFrontClip));
}

void PluginSession::SetFrame(int32_t clip, int32_t frame, const void* packed) {
  sparkhost::SetClipFrame(clip, frame, packed);
}

uint8_t* PluginSession::ClipFrame(int32_t clip, int32_t frame) {
  return sparkhost::ClipFrame(clip, frame);
}

const uint8_t* PluginSession::FrameOf(int32_t clip, int32_t frame) {
  if (source_) return static_cast<const uint8_t*>(source_(clip, frame));
  return sparkhost::ClipFrame(clip, frame);
}

int32_t PluginSession::ClampFrame(int32_t frame) const {
  return frame < 0 ? 0 : frame >= frames_ ? frames_ - 1 : frame;
}

// Motion from the back clip only when one is connected, as the plug-in falls back to the front.
int32_t PluginSession::MotionClip() const {
  return controls_.motionFromBack && withBack_ ? kBackClip : kFrontClip;
}

int32_t PluginSession::Neighbour(int32_t n) const {
  return SparkNeighbourFrame(n, controls_.motionFromBack ? 1 : 0);
}

std::vector<std::pair<int32_t, int32_t>> PluginSession::FramesNeeded(int32_t n) const {
  std::vector<std::pair<int32_t, int32_t>> needed;
  for (const auto& [clip, frame] : FramesRead(n, frames_, withBack_, controls_.motionFromBack))
    needed.push_back({clip, static_cast<int32_t>(frame)});
  return needed;
}

std::vector<std::pair<int32_t, int64_t>> PluginSession::FramesRead(int64_t n, int64_t clipFrames,
                                                                   bool withBack,
                                                                   bool motionFromBack) {
  auto clamp = [clipFrames](int64_t frame) {
    return frame < 0 ? 0 : frame >= clipFrames ? clipFrames - 1 : frame;
  };
  // The plug-in's own rule; clips are at most INT32_MAX frames long (the host's frame numbers).
  const int64_t neighbour =
      SparkNeighbourFrame(static_cast<int32_t>(n), motionFromBack ? 1 : 0);
  // Motion from the back clip only when one is connected, as the plug-in falls back to the front.
  const int32_t motionClip = motionFromBack && withBack ? kBackClip : kFrontClip;
  std::vector<std::pair<int32_t, int64_t>> needed;
  needed.push_back({kFrontClip, clamp(n)});
  if (motionClip == kBackClip) needed.push_back({kBackClip, clamp(n)});
  needed.push_back({motionClip, clamp(neighbour)});
  return needed;
}

spark_info_struct PluginSession::BeginFrame(int32_t n) { return sparkhost::BeginFrame(n); }

bool PluginSession::TakeNotes(std::string* said) {
  std::vector<sparkhost::Note> notes = sparkhost::Notes();
  said->clear();
  for (size_t i = notesSeen_; i < notes.size(); ++i)
    *said += (said->empty() ? "" : "; ") + notes[i].text;
  notesSeen_ = notes.size();
  return !said->empty();
}

const void* PluginSession::Process(int32_t n, std::string* error) {
  spark_info_struct info = BeginFrame(n);
  void* result = SparkProcess(info);
  std::string said;
  if (TakeNotes(&said)) {
    *error = "the plug-in reported: " + said;
    return nullptr;
  }
  if (!result) *error = "the plug-in returned no result";
  return result;
}

bool PluginSession::PluginFlow(int32_t n, std::vector<float>* uv, int32_t* flowWidth,
                               int32_t* flowHeight, int32_t* first, int32_t* second,
                               std::string* error) {
  const int32_t clip = MotionClip();
  const int32_t current = ClampFrame(n), neighbour = ClampFrame(Neighbour(n));
  // The plug-in's order: the neighbour first at frame 0, the current frame first otherwise.
  *first = n == 0 ? neighbour : current;
  *second = n == 0 ? current : neighbour;
  const uint8_t* a = FrameOf(clip, *first);
  const uint8_t* b = FrameOf(clip, *second);
  if (!a || !b) {
    *error = "frame " + std::to_string(a ? *second : *first) + " of the pair was not supplied";
    return false;
  }
  int32_t rowBytes = static_cast<int32_t>(sparkhost::RowBytes(sparkhost::ClipLayout(clip)));
  // Half frames reach the estimator as float planes, as in the plug-in, converted by the
  // shell's own (exact) half conversion.
  std::vector<float> planeA, planeB;
  if (formatCode_ == 49) {
    const size_t samples = static_cast<size_t>(width_) * height_ * 3;
    planeA.resize(samples);
    planeB.resize(samples);
    for (size_t i = 0; i < samples; ++i) {
      uint16_t half;
      std::memcpy(&half, a + i * 2, 2);
      planeA[i] = SparkHalfToFloat(half);
      std::memcpy(&half, b + i * 2, 2);
      planeB[i] = SparkHalfToFloat(half);
    }
    a = reinterpret_cast<const uint8_t*>(planeA.data());
    b = reinterpret_cast<const uint8_t*>(planeB.data());
    rowBytes = width_ * 12;
  }
  // What SparkProcess sets before its calls: thread count and the frame the workers divide.
  NuvMPSetThreadCount(processors_);
  ::Width = width_;
  ::Height = height_;
  PLOpticalFlowUChar* estimator =
      CreateFlowEstimator(width_, height_, controls_.quality == 1 ? 2 : 1);
  if (!estimator) {
    *error = "cannot create the flow estimator (out of memory?)";
    return false;
  }
  // The flow calls only read the frames.
  int32_t code = CalculateFlow(estimator, const_cast<uint8_t*>(a), width_, height_, rowBytes,
                               kSparkRowOrder, const_cast<uint8_t*>(b),
                               width_, height_, rowBytes, kSparkRowOrder,
                               PixelTypeFor(formatCode_), false, kSparkLevelFactor,
                               kSparkWhitePoint);
  if (code != 0) {
    DestroyFlowEstimator(estimator);
    *error = "the flow calculation failed with code " + std::to_string(code);
    return false;
  }
  const PLImage* flow = estimator->flowPyramid[0];
  *flowWidth = flow->width;
  *flowHeight = flow->height;
  uv->resize(static_cast<size_t>(flow->width) * flow->height * 2);
  for (int32_t y = 0; y < flow->height; ++y)
    std::memcpy(&(*uv)[static_cast<size_t>(y) * flow->width * 2], flow->Row(y),
                static_cast<size_t>(flow->width) * 2 * sizeof(float));
  DestroyFlowEstimator(estimator);
  return true;
}

ClipSession::ClipSession(int32_t width, int32_t height, int32_t formatCode, int64_t clipFrames,
                         bool withBack, int32_t processors, const PluginControls& controls)
    : clipFrames_(clipFrames),
      withBack_(withBack),
      motionFromBack_(controls.motionFromBack),
      session_(width, height, formatCode, static_cast<int32_t>(clipFrames), withBack, processors,
               controls, [this](int32_t clip, int32_t frame) { return Serve(clip, frame); }) {}

std::vector<std::pair<int32_t, int64_t>> ClipSession::FramesRead(int64_t n) const {
  return PluginSession::FramesRead(n, clipFrames_, withBack_, motionFromBack_);
}

const void* ClipSession::Serve(int32_t clip, int32_t frame) {
  const void* bytes = packed_ ? packed_(clip, frame) : nullptr;
  if (!bytes && missing_.empty())
    missing_ = "frame " + std::to_string(frame) + (clip == kBackClip ? " of the back clip" : "") +
               " was not supplied";
  return bytes;
}

const void* ClipSession::Process(int64_t n, const PackedFrame& packed, std::string* error) {
  if (n < 0 || n >= clipFrames_) {
    *error = "frame " + std::to_string(n) + " is outside the clip";
    return nullptr;
  }
  packed_ = packed;
  missing_.clear();
  const void* result = session_.Process(static_cast<int32_t>(n), error);
  // A frame the host could not load is the host's fault, whatever the plug-in made of it.
  if (!missing_.empty()) {
    *error = missing_;
    return nullptr;
  }
  return result;
}

bool ClipSession::PluginFlow(int64_t n, std::vector<float>* uv, int32_t* flowWidth,
                             int32_t* flowHeight, int64_t* first, int64_t* second,
                             std::string* error) {
  int32_t a, b;
  if (!session_.PluginFlow(static_cast<int32_t>(n), uv, flowWidth, flowHeight, &a, &b, error))
    return false;
  *first = a;
  *second = b;
  return true;
}

}  // namespace flowblur
