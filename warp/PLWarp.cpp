// flowblur: the mesh warp: checks, target and counts, the four walker families, the division by
// the counts, the reduction of an oversampled target and the background mix.
#include "warp/PLWarp.h"

#include <cstdio>
#include <limits>
#include <memory>
#include <type_traits>

#include "fill/PLZoom.h"
#include "image/PLDispatch.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "runtime/NuvMP.h"
#include "warp/PLMeshScan.h"

namespace {

const char kWarpRefusal[] = "can't warp image, input files not of correct types and sizes\n";

// Rows and columns are counted in float by the scan: keep them exact.
constexpr int64_t kMaxTargetSide = int64_t{1} << 23;

template <class T>
constexpr float WhiteOf() {
  return std::is_same<T, uint8_t>::value ? 255.0f : std::is_same<T, uint16_t>::value ? 65535.0f
                                                                                      : 1.0f;
}

template <class T>
inline float LoadSample(const unsigned char* p) {
  return static_cast<float>(PLLoad<T>(p));
}

// A value as the type stores it: integers truncate to 32 bits and keep the low bits (the
// rounding term has been added by the caller), Float is stored as it is.
template <class T>
inline void StoreSample(unsigned char* p, float v) {
  if constexpr (std::is_same<T, uint8_t>::value)
    *p = PLFloatToUChar(v);
  else if constexpr (std::is_same<T, uint16_t>::value)
    PLStore<uint16_t>(p, PLFloatToUShort(v));
  else
    PLStore<float>(p, v);
}

// The over rule's store: integer types add 0.5 before truncation, Float takes the value.
template <class T>
inline float OverValue(float v) {
  if constexpr (std::is_same<T, float>::value)
    return v;
  else
    return v + 0.5f;
}

// Source texture at a fractional position, C floats.
template <class S, int32_t C, bool Bilinear>
inline void LookUp(const PLImage* source, float sx, float sy, float* value) {
  constexpr int32_t kPixel = C * static_cast<int32_t>(sizeof(S));
  if constexpr (Bilinear) {
    int32_t ix, iy;
    float tx, ty;
    ScanCell(sx, source->lastColumn, &ix, &tx);
    ScanCell(sy, source->lastRow, &iy, &ty);
    const unsigned char* up = source->Row(iy) + ix * kPixel;
    const unsigned char* low = source->Row(iy + 1) + ix * kPixel;
    for (int32_t c = 0; c < C; ++c) {
      const int32_t o = c * static_cast<int32_t>(sizeof(S));
      const float p = LoadSample<S>(up + o);
      const float right = LoadSample<S>(up + kPixel + o);
      const float lower = LoadSample<S>(low + o);
      const float lowerRight = LoadSample<S>(low + kPixel + o);
      const float a = tx * (right - p) + p;
      const float b = tx * (lowerRight - lower) + lower;
      value[c] = ty * (b - a) + a;
    }
  } else {
    const unsigned char* p = source->Row(ScanNearest(sy, source->lastRow)) +
                             ScanNearest(sx, source->lastColumn) * kPixel;
    for (int32_t c = 0; c < C; ++c) value[c] = LoadSample<S>(p + c * static_cast<int32_t>(sizeof(S)));
  }
}

// The write of one looked-up pixel into the target: the over rule, or the average rule
// with the hit count in the lowest byte of the counts pixel.
template <class S, class D, int32_t C, bool Bilinear, bool Average>
struct MeshPlot {
  const PLImage* source;
  PLImage* target;
  PLImage* counts;

