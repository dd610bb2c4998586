// flowblur: PLZoom, the two-pass resampler with weights from a chosen filter.
#include "fill/PLZoom.h"

#include <cmath>
#include <cstring>
#include <initializer_list>
#include <type_traits>

#include "fill/LirpedTable.h"
#include "image/PLDispatch.h"
#include "image/PLPixelConvert.h"

// ---- Filters ---------------------------------------------------------------------------------
// Single precision with float constants unless a line says double.

float PLHermiteFilter(float d) {
  const double a = std::fabs(static_cast<double>(d));
  if (a < 1.0) return static_cast<float>((2.0 * a - 3.0) * (a * a) + 1.0);
  return 0.0f;
}

float PLTriangleFilter(float d) {
  const float a = std::fabs(d);
  if (a < 1.0f) return 1.0f - a;
  return 0.0f;
}

float PLQuadraticBSplineFilter(float d) {
  const float a = std::fabs(d);
  if (a < 0.5f) return 0.75f - a * a;
  if (a < 1.5f) {
    const float t = a - 1.5f;
    return 0.5f * (t * t);
  }
  return 0.0f;
}

float PLCubicBSplineFilter(float d) {
  const float a = std::fabs(d);
  if (a < 1.0f) return 0.5f * (a * a * a) - a * a + 0.6666666666666666f;
  if (a < 2.0f) {
    const float t = 2.0f - a;
    return t * t * t * 0.16666666666666666f;
  }
  return 0.0f;
}

float PLTabulatedCubicBSplineFilter(float d) {
  const float a = std::fabs(d);
  if (!(a <= 2.0f)) return 0.0f;  // above 2, or NaN (ours: no index to truncate)
  const LirpedTable& t = PLCubicBSplineTable;
  if (!t.table) return 0.0f;
  // The nearest entry, no interpolation.
  return t.table[static_cast<int32_t>((a - t.low) * t.scale + 0.5f)];
}

float PLSincFilter(float d) {
  if (d == 0.0f) return 1.0f;
  const float x = 3.14159265359f * d;
  return std::sin(x) / x;
}

float PLLanczos3Filter(float d) {
  const float a = std::fabs(d);
  if (a < 3.0f) return PLSincFilter(a) * PLSincFilter(a / 3.0f);
  return 0.0f;
}

float PLMitchellFilter(float d) {
  const float a = std::fabs(d);
  const float a2 = a * a;
  const float a3 = a2 * a;
  if (a < 1.0f) return (7.0f * a3 - 12.0f * a2 + 5.333333333333333f) / 6.0f;
  if (a < 2.0f)
    return (-2.3333333333333335f * a3 + 12.0f * a2 - 20.0f * a + 10.666666666666666f) / 6.0f;
  return 0.0f;
}

float PLBoxFilter(float d) {
  // kept: half-open on the left, so a tap exactly halfway goes to one side only.
  if (d > -0.5f && d <= 0.5f) return 1.0f;
  return 0.0f;
}

// ---- Working storage -------------------------------------------------------------------------

PLZoomTempStorage::~PLZoomTempStorage() {
  NuvMemFree(pool);
  NuvMemFree(lists);
  NuvMemFree(middle);
}

namespace {

// A block that is released when the scope ends, thrown through or not.
struct ScopedBlock {
  void* block = nullptr;
  explicit ScopedBlock(uint64_t bytes) : block(NuvMemAlloc(bytes)) {}
  ~ScopedBlock() { NuvMemFree(block); }
  ScopedBlock(const ScopedBlock&) = delete;
  ScopedBlock& operator=(const ScopedBlock&) = delete;
};

// Contributors the pool must hold for one axis at this support: trunc((2w + 2) * n) for the
// plain and the scaled support, the larger. A list longer than an int32 count, or a pool
// that could not be addressed, cannot be had: PLErrOutOfMemory.
uint64_t PoolContributors(int32_t srcSize, int32_t dstSize, float support) {
  const float n = static_cast<float>(dstSize);
  const float scaled = support * static_cast<float>(srcSize) / n;
  uint64_t most = 0;
  for (float w : {support, scaled}) {
    const float perList = 2.0f * w + 2.0f;
    const float total = perList * n;
    if (!(perList < 2147483648.0f) || !(total < 2305843009213693952.0f)) {  // 2^31, 2^61
      PLErr err = PLErrOutOfMemory;
      throw err;
    }
    const uint64_t count = static_cast<uint64_t>(total);
    if (count > most) most = count;
  }
  return most;
}

}  // namespace

