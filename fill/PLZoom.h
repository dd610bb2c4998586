// flowblur: the two-pass zoom resampler, its filters and its reusable working storage.
#pragma once
#include <atomic>
#include <cstdint>

#include "image/PLImage.h"
#include "runtime/NuvMem.h"

// ---- Filters -------------------------------------------------------------------------------
// A filter maps a distance in source pixels to an (unnormalised) weight; all are even.
// Single precision with float constants, except where marked double.
typedef float (*PLZoomFilter)(float distance);

// a = |d| throughout.
// a < 1: (2a - 3) * a^2 + 1, evaluated in double and narrowed once; else 0.
float PLHermiteFilter(float d);
// a < 1: 1 - a; else 0.
float PLTriangleFilter(float d);
// a < 0.5: 0.75 - a^2; a < 1.5: 0.5 * (a - 1.5)^2; else 0.
float PLQuadraticBSplineFilter(float d);
// a < 1: 0.5 a^3 - a^2 + 2/3; a < 2: (2 - a)^3 / 6; else 0.
float PLCubicBSplineFilter(float d);
// a above 2 (or NaN): 0. Otherwise entry trunc((a - low) * scale + 0.5) of
// PLCubicBSplineTable, without interpolation.
float PLTabulatedCubicBSplineFilter(float d);
// sin(pi d) / (pi d) with pi = 3.14159265359f (sinf); exactly 1 at d == 0. No support.
float PLSincFilter(float d);
// a < 3: sinc(a) * sinc(a / 3); else 0.
float PLLanczos3Filter(float d);
// Mitchell-Netravali with B = C = 1/3, as (polynomial) / 6.0f; 0 from a = 2 on.
float PLMitchellFilter(float d);
// -0.5 < d <= 0.5: 1; else 0 (asymmetric on purpose: a tap halfway between two pixels
// belongs to one of them only).
float PLBoxFilter(float d);

// Supports that go with the filters (the sinc has none: the caller picks one).
constexpr float kPLHermiteSupport = 1.0f;
constexpr float kPLTriangleSupport = 1.0f;
constexpr float kPLQuadraticBSplineSupport = 1.5f;
constexpr float kPLCubicBSplineSupport = 2.0f;
constexpr float kPLLanczos3Support = 3.0f;
constexpr float kPLMitchellSupport = 2.0f;
constexpr float kPLBoxSupport = 0.5f;

// ---- Contributor lists ---------------------------------------------------------------------
struct PLZoomContributor {
  int32_t index;  // source pixel, after reflection at the borders
  float weight;
};
struct PLZoomContributorList {
  int32_t count;
  PLZoomContributor* contributors;  // carved from the storage's pool
};

// ---- Working storage -----------------------------------------------------------------------
// Memory carried from one zoom to the next, so that a run of zooms of no larger sizes
// allocates its pool, lists and intermediate image once. Grown, never shrunk; released by
// the destructor. All blocks come from NuvMemAlloc, so a failure throws PLErrOutOfMemory.
//
// Concurrency (our rule; the lists are a member here, not a process-wide pointer): zooms
// with different storages, or with none, may run on any threads at the same time. One
// storage serves one zoom at a time: PLZoom claims it for the whole call (`inUse`), and a
// zoom that finds it claimed throws PLErrParameter (5) before touching anything. The
// members below are not themselves locked: call them only from the thread that owns the
// storage, not while a zoom runs on it.
class PLZoomTempStorage : public NuvMem {
 public:
  PLZoomTempStorage() = default;
  virtual ~PLZoomTempStorage();
  PLZoomTempStorage(const PLZoomTempStorage&) = delete;
  PLZoomTempStorage& operator=(const PLZoomTempStorage&) = delete;

