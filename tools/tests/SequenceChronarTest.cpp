// Tests of the frame cache and of the retimer over sequences on disk.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "tools/FrameCache.h"
#include "tools/ImageFiles.h"
#include "tools/SequenceChronar.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

// ---- Frame cache ----------------------------------------------------------------------------

// A loader of a frame of `samples` floats that counts its calls.
FrameCache::Loader Loader(int32_t samples, int32_t* calls, bool ok = true) {
  return [=](Frame* f, std::string* error) {
    ++*calls;
    if (!ok) {
      *error = "unreadable";
      return false;
    }
    f->pixels.assign(static_cast<size_t>(samples), 0.25f);
    return true;
  };
}

TEST(FrameCache, KeepsRecentFramesWithinTheBudget) {
  const int64_t entry = FrameCache::BytesOf(Frame{{}, std::vector<float>(1000)});
  FrameCache cache(3 * entry);  // room for three
  int32_t calls = 0;
  std::string error;
  for (int64_t f : {0, 1, 2}) ASSERT_NE(cache.Get(f, 0, Loader(1000, &calls), &error), nullptr);
  EXPECT_EQ(cache.Bytes(), 3 * entry);
  ASSERT_NE(cache.Get(0, 0, Loader(1000, &calls), &error), nullptr);  // refresh 0
  std::shared_ptr<const Frame> kept = cache.Find(1);
  ASSERT_NE(cache.Get(3, 0, Loader(1000, &calls), &error), nullptr);  // evicts 2, the oldest
  EXPECT_EQ(calls, 4);
  EXPECT_EQ(cache.Size(), 3u);
  EXPECT_EQ(cache.Find(2), nullptr);
  EXPECT_NE(cache.Find(0), nullptr);
  // Streams are separate keys; a frame handed out outlives its eviction.
  ASSERT_NE(cache.Get(1, 1, Loader(1000, &calls), &error), nullptr);
  ASSERT_NE(cache.Get(5, 0, Loader(1000, &calls), &error), nullptr);
  EXPECT_EQ(kept->pixels.size(), 1000u);
  EXPECT_LE(cache.Bytes(), cache.Budget());
  EXPECT_EQ(cache.Loads(), 6);
  // A failed load passes its message on and keeps nothing.
  EXPECT_EQ(cache.Get(6, 0, Loader(1000, &calls, false), &error), nullptr);
  EXPECT_EQ(error, "unreadable");
  EXPECT_EQ(cache.Find(6), nullptr);
}

// ---- Retimer over files ---------------------------------------------------------------------

constexpr int32_t kW = 96, kH = 64;

// The 8-bit values of a frame read from or made for 8-bit files.
std::vector<int32_t> As8(const Frame& f) {
  std::vector<int32_t> v;
  for (float s : f.pixels) v.push_back(static_cast<int32_t>(std::lround(s * 255.0f)));
  return v;
}

SequenceChronarOptions OptionsFor(const std::string& pattern, int64_t first, int64_t last) {
  SequenceChronarOptions o;
  std::string error;
  EXPECT_TRUE(ParseSequencePattern(pattern, &o.frames, &error)) << error;
  o.first = first;
  o.last = last;
  o.dataType = PLUChar;
  return o;
}

TEST(SequenceChronar, SlowMotionReadsEachSourceFrameOnce) {
  test::TempDir dir;
  test::WriteClip(dir / "c.%04d.png", 0, 4, SampleDepth::k8, 3);
  SequenceChronarOptions o = OptionsFor(dir / "c.%04d.png", 0, 3);
  o.timeMap = [](double t) { return t / 4.0; };  // four output frames per source frame
  SequenceChronar retimer(o);
  retimer.interpolation = 1;
  std::string error;
  Frame out;
  for (int32_t t = 0; t <= 12; ++t) {
    ASSERT_TRUE(retimer.Render(t, 4, 0.35f, nullptr, &out, &error)) << t << ": " << error;
    ASSERT_EQ(out.pixels.size(), static_cast<size_t>(kW) * kH * 3);
  }
  EXPECT_EQ(retimer.Cache().Loads(), 4);
  // The last output is on source frame 3: the frame as stored comes back.
  EXPECT_EQ(As8(out), As8(test::Load(dir / "c.0003.png")));
  // Each flow pair was computed once: 3 pairs, two flows each.
  EXPECT_EQ(retimer.internal->flowRuns, 6);
}

