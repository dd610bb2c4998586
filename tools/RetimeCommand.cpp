// flowblur: the retime command: a time map turned into a frame plan, each planned frame made
// by the retiming engine from the source frames around its time.
#include "tools/RetimeCommand.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "tools/Messages.h"

namespace flowblur {

namespace {

// The engine's quality codes for the flow: 4 estimates at half the frame size, 3 at a
// quarter, as the plug-in's Best and Draft do.
constexpr int32_t kQualityBest = 4;
constexpr int32_t kQualityDraft = 3;

bool ReadText(const std::string& path, std::string* text, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read time map '" + path + "'";
    return false;
  }
  std::stringstream content;
  content << in.rdbuf();
  *text = content.str();
  return true;
}

void Configure(PlannedChronar* engine, const RetimeOptions& o) {
  engine->useFlow = o.method == RetimeMethod::kBlend ? 0 : 1;
  engine->interpolation = o.method == RetimeMethod::kNearest    ? 0
                          : o.method == RetimeMethod::kDissolve ? 2
                                                                : 1;
  engine->warpStyle = o.warpStyle;
  engine->blurQuality = 1;
  engine->SetShutterFraction(o.shutter);
}

}  // namespace

bool ParseRetimeMethod(const std::string& text, RetimeMethod* method) {
  if (text == "nearest") *method = RetimeMethod::kNearest;
  else if (text == "blend") *method = RetimeMethod::kBlend;
  else if (text == "flow") *method = RetimeMethod::kFlow;
  else if (text == "dissolve") *method = RetimeMethod::kDissolve;
  else return false;
  return true;
}

int RunRetime(const RetimeOptions& o) {
  auto times = std::make_shared<std::vector<TimedFrame>>();
  const int32_t quality = o.draft ? kQualityDraft : kQualityBest;
  auto makePlan = [&](const ClipSpan& clip, const FrameInfo& info, ResamplePlan* plan,
                      int* code) {
    if (clip.count < 2) {
      Say("input '" + o.run.input + "' has one frame; retiming needs two or more");
      *code = kExitInput;
      return false;
    }
    const int64_t first = clip.first, last = clip.Last();
    const int64_t start = o.haveStart ? o.start : first;
    std::string error;
    if (o.haveSpeed) {
      *times = SpeedTimes(first, last, o.speed, start);
    } else if (o.haveRates) {
      *times = RateTimes(first, last, o.rateIn, o.rateOut, start);
    } else {
      std::string text;
      std::vector<TimeKey> keys;
      if (!ReadText(o.timeMapFile, &text, &error) ||
          !ParseTimeMap(text, o.timeMapFile, first, last, &keys, &error)) {
        Say(error);
        *code = kExitUsage;
        return false;
      }
      *times = KeyedTimes(keys);
    }
    auto engine = std::make_shared<PlannedChronar>(info.width, info.height,
                                                   WorkingTypeFor(info.depth), clip.count);
    Configure(engine.get(), o);
    engine->SetTimes(times.get(), first);
    plan->plan.clip = clip;
    for (const TimedFrame& timed : *times) {
      const double t = timed.sourceTime - static_cast<double>(first);
      const int64_t i = static_cast<int64_t>(std::floor(t));
      const int64_t j = std::min(i + 1, clip.count - 1);
      PlannedFrame frame;
      // Channels the engine does not carry come from the nearer source frame.
      frame.offset = t - static_cast<double>(i) >= 0.5 ? j : i;
      frame.outputNumber = timed.number;
      // The engine reads both frames around a time, also on a frame (with weight 0).
      frame.reads = {{kFrontClip, i}};
      if (j != i) frame.reads.push_back({kFrontClip, j});
      plan->plan.frames.push_back(std::move(frame));
    }
    const int32_t width = info.width, height = info.height, type = WorkingTypeFor(info.depth);
    const int32_t channels = engine->ChoosePictureChannels(info);
    plan->make = [engine, quality, width, height, type, channels](
                     size_t k, const PlannedChronar::Inputs& inputs, Frame* out,
                     FlowField* flow, std::string* error) {
      PLImage picture(0, width, height, channels, type, 0);
      if (picture.errorCode) {
        *error = "out of memory";
        return false;
      }
      engine->Serve(&inputs);
      const bool ok = engine->Render(static_cast<double>(k), quality, &picture, error);
      engine->Serve(nullptr);
      if (!ok) return false;
      FromWorking(picture, out);
      engine->LastFlow(flow);
      return true;
    };
    return true;
  };
  return RunResample(o.run, makePlan);
}

}  // namespace flowblur
