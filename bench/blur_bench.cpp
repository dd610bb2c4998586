// flowblur: benchmark of the motion-blur renderer on an HD frame with a half-size flow.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "blur/blur.h"
#include "tests/support/PLTestWorkers.h"

namespace {

// An 8-bit RGB frame with smooth gradients and some fine texture.
void FillFrame(PLImage* image) {
  for (int32_t y = 0; y < image->height; ++y) {
    uint8_t* row = image->Row(y);
    for (int32_t x = 0; x < image->width; ++x)
      for (int32_t c = 0; c < 3; ++c) {
        float v = 127.5f + 60.0f * std::sin(0.013f * x + 0.7f * c) +
                  40.0f * std::cos(0.021f * y - 0.4f * c) + 20.0f * std::sin(0.9f * (x + y));
        row[x * 3 + c] = static_cast<uint8_t>(std::fmin(std::fmax(v, 0.0f), 255.0f));
      }
  }
}

// Typical motion: a smoothly varying field whose vectors are 5 to 30 pixels long on the
// source grid, stored on the flow's own (half-size) grid.
void FillFlow(PLImage* flow, const PLImage* source) {
  const float scale = static_cast<float>(flow->lastColumn) / static_cast<float>(source->lastColumn);
  for (int32_t y = 0; y < flow->height; ++y) {
    float* row = reinterpret_cast<float*>(flow->Row(y));
    for (int32_t x = 0; x < flow->width; ++x) {
      float length = 17.5f + 12.5f * std::sin(0.011f * x) * std::cos(0.017f * y);
      float angle = 0.004f * x + 0.006f * y;
      row[2 * x] = length * std::cos(angle) * scale;
      row[2 * x + 1] = length * std::sin(angle) * scale;
    }
  }
}

void BM_MotionBlurHD8Bit(benchmark::State& state) {
  PLTestUseWorkers(2);
  PLImage source(1920, 1080, 3, PLUChar, 0);
  PLImage destination(1920, 1080, 3, PLUChar, 0);
  PLImage flow(960, 540, 2, PLFloat, 0);
  FillFrame(&source);
  FillFlow(&flow, &source);
  for (auto _ : state) {
    PLMotionBlur(&destination, &source, &flow, 1, 0, nullptr, 0, 0.5f);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * int64_t{1920} * 1080);
  PLTestUseWorkers(1);
}
BENCHMARK(BM_MotionBlurHD8Bit)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
