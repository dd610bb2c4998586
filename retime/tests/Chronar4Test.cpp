// Tests of the retiming engine: flow caching and its keys, exact frames, frame kinds, the
// failure rules, vector steps, fields, layers, the pixel operations, and worker counts.
#include <cmath>
#include <cstring>

#include "image/PLImageCopy.h"
#include "retime/NuvChronar4Private.h"
#include "retime/retime.h"
#include "runtime/PLWidePath.h"
#include "retime/tests/ChronarTestSupport.h"

using chronartest::AddMovingFrames;
using chronartest::MemoryChronar;
using chronartest::Misbehave;
using chronartest::Output;

namespace {

constexpr int32_t kW = 64, kH = 48;
constexpr int32_t kQuality = 4;  // flow at half size
constexpr float kOnes[10] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, kNoChokes[10] = {};

struct Clip {
  MemoryChronar engine;
  Output out{kW, kH, 3, PLUChar};
  explicit Clip(int32_t frames = 4, int32_t channels = 3, int32_t type = PLUChar)
      : out(kW, kH, channels, type) {
    AddMovingFrames(&engine, frames, kW, kH, channels, type, 3.0f);
  }
  int32_t Render(float t, int32_t keepFlow = 1) {
    return engine.RenderAtTime(&out.view, t, kQuality, keepFlow, nullptr);
  }
  // Fields, layers and level factors as given, no chokes, flow kept.
  int32_t RenderWith(float t, int32_t inputFields, int32_t outputFields, int32_t mattes,
                     const float* levelFactors = kOnes) {
    return engine.RenderAtTime(&out.view, t, kQuality, inputFields, outputFields, mattes,
                               levelFactors, kNoChokes, 1, nullptr);
  }
  // One matte per frame for layer 0 of 1: a band that moves 2 px a frame.
  void AddMattes(int32_t count, int32_t channels = 1) {
    for (int32_t n = 0; n < count; ++n) {
      chronartest::Owned m = chronartest::NewOwned(kW, kH, channels, out.get()->dataType);
      for (int32_t i = 0; i < kW * kH * channels; ++i) {
        const int32_t x = i / channels % kW;
        const bool band = x > 20 + 2 * n && x < 40 + 2 * n;
        pltest::Set(m.get(), x, i / channels / kW, i % channels, band ? m->whitePoint : 0.0);
      }
      engine.mattes[{n, 0}] = std::move(m);
    }
  }
  // The largest difference from frame n over the first `channels` samples of every pixel.
  double WorstFrom(int32_t n, int32_t channels) {
    double worst = 0;
    for (int32_t i = 0; i < kW * kH * channels; ++i) {
      const int32_t x = i / channels % kW, y = i / channels / kW, c = i % channels;
      worst = std::max(worst, std::fabs(pltest::Get(out.get(), x, y, c) -
                                        pltest::Get(engine.frames[n].get(), x, y, c)));
    }
    return worst;
  }
};

// ---- Settings -------------------------------------------------------------------------------

TEST(Chronar4Quality, CodesGiveModeAndFlowSize) {
  struct Case {
    int32_t quality, firstScale, mode, w, h;
  } cases[] = {{0, 1, 3, 12, 8},  {2, 1, 3, 12, 8},  {3, 1, 2, 25, 16}, {4, 1, 1, 50, 33},
               {5, 1, 0, 101, 67}, {3, 0, 3, 12, 8}, {4, 0, 2, 25, 16}, {5, 0, 1, 50, 33},
               {0, 0, 3, 12, 8}};
  MemoryChronar c;
  for (const Case& k : cases) {
    EXPECT_EQ(c.SetQuality(101, 67, k.quality, k.firstScale, 1.0f, 1, 1, 0), 0);
    EXPECT_EQ(c.internal->flowMode, k.mode) << "quality " << k.quality;
    EXPECT_EQ(c.internal->flowWidth, k.w);
    EXPECT_EQ(c.internal->flowHeight, k.h);
  }
  EXPECT_EQ(c.SetQuality(101, 67, 6, 1, 1.0f, 1, 1, 0), PLErrParameter);
}

TEST(Chronar4Quality, NullInternalAnswersOneEverywhere) {
  Clip clip;
  delete clip.engine.internal;
  clip.engine.internal = nullptr;
  EXPECT_EQ(clip.Render(0.5f), 1);
  EXPECT_EQ(clip.RenderWith(0.5f, 0, 0, 0), 1);
  EXPECT_EQ(clip.engine.RenderVectors(&clip.out.view, 1, 1, 0, 1.0f, 0, 4, 0, kOnes, kNoChokes,
                                      nullptr),
            1);
  EXPECT_EQ(clip.engine.RenderVectors(nullptr, 1, 1, 0, 1.0f, 0, 4, 0, kOnes, kNoChokes, nullptr,
                                      0),
            1);
  EXPECT_EQ(clip.engine.SetQuality(kW, kH, 4, 1, 1.0f, 1, 1, 0), 1);
  EXPECT_EQ(clip.engine.fetches, 0);
}

// ---- The flow cache -------------------------------------------------------------------------

class Chronar4Cache : public ::testing::TestWithParam<int64_t> {};

// Times between one pair reuse the flow; a change of warp style, level factor or quality, the
// next pair, and every render with flow keeping off compute it again. An exact frame time runs
// no flow, shows the frame and releases the flow; coming back between frames computes it anew.
TEST_P(Chronar4Cache, FlowRunsOnlyWhenItsKeysChange) {
  Clip clip;
  clip.engine.interpolation = GetParam();
  const int64_t perPair = GetParam() == 0 ? 1 : 2;  // interpolations 1 and 2 run two flows
  ASSERT_EQ(clip.Render(1.1f), 0);
  ASSERT_EQ(clip.Render(1.3f), 0);
  ASSERT_EQ(clip.Render(1.3f), 0);
  EXPECT_EQ(clip.engine.FlowRuns(), perPair);
  clip.engine.warpStyle = 2;
  ASSERT_EQ(clip.Render(1.3f), 0);
  const float lf[10] = {0.7f};
  ASSERT_EQ(clip.RenderWith(1.3f, 0, 0, 0, lf), 0);
  ASSERT_EQ(clip.engine.RenderAtTime(&clip.out.view, 1.3f, 3, 1, nullptr), 0);  // quality
  EXPECT_EQ(clip.engine.FlowRuns(), 4 * perPair);
  for (float t : {2.0f, 2.003f, 1.997f}) {
    ASSERT_EQ(clip.Render(t), 0);
    EXPECT_EQ(clip.engine.internal->forwardFlow, nullptr);
    EXPECT_EQ(clip.engine.internal->backwardFlow, nullptr);
    EXPECT_TRUE(pltest::SamePixels(clip.out.get(), clip.engine.frames[2].get())) << t;
  }
  EXPECT_EQ(clip.engine.FlowRuns(), 4 * perPair);
  ASSERT_EQ(clip.Render(1.4f), 0);
  ASSERT_EQ(clip.Render(2.2f), 0);
  EXPECT_EQ(clip.engine.FlowRuns(), 6 * perPair);
  ASSERT_EQ(clip.Render(2.3f, 0), 0);
  ASSERT_EQ(clip.Render(2.3f, 0), 0);
  EXPECT_EQ(clip.engine.FlowRuns(), 8 * perPair);
  EXPECT_EQ(clip.engine.internal->forwardFlow, nullptr);
  EXPECT_EQ(clip.engine.fetches, clip.engine.releases);
  EXPECT_EQ(clip.engine.Outstanding(), 0);
}

// Frame kinds 3 and 4 and a change of shot show the nearest frame; without flow the engine
// is the plain cross-fade of the pair at the time's share (interpolation 0: the nearer
// frame). Neither runs a flow.
TEST_P(Chronar4Cache, KindsAndRendersWithoutFlowRunNone) {
  for (int32_t k : {3, 4, -1}) {
    Clip clip;
    clip.engine.interpolation = GetParam();
    // -1: a change of shot between frames 1 and 2 (kinds 0 then 1).
    clip.engine.kind = [k](float t) { return k >= 0 ? k : (t >= 2.0f ? 1 : 0); };
    ASSERT_EQ(clip.Render(1.3f), 0);
    EXPECT_EQ(clip.engine.FlowRuns(), 0) << "kind " << k;
    EXPECT_TRUE(pltest::SamePixels(clip.out.get(), clip.engine.frames[1].get()));
    ASSERT_EQ(clip.Render(1.7f), 0);
    EXPECT_EQ(clip.engine.FlowRuns(), 0);
    EXPECT_TRUE(pltest::SamePixels(clip.out.get(), clip.engine.frames[2].get()));
  }
  Clip clip;
  clip.engine.useFlow = 0;
  clip.engine.interpolation = GetParam();
  ASSERT_EQ(clip.Render(1.25f), 0);
  EXPECT_EQ(clip.engine.FlowRuns(), 0);
  const PLImage* a = clip.engine.frames[1].get();
  pltest::TestImage mix = pltest::MakeImage(kW, kH, 3, PLUChar);
  ASSERT_EQ(PLRetimeMix(mix.get(), a, clip.engine.frames[2].get(), 0.25f, nullptr, nullptr, nullptr,
                        nullptr),
            1);
  EXPECT_TRUE(pltest::SamePixels(clip.out.get(), GetParam() == 0 ? a : mix.get()));
}

INSTANTIATE_TEST_SUITE_P(Interpolations, Chronar4Cache, ::testing::Values(0, 1, 2));

// ---- What is shown --------------------------------------------------------------------------

// A pan moved between two frames: every style and mix lands near the true in-between
// picture and far from either frame.
class Chronar4Styles
    : public ::testing::TestWithParam<std::tuple<int64_t, int32_t, int32_t>> {};

TEST_P(Chronar4Styles, InBetweenOfAPanIsThePanHalfway) {
  auto [interp, style, type] = GetParam();
  Clip clip(3, 3, type);
  clip.engine.interpolation = interp;
  clip.engine.warpStyle = style;
  ASSERT_EQ(clip.Render(0.5f), 0);
  chronartest::Owned truth(pltest::MakeTextured(kW, kH, 3, type, 1.5, 0.0).release());
  double white = type == PLUChar ? 255.0 : type == PLUShort ? 65535.0 : 1.0;
  auto meanError = [&](const PLImage* im) {
    double sum = 0;
    int64_t n = 0;
    for (int32_t y = 4; y < kH - 4; ++y)
      for (int32_t x = 6; x < kW - 6; ++x)
        for (int32_t c = 0; c < 3; ++c, ++n)
          sum += std::fabs(pltest::Get(im, x, y, c) - pltest::Get(truth.get(), x, y, c)) / white;
    return sum / n;
  };
  double engine = meanError(clip.out.get());
  EXPECT_LT(engine, 0.5 * meanError(clip.engine.frames[0].get()));
  EXPECT_LT(engine, 0.02);
}

INSTANTIATE_TEST_SUITE_P(All, Chronar4Styles,
                         ::testing::Combine(::testing::Values(0, 1, 2),
                                            ::testing::Values(0, 1, 2, 3),
                                            ::testing::Values(PLUChar, PLUShort, PLFloat)));

TEST(Chronar4Picture, ShutterBlursAlongTheFlowOnlyWhenSpedUp) {
  auto render = [](float t, float shutter, float speed, bool amountOverriddenToZero = false) {
    Clip clip;
    clip.engine.shutter = shutter;
    clip.engine.timeMap = [speed](float s) { return s * speed; };
    clip.engine.overrideAmount = amountOverriddenToZero;
    EXPECT_EQ(clip.Render(t), 0);
    return pltest::PixelBytes(clip.out.get());
  };
  const std::vector<unsigned char> plain = render(0.6f, 0.0f, 2.0f);
  EXPECT_NE(render(0.6f, 1.0f, 2.0f), plain);
  EXPECT_EQ(render(0.6f, 1.0f, 2.0f, true), plain);
  // One source frame per output frame: amount 0.
  EXPECT_EQ(render(1.2f, 1.0f, 1.0f), render(1.2f, 0.0f, 1.0f));
}

TEST(Chronar4Picture, OutputFieldsInterleaveTwoHalfFrameRenders) {
  Clip fields(4, 4, PLUChar), first(4, 4, PLUChar), second(4, 4, PLUChar);
  for (Clip* c : {&fields, &first, &second}) c->engine.interpolation = 1;
  ASSERT_EQ(fields.RenderWith(1.2f, 0, 1, 0), 0);
  ASSERT_EQ(first.Render(1.2f), 0);
  ASSERT_EQ(second.Render(1.7f), 0);
  size_t bytes = static_cast<size_t>(kW) * 4;
  for (int32_t y = 0; y < kH; ++y) {
    const PLImage* want = (y % 2 == 0 ? first : second).out.get();
    ASSERT_EQ(std::memcmp(fields.out.get()->Row(y), want->Row(y), bytes), 0) << "row " << y;
  }
}

TEST(Chronar4Picture, InputFieldsReadFramesHalfAsOften) {
  Clip clip(4, 4, PLUChar);
  clip.engine.interpolation = 0;
  clip.engine.useFlow = 0;
  // Source time 1.0 is field 2: frame 1 made whole from one field. Field number 2 rebuilds
  // the rows of the parity of lastRow - 1 (47 - 1: the even rows) and keeps the others.
  ASSERT_EQ(clip.RenderWith(1.0f, 1, 0, 0), 0);
  const PLImage* frame = clip.engine.frames[1].get();
  for (int32_t y = 1; y < kH; y += 2)
    ASSERT_EQ(std::memcmp(clip.out.get()->Row(y), frame->Row(y), kW * 4), 0);
  for (int32_t y = 2; y < kH - 1; y += 2)  // line averages of the kept rows around them
    ASSERT_EQ(pltest::Get(clip.out.get(), 5, y, 0),
              std::floor((pltest::Get(frame, 5, y - 1, 0) + pltest::Get(frame, 5, y + 1, 0)) *
                             0.5 + 0.5));
  // Three-channel frames cannot be made whole from a field: refused.
  Clip rgb;
  EXPECT_EQ(rgb.RenderWith(1.0f, 1, 0, 0), PLErrParameter);
}

// Every render path (in-betweens of each warp style with a shutter blur, layers, flow from
// hints alone, vector steps) gives the same bytes on 1, 2, 3 and 8 workers; on the way the
// layered engine is seen to rebuild a frame at its own time.
class Chronar4Workers : public ::testing::TestWithParam<int64_t> {};

TEST_P(Chronar4Workers, SameBytesForAllWorkers) {
  for (int32_t style : {0, 1, 2, 3})
    for (int32_t type : {PLUChar, PLUShort}) {  // four channels, and three (two styles)
      if (type == PLUShort && style % 2) continue;
      pltest::ExpectSameForAllWorkers([&] {
        Clip clip(3, type == PLUChar ? 4 : 3, type);
        clip.engine.interpolation = GetParam();
        clip.engine.warpStyle = style;
        clip.engine.shutter = 0.5f;
        clip.engine.timeMap = [](float t) { return t * 1.5f; };  // speed-up: a shutter blur
        EXPECT_EQ(clip.Render(0.4f), 0);
        return pltest::PixelBytes(clip.out.get());
      });
    }
  for (int32_t type : {PLUChar, PLFloat})
    pltest::ExpectSameForAllWorkers([&] {
      Clip clip(3, 4, type);
      clip.engine.interpolation = GetParam();
      clip.AddMattes(3);
      // Layers: at a frame's time they rebuild the frame.
      EXPECT_EQ(clip.RenderWith(1.0f, 0, 0, 1), 0);
      EXPECT_LE(clip.WorstFrom(1, 4), type == PLUChar ? 1.0 : 1e-5) << "type " << type;
      EXPECT_EQ(clip.RenderWith(0.4f, 0, 0, 1), 0);
      EXPECT_EQ(clip.engine.matteFetches, clip.engine.matteReleases);
      return pltest::PixelBytes(clip.out.get());
    });
  // Flow from the hints alone (no estimator).
  pltest::ExpectSameForAllWorkers([&] {
    Clip clip(3, 3, PLFloat);
    clip.engine.interpolation = GetParam();
    clip.engine.hintMotion[0] = 3.0f;
    clip.engine.hintsOnly = true;
    EXPECT_EQ(clip.Render(0.4f), 0);
    EXPECT_EQ(clip.engine.FlowRuns(), GetParam() == 0 ? 1 : 2);
    return pltest::PixelBytes(clip.out.get());
  });
  // Vector pictures and warped steps, plain and layered (a matte: two layers).
  for (int32_t mattes : {0, 1})
    for (int32_t kind : {0, 1})
      pltest::ExpectSameForAllWorkers([&] {
        Clip clip(4, 3, PLFloat);
        clip.engine.interpolation = GetParam();
        if (mattes) clip.AddMattes(4);
        EXPECT_EQ(clip.engine.RenderVectors(&clip.out.view, 2, 2, kind, 1.0f, 0, kQuality,
                                            mattes, kOnes, kNoChokes, nullptr),
                  0);
        EXPECT_EQ(clip.engine.Outstanding(), 0);
        return pltest::PixelBytes(clip.out.get());
      });
}

INSTANTIATE_TEST_SUITE_P(Interpolations, Chronar4Workers, ::testing::Values(0, 1, 2));

// What a subclass that overrides nothing optional is answered with.
TEST(Chronar4Defaults, OptionalOperationsAnswerTheirDefaults) {
  MemoryChronar c;
  NuvChronar4& e = c;
  uint8_t rgb[3] = {};
  e.GetFillColor(&rgb[0], &rgb[1], &rgb[2]);
  EXPECT_EQ(rgb[0] + rgb[1] + rgb[2], 3 * 255);
  int32_t count = 7;
  const float dummy = 0.0f;
  const float* points[4] = {&dummy, &dummy, &dummy, &dummy};
  e.NuvChronar4::GetHints(0.0f, 1.0f, 0, 0, &count, &points[0], &points[1], &points[2],
                          &points[3]);
  EXPECT_EQ(count, 0);
  for (const float* p : points) EXPECT_EQ(p, nullptr);
  void* out = &c;
  EXPECT_EQ(e.ReservedPointer1(&out), 0);
  EXPECT_EQ(out, nullptr);
  out = &c;
  EXPECT_EQ(e.ReservedPointer2(&out), 0);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(e.ReservedQuery1() + e.ReservedQuery2() + e.UsesExternalFlow(), 0);
  e.ReservedHook();
  float value = 0.3f;
  EXPECT_EQ(e.OverrideTopLevelFactor(0.0f, &value) + e.OverrideLevelFactor(0.0f, &value, 0) +
                e.OverrideChoke(0.0f, &value, 0),
            0);
  EXPECT_EQ(value, 0.3f);  // untouched
}

// ---- Failure rules --------------------------------------------------------------------------

TEST(Chronar4Failure, BadArgumentsAndBadSubclassReturns) {
  struct Case {
    const char* what;
    std::function<void(Clip&)> setup;
    float time;
    int32_t expected;
  } cases[] = {
      {"null view", [](Clip& c) { c.engine.misbehave[2] = Misbehave::kNullView; }, 1.5f, 5},
      {"empty view", [](Clip& c) { c.engine.misbehave[2] = Misbehave::kEmptyView; }, 1.5f, 5},
      {"status 3", [](Clip& c) { c.engine.misbehave[1] = Misbehave::kStatus3; }, 1.5f, 1},
      {"interrupted", [](Clip& c) { c.engine.misbehave[1] = Misbehave::kInterrupt; }, 1.5f, 6},
      {"wrong size", [](Clip& c) { c.engine.misbehave[2] = Misbehave::kWrongSize; }, 1.5f, 5},
      {"past the clip", [](Clip&) {}, 3.5f, 5},
      {"NaN time", [](Clip&) {}, NAN, 5},
      {"NaN source time", [](Clip& c) { c.engine.timeMap = [](float) { return NAN; }; }, 1.0f, 5},
      {"huge source time", [](Clip& c) { c.engine.timeMap = [](float) { return 3e9f; }; }, 1.f, 5},
      {"warp style 7", [](Clip& c) { c.engine.warpStyle = 7; }, 1.5f, 5},
      {"interpolation 3", [](Clip& c) { c.engine.interpolation = 3; }, 1.5f, 5},
  };
  for (const Case& k : cases) {
    Clip clip;
    clip.engine.interpolation = 1;
    k.setup(clip);
    EXPECT_EQ(clip.Render(k.time), k.expected) << k.what;
    EXPECT_EQ(clip.engine.Outstanding(), 0) << k.what;
    EXPECT_EQ(clip.engine.internal->forwardFlow, nullptr) << k.what;
  }
  Clip clip;
  EXPECT_EQ(clip.engine.RenderAtTime(nullptr, 1.0f, kQuality, 1, nullptr), 5);
  EXPECT_EQ(clip.engine.RenderAtTime(&clip.out.view, 1.0f, 9, 1, nullptr), 5);
  EXPECT_EQ(clip.RenderWith(1.0f, 0, 0, 10), 5);  // eleven layers
  EXPECT_EQ(clip.RenderWith(1.0f, 0, 0, -1), 5);
  EXPECT_EQ(clip.RenderWith(1.0f, 0, 0, 1), 5);  // a matte the subclass does not have
  EXPECT_EQ(clip.engine.matteFetches, clip.engine.matteReleases + 1);  // the refused one
  Output wrongType(kW, kH, 3, PLFloat);
  EXPECT_EQ(clip.engine.RenderAtTime(&wrongType.view, 1.0f, kQuality, 1, nullptr), 5);
  EXPECT_EQ(clip.engine.Outstanding(), 0);
  Clip rgbMattes(3, 4, PLUChar);  // a matte of three channels
  rgbMattes.AddMattes(3, 3);
  EXPECT_EQ(rgbMattes.RenderWith(0.5f, 0, 0, 1), 5);
  EXPECT_EQ(rgbMattes.engine.Outstanding(), 0);
}

// ---- Vector steps ---------------------------------------------------------------------------

TEST(Chronar4Vectors, MissingNeighbourGivesTheFixedColourAndZero) {
  for (int32_t kind : {0, 1})
    for (int32_t type : {PLUChar, PLFloat}) {
      Clip clip(4, 3, type);
      // Frame 0 has no predecessor (vectors) and frame 3 no successor (warped).
      EXPECT_EQ(clip.engine.RenderVectors(&clip.out.view, kind == 0 ? 0 : 3, 1, kind, 1.0f, 0,
                                          kQuality, 0, nullptr, nullptr, nullptr),
                0);
      const double white = clip.out.get()->whitePoint;
      const double want[3] = {kind == 0 ? 0.5 : 0.0, kind == 0 ? 0.5 : 1.0, 0.0};
      for (int32_t c = 0; c < 3; ++c)
        EXPECT_NEAR(pltest::Get(clip.out.get(), 5, 5, c), want[c] * white, white / 255.0);
      EXPECT_EQ(clip.engine.internal->forwardFlow, nullptr);
      EXPECT_EQ(clip.engine.Outstanding(), 0);
    }
  // A frame the step starts from that is not there is a hard failure for vectors.
  Clip clip;
  clip.engine.misbehave[1] = Misbehave::kStatus3;
  EXPECT_EQ(clip.engine.RenderVectors(&clip.out.view, 1, 2, 0, 1.0f, 0, kQuality, 0, nullptr,
                                      nullptr, nullptr),
            1);
  EXPECT_EQ(clip.engine.RenderVectors(&clip.out.view, 1, 2, 0, 1.0f, 0, kQuality, 0, nullptr,
                                      nullptr, nullptr, 2),
            5);  // pixel type not the output's
  // Vector steps read motion frames as pictures: unlike a render at a time, they refuse
  // four-channel frames for a three-channel output.
  Clip four(3, 4, PLUChar);
  Output rgb(kW, kH, 3, PLUChar);
  EXPECT_EQ(four.engine.RenderVectors(&rgb.view, 1, 2, 0, 1.0f, 4, kQuality, 0, nullptr, nullptr,
                                      nullptr),
            PLErrParameter);
  EXPECT_EQ(four.engine.Outstanding(), 0);
}

TEST(Chronar4Vectors, VectorPictureShowsThePanAndWarpLinesUp) {
  Output floatOut(kW, kH, 3, PLFloat);
  Clip clip(4, 3, PLFloat);
  ASSERT_EQ(clip.engine.RenderVectors(&floatOut.view, 1, 2, 0, 0.1f, 0, kQuality, 0, nullptr,
                                      nullptr, nullptr, 2),
            0);
  // Content moves 3 px right a frame: R = 0.5 + 3 * 0.1 in the middle of the picture.
  EXPECT_NEAR(pltest::Get(floatOut.get(), kW / 2, kH / 2, 0), 0.8, 0.05);
  EXPECT_NEAR(pltest::Get(floatOut.get(), kW / 2, kH / 2, 1), 0.5, 0.05);
  // The next frame warped back onto frame 1, compared by difference: mid-grey in the middle.
  ASSERT_EQ(clip.engine.RenderVectors(&floatOut.view, 1, 1, 1, 1.0f, 2, kQuality, 0, nullptr,
                                      nullptr, nullptr),
            0);
  for (int32_t c = 0; c < 3; ++c)
    EXPECT_NEAR(pltest::Get(floatOut.get(), kW / 2, kH / 2, c), 0.5, 0.06);
}

// ---- Pixel operations -----------------------------------------------------------------------

TEST(Chronar4Ops, GatherWarpOfAConstantFlowIsAShiftWithAMaskOfTheInside) {
  for (int32_t type : {PLUChar, PLUShort, PLFloat}) {
    pltest::TestImage src = pltest::MakeImage(9, 7, 3, type, 1, 5);
    pltest::TestImage dst = pltest::MakeImage(9, 7, 3, type, 0, 3);
    pltest::TestImage mask = pltest::MakeImage(9, 7, 1, PLUChar);
    pltest::FillRandom(src.get(), 7);
    chronartest::Owned flow = chronartest::NewOwned(5, 4, 2, PLFloat);  // half grid: x2
    for (int32_t y = 0; y < 4; ++y)
      for (int32_t x = 0; x < 5; ++x) {
        pltest::Set(flow.get(), x, y, 0, 1.0);   // 2 output px right
        pltest::Set(flow.get(), x, y, 1, -0.5);  // 1 output px up
      }
    ASSERT_EQ(PLGatherWarp(dst.get(), src.get(), flow.get(), 1, mask.get(), 1, 0.5f), 1);
    for (int32_t y = 0; y < 7; ++y)
      for (int32_t x = 0; x < 9; ++x) {
        const bool inside = x + 1 <= 8 && y >= 1;
        EXPECT_EQ(pltest::Get(mask.get(), x, y, 0), inside ? 255 : 0);
        for (int32_t c = 0; c < 3; ++c) {
          // Share 0.5: each pixel reads (x + 1, y - 0.5), clamped into the source.
          const float v = pltest::Bilinear(src.get(), std::min(x + 1.0f, 8.0f),
                                           std::max(y - 0.5f, 0.0f), c);
          const double want = type == PLFloat ? v : std::floor(v + 0.5f);
          EXPECT_EQ(pltest::Get(dst.get(), x, y, c), want) << x << "," << y;
        }
      }
    EXPECT_TRUE(pltest::PaddingUntouched(dst));
  }
  // Refusals: the stated message and 0.
  pltest::TestImage a = pltest::MakeImage(8, 8, 3, PLUChar), b = pltest::MakeImage(8, 9, 3, PLUChar);
  chronartest::Owned flow = chronartest::NewOwned(4, 4, 2, PLFloat);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PLGatherWarp(a.get(), b.get(), flow.get(), 1, nullptr, 1, 0.5f), 0);
  EXPECT_EQ(PLGatherWarp(a.get(), a.get(), flow.get(), 1, nullptr, 1, 0.5f), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "can't warp image, input files not of correct types and sizes\n"
            "can't warp image, input files not of correct types and sizes\n");
}

