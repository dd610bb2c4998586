// flowblur: timings of field interpolation on frame-sized 4-channel images.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>

#include "fill/InterpolateField.h"
#include "tests/support/PLTestWorkers.h"

namespace {

// Noise with some horizontal structure, so that the edge-directed methods take every
// direction and not only the vertical one.
void FillFrame(PLImage* image) {
  uint32_t state = 2024u;
  for (int32_t y = 0; y < image->height; ++y) {
    unsigned char* row = image->Row(y);
    for (int32_t i = 0; i < image->width * image->channels; ++i) {
      state = state * 1664525u + 1013904223u;
      const uint32_t v = ((state >> 24) + static_cast<uint32_t>(i / 16 + y / 3) * 7u) & 0xFFu;
      if (image->dataType == PLFloat) {
        float f = static_cast<float>(v) / 255.0f;
        std::memcpy(row + i * 4, &f, 4);
      } else {
        row[i] = static_cast<unsigned char>(v);
      }
    }
  }
}

// Arguments: data type, method. 1920 x 1080, field 0 (rows of lastRow's parity rebuilt),
// two workers, the source copy included.
void BM_InterpolateField(benchmark::State& state) {
  const int32_t type = static_cast<int32_t>(state.range(0));
  const int32_t method = static_cast<int32_t>(state.range(1));
  PLTestUseWorkers(2);
  PLImage src(1920, 1080, 4, type, 0);
  PLImage dst(1920, 1080, 4, type, 0);
  FillFrame(&src);
  for (auto _ : state) {
    InterpolateField(&dst, &src, method, 0);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * 1920 * 1080);
  state.SetLabel(type == PLFloat ? "Float" : "UChar");
  PLTestUseWorkers(1);
}
BENCHMARK(BM_InterpolateField)
    ->ArgsProduct({{PLUChar, PLFloat}, {2, 3, 4}})
    ->ArgNames({"type", "method"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