  void operator()(int32_t x, int32_t y, float sx, float sy) const {
    constexpr int32_t kSample = static_cast<int32_t>(sizeof(D));
    constexpr float kAddend = std::is_same<D, float>::value ? 0.0f : 0.5f;  // average rule
    float value[C];
    LookUp<S, C, Bilinear>(source, sx, sy, value);
    unsigned char* t = target->Row(y) + x * C * kSample;
    if constexpr (Average) {
      unsigned char* count = counts->Row(y) + x * 4;  // lowest byte of the Float pixel
      const int32_t n = *count;
      if (n == 0) {
        for (int32_t c = 0; c < C; ++c) StoreSample<D>(t + c * kSample, value[c] + kAddend);
        *count = 1;
      } else if (n == 255) {
        // From 255 on the count stays and each further hit weighs 1/256.
        for (int32_t c = 0; c < C; ++c) {
          const float old = LoadSample<D>(t + c * kSample);
          StoreSample<D>(t + c * kSample, (old * 255.0f + value[c]) * 0.00390625f + kAddend);
        }
      } else {
        const float share = 1.0f / static_cast<float>(n + 1);
        const float weight = static_cast<float>(n);
        for (int32_t c = 0; c < C; ++c) {
          const float old = LoadSample<D>(t + c * kSample);
          StoreSample<D>(t + c * kSample, (old * weight + value[c]) * share + kAddend);
        }
        *count = static_cast<unsigned char>(n + 1);
      }
    } else if constexpr (C < 4) {
      for (int32_t c = 0; c < C; ++c) StoreSample<D>(t + c * kSample, OverValue<D>(value[c]));
    } else {
      // Premultiplied over, the source on top; W the source's white.
      constexpr float kWhite = WhiteOf<S>();
      const float a = value[3];
      if (a == kWhite) {
        for (int32_t c = 0; c < 4; ++c) StoreSample<D>(t + c * kSample, OverValue<D>(value[c]));
      } else if (a != 0.0f) {
        const float k = 1.0f - a / kWhite;
        for (int32_t c = 0; c < 3; ++c) {
          const float old = LoadSample<D>(t + c * kSample);
          StoreSample<D>(t + c * kSample, OverValue<D>(old * k + value[c]));
        }
        const float matte = LoadSample<D>(t + 3 * kSample);
        StoreSample<D>(t + 3 * kSample, OverValue<D>(matte + (kWhite - matte) * (a / kWhite)));
      }
    }
  }
};

// The flow at mesh point (a, b): read as it is when flow and source grids coincide, else
// bilinearly at (a * fx, b * fy) with the cell slid back at the last row and column.
inline void FlowAt(const PLImage* flow, float fx, float fy, int32_t a, int32_t b, float* u,
                   float* v) {
  if (fx == 1.0f && fy == 1.0f) {
    const unsigned char* p = flow->Row(b) + a * 8;
    *u = PLLoad<float>(p);
    *v = PLLoad<float>(p + 4);
    return;
  }
  int32_t ix, iy;
  float tx, ty;
  ScanCell(static_cast<float>(a) * fx, flow->lastColumn, &ix, &tx);
  ScanCell(static_cast<float>(b) * fy, flow->lastRow, &iy, &ty);
  const unsigned char* up = flow->Row(iy) + ix * 8;
  const unsigned char* low = flow->Row(iy + 1) + ix * 8;
  float out[2];
  for (int32_t c = 0; c < 2; ++c) {
    const float p = PLLoad<float>(up + 4 * c);
    const float right = PLLoad<float>(up + 8 + 4 * c);
    const float lower = PLLoad<float>(low + 4 * c);
    const float lowerRight = PLLoad<float>(low + 8 + 4 * c);
    const float top = tx * (right - p) + p;
    const float bottom = tx * (lowerRight - lower) + lower;
    out[c] = ty * (bottom - top) + top;
  }
  *u = out[0];
  *v = out[1];
}

// Values fixed for one walk.
struct MeshGeometry {
  float scale, fx, fy, gx, gy, maxX, maxY;
};

MeshGeometry MakeGeometry(const MeshWarpJob& job, float amount) {
  MeshGeometry g;
  const int32_t sw = job.sourceWidth;
  // One scale for x and y alike, from the widths: the target's height plays no part.
  g.scale = static_cast<float>(job.targetWidth - 1) / static_cast<float>(sw - 1);
  g.fx = static_cast<float>(job.flowWidth - 1) / static_cast<float>(sw - 1);
  g.fy = static_cast<float>(job.flowHeight - 1) / static_cast<float>(job.sourceHeight - 1);
  g.gx = amount / g.fx;
  g.gy = amount / g.fy;
  g.maxX = static_cast<float>(job.targetWidth - 1);
  g.maxY = static_cast<float>(job.targetHeight - 1);
  return g;
}

// Mesh point (a, b): source position (a, b), target ((gx u + a) scale, (gy v + b) scale).
inline MeshVertex MeshPoint(const MeshWarpJob& job, const MeshGeometry& g, int32_t a,
                            int32_t b) {
  float u, v;
  FlowAt(job.flow, g.fx, g.fy, a, b, &u, &v);
  return MeshVertex{(g.gx * u + static_cast<float>(a)) * g.scale,
                    (g.gy * v + static_cast<float>(b)) * g.scale, static_cast<float>(a),
                    static_cast<float>(b), 0.0f};
}

void MeshRow(const MeshWarpJob& job, const MeshGeometry& g, int32_t b, MeshVertex* out) {
  for (int32_t a = 0; a < job.sourceWidth; ++a) out[a] = MeshPoint(job, g, a, b);
}

// The target rows each mesh row reaches: the least and greatest target y of its points
// (-inf and +inf for a row with a NaN, so that it is never passed over).
void MeshRowReachWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const MeshWarpJob* job = args->Next<const MeshWarpJob*>();
  const MeshGeometry* g = args->Next<const MeshGeometry*>();
  float* least = args->Next<float*>();
  float* greatest = args->Next<float*>();
  const float inf = std::numeric_limits<float>::infinity();
  for (int32_t b = firstRow; b <= lastRow; ++b) {
    float lo = inf, hi = -inf;
    for (int32_t a = 0; a < job->sourceWidth; ++a) {
      const float y = MeshPoint(*job, *g, a, b).targetY;
      if (y != y) {
        lo = -inf;
        hi = inf;
        break;
      }
      lo = y < lo ? y : lo;
      hi = y > hi ? y : hi;
    }
    least[b] = lo;
    greatest[b] = hi;
  }
}

