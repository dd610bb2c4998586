// flowblur tests: chaining and adding flows, against literal references; refusals; workers.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <tuple>

#include "dissolve/PLFlowArithmetic.h"
#include "image/PLConvertImage.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

namespace {

const std::string kRefusal = "can't add two flows together\n";
const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

// The bilinear rule as written: cell at trunc(s), slid back with a fraction of 1 at or
// beyond the last index (tested before truncating, which is the same for s >= 0).
float RefSample(const PLImage* g, float sx, float sy, int32_t c) {
  int32_t ix, iy;
  float tx, ty;
  if (sx >= static_cast<float>(g->lastColumn)) ix = g->lastColumn - 1, tx = 1.0f;
  else ix = static_cast<int32_t>(sx), tx = sx - static_cast<float>(ix);
  if (sy >= static_cast<float>(g->lastRow)) iy = g->lastRow - 1, ty = 1.0f;
  else iy = static_cast<int32_t>(sy), ty = sy - static_cast<float>(iy);
  auto S = [&](int32_t x, int32_t y) { return static_cast<float>(Get(g, x, y, c)); };
  float top = S(ix, iy) + tx * (S(ix + 1, iy) - S(ix, iy));
  float bottom = S(ix, iy + 1) + tx * (S(ix + 1, iy + 1) - S(ix, iy + 1));
  return top + ty * (bottom - top);
}

// ChainFlows (clamped = false) or ChainFlowsClamped on Float flows, pixel by pixel.
void RefChainFloat(PLImage* f, const PLImage* g, bool clamped) {
  const float kx = static_cast<float>(g->lastColumn) / static_cast<float>(f->lastColumn);
  const float ky = static_cast<float>(g->lastRow) / static_cast<float>(f->lastRow);
  const float w = static_cast<float>(f->width), h = static_cast<float>(f->height);
  for (int32_t y = 0; y < f->height; ++y)
    for (int32_t x = 0; x < f->width; ++x) {
      float u = static_cast<float>(Get(f, x, y, 0)), v = static_cast<float>(Get(f, x, y, 1));
      float sx, sy;
      if (!clamped) {
        float tx = static_cast<float>(x) + u, ty = static_cast<float>(y) + v;
        if (!(0.0f <= tx && tx < w && 0.0f <= ty && ty < h)) continue;
        sx = tx * kx, sy = ty * ky;
      } else {
        float y1 = std::fmax(static_cast<float>(y) + v, 0.0f);
        float x1 = std::fmin(std::fmax(static_cast<float>(x) + u, 0.0f), w);
        if (y1 >= h) x1 = h;
        sx = x1 * kx, sy = y1 * ky;
      }
      float a = RefSample(g, sx, sy, 0), b = RefSample(g, sx, sy, 1);
      Set(f, x, y, 0, clamped ? u + (1.0f / kx) * a : u + a * (1.0f / kx));
      Set(f, x, y, 1, v + b * (1.0f / ky));
    }
}

// Flow content: random vectors up to `reach` pixels, and a few that no frame holds.
void FillFlow(PLImage* f, uint32_t seed, float reach) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> d(-reach, reach);
  const float odd[] = {kNaN, kInf, -kInf, 1e30f, -1e30f, 0.0f};
  for (int32_t y = 0; y < f->height; ++y)
    for (int32_t x = 0; x < f->width; ++x) {
      uint32_t r = rng();
      for (int32_t c = 0; c < 2; ++c) Set(f, x, y, c, r % 23 == 0 ? odd[(r >> 8) % 6] : d(rng));
      // Targets exactly on the right and bottom edges of the frame.
      if (r % 17 == 1) Set(f, x, y, 0, static_cast<float>(f->width - x));
      if (r % 19 == 2) Set(f, x, y, 1, static_cast<float>(f->height - y));
    }
}

class ChainFloatReference : public ::testing::TestWithParam<std::tuple<bool, int32_t>> {};

