// flowblur: the propagation sweeps against a slow reference, and their edge cases.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "flow/tests/FlowTestSupport.h"
#include "tests/support/PLTestWorkers.h"

using flowtest::At;

namespace {

uint32_t Next(uint32_t& s) {
  s = s * 1664525u + 1013904223u;
  return s >> 8;
}

void FillNoise(PLImage* image, uint32_t seed) { pltest::FillRandom(image, seed, 0.0f, 256.0f); }

// ---- The slow reference: every rule spelt out, no shortcuts ------------------------------

struct Ref {
  const PLImage* a;
  const PLImage* b;
  const PLImage* ma;  // null without masks
  const PLImage* mb;
  int32_t w, h;

  bool Patch(int32_t x, int32_t y, float u, float v, float* e) const {
    const float sx = x - u, sy = y - v;
    if (std::isnan(sx) || std::isnan(sy)) return false;  // our choice: NaN is outside
    if (sx > w - 2 || sy > h - 2) return false;
    int32_t ix, iy;
    float tx, ty;
    if (sx == static_cast<float>(w - 2)) {
      tx = 1.0f;
      ix = w - 3;
    } else {
      ix = static_cast<int32_t>(sx);
      tx = sx - ix;
    }
    if (sy == static_cast<float>(h - 2)) {
      ty = 1.0f;
      iy = h - 3;
    } else {
      iy = static_cast<int32_t>(sy);
      ty = sy - iy;
    }
    if (ix < 1 || iy < 1) return false;
    if (mb)
      for (int32_t j = iy - 1; j <= iy + 2; ++j)
        for (int32_t i = ix - 1; i <= ix + 2; ++i)
          if (static_cast<double>(At(mb, i, j)) < 0.95) return false;
    const float w00 = 1 - tx - ty + tx * ty, w10 = tx - tx * ty, w01 = ty - tx * ty,
                w11 = tx * ty;
    float sum = 0.0f;
    for (int32_t j = 0; j < 3; ++j)
      for (int32_t i = 0; i < 3; ++i) {
        const float s = w00 * At(b, ix - 1 + i, iy - 1 + j) + w10 * At(b, ix + i, iy - 1 + j) +
                        w01 * At(b, ix - 1 + i, iy + j) + w11 * At(b, ix + i, iy + j);
        const float d = At(a, x - 1 + i, y - 1 + j) - s;
        sum += d * d;
      }
    *e = sum;
    return true;
  }

  void Pixel(PLImage* flow, int32_t x, int32_t y, int32_t nx, int32_t ny) const {
    const float u = At(flow, x, y, 0), v = At(flow, x, y, 1);
    const float sx = x - u, sy = y - v;
    if (std::isnan(sx) || std::isnan(sy)) return;
    if (sx < 0 || sx > w - 1 || sy < 0 || sy > h - 1) return;
    if (ma)
      for (int32_t j = y - 1; j <= y + 1; ++j)
        for (int32_t i = x - 1; i <= x + 1; ++i)
          if (static_cast<double>(At(ma, i, j)) < 0.95) return;
    float e0, e1;
    if (!Patch(x, y, u, v, &e0)) return;
    const float gu = At(flow, nx, ny, 0), gv = At(flow, nx, ny, 1);
    if (Patch(x, y, gu, gv, &e1) && e1 < e0) {
      At(flow, x, y, 0) = gu;
      At(flow, x, y, 1) = gv;
    }
  }

