// flowblur tests: the zoom resampler against a literal two-pass reference, its filters, its
// storage reuse and its rule for concurrent use; the interpolated lookup tables.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

#include "fill/LirpedTable.h"
#include "fill/PLZoom.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

namespace {

struct RefContributor {
  int32_t j;
  float w;
};

int32_t Reflect(int32_t j, int32_t n) {
  if (j < 0) j = -j;
  if (j >= n) j = 2 * n - j - 1;
  return j;
}

// The lists exactly as described: one per output index.
std::vector<std::vector<RefContributor>> RefLists(int32_t srcSize, int32_t dstSize,
                                                  PLZoomFilter f, float support) {
  std::vector<std::vector<RefContributor>> lists(dstSize);
  const float scale = static_cast<float>(dstSize) / static_cast<float>(srcSize);
  for (int32_t i = 0; i < dstSize; ++i) {
    // Enlarging weighs by the distance itself; reducing stretches the filter by 1 / scale
    // and steps its distance down by 1 from the left end.
    const float center = static_cast<float>(i) * (1.0f / scale);
    const float w = support / std::min(scale, 1.0f);
    const int32_t left = static_cast<int32_t>(std::ceil(center - w));
    const int32_t right = static_cast<int32_t>(std::floor(center + w));
    float d = center - static_cast<float>(left);
    for (int32_t j = left; j <= right; ++j, d -= 1.0f)
      lists[i].push_back({Reflect(j, srcSize), scale >= 1.0f ? f(center - static_cast<float>(j))
                                                             : f(d * scale) * scale});
  }
  return lists;
}

float Sum(const std::vector<RefContributor>& list, const std::vector<float>& line, int32_t size,
          int32_t channels, int32_t c) {
  float sum = 0.0f;
  for (const RefContributor& k : list)
    if (k.j >= 0 && k.j < size) sum += k.w * line[k.j * channels + c];
  return std::min(std::max(sum, 0.0f), 255.0f);
}

// Columns through GetPixel/SetPixel into an intermediate image, then column by column.
void RefZoom(PLImage* dst, const PLImage* src, PLZoomFilter f, float support) {
  const int32_t C = src->channels;
  PLImage middle(dst->width, src->height, C, src->dataType, 0);
  // One pass over the rows of `from` (its columns when `down`) into `to`.
  auto pass = [&](PLImage* to, const PLImage* from, bool down) {
    const int32_t n = down ? from->height : from->width, m = down ? to->height : to->width;
    const auto lists = RefLists(n, m, f, support);
    std::vector<float> line(n * C), px(C);
    for (int32_t k = 0; k < (down ? to->width : from->height); ++k) {
      for (int32_t j = 0; j < n; ++j) from->GetPixel(down ? k : j, down ? j : k, &line[j * C]);
      for (int32_t i = 0; i < m; ++i) {
        for (int32_t c = 0; c < C; ++c) px[c] = Sum(lists[i], line, n, C, c);
        to->SetPixel(down ? k : i, down ? i : k, px.data());
      }
    }
  };
  pass(&middle, src, false);
  pass(dst, &middle, true);
}

struct NamedFilter {
  PLZoomFilter f;
  float support;
};
const NamedFilter kFilters[] = {
    {PLHermiteFilter, kPLHermiteSupport},     {PLTriangleFilter, kPLTriangleSupport},
    {PLQuadraticBSplineFilter, 1.5f},         {PLCubicBSplineFilter, 2.0f},
    {PLTabulatedCubicBSplineFilter, 2.0f},    {PLSincFilter, 3.0f},
    {PLLanczos3Filter, kPLLanczos3Support},   {PLMitchellFilter, kPLMitchellSupport},
    {PLBoxFilter, kPLBoxSupport},             {PLTriangleFilter, 0.0f}};

class ZoomReference : public ::testing::TestWithParam<std::tuple<int32_t, int32_t>> {};

// Every filter, channels 1 to 4, enlarging, reducing, equal and odd ratios, flipped and
// padded images; dst of the source's type and of another. The reference clamps to 255 for
// every type (random UShort samples come out limited to 255) and does not normalise.
TEST_P(ZoomReference, MatchesLiteralTwoPassReference) {
  const int32_t st = std::get<0>(GetParam()), dt = std::get<1>(GetParam());
  const int32_t sizes[][4] = {{9, 7, 9, 7}, {7, 5, 17, 12}, {23, 19, 6, 4}, {1, 1, 3, 2},
                              {5, 3, 1, 1}, {13, 2, 4, 9}};
  uint32_t seed = 1;
  for (const NamedFilter& nf : kFilters)
    for (auto& z : sizes)
      for (int32_t channels = 1; channels <= 4; ++channels) {
        const int32_t odd = seed & 1;
        TestImage src = MakeImage(z[0], z[1], channels, st, odd, 3 * odd);
        FillRandom(src.get(), seed++);
        if (st == PLFloat)  // read as 16-bit words: give the words small values
          for (int32_t y = 0; y < z[1]; ++y)
            for (int32_t w = 0; w < z[0] * channels * 2; ++w)
              PLStore<uint16_t>(src->Row(y) + 2 * w, static_cast<uint16_t>((w * 37 + y * 11) % 300));
        TestImage got = MakeImage(z[2], z[3], channels, dt, 1 - odd, 2);
        TestImage want = MakeImage(z[2], z[3], channels, dt);
        PLZoom(got.get(), src.get(), nf.f, nullptr, nf.support);
        RefZoom(want.get(), src.get(), nf.f, nf.support);
        ASSERT_TRUE(SamePixels(got.get(), want.get()))
            << z[0] << "x" << z[1] << " -> " << z[2] << "x" << z[3] << " channels " << channels
            << " support " << nf.support;
        ASSERT_TRUE(PaddingUntouched(got));
      }
}

INSTANTIATE_TEST_SUITE_P(Types, ZoomReference,
                         ::testing::Values(std::make_tuple(PLUChar, PLUChar),
                                           std::make_tuple(PLUShort, PLUShort),
                                           std::make_tuple(PLFloat, PLFloat),
                                           std::make_tuple(PLUChar, PLFloat),
                                           std::make_tuple(PLUShort, PLUChar)));

TEST(Zoom, StorageReusedWithoutNewBlocks) {
  PLZoomTempStorage storage;
  TestImage src = MakeImage(40, 30, 4, PLUChar);
  FillRandom(src.get(), 2);
  TestImage big = MakeImage(64, 50, 4, PLUChar), small = MakeImage(20, 16, 4, PLUChar),
            want = MakeImage(64, 50, 4, PLUChar);
  PLZoom(big.get(), src.get(), &storage);
  const unsigned char* blocks[] = {storage.pool, storage.lists, storage.middle};
  const uint64_t caps[] = {storage.poolCapacity, storage.listsCapacity, storage.middleCapacity};
  PLZoom(big.get(), src.get(), &storage);
  PLZoom(small.get(), src.get(), &storage);
  PLZoom(big.get(), src.get(), &storage);
  EXPECT_TRUE(storage.pool == blocks[0] && storage.lists == blocks[1] && storage.middle == blocks[2]);
  EXPECT_TRUE(storage.poolCapacity == caps[0] && storage.listsCapacity == caps[1] &&
              storage.middleCapacity == caps[2]);
  EXPECT_EQ(storage.poolBusy | storage.listsBusy | storage.poolUsed, 0u);
  PLZoom(want.get(), src.get());  // temporary storage: the same pixels
  EXPECT_TRUE(SamePixels(big.get(), want.get()));

  // Members: busy lists refuse, the pool hands out in order and refuses past its end.
  EXPECT_NE(storage.AcquireLists(16), nullptr);
  EXPECT_EQ(storage.AcquireLists(16), nullptr);
  EXPECT_THROW(PLZoom(big.get(), src.get(), &storage), PLErr);
  storage.ReleaseLists();
  storage.ReservePool(64);
  EXPECT_EQ(storage.TakeFromPool(8), storage.pool);
  EXPECT_EQ(storage.TakeFromPool(storage.poolCapacity), nullptr);
  storage.ResetPool();
  EXPECT_EQ(storage.poolUsed, 0u);
}

TEST(Zoom, FilterValues) {
  const float ds[] = {0.0f, 0.25f, 0.5f, 0.75f, 1.0f, 1.3f, 1.5f, 1.99f, 2.0f, 2.5f, 3.0f};
  auto sinc = [](double x) { return x == 0 ? 1.0 : std::sin(M_PI * x) / (M_PI * x); };
  const double kFloatFormula = 2e-6;  // float evaluation of a polynomial near 1
  for (float d : ds) {
    const double a = d;
    for (const NamedFilter& nf : kFilters)  // even, but for the box's half-open end
      if (nf.f != PLBoxFilter || d != 0.5f) {
        ASSERT_EQ(nf.f(d), nf.f(-d)) << d;
      }
    EXPECT_NEAR(PLHermiteFilter(d), a < 1 ? (2 * a - 3) * a * a + 1 : 0, 1e-7) << d;
    EXPECT_NEAR(PLTriangleFilter(d), a < 1 ? 1 - a : 0, kFloatFormula) << d;
    EXPECT_NEAR(PLQuadraticBSplineFilter(d),
                a < 0.5 ? 0.75 - a * a : a < 1.5 ? 0.5 * (a - 1.5) * (a - 1.5) : 0, kFloatFormula);
    const double cubic = a < 1 ? 0.5 * a * a * a - a * a + 2.0 / 3 : a < 2 ? std::pow(2 - a, 3) / 6 : 0;
    EXPECT_NEAR(PLCubicBSplineFilter(d), cubic, kFloatFormula) << d;
    EXPECT_NEAR(PLTabulatedCubicBSplineFilter(d), cubic, 0.004) << d;  // table step 2/299
    EXPECT_NEAR(PLSincFilter(d), sinc(a), kFloatFormula) << d;
    EXPECT_NEAR(PLLanczos3Filter(d), a < 3 ? sinc(a) * sinc(a / 3) : 0, kFloatFormula) << d;
    const double mitchell = a < 1   ? (7 * a * a * a - 12 * a * a + 16.0 / 3) / 6
                            : a < 2 ? (-7.0 / 3 * a * a * a + 12 * a * a - 20 * a + 32.0 / 3) / 6
                                    : 0;
    EXPECT_NEAR(PLMitchellFilter(d), mitchell, kFloatFormula) << d;
  }
  EXPECT_EQ(PLSincFilter(0.0f), 1.0f);
  EXPECT_EQ(PLBoxFilter(0.5f), 1.0f);  // half-open: 0.5 in, -0.5 out
  EXPECT_EQ(PLBoxFilter(-0.5f), 0.0f);
  EXPECT_EQ(PLTabulatedCubicBSplineFilter(1.0f),
            PLCubicBSplineTable.table[static_cast<int32_t>(1.0f * PLCubicBSplineTable.scale + 0.5f)]);
  EXPECT_EQ(PLTabulatedCubicBSplineFilter(NAN), 0.0f);
}

TEST(Zoom, RefusesBeforeTouchingAnything) {
  TestImage src = MakeImage(6, 6, 3, PLUChar), dst = MakeImage(4, 4, 3, PLUChar);
  TestImage one = MakeImage(4, 4, 1, PLUChar), none = MakeImage(0, 4, 3, PLUChar);
  TestImage dbl = MakeImage(6, 6, 3, PLDouble);
  Fill(dst.get(), 7);
  const PLImage* s = src.get();
  EXPECT_THROW(PLZoom(one.get(), s), PLErr);
  EXPECT_THROW(PLZoom(dst.get(), none.get()), PLErr);
  EXPECT_THROW(PLZoom(nullptr, s), PLErr);
  EXPECT_THROW(PLZoom(dst.get(), s, PLBoxFilter, nullptr, NAN), PLErr);
  EXPECT_THROW(PLZoom(dst.get(), s, PLBoxFilter, nullptr, -1.0f), PLErr);
  EXPECT_THROW(PLZoom(dst.get(), s, nullptr, nullptr, 1.0f), PLErr);
  EXPECT_NO_THROW(PLZoom(dst.get(), dbl.get()));  // unsupported type: nothing
  EXPECT_EQ(Get(dst.get(), 3, 3, 2), 7);
}

// One storage per zoom: different storages run together; a storage in use is refused.
std::atomic<int32_t> gate{0};
float GatedTriangle(float d) {
  int32_t expected = 0;
  if (gate.compare_exchange_strong(expected, 1))
    while (gate.load() != 2) std::this_thread::yield();
  return PLTriangleFilter(d);
}

TEST(Zoom, TwoThreads) {
  TestImage src = MakeImage(90, 70, 4, PLUChar);
  FillRandom(src.get(), 4);
  TestImage want = MakeImage(45, 100, 4, PLUChar);
  PLZoom(want.get(), src.get());
  std::vector<TestImage> outs;
  for (int32_t i = 0; i < 2; ++i) outs.push_back(MakeImage(45, 100, 4, PLUChar));
  auto many = [&](int32_t i) {
    PLZoomTempStorage own;
    for (int32_t k = 0; k < 10; ++k) PLZoom(outs[i].get(), src.get(), k & 1 ? &own : nullptr);
  };
  std::thread a(many, 0), b(many, 1);
  a.join();
  b.join();
  for (auto& o : outs) EXPECT_TRUE(SamePixels(o.get(), want.get()));

  PLZoomTempStorage shared;
  TestImage first = MakeImage(45, 100, 4, PLUChar), second = MakeImage(45, 100, 4, PLUChar);
  Fill(second.get(), 3);
  gate = 0;
  std::thread owner([&] { PLZoom(first.get(), src.get(), GatedTriangle, &shared, 1.0f); });
  while (gate.load() != 1) std::this_thread::yield();  // the owner is inside its zoom
  PLErr caught = PLErrNone;
  try {
    PLZoom(second.get(), src.get(), PLTriangleFilter, &shared, 1.0f);
  } catch (PLErr& e) {
    caught = e;
  }
  gate = 2;
  owner.join();
  EXPECT_EQ(caught, PLErrParameter);
  EXPECT_EQ(Get(second.get(), 10, 10, 0), 3);
  TestImage check = MakeImage(45, 100, 4, PLUChar);
  PLZoom(check.get(), src.get(), PLTriangleFilter, &shared, 1.0f);  // free again
  EXPECT_TRUE(SamePixels(first.get(), check.get()));
}

// ---- interpolated lookup tables, the angle fold, the static tables ----

float Square(float x) { return x * x; }

struct Cube : LirpedTableFunctor {
  float Evaluate(float x) const override { return x * x * x; }
};

// The rule as written, for arguments inside the table.
float RefLookup(const LirpedTable& t, float x) {
  const float p = (x - t.low) * t.scale;
  const int32_t i = static_cast<int32_t>(p);
  if (static_cast<float>(i) < t.lastIndex)
    return (t.table[i + 1] - t.table[i]) * (p - static_cast<float>(i)) + t.table[i];
  return t.table[i];
}

// Folding by steps of 360, as written (only for angles where that ends soon).
float StepFold(float a) {
  while (a < 0.0f) a += 360.0f;
  while (a >= 360.0f) a -= 360.0f;
  return a;
}

TEST(LirpedTable, SamplesAndInterpolatesByTheRule) {
  std::vector<float> storage(41, -7.0f);
  {
    LirpedTable t(-1.5f, 2.5f, 41, Square, storage.data());
    EXPECT_EQ(t.ownsTable, 0);
    EXPECT_EQ(t.lastIndex, 40.0f);
    EXPECT_EQ(t.scale, 40.0f / 4.0f);
    for (int32_t i = 0; i < 41; ++i)
      ASSERT_EQ(storage[i], Square(static_cast<float>(i) * 4.0f / 40.0f + -1.5f)) << i;
    for (float x = -1.5f; x <= 2.5f; x += 0.0371f) ASSERT_EQ(t.Lookup(x), RefLookup(t, x)) << x;
    EXPECT_EQ(t.Lookup(-1.5f), storage[0]);
    EXPECT_EQ(t.Lookup(2.5f), storage[40]);
  }
  // The destructor leaves the caller's array alone (a free of it would also trip ASan).
  EXPECT_EQ(storage[40], Square(2.5f));

  LirpedTable owned(0.0f, 1.0f, 11, Cube());
  EXPECT_EQ(owned.ownsTable, 1);
  EXPECT_EQ(owned.table[10], 1.0f);
  EXPECT_EQ(owned.Lookup(0.55f), RefLookup(owned, 0.55f));
}

// Outside the table the ends answer (the rule would read outside the array); just below low
// the rule itself extrapolates from the first two entries.
TEST(LirpedTable, OutsideTheTableGivesTheEnds) {
  LirpedTable t(0.0f, 10.0f, 11, Square, nullptr);
  EXPECT_EQ(t.Lookup(-0.5f), (t.table[1] - t.table[0]) * -0.5f + t.table[0]);
  for (float x : {-1.0f, -3.0f, -1e30f, -INFINITY}) EXPECT_EQ(t.Lookup(x), 0.0f) << x;
  for (float x : {10.0f, 10.5f, 11.0f, 1e30f, INFINITY}) EXPECT_EQ(t.Lookup(x), 100.0f) << x;
  EXPECT_TRUE(std::isnan(t.Lookup(NAN)));

  LirpedTable none(0.0f, 1.0f, 0, Square, nullptr);
  EXPECT_EQ(none.table, nullptr);
  EXPECT_EQ(none.Lookup(0.5f), 0.0f);
}

TEST(LirpedTable, AngleTablesFoldIntoOneTurnAtOnce) {
  const CosTableInDegrees& c = PLCosTableInDegrees;
  const SinTableInDegrees& s = PLSinTableInDegrees;
  EXPECT_EQ(c.ownsTable, 0);
  EXPECT_EQ(c.table[0], 1.0f);
  EXPECT_EQ(c.Lookup(360.0f), 1.0f);
  EXPECT_EQ(c.Lookup(0.0f), 1.0f);
  EXPECT_EQ(c.Lookup(-90.0f), c.Lookup(270.0f));
  EXPECT_EQ(s.Lookup(-90.0f), s.Lookup(270.0f));
  EXPECT_NEAR(s.Lookup(90.0f), 1.0f, 1e-4);   // table step 360/359: interpolation error
  EXPECT_NEAR(c.Lookup(-120.0f), -0.5f, 1e-4);

  // The one-step fold gives the stepping's bits wherever stepping is exact.
  for (float a : {-0.0f, -1e-10f, -360.0f, 719.999f, -1234.567f, 98765.43f, -3.0e6f, 1.3e8f})
    EXPECT_EQ(LirpedFoldDegrees(a), StepFold(a)) << a;
  for (float a = -2000.0f; a < 2000.0f; a += 0.7f) ASSERT_EQ(LirpedFoldDegrees(a), StepFold(a)) << a;
  // Ours: a huge angle folds exactly (in one step, not by stepping); infinity and NaN give NaN.
  for (float a : {1e30f, -3.0e38f, 4294967296.0f}) {
    const float folded = LirpedFoldDegrees(a);
    EXPECT_TRUE(folded >= 0.0f && folded < 360.0f) << a;
    if (a > 0.0f) {
      EXPECT_EQ(folded, std::fmod(a, 360.0f)) << a;  // the exact remainder
    }
    EXPECT_TRUE(std::fabs(PLCosTableInDegrees.Lookup(a)) <= 1.0f);
  }
  for (float a : {INFINITY, -INFINITY, NAN}) {
    EXPECT_TRUE(std::isnan(PLCosTableInDegrees.Lookup(a))) << a;
    EXPECT_TRUE(std::isnan(PLSinTableInDegrees.Lookup(a))) << a;
  }
}

}  // namespace
