// flowblur: tests of the motion-blur renderer against a slow scalar reference and fixed cases.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "blur/PLBlurWide.h"
#include "blur/blur.h"
#include "image/PLDispatch.h"
#include "tests/support/PLTestImages.h"

namespace {

using pltest::Get;
using pltest::MakeImage;
using pltest::Sample;
using pltest::Set;
using pltest::TestImage;

TestImage ConstantFlow(int32_t w, int32_t h, float u, float v) {
  TestImage flow = MakeImage(w, h, 2, PLFloat);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) Set(flow.get(), x, y, 0, u), Set(flow.get(), x, y, 1, v);
  return flow;
}

// Flows that reach every branch of a lane: still, sub-pixel around both copy thresholds,
// long (walks that leave the image), huge (its square overflows), infinite and NaN vectors.
void FillRandomFlow(PLImage* flow, std::mt19937& rng, bool specials = true) {
  std::uniform_real_distribution<float> pick(0.0f, 1.0f), big(-40.0f, 40.0f),
      small(-0.004f, 0.004f), nearOne(-2.5f, 2.5f);
  const float kSpecials[] = {std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN(), 1.0e30f, -0.0f};
  for (int32_t y = 0; y < flow->height; ++y)
    for (int32_t x = 0; x < flow->width; ++x)
      for (int32_t c = 0; c < 2; ++c) {
        const float p = pick(rng);
        float v = p < 0.1f ? 0.0f : p < 0.25f ? small(rng) : p < 0.5f ? nearOne(rng) : big(rng);
        if (specials && p > 0.985f) v = kSpecials[static_cast<int32_t>(rng() % 5)];
        Set(flow, x, y, c, v);
      }
}

// Views on the stack over test images, as PLMotionBlurRect makes them.
struct Views {
  NuvImageInternal srcWrap, dstWrap, flowWrap;
  NuvImage src, dst, flow;
  Views(PLImage* d, const PLImage* s, const PLImage* f) : srcWrap(s), dstWrap(d), flowWrap(f) {
    src.Attach(&srcWrap);
    dst.Attach(&dstWrap);
    flow.Attach(&flowWrap);
  }
};

// One member of the renderer on the given row loop, on the calling thread.
void RenderOnPath(PLBlurPath path, bool countOutside, bool bilinear, PLImage* dst,
                  const PLImage* src, const PLImage* flow, float amount, int32_t x0, int32_t x1,
                  int32_t y0, int32_t y1) {
  Views v(dst, src, flow);
  NuvIdleAndProgressClass progress(nullptr);
  PLDispatch(src->dataType, src->channels, [&](auto tag) {
    using Tag = decltype(tag);
    BlurRowsOnPath<typename Tag::Type, Tag::Channels>(path, countOutside, x0, x1, y0, y1, &v.dst,
                                                      &v.src, &v.flow, bilinear ? 1 : 0,
                                                      &progress, amount);
  });
}

