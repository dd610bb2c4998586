// flowblur tests: field interpolation against a literal reference, refusals, borders, workers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <random>
#include <tuple>
#include <vector>

#include "fill/InterpolateField.h"
#include "tests/support/PLTestImages.h"

using namespace pltest;

namespace {

// An image over a buffer of exactly its rows, so that AddressSanitizer sees a read one
// pixel past the last row in memory.
struct ExactImage {
  std::vector<unsigned char> buffer;
  std::unique_ptr<PLImage> image;
  PLImage* get() const { return image.get(); }
};
ExactImage MakeExact(int32_t w, int32_t h, int32_t type, int32_t flipped) {
  ExactImage e;
  e.buffer.resize(static_cast<size_t>(w) * h * 4 * PLBytesPerSample(type));
  e.image.reset(new PLImage(e.buffer.data(), w, h, 4, type, flipped));
  return e;
}

// Random content; `levels` > 0 draws from so few values that distances tie often.
void FillField(PLImage* im, uint32_t seed, int32_t levels) {
  if (levels <= 0) return FillRandom(im, seed);
  std::mt19937 rng(seed);
  const double step = im->dataType == PLFloat ? 0.25 : im->dataType == PLUChar ? 85.0 : 21845.0;
  for (int32_t y = 0; y < im->height; ++y)
    for (int32_t x = 0; x < im->width; ++x)
      for (int32_t c = 0; c < 4; ++c) Set(im, x, y, c, (rng() % levels) * step);
}

// ---- the literal reference, on one image in place, serial ----

struct Ref {
  PLImage* im;
  int32_t type;
  int32_t branches[12] = {};  // method 3: 0..6, method 4: 7..11

  float F(int32_t x, int32_t y, int32_t c) const { return static_cast<float>(Get(im, x, y, c)); }
  // A sum of samples as written: float left to right for Float, exact otherwise.
  double Sum(std::initializer_list<double> v) const {
    if (type != PLFloat) {
      double s = 0.0;
      for (double d : v) s += d;
      return s;
    }
    auto it = v.begin();
    float s = static_cast<float>(*it++);
    for (; it != v.end(); ++it) s = s + static_cast<float>(*it);
    return static_cast<double>(s);
  }
  void Put(int32_t x, int32_t y, int32_t c, double v) {
    if (type == PLFloat)
      Set(im, x, y, c, static_cast<float>(v));
    else
      Set(im, x, y, c, static_cast<double>(static_cast<int32_t>(v + 0.5)));
  }
  float D(int32_t x0, int32_t y0, int32_t x1, int32_t y1) const {
    float d = 0.0f;
    for (int32_t c = 0; c < 3; ++c) {
      float t = std::fabs(F(x0, y0, c) - F(x1, y1, c));
      d = c == 0 ? t : d + t;
    }
    return d;
  }
  void Average(int32_t x, int32_t y, int32_t a, int32_t b) {
    for (int32_t c = 0; c < 4; ++c) Put(x, y, c, (Get(im, x, a, c) + Get(im, x, b, c)) * 0.5);
  }

  void Method3(int32_t x, int32_t y, int32_t a, int32_t b) {
    auto A = [&](int32_t dx, int32_t c) { return Get(im, x + dx, a, c); };
    auto B = [&](int32_t dx, int32_t c) { return Get(im, x + dx, b, c); };
    float v = D(x, a, x, b), l = D(x, a, x - 1, b), r = D(x, a, x + 1, b);
    float p = D(x - 1, a, x, b), q = D(x + 1, a, x, b);
    int32_t k;
    if (l < v && l < r && l <= p && l <= q) k = 0;
    else if (r < v && r < l && r <= p && r <= q) k = 1;
    else if (p < v && p < l && p <= r && p <= q) k = 2;
    else if (q < v && q < l && q <= r && q <= p) k = 3;
    else {
      float e = D(x - 1, a, x - 1, b), f = D(x + 1, a, x + 1, b);
      k = e == f ? 4 : std::fabs(e - v) < std::fabs(f - v) ? 5 : 6;
    }
    branches[k]++;
    for (int32_t c = 0; c < 4; ++c) {
      double o;
      switch (k) {
        case 0: o = Sum({B(0, c), B(-1, c), A(0, c)}) * 0.333; break;
        case 1: o = Sum({B(0, c), B(1, c), A(0, c)}) * 0.333; break;
        case 2: o = Sum({B(0, c), B(-1, c), A(-1, c)}) * 0.333; break;
        case 3: o = Sum({B(1, c), A(1, c), B(0, c)}) * 0.333; break;
        case 4: o = Sum({B(0, c), A(0, c)}) * 0.5; break;
        case 5: o = Sum({B(0, c), A(0, c)}) * 0.334 + Sum({A(-1, c), B(-1, c)}) * 0.166; break;
        default: o = Sum({B(0, c), A(0, c)}) * 0.334 + Sum({B(1, c), A(1, c)}) * 0.166; break;
      }
      Put(x, y, c, o);
    }
  }

