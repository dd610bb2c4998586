// flowblur tests: NuvMotionBlur: the flow cache and its keys, the one-layer path against the
// driver's sequence, the layered path, channel orders, refusals, failures and worker counts.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <utility>
#include <vector>

#include "blur/PLMotionBlur.h"
#include "filter/PLBlend.h"
#include "retime/NuvMotionBlur.h"
#include "retime/tests/ChronarTestSupport.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestTexture.h"

using pltest::Get;
using pltest::MakeImage;
using pltest::PixelBytes;
using pltest::SamePixels;
using pltest::Set;

namespace {

using Picture = chronartest::Output;

// The shared texture moved right by `shift` pixels, each channel a different part of it; a
// matte channel is white.
void Paint(PLImage* im, double shift) {
  for (int32_t y = 0; y < im->height; ++y)
    for (int32_t x = 0; x < im->width; ++x)
      for (int32_t c = 0; c < im->channels; ++c) {
        const double v = c == 3 ? 1.0 : pltest::Texture(x - shift + 17 * c, y);
        Set(im, x, y, c, im->dataType == PLFloat ? v : std::floor(v * im->whitePoint));
      }
}

int32_t RenderOne(NuvMotionBlur* mb, Picture* dst, Picture* src, Picture* a, Picture* b, float amount,
                  float levelFactor, float stamp, int32_t mode, int64_t quality, int32_t keepFlow = 1) {
  return mb->Render(amount, levelFactor, stamp, dst->v(), mode, quality, src->v(), a->v(), b->v(), 0, 0,
                    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, keepFlow);
}

struct OneLayerCase {
  int32_t type, channels, mode;
  float amount;
  int32_t motionScale;  // the motion images are the source's size divided by this
};
class OneLayer : public ::testing::TestWithParam<OneLayerCase> {};
INSTANTIATE_TEST_SUITE_P(Cases, OneLayer,
                         ::testing::Values(OneLayerCase{PLUChar, 3, 1, 0.75f, 1}, OneLayerCase{PLUShort, 4, 0, 1.0f, 1},
                                           OneLayerCase{PLFloat, 3, 2, 0.5f, 1}, OneLayerCase{PLUChar, 4, 1, -0.8f, 1},
                                           OneLayerCase{PLFloat, 1, 1, 0.6f, 2}, OneLayerCase{PLUShort, 3, 0, -1.5f, 2}));

// Without mattes the engine gives exactly what the driver's sequence gives (estimator of the
// motion size, flow, render; a negative amount blurs at 0.5 and blends), also for motion
// images of another size than the source.
TEST_P(OneLayer, MatchesTheDriverSequence) {
  const OneLayerCase k = GetParam();
  const int32_t w = 48, h = 40, mw = w / k.motionScale, mh = h / k.motionScale, mc = k.channels == 1 ? 1 : 3;
  Picture src(w, h, k.channels, k.type, 1, 4), dst(w, h, k.channels, k.type, 0, 2);
  Picture a(mw, mh, mc, k.type), b(mw, mh, mc, k.type, 1);
  Paint(src.get(), 0.0);
  Paint(a.get(), 0.0);
  Paint(b.get(), 3.0 / k.motionScale);
  NuvMotionBlur mb;
  ASSERT_EQ(RenderOne(&mb, &dst, &src, &a, &b, k.amount, 0.9f, 0.0f, k.mode, 1), 0);
  EXPECT_EQ(mb.cache->estimator->useMasks, 0);

  PLOpticalFlowUChar est(mw, mh, k.mode, 0, 0, 2);
  est.SetLevelFactor(0.9f);
  est.ComputeFlow(nullptr, a.get(), b.get(), 1, 1, 0, nullptr, false);
  pltest::TestImage want = MakeImage(w, h, k.channels, k.type);
  PLMotionBlur(want.get(), src.get(), est.flowPyramid[0], 1, 0, nullptr, 0, k.amount < 0.0f ? 0.5f : k.amount);
  if (k.amount < 0.0f) PLBlend(want.get(), src.get(), k.amount);
  EXPECT_TRUE(SamePixels(dst.get(), want.get()));
  EXPECT_FALSE(SamePixels(dst.get(), src.get()));
  EXPECT_TRUE(pltest::PaddingUntouched(dst.image));
}

// The same keys reuse the flow whatever the motion pictures now show; each key changed alone
// makes the flow new; keepFlow 0 and Clear drop it.
TEST(MotionBlurCache, KeysDecideWhetherFlowIsComputed) {
  const int32_t w = 40, h = 32;
  Picture src(w, h, 3, PLUChar), still(w, h, 3, PLUChar), moved(w, h, 3, PLUChar), dst(w, h, 3, PLUChar);
  Paint(src.get(), 0.0);
  Paint(still.get(), 0.0);
  Paint(moved.get(), 3.0);
  struct Keys {
    float levelFactor, stamp;
    int32_t mode;
    int64_t quality;
  };
  auto render = [&](NuvMotionBlur* mb, Picture* second, const Keys& k, int32_t keep = 1) {
    EXPECT_EQ(RenderOne(mb, &dst, &src, &still, second, 0.75f, k.levelFactor, k.stamp, k.mode, k.quality, keep), 0);
    return PixelBytes(dst.get());
  };
  const Keys base{1.0f, -1.0f, 1, 1};  // stamp -1.0, the initial last stamp: no estimator yet
  NuvMotionBlur mb;
  const std::vector<unsigned char> moving = render(&mb, &moved, base);
  const PLOpticalFlowUChar* estimator = mb.cache->estimator;
  EXPECT_EQ(render(&mb, &still, base), moving);
  EXPECT_EQ(mb.cache->estimator, estimator);
  for (const Keys& k : {Keys{0.8f, -1.0f, 1, 1}, Keys{1.0f, 2.0f, 1, 1}, Keys{1.0f, -1.0f, 0, 1}, Keys{1.0f, -1.0f, 1, 3}}) {
    NuvMotionBlur fresh, warm;
    const std::vector<unsigned char> unmoved = render(&fresh, &still, k);
    render(&warm, &moved, base);
    EXPECT_EQ(render(&warm, &still, k), unmoved) << k.levelFactor << " " << k.stamp << " " << k.mode;
    EXPECT_NE(unmoved, moving);
  }
  render(&mb, &still, base, 0);
  EXPECT_EQ(mb.cache->estimator, nullptr);
  render(&mb, &moved, base);
  mb.Clear();
  EXPECT_EQ(mb.cache->estimator, nullptr);
}

// ---- layered path ----

// Binary mattes: layer 0 a square that moves `move` pixels right, (with two mattes) layer 1
// a band that stays; the farthest layer is the rest.
struct LayerScene {
  int32_t w, h, type, mattes;
  Picture src, a, b, dst;
  std::vector<std::unique_ptr<Picture>> fm, sm;
  std::vector<NuvImage*> fv, sv;
  LayerScene(int32_t width, int32_t height, int32_t t, int32_t matteCount, int32_t move, int32_t srcChannels = 4)
      : w(width), h(height), type(t), mattes(matteCount), src(w, h, srcChannels, t, 1, 4), a(w, h, 3, t),
        b(w, h, 3, t, 0, 6), dst(w, h, 4, t, 0, 2) {
    Paint(src.get(), 0.0);
    Paint(a.get(), 0.0);
    Paint(b.get(), 0.0);
    for (int32_t i = 0; i < matteCount; ++i) {
      fm.emplace_back(new Picture(w, h, 1, t));
      sm.emplace_back(new Picture(w, h, 1, t, 1));
      fv.push_back(fm.back()->v());
      sv.push_back(sm.back()->v());
    }
    const double white = src.get()->whitePoint;
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        const bool moved = x >= 10 + move && x < 22 + move && y >= 8 && y < 20;
        Set(fm[0]->get(), x, y, 0, x >= 10 && x < 22 && y >= 8 && y < 20 ? white : 0.0);
        Set(sm[0]->get(), x, y, 0, moved ? white : 0.0);
        for (int32_t c = 0; moved && c < 3; ++c) Set(b.get(), x, y, c, Get(a.get(), x - move, y, c));
        for (int32_t i = 1; i < matteCount; ++i)
          for (Picture* m : {fm[i].get(), sm[i].get()}) Set(m->get(), x, y, 0, y >= 24 && y < 30 ? white : 0.0);
      }
  }
  int32_t Render(NuvMotionBlur* mb, const float* amounts, float amount, float stamp = 0.0f,
                 NuvIdleAndProgressClass* progress = nullptr, float choke = 0.0f) {
    const float levels[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1}, chokes[9] = {choke, choke};
    return mb->Render(amount, 1.0f, stamp, dst.v(), 0, 1, src.v(), a.v(), b.v(), 0, mattes, fv.data(), sv.data(),
                      amounts, levels, chokes, progress, 1);
  }
};