// The renderer written out plainly, one pixel at a time, one lane at a time.
void ReferenceBlur(PLImage* dst, const PLImage* src, const PLImage* flow, bool bilinear,
                   bool countOutside, float amount, int32_t x0, int32_t x1, int32_t y0,
                   int32_t y1) {
  const PLImage& s = *src;
  const PLImage& f = *flow;
  const int32_t channels = s.channels;
  const float sx = static_cast<float>(f.lastColumn) / static_cast<float>(s.lastColumn);
  const float sy = static_cast<float>(f.lastRow) / static_cast<float>(s.lastRow);
  const float gx = (0.5f / sx) * amount;
  const float gy = (0.5f / sy) * amount;
  for (int32_t yi = y0; yi <= y1; ++yi) {
    for (int32_t xi = x0; xi <= x1; ++xi) {
      const float x = static_cast<float>(xi), y = static_cast<float>(yi);
      // Flow at (sx x, sy y).
      const float uv[2] = {pltest::Bilinear(flow, sx * x, y * sy, 0),
                           pltest::Bilinear(flow, sx * x, y * sy, 1)};
      const float hx = gx * uv[0], hy = gy * uv[1];
      const float m = hx * hx + hy * hy;
      if (m < (bilinear ? 1e-6f : 1.0f)) {
        std::memcpy(dst->PixelAddress(xi, yi), s.PixelAddress(xi, yi), s.bytesPerPixel);
        continue;
      }
      int32_t n = PLTruncToInt32(std::sqrt(m) + 1.0f);
      float dx = hx, dy = hy;
      if (n < 2)
        n = 2;
      else
        dx = hx / static_cast<float>(n - 1), dy = hy / static_cast<float>(n - 1);

      float lanes[4] = {0.0f, 0.0f, 0.0f, 0.0f};
      uint32_t counter = 0;
      // Adds the sample at (px, py) when inside; false when outside.
      auto sample = [&](float px, float py) {
        if (bilinear) {
          if (!(0.0f <= px && px < static_cast<float>(s.width) && 0.0f <= py &&
                py < static_cast<float>(s.height)))
            return false;
          for (int32_t c = 0; c < channels; ++c)
            lanes[c] = lanes[c] + pltest::Bilinear(src, px, py, c);
        } else {
          int32_t jx = PLTruncToInt32(px), jy = PLTruncToInt32(py);
          if (jx < 0 || jx >= s.width || jy < 0 || jy >= s.height) return false;
          for (int32_t c = 0; c < channels; ++c) lanes[c] = lanes[c] + Sample(src, jx, jy, c);
        }
        return true;
      };
      auto walk = [&](float px, float py, float ddx, float ddy, int32_t count) {
        for (int32_t i = 0; i < count; ++i, px += ddx, py += ddy) {
          if (!sample(px, py) && !countOutside) break;
          ++counter;
        }
      };
      if (bilinear) {
        walk(x, y, dx, dy, n);
        walk(x - dx, y - dy, -dx, -dy, n - 1);
      } else {
        walk(x + 0.5f, y + 0.5f, dx, dy, n);
        walk((x + (-dx)) + 0.5f, (y + (-dy)) + 0.5f, -dx, -dy, n - 1);
      }
      const float inv = 1.0f / static_cast<float>(counter);
      for (int32_t c = 0; c < channels; ++c)
        Set(dst, xi, yi, c, pltest::ClampedStore(s.dataType, lanes[c] * inv));
    }
  }
}

class BlurReference : public ::testing::TestWithParam<std::tuple<int32_t, int32_t>> {};

// Every member, both sampling paths, both border rules, through the entry (for 1, 2, 3 and 8
// workers, and once per row) and on both row loops (plain, and wide where the processor has
// AVX2), on random flows of several sizes (images of two pixels a side, whose last bytes sit
// at the end of the buffer, and widths that leave every count of lanes in a row's last group),
// mixed row orders, padded rows and sub-rectangles; 4-channel Float sources carry a NaN
// payload, an infinity and -0.0 in separate lanes: bit for bit against the reference.
TEST_P(BlurReference, EntryAndBothRowLoopsMatchTheScalarReferenceBitForBit) {
  const auto [type, channels] = GetParam();
  pltest::WorkerGuard guard;
  std::mt19937 rng(1234 + type * 10 + channels);
  // 157 rows: nine bands of 16, the last with 13 rows more. 2061 columns: the wide loop
  // takes them in two chunks, the second with a part-filled group of eight.
  const int32_t sizes[][4] = {{2, 2, 2, 2},    {3, 2, 2, 2},     {9, 5, 4, 3},
                              {17, 11, 9, 6},  {37, 29, 37, 29}, {37, 29, 19, 15},
                              {37, 29, 50, 41}, {61, 30, 7, 44}, {61, 157, 31, 79},
                              {2061, 5, 1031, 3}};
  int32_t trial = 0;
  for (const auto& sz : sizes)
    for (int32_t bilinear = 0; bilinear < 2; ++bilinear)
      for (int32_t countOutside = 0; countOutside < 2; ++countOutside, ++trial) {
        const int32_t w = sz[0], h = sz[1];
        // The workers' case: two of four combinations, three channels of each type.
        if (h > 100 && (bilinear == countOutside || channels != 3)) continue;
        TestImage src = MakeImage(w, h, channels, type, trial & 1, (trial % 3) * 4 + 1);
        TestImage flow = MakeImage(sz[2], sz[3], 2, PLFloat, (trial >> 1) & 1, trial % 2 ? 12 : 0);
        TestImage want = MakeImage(w, h, channels, type);
        pltest::FillRandom(src.get(), rng());
        if (type == PLFloat && channels == 4) {
          const uint32_t nanBits = 0x7FC0BEEFu;
          std::memcpy(src->PixelAddress(w / 2, h / 2), &nanBits, 4);
          Set(src.get(), 0, h - 1, channels - 1, std::numeric_limits<float>::infinity());
          Set(src.get(), w - 1, 0, 0, -0.0);
        }
        FillRandomFlow(flow.get(), rng);
        const float amount = trial % 4 == 3 ? -1.3f : 0.8f + static_cast<float>(trial % 3) * 0.45f;
        int32_t x0 = 0, x1 = w - 1, y0 = 0, y1 = h - 1;  // a sub-rectangle on every third
        if (trial % 3 == 2 && w > 8) x0 = 1, x1 = w - 3, y0 = 1, y1 = h - 2;
        TestImage first = MakeImage(w, h, channels, type, (trial >> 2) & 1, trial % 5);
        pltest::CopyPixels(want.get(), first.get());
        ReferenceBlur(want.get(), src.get(), flow.get(), bilinear, countOutside, amount, x0, x1,
                      y0, y1);
        auto entry = [&](PLImage* got, int32_t firstRow, int32_t lastRow) {
          PLMotionBlurRect(got, src.get(), flow.get(), bilinear ? 1 : 0, nullptr,
                           static_cast<uint8_t>(countOutside), x0, x1, firstRow, lastRow, amount);
        };
        // Runs 0 to 3: the entry (on the loop it chooses) with 1, 2, 3 and 8 workers, which take
        // bands of 16 rows in turn; 4: the entry once per row; 5: the plain loop; 6: the wide one.
        for (int32_t run = 0; run < 7; ++run) {
          if (run == 6 && !PLBlurWideAvailable()) continue;
          if (run >= 1 && run <= 3 && h < 32) continue;  // fewer than two bands: one worker
          TestImage got = MakeImage(w, h, channels, type, (trial >> 2) & 1, trial % 5);
          PLTestUseWorkers(run < 4 ? kPLTestWorkerCounts[run] : 1);
          if (run < 4) entry(got.get(), y0, y1);
          for (int32_t y = y0; y <= y1 && run == 4; ++y) entry(got.get(), y, y);
          PLTestUseWorkers(1);
          if (run > 4)
            RenderOnPath(run == 5 ? PLBlurPath::kPlain : PLBlurPath::kWide, countOutside,
                         bilinear, got.get(), src.get(), flow.get(), amount, x0, x1, y0, y1);
          EXPECT_TRUE(pltest::SamePixels(want.get(), got.get()))
              << w << "x" << h << " flow " << sz[2] << "x" << sz[3] << " bilinear " << bilinear
              << " countOutside " << countOutside << " run " << run;
          EXPECT_TRUE(pltest::PaddingUntouched(got));
        }
      }
}

