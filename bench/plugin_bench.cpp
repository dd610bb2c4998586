// flowblur: timings of the whole plug-in per frame through the host simulator (with its peak
// heap), and of the estimator and the renderer alone at the sizes the plug-in gives them.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/BenchHost.h"
#include "bench/GroundTruth.h"
#include "blur/blur.h"
#include "flow/PLOpticalFlowUChar.h"
#include "host/SparkHost.h"
#include "runtime/NuvMP.h"
#include "shell/SparkDriver.h"
#include "tests/support/PLTestWorkers.h"

namespace flowblur {
namespace {

// Inputs: three frames (0, 1, 2) of the demo clip at the given size, its clock set so that
// everything moves as in the 960-wide clip (5 to 30 px a frame) whatever the size. The plug-in is timed on frame 2,
// which it pairs with frame 1. Rendered once per size, on two threads.
constexpr int32_t kClipFrames = 3;
constexpr int32_t kTimedFrame = 2;

const std::vector<std::vector<float>>& DemoFrames(int32_t width, int32_t height) {
  static std::map<std::pair<int32_t, int32_t>, std::vector<std::vector<float>>> cache;
  std::vector<std::vector<float>>& frames = cache[{width, height}];
  if (frames.empty()) {
    DemoScene scene(width, height);
    for (int32_t n = 0; n < kClipFrames; ++n) {
      frames.emplace_back(static_cast<size_t>(width) * height * 3);
      RenderSceneFrame(scene, n, 2, frames.back().data());
    }
  }
  return frames;
}

std::vector<uint8_t> HostFrame(const std::vector<float>& rgb, int32_t formatCode) {
  std::vector<uint8_t> frame(rgb.size() / 3 * HostBytesPerPixel(formatCode));
  EncodeHostFrame(rgb.data(), static_cast<int64_t>(rgb.size() / 3), formatCode, frame.data());
  return frame;
}

// ---- SparkProcess: one output frame, as the host asks for it

// Arguments: width, height, format code, draft (0 Best, 1 Draft), host processors.
void BM_SparkProcess(benchmark::State& state) {
  const int32_t width = static_cast<int32_t>(state.range(0));
  const int32_t height = static_cast<int32_t>(state.range(1));
  const int32_t format = static_cast<int32_t>(state.range(2));
  const bool draft = state.range(3) != 0;
  const int32_t processors = static_cast<int32_t>(state.range(4));
  const std::vector<std::vector<float>>& frames = DemoFrames(width, height);
  {
    PluginSession session(width, height, format, kClipFrames, false, processors,
                          BenchControls(0.5f, draft));
    for (int32_t n = 0; n < kClipFrames; ++n)
      session.SetFrame(kFrontClip, n, HostFrame(frames[n], format).data());
    const spark_info_struct info = session.BeginFrame(kTimedFrame);

    // One untimed call with counting hooks: the heap figures.
    const void* result = nullptr;
    const int64_t forksBefore = sparkhost::Calls().mpFork;
    HeapPeak heap = MeasureHeap(info, &result);
    const int64_t forks = sparkhost::Calls().mpFork - forksBefore;
    std::string said;
    if (!result || session.TakeNotes(&said)) {
      state.SkipWithError(("SparkProcess failed: " + said).c_str());
    } else {
      for (auto _ : state) {
        benchmark::DoNotOptimize(SparkProcess(info));
        benchmark::ClobberMemory();
      }
      if (session.TakeNotes(&said)) state.SkipWithError(("the plug-in reported: " + said).c_str());
    }
    using Counter = benchmark::Counter;
    state.counters["peak_heap"] = Counter(double(heap.peak), Counter::kDefaults, Counter::kIs1024);
    state.counters["library_peak"] =
        Counter(double(heap.libraryPeak), Counter::kDefaults, Counter::kIs1024);
    state.counters["planes"] = Counter(double(heap.planes), Counter::kDefaults, Counter::kIs1024);
    state.counters["library_left"] = double(heap.libraryLeft);
    // Host forks of one frame: the simulator starts its processor threads afresh for each.
    state.counters["host_forks"] = double(forks);
    state.SetItemsProcessed(state.iterations());  // frames a second
  }
  // Leave the host as the other benchmarks expect it: no clips, no buffers.
  sparkhost::Reset();
}
BENCHMARK(BM_SparkProcess)
    ->ArgNames({"w", "h", "format", "draft", "procs"})
    ->Args({1920, 1080, 24, 0, 1})
    ->Args({1920, 1080, 24, 0, 2})
    ->Args({1920, 1080, 24, 1, 1})
    ->Args({1920, 1080, 24, 1, 2})
    ->Args({1920, 1080, 48, 0, 1})
    ->Args({1920, 1080, 48, 0, 2})
    ->Args({1920, 1080, 49, 0, 1})
    ->Args({1920, 1080, 49, 0, 2})
    ->Args({3840, 2160, 24, 0, 1})
    ->Args({3840, 2160, 24, 0, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// ---- The estimator alone, on the 8-bit HD pair the plug-in gives it (frame 2, then 1)

// Arguments: estimator mode (1 Best: half size, 2 Draft: quarter size), workers.
void BM_ComputeFlow(benchmark::State& state) {
  const int32_t mode = static_cast<int32_t>(state.range(0));
  PLTestUseWorkers(static_cast<int32_t>(state.range(1)));
  const std::vector<std::vector<float>>& frames = DemoFrames(1920, 1080);
  std::vector<uint8_t> current = HostFrame(frames[kTimedFrame], 24);
  std::vector<uint8_t> previous = HostFrame(frames[kTimedFrame - 1], 24);
  PLImage first(current.data(), 1920, 1080, 3, PLUChar, 0);
  PLImage second(previous.data(), 1920, 1080, 3, PLUChar, 0);
  PLOpticalFlowUChar estimator(1920, 1080, mode, 0, 0, 12);
  for (auto _ : state) {
    estimator.SetLevelFactor(kSparkLevelFactor);
    estimator.ComputeFlow(nullptr, &first, &second, 1, 1, 0, nullptr, false);
    benchmark::ClobberMemory();
  }
  state.counters["work_w"] = estimator.workWidth;
  state.counters["work_h"] = estimator.workHeight;
  state.counters["levels"] = estimator.numLevels;
  state.SetItemsProcessed(state.iterations());
  PLTestUseWorkers(1);
}
BENCHMARK(BM_ComputeFlow)
    ->ArgNames({"mode", "workers"})
    ->Args({1, 1})
    ->Args({1, 2})
    ->Args({2, 1})
    ->Args({2, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The estimator is built and torn down on every frame: what that costs by itself.
void BM_CreateFlowEstimator(benchmark::State& state) {
  const int32_t mode = static_cast<int32_t>(state.range(0));
  for (auto _ : state) {
    PLOpticalFlowUChar* estimator = CreateFlowEstimator(1920, 1080, mode);
    benchmark::DoNotOptimize(estimator);
    DestroyFlowEstimator(estimator);
  }
}
BENCHMARK(BM_CreateFlowEstimator)->ArgName("mode")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

// ---- The renderer alone: an HD frame along the estimator's own flow of that frame

// The plug-in's flow of the timed frame (8-bit, 2 workers), computed once per mode.
const std::vector<float>& EstimatedFlow(int32_t mode, int32_t* flowWidth, int32_t* flowHeight) {
  static std::map<int32_t, std::pair<std::pair<int32_t, int32_t>, std::vector<float>>> cache;
  auto found = cache.find(mode);
  if (found == cache.end()) {
    PLTestUseWorkers(2);
    const std::vector<std::vector<float>>& frames = DemoFrames(1920, 1080);
    std::vector<uint8_t> current = HostFrame(frames[kTimedFrame], 24);
    std::vector<uint8_t> previous = HostFrame(frames[kTimedFrame - 1], 24);
    PLImage first(current.data(), 1920, 1080, 3, PLUChar, 0);
    PLImage second(previous.data(), 1920, 1080, 3, PLUChar, 0);
    PLOpticalFlowUChar estimator(1920, 1080, mode, 0, 0, 12);
    estimator.SetLevelFactor(kSparkLevelFactor);
    estimator.ComputeFlow(nullptr, &first, &second, 1, 1, 0, nullptr, false);
    const PLImage* flow = estimator.flowPyramid[0];
    std::vector<float> uv(static_cast<size_t>(flow->width) * flow->height * 2);
    for (int32_t y = 0; y < flow->height; ++y)
      std::memcpy(&uv[static_cast<size_t>(y) * flow->width * 2], flow->Row(y),
                  static_cast<size_t>(flow->width) * 8);
    found = cache.emplace(mode, std::make_pair(std::make_pair(flow->width, flow->height), uv)).first;
    PLTestUseWorkers(1);
  }
  *flowWidth = found->second.first.first;
  *flowHeight = found->second.first.second;
  return found->second.second;
}

// Arguments: pixel type (0 8-bit, 1 16-bit, 2 float, as formats 24, 48, 49 reach it), flow
// mode (1 half size, 2 quarter size), workers. Amount 0.5, bilinear, as RenderBlur calls it.
void BM_PluginMotionBlur(benchmark::State& state) {
  const int32_t pixelType = static_cast<int32_t>(state.range(0));
  const int32_t mode = static_cast<int32_t>(state.range(1));
  int32_t flowWidth = 0, flowHeight = 0;
  const std::vector<float>& uv = EstimatedFlow(mode, &flowWidth, &flowHeight);
  PLTestUseWorkers(static_cast<int32_t>(state.range(2)));
  const std::vector<float>& rgb = DemoFrames(1920, 1080)[kTimedFrame];
  std::vector<uint8_t> pixels;
  if (pixelType == PLFloat)
    pixels.assign(reinterpret_cast<const uint8_t*>(rgb.data()),
                  reinterpret_cast<const uint8_t*>(rgb.data() + rgb.size()));
  else
    pixels = HostFrame(rgb, pixelType == PLUChar ? 24 : 48);
  PLImage source(pixels.data(), 1920, 1080, 3, pixelType, 0);
  PLImage destination(1920, 1080, 3, pixelType, 0);
  PLImage flow(const_cast<float*>(uv.data()), flowWidth, flowHeight, 2, PLFloat, 0);
  for (auto _ : state) {
    PLMotionBlur(&destination, &source, &flow, 1, 0, nullptr, 0, 0.5f);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * int64_t{1920} * 1080);
  PLTestUseWorkers(1);
}
// 8-bit along a half-size flow on 2 workers is BM_MotionBlurHD8Bit of blur_bench.cpp (with a
// synthetic flow); the rest is here.
BENCHMARK(BM_PluginMotionBlur)
    ->ArgNames({"type", "mode", "workers"})
    ->Args({0, 1, 1})
    ->Args({0, 2, 1})
    ->Args({0, 2, 2})
    ->Args({1, 1, 1})
    ->Args({1, 1, 2})
    ->Args({2, 1, 1})
    ->Args({2, 1, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// ---- What one fork costs by itself: an empty worker over 64 rows

void EmptyRows(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  int32_t* rows = args->Next<int32_t*>();
  benchmark::DoNotOptimize(rows[firstRow] = lastRow);
}

// Argument: workers. Every row-parallel stage pays this once; an HD frame has about 220.
void BM_EmptyFork(benchmark::State& state) {
  const int32_t workers = static_cast<int32_t>(state.range(0));
  PLTestUseWorkers(workers);
  std::vector<int32_t> rows(64);
  for (auto _ : state) {
    const int32_t threads = NuvMPThreadsForRows(64);
    NuvMPFork(threads, 64, EmptyRows, rows.data());
  }
  PLTestUseWorkers(1);
}
BENCHMARK(BM_EmptyFork)->ArgName("workers")->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
}  // namespace flowblur
