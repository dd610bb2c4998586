// flowblur tests: blend edge values per type, fields, both 4-channel paths, refusals.
#include <gtest/gtest.h>

#include <algorithm>

#include "filter/PLBlend.h"
#include "tests/support/PLTestImages.h"
#include "tests/support/PLTestWorkers.h"

using namespace pltest;

namespace {

// A one-pixel-high 3-channel image pair holding the given destination and source samples.
struct Pair {
  TestImage d, s;
};
Pair OnePixel(int32_t type, double dv, double sv, int32_t channels = 3) {
  Pair p{MakeImage(1, 1, channels, type), MakeImage(1, 1, channels, type)};
  Fill(p.d.get(), dv);
  Fill(p.s.get(), sv);
  return p;
}

// The 3-channel rule of each type, as PLBlend.h states it.
double Ref3(int32_t type, float dv, float sv, float t) {
  if (type == PLFloat) return sv + (dv - sv) * t;  // unlimited
  float v = type == PLUChar ? sv * (1.0f - t) + dv * t + 0.5f : sv + (dv - sv) * t + 0.5f;
  if (type == PLUShort || t < 0.0f || t > 1.0f)
    v = std::min(std::max(v, 0.0f), type == PLUChar ? 255.0f : 65535.0f);
  return static_cast<int32_t>(v);
}

// Every pair of 8-bit samples (the table), and a grid of 16-bit and Float pairs from 0 to
// white, inside and outside 0..1, the copy at t = 0 included, each field: 1 every row, 3 the
// odd rows, 0 and 2 the even rows.
TEST(Blend, ThreeChannelRulePerTypeAndField) {
  const float ts[] = {0.3f, 1.0f / 3.0f, -0.5f, 1.7f, -2.0f, -1.0f, 3.0f, 0.0f};
  const int32_t fields[] = {1, 3, 0, 2};
  for (int32_t type : {PLUChar, PLUShort, PLFloat})
    for (int32_t i = 0; i < 8; ++i) {
      const double scale = type == PLUChar ? 1.0 : type == PLUShort ? 257.0 : 1.0 / 255.0;
      const int32_t field = fields[i % 4];
      TestImage d = MakeImage(256, 256, 3, type, 1, 2), s = MakeImage(256, 256, 3, type, 1, 6);
      TestImage start = MakeImage(256, 256, 3, type);
      for (int32_t y = 0; y < 256; ++y)
        for (int32_t x = 0; x < 256; ++x)
          for (int32_t c = 0; c < 3; ++c) {
            Set(d.get(), x, y, c, (c == 1 ? x : y) * scale);
            Set(s.get(), x, y, c, (c == 1 ? y : x) * scale);
          }
      CopyPixels(start.get(), d.get());
      ASSERT_EQ(PLBlendRows(d.get(), s.get(), field, ts[i]), 1);
      for (int32_t y = 0; y < 256; ++y)
        for (int32_t x = 0; x < 256; ++x) {
          const float dv = Sample(start.get(), x, y, 0), sv = Sample(s.get(), x, y, 0);
          const bool chosen = field == 1 || (field == 3 ? y % 2 == 1 : y % 2 == 0);
          ASSERT_EQ(Get(d.get(), x, y, 0), chosen ? Ref3(type, dv, sv, ts[i]) : dv)
              << "type " << type << " t " << ts[i] << " field " << field << " d " << dv
              << " s " << sv;
        }
      EXPECT_TRUE(PaddingUntouched(d));
    }
}

TEST(Blend, ZeroCopiesOneKeeps) {
  for (int32_t type : {PLUChar, PLUShort, PLFloat})
    for (int32_t channels : {3, 4}) {
      TestImage d = MakeImage(9, 7, channels, type, 1, 2);
      TestImage s = MakeImage(9, 7, channels, type, 1, 5);
      FillRandom(d.get(), 1);
      FillRandom(s.get(), 2);
      TestImage keep = MakeImage(9, 7, channels, type);
      CopyPixels(keep.get(), d.get());
      EXPECT_EQ(PLBlend(d.get(), s.get(), 1.0f), 1);
      EXPECT_TRUE(SamePixels(d.get(), keep.get()));
      EXPECT_EQ(PLBlend(d.get(), s.get(), 0.0f), 1);
      EXPECT_TRUE(SamePixels(d.get(), s.get()));
      EXPECT_TRUE(PaddingUntouched(d));
    }
}

TEST(Blend, RefusalsLeaveTheDestination) {
  // A Float white point other than 1.0 is refused with a message.
  Pair p = OnePixel(PLFloat, 0.2, 0.9);
  p.s->whitePoint = 255.0f;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PLBlend(p.d.get(), p.s.get(), 0.5f), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "PLBlend: float image doesn't have 1.0 for white point\n");
  EXPECT_EQ(Get(p.d.get(), 0, 0, 0), 0.2f);
  // The same check guards the 4-channel serial path.
  Pair q = OnePixel(PLFloat, 0.2, 0.9, 4);
  q.d->whitePoint = 2.0f;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PLBlendRows(q.d.get(), q.s.get(), 1, 0.5f), 0);
  EXPECT_FALSE(testing::internal::GetCapturedStderr().empty());
  // One or two channels: refused before the white point is read.
  for (int32_t channels : {1, 2}) {
    Pair few = OnePixel(PLFloat, 0.2, 0.9, channels);
    few.s->whitePoint = 3.0f;  // would speak if it got that far
    testing::internal::CaptureStderr();
    EXPECT_EQ(PLBlend(few.d.get(), few.s.get(), 0.5f), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(Get(few.d.get(), 0, 0, 0), 0.2f);
  }
  // Not alike: flipped, size or type differ.
  TestImage d = MakeImage(5, 5, 3, PLUChar);
  Fill(d.get(), 10);
  TestImage flipped = MakeImage(5, 5, 3, PLUChar, 1);
  TestImage wider = MakeImage(6, 5, 3, PLUChar);
  TestImage u16 = MakeImage(5, 5, 3, PLUShort);
  for (PLImage* s : {flipped.get(), wider.get(), u16.get()}) {
    Fill(s, 200);
    EXPECT_EQ(PLBlend(d.get(), s, 0.5f), 0);
    EXPECT_EQ(Get(d.get(), 1, 1, 0), 10);
  }
  // Four channels: refused too, but PLBlend reports it as dealt with.
  TestImage d4 = MakeImage(5, 5, 4, PLUChar);
  Fill(d4.get(), 10);
  TestImage f4 = MakeImage(5, 5, 4, PLUChar, 1);
  Fill(f4.get(), 200);
  EXPECT_EQ(PLBlend(d4.get(), f4.get(), 0.5f), 1);
  EXPECT_EQ(PLBlend(d4.get(), d.get(), 0.5f), 1);  // 4 against 3 channels
  EXPECT_EQ(PLBlendRows(d4.get(), d.get(), 1, 0.5f), 0);
  EXPECT_EQ(Get(d4.get(), 1, 1, 3), 10);
}

