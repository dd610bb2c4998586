// flowblur: timing of the flow dissolve on full HD frames of the demo clip, along the flows
// the estimator finds between them.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "dissolve/dissolve.h"
#include "flow/flow.h"
#include "tests/support/PLTestWorkers.h"
#include "tools/DemoClip.h"

namespace {

constexpr int32_t kWidth = 1920;
constexpr int32_t kHeight = 1080;

// Frame t of the demo clip as a 4-channel UChar picture with an opaque matte.
std::unique_ptr<PLImage> DemoFrame(const flowblur::DemoClip& clip, double t) {
  std::vector<uint8_t> rgb(static_cast<size_t>(kWidth) * kHeight * 3);
  clip.Render8(t, rgb.data());
  std::unique_ptr<PLImage> image(new PLImage(kWidth, kHeight, 4, PLUChar, 0));
  for (int32_t y = 0; y < kHeight; ++y) {
    uint8_t* row = image->Row(y);
    const uint8_t* src = rgb.data() + static_cast<size_t>(y) * kWidth * 3;
    for (int32_t x = 0; x < kWidth; ++x) {
      row[4 * x] = src[3 * x];
      row[4 * x + 1] = src[3 * x + 1];
      row[4 * x + 2] = src[3 * x + 2];
      row[4 * x + 3] = 255;
    }
  }
  return image;
}

// The flow from `first` to `second` as the plug-in estimates it (half size, level factor
// 0.7, prefilter, smoothing 1, sweeps), carried up to the frame size so that both images
// and flows share one grid.
std::unique_ptr<PLImage> EstimatedFlow(const PLImage* first, const PLImage* second) {
  PLOpticalFlowUChar estimator(kWidth, kHeight, 1, 0, 0, 12);
  estimator.SetLevelFactor(0.7f);
  estimator.ComputeFlow(nullptr, first, second, 1, 1, 0, nullptr, false);
  std::unique_ptr<PLImage> flow(new PLImage(kWidth, kHeight, 2, PLFloat, 0));
  UpsampleFlow(flow.get(), estimator.flowPyramid[0]);
  return flow;
}

struct Pair {
  std::unique_ptr<PLImage> a, b, flowA, flowB;
};

const Pair& DemoPair() {
  static const Pair pair = [] {
    PLTestUseWorkers(2);
    const flowblur::DemoClip clip(kWidth, kHeight, 24);
    Pair p;
    p.a = DemoFrame(clip, 10.0);
    p.b = DemoFrame(clip, 11.0);
    p.flowA = EstimatedFlow(p.a.get(), p.b.get());
    p.flowB = EstimatedFlow(p.b.get(), p.a.get());
    return p;
  }();
  return pair;
}

// One in-between picture at t = 0.4 in style range(0) with range(1) workers.
void BM_FlowDissolveHD(benchmark::State& state) {
  const Pair& pair = DemoPair();
  const int32_t style = static_cast<int32_t>(state.range(0));
  PLTestUseWorkers(static_cast<int32_t>(state.range(1)));
  PLImage dst(kWidth, kHeight, 4, PLUChar, 0);
  for (auto _ : state) {
    PLFlowDissolve(0.4f, &dst, pair.a.get(), pair.flowA.get(), pair.b.get(), pair.flowB.get(),
                   style);
    benchmark::DoNotOptimize(dst.data);
  }
  PLTestUseWorkers(1);
}
BENCHMARK(BM_FlowDissolveHD)
    ->ArgNames({"style", "workers"})
    ->Args({3, 1})
    ->Args({3, 2})
    ->Args({4, 1})
    ->Args({4, 2})
    ->Args({5, 1})
    ->Args({5, 2})
    ->UseRealTime()  // the forked stages run on the host's threads
    ->Unit(benchmark::kMillisecond);

}  // namespace