// The walker for one layout and one write rule, over one band of target rows: every cell
// in mesh order whose two mesh rows reach the band, two triangles each, drawn only inside
// the band. Bands split the target's rows, so workers write disjoint rows, and each pixel
// sees the writes of one walk in mesh order: the result is that of a single walk.
template <class S, class D, int32_t C, bool Bilinear, bool Average>
void WalkMeshBand(int32_t thread, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const MeshWarpJob* job = args->Next<const MeshWarpJob*>();
  const MeshGeometry* g = args->Next<const MeshGeometry*>();
  const float* least = args->Next<const float*>();
  const float* greatest = args->Next<const float*>();
  MeshVertex* lines = args->Next<MeshVertex*>();
  const int32_t sw = job->sourceWidth;
  MeshVertex* upper = lines + 2 * static_cast<int64_t>(sw) * thread;  // this worker's pair
  MeshVertex* lower = upper + sw;
  int32_t upperRow = -1, lowerRow = -1;
  const float first = static_cast<float>(firstRow), last = static_cast<float>(lastRow);
  MeshPlot<S, D, C, Bilinear, Average> plot{job->source, job->target, job->counts};
  for (int32_t j = 0; j < job->sourceHeight - 1; ++j) {
    const float lo = least[j] < least[j + 1] ? least[j] : least[j + 1];
    const float hi = greatest[j] > greatest[j + 1] ? greatest[j] : greatest[j + 1];
    if (hi < first || lo > last) continue;
    if (upperRow != j) {
      if (lowerRow == j) {
        MeshVertex* swap = upper;
        upper = lower;
        lower = swap;
        lowerRow = -1;
      } else {
        MeshRow(*job, *g, j, upper);
      }
      upperRow = j;
    }
    if (lowerRow != j + 1) {
      MeshRow(*job, *g, j + 1, lower);
      lowerRow = j + 1;
    }
    for (int32_t i = 0; i < sw - 1; ++i) {
      ScanTriangle(upper[i], upper[i + 1], lower[i], g->maxX, g->maxY, plot, firstRow, lastRow);
      // The second triangle: the cell's fourth point takes the first one's place.
      ScanTriangle(lower[i + 1], upper[i + 1], lower[i], g->maxX, g->maxY, plot, firstRow,
                   lastRow);
    }
  }
}

// Clears the job's unread words, finds the rows each mesh row reaches, then walks the mesh
// in bands of target rows.
template <class S, class D, int32_t C, bool Bilinear, bool Average>
void WalkMesh(MeshWarpJob* job, float amount) {
  job->secondMesh[0] = 0;
  job->secondMesh[1] = 0;
  const MeshGeometry g = MakeGeometry(*job, amount);
  const int32_t sh = job->sourceHeight;
  ScanBuffer<float> reach(2 * static_cast<int64_t>(sh));
  float* least = reach.get();
  float* greatest = least + sh;
  const int32_t bands = NuvMPThreadsForRows(job->targetHeight);
  if (bands > 1) {
    PLForkImageRows(sh, MeshRowReachWorker, static_cast<const MeshWarpJob*>(job), &g, least,
                    greatest);
  } else {
    // One band holds every row: no mesh row is passed over, none needs its reach.
    for (int32_t b = 0; b < sh; ++b) {
      least[b] = -std::numeric_limits<float>::infinity();
      greatest[b] = std::numeric_limits<float>::infinity();
    }
  }
  ScanBuffer<MeshVertex> lines(2 * static_cast<int64_t>(job->sourceWidth) * bands);
  NuvMPFork(bands, job->targetHeight, WalkMeshBand<S, D, C, Bilinear, Average>,
            static_cast<const MeshWarpJob*>(job), &g, static_cast<const float*>(least),
            static_cast<const float*>(greatest), lines.get());
}