// The 8-bit bilinear read has a wide loop beside the plain one: same bytes in the image and the
// mask on random flows that reach past every edge (and NaN), for every channel count and row
// layout, with and without clamping and mask, widths that leave every remainder of a group of
// eight, and 1, 2, 3 and 8 workers.
TEST(Chronar4Ops, GatherWarpWideLoopGivesThePlainBytes) {
  pltest::WorkerGuard guard;
  uint32_t seed = 40;
  for (int32_t channels = 1; channels <= 4; ++channels)
    for (pltest::Layout layout : pltest::kLayouts)
      for (int32_t w : {8, 13, 37}) {
        const int32_t h = w == 37 ? 40 : 5;
        pltest::TestImage src = pltest::MakeImage(w, h, channels, PLUChar, layout);
        pltest::FillRandom(src.get(), ++seed);
        chronartest::Owned flow = chronartest::NewOwned(w / 2 + 1, h / 2 + 1, 2, PLFloat);
        pltest::FillRandom(flow.get(), ++seed, -12.0f, 12.0f);
        pltest::Set(flow.get(), 1, 1, 0, std::nan(""));
        // No motion along the last flow column and row: reads that land exactly on the last
        // column or row, which are inside.
        for (int32_t c = 0; c < 2; ++c) {
          for (int32_t y = 0; y < flow->height; ++y)
            pltest::Set(flow.get(), flow->lastColumn, y, c, 0);
          for (int32_t x = 0; x < flow->width; ++x)
            pltest::Set(flow.get(), x, flow->lastRow, c, 0);
        }
        for (int32_t clamp = 0; clamp < 2; ++clamp)
          for (int32_t masked = 0; masked < 2; ++masked) {
            std::vector<unsigned char> want;
            for (int32_t run = 0; run < 5; ++run) {  // plain; wide on 1, 2, 3 and 8 workers
              if (run > 0 && !PLWideAvailable()) break;
              PLTestUseWorkers(run == 0 ? 1 : kPLTestWorkerCounts[run - 1]);
              pltest::TestImage dst = pltest::MakeImage(w, h, channels, PLUChar, layout);
              pltest::FillRandom(dst.get(), seed + 1000);  // pixels left alone stay so
              pltest::TestImage mask = pltest::MakeImage(w, h, 1, PLUChar);
              ASSERT_EQ(chronar::GatherWarpOnPath(run > 0, dst.get(), src.get(), flow.get(), 1,
                                                  masked ? mask.get() : nullptr, clamp, 0.7f),
                        1);
              std::vector<unsigned char> got = pltest::PixelBytes(dst.get());
              const std::vector<unsigned char> maskBytes = pltest::PixelBytes(mask.get());
              got.insert(got.end(), maskBytes.begin(), maskBytes.end());
              if (run == 0)
                want = got;
              else
                EXPECT_TRUE(got == want) << channels << " channels, " << pltest::LayoutName(layout)
                                         << ", width " << w << ", clamp " << clamp << ", mask "
                                         << masked << ", run " << run;
              EXPECT_TRUE(pltest::PaddingUntouched(dst));
            }
          }
      }
}

