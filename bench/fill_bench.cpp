// flowblur: timings of the hole fills and the single channel fill on 1920 x 1080 frames.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>

#include "fill/PLHoleFill.h"
#include "fill/PLSingleChannelFill.h"
#include "tests/support/PLTestWorkers.h"

namespace {

constexpr int32_t kW = 1920, kH = 1080;

void FillPattern(PLImage* image) {
  uint32_t state = 2024u;
  for (int32_t y = 0; y < image->height; ++y) {
    unsigned char* row = image->Row(y);
    for (int32_t i = 0; i < image->width * image->channels; ++i) {
      state = state * 1664525u + 1013904223u;
      if (image->dataType == PLFloat) {
        float v = static_cast<float>(state >> 8) / 16777216.0f * 8.0f - 4.0f;
        std::memcpy(row + i * 4, &v, 4);
      } else {
        row[i] = static_cast<unsigned char>(state >> 24);
      }
    }
  }
}

// About 3% of the pixels as holes, in blobs of 1 to 12 pixels across, like the uncovered
// areas a warp leaves. Returns the hole count.
int64_t BlobMask(PLImage* mask) {
  for (int32_t y = 0; y < mask->height; ++y) std::memset(mask->Row(y), 0, mask->width);
  uint32_t state = 77u;
  auto next = [&] { return state = state * 1664525u + 1013904223u, state >> 8; };
  int64_t holes = 0;
  while (holes < int64_t{kW} * kH * 3 / 100) {
    const int32_t cx = next() % kW, cy = next() % kH, r = next() % 6;
    for (int32_t y = cy - r; y <= cy + r; ++y)
      for (int32_t x = cx - r; x <= cx + r; ++x)
        if (x >= 0 && y >= 0 && x < kW && y < kH && mask->Row(y)[x] == 0) {
          mask->Row(y)[x] = 255;
          ++holes;
        }
  }
  return holes;
}

// 30 sweeps over a four-channel 8-bit layer, as the layered blur runs it.
void BM_SmallHoleFill30(benchmark::State& state) {
  PLImage image(kW, kH, 4, PLUChar, 0);
  PLImage mask(kW, kH, 1, PLUChar, 0);
  FillPattern(&image);
  const int64_t holes = BlobMask(&mask);
  for (auto _ : state) {
    PLSmallHoleFill(&image, &mask, 30);
    benchmark::ClobberMemory();
  }
  state.counters["holes"] = static_cast<double>(holes);
  state.SetItemsProcessed(state.iterations() * kW * kH);
}
BENCHMARK(BM_SmallHoleFill30)->Unit(benchmark::kMillisecond)->UseRealTime();

// Nearest-site map (four sweeps, three merges on 2 workers) and its application.
void BM_VoronoiFill(benchmark::State& state) {
  PLTestUseWorkers(2);
  PLImage image(kW, kH, 4, PLUChar, 0);
  PLImage mask(kW, kH, 1, PLUChar, 0);
  FillPattern(&image);
  BlobMask(&mask);
  for (auto _ : state) {
    PLVoronoiFill(&image, &mask);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kW * kH);
  PLTestUseWorkers(1);
}
BENCHMARK(BM_VoronoiFill)->Unit(benchmark::kMillisecond)->UseRealTime();

// Both channels of a float flow field, as the flow inversion fills its holes; 2 workers.
void BM_SingleChannelFill(benchmark::State& state) {
  PLTestUseWorkers(2);
  PLImage image(kW, kH, 2, PLFloat, 0);
  PLImage mask(kW, kH, 1, PLUChar, 0);
  FillPattern(&image);
  BlobMask(&mask);
  for (auto _ : state) {
    PLSingleChannelFill(&image, &mask, nullptr);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kW * kH);
  PLTestUseWorkers(1);
}
BENCHMARK(BM_SingleChannelFill)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