void PLZoomTempStorage::Prepare(const PLImage* src, const PLImage* dst, float support) {
  const uint64_t middleBytes = static_cast<uint64_t>(dst->width) *
                               static_cast<uint64_t>(src->height) *
                               static_cast<uint64_t>(src->bytesPerPixel);
  if (middleCapacity < middleBytes) {
    NuvMemFree(middle);
    middle = nullptr;
    middleCapacity = 0;
    middle = static_cast<unsigned char*>(NuvMemAlloc(middleBytes));
    middleCapacity = middleBytes;
  }
  {
    // Probe: fail here, before any pixel is touched, rather than between the passes.
    const uint64_t c = static_cast<uint64_t>(src->channels) * sizeof(float);
    ScopedBlock one(c);
    ScopedBlock row(c * static_cast<uint64_t>(src->width));
    ScopedBlock column(c * static_cast<uint64_t>(src->height));
  }
  if (!AcquireLists(static_cast<uint64_t>(dst->width) * sizeof(PLZoomContributorList))) {
    PLErr err = PLErrParameter;
    throw err;
  }
  uint64_t contributors = PoolContributors(src->width, dst->width, support);
  const uint64_t rows = PoolContributors(src->height, dst->height, support);
  if (rows > contributors) contributors = rows;
  try {
    ReservePool(contributors * sizeof(PLZoomContributor));
  } catch (PLErr&) {
    ReleaseLists();
    throw;
  }
  ReleaseLists();
  poolUsed = 0;
  poolBusy = 0;
}

void PLZoomTempStorage::ReservePool(uint64_t bytes) {
  if (poolCapacity < bytes) {
    NuvMemFree(pool);
    pool = nullptr;
    poolCapacity = 0;
    pool = static_cast<unsigned char*>(NuvMemAlloc(bytes));
    std::memset(pool, 0, bytes);
    poolCapacity = bytes;
  }
  poolBusy = 1;
}

void* PLZoomTempStorage::TakeFromPool(uint64_t bytes) {
  if (bytes > poolCapacity - poolUsed) return nullptr;
  void* old = pool + poolUsed;
  poolUsed += bytes;
  return old;
}

void PLZoomTempStorage::ResetPool() {
  poolUsed = 0;
  poolBusy = 0;
}

void* PLZoomTempStorage::AcquireLists(uint64_t bytes) {
  if (listsBusy) return nullptr;
  if (listsCapacity < bytes) {
    NuvMemFree(lists);
    lists = nullptr;
    listsCapacity = 0;
    lists = static_cast<unsigned char*>(NuvMemAlloc(bytes));
    std::memset(lists, 0, bytes);
    listsCapacity = bytes;
  }
  listsBusy = 1;
  return lists;
}

void PLZoomTempStorage::ReleaseLists() { listsBusy = 0; }

// ---- The resampler ---------------------------------------------------------------------------

