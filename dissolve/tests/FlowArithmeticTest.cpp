// flowblur tests: chaining and adding flows, against literal references; refusals; workers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <tuple>

#include "dissolve/PLFlowArithmetic.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();

// The bilinear rule as written (the slide tested before truncating, the same for s >= 0).
float RefSample(const PLImage* g, float sx, float sy, int32_t c) {
  const bool slideX = sx >= g->lastColumn, slideY = sy >= g->lastRow;
  const int32_t ix = slideX ? g->lastColumn - 1 : static_cast<int32_t>(sx);
  const int32_t iy = slideY ? g->lastRow - 1 : static_cast<int32_t>(sy);
  const float tx = slideX ? 1.0f : sx - ix, ty = slideY ? 1.0f : sy - iy;
  auto S = [&](int32_t x, int32_t y) { return static_cast<float>(Get(g, x, y, c)); };
  float top = S(ix, iy) + tx * (S(ix + 1, iy) - S(ix, iy));
  float bottom = S(ix, iy + 1) + tx * (S(ix + 1, iy + 1) - S(ix, iy + 1));
  return top + ty * (bottom - top);
}

// ChainFlows or (clamped) ChainFlowsClamped on Float flows, pixel by pixel.
void RefChainFloat(PLImage* f, const PLImage* g, bool clamped) {
  const float kx = static_cast<float>(g->lastColumn) / f->lastColumn;
  const float ky = static_cast<float>(g->lastRow) / f->lastRow;
  const float w = f->width, h = f->height;
  for (int32_t y = 0; y < f->height; ++y)
    for (int32_t x = 0; x < f->width; ++x) {
      float u = Get(f, x, y, 0), v = Get(f, x, y, 1), tx = x + u, ty = y + v;
      if (clamped) {
        ty = std::fmax(ty, 0.0f);
        tx = ty >= h ? h : std::fmin(std::fmax(tx, 0.0f), w);
      } else if (!(0.0f <= tx && tx < w && 0.0f <= ty && ty < h)) {
        continue;
      }
      float a = RefSample(g, tx * kx, ty * ky, 0), b = RefSample(g, tx * kx, ty * ky, 1);
      Set(f, x, y, 0, clamped ? u + (1.0f / kx) * a : u + a * (1.0f / kx));
      Set(f, x, y, 1, v + b * (1.0f / ky));
    }
}

// Random vectors up to `reach`, a few that no frame holds, some landing exactly on the
// right or bottom edge (x + u = w, y + v = h).
void FillFlow(PLImage* f, uint32_t seed, float reach) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> d(-reach, reach);
  const float odd[] = {kNaN, INFINITY, -INFINITY, 1e30f, -1e30f, 0.0f};
  for (int32_t y = 0; y < f->height; ++y)
    for (int32_t x = 0; x < f->width; ++x) {
      const uint32_t r = rng();
      for (uint32_t c = 0; c < 2; ++c) Set(f, x, y, c, r % 11 == c ? odd[(r >> 8) % 6] : d(rng));
      if (r % 17 == 1) Set(f, x, y, 0, f->width - x);
      if (r % 19 == 2) Set(f, x, y, 1, f->height - y);
    }
}

class ChainFloatReference : public ::testing::TestWithParam<std::tuple<bool, int32_t>> {};

// g of the same size, larger, smaller, extreme shapes; both row orders and padded rows.
TEST_P(ChainFloatReference, MatchesLiteralReference) {
  const bool clamped = std::get<0>(GetParam());
  const int32_t form = std::get<1>(GetParam());
  const int32_t sizes[][4] = {{13, 9, 13, 9}, {13, 9, 29, 5}, {20, 7, 6, 11}, {2, 2, 2, 2},
                              {9, 30, 2, 3},  {31, 4, 40, 40}};
  uint32_t seed = 11 + form;
  for (auto& z : sizes) {
    TestImage f = MakeImage(z[0], z[1], 2, PLFloat, form & 1, 4 * (form & 1));
    TestImage g = MakeImage(z[2], z[3], 2, PLFloat, form >> 1, 3 * (form >> 1));
    FillFlow(f.get(), seed++, 1.3f * std::max(z[0], z[1]));
    FillRandom(g.get(), seed++);
    TestImage want = MakeImage(z[0], z[1], 2, PLFloat);
    CopyPixels(want.get(), f.get());
    RefChainFloat(want.get(), g.get(), clamped);
    (clamped ? ChainFlowsClamped : ChainFlows)(f.get(), g.get());
    ASSERT_TRUE(SamePixels(f.get(), want.get())) << z[0] << "x" << z[1] << " g " << z[2];
    ASSERT_TRUE(PaddingUntouched(f));
  }
}

INSTANTIATE_TEST_SUITE_P(PlainAndClamped, ChainFloatReference,
                         ::testing::Combine(::testing::Bool(), ::testing::Values(0, 1, 2, 3)));

