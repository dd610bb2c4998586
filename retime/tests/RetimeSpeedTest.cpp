// A retimer may show three-channel frames while it estimates on four (the luma of four
// channels is its own rule): the made R, G, B are then the bits of the four-channel render,
// for every worker count. Only the single path takes such motion frames.
#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <vector>

#include "retime/tests/ChronarTestSupport.h"

using chronartest::MemoryChronar;
using chronartest::Owned;

namespace {

constexpr int32_t kW = 96, kH = 64;

// Shows three-channel copies of its frames; estimates on the four-channel frames.
class ThreeShown : public MemoryChronar {
 public:
  std::map<int32_t, Owned> shown;
  int32_t GetFrame(NuvImage** frame, int32_t n) override {
    *frame = nullptr;
    auto it = shown.find(n);
    if (it == shown.end()) return 5;
    views_.push_back(std::make_unique<View>(it->second.get()));
    *frame = &views_.back()->view;
    return 0;
  }
  void ReleaseFrame(NuvImage* frame) override {
    for (size_t k = 0; k < views_.size(); ++k)
      if (&views_[k]->view == frame) {
        views_.erase(views_.begin() + static_cast<std::ptrdiff_t>(k));
        return;
      }
    MemoryChronar::ReleaseFrame(frame);
  }

 private:
  struct View {
    NuvImageInternal wrapper;
    NuvImage view;
    explicit View(PLImage* image) : wrapper(image) { view.Attach(&wrapper); }
  };
  std::vector<std::unique_ptr<View>> views_;
};

// R, G, B of every pixel.
std::vector<float> Colour(const PLImage* image) {
  std::vector<float> values;
  for (int32_t y = 0; y < image->height; ++y)
    for (int32_t x = 0; x < image->width; ++x)
      for (int32_t c = 0; c < 3; ++c) values.push_back(pltest::Get(image, x, y, c));
  return values;
}

struct Case {
  const char* name;
  int64_t interpolation;
  int32_t warpStyle;
  int32_t dataType;
};

class ThreeShownTest : public ::testing::TestWithParam<Case> {};

TEST_P(ThreeShownTest, SameColourAsFourChannels) {
  const Case& k = GetParam();
  const std::vector<float> times = {0.25f, 0.5f, 1.0f, 1.75f, 2.5f};
  MemoryChronar four;
  ThreeShown three;
  for (MemoryChronar* clip : {&four, static_cast<MemoryChronar*>(&three)}) {
    chronartest::AddMovingFrames(clip, 4, kW, kH, 4, k.dataType, 3.5f, -1.5f);
    clip->interpolation = k.interpolation;
    clip->warpStyle = k.warpStyle;
    clip->stableFrames = 1;
  }
  for (auto& [n, frame] : three.frames) {
    three.shown[n] = chronartest::NewOwned(kW, kH, 3, k.dataType);
    for (int32_t y = 0; y < kH; ++y)
      for (int32_t x = 0; x < kW; ++x)
        for (int32_t c = 0; c < 3; ++c)
          pltest::Set(three.shown[n].get(), x, y, c, pltest::Get(frame.get(), x, y, c));
  }
  std::vector<std::vector<float>> expected;
  for (float t : times) {
    chronartest::Output out(kW, kH, 4, k.dataType);
    ASSERT_EQ(four.RenderAtTime(&out.view, t, 4, 1, nullptr), 0) << t;
    expected.push_back(Colour(out.get()));
  }
  pltest::ExpectSameForAllWorkers([&] {
    std::vector<unsigned char> bytes;
    for (size_t r = 0; r < times.size(); ++r) {
      chronartest::Output out(kW, kH, 3, k.dataType);
      EXPECT_EQ(three.RenderAtTime(&out.view, times[r], 4, 1, nullptr), 0) << times[r];
      EXPECT_EQ(Colour(out.get()), expected[r]) << "time " << times[r];
      std::vector<unsigned char> b = pltest::PixelBytes(out.get());
      bytes.insert(bytes.end(), b.begin(), b.end());
    }
    return bytes;
  });
  EXPECT_EQ(three.Outstanding(), 0);  // every motion frame given back
  EXPECT_GT(three.internal->flowRuns, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, ThreeShownTest,
    ::testing::Values(Case{"MixGatherFilled", 1, 1, PLUChar},
                      Case{"MixGatherPlain", 1, 0, PLUShort},
                      Case{"NearestFilled", 0, 1, PLFloat}),
    [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

// The plain cross-fade (no masks, no agreement) against the literal rule, at the shares
// that copy a row and one between, on every type, 1 to 4 channels and each row layout.
TEST(PlainMix, LiteralRuleEveryTypeChannelsAndLayout) {
  for (int32_t type : {PLUChar, PLUShort, PLFloat})
    for (int32_t channels = 1; channels <= 4; ++channels)
      for (pltest::Layout layout : pltest::kLayouts)
        for (float f : {0.0f, 0.3f, 1.0f}) {
          auto a = pltest::MakeImage(7, 5, channels, type, layout);
          auto b = pltest::MakeImage(7, 5, channels, type, pltest::kPadded);
          auto d = pltest::MakeImage(7, 5, channels, type, layout);
          pltest::FillRandom(a.get(), 11);
          pltest::FillRandom(b.get(), 12);
          ASSERT_EQ(PLRetimeMix(d.get(), a.get(), b.get(), f, nullptr, nullptr, nullptr, nullptr), 1);
          double worst = 0.0;
          for (int32_t y = 0; y < 5; ++y)
            for (int32_t x = 0; x < 7; ++x)
              for (int32_t c = 0; c < channels; ++c) {
                const float va = static_cast<float>(pltest::Get(a.get(), x, y, c));
                const float vb = static_cast<float>(pltest::Get(b.get(), x, y, c));
                float v = va + (vb - va) * f;
                if (type != PLFloat) {
                  const float top = type == PLUChar ? 255.0f : 65535.0f;
                  v = std::floor(std::min(std::max(v + 0.5f, 0.0f), top));
                }
                worst = std::max(worst, std::fabs(pltest::Get(d.get(), x, y, c) - v));
              }
          EXPECT_EQ(worst, 0.0) << "type " << type << ", " << channels << " channels, "
                                << pltest::LayoutName(layout) << ", share " << f;
        }
}

// Vector steps read motion frames as pictures: there a four-channel motion frame for a
// three-channel output is still refused.
TEST(ThreeShownRefusal, VectorStepWantsMatchingMotionFrames) {
  for (int32_t channels : {4, 3}) {
    MemoryChronar clip;
    chronartest::AddMovingFrames(&clip, 3, kW, kH, channels, PLUChar, 2.0f);
    chronartest::Output out(kW, kH, 3, PLUChar);
    EXPECT_EQ(clip.RenderVectors(&out.view, 1, 2, 0, 1.0f, 4, 4, 0, nullptr, nullptr, nullptr),
              channels == 4 ? PLErrParameter : 0);
    EXPECT_EQ(clip.Outstanding(), 0);
  }
}

}  // namespace
