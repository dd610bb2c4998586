// flowblur tests: NuvMotionBlur: the flow cache and its keys, the one-layer path against the
// driver's sequence, the layered path, refusals and worker counts.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include "blur/PLMotionBlur.h"
#include "filter/PLBlend.h"
#include "flow/PLOpticalFlowUChar.h"
#include "retime/NuvMotionBlur.h"
#include "tests/support/PLTestImages.h"

using pltest::Get;
using pltest::MakeImage;
using pltest::PixelBytes;
using pltest::SamePixels;
using pltest::Set;
using pltest::TestImage;

namespace {

// An image, its wrapper and a view on it, as a caller of the engine holds them.
struct Picture {
  TestImage image;
  std::unique_ptr<NuvImageInternal> wrap;
  NuvImage view;
  Picture(int32_t w, int32_t h, int32_t channels, int32_t type, int32_t flipped = 0,
          int32_t pad = 0)
      : image(MakeImage(w, h, channels, type, flipped, pad)),
        wrap(new NuvImageInternal(image.get())) {
    view.Attach(wrap.get());
  }
  PLImage* get() const { return image.get(); }
};

double White(int32_t type) { return type == PLUChar ? 255.0 : type == PLUShort ? 65535.0 : 1.0; }

// Smooth texture moved right by `shift` pixels; the matte channel (if any) is white.
void Paint(PLImage* im, float shift, int32_t seed = 0) {
  const double w = White(im->dataType);
  for (int32_t y = 0; y < im->height; ++y)
    for (int32_t x = 0; x < im->width; ++x) {
      const double u = x - shift;
      for (int32_t c = 0; c < im->channels; ++c) {
        double v = 0.5 + 0.25 * std::sin(u * 0.45 + c + seed) + 0.2 * std::cos(y * 0.37 + u * 0.2);
        if (c == 3) v = 1.0;
        Set(im, x, y, c, im->dataType == PLFloat ? v * w : std::floor(v * w));
      }
    }
}

// The driver's sequence by hand: an estimator of the motion size, one flow, one render.
void DirectBlur(PLImage* dst, const PLImage* src, const PLImage* a, const PLImage* b, int32_t mode,
                float levelFactor, float amount, int32_t quality) {
  PLOpticalFlowUChar est(a->width, a->height, mode, 0, 0, 2);
  est.SetLevelFactor(levelFactor);
  est.ComputeFlow(nullptr, a, b, 1, 1, 0, nullptr, false);
  if (amount < 0.0f) {
    PLMotionBlur(dst, src, est.flowPyramid[0], quality, 0, nullptr, 0, 0.5f);
    PLBlend(dst, src, amount);
  } else {
    PLMotionBlur(dst, src, est.flowPyramid[0], quality, 0, nullptr, 0, amount);
  }
}

int32_t RenderOne(NuvMotionBlur* mb, Picture* dst, Picture* src, Picture* a, Picture* b,
                  float amount = 0.75f, float levelFactor = 1.0f, float stamp = 0.0f,
                  int32_t mode = 1, int64_t quality = 1, int32_t keepFlow = 1,
                  NuvIdleAndProgressClass* progress = nullptr) {
  return mb->Render(amount, levelFactor, stamp, &dst->view, mode, quality, &src->view, &a->view,
                    &b->view, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, progress,
                    keepFlow);
}

struct OneLayerCase {
  int32_t type, channels, mode;
  float amount;
  int32_t motionScale;  // the motion images are the source's size divided by this
};
class OneLayer : public ::testing::TestWithParam<OneLayerCase> {};
INSTANTIATE_TEST_SUITE_P(
    Cases, OneLayer,
    ::testing::Values(OneLayerCase{PLUChar, 3, 1, 0.75f, 1}, OneLayerCase{PLUShort, 4, 0, 1.0f, 1},
                      OneLayerCase{PLFloat, 3, 2, 0.5f, 1}, OneLayerCase{PLUChar, 4, 1, -0.8f, 1},
                      OneLayerCase{PLFloat, 1, 1, 0.6f, 2}, OneLayerCase{PLUShort, 3, 0, -1.5f, 2}));

// Without mattes the engine gives exactly what the driver's estimator-and-render sequence
// gives, also for motion images of another size and for a sharpening (negative) amount.
TEST_P(OneLayer, MatchesTheDriverSequence) {
  const OneLayerCase k = GetParam();
  const int32_t w = 48, h = 40, mw = w / k.motionScale, mh = h / k.motionScale;
  Picture src(w, h, k.channels, k.type, 1, 4), dst(w, h, k.channels, k.type, 0, 2);
  Picture a(mw, mh, k.channels == 1 ? 1 : 3, k.type), b(mw, mh, k.channels == 1 ? 1 : 3, k.type, 1);
  Paint(src.get(), 0.0f);
  Paint(a.get(), 0.0f);
  Paint(b.get(), 3.0f / k.motionScale);
  NuvMotionBlur mb;
  ASSERT_EQ(RenderOne(&mb, &dst, &src, &a, &b, k.amount, 0.9f, 0.0f, k.mode), 0);
  EXPECT_EQ(mb.cache->estimator->useMasks, 0);
  TestImage want = MakeImage(w, h, k.channels, k.type);
  DirectBlur(want.get(), src.get(), a.get(), b.get(), k.mode, 0.9f, k.amount, 1);
  EXPECT_TRUE(SamePixels(dst.get(), want.get()));
  EXPECT_FALSE(SamePixels(dst.get(), src.get()));
  EXPECT_TRUE(pltest::PaddingUntouched(dst.image));
}

// A render with the same keys reuses the flow, whatever the motion pictures now show; each
// key, changed alone, makes the flow new.
TEST(MotionBlurCache, KeysDecideWhetherFlowIsComputed) {
  const int32_t w = 40, h = 32;
  Picture src(w, h, 3, PLUChar), a(w, h, 3, PLUChar), moved(w, h, 3, PLUChar);
  Paint(src.get(), 0.0f);
  Paint(a.get(), 0.0f);
  Paint(moved.get(), 3.0f);
  struct Keys {
    float levelFactor, stamp;
    int32_t mode;
    int64_t quality;
  };
  const Keys base{1.0f, -1.0f, 1, 1};
  const std::vector<Keys> changes = {
      {0.8f, -1.0f, 1, 1}, {1.0f, 2.0f, 1, 1}, {1.0f, -1.0f, 0, 1}, {1.0f, -1.0f, 1, 3}};
  auto render = [&](NuvMotionBlur* mb, Picture* second, const Keys& k) {
    Picture dst(w, h, 3, PLUChar);
    EXPECT_EQ(RenderOne(mb, &dst, &src, &a, second, 0.75f, k.levelFactor, k.stamp, k.mode,
                        k.quality),
              0);
    return PixelBytes(dst.get());
  };
  NuvMotionBlur mb;
  // The first render has no estimator yet: stamp -1.0 (the initial last stamp) still computes.
  const std::vector<unsigned char> moving = render(&mb, &moved, base);
  const PLOpticalFlowUChar* estimator = mb.cache->estimator;
  EXPECT_EQ(render(&mb, &a, base), moving);  // still the flow of the moving pair
  EXPECT_EQ(mb.cache->estimator, estimator);
  for (const Keys& k : changes) {
    NuvMotionBlur fresh;
    const std::vector<unsigned char> still = render(&fresh, &a, k);
    NuvMotionBlur warm;
    EXPECT_EQ(render(&warm, &moved, base), moving);
    EXPECT_EQ(render(&warm, &a, k), still) << k.levelFactor << " " << k.stamp << " " << k.mode;
    EXPECT_NE(still, moving);
  }
  // keepFlow 0 keeps the cache but not its flow; Clear does the same.
  Picture dst(w, h, 3, PLUChar);
  ASSERT_EQ(RenderOne(&mb, &dst, &src, &a, &a, 0.75f, 1.0f, -1.0f, 1, 1, 0), 0);
  ASSERT_NE(mb.cache, nullptr);
  EXPECT_EQ(mb.cache->estimator, nullptr);
  render(&mb, &moved, base);
  EXPECT_NE(mb.cache->estimator, nullptr);
  mb.Clear();
  EXPECT_EQ(mb.cache->estimator, nullptr);
}

// ---- layered path ----

// A source, two motion pictures and binary mattes: layer 0 a square that moves by `move`
// pixels, and (with two mattes) layer 1 a band that stays.
struct LayerScene {
  int32_t w, h, type, mattes;
  std::unique_ptr<Picture> src, a, b, dst;
  std::vector<std::unique_ptr<Picture>> firstMattes, secondMattes;
  std::vector<NuvImage*> firstViews, secondViews;
  LayerScene(int32_t width, int32_t height, int32_t t, int32_t matteCount, int32_t move,
             int32_t srcChannels = 4)
      : w(width), h(height), type(t), mattes(matteCount) {
    src.reset(new Picture(w, h, srcChannels, t, 1, 4));
    a.reset(new Picture(w, h, 3, t));
    b.reset(new Picture(w, h, 3, t, 0, 6));
    dst.reset(new Picture(w, h, 4, t, 0, 2));
    Paint(src->get(), 0.0f);
    Paint(a->get(), 0.0f);
    Paint(b->get(), 0.0f, 0);
    for (int32_t i = 0; i < matteCount; ++i) {
      firstMattes.emplace_back(new Picture(w, h, 1, t));
      secondMattes.emplace_back(new Picture(w, h, 1, t, 1));
      firstViews.push_back(&firstMattes.back()->view);
      secondViews.push_back(&secondMattes.back()->view);
    }
    const double white = White(t);
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        const bool in0 = x >= 10 && x < 22 && y >= 8 && y < 20;
        const bool in0b = x >= 10 + move && x < 22 + move && y >= 8 && y < 20;
        Set(firstMattes[0]->get(), x, y, 0, in0 ? white : 0.0);
        Set(secondMattes[0]->get(), x, y, 0, in0b ? white : 0.0);
        if (in0b) {  // the square's texture travels with it
          for (int32_t c = 0; c < 3; ++c) Set(b->get(), x, y, c, Get(a->get(), x - move, y, c));
        }
        if (matteCount > 1) {
          const bool band = y >= 24 && y < 30;
          Set(firstMattes[1]->get(), x, y, 0, band ? white : 0.0);
          Set(secondMattes[1]->get(), x, y, 0, band ? white : 0.0);
        }
      }
  }
  int32_t Render(NuvMotionBlur* mb, const float* amounts, float amount, float stamp = 0.0f,
                 NuvIdleAndProgressClass* progress = nullptr, int32_t keepFlow = 1) {
    const float levels[9] = {1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f};
    const float chokes[9] = {};
    return mb->Render(amount, 1.0f, stamp, &dst->view, 0, 1, &src->view, &a->view, &b->view, 0,
                      mattes, firstViews.data(), secondViews.data(), amounts, levels, chokes,
                      progress, keepFlow);
  }
};

