// flowblur: the deinterlace command: one frame out per frame in by field interpolation, or
// two (field rate), the missing rows of each field taken from the motion-compensated picture
// of its neighbouring fields.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "fill/InterpolateField.h"
#include "image/PLPixelConvert.h"
#include "tools/Messages.h"
#include "tools/RetimeCommand.h"

namespace flowblur {

namespace {

// InterpolateField's field argument that keeps the rows of `parity` (0 even, 1 odd): on a
// frame of even height lastRow is odd, so field 2 rebuilds the even rows and 3 the odd ones.
int32_t FieldKeeping(int32_t parity) { return parity == 1 ? 2 : 3; }

// Motion-compensated rows kept honest: each sample of the rows of `parity` becomes the median
// of itself and the samples above and below it (rows of the field, which are real), so a
// wrong vector can never put a value outside what the field itself shows there.
void MedianWithField(PLImage* picture, int32_t parity) {
  const int32_t type = picture->dataType;
  const int32_t samples = picture->width * 4;
  auto load = [&](const unsigned char* p) {
    return type == PLFloat    ? PLLoad<float>(p)
           : type == PLUShort ? static_cast<float>(PLLoad<uint16_t>(p))
                              : static_cast<float>(*p);
  };
  auto store = [&](unsigned char* p, float v) {
    if (type == PLFloat)
      PLStore<float>(p, v);
    else if (type == PLUShort)
      PLStore<uint16_t>(p, static_cast<uint16_t>(v));
    else
      *p = static_cast<uint8_t>(v);
  };
  for (int32_t y = parity; y < picture->height; y += 2) {
    const int32_t up = y > 0 ? y - 1 : y + 1;
    const int32_t down = y + 1 < picture->height ? y + 1 : y - 1;
    const unsigned char* a = picture->Row(up);
    const unsigned char* b = picture->Row(down);
    unsigned char* m = picture->Row(y);
    for (int32_t i = 0; i < samples; ++i) {
      const size_t at = static_cast<size_t>(i) * picture->bytesPerSample;
      const float va = load(a + at), vb = load(b + at), vm = load(m + at);
      const float lo = std::min(va, vb), hi = std::max(va, vb);
      store(m + at, vm < lo ? lo : vm > hi ? hi : vm);
    }
  }
}

// The rows of `parity` of `from` into `into` (same layout).
void CopyRows(PLImage* into, const PLImage& from, int32_t parity) {
  const size_t bytes = static_cast<size_t>(into->width) * into->bytesPerPixel;
  for (int32_t y = parity; y < into->height; y += 2) std::memcpy(into->Row(y), from.Row(y), bytes);
}

}  // namespace

int RunDeinterlace(const DeinterlaceOptions& o) {
  auto makePlan = [&](const ClipSpan& clip, const FrameInfo& info, ResamplePlan* plan,
                      int* code) {
    if (info.height % 2 != 0 || info.height < 2) {
      Say("input frame '" + info.path + "' is " + std::to_string(info.width) + "x" +
          std::to_string(info.height) + ": field work needs an even number of rows");
      *code = kExitInput;
      return false;
    }
    if (o.fieldRate && clip.count < 2) {
      Say("input '" + o.run.input +
          "' has one frame; field rate needs two or more (the fields' motion comes from "
          "the neighbouring frames)");
      *code = kExitInput;
      return false;
    }
    const int64_t start = o.haveStart ? o.start : clip.first;
    plan->plan.clip = clip;
    for (int64_t n = 0; n < clip.count; ++n) {
      if (!o.fieldRate) {
        plan->plan.frames.push_back({n, start + n, {{kFrontClip, n}}});
        continue;
      }
      PlannedFrame firstField{n, start + 2 * n, {}}, secondField{n, start + 2 * n + 1, {}};
      if (n > 0) firstField.reads.push_back({kFrontClip, n - 1});
      firstField.reads.push_back({kFrontClip, n});
      secondField.reads.push_back({kFrontClip, n});
      if (n + 1 < clip.count) secondField.reads.push_back({kFrontClip, n + 1});
      plan->plan.frames.push_back(std::move(firstField));
      plan->plan.frames.push_back(std::move(secondField));
    }
    const int32_t width = info.width, height = info.height, type = WorkingTypeFor(info.depth);
    const int32_t firstParity = o.order == FieldOrder::kTopFirst ? 0 : 1;
    // One engine per parity of the rows it rebuilds, each moving that parity's fields.
    std::shared_ptr<PlannedChronar> engines[2];
    if (o.fieldRate)
      for (int32_t parity = 0; parity < 2; ++parity) {
        engines[parity] = std::make_shared<PlannedChronar>(width, height, type, clip.count);
        engines[parity]->SetKeptRows(parity);
        engines[parity]->interpolation = 1;
        engines[parity]->useFlow = 1;
        engines[parity]->warpStyle = 1;
      }
    const int32_t method = o.method, quality = o.draft ? 3 : 4;
    const bool fieldRate = o.fieldRate;
    const int64_t count = clip.count;
    plan->make = [=](size_t k, const PlannedChronar::Inputs& inputs, Frame* out,
                     FlowField* flow, std::string* error) {
      const int64_t n = fieldRate ? static_cast<int64_t>(k / 2) : static_cast<int64_t>(k);
      const bool second = fieldRate && (k % 2) == 1;
      const int32_t kept = second ? 1 - firstParity : firstParity;
      PLImage source(0, width, height, 4, type, 0), picture(0, width, height, 4, type, 0);
      if (source.errorCode || picture.errorCode) {
        *error = "out of memory";
        return false;
      }
      ToWorking(*inputs.at({kFrontClip, n}), type, &source);
      const bool hasNeighbour = second ? n + 1 < count : n > 0;
      if (!fieldRate || !hasNeighbour) {
        InterpolateField(&picture, &source, method, FieldKeeping(kept));
      } else {
        // The other rows at this field's time: the engine between the two fields of the
        // other parity around it, half way.
        const int32_t other = 1 - kept;
        PlannedChronar& engine = *engines[other];
        engine.Serve(&inputs);
        const double time = static_cast<double>(n) + (second ? 0.5 : -0.5);
        const bool ok = engine.Render(time, quality, &picture, error);
        engine.Serve(nullptr);
        if (!ok) return false;
        engine.LastFlow(flow);
        CopyRows(&picture, source, kept);
        MedianWithField(&picture, other);
      }
      FromWorking(picture, out);
      return true;
    };
    return true;
  };
  return RunResample(o.run, makePlan);
}

}  // namespace flowblur
