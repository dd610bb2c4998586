// flowblur frei0r tests, in process: the parameters as hosts send them, the frame clock, the
// filter's frames (first, blurred, repeated, in place, alpha), bad input that must never
// crash, worker counts and instances on several threads at once.
// The header declares its functions without C linkage of its own.
extern "C" {
#include <frei0r.h>
}
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <thread>
#include <vector>

#include "frei0r/FlowBlurFilter.h"
#include "frei0r/Frei0rProcessors.h"
#include "frei0r/tests/MovingSquare.h"
#include "runtime/NuvMem.h"

namespace {

using frei0rblur::FlowBlurFilter;
using frei0rblur::FrameClock;
using frei0rblur::FrameStep;
using Outcome = FlowBlurFilter::Outcome;
using frei0rtest::Clip;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// Runs `frames` frames of the clip through a fresh instance at stamps 0, 40, 80, ... and
// returns the outputs.
std::vector<std::vector<uint8_t>> RunClip(const Clip& clip, int32_t frames, double amountParam,
                                      std::vector<Outcome>* outcomes = nullptr) {
  FlowBlurFilter filter(clip.width, clip.height);
  filter.SetParam(0, amountParam);
  std::vector<std::vector<uint8_t>> out;
  for (int32_t f = 0; f < frames; ++f) {
    std::vector<uint8_t> in = frei0rtest::Frame(clip, f);
    std::vector<uint8_t> result(in.size(), 0);
    filter.Update(40.0 * f, reinterpret_cast<const uint32_t*>(in.data()),
                  reinterpret_cast<uint32_t*>(result.data()));
    if (outcomes) outcomes->push_back(filter.LastOutcome());
    out.push_back(result);
  }
  return out;
}

// ---- Parameters

struct AmountCase {
  double sent;
  float amount;
};

class AmountMapping : public testing::TestWithParam<AmountCase> {};

TEST_P(AmountMapping, HostValueBecomesTheAmount) {
  const AmountCase& c = GetParam();
  EXPECT_EQ(frei0rblur::AmountFromParam(c.sent), c.amount) << "sent " << c.sent;
  // Through the entry points, as a host sets and reads it back.
  f0r_instance_t instance = f0r_construct(8, 8);
  ASSERT_NE(instance, nullptr);
  double sent = c.sent, back = -1.0;
  f0r_set_param_value(instance, &sent, 0);
  f0r_get_param_value(instance, &back, 0);
  EXPECT_EQ(frei0rblur::AmountFromParam(back), c.amount) << "read back " << back;
  EXPECT_GE(back, 0.0);
  EXPECT_LE(back, 1.0);
  f0r_destruct(instance);
}

// Short decimals mean round amounts; the range is limited, never refused; NaN is the default.
INSTANTIATE_TEST_SUITE_P(
    Values, AmountMapping,
    testing::Values(AmountCase{0.0, -2.0f}, AmountCase{1.0, 10.0f}, AmountCase{0.2083, 0.5f},
                    AmountCase{2.5 / 12.0, 0.5f}, AmountCase{0.25, 1.0f},
                    AmountCase{0.1667, 0.0f}, AmountCase{0.3333, 2.0f},
                    AmountCase{0.5, 4.0f}, AmountCase{0.123456, -0.519f},
                    AmountCase{-3.0, -2.0f}, AmountCase{7.0, 10.0f}, AmountCase{kInf, 10.0f},
                    AmountCase{-kInf, -2.0f}, AmountCase{kNaN, 0.5f}));

TEST(Parameters, DefaultsQualityAndInfo) {
  f0r_plugin_info_t info{};
  f0r_get_plugin_info(&info);
  EXPECT_STREQ(info.name, "flowblur");
  EXPECT_EQ(info.plugin_type, F0R_PLUGIN_TYPE_FILTER);
  EXPECT_EQ(info.color_model, F0R_COLOR_MODEL_RGBA8888);
  ASSERT_EQ(info.num_params, 2);
  f0r_param_info_t params[3] = {};
  for (int i = 0; i < 3; ++i) f0r_get_param_info(&params[i], i);  // the third is left alone
  EXPECT_STREQ(params[0].name, "amount");
  EXPECT_EQ(params[0].type, F0R_PARAM_DOUBLE);
  EXPECT_STREQ(params[1].name, "draft");
  EXPECT_EQ(params[1].type, F0R_PARAM_BOOL);
  EXPECT_EQ(params[2].name, nullptr);
  // Defaults are the Spark plug-in's: amount 0.5, Best quality; draft from 0.5 up.
  FlowBlurFilter filter(4, 4);
  EXPECT_EQ(filter.Amount(), 0.5f);
  EXPECT_FALSE(filter.Draft());
  EXPECT_EQ(frei0rblur::EstimatorMode(false), 1);
  EXPECT_EQ(frei0rblur::EstimatorMode(true), 2);
  for (double v : {1.0, 0.5, 7.0, kInf, 0.0, 0.49, -1.0, kNaN, -kInf}) {
    filter.SetParam(1, v);
    EXPECT_EQ(filter.Draft(), v >= 0.5) << v;
    EXPECT_EQ(filter.GetParam(1), v >= 0.5 ? 1.0 : 0.0);
  }
  // Indexes outside and null pointers change nothing and do not crash.
  double value = 0.9;
  f0r_set_param_value(&filter, &value, 5);
  f0r_set_param_value(&filter, &value, -1);
  f0r_set_param_value(&filter, nullptr, 0);
  f0r_get_param_value(&filter, nullptr, 0);
  f0r_set_param_value(nullptr, &value, 0);
  f0r_update(nullptr, 0.0, nullptr, nullptr);
  EXPECT_EQ(filter.Amount(), 0.5f);
}

// ---- The frame clock

struct ClockCase {
  const char* name;
  std::vector<double> stamps;
  std::vector<bool> samePixels;  // per stamp; empty: all differ
  std::vector<FrameStep> expected;
};

class Clock : public testing::TestWithParam<ClockCase> {};

TEST_P(Clock, StepsDecideTheNeighbour) {
  const ClockCase& c = GetParam();
  FrameClock clock;
  for (size_t i = 0; i < c.stamps.size(); ++i) {
    const bool same = !c.samePixels.empty() && c.samePixels[i];
    const FrameStep step =
        clock.Classify(c.stamps[i], clock.SameStampAsPrevious(c.stamps[i]) && same);
    EXPECT_EQ(static_cast<int>(step), static_cast<int>(c.expected[i]))
        << c.name << ", frame " << i << " at " << c.stamps[i];
    if (step != FrameStep::kRepeat) clock.Remember(c.stamps[i], step);
  }
}

constexpr FrameStep N = FrameStep::kNoNeighbour;
constexpr FrameStep S = FrameStep::kSuccessor;
constexpr FrameStep R = FrameStep::kRepeat;
constexpr double kGarbage = -3.6893488147419103e20;  // what ffmpeg sends for re-aligned rows

INSTANTIATE_TEST_SUITE_P(
    Hosts, Clock,
    testing::Values(
        ClockCase{"milliseconds", {0, 40, 80, 120}, {}, {N, S, S, S}},
        ClockCase{"seconds", {0, 0.04, 0.08, 0.12}, {}, {N, S, S, S}},
        ClockCase{"afterSeek", {0, 33.367, 66.733, 100.1}, {}, {N, S, S, S}},
        ClockCase{"oneStampForEveryFrame",
                  {kGarbage, kGarbage, kGarbage, kGarbage}, {}, {N, S, S, S}},
        ClockCase{"lastFrameRepeated", {0, 1, 2, 2, 2}, {false, false, false, true, true},
                  {N, S, S, R, R}},
        ClockCase{"stepBack", {0, 40, 80, 40, 80}, {}, {N, S, S, N, S}},
        ClockCase{"seekForward", {0, 40, 80, 2000, 2040, 2120}, {}, {N, S, S, N, S, N}},
        ClockCase{"framesDealtToAnotherInstance", {0, 2, 3, 5, 6}, {}, {N, S, S, N, S}},
        ClockCase{"notFinite", {0, kNaN, 40, 80, kInf, 120, 160}, {}, {N, N, N, S, N, N, S}},
        ClockCase{"stampsTooFarApartToSubtract", {-1e308, 1e308, 1e308 + 1e292}, {},
                  {N, N, S}}),
    [](const testing::TestParamInfo<ClockCase>& info) { return std::string(info.param.name); });

// ---- Frames

TEST(Frames, FirstPassesLaterAreBlurredAlphaIsKeptAmountZeroCopies) {
  const Clip clip{64, 48};
  std::vector<Outcome> outcomes;
  const auto out = RunClip(clip, 4, 0.25, &outcomes);
  EXPECT_EQ(out[0], frei0rtest::Frame(clip, 0));
  EXPECT_EQ(outcomes[0], Outcome::kPassedThrough);
  for (int32_t f = 1; f < 4; ++f) {
    const auto in = frei0rtest::Frame(clip, f);
    EXPECT_EQ(outcomes[f], Outcome::kBlurred) << f;
    // The square's moving edges change; alpha is the input's everywhere.
    EXPECT_GT(frei0rtest::Compare(out[f], in, clip, 0, clip.width, 0, clip.height).largest, 40)
        << f;
    for (size_t i = 3; i < in.size(); i += 4) ASSERT_EQ(out[f][i], in[i]) << f << " at " << i;
  }
  // 0.1667 maps to amount 0: the render copies its source, so every frame is the input.
  outcomes.clear();
  const auto still = RunClip(clip, 3, 0.1667, &outcomes);
  for (int32_t f = 0; f < 3; ++f) EXPECT_EQ(still[f], frei0rtest::Frame(clip, f)) << f;
  EXPECT_EQ(outcomes[2], Outcome::kBlurred);
}

TEST(Frames, RepeatGivesThePreviousResultInPlaceGivesTheSame) {
  const Clip clip{48, 40};
  const auto expected = RunClip(clip, 3, 0.2083);
  FlowBlurFilter filter(clip.width, clip.height);
  for (int32_t f = 0; f < 3; ++f) {
    std::vector<uint8_t> frame = frei0rtest::Frame(clip, f);
    uint32_t* pixels = reinterpret_cast<uint32_t*>(frame.data());
    filter.Update(f * 0.04, pixels, pixels);  // in place, stamps in seconds
    EXPECT_EQ(frame, expected[f]) << f;
  }
  std::vector<uint8_t> again = frei0rtest::Frame(clip, 2), out(again.size());
  // Through the two-input entry point, which reads the first input.
  f0r_update2(&filter, 0.08, reinterpret_cast<const uint32_t*>(again.data()), nullptr, nullptr,
              reinterpret_cast<uint32_t*>(out.data()));
  EXPECT_EQ(filter.LastOutcome(), Outcome::kRepeated);
  EXPECT_EQ(out, expected[2]);
}

TEST(Frames, SameBytesForOneTwoThreeAndEightProcessors) {
  const Clip clip{97, 70};  // rows for several workers, a width that is not a multiple of 8
  std::vector<std::vector<uint8_t>> reference;
  for (int32_t processors : {1, 2, 3, 8}) {
    frei0rblur::SetProcessors(processors);
    EXPECT_EQ(frei0rblur::Processors(), processors);
    const auto out = RunClip(clip, 3, 0.3);
    if (reference.empty()) reference = out;
    EXPECT_EQ(out, reference) << processors << " processors";
  }
  frei0rblur::SetProcessors(0);
}

// ---- Bad input: never a crash, and whatever cannot be processed passes through

class OddSizes : public testing::TestWithParam<std::pair<uint32_t, uint32_t>> {};

TEST_P(OddSizes, NeverCrashAndRefusedFramesPassThrough) {
  const uint32_t w = GetParam().first, h = GetParam().second;
  const Clip clip{static_cast<int32_t>(w), static_cast<int32_t>(h), 1};
  FlowBlurFilter filter(w, h);
  filter.SetParam(0, 1.0);
  for (int32_t f = 0; f < 3; ++f) {
    const auto in = frei0rtest::Frame(clip, f);
    std::vector<uint8_t> out(in.size(), 7);
    filter.Update(f, reinterpret_cast<const uint32_t*>(in.data()),
                  reinterpret_cast<uint32_t*>(out.data()));
    if (filter.LastOutcome() == Outcome::kPassedThrough) {
      EXPECT_EQ(out, in) << f;
    }
    // One row or one column is refused by the library.
    if (w < 2 || h < 2) {
      EXPECT_EQ(filter.LastOutcome(), Outcome::kPassedThrough) << f;
    }
    for (size_t i = 3; i < in.size(); i += 4) ASSERT_EQ(out[i], in[i]);
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, OddSizes,
                         testing::Values(std::make_pair(1u, 1u), std::make_pair(2u, 2u),
                                         std::make_pair(2u, 9u), std::make_pair(9u, 2u),
                                         std::make_pair(3u, 1u), std::make_pair(1u, 3u),
                                         std::make_pair(13u, 11u), std::make_pair(322u, 18u)));

void* Refuse(size_t) { return nullptr; }
void* RefuseLibrary(void*, uint64_t) { return nullptr; }
void FreeLibrary(void*, void* block) { std::free(block); }

// Memory refused to the filter (frames 0, 1) or to the library (frame 3): the frame passes
// through. No neighbour is kept while the filter's memory is refused, but the frame whose
// library work failed is still the next one's neighbour.
TEST(BadInput, RefusedMemoryEmptyFramesAndNullPointersPassThrough) {
  const Clip clip{64, 48};
  FlowBlurFilter filter(clip.width, clip.height);
  filter.SetAllocator(Refuse);
  std::vector<Outcome> outcomes;
  for (int32_t f = 0; f < 6; ++f) {
    if (f == 2) filter.SetAllocator(nullptr);
    NuvMemSetHooks(nullptr, f == 4 ? RefuseLibrary : nullptr, f == 4 ? FreeLibrary : nullptr);
    const auto in = frei0rtest::Frame(clip, f);
    std::vector<uint8_t> out(in.size());
    filter.Update(f, reinterpret_cast<const uint32_t*>(in.data()),
                  reinterpret_cast<uint32_t*>(out.data()));
    outcomes.push_back(filter.LastOutcome());
    EXPECT_EQ(out == in, filter.LastOutcome() == Outcome::kPassedThrough) << f;
  }
  const Outcome pass = Outcome::kPassedThrough, blur = Outcome::kBlurred;
  EXPECT_EQ(outcomes, (std::vector<Outcome>{pass, pass, pass, blur, pass, blur}));
  // Empty frames and null pointers.
  FlowBlurFilter empty(0, 0);
  uint32_t pixel = 0x11223344u, out = 0;
  empty.Update(0.0, &pixel, &out);
  EXPECT_EQ(out, 0u);
  FlowBlurFilter one(1, 1);
  one.Update(0.0, nullptr, &out);
  one.Update(0.0, &pixel, nullptr);
  EXPECT_EQ(out, 0u);
}

// ---- Several instances at once, as a host that renders on several threads runs them

TEST(Threads, InstancesOnSeveralThreadsGiveTheirSerialResults) {
  const Clip clips[] = {{64, 48}, {50, 40}, {97, 33}, {2, 2}, {64, 48}};
  const double amounts[] = {0.25, 0.1, 0.6, 0.3, 0.2083};
  constexpr int32_t kFrames = 4;
  std::vector<std::vector<std::vector<uint8_t>>> serial, parallel(5);
  for (int i = 0; i < 5; ++i) serial.push_back(RunClip(clips[i], kFrames, amounts[i]));
  std::vector<std::thread> threads;
  for (int i = 0; i < 5; ++i)
    threads.emplace_back([&, i] { parallel[i] = RunClip(clips[i], kFrames, amounts[i]); });
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(parallel[i], serial[i]) << "instance " << i;
}

}  // namespace