// ---- The two 4-channel paths, each against its own literal rule ----

double White(int32_t type) { return type == PLUChar ? 255.0 : type == PLUShort ? 65535.0 : 1.0; }

// Serial path (PLBlendRows): divides by a matte above white, limits to the stored matte.
void RefRows4(PLImage* d, const PLImage* s, float t) {
  const float W = static_cast<float>(White(d->dataType));
  const bool isFloat = d->dataType == PLFloat;
  for (int32_t y = 0; y < d->height; ++y)
    for (int32_t x = 0; x < d->width; ++x) {
      auto blend = [&](int32_t c) {
        const float dv = static_cast<float>(Get(d, x, y, c)), sv = static_cast<float>(Get(s, x, y, c));
        return sv + (dv - sv) * t;
      };
      const float a = blend(3);
      const float m = a / W;
      if (!(isFloat ? a > 0.0f : m > 0.0f)) {
        for (int32_t c = 0; c < 4; ++c) Set(d, x, y, c, 0);
        continue;
      }
      float col[3];
      for (int32_t c = 0; c < 3; ++c) col[c] = m > 1.0f ? blend(c) / m : blend(c);
      if (isFloat) {
        for (int32_t c = 0; c < 3; ++c) Set(d, x, y, c, col[c]);
        Set(d, x, y, 3, std::min(std::max(a, 0.0f), 1.0f));
        continue;
      }
      const int32_t matte = static_cast<int32_t>(std::min(std::max(a, 0.0f), W) + 0.5f);
      for (int32_t c = 0; c < 3; ++c)
        Set(d, x, y, c, std::min(static_cast<int32_t>(std::min(std::max(col[c], 0.0f), W) + 0.5f), matte));
      Set(d, x, y, 3, matte);
    }
}

// Parallel path (PLBlend): no division, no limit to the matte, matte truncated without 0.5.
void RefParallel4(PLImage* d, const PLImage* s, float t) {
  const float W = s->whitePoint;
  for (int32_t y = 0; y < d->height; ++y)
    for (int32_t x = 0; x < d->width; ++x) {
      auto blend = [&](int32_t c) {
        const float dv = static_cast<float>(Get(d, x, y, c)), sv = static_cast<float>(Get(s, x, y, c));
        return sv + (dv - sv) * t;
      };
      const float a = blend(3);
      if (a < 0.0f || !(std::min(a, W) > 0.0f)) {
        for (int32_t c = 0; c < 4; ++c) Set(d, x, y, c, 0);
        continue;
      }
      for (int32_t c = 0; c < 3; ++c) {
        const float v = blend(c);
        if (d->dataType == PLFloat)
          Set(d, x, y, c, v);
        else
          Set(d, x, y, c, static_cast<int32_t>(std::max(std::min(v + 0.5f, W), 0.0f)));
      }
      const float matte = std::min(a, W);
      Set(d, x, y, 3, d->dataType == PLFloat ? matte : static_cast<int32_t>(matte));
    }
}

// The serial path, and the parallel one for 1, 2, 3 and 8 workers (140 rows: 16 and more a
// worker).
TEST(Blend, FourChannelPathsFollowTheirOwnRules) {
  WorkerGuard guard;
  for (int32_t type : {PLUChar, PLUShort, PLFloat})
    for (float t : {-1.5f, -0.5f, 0.4f, 2.0f})
      for (int32_t workers : {0, 1, 2, 3, 8}) {  // 0: the serial path
        TestImage d = MakeImage(23, 140, 4, type, 1, 4);
        TestImage s = MakeImage(23, 140, 4, type, 1);
        FillRandom(d.get(), 31);
        FillRandom(s.get(), 32);
        TestImage want = MakeImage(23, 140, 4, type);
        CopyPixels(want.get(), d.get());
        PLTestUseWorkers(workers ? workers : 1);
        if (workers == 0) {
          RefRows4(want.get(), s.get(), t);
          ASSERT_EQ(PLBlendRows(d.get(), s.get(), 1, t), 1);
        } else {
          RefParallel4(want.get(), s.get(), t);
          ASSERT_EQ(PLBlend(d.get(), s.get(), t), 1);
        }
        EXPECT_TRUE(SamePixels(d.get(), want.get())) << "workers " << workers << " type " << type
                                                     << " t " << t;
        EXPECT_TRUE(PaddingUntouched(d));
      }
}

}  // namespace