// g larger, smaller, equal and of one extreme shape; both row orders and padded rows.
TEST_P(ChainFloatReference, MatchesLiteralReference) {
  const bool clamped = std::get<0>(GetParam());
  const int32_t form = std::get<1>(GetParam());
  const int32_t sizes[][4] = {{13, 9, 13, 9}, {13, 9, 29, 5}, {20, 7, 6, 11}, {2, 2, 2, 2},
                              {9, 30, 2, 3},  {31, 4, 40, 40}};
  uint32_t seed = 11 + form;
  for (auto& z : sizes) {
    TestImage f = MakeImage(z[0], z[1], 2, PLFloat, form & 1, 4 * (form & 1));
    TestImage g = MakeImage(z[2], z[3], 2, PLFloat, (form >> 1) & 1, 3 * (form >> 1));
    FillFlow(f.get(), seed++, 1.3f * static_cast<float>(z[0] > z[1] ? z[0] : z[1]));
    FillRandom(g.get(), seed++);
    TestImage want = MakeImage(z[0], z[1], 2, PLFloat);
    CopyPixels(want.get(), f.get());
    RefChainFloat(want.get(), g.get(), clamped);
    if (clamped)
      ChainFlowsClamped(f.get(), g.get());
    else
      ChainFlows(f.get(), g.get());
    ASSERT_TRUE(SamePixels(f.get(), want.get())) << z[0] << "x" << z[1] << " g " << z[2] << "x"
                                                 << z[3];
    ASSERT_TRUE(PaddingUntouched(f));
  }
}

INSTANTIATE_TEST_SUITE_P(PlainAndClamped, ChainFloatReference,
                         ::testing::Combine(::testing::Bool(), ::testing::Values(0, 1, 2, 3)));

// The stated cases: (3, 0) chained with itself gives (6, 0) where the target is inside;
// a target at exactly x + u = w is outside for ChainFlows and clamped for the other, which
// then reads g's last column; a target beyond the bottom reads g at x = h * kx.
TEST(ChainFlows, StatedCases) {
  TestImage f = MakeImage(10, 4, 2, PLFloat), g = MakeImage(10, 4, 2, PLFloat);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 10; ++x) Set(f.get(), x, y, 0, 3.0), Set(f.get(), x, y, 1, 0.0);
  CopyPixels(g.get(), f.get());
  ChainFlows(f.get(), g.get());
  for (int32_t x = 0; x < 10; ++x) {
    EXPECT_EQ(Get(f.get(), x, 2, 0), x + 3 < 10 ? 6.0 : 3.0) << x;
    EXPECT_EQ(Get(f.get(), x, 2, 1), 0.0);
  }

  // g(x, y) = (100 x + y, -y): every bilinear read of it is exact.
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 10; ++x) Set(g.get(), x, y, 0, 100 * x + y), Set(g.get(), x, y, 1, -y);
  Fill(f.get(), 0.0);
  Set(f.get(), 7, 1, 0, 3.0);   // x + u = w: clamped to 10, read at column 9 (slid cell)
  Set(f.get(), 7, 2, 1, 5.0);   // y + v = 7 >= h = 4: x1 = h = 4, row slid to 3
  Set(f.get(), 5, 0, 0, kNaN);  // NaN reads column 0 (u stays NaN)
  ChainFlowsClamped(f.get(), g.get());
  EXPECT_EQ(Get(f.get(), 7, 1, 0), 3.0 + 901.0);
  EXPECT_EQ(Get(f.get(), 7, 2, 0), 403.0);
  EXPECT_EQ(Get(f.get(), 7, 2, 1), 5.0 - 3.0);
  EXPECT_TRUE(std::isnan(Get(f.get(), 5, 0, 0)));
  EXPECT_EQ(Get(f.get(), 5, 0, 1), 0.0);
  EXPECT_EQ(Get(f.get(), 2, 3, 0), 203.0);  // zero flow adds g at the pixel itself
}