  void Sweeps(PLImage* flow) const {
    for (int32_t y = 1; y <= h - 2; ++y)
      for (int32_t x = 1; x <= w - 2; ++x) Pixel(flow, x, y, x - 1, y);
    for (int32_t y = 1; y <= h - 2; ++y)
      for (int32_t x = w - 2; x >= 1; --x) Pixel(flow, x, y, x + 1, y);
    for (int32_t x = 1; x <= w - 2; ++x)
      for (int32_t y = 1; y <= h - 2; ++y) Pixel(flow, x, y, x, y - 1);
    for (int32_t x = 1; x <= w - 2; ++x)
      for (int32_t y = h - 2; y >= 1; --y) Pixel(flow, x, y, x, y + 1);
  }
};

// A one-level estimator whose level images the test fills by hand.
std::unique_ptr<PLOpticalFlowUChar> Estimator(int32_t w, int32_t h, int32_t masks) {
  return std::unique_ptr<PLOpticalFlowUChar>(new PLOpticalFlowUChar(w, h, 0, 0, masks, 1000));
}

// A second image that is the first moved by a smooth field plus noise, and a flow field
// mixing good, poor, out-of-frame, border-grazing and NaN vectors.
void FillScene(PLOpticalFlowUChar* est, uint32_t seed) {
  PLImage* a = est->firstPyramid[0];
  PLImage* b = est->secondPyramid[0];
  PLImage* f = est->flowPyramid[0];
  FillNoise(a, seed);
  const int32_t w = a->width, h = a->height;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const int32_t sx = x - 2 - (y > h / 2 ? 1 : 0);
      At(b, x, y) = sx >= 0 ? At(a, sx, y) : 17.0f;
    }
  uint32_t s = seed ^ 0x9e3779b9u;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const uint32_t r = Next(s) % 16;
      float u, v;
      if (r < 5) {
        u = -2.0f - (y > h / 2 ? 1.0f : 0.0f);
        v = 0.0f;
      } else if (r < 13) {
        u = static_cast<float>(static_cast<int32_t>(Next(s) % 1200) - 600) / 100.0f;
        v = static_cast<float>(static_cast<int32_t>(Next(s) % 800) - 400) / 100.0f;
      } else if (r < 15) {
        u = static_cast<float>(x - (w - 2));  // exactly onto the second-to-last column
        v = static_cast<float>(static_cast<int32_t>(Next(s) % 5)) - 2.0f;
      } else {
        u = static_cast<float>(x + 1);  // one past the left edge
        v = 0.0f;
      }
      At(f, x, y, 0) = u;
      At(f, x, y, 1) = v;
      if (Next(s) % 23 == 0) At(f, x, y, (x + y) & 1) = std::nanf("");  // NaN: outside
    }
  if (est->firstMaskPyramid) {
    PLImage* ma = est->firstMaskPyramid[0];
    PLImage* mb = est->secondMaskPyramid[0];
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        At(ma, x, y) = (Next(s) % 97) == 0 ? 0.5f : 1.0f;
        At(mb, x, y) = (Next(s) % 89) == 0 ? 0.0f : 1.0f;
      }
  }
}

TEST(FlowPropagate, MatchesReferenceForAnyWorkerCount) {
  for (int32_t masks = 0; masks < 2; ++masks) {
    auto est = Estimator(150, 140, masks);
    FillScene(est.get(), 1234 + masks);
    auto start = flowtest::Snapshot(est->flowPyramid[0]);
    auto expected = flowtest::Snapshot(start.get());
    Ref ref{est->firstPyramid[0], est->secondPyramid[0],
            masks ? est->firstMaskPyramid[0] : nullptr,
            masks ? est->secondMaskPyramid[0] : nullptr, 150, 140};
    ref.Sweeps(expected.get());
    ASSERT_FALSE(pltest::SamePixels(expected.get(), start.get()));  // the sweeps did work
    for (int32_t workers : kPLTestWorkerCounts) {
      PLTestUseWorkers(workers);
      PLImage* flow = est->flowPyramid[0];
      for (int32_t y = 0; y < 140; ++y)
        std::memcpy(flow->Row(y), start->Row(y), 150 * 8);
      est->PropagateFlow(0, false, nullptr);
      EXPECT_TRUE(pltest::SamePixels(flow, expected.get()))
          << "workers " << workers << " masks " << masks;
    }
    PLTestUseWorkers(1);
  }
}

