// flowblur tests: field interpolation against a literal reference, refusals, edges, workers.
#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <random>
#include <tuple>

#include "fill/InterpolateField.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

namespace {

const int32_t kTypes[] = {PLUChar, PLUShort, PLFloat};

// The rule as written, serial and in place; counts the directions methods 3 and 4 take.
void RefField(PLImage* im, int32_t method, int32_t field, int32_t* taken) {
  const int32_t last = im->lastRow, w = im->width;
  const bool isFloat = im->dataType == PLFloat;
  if (method < 1 || method > 4 || field == 1 || im->height < 2) return;
  auto put = [&](int32_t x, int32_t y, int32_t c, double v) {
    Set(im, x, y, c, isFloat ? static_cast<float>(v) : static_cast<int32_t>(v + 0.5));
  };
  if (method == 1) {
    for (int32_t y = field == 2 ? last - 1 : last - 2; y >= 1; y -= 2)
      for (int32_t i = 0; i < w * 4; ++i)
        Set(im, i / 4, y, i % 4, Get(im, i / 4, y + (field == 2 ? -1 : 1), i % 4));
    return;
  }
  for (int32_t y = field == 2 ? last - 1 : last; y >= 0; y -= 2) {
    const int32_t a = y - 1 < 0 ? y + 1 : y - 1, b = y + 1 > last ? y - 1 : y + 1;
    auto average = [&](int32_t x) {
      for (int32_t c = 0; c < 4; ++c) put(x, y, c, (Get(im, x, a, c) + Get(im, x, b, c)) * 0.5);
    };
    for (int32_t x = 0; x < w; ++x) {
      if (method == 2) average(x);
      const int32_t reach = method - 2;  // method 3 needs x +- 1, method 4 x +- 2
      if (method == 2 || x < reach || x > w - 1 - reach) continue;
      // A(i), B(i): pixel x + i of the row above / below. Sums in float for Float.
      auto A = [&](int32_t i, int32_t c) { return Get(im, x + i, a, c); };
      auto B = [&](int32_t i, int32_t c) { return Get(im, x + i, b, c); };
      auto S = [&](std::initializer_list<double> v) {
        auto it = v.begin();
        float f = static_cast<float>(*it);
        double d = *it;
        for (++it; it != v.end(); ++it) f = f + static_cast<float>(*it), d += *it;
        return isFloat ? static_cast<double>(f) : d;
      };
      auto D = [&](int32_t i, int32_t rowI, int32_t j, int32_t rowJ) {  // (|0| + |1|) + |2|
        auto F = [&](int32_t at, int32_t row, int32_t c) { return float(Get(im, x + at, row, c)); };
        float d[3];
        for (int32_t c = 0; c < 3; ++c) d[c] = std::fabs(F(i, rowI, c) - F(j, rowJ, c));
        return d[0] + d[1] + d[2];
      };
      int32_t k;
      if (method == 3) {
        float v = D(0, a, 0, b), l = D(0, a, -1, b), r = D(0, a, 1, b);
        float p = D(-1, a, 0, b), q = D(1, a, 0, b);
        float e = D(-1, a, -1, b), f = D(1, a, 1, b);
        k = (l < v && l < r && l <= p && l <= q)   ? 0
            : (r < v && r < l && r <= p && r <= q) ? 1
            : (p < v && p < l && p <= r && p <= q) ? 2
            : (q < v && q < l && q <= r && q <= p) ? 3
            : e == f                               ? 4
            : std::fabs(e - v) < std::fabs(f - v)  ? 5 : 6;
      } else {
        float m[5] = {D(0, b, 0, a), D(-1, b, 0, a), D(1, b, 0, a), D(0, b, -1, a), D(0, b, 1, a)};
        k = 4;
        for (int32_t i : {0, 1, 2, 3}) k = m[i] < m[k] ? i : k;
        k += 7;
      }
      taken[k]++;
      for (int32_t c = 0; c < 4; ++c) {
        double o;
        switch (k) {
          case 0: o = S({B(0, c), B(-1, c), A(0, c)}) * 0.333; break;
          case 1: o = S({B(0, c), B(1, c), A(0, c)}) * 0.333; break;
          case 2: o = S({B(0, c), B(-1, c), A(-1, c)}) * 0.333; break;
          case 3: o = S({B(1, c), A(1, c), B(0, c)}) * 0.333; break;
          case 4: o = S({B(0, c), A(0, c)}) * 0.5; break;
          case 5: o = S({B(0, c), A(0, c)}) * 0.334 + S({A(-1, c), B(-1, c)}) * 0.166; break;
          case 6: o = S({B(0, c), A(0, c)}) * 0.334 + S({B(1, c), A(1, c)}) * 0.166; break;
          case 7: o = S({A(0, c), B(0, c)}) * 0.5; break;
          case 8: o = S({A(-1, c), B(-2, c), B(0, c), A(1, c)}) * 0.1 +
                S({B(-1, c), A(0, c)}) * 0.3;
            break;
          case 9: o = S({A(-1, c), B(2, c), B(0, c), A(1, c)}) * 0.1 + S({B(1, c), A(0, c)}) * 0.3;
            break;
          case 10: o = S({A(-2, c), B(-1, c), B(1, c), A(0, c)}) * 0.1 +
                S({B(0, c), A(-1, c)}) * 0.3;
            break;
          default: o = S({A(2, c), B(-1, c), B(1, c), A(0, c)}) * 0.1 + S({B(0, c), A(1, c)}) * 0.3;
        }
        put(x, y, c, o);
      }
    }
    for (int32_t i = 0; method >= 3 && i < method - 2; ++i) {  // border pass, outside in
      if (i < w) average(i);
      if (w - 1 - i >= 0) average(w - 1 - i);
    }
  }
}

// An image over a buffer of exactly its rows: AddressSanitizer sees a read past the last.
struct Exact {
  std::vector<unsigned char> buffer;
  std::unique_ptr<PLImage> image;
  Exact(int32_t w, int32_t h, int32_t type, int32_t flipped)
      : buffer(static_cast<size_t>(w) * h * 4 * PLBytesPerSample(type)),
        image(new PLImage(buffer.data(), w, h, 4, type, flipped)) {}
};

// Random content, or (levels > 0) so few values that distances often tie.
void FillField(PLImage* im, uint32_t seed, int32_t levels) {
  if (levels == 0) return FillRandom(im, seed);
  std::mt19937 rng(seed);
  const double step = im->dataType == PLFloat ? 0.25 : im->dataType == PLUChar ? 85 : 21845;
  for (int32_t i = 0; i < im->width * im->height * 4; ++i)
    Set(im, i / 4 % im->width, i / 4 / im->width, i % 4, (rng() % levels) * step);
}

class FieldReference : public ::testing::TestWithParam<std::tuple<int32_t, int32_t>> {};

// Every method and type against the reference: sizes from 1 x 2, fields 2, 0 and 7 on odd
// and even heights (so the top and bottom rows are rebuilt with their one neighbour), row
// orders and padding differing between src and dst, random and few-level content, in
// place. The content must take every direction (so every tie rule) of methods 3 and 4.
// Field 1, a method outside 1..4 and a single row (nothing to rebuild from) give the exact
// copy. Any number of workers gives the same bytes.
TEST_P(FieldReference, MatchesLiteralReference) {
  const int32_t type = std::get<0>(GetParam()), method = std::get<1>(GetParam());
  const int32_t sizes[][2] = {{1, 2}, {2, 2}, {3, 3}, {4, 2}, {5, 4}, {6, 5}, {17, 9}, {40, 8},
                              {9, 1}};
  int32_t taken[12] = {};
  uint32_t seed = 100 * type + method;
  for (auto& z : sizes)
    for (int32_t field : {2, 0, 7, 1})
      for (int32_t form = 0; form < 4; ++form, ++seed) {
        TestImage src = MakeImage(z[0], z[1], 4, type, form & 1, 3 * (form & 1));
        FillField(src.get(), seed, form < 2 ? 0 : 2 + seed % 3);
        TestImage want = MakeImage(z[0], z[1], 4, type);
        CopyPixels(want.get(), src.get());
        RefField(want.get(), method, field, taken);
        Exact dst(z[0], z[1], type, 1 - (form & 1));
        PLImage* out = form == 3 ? src.get() : dst.image.get();
        InterpolateField(out, src.get(), method, field);
        ASSERT_TRUE(SamePixels(out, want.get())) << z[0] << "x" << z[1] << " field " << field
                                                  << " form " << form;
      }
  for (int32_t k = method == 3 ? 0 : 7; k < (method == 3 ? 7 : method == 4 ? 12 : 0); ++k)
    EXPECT_GT(taken[k], 0) << "direction " << k;
  // Workers own bands of columns: the bytes do not depend on their number.
  TestImage src = MakeImage(203, 9, 4, type, 0, 4);
  FillField(src.get(), 77 + method, method % 2 ? 0 : 3);
  ExpectSameForAllWorkers([&] {
    TestImage dst = MakeImage(203, 9, 4, type, 1);
    InterpolateField(dst.get(), src.get(), method, method == 3 ? 2 : 0);
    return PixelBytes(dst.get());
  });
}

INSTANTIATE_TEST_SUITE_P(TypesAndMethods, FieldReference,
                         ::testing::Combine(::testing::ValuesIn(kTypes),
                                            ::testing::Values(-1, 0, 1, 2, 3, 4, 5)));

// A 3-channel pair, a size or sample-width mismatch leave dst as it was.
TEST(InterpolateField, Refusals) {
  for (int32_t type : kTypes) {
    TestImage src = MakeImage(9, 6, 4, type, 1, 2), src3 = MakeImage(9, 6, 3, type);
    FillRandom(src.get(), 7);
    TestImage dst3 = MakeImage(9, 6, 3, type), small = MakeImage(9, 5, 4, type);
    TestImage other = MakeImage(9, 6, 4, type == PLUChar ? PLUShort : PLUChar);
    for (auto* d : {dst3.get(), small.get(), other.get()}) {
      Fill(d, 1);
      InterpolateField(d, d->channels == 3 ? src3.get() : src.get(), 2, 0);
      EXPECT_EQ(Get(d, 4, 3, 1) + Get(d, 8, 0, 0), 2.0);
    }
  }
}

}  // namespace