  // Grows the storage for a zoom of src into dst with this support:
  // 1. `middle` to dst width * src height * src bytesPerPixel bytes (not zeroed);
  // 2. probes the line buffers the passes use (channels floats, channels * src width,
  //    channels * src height floats), releasing them at once; a failure leaves here as a
  //    PLErr before any pixel is touched;
  // 3. AcquireLists for dst width lists (PLErrParameter if they are busy);
  // 4./5. the pool to 8 bytes times the largest of trunc((2w + 2) * n) over the two axes
  //    (n the dst size, w the support and the support scaled by src / dst), then
  //    ReleaseLists and ResetPool.
  // The arguments are those PLZoom checked.
  void Prepare(const PLImage* src, const PLImage* dst, float support);
  // A larger zeroed block replaces `pool` when poolCapacity is short; sets poolBusy.
  void ReservePool(uint64_t bytes);
  // Moves poolUsed on by `bytes` and returns the old position; null when that would pass
  // poolCapacity (then nothing moves).
  void* TakeFromPool(uint64_t bytes);
  // poolUsed and poolBusy to 0.
  void ResetPool();
  // Null if listsBusy. Otherwise grows `lists` to a zeroed block of at least `bytes` when
  // short, sets listsBusy and returns it.
  void* AcquireLists(uint64_t bytes);
  // listsBusy to 0.
  void ReleaseLists();

  unsigned char* pool = nullptr;  // contributors are carved from here
  uint64_t poolCapacity = 0;      // bytes in pool
  uint64_t poolUsed = 0;          // bytes handed out
  int32_t poolBusy = 0;           // 1 while a pass uses the pool
  unsigned char* lists = nullptr; // array of PLZoomContributorList
  uint64_t listsCapacity = 0;     // bytes in lists
  int32_t listsBusy = 0;          // 1 while a pass uses the lists
  unsigned char* middle = nullptr;  // pixels of the intermediate image
  uint64_t middleCapacity = 0;      // bytes in middle
  std::atomic<int32_t> inUse{0};    // 1 while a PLZoom call owns this storage
};

// ---- The resampler -------------------------------------------------------------------------
// Resizes src into dst: first each dst column from a source row (into an intermediate image
// of dst width x src height, src's type and channels), then each dst row from that.
//
// Weights: one contributor list per output column (then row). scale = dst size / src size,
// center = i * (1 / scale). Enlarging (scale >= 1, equal sizes included): sources
// ceil(center - support) .. floor(center + support), weight filter(center - j). Reducing:
// w = support / scale, sources ceil(center - w) .. floor(center + w), weight
// filter(distance * scale) * scale with the distance starting at center - left and falling
// by 1.0 a source. A source index reflects at the borders (-j below 0, 2 * size - j - 1
// at or past the end); one still outside is passed over. Weights are NOT normalised.
//
// Samples are read as GetPixel reads them (UChar, UShort; a Float image as 16-bit words,
// so the resampler is meant for UChar images) and each sum is clamped to 0 .. 255 whatever
// the type (kept: a UShort image comes out limited to 255, a Float one in 0 .. 1 passes),
// then stored as SetPixel stores it (integer types truncate, no + 0.5). dst and src may
// differ in type; the intermediate image has src's type.
//
// Refused with PLErrParameter (5), nothing written: a null image or one without data,
// a width or height below 1 on either side, channel counts that differ, a NaN, infinite or
// negative support, a null filter, or `storage` in use by another zoom. A data type other
// than UChar, UShort, Float or channels outside 1 .. 4: a silent no-op. A support too large
// for memory throws PLErrOutOfMemory (1). Runs on the calling thread; dst and src may be
// the same image or overlap (src is fully read before dst is written).
//
// `storage` null: a temporary one is made and destroyed inside.
void PLZoom(PLImage* dst, const PLImage* src, PLZoomFilter filter, PLZoomTempStorage* storage,
            float support);
// PLTabulatedCubicBSplineFilter, support 2.0, temporary storage.
void PLZoom(PLImage* dst, const PLImage* src);
// The same with the caller's storage.
void PLZoom(PLImage* dst, const PLImage* src, PLZoomTempStorage* storage);