// The coded path against the library's own GetFlow and SetFlow on an untouched copy of f.
TEST(ChainFlows, CodedMatchesGetFlowReference) {
  const int32_t sizes[][4] = {{12, 8, 12, 8}, {12, 8, 5, 17}, {3, 30, 3, 30}};
  uint32_t seed = 5;
  for (auto& z : sizes)
    for (int32_t form = 0; form < 2; ++form) {
      TestImage f = MakeImage(z[0], z[1], 2, PLUShort, form, 2 * form);
      TestImage g = MakeImage(z[2], z[3], 2, PLUShort, 1 - form);
      std::mt19937 rng(seed++);
      // Vectors of up to 0.9 of the larger side either way: targets fall out on all sides.
      for (auto* im : {f.get(), g.get()})
        for (int32_t y = 0; y < im->height; ++y)
          for (int32_t x = 0; x < im->width; ++x)
            for (int32_t c = 0; c < 2; ++c) Set(im, x, y, c, 2767 + rng() % 60000);
      // 65535, which coding never produces: its target is outside, yet it is stored back
      // as 65534.
      Set(f.get(), 1, 1, 0, 65535);
      TestImage original = MakeImage(z[0], z[1], 2, PLUShort);
      TestImage want = MakeImage(z[0], z[1], 2, PLUShort);
      CopyPixels(original.get(), f.get());
      const int32_t range = z[0] > z[1] ? z[0] : z[1];
      for (int32_t y = 0; y < z[1]; ++y)
        for (int32_t x = 0; x < z[0]; ++x) {
          float u = 0, v = 0, a = 0, b = 0;
          original->GetFlow(static_cast<float>(x), static_cast<float>(y), &u, &v, range);
          float tx = x + u, ty = y + v;
          if (0.0f <= tx && tx < z[0] && 0.0f <= ty && ty < z[1]) {
            g->GetFlow(tx, ty, &a, &b, range);
            u += a, v += b;
          }
          ::testing::internal::CaptureStderr();
          want->SetFlow(x, y, range, u, v);
          ::testing::internal::GetCapturedStderr();
        }
      ::testing::internal::CaptureStderr();  // SetFlow's warning for large codes
      ChainFlows(f.get(), g.get());
      ::testing::internal::GetCapturedStderr();
      ASSERT_TRUE(SamePixels(f.get(), want.get())) << z[0] << "x" << z[1] << " form " << form;
      EXPECT_EQ(Get(f.get(), 1, 1, 0), 65534.0);
    }
}

// Every refusal prints the message and changes nothing.
TEST(FlowArithmetic, Refusals) {
  TestImage f = MakeImage(6, 5, 2, PLFloat), g = MakeImage(6, 5, 2, PLFloat);
  TestImage coded = MakeImage(6, 5, 2, PLUShort), coded2 = MakeImage(6, 5, 2, PLUShort);
  TestImage three = MakeImage(6, 5, 3, PLFloat), thin = MakeImage(1, 5, 2, PLFloat);
  TestImage other = MakeImage(6, 4, 2, PLFloat), bytes = MakeImage(6, 5, 2, PLUChar);
  TestImage one = MakeImage(6, 5, 1, PLFloat);
  for (auto* im : {f.get(), g.get(), coded.get(), coded2.get(), three.get(), thin.get(),
                   other.get(), bytes.get(), one.get()})
    FillRandom(im, 3);
  struct Case {
    const char* what;
    void (*op)(PLImage*, const PLImage*);
    PLImage* f;
    const PLImage* g;
  } cases[] = {
      {"chain mixed types", ChainFlows, f.get(), coded.get()},
      {"chain 3 channels", ChainFlows, three.get(), g.get()},
      {"chain one column", ChainFlows, thin.get(), g.get()},
      {"chain same image", ChainFlows, f.get(), f.get()},
      {"clamped coded", ChainFlowsClamped, coded.get(), coded2.get()},
      {"clamped one column g", ChainFlowsClamped, f.get(), thin.get()},
      {"clamped same image", ChainFlowsClamped, g.get(), g.get()},
      {"add two coded", AddFlows, coded.get(), coded2.get()},
      {"add sizes differ", AddFlows, f.get(), other.get()},
      {"add one channel", AddFlows, one.get(), g.get()},
      {"add byte f, coded g", AddFlows, bytes.get(), coded.get()},
      {"add coded f, float g", AddFlows, coded.get(), g.get()},
  };
  for (const Case& c : cases) {
    TestImage before = MakeImage(c.f->width, c.f->height, c.f->channels, c.f->dataType);
    CopyPixels(before.get(), c.f);
    ::testing::internal::CaptureStderr();
    c.op(c.f, c.g);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), kRefusal) << c.what;
    EXPECT_TRUE(SamePixels(c.f, before.get())) << c.what;
  }
}