  void Method4(int32_t x, int32_t y, int32_t a, int32_t b) {
    auto A = [&](int32_t dx, int32_t c) { return Get(im, x + dx, a, c); };
    auto B = [&](int32_t dx, int32_t c) { return Get(im, x + dx, b, c); };
    float m[5] = {D(x, b, x, a), D(x - 1, b, x, a), D(x + 1, b, x, a), D(x, b, x - 1, a),
                  D(x, b, x + 1, a)};
    int32_t best = 4;
    for (int32_t i : {0, 1, 2, 3})
      if (m[i] < m[best]) best = i;
    branches[7 + best]++;
    for (int32_t c = 0; c < 4; ++c) {
      double o;
      switch (best) {
        case 0: o = Sum({A(0, c), B(0, c)}) * 0.5; break;
        case 1: o = Sum({A(-1, c), B(-2, c), B(0, c), A(1, c)}) * 0.1 + Sum({B(-1, c), A(0, c)}) * 0.3; break;
        case 2: o = Sum({A(-1, c), B(2, c), B(0, c), A(1, c)}) * 0.1 + Sum({B(1, c), A(0, c)}) * 0.3; break;
        case 3: o = Sum({A(-2, c), B(-1, c), B(1, c), A(0, c)}) * 0.1 + Sum({B(0, c), A(-1, c)}) * 0.3; break;
        default: o = Sum({A(2, c), B(-1, c), B(1, c), A(0, c)}) * 0.1 + Sum({B(0, c), A(1, c)}) * 0.3; break;
      }
      Put(x, y, c, o);
    }
  }