namespace {

// j reflected into 0 .. size - 1; -1 (passed over in the sums) when it is still outside.
int32_t ReflectIndex(int64_t j, int32_t size) {
  if (j < 0) j = -j;
  if (j >= size) j = 2 * static_cast<int64_t>(size) - j - 1;
  return (j >= 0 && j < size) ? static_cast<int32_t>(j) : -1;
}

// One list per output index along one axis, carved from the pool. The arithmetic is single
// precision: the filters take float distances and the support is a float.
PLZoomContributorList* BuildLists(PLZoomTempStorage* storage, int32_t srcSize, int32_t dstSize,
                                  PLZoomFilter filter, float support) {
  auto* lists = static_cast<PLZoomContributorList*>(
      storage->AcquireLists(static_cast<uint64_t>(dstSize) * sizeof(PLZoomContributorList)));
  if (!lists) {
    PLErr err = PLErrParameter;
    throw err;
  }
  const float scale = static_cast<float>(dstSize) / static_cast<float>(srcSize);
  const float step = 1.0f / scale;
  const bool enlarging = scale >= 1.0f;
  const float w = enlarging ? support : support / scale;
  for (int32_t i = 0; i < dstSize; ++i) {
    const float center = static_cast<float>(i) * step;
    const float leftF = std::ceil(center - w);
    const float rightF = std::floor(center + w);
    const int64_t left = static_cast<int64_t>(leftF);
    const int64_t right = static_cast<int64_t>(rightF);
    const int64_t count = right >= left ? right - left + 1 : 0;
    auto* contributors = static_cast<PLZoomContributor*>(
        storage->TakeFromPool(static_cast<uint64_t>(count) * sizeof(PLZoomContributor)));
    if (!contributors) {  // Prepare sized the pool for the longest list; never expected
      PLErr err = PLErrOutOfMemory;
      throw err;
    }
    lists[i].count = static_cast<int32_t>(count);
    lists[i].contributors = contributors;
    if (enlarging) {
      for (int64_t k = 0; k < count; ++k) {
        const int64_t j = left + k;
        contributors[k].index = ReflectIndex(j, srcSize);
        contributors[k].weight = filter(center - static_cast<float>(j));
      }
    } else {
      // The distance walks down from center - left by 1.0 a contributor (not center - j).
      float distance = center - leftF;
      for (int64_t k = 0; k < count; ++k) {
        contributors[k].index = ReflectIndex(left + k, srcSize);
        contributors[k].weight = filter(distance * scale) * scale;
        distance -= 1.0f;
      }
    }
  }
  return lists;
}

// Sample c of a pixel as GetPixel reads it: UChar and UShort by value, a Float image as
// 16-bit words at a 2-byte step.
template <class T>
inline float LoadSample(const unsigned char* pixel, int32_t c) {
  if constexpr (std::is_same<T, uint8_t>::value)
    return static_cast<float>(pixel[c]);
  else
    return static_cast<float>(PLLoad<uint16_t>(pixel + 2 * c));
}

// Stored as SetPixel stores it: integer types truncate (no + 0.5), Float as it is.
template <class T>
inline void StoreSample(unsigned char* pixel, int32_t c, float v) {
  if constexpr (std::is_same<T, uint8_t>::value)
    pixel[c] = PLFloatToUChar(v);
  else if constexpr (std::is_same<T, uint16_t>::value)
    PLStore<uint16_t>(pixel + 2 * c, PLFloatToUShort(v));
  else
    PLStore<float>(pixel + 4 * c, v);
}

// kept: 255 whatever the type; the resampler is for 8-bit images (a UShort result is
// limited to 255, a Float one in 0 .. 1 passes). NaN passes through.
inline float Clamp255(float v) {
  if (v < 0.0f) return 0.0f;
  if (v > 255.0f) return 255.0f;
  return v;
}

struct ZoomJob {
  PLImage* dst;
  const PLImage* src;
  PLZoomFilter filter;
  PLZoomTempStorage* storage;
  float support;
};

template <class TS, class TD, int32_t C>
void RunZoom(const ZoomJob& job) {
  const PLImage* src = job.src;
  PLImage* dst = job.dst;
  PLZoomTempStorage* storage = job.storage;
  const int32_t srcW = src->width, srcH = src->height;
  const int32_t dstW = dst->width, dstH = dst->height;
  const int32_t srcBpp = src->bytesPerPixel, dstBpp = dst->bytesPerPixel;
  const uint64_t middleRowBytes = static_cast<uint64_t>(dstW) * static_cast<uint64_t>(srcBpp);

  ScopedBlock lineBlock(static_cast<uint64_t>(srcW) * C * sizeof(float));
  ScopedBlock sumBlock(static_cast<uint64_t>(dstW) * C * sizeof(float));
  float* line = static_cast<float*>(lineBlock.block);
  float* sums = static_cast<float*>(sumBlock.block);

  // First pass: each src row into a row of the intermediate image, dst columns wide.
  const PLZoomContributorList* lists = BuildLists(storage, srcW, dstW, job.filter, job.support);
  for (int32_t y = 0; y < srcH; ++y) {
    const unsigned char* row = src->Row(y);
    for (int32_t x = 0; x < srcW; ++x)
      for (int32_t c = 0; c < C; ++c) line[x * C + c] = LoadSample<TS>(row + x * srcBpp, c);
    unsigned char* out = storage->middle + static_cast<uint64_t>(y) * middleRowBytes;
    for (int32_t i = 0; i < dstW; ++i) {
      const PLZoomContributorList& list = lists[i];
      float sum[C] = {};
      for (int32_t k = 0; k < list.count; ++k) {
        const int32_t index = list.contributors[k].index;
        if (index < 0) continue;  // outside the row even after reflection
        const float weight = list.contributors[k].weight;
        const float* s = line + index * C;
        for (int32_t c = 0; c < C; ++c) sum[c] += weight * s[c];
      }
      for (int32_t c = 0; c < C; ++c) StoreSample<TS>(out + i * srcBpp, c, Clamp255(sum[c]));
    }
  }
  storage->ReleaseLists();
  storage->ResetPool();

  // Second pass: each dst row from the rows of the intermediate image. A dst sample's sum
  // takes the contributors in list order exactly as a column walk would; running along
  // rows only changes which sums are in progress at once.
  lists = BuildLists(storage, srcH, dstH, job.filter, job.support);
  const int32_t n = dstW * C;
  for (int32_t y = 0; y < dstH; ++y) {
    const PLZoomContributorList& list = lists[y];
    for (int32_t i = 0; i < n; ++i) sums[i] = 0.0f;
    for (int32_t k = 0; k < list.count; ++k) {
      const int32_t index = list.contributors[k].index;
      if (index < 0) continue;
      const float weight = list.contributors[k].weight;
      const unsigned char* mrow = storage->middle + static_cast<uint64_t>(index) * middleRowBytes;
      if constexpr (std::is_same<TS, float>::value) {
        for (int32_t x = 0; x < dstW; ++x)
          for (int32_t c = 0; c < C; ++c)
            sums[x * C + c] += weight * LoadSample<TS>(mrow + x * srcBpp, c);
      } else {
        const TS* m = reinterpret_cast<const TS*>(mrow);  // our own aligned block
        for (int32_t i = 0; i < n; ++i) sums[i] += weight * static_cast<float>(m[i]);
      }
    }
    unsigned char* out = dst->Row(y);
    for (int32_t x = 0; x < dstW; ++x)
      for (int32_t c = 0; c < C; ++c)
        StoreSample<TD>(out + x * dstBpp, c, Clamp255(sums[x * C + c]));
  }
  storage->ReleaseLists();
  storage->ResetPool();
}

bool BadImage(const PLImage* image) {
  return !image || !image->data || image->width < 1 || image->height < 1;
}

// The claim of a storage for one call, and a temporary storage when none was given.
class StorageClaim {
 public:
  explicit StorageClaim(PLZoomTempStorage* given) {
    if (!given) {
      temporary = NUV_NEW PLZoomTempStorage();
      storage = temporary;
    } else {
      storage = given;
    }
    int32_t expected = 0;
    if (!storage->inUse.compare_exchange_strong(expected, 1)) {
      storage = nullptr;
      delete temporary;
      PLErr err = PLErrParameter;
      throw err;
    }
  }
  ~StorageClaim() {
    // A pass that threw may have left the lists or the pool marked busy.
    storage->ReleaseLists();
    storage->ResetPool();
    storage->inUse.store(0);
    delete temporary;
  }
  StorageClaim(const StorageClaim&) = delete;
  StorageClaim& operator=(const StorageClaim&) = delete;
  PLZoomTempStorage* storage = nullptr;