// Float sum; the lopsided 16-bit branch on a Float f, whose words it treats as codes.
TEST(FlowArithmetic, AddFlows) {
  TestImage f = MakeImage(7, 3, 2, PLFloat, 1, 4), g = MakeImage(7, 3, 3, PLFloat);
  FillRandom(f.get(), 1);
  FillRandom(g.get(), 2);
  TestImage want = MakeImage(7, 3, 2, PLFloat);
  CopyPixels(want.get(), f.get());
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 7; ++x)
      for (int32_t c = 0; c < 2; ++c)
        Set(want.get(), x, y, c, static_cast<float>(Get(f.get(), x, y, c)) +
                                     static_cast<float>(Get(g.get(), x, y, c)));
  AddFlows(f.get(), g.get());
  EXPECT_TRUE(SamePixels(f.get(), want.get()));

  // 16-bit words at the start of each row of f, codes 32767 + 100 + x and g's 32767 + 200
  // - 50 y: the sum of the decoded vectors coded back, clamped at the extremes.
  TestImage wide = MakeImage(7, 3, 2, PLFloat), codes = MakeImage(7, 3, 2, PLUShort);
  Fill(wide.get(), 0.0);
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 7; ++x)
      for (int32_t c = 0; c < 2; ++c) {
        PLStore<uint16_t>(wide->Row(y) + (x * 2 + c) * 2, c ? 65534 : 32867 + x);
        Set(codes.get(), x, y, c, c ? 65000 : 32967 - 50 * y);
      }
  AddFlows(wide.get(), codes.get());
  const float range = 7.0f;
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 7; ++x)
      for (int32_t c = 0; c < 2; ++c) {
        float cf = c ? 65534.0f : 32867.0f + x, cg = c ? 65000.0f : 32967.0f - 50 * y;
        float s = ((((cg - 32767.0f) / 32767.0f) * range + ((cf - 32767.0f) / 32767.0f) * range) *
                   32767.0f) / range;
        s = s > 32767.0f ? 32767.0f : s;
        const uint16_t code = static_cast<uint16_t>(static_cast<int32_t>(s + 32767.0f + 0.5f));
        ASSERT_EQ(PLLoad<uint16_t>(wide->Row(y) + (x * 2 + c) * 2), code) << x << "," << y;
      }
  EXPECT_EQ(PLLoad<uint16_t>(wide->Row(0)), 33067);      // 100 + 200 codes
  EXPECT_EQ(PLLoad<uint16_t>(wide->Row(0) + 2), 65534);  // clamped
  EXPECT_EQ(Get(wide.get(), 6, 2, 1), 0.0);                // the second half is not touched
}

// Rows of f are split among workers: the same bytes for 1, 2, 3 and 8 of them.
TEST(FlowArithmetic, SameBytesForAllWorkers) {
  for (int32_t op = 0; op < 3; ++op) {
    const int32_t type = op == 1 ? PLUShort : PLFloat;
    TestImage f0 = MakeImage(37, 150, 2, type), g = MakeImage(23, 170, 2, type, 1);
    if (type == PLFloat) {
      FillFlow(f0.get(), 9, 60.0f);
      FillRandom(g.get(), 10);
    } else {
      for (auto* im : {f0.get(), g.get()})
        for (int32_t y = 0; y < im->height; ++y)
          for (int32_t x = 0; x < im->width; ++x)
            for (int32_t c = 0; c < 2; ++c) Set(im, x, y, c, 32000 + (x * 37 + y * 11 + c) % 1500);
    }
    ExpectSameForAllWorkers([&] {
      TestImage f = MakeImage(37, 150, 2, type, 1, 8);
      CopyPixels(f.get(), f0.get());
      if (op == 2)
        ChainFlowsClamped(f.get(), g.get());
      else
        ChainFlows(f.get(), g.get());
      return PixelBytes(f.get());
    });
  }
}

}  // namespace
