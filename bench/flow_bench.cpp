// flowblur: timing of the optical-flow estimator on a full HD frame pair.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <memory>

#include "flow/flow.h"
#include "tests/support/PLTestWorkers.h"

namespace {

// Detail at several scales plus a little hashed grain, like a photographed surface.
double Surface(double x, double y) {
  double v = 0.5;
  v += 0.12 * std::sin(0.021 * x + 0.013 * y + 0.3);
  v += 0.10 * std::sin(0.047 * x - 0.073 * y + 1.1);
  v += 0.08 * std::sin(0.171 * x + 0.107 * y + 2.0);
  v += 0.07 * std::cos(0.233 * x - 0.301 * y + 0.7);
  v += 0.05 * std::sin(0.513 * x + 0.118 * y + 1.9);
  return v;
}

double Grain(int32_t x, int32_t y) {
  uint32_t h = static_cast<uint32_t>(x) * 73856093u ^ static_cast<uint32_t>(y) * 19349663u;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  h ^= h >> 15;
  return (static_cast<double>(h & 255) - 127.5) / 255.0 * 0.04;
}

// The first frame; in the second the background has moved by (5.3, -2.1) and a disc in
// the middle by (28.4, 9.6).
std::unique_ptr<PLImage> Frame(bool second) {
  const int32_t w = 1920, h = 1080;
  std::unique_ptr<PLImage> image(new PLImage(w, h, 3, PLUChar, 0));
  for (int32_t y = 0; y < h; ++y) {
    unsigned char* row = image->Row(y);
    for (int32_t x = 0; x < w; ++x) {
      double dx = 0, dy = 0;
      const double cx = x - 960.0, cy = y - 540.0;
      const bool inDisc = cx * cx + cy * cy < 300.0 * 300.0;
      if (second) {
        dx = inDisc ? 28.4 : 5.3;
        dy = inDisc ? 9.6 : -2.1;
      }
      const double sx = x - dx, sy = y - dy;
      const double base = inDisc ? Surface(sy * 1.3 + 400, sx * 0.9) : Surface(sx, sy);
      const double v = base + Grain(static_cast<int32_t>(std::lround(sx)),
                                    static_cast<int32_t>(std::lround(sy)));
      const double c = v < 0 ? 0 : (v > 1 ? 1 : v);
      row[3 * x] = static_cast<uint8_t>(c * 255.0 + 0.5);
      row[3 * x + 1] = static_cast<uint8_t>(c * 230.0 + 0.5);
      row[3 * x + 2] = static_cast<uint8_t>(c * 200.0 + 0.5);
    }
  }
  return image;
}

const PLImage* First() {
  static std::unique_ptr<PLImage> image = Frame(false);
  return image.get();
}
const PLImage* Second() {
  static std::unique_ptr<PLImage> image = Frame(true);
  return image.get();
}

// ComputeFlow on an estimator built once, as the plug-in calls it (level factor 0.7,
// prefilter, smoothing 1, sweeps on).
void BM_FlowComputeHD(benchmark::State& state) {
  const int32_t mode = static_cast<int32_t>(state.range(0));
  PLTestUseWorkers(static_cast<int32_t>(state.range(1)));
  const PLImage* a = First();
  const PLImage* b = Second();
  PLOpticalFlowUChar flow(1920, 1080, mode, 0, 0, 12);
  for (auto _ : state) {
    flow.SetLevelFactor(0.7f);
    flow.ComputeFlow(nullptr, a, b, 1, 1, 0, nullptr, false);
    benchmark::DoNotOptimize(flow.flowPyramid[0]->data);
  }
  PLTestUseWorkers(1);
}
BENCHMARK(BM_FlowComputeHD)
    ->Args({1, 2})
    ->Args({2, 2})
    ->Args({1, 1})
    ->Args({2, 1})
    ->UseRealTime()  // the work runs on the host's threads, not on the timing thread
    ->Unit(benchmark::kMillisecond);

// Construction and run, as one frame of the plug-in does it.
void BM_FlowBuildAndComputeHD(benchmark::State& state) {
  const int32_t mode = static_cast<int32_t>(state.range(0));
  PLTestUseWorkers(2);
  const PLImage* a = First();
  const PLImage* b = Second();
  for (auto _ : state) {
    PLOpticalFlowUChar flow(1920, 1080, mode, 0, 0, 12);
    flow.SetLevelFactor(0.7f);
    flow.ComputeFlow(nullptr, a, b, 1, 1, 0, nullptr, false);
    benchmark::DoNotOptimize(flow.flowPyramid[0]->data);
  }
  PLTestUseWorkers(1);
}
BENCHMARK(BM_FlowBuildAndComputeHD)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