TEST(FlowPropagate, SkipDoesNothingNotEvenIdle) {
  auto est = Estimator(20, 20, 0);
  FillScene(est.get(), 5);
  auto before = flowtest::Snapshot(est->flowPyramid[0]);
  NuvIdleAndProgressClass progress(nullptr);
  progress.SetInterrupted(true);  // any Idle would throw
  EXPECT_NO_THROW(est->PropagateFlow(0, true, &progress));
  EXPECT_TRUE(pltest::SamePixels(before.get(), est->flowPyramid[0]));
  EXPECT_THROW(est->PropagateFlow(0, false, &progress), PLErr);
}

TEST(FlowPropagate, AllEqualFieldIsUnchanged) {
  auto est = Estimator(40, 30, 0);
  FillScene(est.get(), 9);
  PLImage* f = est->flowPyramid[0];
  for (int32_t y = 0; y < 30; ++y)
    for (int32_t x = 0; x < 40; ++x) {
      At(f, x, y, 0) = 0.4f;
      At(f, x, y, 1) = -0.3f;
    }
  auto before = flowtest::Snapshot(f);
  est->PropagateFlow(0, false, nullptr);
  EXPECT_TRUE(pltest::SamePixels(before.get(), f));
}

// first = noise; second(x, y) = first(x - 6, y) for x >= 6, so (-6, 0) is a perfect vector
// (internal sign). Every pixel but the ones set holds (100, 100): out of frame, so never
// repaired and refused as a candidate.
struct ShiftScene {
  std::unique_ptr<PLOpticalFlowUChar> est = Estimator(12, 7, 0);
  ShiftScene() {
    PLImage* a = est->firstPyramid[0];
    PLImage* b = est->secondPyramid[0];
    FillNoise(a, 77);
    FillNoise(b, 78);
    for (int32_t y = 0; y < 7; ++y)
      for (int32_t x = 6; x < 12; ++x) At(b, x, y) = At(a, x - 6, y);
    for (int32_t y = 0; y < 7; ++y)
      for (int32_t x = 0; x < 12; ++x) Set(x, y, 100.0f, 100.0f);
  }
  void Set(int32_t x, int32_t y, float u, float v) {
    At(est->flowPyramid[0], x, y, 0) = u;
    At(est->flowPyramid[0], x, y, 1) = v;
  }
  float U(int32_t x, int32_t y) { return At(est->flowPyramid[0], x, y, 0); }
  float V(int32_t x, int32_t y) { return At(est->flowPyramid[0], x, y, 1); }
};

TEST(FlowPropagate, CandidatesOnAPerfectShift) {
  ShiftScene taken;
  taken.Set(4, 3, 0.5f, 0.5f);
  taken.Set(5, 3, -6.0f, 0.0f);  // its own target (11, 3) is in frame but its patch is not
  taken.est->PropagateFlow(0, false, nullptr);
  EXPECT_EQ(taken.U(4, 3), -6.0f);  // the perfect candidate is taken
  EXPECT_EQ(taken.V(4, 3), 0.0f);
  EXPECT_EQ(taken.U(5, 3), -6.0f);  // an invalid own patch keeps its flow
  ShiftScene lastColumn;
  lastColumn.Set(5, 3, 0.5f, 0.5f);
  lastColumn.Set(6, 3, -6.0f, 0.0f);  // perfect, but from (5, 3) it reaches column 11
  lastColumn.est->PropagateFlow(0, false, nullptr);
  EXPECT_EQ(lastColumn.U(5, 3), 0.5f);
  EXPECT_EQ(lastColumn.V(5, 3), 0.5f);
  ShiftScene outside;
  outside.Set(3, 3, 0.0f, 50.0f);  // its own target is outside: it keeps its flow
  outside.Set(4, 3, -6.0f, 0.0f);
  outside.est->PropagateFlow(0, false, nullptr);
  EXPECT_EQ(outside.V(3, 3), 50.0f);
}

TEST(FlowPropagate, NoInteriorNoWork) {
  for (int32_t w : {1, 2, 3}) {
    auto est = Estimator(w, 2, 0);
    FillScene(est.get(), 3);
    auto before = flowtest::Snapshot(est->flowPyramid[0]);
    est->PropagateFlow(0, false, nullptr);
    EXPECT_TRUE(pltest::SamePixels(before.get(), est->flowPyramid[0]));
  }
}

}  // namespace