class Layered : public ::testing::TestWithParam<int32_t> {};
INSTANTIATE_TEST_SUITE_P(Types, Layered, ::testing::Values(PLUChar, PLUShort, PLFloat));

// With every amount 0 and binary mattes the layers are cut, filled and composited back into
// the source exactly, with a white matte.
TEST_P(Layered, ZeroAmountsGiveTheSourceBack) {
  for (int32_t srcChannels : {3, 4}) {
    LayerScene s(40, 34, GetParam(), 2, 3, srcChannels);
    const float amounts[2] = {0.0f, 0.0f};
    NuvMotionBlur mb;
    ASSERT_EQ(s.Render(&mb, amounts, 0.0f), 0);
    EXPECT_EQ(mb.cache->estimator->useMasks, 1);
    for (int32_t y = 0; y < s.h; ++y)
      for (int32_t x = 0; x < s.w; ++x) {
        for (int32_t c = 0; c < 3; ++c)
          ASSERT_EQ(Get(s.dst->get(), x, y, c), Get(s.src->get(), x, y, c)) << x << "," << y;
        ASSERT_EQ(Get(s.dst->get(), x, y, 3), White(s.type));
      }
    EXPECT_TRUE(pltest::PaddingUntouched(s.dst->image));
  }
}

// Each layer gets its own amount: blurring only the moving square leaves the background far
// from it untouched; blurring only the background leaves the square's inside alone. The
// second render with the same keys (and other pictures) computes no new flow.
TEST_P(Layered, AmountsActPerLayerAndFlowIsKept) {
  LayerScene s(44, 34, GetParam(), 1, 4);
  const float squareOnly[1] = {1.0f};
  NuvMotionBlur mb;
  ASSERT_EQ(s.Render(&mb, squareOnly, 0.0f), 0);
  TestImage first = MakeImage(s.w, s.h, 4, s.type);
  pltest::CopyPixels(first.get(), s.dst->get());
  bool squareChanged = false;
  for (int32_t y = 0; y < s.h; ++y)
    for (int32_t x = 0; x < s.w; ++x)
      for (int32_t c = 0; c < 3; ++c) {
        const bool far = x >= 30 || y >= 24;
        const bool inside = x >= 10 && x < 22 && y >= 8 && y < 20;
        if (far) {
          ASSERT_EQ(Get(s.dst->get(), x, y, c), Get(s.src->get(), x, y, c));
        }
        if (inside && Get(s.dst->get(), x, y, c) != Get(s.src->get(), x, y, c)) squareChanged = true;
      }
  EXPECT_TRUE(squareChanged);

  // Same keys, the square no longer moves in the pictures: the kept flow still smears it.
  Paint(s.b->get(), 0.0f, 0);
  pltest::CopyPixels(s.secondMattes[0]->get(), s.firstMattes[0]->get());
  ASSERT_EQ(s.Render(&mb, squareOnly, 0.0f), 0);
  EXPECT_TRUE(SamePixels(s.dst->get(), first.get()));
  // A new stamp computes the flow of the still pictures: the square stays nearly sharp.
  ASSERT_EQ(s.Render(&mb, squareOnly, 0.0f, 1.0f), 0);
  EXPECT_FALSE(SamePixels(s.dst->get(), first.get()));
}