 private:
  PLZoomTempStorage* temporary = nullptr;
};

}  // namespace

void PLZoom(PLImage* dst, const PLImage* src, PLZoomFilter filter, PLZoomTempStorage* storage,
            float support) {
  if (BadImage(dst) || BadImage(src) || dst->channels != src->channels || !filter ||
      !std::isfinite(support) || support < 0.0f) {
    PLErr err = PLErrParameter;
    throw err;
  }
  // The instance is chosen once; an unsupported type or channel count does nothing.
  void (*run)(const ZoomJob&) = nullptr;
  PLDispatch(src->dataType, src->channels, [&](auto pixel) {
    using TS = typename decltype(pixel)::Type;
    constexpr int32_t C = decltype(pixel)::Channels;
    PLDispatchType(dst->dataType, [&](auto out) {
      using TD = typename decltype(out)::Type;
      run = &RunZoom<TS, TD, C>;
    });
  });
  if (!run) return;
  StorageClaim claim(storage);
  claim.storage->Prepare(src, dst, support);
  run(ZoomJob{dst, src, filter, claim.storage, support});
}

void PLZoom(PLImage* dst, const PLImage* src) {
  PLZoom(dst, src, PLTabulatedCubicBSplineFilter, nullptr, 2.0f);
}

void PLZoom(PLImage* dst, const PLImage* src, PLZoomTempStorage* storage) {
  PLZoom(dst, src, PLTabulatedCubicBSplineFilter, storage, 2.0f);
}
