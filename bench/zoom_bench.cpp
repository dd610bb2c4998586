// flowblur: timings of the zoom resampler on frame-sized 8-bit images, storage reused.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "fill/PLZoom.h"

namespace {

void FillPattern(PLImage* image) {
  uint32_t state = 2463534242u;
  for (int32_t y = 0; y < image->height; ++y) {
    unsigned char* row = image->Row(y);
    for (int32_t i = 0; i < image->width * image->channels; ++i) {
      state = state * 1664525u + 1013904223u;
      row[i] = static_cast<unsigned char>(state >> 24);
    }
  }
}

// The tabulated cubic B-spline (support 2), 4-channel UChar, one storage for every run.
void ZoomCase(benchmark::State& state, int32_t sw, int32_t sh, int32_t dw, int32_t dh) {
  PLImage source(sw, sh, 4, PLUChar, 0);
  PLImage destination(dw, dh, 4, PLUChar, 0);
  FillPattern(&source);
  PLZoomTempStorage storage;
  for (auto _ : state) {
    PLZoom(&destination, &source, &storage);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * dw * dh);
}

void BM_ZoomDown1920x1080To960x540(benchmark::State& state) {
  ZoomCase(state, 1920, 1080, 960, 540);
}
BENCHMARK(BM_ZoomDown1920x1080To960x540)->Unit(benchmark::kMillisecond);

void BM_ZoomUp960x540To1920x1080(benchmark::State& state) {
  ZoomCase(state, 960, 540, 1920, 1080);
}
BENCHMARK(BM_ZoomUp960x540To1920x1080)->Unit(benchmark::kMillisecond);

}  // namespace