// ---- orders, refusals, failures, workers ----

// Four-channel views in another channel order are worked on in R, G, B, A order and put
// back; the second motion view is reordered a second time (kept behaviour).
TEST(MotionBlurOrder, ViewsKeepTheirChannelOrder) {
  const int32_t w = 36, h = 30;
  Picture src(w, h, 4, PLUChar), a(w, h, 4, PLUChar), b(w, h, 4, PLUChar), dst(w, h, 4, PLUChar);
  Paint(src.get(), 0.0f);
  Paint(a.get(), 0.0f);
  Paint(b.get(), 2.0f);
  NuvMotionBlur plain;
  ASSERT_EQ(RenderOne(&plain, &dst, &src, &a, &b), 0);
  TestImage want = MakeImage(w, h, 4, PLUChar);
  pltest::CopyPixels(want.get(), dst.get());

  // The same pictures stored as A, R, G, B: roles red 1, green 2, blue 3, matte 0.
  auto rotate = [](PLImage* im) {
    for (int32_t y = 0; y < im->height; ++y)
      for (int32_t x = 0; x < im->width; ++x) {
        double p[4];
        for (int32_t c = 0; c < 4; ++c) p[c] = Get(im, x, y, c);
        for (int32_t c = 0; c < 4; ++c) Set(im, x, y, (c + 1) % 4, p[c]);
      }
  };
  Picture s2(w, h, 4, PLUChar), a2(w, h, 4, PLUChar), b2(w, h, 4, PLUChar), d2(w, h, 4, PLUChar);
  pltest::CopyPixels(s2.get(), src.get());
  pltest::CopyPixels(a2.get(), a.get());
  pltest::CopyPixels(b2.get(), b.get());
  for (auto* p : {&s2, &a2, &b2}) rotate(p->get());
  TestImage s2Before = MakeImage(w, h, 4, PLUChar), b2Before = MakeImage(w, h, 4, PLUChar);
  pltest::CopyPixels(s2Before.get(), s2.get());
  pltest::CopyPixels(b2Before.get(), b2.get());
  for (auto* p : {&s2, &a2, &b2, &d2})
    p->view.SetupCustom(p->get()->data, w, h, p->get()->rowBytes, 1, PLUChar, 1, 1, 1, 2, 3, 0);
  NuvMotionBlur ordered;
  ASSERT_EQ(RenderOne(&ordered, &d2, &s2, &a2, &b2), 0);
  rotate(want.get());
  EXPECT_TRUE(SamePixels(d2.get(), want.get()));
  EXPECT_TRUE(SamePixels(s2.get(), s2Before.get()));
  // Taken to canonical order twice: each sample moved back two places.
  for (int32_t c = 0; c < 4; ++c)
    EXPECT_EQ(Get(b2.get(), 5, 5, c), Get(b2Before.get(), 5, 5, (c + 2) % 4));
}