// The plain cross-fade (no masks, no agreement) against the literal rule, at the shares
// that copy a row and one between, on every type, 1 to 4 channels and each row layout.
TEST(Chronar4Ops, PlainMixIsTheLiteralRuleForEveryTypeChannelsAndLayout) {
  for (int32_t type : {PLUChar, PLUShort, PLFloat})
    for (int32_t channels = 1; channels <= 4; ++channels)
      for (pltest::Layout layout : pltest::kLayouts)
        for (float f : {0.0f, 0.3f, 1.0f}) {
          pltest::TestImage a = pltest::MakeImage(7, 5, channels, type, layout);
          pltest::TestImage b = pltest::MakeImage(7, 5, channels, type, pltest::kPadded);
          pltest::TestImage d = pltest::MakeImage(7, 5, channels, type, layout);
          pltest::TestImage want = pltest::MakeImage(7, 5, channels, type);
          pltest::FillRandom(a.get(), 11);
          pltest::FillRandom(b.get(), 12);
          ASSERT_EQ(PLRetimeMix(d.get(), a.get(), b.get(), f, nullptr, nullptr, nullptr, nullptr),
                    1);
          for (int32_t i = 0; i < 7 * 5 * channels; ++i) {
            const int32_t x = i / channels % 7, y = i / channels / 7, c = i % channels;
            const float va = pltest::Sample(a.get(), x, y, c);
            const float vb = pltest::Sample(b.get(), x, y, c);
            pltest::Set(want.get(), x, y, c, pltest::ClampedStore(type, va + (vb - va) * f));
          }
          EXPECT_TRUE(pltest::SamePixels(d.get(), want.get()))
              << "type " << type << ", " << channels << " channels, "
              << pltest::LayoutName(layout) << ", share " << f;
        }
}

