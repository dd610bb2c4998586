// flowblur: driving the statically linked plug-in through the host simulator.
#include "tools/PluginRunner.h"

#include <Imath/half.h>

#include <cstring>
#include <stdexcept>

#include "flow/PLOpticalFlowUChar.h"
#include "host/SparkHost.h"
#include "runtime/NuvMP.h"
#include "shell/SparkDriver.h"
#include "shell/SparkFlowCalls.h"
#include "shell/spark.h"

namespace flowblur {
namespace {

constexpr int32_t kFrontClip = 0;
constexpr int32_t kBackClip = 1;

// The plug-in's estimator mode for a quality choice: Draft (1) works at a quarter of the frame,
// Best at a half.
int32_t ModeFor(int32_t quality) { return quality == 1 ? 2 : 1; }

int32_t PixelTypeFor(int32_t formatCode) {
  if (formatCode == 24 || formatCode == 25) return 0;
  if (formatCode == 48 || formatCode == 64) return 1;
  return 2;
}

}  // namespace

float AmountMinimum() { return SparkFloat0.minimum; }
float AmountMaximum() { return SparkFloat0.maximum; }

PluginRunner::PluginRunner(int32_t width, int32_t height, int32_t formatCode, int32_t frames,
                           bool withBack, int32_t processors, const PluginControls& controls)
    : width_(width),
      height_(height),
      formatCode_(formatCode),
      frames_(frames),
      processors_(processors),
      withBack_(withBack),
      controls_(controls) {
  sparkhost::Reset();
  sparkhost::SetProcessors(processors);
  sparkhost::FrameLayout layout;
  layout.width = width;
  layout.height = height;
  layout.formatCode = formatCode;
  layout.stride = 0;
  sparkhost::SetClip(kFrontClip, layout, frames);
  // The plug-in fetches the back buffer on every frame, so it needs one even when no back
  // clip is connected; it then holds black and is never read.
  if (withBack)
    sparkhost::SetClip(kBackClip, layout, frames);
  else
    sparkhost::SetBuffer(sparkhost::kBackBuffer, layout);

  spark_info_struct info;
  std::memset(&info, 0, sizeof info);
  info.FormatCode = formatCode;
  info.ProcessorCount = static_cast<int8_t>(processors);
  SparkInitialise(info);
  SparkMemoryTempBuffers();
  // Set after SparkInitialise, which restores the host's saved setup: the command line wins.
  SparkFloat0.value = controls.amount;
  SparkPup1.value = controls.quality;
  SparkBoolean2.value = controls.motionFromBack ? 1 : 0;
  notesSeen_ = sparkhost::Notes().size();
}

PluginRunner::~PluginRunner() {
  spark_info_struct info;
  std::memset(&info, 0, sizeof info);
  info.FormatCode = formatCode_;
  info.ProcessorCount = static_cast<int8_t>(processors_);
  SparkUnInitialise(info);
}

int64_t PluginRunner::FrameBytes() const {
  sparkhost::FrameLayout layout = sparkhost::ClipLayout(kFrontClip);
  return sparkhost::FrameBytes(layout);
}

void PluginRunner::SetFrame(int32_t clip, int32_t frame, const void* packed) {
  sparkhost::SetClipFrame(clip, frame, packed);
}

int32_t PluginRunner::Neighbour(int32_t n) const {
  return SparkNeighbourFrame(n, controls_.motionFromBack ? 1 : 0);
}

std::vector<std::pair<int32_t, int32_t>> PluginRunner::FramesNeeded(int32_t n) const {
  auto clamp = [&](int32_t f) { return f < 0 ? 0 : f >= frames_ ? frames_ - 1 : f; };
  std::vector<std::pair<int32_t, int32_t>> needed;
  needed.push_back({kFrontClip, clamp(n)});
  int32_t motionClip = controls_.motionFromBack && withBack_ ? kBackClip : kFrontClip;
  if (motionClip == kBackClip) needed.push_back({kBackClip, clamp(n)});
  needed.push_back({motionClip, clamp(Neighbour(n))});
  return needed;
}

bool PluginRunner::Process(int32_t n, void* result, std::string* error) {
  spark_info_struct info = sparkhost::BeginFrame(n);
  void* pixels = SparkProcess(info);
  std::vector<sparkhost::Note> notes = sparkhost::Notes();
  std::string said;
  for (size_t i = notesSeen_; i < notes.size(); ++i) said += (said.empty() ? "" : "; ") + notes[i].text;
  notesSeen_ = notes.size();
  if (!said.empty()) {
    *error = "the plug-in reported: " + said;
    return false;
  }
  if (!pixels) {
    *error = "the plug-in returned no result";
    return false;
  }
  std::memcpy(result, pixels, static_cast<size_t>(FrameBytes()));
  return true;
}

bool PluginRunner::FrameFlow(int32_t n, FlowField* flow, int32_t* first, int32_t* second,
                             std::string* error) {
  int32_t clip = controls_.motionFromBack && withBack_ ? kBackClip : kFrontClip;
  auto clamp = [&](int32_t f) { return f < 0 ? 0 : f >= frames_ ? frames_ - 1 : f; };
  int32_t current = clamp(n), neighbour = clamp(Neighbour(n));
  // The plug-in's order: the neighbour first at frame 0, the current frame first otherwise.
  *first = n == 0 ? neighbour : current;
  *second = n == 0 ? current : neighbour;
  uint8_t* a = sparkhost::ClipFrame(clip, *first);
  uint8_t* b = sparkhost::ClipFrame(clip, *second);
  int32_t pixelType = PixelTypeFor(formatCode_);
  int32_t rowBytes = static_cast<int32_t>(sparkhost::RowBytes(sparkhost::ClipLayout(clip)));
  // Half frames reach the estimator as float planes, as in the plug-in.
  std::vector<float> planeA, planeB;
  if (formatCode_ == 49) {
    size_t samples = static_cast<size_t>(width_) * height_ * 3;
    planeA.resize(samples);
    planeB.resize(samples);
    for (size_t i = 0; i < samples; ++i) {
      Imath::half h;
      h.setBits(reinterpret_cast<const uint16_t*>(a)[i]);
      planeA[i] = h;
      h.setBits(reinterpret_cast<const uint16_t*>(b)[i]);
      planeB[i] = h;
    }
    a = reinterpret_cast<uint8_t*>(planeA.data());
    b = reinterpret_cast<uint8_t*>(planeB.data());
    rowBytes = width_ * 12;
  }
  // The library's workers read the frame size and thread count that SparkProcess sets.
  NuvMPSetThreadCount(processors_);
  Width = width_;
  Height = height_;
  PLOpticalFlowUChar* estimator = CreateFlowEstimator(width_, height_, ModeFor(controls_.quality));
  if (!estimator) {
    *error = "cannot create the flow estimator (out of memory?)";
    return false;
  }
  int32_t code = CalculateFlow(estimator, a, width_, height_, rowBytes, kSparkRowOrder, b, width_,
                               height_, rowBytes, kSparkRowOrder, pixelType, false,
                               kSparkLevelFactor, kSparkWhitePoint);
  if (code != 0) {
    DestroyFlowEstimator(estimator);
    *error = "flow calculation failed with code " + std::to_string(code);
    return false;
  }
  const PLImage* image = estimator->flowPyramid[0];
  flow->width = image->width;
  flow->height = image->height;
  flow->uv.resize(static_cast<size_t>(image->width) * image->height * 2);
  for (int32_t y = 0; y < image->height; ++y)
    std::memcpy(&flow->uv[static_cast<size_t>(y) * image->width * 2], image->Row(y),
                static_cast<size_t>(image->width) * 2 * sizeof(float));
  DestroyFlowEstimator(estimator);
  return true;
}

}  // namespace flowblur