// Every hit pixel divided by its count as a float, rows in parallel. kept: the count sits in
// the lowest byte of the pixel, so the divisor is a subnormal float (count x 2^-149) and not
// the count; the callers' results were made with this division, and tidying it would change
// them.
template <class D, int32_t C>
void DivideByCountsWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* target = args->Next<PLImage*>();
  const PLImage* counts = args->Next<const PLImage*>();
  const float roundingAddend = *args->Next<const float*>();
  constexpr int32_t kSample = static_cast<int32_t>(sizeof(D));
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    const unsigned char* countRow = counts->Row(y);
    unsigned char* row = target->Row(y);
    for (int32_t x = 0; x < target->width; ++x) {
      const float divisor = PLLoad<float>(countRow + 4 * x);
      if (!(divisor > 0.0f)) continue;
      unsigned char* t = row + x * C * kSample;
      for (int32_t c = 0; c < C; ++c)
        StoreSample<D>(t + c * kSample, LoadSample<D>(t + c * kSample) / divisor + roundingAddend);
    }
  }
}

template <class D, int32_t C>
void DivideByCounts(PLImage* target, const PLImage* counts, float roundingAddend) {
  PLForkImageRows(target->height, DivideByCountsWorker<D, C>, target, counts, &roundingAddend);
}

// r = max/min(r, b) by combine, then mix * b + (1 - mix) * r + 0.5 through the per-sample
// writer, rows in parallel. The + 0.5 is added for every type, Float included, as the mix
// is defined.
void MixBackgroundWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* destination = args->Next<PLImage*>();
  const PLImage* background = args->Next<const PLImage*>();
  const int32_t combine = args->Next<int32_t>();
  const float mix = *args->Next<const float*>();
  PLSampleConverter write = PLGetSampleWriter(destination->dataType);
  const int32_t channels = destination->channels;
  for (int32_t y = firstRow; y <= lastRow; ++y)
    for (int32_t x = 0; x < destination->width; ++x) {
      unsigned char* d = destination->PixelAddress(x, y);
      const unsigned char* b = background->PixelAddress(x, y);
      for (int32_t c = 0; c < channels; ++c) {
        float r, under;
        destination->readSample(&r, d + c * destination->bytesPerSample);
        background->readSample(&under, b + c * background->bytesPerSample);
        if (combine == 1) r = r < under ? under : r;
        if (combine == 2) r = under < r ? under : r;
        r = mix * under + (1.0f - mix) * r + 0.5f;
        write(d + c * destination->bytesPerSample, &r);
      }
    }
}

bool Working(const PLImage* image) {
  return image != nullptr && image->data != nullptr && image->width >= 1 && image->height >= 1 &&
         (image->dataType == PLUChar || image->dataType == PLUShort ||
          image->dataType == PLFloat) &&
         image->channels >= 1 && image->channels <= 4;
}

bool WarpInputsFit(const PLImage* destination, const PLImage* source, const PLImage* flow,
                   const PLImage* background, int32_t factor, int32_t averaging) {
  if (!Working(destination) || !Working(source) || !Working(flow)) return false;
  if (source->width != destination->width || source->height != destination->height ||
      source->dataType != destination->dataType || source->channels != destination->channels)
    return false;
  if (flow->dataType != PLFloat || flow->channels != 2 || flow->width < 2 || flow->height < 2)
    return false;
  if (source->width < 2 || source->height < 2) return false;
  const int64_t targetWidth = int64_t{destination->width} * factor;
  const int64_t targetHeight = int64_t{destination->height} * factor;
  if (targetWidth > kMaxTargetSide || targetHeight > kMaxTargetSide) return false;
  // A temporary must be addressable by 32-bit row offsets: the target, and the counts.
  const int64_t sampleBytes = averaging == 1 ? 4 : destination->bytesPerSample;
  if ((factor > 1 || averaging == 1) &&
      targetWidth * destination->channels * sampleBytes * targetHeight > INT32_MAX)
    return false;
  if (averaging != 0 && targetWidth * 4 * targetHeight > INT32_MAX) return false;
  if (background != nullptr &&
      (!Working(background) || background->width != destination->width ||
       background->height != destination->height ||
       background->channels != destination->channels))
    return false;
  // Bands write the destination while others read the source and flow; the mix reads the
  // background pixel it writes over, and no other.
  if (SharesMemory(destination, source) || SharesMemory(destination, flow)) return false;
  if (background != nullptr && SharesMemory(destination, background) &&
      !(SameLayout(destination, background) && destination->dataType == background->dataType))
    return false;
  return true;
}