INSTANTIATE_TEST_SUITE_P(AllLayouts, BlurReference,
                         ::testing::Combine(::testing::Values(PLUChar, PLUShort, PLFloat),
                                            ::testing::Values(1, 2, 3, 4)));

// Hand-worked walks on a constant Float source of 1.0 with the count rule: the result is
// inside * (1 / total). The random flows of the reference above never end a walk exactly on
// a border, nor use quality 2: those are pinned here.
struct Walk {
  int32_t quality, x;
  float halfLength;
  int32_t inside, total, width;
};

TEST(MotionBlur, HandWorkedWalksCountTheSamplesInside) {
  const Walk walks[] = {
      {1, 10, -10.0f, 1, 1, 40},   // n = 11 ends on column 0, which is inside
      {1, 30, 10.0f, 20, 21, 40},  // the width itself is outside
      {2, 9, -10.8f, 20, 21, 40},  // quality 2 is nearest sampling: -1.3 reads column -1
  };
  for (const Walk& k : walks) {
    TestImage src = MakeImage(k.width, 4, 1, PLFloat), dst = MakeImage(k.width, 4, 1, PLFloat);
    pltest::Fill(src.get(), 1.0);
    // Same-size flow: the half-vector is 0.5 * amount * u at amount 1.
    TestImage flow = ConstantFlow(k.width, 4, 2.0f * k.halfLength, 0.0f);
    PLMotionBlur(dst.get(), src.get(), flow.get(), k.quality, 0, nullptr, 1, 1.0f);
    EXPECT_EQ(Get(dst.get(), k.x, 1, 0),
              static_cast<float>(k.inside) * (1.0f / static_cast<float>(k.total)))
        << "quality " << k.quality << " x " << k.x << " half " << k.halfLength;
  }
}

