// flowblur: the pull-push single channel fill: level stack, reduction, solve and its helpers.
#include "fill/PLSingleChannelFill.h"

#include <cstring>
#include <initializer_list>
#include <memory>
#include <type_traits>

#include "filter/PLKernels.h"
#include "filter/PLResize.h"
#include "image/PLDispatch.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "runtime/NuvMP.h"

namespace {

bool HasPixels(const PLImage* im) {
  return im && im->data && im->width > 0 && im->height > 0;
}

bool IsWorkingType(int32_t dataType) {
  return dataType == PLUChar || dataType == PLUShort || dataType == PLFloat;
}

int32_t Halve(int32_t side) {
  const int32_t half = side / 2;
  return half < 2 ? 2 : half;
}

// One Float plane through the non-throwing constructor, its code thrown at once.
PLImage* NewPlane(int32_t width, int32_t height) {
  PLImage* image = NUV_NEW PLImage(0, width, height, 1, PLFloat, 0);
  if (image->errorCode != 0) {
    PLErr err = static_cast<PLErr>(image->errorCode);
    delete image;
    throw err;
  }
  return image;
}

PLImage** NewArray(int32_t count) {
  const uint64_t bytes = sizeof(PLImage*) * static_cast<uint64_t>(count);
  PLImage** array = static_cast<PLImage**>(NuvMemAlloc(bytes));
  std::memset(array, 0, bytes);
  return array;
}

// ---- Row workers ----------------------------------------------------------------------

void CombineWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* result = args->Next<PLImage*>();
  const PLImage* value = args->Next<const PLImage*>();
  const PLImage* weight = args->Next<const PLImage*>();
  const size_t n = static_cast<size_t>(result->width) * result->channels;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* r = result->Row(y);
    const unsigned char* v = value->Row(y);
    const unsigned char* w = weight->Row(y);
    for (size_t i = 0; i < n; ++i) {
      const float wi = PLLoad<float>(w + 4 * i);
      if (wi != 0.0f) PLStore<float>(r + 4 * i, PLLoad<float>(v + 4 * i) / wi);
    }
  }
}

// Loads the mask into the level-0 weights: 1.0 on known pixels, 0 on holes (value 0 too).
template <class M>
void MaskWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* values = args->Next<PLImage*>();
  PLImage* weights = args->Next<PLImage*>();
  const PLImage* mask = args->Next<const PLImage*>();
  const int32_t w = values->width;
  const size_t maskStep = static_cast<size_t>(mask->bytesPerPixel);
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* v = values->Row(y);
    unsigned char* wt = weights->Row(y);
    const unsigned char* m = mask->Row(y);
    for (int32_t x = 0; x < w; ++x) {
      if (PLLoad<M>(m + x * maskStep) == M(0)) {
        PLStore<float>(wt + 4 * x, 1.0f);
      } else {
        PLStore<float>(wt + 4 * x, 0.0f);
        PLStore<float>(v + 4 * x, 0.0f);
      }
    }
  }
}

void UpsampleWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* dst = args->Next<PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  const float fx = *args->Next<const float*>();
  const float fy = *args->Next<const float*>();
  const int32_t channels = dst->channels;
  const int32_t lastCol = src->lastColumn, lastRowSrc = src->lastRow;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    const float py = static_cast<float>(y) * fy;
    int32_t iy = static_cast<int32_t>(py);
    float ty = py - static_cast<float>(iy);
    // At or past the source's last row the cell slides back with a fraction of 1.0. Only
    // the last destination row gets there on a grid of sensible sizes; the test is made on
    // every row so that no size can read outside.
    if (iy >= lastRowSrc) {
      iy = lastRowSrc - 1;
      ty = 1.0f;
    }
    const unsigned char* upper = src->Row(iy);
    const unsigned char* lower = upper + src->rowStep;
    unsigned char* out = dst->Row(y);
    for (int32_t x = 0; x <= dst->lastColumn; ++x) {
      const float px = static_cast<float>(x) * fx;
      int32_t ix = static_cast<int32_t>(px);
      float tx = px - static_cast<float>(ix);
      if (ix >= lastCol) {
        ix = lastCol - 1;
        tx = 1.0f;
      }
      const size_t left = static_cast<size_t>(ix) * channels * 4;
      const size_t right = left + static_cast<size_t>(channels) * 4;
      for (int32_t c = 0; c < channels; ++c) {
        const size_t o = static_cast<size_t>(c) * 4;
        const float p = PLLoad<float>(upper + left + o);
        const float r = PLLoad<float>(upper + right + o);
        const float l = PLLoad<float>(lower + left + o);
        const float lr = PLLoad<float>(lower + right + o);
        const float a = (r - p) * tx + p;
        const float b = (lr - l) * tx + l;
        PLStore<float>(out + (static_cast<size_t>(x) * channels) * 4 + o, (b - a) * ty + a);
      }
    }
  }
}