class Layered : public ::testing::TestWithParam<int32_t> {};
INSTANTIATE_TEST_SUITE_P(Types, Layered, ::testing::Values(PLUChar, PLUShort, PLFloat));

// With every amount 0 and binary mattes the layers are cut, filled, and composited back into
// the source exactly, under a white matte.
TEST_P(Layered, ZeroAmountsGiveTheSourceBack) {
  for (int32_t srcChannels : {3, 4}) {
    LayerScene s(40, 34, GetParam(), 2, 3, srcChannels);
    const float amounts[2] = {0.0f, 0.0f};
    NuvMotionBlur mb;
    ASSERT_EQ(s.Render(&mb, amounts, 0.0f), 0);
    EXPECT_EQ(mb.cache->estimator->useMasks, 1);
    for (int32_t y = 0; y < s.h; ++y)
      for (int32_t x = 0; x < s.w; ++x)
        for (int32_t c = 0; c < 4; ++c)
          ASSERT_EQ(Get(s.dst.get(), x, y, c), c == 3 ? s.src.get()->whitePoint : Get(s.src.get(), x, y, c)) << x << "," << y;
    EXPECT_TRUE(pltest::PaddingUntouched(s.dst.image));
  }
}

// Blurring only the moving square leaves the background away from it untouched.
TEST_P(Layered, AmountsActPerLayer) {
  LayerScene s(44, 34, GetParam(), 1, 4);
  const float squareOnly[1] = {1.0f};
  NuvMotionBlur mb;
  ASSERT_EQ(s.Render(&mb, squareOnly, 0.0f), 0);
  bool squareChanged = false;
  for (int32_t y = 0; y < s.h; ++y)
    for (int32_t x = 0; x < s.w; ++x)
      for (int32_t c = 0; c < 3; ++c) {
        const bool same = Get(s.dst.get(), x, y, c) == Get(s.src.get(), x, y, c);
        if (x >= 30 || y >= 24) {
          ASSERT_TRUE(same) << x << "," << y;
        }
        if (x >= 10 && x < 22 && y >= 8 && y < 20 && !same) squareChanged = true;
      }
  EXPECT_TRUE(squareChanged);
}