// Vectors that are NaN, infinite or too long for a 32-bit count take n = 2 and the
// half-vector as step: only the pixel itself stays inside. Once an undefined conversion and
// a misaligned float store.
TEST(MotionBlur, AbsurdFlowsKeepOnlyThePixelWithoutUndefinedConversion) {
  TestImage src = MakeImage(12, 10, 2, PLFloat);
  pltest::FillRandom(src.get(), 3);
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (float u : {nan, inf, -inf, 1e30f, 1e19f, -6e9f}) {
    TestImage flow = ConstantFlow(6, 5, u, 0.5f);
    for (int32_t quality : {0, 1}) {
      TestImage stop = MakeImage(12, 10, 2, PLFloat), count = MakeImage(12, 10, 2, PLFloat);
      PLMotionBlur(stop.get(), src.get(), flow.get(), quality, 0, nullptr, 0, 0.5f);
      PLMotionBlur(count.get(), src.get(), flow.get(), quality, 0, nullptr, 1, 0.5f);
      // Bilinear reads of the last column or row go through the slid cell, (r - p) * 1 + p,
      // which need not give r's bits back: those pixels are left out here.
      const int32_t rows = quality == 1 ? 9 : 10, columns = quality == 1 ? 11 : 12;
      for (int32_t y = 0; y < rows; ++y)
        for (int32_t x = 0; x < columns; ++x)
          for (int32_t c = 0; c < 2; ++c) {
            const float p = Sample(src.get(), x, y, c);
            ASSERT_EQ(Sample(stop.get(), x, y, c), p * 1.0f) << u << " at " << x << "," << y;
            ASSERT_EQ(Sample(count.get(), x, y, c), p * (1.0f / 3.0f)) << u;
          }
    }
  }
}

// A caller's progress object gets no calls while the rows run: workers only poll.
class CountingProgress : public NuvIdleAndProgressClass {
 public:
  CountingProgress() : NuvIdleAndProgressClass(nullptr) {}
  void Progress(float f) override {
    ++calls;
    NuvIdleAndProgressClass::Progress(f);
  }
  int32_t calls = 0;
};

TEST(MotionBlur, CallerProgressIsNotCalledAndInterruptionIsNotRaised) {
  TestImage src = MakeImage(20, 40, 1, PLUShort), dst = MakeImage(20, 40, 1, PLUShort);
  TestImage flow = ConstantFlow(20, 40, 3.0f, 1.0f);
  CountingProgress progress;
  progress.SetInterrupted(true);  // would raise 6 if a worker reported through it
  EXPECT_NO_THROW(PLMotionBlur(dst.get(), src.get(), flow.get(), 1, 0, &progress, 0, 0.5f));
  EXPECT_EQ(progress.calls, 0);
}

// The worker itself: a set interruption word stops a non-reporting worker at its first
// row report, before any pixel; the error lands in the slot, nothing is thrown. A worker
// of one row makes no report, and a reporter returns quietly.
TEST(MotionBlur, WorkerStoresInterruptionInItsSlot) {
  TestImage src = MakeImage(16, 12, 3, PLUChar);
  pltest::FillRandom(src.get(), 11);
  TestImage flow = ConstantFlow(8, 6, 4.0f, -2.0f);
  auto run = [&](uint8_t reporter, int32_t firstRow, int32_t lastRow, TestImage& dst) {
    Views v(dst.get(), src.get(), flow.get());
    float amount = 0.5f;
    uint8_t bilinear = 1, countOutside = 0;
    int32_t errorSlot = 0, interruptWord = 1, x0 = 0, x1 = 15, y0 = 2;
    NuvIdleAndProgressClass job(nullptr);
    const NuvImage* srcPtr = &v.src;
    const NuvImage* flowPtr = &v.flow;
    NuvMPArgs args;
    auto push = [&args](auto... a) { (args.Push(a), ...); };
    push(&v.dst, srcPtr, flowPtr, &amount, &bilinear, &job, &errorSlot, &interruptWord,
         &countOutside, &x0, &x1, &y0);
    EXPECT_NO_THROW(MotionBlurRowWorker(0, reporter, firstRow, lastRow, &args));
    return errorSlot;
  };
  TestImage stopped = MakeImage(16, 12, 3, PLUChar), single = MakeImage(16, 12, 3, PLUChar),
            reported = MakeImage(16, 12, 3, PLUChar), whole = MakeImage(16, 12, 3, PLUChar);
  const std::vector<unsigned char> blank = stopped.buffer;
  EXPECT_EQ(run(0, 0, 5, stopped), PLErrInterrupted);
  EXPECT_TRUE(stopped.buffer == blank);
  EXPECT_EQ(run(0, 3, 3, single), 0);  // row y0 + 3 = 5 rendered
  EXPECT_FALSE(single.buffer == blank);
  EXPECT_EQ(run(1, 0, 5, reported), 0);
  PLMotionBlurRect(whole.get(), src.get(), flow.get(), 1, nullptr, 0, 0, 15, 2, 7, 0.5f);
  EXPECT_TRUE(whole.buffer == reported.buffer);
}