TEST(SequenceChronar, SmallCacheReadsAgainButGivesTheSamePictures) {
  test::TempDir dir;
  test::WriteClip(dir / "c.%04d.png", 0, 3, SampleDepth::k8, 3);
  SequenceChronarOptions big = OptionsFor(dir / "c.%04d.png", 0, 2);
  SequenceChronarOptions small = big;
  small.cacheBytes = 1;
  SequenceChronar a(big), b(small);
  std::string error;
  Frame fa, fb;
  for (double t : {0.25, 0.5, 1.75}) {
    ASSERT_TRUE(a.Render(t, 4, 0.35f, nullptr, &fa, &error)) << error;
    ASSERT_TRUE(b.Render(t, 4, 0.35f, nullptr, &fb, &error)) << error;
    EXPECT_EQ(fa.pixels, fb.pixels) << t;
  }
  EXPECT_EQ(a.Cache().Loads(), 3);
  EXPECT_GT(b.Cache().Loads(), 3);
  EXPECT_EQ(b.Cache().Size(), 0u);
}

TEST(SequenceChronar, TimesOutsideTheClipAndBadFramesFailWithAMessage) {
  test::TempDir dir;
  test::WriteClip(dir / "c.%04d.png", 0, 4, SampleDepth::k8, 3);
  unlink((dir / "c.0002.png").c_str());
  test::WriteClip(dir / "c.%04d.png", 2, 1, SampleDepth::k8, 3, kW + 2, kH);  // frame 2 wider
  SequenceChronar retimer(OptionsFor(dir / "c.%04d.png", 0, 3));
  std::string error;
  Frame out;
  // Past the last frame by less than half a frame the last frame is held.
  ASSERT_TRUE(retimer.Render(3.3, 4, 0.35f, nullptr, &out, &error)) << error;
  EXPECT_FALSE(retimer.Render(3.7, 4, 0.35f, nullptr, &out, &error));
  EXPECT_NE(error.find("outside frames 0-3"), std::string::npos) << error;
  EXPECT_FALSE(retimer.Render(NAN, 4, 0.35f, nullptr, &out, &error));
  EXPECT_FALSE(retimer.Render(1.5, 4, 0.35f, nullptr, &out, &error));  // frame 2 is wider
  EXPECT_NE(error.find("not 96x64"), std::string::npos) << error;
  EXPECT_TRUE(retimer.Render(0.5, 4, 0.35f, nullptr, &out, &error)) << error;
  // A missing file, and a sequence that does not exist at all.
  unlink((dir / "c.0001.png").c_str());
  SequenceChronar gap(OptionsFor(dir / "c.%04d.png", 0, 3));
  EXPECT_FALSE(gap.Render(1.0, 4, 0.35f, nullptr, &out, &error));
  EXPECT_NE(error.find("c.0001.png"), std::string::npos) << error;
  SequenceChronar none(OptionsFor(dir / "none.%04d.png", 0, 3));
  EXPECT_FALSE(none.Render(0.0, 4, 0.35f, nullptr, &out, &error));
  EXPECT_NE(error.find("none.0000.png"), std::string::npos) << error;
  // Ten mattes are more layers than the engine has.
  SequenceChronarOptions many = OptionsFor(dir / "c.%04d.png", 0, 3);
  many.mattes.assign(10, many.frames);
  SequenceChronar tooMany(many);
  EXPECT_FALSE(tooMany.Render(0.5, 4, 0.35f, nullptr, &out, &error));
}

TEST(SequenceChronar, CutsAndMattes) {
  test::TempDir dir;
  test::WriteClip(dir / "c.%04d.png", 0, 4, SampleDepth::k8, 3);
  // A cut at frame 2: times between 1 and 2 show the nearer frame, no mix.
  SequenceChronarOptions o = OptionsFor(dir / "c.%04d.png", 0, 3);
  o.cuts = {2};
  SequenceChronar cut(o);
  cut.interpolation = 1;
  std::string error;
  Frame out;
  ASSERT_TRUE(cut.Render(1.3, 4, 0.35f, nullptr, &out, &error)) << error;
  EXPECT_EQ(As8(out), As8(test::Load(dir / "c.0001.png")));
  EXPECT_EQ(cut.internal->flowRuns, 0);
  // One matte (the frames themselves, first channel): a layered render runs and reads the
  // matte files through the cache as their own stream.
  SequenceChronarOptions m = OptionsFor(dir / "c.%04d.png", 0, 3);
  m.mattes.push_back(m.frames);
  SequenceChronar layered(m);
  layered.interpolation = 1;
  ASSERT_TRUE(layered.Render(0.5, 4, 0.35f, nullptr, &out, &error)) << error;
  EXPECT_EQ(layered.Cache().Loads(), 4);  // frames 0, 1 and their mattes
}

}  // namespace
}  // namespace flowblur