// ---- orders, refusals, failures, workers ----

// Views stored A, R, G, B (roles red 1, green 2, blue 3, matte 0) give the plain result in
// their own order; the source comes back as it was, the second motion view is taken to
// canonical order a second time (kept behaviour).
TEST(MotionBlurOrder, ViewsKeepTheirChannelOrder) {
  const int32_t w = 36, h = 30;
  std::vector<std::unique_ptr<Picture>> p;
  for (int32_t i = 0; i < 8; ++i) p.emplace_back(new Picture(w, h, 4, PLUChar));
  for (int32_t i : {0, 1, 4, 5}) Paint(p[i]->get(), 0.0);
  for (int32_t i : {2, 6}) Paint(p[i]->get(), 2.0);
  NuvMotionBlur plain, ordered;
  ASSERT_EQ(RenderOne(&plain, p[3].get(), p[0].get(), p[1].get(), p[2].get(), 0.75f, 1.0f, 0.0f, 1, 1), 0);
  auto rotate = [&](PLImage* im, int32_t by) {
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        double q[4];
        for (int32_t c = 0; c < 4; ++c) q[c] = Get(im, x, y, c);
        for (int32_t c = 0; c < 4; ++c) Set(im, x, y, (c + by) % 4, q[c]);
      }
  };
  for (int32_t i = 4; i < 8; ++i) {
    rotate(p[i]->get(), 1);
    p[i]->view.SetupCustom(p[i]->get()->data, w, h, p[i]->get()->rowBytes, 1, PLUChar, 1, 1, 1, 2, 3, 0);
  }
  ASSERT_EQ(RenderOne(&ordered, p[7].get(), p[4].get(), p[5].get(), p[6].get(), 0.75f, 1.0f, 0.0f, 1, 1), 0);
  for (int32_t i : {3, 0}) rotate(p[i]->get(), 1);
  rotate(p[2]->get(), 3);  // one step back from the stored order
  EXPECT_TRUE(SamePixels(p[7]->get(), p[3]->get()));
  EXPECT_TRUE(SamePixels(p[4]->get(), p[0]->get()));
  EXPECT_TRUE(SamePixels(p[6]->get(), p[2]->get()));
}