TEST(Chronar4Ops, MaskedMixTakesTheCoveredSideAndMarksHoles) {
  pltest::TestImage a = pltest::MakeImage(4, 1, 1, PLUChar), b = pltest::MakeImage(4, 1, 1, PLUChar);
  pltest::TestImage d = pltest::MakeImage(4, 1, 1, PLUChar);
  pltest::TestImage ma = pltest::MakeImage(4, 1, 1, PLUChar), mb = pltest::MakeImage(4, 1, 1, PLUChar);
  pltest::TestImage holes = pltest::MakeImage(4, 1, 1, PLUChar);
  int covered[4][2] = {{1, 1}, {1, 0}, {0, 1}, {0, 0}};
  for (int32_t x = 0; x < 4; ++x) {
    pltest::Set(a.get(), x, 0, 0, 100);
    pltest::Set(b.get(), x, 0, 0, 200);
    pltest::Set(ma.get(), x, 0, 0, covered[x][0] * 255);
    pltest::Set(mb.get(), x, 0, 0, covered[x][1] * 255);
  }
  ASSERT_EQ(PLRetimeMix(d.get(), a.get(), b.get(), 0.25f, ma.get(), mb.get(), nullptr, holes.get()),
            1);
  double want[4] = {125, 100, 200, 125}, hole[4] = {0, 0, 0, 255};
  for (int32_t x = 0; x < 4; ++x) {
    EXPECT_EQ(pltest::Get(d.get(), x, 0, 0), want[x]);
    EXPECT_EQ(pltest::Get(holes.get(), x, 0, 0), hole[x]);
  }
  // Agreement: full agreement is the linear fade, none a cut at the midpoint.
  chronartest::Owned agree = chronartest::NewOwned(2, 2, 1, PLFloat);
  for (double s : {1.0, 0.0}) {
    pltest::Fill(agree.get(), s);
    ASSERT_EQ(PLRetimeMix(d.get(), a.get(), b.get(), 0.25f, nullptr, nullptr, agree.get(), nullptr),
              1);
    EXPECT_EQ(pltest::Get(d.get(), 0, 0, 0), s == 1.0 ? 125 : 100);
  }
}

}  // namespace