// Refusals: PLErr 5 before any pixel is written.
void ExpectRefused(PLImage* dst, const PLImage* src, const PLImage* flow, int32_t x0 = 0,
                   int32_t x1 = -2, int32_t y0 = 0, int32_t y1 = -2) {
  const std::vector<unsigned char> before = dst && dst->data ? pltest::PixelBytes(dst)
                                                             : std::vector<unsigned char>();
  try {
    if (x1 == -2)
      PLMotionBlur(dst, src, flow, 1, 0, nullptr, 0, 0.5f);
    else
      PLMotionBlurRect(dst, src, flow, 1, nullptr, 0, x0, x1, y0, y1, 0.5f);
    ADD_FAILURE() << "not refused";
  } catch (PLErr& err) {
    EXPECT_EQ(err, PLErrParameter);
  }
  EXPECT_TRUE(before.empty() || before == pltest::PixelBytes(dst)) << "destination touched";
}

TEST(MotionBlurRefusal, BadImagesAndRectangles) {
  TestImage src = MakeImage(10, 8, 3, PLUChar), dst = MakeImage(10, 8, 3, PLUChar);
  TestImage flow = ConstantFlow(5, 4, 1.0f, 1.0f);
  // Images of one row or one column, of more than four channels or another type.
  for (auto [w, h, c, type] : {std::array{10, 1, 3, int32_t{PLUChar}}, {1, 8, 3, int32_t{PLUChar}},
                               {10, 8, 5, int32_t{PLUChar}}, {10, 8, 3, int32_t{PLDouble}}}) {
    TestImage s = MakeImage(w, h, c, type), d = MakeImage(w, h, c, type);
    ExpectRefused(d.get(), s.get(), flow.get());
  }
  // Flows of one row or one column.
  TestImage flowRow = ConstantFlow(5, 1, 1, 1), flowCol = ConstantFlow(1, 4, 1, 1);
  ExpectRefused(dst.get(), src.get(), flowRow.get());
  ExpectRefused(dst.get(), src.get(), flowCol.get());
  // Mismatches, flows that are not two-channel float.
  for (auto [h, c, type] : {std::array{8, 3, int32_t{PLUShort}}, {9, 3, int32_t{PLUChar}},
                            {8, 4, int32_t{PLUChar}}}) {
    TestImage d = MakeImage(10, h, c, type);
    ExpectRefused(d.get(), src.get(), flow.get());
  }
  for (auto [c, type] : {std::pair{1, PLFloat}, {3, PLFloat}, {2, PLUChar}, {2, PLUShort}}) {
    TestImage f = MakeImage(5, 4, c, type);
    ExpectRefused(dst.get(), src.get(), f.get());
  }
  // Null and empty images, shared memory.
  ExpectRefused(nullptr, src.get(), flow.get());
  ExpectRefused(dst.get(), nullptr, flow.get());
  ExpectRefused(dst.get(), src.get(), nullptr);
  PLImage empty(nullptr, 10, 8, 3, PLUChar, 0);
  ExpectRefused(dst.get(), &empty, flow.get());
  ExpectRefused(src.get(), src.get(), flow.get());
  TestImage fdst = MakeImage(10, 8, 2, PLFloat), fsrc = MakeImage(10, 8, 2, PLFloat);
  ExpectRefused(fdst.get(), fsrc.get(), fdst.get());
  // Rectangles outside the image; an empty column range is legal and writes nothing.
  TestImage fs = MakeImage(10, 8, 1, PLFloat), fd = MakeImage(10, 8, 1, PLFloat);
  TestImage same = ConstantFlow(10, 8, 2.0f, 0.0f);
  for (auto [x0, x1, y0, y1] : {std::array{0, 9, 5, 4}, {0, 9, -1, 4}, {0, 9, 0, 8},
                                {-1, 9, 0, 7}, {0, 10, 0, 7}})
    ExpectRefused(fd.get(), fs.get(), same.get(), x0, x1, y0, y1);
  const std::vector<unsigned char> before = fd.buffer;
  EXPECT_NO_THROW(PLMotionBlurRect(fd.get(), fs.get(), same.get(), 1, nullptr, 0, 5, 4, 0, 7, 0.5f));
  EXPECT_TRUE(before == fd.buffer);
}

// Rows too far apart for 32-bit offsets were once addressed with wrapped offsets; they are
// refused now (the wrapped bytes are never touched).
TEST(MotionBlurRefusal, RowsBeyondThirtyTwoBitOffsetsAreRefused) {
  TestImage src = MakeImage(10, 8, 3, PLUChar), dst = MakeImage(10, 8, 3, PLUChar);
  TestImage flow = ConstantFlow(5, 4, 1.0f, 1.0f);
  PLImage far(src->data, 10, 8, 400000000, 3, PLUChar, 0);
  ExpectRefused(dst.get(), &far, flow.get());
}

}  // namespace