// Bad inputs return 5 with the destination untouched and the cached flow kept.
TEST(MotionBlurRefusals, BadInputsReturnParameterError) {
  LayerScene s(32, 28, PLUChar, 1, 2);
  Picture small(16, 14, 3, PLUChar), gray(32, 28, 1, PLUChar), rgb16(32, 28, 3, PLUShort);
  Picture dst3(32, 28, 3, PLUChar);
  NuvImage unattached;
  NuvImageInternal emptyWrap;
  NuvImage empty;
  empty.Attach(&emptyWrap);
  const float amounts[10] = {}, levels[10] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, chokes[10] = {};
  NuvImage* tenF[10];
  NuvImage* tenS[10];
  for (int32_t i = 0; i < 10; ++i) tenF[i] = s.firstViews[0], tenS[i] = s.secondViews[0];
  NuvImage* nullMatte[1] = {nullptr};
  NuvImageInternal aliasWrap(s.src->get());  // another view on the source's pixels
  NuvImage alias;
  alias.Attach(&aliasWrap);
  NuvImage* grayMatte[1] = {&s.src->view};

  struct Call {
    NuvImage *dst, *src, *a, *b;
    int32_t mode, mattes;
    NuvImage *const *fm, *const *sm;
    const float* amounts;
  };
  NuvImage* D = &s.dst->view;
  NuvImage* S = &s.src->view;
  NuvImage* A = &s.a->view;
  NuvImage* B = &s.b->view;
  NuvImage* const* F = s.firstViews.data();
  NuvImage* const* M = s.secondViews.data();
  const std::vector<Call> calls = {
      {D, nullptr, A, B, 0, 1, F, M, amounts},        // missing source
      {D, S, &unattached, B, 0, 1, F, M, amounts},    // motion view without wrapper
      {D, S, A, &empty, 0, 1, F, M, amounts},         // empty motion image
      {nullptr, S, A, B, 0, 1, F, M, amounts},        // missing destination
      {D, S, &small.view, &small.view, 0, 1, F, M, amounts},  // motion not of source size
      {D, S, A, &gray.view, 0, 1, F, M, amounts},     // motions differ in channels
      {D, S, A, &rgb16.view, 0, 1, F, M, amounts},    // motion of another type
      {D, S, A, B, 3, 1, F, M, amounts},              // no such mode
      {D, S, A, B, 0, 10, tenF, tenS, amounts},       // eleven layers
      {D, S, A, B, 0, -1, F, M, amounts},             // negative matte count
      {D, S, A, B, 0, 1, nullMatte, M, amounts},      // missing matte
      {D, S, A, B, 0, 1, F, grayMatte, amounts},      // matte of four channels
      {D, S, A, B, 0, 1, nullptr, M, amounts},        // no matte list
      {D, S, A, B, 0, 1, F, M, nullptr},              // no amounts
      {&dst3.view, S, A, B, 0, 1, F, M, amounts},     // layered needs a 4-channel destination
      {&gray.view, S, A, B, 0, 0, F, M, amounts},     // destination of other channels
      {&small.view, S, A, B, 0, 0, F, M, amounts},    // destination of other size
      {S, S, A, B, 0, 0, F, M, amounts},              // destination is the source
      {&alias, S, A, B, 0, 0, F, M, amounts},         // destination on the source's pixels
  };
  NuvMotionBlur mb;
  const float one[1] = {0.5f};
  ASSERT_EQ(s.Render(&mb, one, 0.5f), 0);
  const PLOpticalFlowUChar* estimator = mb.cache->estimator;
  for (size_t i = 0; i < calls.size(); ++i) {
    const Call& c = calls[i];
    Paint(s.dst->get(), 7.0f);
    const PLImage* target = c.dst ? c.dst->internal : s.dst->get();
    const std::vector<unsigned char> before = PixelBytes(target);
    EXPECT_EQ(mb.Render(0.5f, 1.0f, 0.0f, c.dst, c.mode, 1, c.src, c.a, c.b, 0, c.mattes, c.fm,
                        c.sm, c.amounts, levels, chokes, nullptr, 1),
              5)
        << "case " << i;
    EXPECT_EQ(PixelBytes(target), before) << "case " << i;
    EXPECT_EQ(mb.cache->estimator, estimator) << "case " << i;
  }
}