// Store rules of CopyChannel by destination type.
template <class D>
struct ChannelStore {
  static constexpr float kTop = sizeof(D) == 1 ? 255.0f : 65535.0f;
  template <class S>
  static D From(S s) {
    const float r = static_cast<float>(s) + 0.5f;
    if (!(r >= 0.0f)) return D(0);  // below 0, and NaN
    if (r > kTop) return static_cast<D>(kTop);
    return static_cast<D>(static_cast<int32_t>(r));
  }
};
template <>
struct ChannelStore<float> {
  template <class S>
  static float From(S s) {
    return static_cast<float>(s);
  }
};

template <class D, class S>
void CopyChannelWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* dst = args->Next<PLImage*>();
  const int32_t dstChannel = args->Next<int32_t>();
  const PLImage* src = args->Next<const PLImage*>();
  const int32_t srcChannel = args->Next<int32_t>();
  const size_t dStep = static_cast<size_t>(dst->bytesPerPixel);
  const size_t sStep = static_cast<size_t>(src->bytesPerPixel);
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* d = dst->Row(y) + static_cast<size_t>(dstChannel) * sizeof(D);
    const unsigned char* s = src->Row(y) + static_cast<size_t>(srcChannel) * sizeof(S);
    for (int32_t x = 0; x < dst->width; ++x, d += dStep, s += sStep) {
      if constexpr (std::is_same<D, S>::value)
        std::memcpy(d, s, sizeof(D));
      else
        PLStore<D>(d, ChannelStore<D>::From(PLLoad<S>(s)));
    }
  }
}

// A side of 1 doubled, so the bilinear reduction reads two equal columns (rows) instead of
// one: each coarser level then holds exactly that column's (row's) values.
std::unique_ptr<PLImage> Doubled(const PLImage* plane) {
  const int32_t w = plane->width < 2 ? 2 : plane->width;
  const int32_t h = plane->height < 2 ? 2 : plane->height;
  std::unique_ptr<PLImage> out(NUV_NEW PLImage(w, h, 1, PLFloat, 0));
  for (int32_t y = 0; y < h; ++y) {
    const unsigned char* s = plane->Row(y < plane->height ? y : 0);
    unsigned char* d = out->Row(y);
    for (int32_t x = 0; x < w; ++x)
      std::memcpy(d + 4 * x, s + 4 * (x < plane->width ? x : 0), 4);
  }
  return out;
}

// values[i - 1] copied into `work`, blurred, then resized into `next`.
void Reduce(PLImage* next, PLImage* work, PLImage* from) {
  CopyRect(work, 0, 0, from, 0, 0, from->width, from->height);
  PLBinomial5Blur(work);
  if (work->width < 2 || work->height < 2)
    PLResizeBilinear(next, Doubled(work).get());
  else
    PLResizeBilinear(next, work);
}

}  // namespace

PLSingleChannelFill::PLSingleChannelFill(int32_t width, int32_t height)
    : width(width), height(height) {
  if (width < 1 || height < 1) throw PLErrParameter;
  lastX = static_cast<float>(width - 1);
  lastY = static_cast<float>(height - 1);
  int32_t count = 1;
  for (int32_t w = width, h = height;;) {
    w = Halve(w);
    h = Halve(h);
    ++count;
    if (w == 2 && h == 2) break;
  }
  topLevel = count;
  lastLevel = topLevel - 1;
  try {
    solution = NewArray(topLevel + 1);
    values = NewArray(topLevel + 1);
    weights = NewArray(topLevel + 1);
    scratch = NewArray(topLevel + 2);
    int32_t w = width, h = height;
    for (int32_t level = 0; level <= topLevel; ++level) {
      solution[level] = NewPlane(w, h);
      values[level] = NewPlane(w, h);
      weights[level] = NewPlane(w, h);
      scratch[level] = NewPlane(w, h);
      w = Halve(w);
      h = Halve(h);
    }
  } catch (PLErr&) {
    Release();
    throw;
  }
}

PLSingleChannelFill::~PLSingleChannelFill() { Release(); }

void PLSingleChannelFill::Release() {
  for (PLImage** array : {solution, values, weights, scratch}) {
    if (!array) continue;
    const int32_t entries = array == scratch ? topLevel + 2 : topLevel + 1;
    for (int32_t level = 0; level < entries; ++level) delete array[level];
  }
  NuvMemFree(solution);
  NuvMemFree(values);
  NuvMemFree(weights);
  NuvMemFree(scratch);
  solution = values = weights = scratch = nullptr;
}