// A cleared temporary; a failed allocation leaves as PLErr with the image's errorCode.
std::unique_ptr<PLImage> NewTarget(int32_t width, int32_t height, int32_t channels,
                                   int32_t dataType) {
  std::unique_ptr<PLImage> image(NUV_NEW PLImage(0, width, height, channels, dataType, 0));
  if (image->errorCode != 0) throw static_cast<PLErr>(image->errorCode);
  Clear(image.get());
  return image;
}

}  // namespace

int32_t Warp(PLImage* destination, const PLImage* source, const PLImage* flow,
             int32_t bilinearSource, int32_t morphPath, int32_t averaging,
             const PLImage* background, int32_t oversampling, int32_t combine, float mix,
             float amount) {
  const int32_t factor = oversampling > 1 ? oversampling : 1;
  if (!WarpInputsFit(destination, source, flow, background, factor, averaging)) {
    std::fputs(kWarpRefusal, stderr);
    return 0;
  }
  if (morphPath == 1) return 0;  // no morph object in this library: refused

  const int32_t targetWidth = destination->width * factor;
  const int32_t targetHeight = destination->height * factor;
  const int32_t channels = destination->channels;
  std::unique_ptr<PLImage> temporary;
  std::unique_ptr<PLImage> counts;
  PLImage* target = destination;
  if (averaging == 1) {
    temporary = NewTarget(targetWidth, targetHeight, channels, PLFloat);
  } else if (factor > 1) {
    // Cleared as well: the over rule of 4 channels reads what is under it.
    temporary = NewTarget(targetWidth, targetHeight, channels, destination->dataType);
  }
  if (temporary) target = temporary.get();
  if (averaging != 0) counts = NewTarget(targetWidth, targetHeight, 1, PLFloat);

  MeshWarpJob job{};
  job.source = source;
  job.target = target;
  job.flow = flow;
  job.counts = counts.get();
  job.flowWidth = flow->width;
  job.flowHeight = flow->height;
  job.targetHeight = targetHeight;
  job.targetWidth = targetWidth;
  job.sourceWidth = source->width;
  job.sourceHeight = source->height;
  job.averaging = averaging;
  job.bilinearSource = bilinearSource;
  job.roundingAddend = source->dataType == PLFloat ? 0.0f : 0.5f;

  PLDispatch(source->dataType, channels, [&](auto tag) {
    using S = typename decltype(tag)::Type;
    constexpr int32_t C = decltype(tag)::Channels;
    const bool bilinear = bilinearSource != 0;
    if (averaging == 0) {
      if (bilinear) WalkMesh<S, S, C, true, false>(&job, amount);
      else WalkMesh<S, S, C, false, false>(&job, amount);
    } else if (averaging == 1) {
      if (bilinear) WalkMesh<S, float, C, true, true>(&job, amount);
      else WalkMesh<S, float, C, false, true>(&job, amount);
      DivideByCounts<float, C>(target, counts.get(), job.roundingAddend);
    } else {
      if (bilinear) WalkMesh<S, S, C, true, true>(&job, amount);
      else WalkMesh<S, S, C, false, true>(&job, amount);
      DivideByCounts<S, C>(target, counts.get(), job.roundingAddend);
    }
  });
  counts.reset();

  if (temporary) {
    if (factor < 2)
      ConvertRect(temporary.get(), destination, 0, 0, 0, 0, targetWidth, targetHeight);
    else
      PLZoom(destination, temporary.get(), PLTriangleFilter, nullptr, kPLTriangleSupport);
  }
  if (background != nullptr)
    PLForkImageRows(destination->height, MixBackgroundWorker, destination, background, combine,
                    &mix);
  return 1;
}