  void Run(int32_t method, int32_t field) {
    const int32_t last = im->lastRow, w = im->width;
    if (method == 0 || field == 1 || method > 4 || im->height < 2) return;
    if (method == 1) {
      int32_t from = field == 2 ? -1 : 1;
      for (int32_t y = field == 2 ? last - 1 : last - 2; y >= 1; y -= 2)
        for (int32_t x = 0; x < w; ++x)
          for (int32_t c = 0; c < 4; ++c) Set(im, x, y, c, Get(im, x, y + from, c));
      return;
    }
    for (int32_t y = field == 2 ? last - 1 : last; y >= 0; y -= 2) {
      int32_t a = y - 1 < 0 ? y + 1 : y - 1, b = y + 1 > last ? y - 1 : y + 1;
      for (int32_t x = 0; x < w; ++x) {
        if (method == 2) Average(x, y, a, b);
        if (method == 3 && x >= 1 && x < w - 1) Method3(x, y, a, b);
        if (method == 4 && x >= 2 && x < w - 2) Method4(x, y, a, b);
      }
      // Border pass, outside in.
      for (int32_t i = 0; method >= 3 && i < method - 2; ++i) {
        if (i < w) Average(i, y, a, b);
        if (w - 1 - i >= 0) Average(w - 1 - i, y, a, b);
      }
    }
  }
};

const int32_t kTypes[] = {PLUChar, PLUShort, PLFloat};

// ---- tests ----

class FieldReference : public ::testing::TestWithParam<std::tuple<int32_t, int32_t>> {};

// Every method on every type against the reference: sizes from 1 x 2 up, fields 2, 0 and 7
// (either parity, for odd and even heights), row orders and padding differing between src
// and dst, content both random and of few levels (many ties), and dst == src.
TEST_P(FieldReference, MatchesLiteralReference) {
  const int32_t type = std::get<0>(GetParam()), method = std::get<1>(GetParam());
  const int32_t sizes[][2] = {{1, 2}, {2, 2}, {3, 3}, {4, 2}, {5, 4}, {6, 5}, {17, 9}, {40, 8}};
  int32_t branches[12] = {};
  uint32_t seed = 100 * type + method;
  for (auto& z : sizes)
    for (int32_t field : {2, 0, 7})
      for (int32_t form = 0; form < 4; ++form) {
        TestImage src = MakeImage(z[0], z[1], 4, type, form & 1, 3 * (form & 1));
        const int32_t levels = form < 2 ? 0 : 2 + static_cast<int32_t>(seed % 3);
        FillField(src.get(), seed++, levels);
        TestImage want = MakeImage(z[0], z[1], 4, type);
        CopyPixels(want.get(), src.get());
        Ref ref{want.get(), type};
        ref.Run(method, field);
        for (int32_t i = 0; i < 12; ++i) branches[i] += ref.branches[i];

        if (form == 3) {  // in place
          InterpolateField(src.get(), src.get(), method, field);
          ASSERT_TRUE(SamePixels(src.get(), want.get())) << z[0] << "x" << z[1] << " in place";
          continue;
        }
        ExactImage dst = MakeExact(z[0], z[1], type, 1 - (form & 1));
        InterpolateField(dst.get(), src.get(), method, field);
        ASSERT_TRUE(SamePixels(dst.get(), want.get()))
            << z[0] << "x" << z[1] << " field " << field << " form " << form;
      }
  // The content must have reached every direction of the method (and so every tie rule).
  const int32_t from = method == 3 ? 0 : 7, to = method == 3 ? 7 : method == 4 ? 12 : 0;
  for (int32_t k = from; k < to; ++k) EXPECT_GT(branches[k], 0) << "direction " << k - from;
}

INSTANTIATE_TEST_SUITE_P(TypesAndMethods, FieldReference,
                         ::testing::Combine(::testing::ValuesIn(kTypes),
                                            ::testing::Values(1, 2, 3, 4)));

// Field 1, method 0 and methods outside 1..4 leave the exact copy; a 3-channel image, a
// size or sample-width mismatch and a one-row image are refused before or after the copy
// as documented.
TEST(InterpolateField, CopiesAndRefusals) {
  for (int32_t type : kTypes) {
    TestImage src = MakeImage(9, 6, 4, type, 1, 2);
    FillRandom(src.get(), 7);
    for (auto mf : {std::make_pair(3, 1), std::make_pair(0, 2), std::make_pair(5, 0),
                    std::make_pair(-1, 2), std::make_pair(4, 1)}) {
      TestImage dst = MakeImage(9, 6, 4, type, 0, 5);
      InterpolateField(dst.get(), src.get(), mf.first, mf.second);
      EXPECT_TRUE(SamePixels(dst.get(), src.get())) << mf.first << " " << mf.second;
      EXPECT_TRUE(PaddingUntouched(dst));
    }
    // Refused with dst as it was: 3 channels, other size, other sample width.
    TestImage src3 = MakeImage(9, 6, 3, type);
    FillRandom(src3.get(), 8);
    TestImage dst3 = MakeImage(9, 6, 3, type);
    Fill(dst3.get(), 1);
    InterpolateField(dst3.get(), src3.get(), 2, 0);
    for (int32_t y = 0; y < 6; ++y) EXPECT_EQ(Get(dst3.get(), 4, y, 1), 1.0);
    TestImage small = MakeImage(9, 5, 4, type);
    Fill(small.get(), 1);
    InterpolateField(small.get(), src.get(), 2, 0);
    EXPECT_EQ(Get(small.get(), 0, 0, 0), 1.0);
    // One row: the copy, nothing rebuilt.
    TestImage row = MakeImage(9, 1, 4, type);
    TestImage rowDst = MakeImage(9, 1, 4, type);
    FillRandom(row.get(), 9);
    for (int32_t method = 1; method <= 4; ++method) {
      InterpolateField(rowDst.get(), row.get(), method, 0);
      EXPECT_TRUE(SamePixels(rowDst.get(), row.get()));
    }
  }
  TestImage a = MakeImage(9, 6, 4, PLUShort), b = MakeImage(9, 6, 4, PLUChar);
  Fill(a.get(), 1000);
  InterpolateField(a.get(), b.get(), 2, 0);
  EXPECT_EQ(Get(a.get(), 3, 3, 3), 1000.0);
}

// A flat image stays flat: method 3 through the vertical branch exactly, method 4 through
// index 4 with weights 0.4 + 0.6, exact for integers and within one float step for Float.
TEST(InterpolateField, FlatImageStaysFlat) {
  const double values[] = {200, 51234, 0.7};
  for (int32_t t = 0; t < 3; ++t)
    for (int32_t method : {3, 4}) {
      TestImage src = MakeImage(23, 7, 4, kTypes[t]);
      Fill(src.get(), values[t]);
      TestImage dst = MakeImage(23, 7, 4, kTypes[t]);
      InterpolateField(dst.get(), src.get(), method, 0);
      const double flat = Get(src.get(), 0, 0, 0);
      // One float step near 0.7.
      const double tolerance = kTypes[t] == PLFloat ? std::ldexp(1.0, -24) : 0.0;
      for (int32_t y = 0; y < 7; ++y)
        for (int32_t x = 0; x < 23; ++x)
          for (int32_t c = 0; c < 4; ++c)
            ASSERT_NEAR(Get(dst.get(), x, y, c), flat, tolerance) << method << " " << x << "," << y;
    }
}

// A rebuilt top row reads row 1 as both neighbours, a rebuilt bottom row row lastRow - 1:
// the line average then copies that row. Method 1 never writes row 0, and with a field
// other than 2 not lastRow either; it copies the kept neighbour.
TEST(InterpolateField, EdgeRowsAndReplication) {
  for (int32_t type : kTypes)
    for (int32_t height : {5, 6}) {
      TestImage src = MakeImage(11, height, 4, type);
      FillRandom(src.get(), 40 + height);
      const int32_t last = height - 1;
      for (int32_t field : {2, 0}) {
        TestImage dst = MakeImage(11, height, 4, type, 1);
        InterpolateField(dst.get(), src.get(), 2, field);
        // Row 0 is rebuilt when its parity is the rebuilt one; so is lastRow for field 0.
        bool topRebuilt = (field == 2 ? last - 1 : last) % 2 == 0;
        for (int32_t x = 0; x < 11; ++x)
          for (int32_t c = 0; c < 4; ++c) {
            if (topRebuilt) {
              EXPECT_EQ(Get(dst.get(), x, 0, c), Get(src.get(), x, 1, c));
            }
            if (field != 2) {
              EXPECT_EQ(Get(dst.get(), x, last, c), Get(src.get(), x, last - 1, c));
            }
          }
        TestImage rep = MakeImage(11, height, 4, type);
        InterpolateField(rep.get(), src.get(), 1, field);
        for (int32_t y = 0; y < height; ++y) {
          bool kept = y == 0 || (field != 2 && y == last) ||
                      (y % 2) != ((field == 2 ? last - 1 : last) % 2);
          int32_t from = kept ? y : field == 2 ? y - 1 : y + 1;
          for (int32_t x = 0; x < 11; ++x)
            for (int32_t c = 0; c < 4; ++c)
              ASSERT_EQ(Get(rep.get(), x, y, c), Get(src.get(), x, from, c))
                  << "field " << field << " row " << y;
        }
      }
    }
}

// Workers own bands of columns: the bytes do not depend on their number.
TEST(InterpolateField, SameBytesForAllWorkers) {
  for (int32_t type : kTypes)
    for (int32_t method = 1; method <= 4; ++method) {
      TestImage src = MakeImage(203, 9, 4, type, 0, 4);
      FillField(src.get(), 77 + method, method % 2 ? 0 : 3);
      ExpectSameForAllWorkers([&] {
        TestImage dst = MakeImage(203, 9, 4, type, 1);
        InterpolateField(dst.get(), src.get(), method, method == 3 ? 2 : 0);
        return PixelBytes(dst.get());
      });
    }
}

}  // namespace