// The coded path against the library's own GetFlow and SetFlow on an untouched copy of f,
// g of another size (no ratio on this path). A code of 65535, never produced by coding,
// goes back as 65534 although its target is outside.
TEST(ChainFlows, CodedMatchesGetFlowReference) {
  const int32_t sizes[][4] = {{12, 8, 12, 8}, {12, 8, 5, 17}, {3, 30, 3, 30}};
  for (int32_t n = 0; n < 6; ++n) {
    const int32_t* z = sizes[n / 2];
    const int32_t range = std::max(z[0], z[1]);
    TestImage f = MakeImage(z[0], z[1], 2, PLUShort, n % 2, 2 * (n % 2));
    TestImage g = MakeImage(z[2], z[3], 2, PLUShort, 1 - n % 2);
    std::mt19937 rng(n);
    for (auto* im : {f.get(), g.get()})  // up to 0.9 range either way: out on all sides
      for (int32_t i = 0; i < im->width * im->height * 2; ++i)
        Set(im, i / 2 % im->width, i / 2 / im->width, i % 2, 2767 + rng() % 60000);
    Set(f.get(), 1, 1, 0, 65535);
    TestImage original = MakeImage(z[0], z[1], 2, PLUShort);
    TestImage want = MakeImage(z[0], z[1], 2, PLUShort);
    CopyPixels(original.get(), f.get());
    ::testing::internal::CaptureStderr();  // SetFlow's warning on large codes
    for (int32_t y = 0; y < z[1]; ++y)
      for (int32_t x = 0; x < z[0]; ++x) {
        float u = 0, v = 0, a = 0, b = 0;
        original->GetFlow(x, y, &u, &v, range);
        if (0.0f <= x + u && x + u < z[0] && 0.0f <= y + v && y + v < z[1])
          g->GetFlow(x + u, y + v, &a, &b, range);
        want->SetFlow(x, y, range, u + a, v + b);
      }
    ChainFlows(f.get(), g.get());
    ::testing::internal::GetCapturedStderr();
    ASSERT_TRUE(SamePixels(f.get(), want.get())) << n;
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
  for (auto* im : {f.get(), coded.get(), three.get(), thin.get(), bytes.get(), one.get()})
    FillRandom(im, 3);
  typedef void (*Op)(PLImage*, const PLImage*);
  const std::tuple<Op, PLImage*, const PLImage*> cases[] = {
      {ChainFlows, f.get(), coded.get()},         {ChainFlows, three.get(), g.get()},
      {ChainFlows, thin.get(), g.get()},          {ChainFlows, f.get(), f.get()},
      {ChainFlowsClamped, coded.get(), coded2.get()}, {ChainFlowsClamped, f.get(), thin.get()},
      {ChainFlowsClamped, f.get(), f.get()},      {AddFlows, coded.get(), coded2.get()},
      {AddFlows, f.get(), other.get()},           {AddFlows, one.get(), g.get()},
      {AddFlows, bytes.get(), coded.get()},       {AddFlows, coded.get(), g.get()}};
  for (int32_t i = 0; i < 12; ++i) {
    PLImage* target = std::get<1>(cases[i]);
    const std::vector<unsigned char> before = PixelBytes(target);
    ::testing::internal::CaptureStderr();
    std::get<0>(cases[i])(target, std::get<2>(cases[i]));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "can't add two flows together\n") << i;
    EXPECT_TRUE(PixelBytes(target) == before) << i;
  }
}

// Float sum of the first two channels; the lopsided 16-bit branch on a Float f, whose
// leading words it takes as codes: 100 + 200 codes give 300, the extremes clamp.
TEST(FlowArithmetic, AddFlows) {
  TestImage f = MakeImage(7, 3, 2, PLFloat, 1, 4), g = MakeImage(7, 3, 3, PLFloat);
  TestImage want = MakeImage(7, 3, 2, PLFloat);
  FillRandom(f.get(), 1);
  FillRandom(g.get(), 2);
  for (int32_t i = 0; i < 42; ++i)
    Set(want.get(), i / 2 % 7, i / 14, i % 2, float(Get(f.get(), i / 2 % 7, i / 14, i % 2)) +
                                                  float(Get(g.get(), i / 2 % 7, i / 14, i % 2)));
  AddFlows(f.get(), g.get());
  EXPECT_TRUE(SamePixels(f.get(), want.get()));

  TestImage wide = MakeImage(7, 3, 2, PLFloat), codes = MakeImage(7, 3, 2, PLUShort);
  Fill(wide.get(), 0.0);
  for (int32_t i = 0; i < 42; ++i) {
    PLStore<uint16_t>(wide->Row(i / 14) + (i % 14) * 2, i % 2 ? 65534 : 32867);
    Set(codes.get(), i / 2 % 7, i / 14, i % 2, i % 2 ? 65000 : 32967);
  }
  AddFlows(wide.get(), codes.get());
  for (int32_t i = 0; i < 42; ++i)
    ASSERT_EQ(PLLoad<uint16_t>(wide->Row(i / 14) + (i % 14) * 2), i % 2 ? 65534 : 33067) << i;
  EXPECT_EQ(Get(wide.get(), 6, 2, 1), 0.0);  // the second half of each row is not touched
}

// Rows of f are split among workers: the same bytes for 1, 2, 3 and 8 of them.
TEST(FlowArithmetic, SameBytesForAllWorkers) {
  for (int32_t op = 0; op < 3; ++op) {
    const int32_t type = op == 1 ? PLUShort : PLFloat;
    TestImage f0 = MakeImage(37, 150, 2, type), g = MakeImage(23, 170, 2, type, 1);
    if (type == PLFloat) FillFlow(f0.get(), 9, 60.0f), FillRandom(g.get(), 10);
    for (auto* im : {f0.get(), g.get()})  // codes of a few pixels either way
      for (int32_t i = 0; type == PLUShort && i < im->width * im->height * 2; ++i)
        Set(im, i / 2 % im->width, i / 2 / im->width, i % 2, 32000 + i * 7 % 1500);
    ExpectSameForAllWorkers([&] {
      TestImage f = MakeImage(37, 150, 2, type, 1, 8);
      CopyPixels(f.get(), f0.get());
      (op == 2 ? ChainFlowsClamped : ChainFlows)(f.get(), g.get());
      return PixelBytes(f.get());
    });
  }
}

}  // namespace