// An interruption comes back as 6; the half-made flow is dropped and the views' order is
// put back.
TEST(MotionBlurFailures, InterruptionIsReturned) {
  for (int32_t mattes : {0, 1}) {
    LayerScene s(32, 28, PLFloat, 1, 2);
    s.mattes = mattes;
    for (Picture* p : {s.src.get()})
      p->view.SetupCustom(p->get()->data, 32, 28, p->get()->rowBytes, 0, PLFloat, 1, 1, 2, 1, 0, 3);
    const std::vector<unsigned char> srcBefore = PixelBytes(s.src->get());
    NuvIdleAndProgressClass parent(nullptr);
    parent.SetInterrupted(true);
    NuvMotionBlur mb;
    const float one[1] = {0.5f};
    EXPECT_EQ(s.Render(&mb, one, 0.5f, 0.0f, &parent), 6);
    ASSERT_NE(mb.cache, nullptr);
    EXPECT_EQ(mb.cache->estimator, nullptr);
    EXPECT_EQ(PixelBytes(s.src->get()), srcBefore);
    parent.SetInterrupted(false);
    EXPECT_EQ(s.Render(&mb, one, 0.5f, 0.0f, &parent), 0);
  }
}

// The whole render, one layer and layered, gives the same bytes on 1, 2, 3 and 8 workers.
TEST(MotionBlurWorkers, SameBytesForAllWorkerCounts) {
  for (int32_t mattes : {0, 2}) {
    for (int32_t type : {PLUChar, PLFloat}) {
      pltest::ExpectSameForAllWorkers([&] {
        LayerScene s(64, 72, type, 2, 4);
        s.mattes = mattes;
        const float amounts[2] = {1.0f, -0.5f};
        NuvMotionBlur mb;
        EXPECT_EQ(s.Render(&mb, amounts, 0.6f), 0);
        return PixelBytes(s.dst->get());
      });
    }
  }
}

}  // namespace
