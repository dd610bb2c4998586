// flowblur: the flow inversion: the mesh walk with the running mean, the hole mask and the fill.
#include "warp/PLInvertFlow.h"

#include <cstdio>
#include <initializer_list>

#include "fill/PLSingleChannelFill.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "runtime/NuvMP.h"
#include "warp/PLMeshScan.h"

namespace {

const char kInvertRefusal[] = "can't warp image, input files not of correct types and sizes\n";

constexpr int32_t kMaxSide = int32_t{1} << 23;

// Running mean of the carried vectors, the hit count in `holes`.
struct InvertPlot {
  PLImage* inverse;
  PLImage* holes;

  void operator()(int32_t x, int32_t y, float u, float v) const {
    unsigned char* count = holes->Row(y) + x;
    unsigned char* p = inverse->Row(y) + 8 * x;
    const int32_t n = *count;
    const float value[2] = {u, v};
    if (n == 0) {
      PLStore<float>(p, u);
      PLStore<float>(p + 4, v);
      *count = 1;
    } else if (n == 255) {
      for (int32_t c = 0; c < 2; ++c)
        PLStore<float>(p + 4 * c, (PLLoad<float>(p + 4 * c) * 255.0f + value[c]) * 0.00390625f);
    } else {
      const float share = 1.0f / static_cast<float>(n + 1);
      const float weight = static_cast<float>(n);
      for (int32_t c = 0; c < 2; ++c)
        PLStore<float>(p + 4 * c, (PLLoad<float>(p + 4 * c) * weight + value[c]) * share);
      *count = static_cast<unsigned char>(n + 1);
    }
  }
};

// Mesh row b of the flow, as loaded into a line buffer (u, v per point), made into vertices.
inline InvertVertex MeshPoint(const float* line, int32_t a, int32_t b) {
  const float u = line[2 * a];
  const float v = line[2 * a + 1];
  return InvertVertex{static_cast<float>(a) + u, static_cast<float>(b) + v, -u, -v};
}

void LoadLine(const PLImage* flow, int32_t y, float* line) {
  const unsigned char* row = flow->Row(y);
  for (int32_t k = 0; k < 2 * flow->width; ++k) line[k] = PLLoad<float>(row + 4 * k);
}

void WalkInvertMesh(PLImage* inverse, const PLImage* flow, PLImage* holes,
                    NuvIdleAndProgressClass* progress) {
  const int32_t longer = flow->width > flow->height ? flow->width : flow->height;
  ScanBuffer<float> first(2 * static_cast<int64_t>(longer));
  ScanBuffer<float> second(2 * static_cast<int64_t>(longer));
  float* current = first.get();
  float* next = second.get();
  const float maxX = static_cast<float>(flow->lastColumn);
  const float maxY = static_cast<float>(flow->lastRow);
  InvertPlot plot{inverse, holes};
  LoadLine(flow, 0, current);
  for (int32_t j = 0; j < flow->lastRow; ++j) {
    progress->Progress(static_cast<float>(j) / static_cast<float>(flow->lastRow));
    LoadLine(flow, j + 1, next);
    for (int32_t i = 0; i < flow->lastColumn; ++i) {
      const InvertVertex right = MeshPoint(current, i + 1, j);
      const InvertVertex below = MeshPoint(next, i, j + 1);
      ScanTriangle(MeshPoint(current, i, j), right, below, maxX, maxY, plot);
      ScanTriangle(MeshPoint(next, i + 1, j + 1), right, below, maxX, maxY, plot);
    }
    float* swap = current;
    current = next;
    next = swap;
  }
}

// Counts to the hole mask: 0 (never hit) becomes 255, any count becomes 0.
void InvertMaskRows(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* holes = args->Next<PLImage*>();
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* row = holes->Row(y);
    for (int32_t x = 0; x < holes->width; ++x) row[x] = row[x] == 0 ? 255 : 0;
  }
}

bool InvertInputsFit(const PLImage* inverse, const PLImage* flow, const PLImage* holes) {
  for (const PLImage* image : {inverse, flow, holes})
    if (image == nullptr || image->data == nullptr || image->width < 1 || image->height < 1 ||
        image->width > kMaxSide || image->height > kMaxSide)
      return false;
  if (inverse->dataType != PLFloat || inverse->channels != 2) return false;
  if (flow->dataType != PLFloat || flow->channels != 2) return false;
  if (holes->dataType != PLUChar || holes->channels != 1) return false;
  if (inverse->width != flow->width || inverse->height != flow->height ||
      holes->width != flow->width || holes->height != flow->height)
    return false;
  return !SharesMemory(inverse, flow) && !SharesMemory(holes, flow) &&
         !SharesMemory(holes, inverse);
}

}  // namespace

void InvertFlow(PLImage* inverse, const PLImage* flow, PLImage* holes,
                NuvIdleAndProgressClass* progress) {
  NuvIdleAndProgressClass local(progress);
  if (!InvertInputsFit(inverse, flow, holes)) {
    std::fputs(kInvertRefusal, stderr);
    return;
  }
  Clear(inverse);
  Clear(holes);
  // The line buffers live inside the walk: a PLErr leaves it after they are freed.
  WalkInvertMesh(inverse, flow, holes, &local);
  const int32_t rows = holes->height;
  try {
    NuvMPFork(NuvMPThreadsForRows(rows), rows, InvertMaskRows, holes);
  } catch (PLErr& err) {
    PLErr value = err;
    throw value;
  }
  PLSingleChannelFill(inverse, holes, progress);
}