void PLSingleChannelFill::Prepare(const PLImage* image, int32_t channel, const PLImage* mask) {
  if (!HasPixels(image) || !HasPixels(mask) || image->width != width ||
      image->height != height || mask->width != width || mask->height != height ||
      channel < 0 || channel >= image->channels || !IsWorkingType(image->dataType) ||
      !IsWorkingType(mask->dataType))
    throw PLErrParameter;
  CopyChannel(values[0], 0, image, channel);
  PLDispatchType(mask->dataType, [&](auto tag) {
    PLForkImageRows(height, MaskWorker<typename decltype(tag)::Type>, values[0], weights[0], mask);
  });
  for (int32_t level = 1; level <= topLevel; ++level) {
    Reduce(values[level], solution[level - 1], values[level - 1]);
    Reduce(weights[level], scratch[level - 1], weights[level - 1]);
  }
}

void PLSingleChannelFill::Solve(NuvIdleAndProgressClass* progress, int32_t solveMode) {
  if (solveMode != 0) throw PLErrParameter;
  mode = solveMode;
  NuvIdleAndProgressClass child(progress);
  int64_t total = 0;
  for (int32_t level = 0; level <= lastLevel; ++level)
    total += int64_t{values[level]->width} * values[level]->height;
  total *= smoothings;
  Clear(solution[lastLevel]);
  smoothings = 1;
  int64_t done = 0;
  for (int32_t level = lastLevel; level >= 0; --level) {
    PLImage* s = solution[level];
    Combine(s, values[level], weights[level]);
    for (int32_t k = 0; k < smoothings; ++k) {
      Smooth(s, 0, 1);
      child.Idle();
    }
    if (level == 0)
      Combine(s, values[0], weights[0]);  // known pixels back to their exact values
    else
      Upsample(solution[level - 1], s);
    done += int64_t{s->width} * s->height;
    child.Progress(static_cast<float>(static_cast<double>(done) / static_cast<double>(total)));
  }
}

void PLSingleChannelFill::Combine(PLImage* result, const PLImage* value, const PLImage* weight) {
  if (!HasPixels(result) || !HasPixels(value) || !HasPixels(weight) ||
      result->dataType != PLFloat || value->dataType != PLFloat || weight->dataType != PLFloat ||
      value->channels != result->channels || weight->channels != result->channels ||
      value->width != result->width || weight->width != result->width ||
      value->height != result->height || weight->height != result->height)
    throw PLErrParameter;
  PLForkImageRows(result->height, CombineWorker, result, value, weight);
}

void PLSingleChannelFill::Smooth(PLImage* image, int32_t first, int32_t second) {
  if (first != 0 || second != 1) throw PLErrParameter;
  PLGaussBlur(image, 0, 5.0f);
}

void PLSingleChannelFill::Upsample(PLImage* dst, const PLImage* src) {
  if (!dst || !src || dst->dataType != PLFloat || src->dataType != PLFloat ||
      dst->channels != src->channels)
    throw PLErrParameter;
  if (!HasPixels(dst) || !HasPixels(src) || src->width < 2 || src->height < 2 || dst == src)
    throw PLErrParameter;
  // A destination of one column (row) has no ratio of last indices: it reads column (row) 0.
  const float fx = dst->width == 1 ? 0.0f
                                   : 1.0f / ((static_cast<float>(dst->width) - 1.0f) /
                                             static_cast<float>(src->width - 1));
  const float fy = dst->height == 1 ? 0.0f
                                    : 1.0f / ((static_cast<float>(dst->height) - 1.0f) /
                                              static_cast<float>(src->height - 1));
  PLForkImageRows(dst->height, UpsampleWorker, dst, src, &fx, &fy);
}

void PLSingleChannelFill::CopyChannel(PLImage* dst, int32_t dstChannel, const PLImage* src,
                                      int32_t srcChannel) {
  if (!HasPixels(dst) || !HasPixels(src) || dst->width != src->width ||
      dst->height != src->height || dstChannel < 0 || dstChannel >= dst->channels ||
      srcChannel < 0 || srcChannel >= src->channels || !IsWorkingType(dst->dataType) ||
      !IsWorkingType(src->dataType))
    throw PLErrParameter;
  PLDispatchType(dst->dataType, [&](auto dTag) {
    using D = typename decltype(dTag)::Type;
    PLDispatchType(src->dataType, [&](auto sTag) {
      using S = typename decltype(sTag)::Type;
      PLForkImageRows(dst->height, CopyChannelWorker<D, S>, dst, dstChannel, src, srcChannel);
    });
  });
}

void PLSingleChannelFill(PLImage* image, const PLImage* mask, NuvIdleAndProgressClass* progress) {
  if (!HasPixels(image) || !HasPixels(mask)) return;
  if (image->width != mask->width || image->height != mask->height) return;
  if (!IsWorkingType(image->dataType) || !IsWorkingType(mask->dataType)) throw PLErrParameter;
  class PLSingleChannelFill fill(image->width, image->height);
  for (int32_t channel = 0; channel < image->channels; ++channel) {
    fill.Prepare(image, channel, mask);
    fill.Solve(progress, 0);
    PLSingleChannelFill::CopyChannel(image, channel, fill.solution[0], 0);
  }
}
