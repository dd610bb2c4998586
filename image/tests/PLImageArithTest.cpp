// flowblur: sample arithmetic over whole images and the matte members.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"
#include "tests/support/PLTestImages.h"

namespace {

using pltest::MakeImage;
using pltest::PixelBytes;
using pltest::Sample;

void SetPixel4(PLImage* im, int32_t x, int32_t y, float r, float g, float b, float m) {
  const float v[4] = {r, g, b, m};
  for (int32_t c = 0; c < 4; ++c) im->SetChannel(x, y, c, v[c]);
}

// ---- scalings ----

// A float stored as the per-pixel paths store it: truncated, low 8 or 16 bits kept.
float Cast(int32_t type, float v) {
  if (type == PLFloat) return v;
  const uint32_t bits = static_cast<uint32_t>(PLTruncToInt32(v));
  return static_cast<float>(type == PLUChar ? (bits & 0xFF) : (bits & 0xFFFF));
}

// The white of the three working types.
float Full(int32_t type) { return type == PLUChar ? 255.0f : type == PLUShort ? 65535.0f : 1.0f; }

// Each scaling and matte conversion against its rule for sample c of a pixel p, on every
// type and channel count it serves (and on those it leaves alone), in every row layout
// (Float Multiply: unpadded, see below), for 1, 2, 3 and 8 workers, padding untouched. The
// random mattes include 0 and, for Float, values below 1e-07 and above 1.
TEST(ImageArith, ScalingsAndMattesMatchTheirSampleRules) {
  struct Scaling {
    const char* name;
    std::vector<int32_t> types, channels;
    std::function<void(PLImage*)> run;
    std::function<float(int32_t type, int32_t c, const float* p)> rule;
  } scalings[] = {
      {"ScaleUShort", {PLUShort}, {1, 3, 4}, [](PLImage* im) { ScaleUShort(im, 1.7f); },
       [](int32_t, int32_t c, const float* p) {
         return float(uint16_t(uint32_t(PLTruncToInt32(double(p[c] * 1.7f) + 0.5))));
       }},
      {"ScaleClampUShort", {PLUShort}, {1, 2, 3},
       [](PLImage* im) { ScaleClampUShort(im, 1.3f, 60000.0f); },
       [](int32_t, int32_t c, const float* p) {
         return std::floor(std::min(p[c] * 1.3f + 0.5f, 60000.0f));
       }},
      // Four channels are unpremultiplied first (the matte is then scaled too).
      {"ScaleClampUShort of 4", {PLUShort}, {4},
       [](PLImage* im) { ScaleClampUShort(im, 1.3f, 60000.0f); },
       [](int32_t, int32_t c, const float* p) {
         float s = p[c];
         if (c < 3 && p[3] != 0.0f) {
           const float v = std::min(p[c] * (65535.0f / p[3]), 65535.0f);
           s = float(uint32_t(PLTruncToInt32(double(v) + 0.5)));
         }
         return std::floor(std::min(s * 1.3f + 0.5f, 60000.0f));
       }},
      {"ScaleClampUShort below 0", {PLUShort}, {1},
       [](PLImage* im) { ScaleClampUShort(im, -0.2f, 65535.0f); },
       [](int32_t, int32_t c, const float* p) {
         return std::floor(std::max(p[c] * -0.2f + 0.5f, 0.0f));
       }},
      {"Multiply", {PLUChar, PLUShort, PLFloat}, {1, 2, 3, 4},
       [](PLImage* im) { Multiply(im, 0.37f); },
       [](int32_t type, int32_t c, const float* p) { return Cast(type, p[c] * 0.37f); }},
      {"MultiplyColor", {PLUChar, PLUShort}, {4}, [](PLImage* im) { MultiplyColor(im, 0.6f); },
       [](int32_t type, int32_t c, const float* p) {
         return c == 3 ? p[3] : Cast(type, 0.6f * p[c] + 0.5f);
       }},
      {"MultiplyColor of 3", {PLUChar}, {3}, [](PLImage* im) { MultiplyColor(im, 0.6f); },
       [](int32_t type, int32_t c, const float* p) { return Cast(type, p[c] * 0.6f); }},
      {"MultiplyChannel", {PLUChar, PLUShort}, {2, 4},
       [](PLImage* im) { MultiplyChannel(im, 0.3f, 1); },
       [](int32_t type, int32_t c, const float* p) {
         return c == 1 ? Cast(type, p[c] * 0.3f) : p[c];
       }},
      {"MultiplyFlow", {PLFloat}, {2, 3}, [](PLImage* im) { MultiplyFlow(im, 0.5f, -3.0f); },
       [](int32_t, int32_t c, const float* p) {
         return c == 0 ? p[c] * 0.5f : c == 1 ? p[c] * -3.0f : p[c];
       }},
      // Integer colours scaled up to white and rounded through a double; a zero matte (and for
      // Float one below 1e-07) keeps the pixel; Float is not limited.
      {"Unpremultiply", {PLUChar, PLUShort, PLFloat}, {3, 4},
       [](PLImage* im) { Unpremultiply(im); },
       [](int32_t type, int32_t c, const float* p) {
         if (c == 3 || (type == PLFloat ? !(p[3] >= 1e-07f) : p[3] == 0.0f)) return p[c];
         if (type == PLFloat) return p[c] * (1.0f / p[3]);
         const float v = std::min(p[c] * (Full(type) / p[3]), Full(type));
         return float(uint32_t(PLTruncToInt32(double(v) + 0.5)));
       }},
      // The source's matte over factor times white; integer colours rounded, low bits kept.
      {"PremultiplyFrom", {PLUChar, PLUShort, PLFloat}, {4},
       [](PLImage* im) { PremultiplyFrom(im, im, 0.8f); },
       [](int32_t type, int32_t c, const float* p) {
         const float v = p[c] * (p[3] * (1.0f / (0.8f * Full(type))));
         return c == 3 ? p[3] : type == PLFloat ? v : Cast(type, v + 0.5f);
       }},
      {"Premultiply", {PLUChar, PLFloat}, {4}, [](PLImage* im) { Premultiply(im); },
       [](int32_t type, int32_t c, const float* p) {
         const float v = p[c] * (p[3] * (1.0f / (1.0f * Full(type))));
         return c == 3 ? p[3] : type == PLFloat ? v : Cast(type, v + 0.5f);
       }},
  };
  pltest::WorkerGuard guard;
  for (const Scaling& k : scalings)
    for (int32_t type : k.types)
      for (int32_t channels : k.channels)
        for (pltest::Layout layout : pltest::kLayouts)
          for (int32_t workers : kPLTestWorkerCounts) {
            const std::string name = k.name;
            const bool padded = layout == pltest::kPadded || layout == pltest::kPaddedFlipped;
            if (padded && type == PLFloat && name == "Multiply") continue;
            auto im = MakeImage(7, 150, channels, type, layout);
            pltest::FillRandom(im.get(), 8 + channels);
            PLImage before(7, 150, channels, type, 0);
            CopyWhole(&before, im.get());
            PLTestUseWorkers(workers);
            k.run(im.get());
            PLTestUseWorkers(1);
            const bool served = name == "MultiplyFlow" ? channels == 2
                                : name == "Unpremultiply" ? channels == 4
                                                          : true;
            for (int32_t y = 0; y < 150; ++y)
              for (int32_t x = 0; x < 7; ++x) {
                float p[4];
                for (int32_t c = 0; c < channels; ++c) p[c] = Sample(&before, x, y, c);
                for (int32_t c = 0; c < channels; ++c)
                  ASSERT_EQ(Sample(im.get(), x, y, c), served ? k.rule(type, c, p) : p[c])
                      << name << " type " << type << " c" << channels << " "
                      << pltest::LayoutName(layout) << " workers " << workers << " at " << x
                      << "," << y << "," << c;
              }
            ASSERT_TRUE(pltest::PaddingUntouched(im)) << name;
          }
}

// kept: Multiply treats factors within 1e-6 of 1 as 1.
TEST(ImageArith, MultiplyNearOneIsANoOp) {
  PLImage f(3, 2, 2, PLFloat, 0);
  pltest::FillRandom(&f, 1);
  auto before = PixelBytes(&f);
  Multiply(&f, 1.0000001f);
  EXPECT_EQ(PixelBytes(&f), before);
  Multiply(&f, 1.00001f);
  EXPECT_EQ(Sample(&f, 2, 1, 1), PLLoad<float>(&before[before.size() - 4]) * 1.00001f);
}

TEST(ImageArith, ScalingsIgnoreOtherTypesAndChannels) {
  PLImage f(2, 2, 4, PLFloat, 0), c(2, 2, 1, PLChar, 0), u(2, 2, 3, PLUChar, 0);
  pltest::FillRandom(&u, 3);
  auto unchanged = PixelBytes(&u);
  MultiplyChannel(&u, 1.0f, 1);
  MultiplyChannel(&u, 2.0f, 3);  // no such channel
  EXPECT_EQ(PixelBytes(&u), unchanged);
  pltest::FillRandom(&f, 2);
  std::memset(c.data, 9, 4);
  auto before = PixelBytes(&f);
  ScaleUShort(&f, 2.0f);
  ScaleClampUShort(&f, 2.0f, 1.0f);
  EXPECT_EQ(PixelBytes(&f), before);
  Multiply(&c, 2.0f);
  MultiplyColor(&c, 2.0f);
  MultiplyChannel(&c, 2.0f, 0);
  EXPECT_EQ(c.data[3], 9);
  ScaleUShort(nullptr, 2.0f);
  Multiply(nullptr, 2.0f);
}

// ---- Multiply on a padded wrapped Float image ----

// One contiguous run per worker slice, from the lower address of its two end rows.
std::vector<unsigned char> MultiplyRunsReference(const pltest::TestImage& t, float factor,
                                                 int32_t threads) {
  std::vector<unsigned char> store = t.buffer;
  const PLImage* im = t.get();
  for (int32_t index = 0; index < threads; ++index) {
    int32_t first, last;
    NuvMPRowRange(threads, index, im->height, &first, &last);
    int32_t rowA = im->flipped ? im->lastRow - first : first;
    int32_t rowB = im->flipped ? im->lastRow - last : last;
    size_t start = static_cast<size_t>(std::min(rowA, rowB)) * im->rowBytes;
    size_t n = static_cast<size_t>(last - first + 1) * im->width * im->channels;
    for (size_t i = 0; i < n; ++i) {
      float v = PLLoad<float>(&store[start + 4 * i]);
      PLStore<float>(&store[start + 4 * i], v * factor);
    }
  }
  return store;
}

TEST(ImageArith, MultiplyPaddedFloatScalesTheGapsAndStaysInsideItsRows) {
  pltest::WorkerGuard guard;
  for (pltest::Layout layout : {pltest::kPadded, pltest::kPaddedFlipped})
    for (int32_t workers : kPLTestWorkerCounts) {
      PLTestUseWorkers(workers);
      auto im = MakeImage(5, 140, 2, PLFloat, layout);
      pltest::FillRandom(im.get(), 8);
      auto expected = MultiplyRunsReference(im, 2.5f, NuvMPThreadsForRows(140));
      Multiply(im.get(), 2.5f);
      EXPECT_TRUE(im.buffer == expected)
          << pltest::LayoutName(layout) << " workers " << workers;
      // The spare row after the image is never reached.
      size_t end = static_cast<size_t>(im->rowBytes) * 140;
      for (size_t i = end; i < im.buffer.size(); ++i) ASSERT_EQ(im.buffer[i], 0xCD);
    }
  // With one worker on three rows: rows 0 and 1 and their gaps scaled, row 2 missed.
  PLTestUseWorkers(1);
  auto small = MakeImage(4, 3, 1, PLFloat, pltest::kPadded);
  pltest::Fill(small.get(), 1.0);
  Multiply(small.get(), 2.0f);
  EXPECT_EQ(Sample(small.get(), 3, 1, 0), 2.0f);
  EXPECT_EQ(Sample(small.get(), 0, 2, 0), 1.0f);
}

// ---- two-image operations ----

// The serial walk, slowly: read both through GetChannel, combine, write with SetChannel.
void TwoImageReference(PLImage* dst, const PLImage* src, float (*op)(float, float)) {
  for (int32_t y = 0; y < dst->height; ++y)
    for (int32_t x = 0; x < dst->width; ++x)
      for (int32_t c = 0; c < dst->channels; ++c)
        dst->SetChannel(x, y, c, op(Sample(dst, x, y, c), Sample(src, x, y, c)));
}

float SubRef(float a, float b) { return a - b; }
float AddRef(float a, float b) { return a + b; }
float MinRef(float a, float b) { return b > a ? a : b; }
float MaxRef(float a, float b) { return a < b ? b : a; }

TEST(ImageArith, TwoImageOperationsMatchTheReferenceForEveryTypePairAndWorkerCount) {
  pltest::WorkerGuard guard;
  struct Op {
    const char* name;
    std::function<void(PLImage*, const PLImage*)> run;
    float (*ref)(float, float);
  } ops[] = {{"Subtract", [](PLImage* d, const PLImage* s) { Subtract(d, s); }, SubRef},
             {"Add", [](PLImage* d, const PLImage* s) { Add(d, s); }, AddRef},
             {"Min", [](PLImage* d, const PLImage* s) { Min(d, s); }, MinRef},
             {"Min3", [](PLImage* d, const PLImage* s) { Min(d, nullptr, s); }, MinRef},
             {"Max", [](PLImage* d, const PLImage* s) { Max(d, s); }, MaxRef}};
  const int32_t types[] = {PLUChar, PLUShort, PLFloat};
  for (const Op& op : ops)
    for (int32_t dt : types)
      for (int32_t st : types)
        for (int32_t channels : {1, 2, 3, 4})
          for (int32_t workers : kPLTestWorkerCounts) {
            auto dst = MakeImage(6, 150, channels, dt, pltest::kLayouts[workers % 4]);
            auto src = MakeImage(6, 150, channels, st, pltest::kLayouts[(workers + 1) % 4]);
            pltest::FillRandom(dst.get(), 40, -100.0f, 300.0f);
            pltest::FillRandom(src.get(), 41, -100.0f, 300.0f);
            PLImage expected(6, 150, channels, dt, 0);
            CopyWhole(&expected, dst.get());
            TwoImageReference(&expected, src.get(), op.ref);
            PLTestUseWorkers(workers);
            op.run(dst.get(), src.get());
            PLTestUseWorkers(1);
            ASSERT_TRUE(PixelBytes(dst.get()) == PixelBytes(&expected))
                << op.name << " " << dt << "<-" << st << " c" << channels << " workers " << workers;
            ASSERT_TRUE(pltest::PaddingUntouched(dst));
          }
}

TEST(ImageArith, TwoImageOperationsRefuseLongAndMismatches) {
  PLImage l(2, 1, 1, PLLong, 0), f(2, 1, 1, PLFloat, 0);
  std::memset(l.data, 1, 8);
  pltest::FillRandom(&f, 3);
  auto before = PixelBytes(&f);
  Subtract(&f, &l);
  Add(&l, &f);
  EXPECT_EQ(PixelBytes(&f), before);
  EXPECT_EQ(l.data[7], 1);
  Subtract(nullptr, &f);
  Subtract(&f, nullptr);
  PLImage smaller(1, 1, 1, PLFloat, 0);
  Subtract(&f, &smaller);  // src smaller than dst: refused
  EXPECT_EQ(PixelBytes(&f), before);
}

// ---- mattes ----

// A Float matte of exactly 1e-07 divides; one just below keeps the pixel.
TEST(ImageMatte, UnpremultiplyFloatThreshold) {
  PLImage f(2, 1, 4, PLFloat, 0);
  SetPixel4(&f, 0, 0, 0.4f, 0.8f, 2.0f, 9e-08f);
  SetPixel4(&f, 1, 0, 0.4f, 0.8f, 2.0f, 1e-07f);
  Unpremultiply(&f);
  EXPECT_EQ(Sample(&f, 0, 0, 0), 0.4f);
  EXPECT_EQ(Sample(&f, 1, 0, 0), 0.4f * (1.0f / 1e-07f));
}

TEST(ImageMatte, PremultiplyFromTakesColourAndMatteOfTheSource) {
  PLImage dst(2, 2, 4, PLUShort, 0), src(3, 3, 4, PLUShort, 1), wrong(2, 2, 4, PLUChar, 0);
  pltest::FillRandom(&dst, 1);
  pltest::FillRandom(&src, 2);
  const auto before = PixelBytes(&dst);
  PremultiplyFrom(&dst, &wrong, 1.0f);  // type differs: nothing
  EXPECT_EQ(PixelBytes(&dst), before);
  PremultiplyFrom(&dst, &src, 2.0f);
  for (int32_t i = 0; i < 16; ++i) {
    const int32_t x = i / 4 % 2, y = i / 8, c = i % 4;
    const float m = Sample(&src, x, y, 3), k = m * (1.0f / (2.0f * 65535.0f));
    EXPECT_EQ(Sample(&dst, x, y, c), c == 3 ? m : float(int32_t(Sample(&src, x, y, c) * k + 0.5f)))
        << x << "," << y << "," << c;
  }
}

TEST(ImageMatte, MembersMoveTheMatteMode) {
  PLImage im(2, 1, 4, PLUChar, 0);
  SetPixel4(&im, 0, 0, 50, 50, 50, 255);
  SetPixel4(&im, 1, 0, 50, 50, 50, 100);
  EXPECT_EQ(im.matteMode, MatteUnknown);
  im.ToStraightMatte();  // not premultiplied: nothing
  EXPECT_EQ(im.matteMode, MatteUnknown);
  EXPECT_EQ(Sample(&im, 1, 0, 0), 50.0f);
  im.UpdateMatteMode(1);
  EXPECT_EQ(im.matteMode, MattePremultiplied);
  im.UpdateMatteMode(0);  // known already: unchanged
  EXPECT_EQ(im.matteMode, MattePremultiplied);
  im.ToStraightMatte();
  EXPECT_EQ(im.matteMode, MatteStraight);
  EXPECT_EQ(Sample(&im, 1, 0, 0), 128.0f);  // 50 * 2.55 + 0.5
  im.ToPremultipliedMatte();
  EXPECT_EQ(im.matteMode, MattePremultiplied);
  EXPECT_EQ(Sample(&im, 1, 0, 0), 50.0f);
  SetPixel4(&im, 1, 0, 50, 50, 50, 255);
  im.UpdateMatteMode(0);
  EXPECT_EQ(im.matteMode, MatteOpaque);
  PLImage deep(1, 1, 4, PLUShort, 0);
  SetPixel4(&deep, 0, 0, 1, 2, 3, 65535);
  deep.UpdateMatteMode(0);
  EXPECT_EQ(deep.matteMode, MatteOpaque);
  PLImage fresh(1, 1, 4, PLFloat, 0);
  SetPixel4(&fresh, 0, 0, 0.5f, 0.5f, 0.5f, 0.5f);
  fresh.UpdateMatteMode(0);
  EXPECT_EQ(fresh.matteMode, MatteStraight);
}

}  // namespace
