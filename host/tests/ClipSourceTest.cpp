// flowblur: frames delivered from the host simulator's clips, stored ones and ones whose
// frames it fetches from a source when they are asked for.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "host/SparkHost.h"

namespace sh = sparkhost;

namespace {

// Frame f of a clip as its source holds it: every sample names the frame and its place,
// and the row padding holds a byte the host must never copy.
std::vector<uint8_t> SourceFrame(const sh::FrameLayout& layout, int32_t f) {
  std::vector<uint8_t> bytes(static_cast<size_t>(sh::FrameBytes(layout)), 0xAB);
  const uint32_t mask = sh::BytesPerPixel(layout.formatCode) == 3 ? 0xFF : 0xFFFF;
  for (int32_t y = 0; y < layout.height; ++y)
    for (int32_t x = 0; x < layout.width; ++x)
      for (int32_t c = 0; c < 3; ++c)
        sh::SetSample(bytes.data(), layout, x, y, c,
                      static_cast<uint32_t>(f * 131 + y * 17 + x * 5 + c + 1) & mask);
  return bytes;
}

// Whether `block` holds frame f's samples (padding not compared).
bool Holds(const uint8_t* block, const sh::FrameLayout& layout, int32_t f) {
  const std::vector<uint8_t> want = SourceFrame(layout, f);
  for (int32_t y = 0; y < layout.height; ++y)
    for (int32_t x = 0; x < layout.width; ++x)
      for (int32_t c = 0; c < 3; ++c)
        if (sh::Sample(block, layout, x, y, c) != sh::Sample(want.data(), layout, x, y, c))
          return false;
  return true;
}

// A long clip served a frame at a time: the source sees only the (clamped) frames asked for.
struct Served {
  sh::FrameLayout layout;
  std::vector<int32_t> asked = {};
  std::vector<uint8_t> current = {};
  bool fail = false;
  sh::FrameSource Source() {
    return [this](int32_t frame) -> const void* {
      asked.push_back(frame);
      if (fail) return nullptr;
      current = SourceFrame(layout, frame);
      return current.data();
    };
  }
};

// A layout, and whether its clips are served (else stored in the host).
struct ClipSourceTest : ::testing::TestWithParam<std::tuple<sh::FrameLayout, bool>> {
  void SetUp() override { sh::Reset(); }
  void TearDown() override { sh::Reset(); }
};

// Frames by their true number, clamped at the ends (and logged), rows copied by the clip's
// stride with the destination's padding left alone; guarded buffers take them intact; a
// source that cannot deliver copies nothing.
TEST_P(ClipSourceTest, FramesByTheirTrueNumberClampedAtTheEnds) {
  const bool served = std::get<1>(GetParam());
  const int32_t frames = served ? 100000 : 9;  // nothing of a served clip is held by the host
  Served front{std::get<0>(GetParam())}, back{std::get<0>(GetParam())};
  sh::SetGuardedBuffers(true);
  if (served) {
    sh::SetClipSource(0, front.layout, frames, front.Source());
    sh::SetClipSource(1, back.layout, frames, back.Source());
  } else {
    sh::SetClip(0, front.layout, frames);
    sh::SetClip(1, back.layout, frames);
    for (int32_t f = 0; f < frames; ++f)
      for (int32_t clip : {0, 1}) sh::SetClipFrame(clip, f, SourceFrame(front.layout, f).data());
  }
  EXPECT_EQ(sh::ClipFrames(0), frames);
  std::vector<uint8_t> pixels(static_cast<size_t>(sh::BufferCapacity(sh::kFrontBuffer)), 0x11);
  for (auto [asked, delivered] : {std::pair<int32_t, int32_t>{frames - 4, frames - 4}, {0, 0},
                                  {-3, 0}, {frames + 5, frames - 1}}) {
    front.asked.clear();
    EXPECT_EQ(sparkGetFrame(0, asked, pixels.data()), 1);
    EXPECT_EQ(front.asked, served ? std::vector<int32_t>{delivered} : std::vector<int32_t>{});
    EXPECT_TRUE(Holds(pixels.data(), front.layout, delivered)) << asked;
    EXPECT_EQ(sh::GetFrameCalls().back().frame, asked);
    EXPECT_EQ(sh::GetFrameCalls().back().delivered, delivered);
  }
  const int64_t row = sh::RowBytes(front.layout);
  const int64_t used = int64_t{front.layout.width} * sh::BytesPerPixel(front.layout.formatCode);
  for (int64_t y = 0; y < front.layout.height; ++y)
    for (int64_t x = used; x < row; ++x) ASSERT_EQ(pixels[static_cast<size_t>(y * row + x)], 0x11);
  EXPECT_EQ(sh::HostLog().size(), 2u);  // the in-range calls write no line
  // The host's own step loads both clips.
  const int32_t n = frames - 2;
  EXPECT_EQ(sh::BeginFrame(n).FrameNo, n);
  EXPECT_EQ(back.asked, served ? std::vector<int32_t>{n} : std::vector<int32_t>{});
  EXPECT_TRUE(Holds(sh::BufferPixels(sh::kFrontBuffer), front.layout, n));
  EXPECT_TRUE(Holds(sh::BufferPixels(sh::kBackBuffer), back.layout, n));
  EXPECT_EQ(sparkGetFrame(0, 7, sh::BufferPixels(sh::kResultBuffer)), 1);
  EXPECT_TRUE(Holds(sh::BufferPixels(sh::kResultBuffer), front.layout, 7));
  EXPECT_TRUE(sh::GuardDamage(0).empty());
  if (!served) return;
  front.fail = true;
  std::memset(pixels.data(), 0x22, pixels.size());
  EXPECT_EQ(sparkGetFrame(0, 2, pixels.data()), 0);
  EXPECT_EQ(sh::GetFrameCalls().back().delivered, -1);
  for (uint8_t b : pixels) ASSERT_EQ(b, 0x22);
  sh::BeginFrame(3);
  EXPECT_TRUE(Holds(sh::BufferPixels(sh::kFrontBuffer), front.layout, n));
  ASSERT_EQ(sh::HostLog().size(), 4u);
  EXPECT_NE(sh::HostLog()[2].find("did not deliver frame 2"), std::string::npos);
  EXPECT_NE(sh::HostLog()[3].find("did not deliver frame 3"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Layouts, ClipSourceTest,
                         ::testing::Combine(::testing::Values(sh::FrameLayout{7, 5, 24, 0},
                                                              sh::FrameLayout{5, 4, 25, 5 * 3 + 7},
                                                              sh::FrameLayout{3, 4, 48, 3 * 6 + 2},
                                                              sh::FrameLayout{7, 5, 49, 7 * 6 + 10},
                                                              sh::FrameLayout{5, 4, 64, 5 * 6 + 7}),
                                            ::testing::Bool()));

TEST(ClipSource, HoldsNoFramesAndGivesWayToAStoredClip) {
  sh::Reset();
  EXPECT_TRUE(sh::GuardDamage(0).empty());  // nothing to look at without guards
  sh::SetGuardedBuffers(true);
  const sh::FrameLayout layout{4, 3, 24, 0};
  EXPECT_THROW(sh::SetClipSource(0, layout, 3, nullptr), std::invalid_argument);
  EXPECT_THROW(sh::SetClipSource(2, layout, 3, [](int32_t) { return nullptr; }),
               std::invalid_argument);
  sh::SetClipSource(0, layout, 3, [](int32_t) -> const void* { return nullptr; });
  EXPECT_THROW(sh::ClipFrame(0, 0), std::invalid_argument);
  std::vector<uint8_t> bytes(static_cast<size_t>(sh::FrameBytes(layout)), 9);
  EXPECT_THROW(sh::SetClipFrame(0, 0, bytes.data()), std::invalid_argument);
  sh::SetClip(0, layout, 2);
  sh::SetClipFrame(0, 1, bytes.data());
  sh::BeginFrame(1);  // the back clip has no frames (nor a buffer): only the front is loaded
  const uint8_t* front = sh::BufferPixels(sh::kFrontBuffer);
  EXPECT_EQ(std::vector<uint8_t>(front, front + bytes.size()), bytes);
  EXPECT_TRUE(sh::GuardDamage(0).empty());
  sh::Reset();
}

}  // namespace
