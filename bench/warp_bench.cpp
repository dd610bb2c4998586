// flowblur: timing of the mesh warp and the flow inversion on a full HD frame along a real flow.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "filter/PLResize.h"
#include "flow/flow.h"
#include "image/PLImageCopy.h"
#include "tests/support/PLTestWorkers.h"
#include "tools/DemoClip.h"
#include "warp/warp.h"

namespace {

constexpr int32_t kWidth = 1920, kHeight = 1080;

// Frames 0 and 1 of the demo clip, and the estimator's flow between them (Best: half size),
// made once.
struct Scene {
  std::unique_ptr<PLImage> first, second, picture;  // picture: frame 0 with an opaque matte
  std::unique_ptr<PLImage> flow;                    // as estimated, 960 x 540
  std::unique_ptr<PLImage> fullFlow;                // carried to 1920 x 1080

  Scene() {
    flowblur::DemoClip clip(kWidth, kHeight);
    first.reset(new PLImage(kWidth, kHeight, 3, PLUChar, 0));
    second.reset(new PLImage(kWidth, kHeight, 3, PLUChar, 0));
    clip.Render8(0.0, first->data);
    clip.Render8(1.0, second->data);
    picture.reset(new PLImage(kWidth, kHeight, 4, PLUChar, 0));
    for (int32_t y = 0; y < kHeight; ++y)
      for (int32_t x = 0; x < kWidth; ++x) {
        unsigned char* d = picture->PixelAddress(x, y);
        const unsigned char* s = first->PixelAddress(x, y);
        d[0] = s[0], d[1] = s[1], d[2] = s[2], d[3] = 255;
      }
    PLTestUseWorkers(2);
    PLOpticalFlowUChar estimator(kWidth, kHeight, 1, 0, 0, 12);
    estimator.SetLevelFactor(0.7f);
    estimator.ComputeFlow(nullptr, first.get(), second.get(), 1, 1, 0, nullptr, false);
    const PLImage* f = estimator.flowPyramid[0];
    flow.reset(new PLImage(f->width, f->height, 2, PLFloat, 0));
    CopyRows(flow.get(), f);
    // The same motion on the full grid: resampled corner-aligned, vectors scaled by the
    // ratio of last indices.
    fullFlow.reset(new PLImage(kWidth, kHeight, 2, PLFloat, 0));
    PLResizeBilinear(fullFlow.get(), flow.get());
    const float sx = static_cast<float>(kWidth - 1) / static_cast<float>(f->width - 1);
    const float sy = static_cast<float>(kHeight - 1) / static_cast<float>(f->height - 1);
    for (int32_t y = 0; y < kHeight; ++y) {
      float* row = reinterpret_cast<float*>(fullFlow->Row(y));
      for (int32_t x = 0; x < kWidth; ++x) row[2 * x] *= sx, row[2 * x + 1] *= sy;
    }
    PLTestUseWorkers(1);
  }
};

const Scene& TheScene() {
  static Scene scene;
  return scene;
}

// Warp of a UChar 4-channel frame, bilinear lookup, over rule, along the estimator's own
// half-size flow (mapped up inside) at amount 1, with 1 and 2 workers (bands of rows).
void BM_WarpUChar4BilinearOverHD(benchmark::State& state) {
  const Scene& s = TheScene();
  PLTestUseWorkers(static_cast<int32_t>(state.range(0)));
  PLImage dst(kWidth, kHeight, 4, PLUChar, 0);
  for (auto _ : state) {
    Warp(&dst, s.picture.get(), s.flow.get(), 1, 0, 0, nullptr, 1, 0, 0.0f, 1.0f);
    benchmark::DoNotOptimize(dst.data);
  }
  PLTestUseWorkers(1);
}
BENCHMARK(BM_WarpUChar4BilinearOverHD)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// InvertFlow of the full-size flow: mesh walk on one thread, then the forked mask inversion
// and the fill, with 1 and 2 workers.
void BM_InvertFlowHD(benchmark::State& state) {
  const Scene& s = TheScene();
  PLTestUseWorkers(static_cast<int32_t>(state.range(0)));
  PLImage inverse(kWidth, kHeight, 2, PLFloat, 0);
  PLImage holes(kWidth, kHeight, 1, PLUChar, 0);
  int64_t holeCount = 0;
  for (auto _ : state) {
    InvertFlow(&inverse, s.fullFlow.get(), &holes, nullptr);
    benchmark::DoNotOptimize(inverse.data);
  }
  for (int32_t y = 0; y < kHeight; ++y)
    for (int32_t x = 0; x < kWidth; ++x) holeCount += holes.Row(y)[x] != 0;
  state.counters["holes"] = static_cast<double>(holeCount);
  PLTestUseWorkers(1);
}
BENCHMARK(BM_InvertFlowHD)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
