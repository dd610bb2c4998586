// flowblur test support: a retimer whose frames and mattes live in memory, counting every
// fetch and release, with switchable misbehaviour.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "retime/NuvChronar4.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestTexture.h"

namespace chronartest {

using Owned = std::unique_ptr<PLImage>;

inline Owned NewOwned(int32_t w, int32_t h, int32_t channels, int32_t type) {
  return Owned(new PLImage(w, h, channels, type, 0));
}

// What GetFrame does for a chosen frame number.
enum class Misbehave { kNone, kNullView, kStatus3, kInterrupt, kWrongSize, kEmptyView };

class MemoryChronar : public NuvChronar4 {
 public:
  std::map<int32_t, Owned> frames;
  std::map<int32_t, Owned> shown;  // if any, GetFrame shows these; motion frames stay `frames`
  std::map<std::pair<int32_t, int32_t>, Owned> mattes;  // (frame, matte)
  std::function<float(float)> timeMap = [](float t) { return t; };
  std::function<int32_t(float)> kind = [](float) { return 0; };
  int32_t warpStyle = 0;
  std::map<int32_t, Misbehave> misbehave;
  int32_t fetches = 0, releases = 0, matteFetches = 0, matteReleases = 0;
  float overrideAmountValue = 0.0f;
  bool overrideAmount = false;
  int32_t edgeBlend = 0;
  float hintMotion[2] = {};  // one hint at (40, 30) moving this far a frame; none if 0
  bool hintsOnly = false;    // flow from the hints alone, no estimator

  int32_t GetFrame(NuvImage** frame, int32_t n) override {
    return Serve(frame, n, shown.empty() ? frames : shown);
  }
  int32_t GetMotionFrame(NuvImage** frame, int32_t n) override { return Serve(frame, n, frames); }
  void ReleaseFrame(NuvImage* frame) override {
    ++releases;
    Drop(frame);
  }
  int32_t GetMatte(NuvImage** view, int32_t n, int32_t matte) override {
    ++matteFetches;
    *view = nullptr;
    auto it = mattes.find({n, matte});
    if (it == mattes.end()) return 5;
    *view = Wrap(it->second.get());
    return 0;
  }
  void ReleaseMatte(NuvImage* view) override {
    ++matteReleases;
    Drop(view);
  }
  void MapTime(float t, float* s) override { *s = timeMap(t); }
  int32_t FrameKind(float t) override { return kind(t); }
  int32_t GetWarpStyle() override { return warpStyle; }
  // Unless a test sets them, the engine's own defaults answer.
  int32_t UseEdgeBlend() override { return edgeBlend ? 1 : NuvChronar4::UseEdgeBlend(); }
  void UseEstimatorForTop(float t, uint8_t* use) override {
    NuvChronar4::UseEstimatorForTop(t, use);
    if (hintsOnly) *use = 0;
  }
  void UseEstimatorForLayer(float t, uint8_t* use, int32_t layer) override {
    NuvChronar4::UseEstimatorForLayer(t, use, layer);
    if (hintsOnly) *use = 0;
  }
  int32_t HintCount(float a, float b, int32_t layer) override {
    return hintMotion[0] != 0.0f ? 1 : NuvChronar4::HintCount(a, b, layer);
  }
  void GetHints(float first, float second, int32_t, int32_t, int32_t* count, const float** x0,
                const float** y0, const float** x1, const float** y1) override {
    const float d = second - first;
    const float hint[4] = {40.0f, 30.0f, 40.0f + hintMotion[0] * d, 30.0f + hintMotion[1] * d};
    std::copy(hint, hint + 4, hint_);
    *count = 1;
    *x0 = &hint_[0];
    *y0 = &hint_[1];
    *x1 = &hint_[2];
    *y1 = &hint_[3];
  }
  int32_t OverrideAmount(float* amount) override {
    if (!overrideAmount) return NuvChronar4::OverrideAmount(amount);
    *amount = overrideAmountValue;
    return 1;
  }

  int64_t FlowRuns() const { return internal->flowRuns; }
  int32_t Outstanding() const { return static_cast<int32_t>(views_.size()); }

 private:
  struct Held {
    std::unique_ptr<NuvImageInternal> wrapper;
    std::unique_ptr<NuvImage> view;
    Owned scratch;  // a wrong-size or empty picture made for misbehaviour
  };
  std::vector<std::unique_ptr<Held>> views_;
  float hint_[4] = {};

  NuvImage* Wrap(PLImage* image, Owned scratch = nullptr) {
    auto h = std::make_unique<Held>();
    h->wrapper.reset(new NuvImageInternal(image));
    h->view.reset(new NuvImage());
    h->view->Attach(h->wrapper.get());
    h->scratch = std::move(scratch);
    views_.push_back(std::move(h));
    return views_.back()->view.get();
  }
  void Drop(NuvImage* view) {
    for (size_t k = 0; k < views_.size(); ++k)
      if (views_[k]->view.get() == view) {
        views_.erase(views_.begin() + static_cast<std::ptrdiff_t>(k));
        return;
      }
    ADD_FAILURE() << "released a view that was not handed out";
  }
  int32_t Serve(NuvImage** frame, int32_t n, std::map<int32_t, Owned>& from) {
    ++fetches;
    *frame = nullptr;
    Misbehave m = misbehave.count(n) ? misbehave[n] : Misbehave::kNone;
    auto it = from.find(n);
    if (m == Misbehave::kNullView) return 0;
    if (m == Misbehave::kInterrupt) return 6;
    if (m == Misbehave::kWrongSize || m == Misbehave::kEmptyView) {
      const PLImage* like = from.begin()->second.get();
      Owned odd = m == Misbehave::kEmptyView
                      ? Owned(new PLImage(nullptr, 0, 0, 3, PLUChar, 0))
                      : NewOwned(like->width + 1, like->height, like->channels, like->dataType);
      PLImage* raw = odd.get();
      *frame = Wrap(raw, std::move(odd));
      return 0;
    }
    if (it == from.end()) return m == Misbehave::kStatus3 ? 3 : 5;
    *frame = Wrap(it->second.get());
    return m == Misbehave::kStatus3 ? 3 : 0;
  }
};

// Frames 0 .. count-1 of the shared texture (a matte channel white) moving `speed` pixels a
// frame to the right (and `down` pixels down).
inline void AddMovingFrames(MemoryChronar* c, int32_t count, int32_t w, int32_t h,
                            int32_t channels, int32_t type, float speed, float down = 0.0f) {
  for (int32_t n = 0; n < count; ++n) {
    Owned f = pltest::MakeTextured(w, h, channels, type, speed * n, down * n);
    for (int32_t i = 0; channels == 4 && i < w * h; ++i)  // opaque
      pltest::Set(f.get(), i % w, i / w, 3, f->whitePoint);
    c->frames[n] = std::move(f);
  }
}

// An image with its wrapper and a view on it, as a caller of an engine holds them.
struct Output {
  pltest::TestImage image;
  NuvImageInternal wrap;
  NuvImage view;
  Output(int32_t w, int32_t h, int32_t channels, int32_t type, int32_t flipped = 0, int32_t pad = 0)
      : image(pltest::MakeImage(w, h, channels, type, flipped, pad)), wrap(image.get()) {
    view.Attach(&wrap);
  }
  PLImage* get() const { return image.get(); }
  NuvImage* v() { return &view; }
};

}  // namespace chronartest