// Bad inputs return 5 with the destination untouched and the cached flow kept.
TEST(MotionBlurRefusals, BadInputsReturnParameterError) {
  LayerScene s(32, 28, PLUChar, 1, 2);
  Picture small(16, 14, 3, PLUChar), gray(32, 28, 1, PLUChar), rgb16(32, 28, 3, PLUShort), rgb(32, 28, 3, PLUChar);
  NuvImage unattached, alias;
  NuvImageInternal emptyWrap, aliasWrap(s.src.get());
  NuvImage empty;
  empty.Attach(&emptyWrap);
  alias.Attach(&aliasWrap);  // another view on the source's pixels
  const float amounts[1] = {0.5f}, levels[10] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, chokes[10] = {};
  NuvImage* ten[10];
  for (NuvImage*& m : ten) m = s.fv[0];
  NuvImage* noMatte[1] = {nullptr};
  NuvImage* colourMatte[1] = {s.src.v()};
  NuvImage *D = s.dst.v(), *S = s.src.v(), *A = s.a.v(), *B = s.b.v(), *const *F = s.fv.data(), *const *M = s.sv.data();
  struct Call {
    NuvImage *dst, *src, *a, *b;
    int32_t mode, mattes;
    NuvImage *const *fm, *const *sm;
    const float* amounts;
  } calls[] = {
      {D, nullptr, A, B, 0, 1, F, M, amounts},         {D, S, &unattached, B, 0, 1, F, M, amounts},
      {D, S, A, &empty, 0, 1, F, M, amounts},          {nullptr, S, A, B, 0, 1, F, M, amounts},
      {D, S, small.v(), small.v(), 0, 1, F, M, amounts}, {D, S, A, gray.v(), 0, 1, F, M, amounts},
      {D, S, A, rgb16.v(), 0, 1, F, M, amounts},       {D, S, A, B, 3, 1, F, M, amounts},
      {D, S, A, B, 0, 10, ten, ten, amounts},          {D, S, A, B, 0, -1, F, M, amounts},
      {D, S, A, B, 0, 1, noMatte, M, amounts},         {D, S, A, B, 0, 1, F, colourMatte, amounts},
      {D, S, A, B, 0, 1, nullptr, M, amounts},         {D, S, A, B, 0, 1, F, M, nullptr},
      {rgb.v(), S, A, B, 0, 1, F, M, amounts},         {gray.v(), S, A, B, 0, 0, F, M, amounts},
      {small.v(), S, A, B, 0, 0, F, M, amounts},       {&alias, S, A, B, 0, 0, F, M, amounts},
  };
  NuvMotionBlur mb;
  ASSERT_EQ(s.Render(&mb, amounts, 0.5f), 0);
  const PLOpticalFlowUChar* estimator = mb.cache->estimator;
  int32_t i = 0;
  for (const Call& c : calls) {
    const PLImage* target = c.dst ? c.dst->internal : s.dst.get();
    const std::vector<unsigned char> before = PixelBytes(target);
    EXPECT_EQ(mb.Render(0.5f, 1.0f, 0.0f, c.dst, c.mode, 1, c.src, c.a, c.b, 0, c.mattes, c.fm, c.sm, c.amounts,
                        levels, chokes, nullptr, 1),
              5)
        << "case " << i;
    EXPECT_EQ(PixelBytes(target), before) << "case " << i++;
    EXPECT_EQ(mb.cache->estimator, estimator);
  }
}

// An interruption comes back as 6; the half-made flow is dropped and the source's channel
// order is put back. Images too small for the renderer (one row or column) are refused with
// 5, and 2 x 2 renders; nothing reads or writes outside an image (checked under the
// sanitizers). Both layered or not.
TEST(MotionBlurFailures, InterruptionAndTinyImages) {
  const float amounts[1] = {0.5f};
  for (int32_t mattes : {0, 1}) {
    LayerScene s(32, 28, PLFloat, 1, 2);
    s.mattes = mattes;
    s.src.view.SetupCustom(s.src.get()->data, 32, 28, s.src.get()->rowBytes, 0, PLFloat, 1, 1, 2, 1, 0, 3);
    const std::vector<unsigned char> srcBefore = PixelBytes(s.src.get());
    NuvIdleAndProgressClass parent(nullptr);
    parent.SetInterrupted(true);
    NuvMotionBlur mb;
    EXPECT_EQ(s.Render(&mb, amounts, 0.5f, 0.0f, &parent), 6);
    EXPECT_EQ(mb.cache->estimator, nullptr);
    EXPECT_EQ(PixelBytes(s.src.get()), srcBefore);
    for (auto size : {std::make_pair(1, 1), std::make_pair(1, 3), std::make_pair(3, 1), std::make_pair(2, 2)}) {
      LayerScene tiny(size.first, size.second, PLUChar, 1, 0);
      tiny.mattes = mattes;
      NuvMotionBlur fresh;
      EXPECT_EQ(tiny.Render(&fresh, amounts, 0.5f), size.first == 2 ? 0 : 5) << size.first << "x" << size.second;
    }
  }
}

// The whole render, one layer and layered (with chokes), gives the same bytes on 1, 2, 3 and
// 8 workers.
TEST(MotionBlurWorkers, SameBytesForAllWorkerCounts) {
  for (int32_t mattes : {0, 2})
    for (int32_t type : {PLUChar, PLFloat})
      pltest::ExpectSameForAllWorkers([&] {
        LayerScene s(64, 72, type, 2, 4);
        s.mattes = mattes;
        const float amounts[2] = {1.0f, -0.5f};
        NuvMotionBlur mb;
        EXPECT_EQ(s.Render(&mb, amounts, 0.6f, 0.0f, nullptr, 1.5f), 0);
        return PixelBytes(s.dst.get());
      });
}

}  // namespace
