// flowblur: timings of the Gaussian blur and the bilinear resize on frame-sized images.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>

#include "filter/filter.h"
#include "tests/support/PLTestWorkers.h"

namespace {

void FillPattern(PLImage* image) {
  uint32_t state = 12345u;
  for (int32_t y = 0; y < image->height; ++y) {
    unsigned char* row = image->Row(y);
    for (int32_t i = 0; i < image->width * image->channels; ++i) {
      state = state * 1664525u + 1013904223u;
      if (image->dataType == PLFloat) {
        float v = static_cast<float>(state >> 8) / 16777216.0f;
        std::memcpy(row + i * 4, &v, 4);
      } else {
        row[i] = static_cast<unsigned char>(state >> 24);
      }
    }
  }
}

// Radius 7 on a 960 x 540 three-channel float image, in place, rows and columns.
void BM_GaussBlurRadius7(benchmark::State& state) {
  PLTestUseWorkers(2);
  PLImage image(960, 540, 3, PLFloat, 0);
  FillPattern(&image);
  for (auto _ : state) {
    PLGaussBlur(&image, 0, 7.0f);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * 960 * 540);
  PLTestUseWorkers(1);
}
BENCHMARK(BM_GaussBlurRadius7)->Unit(benchmark::kMillisecond)->UseRealTime();

// 1920 x 1080 to 960 x 540, 8-bit three-channel.
void BM_ResizeBilinearHalf(benchmark::State& state) {
  PLTestUseWorkers(2);
  PLImage source(1920, 1080, 3, PLUChar, 0);
  PLImage destination(960, 540, 3, PLUChar, 0);
  FillPattern(&source);
  for (auto _ : state) {
    PLResizeBilinear(&destination, &source);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * 960 * 540);
  PLTestUseWorkers(1);
}
BENCHMARK(BM_ResizeBilinearHalf)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
