// flowblur: the motion-blur entry points, their checks and the row worker that dispatches.
#include "blur/PLMotionBlur.h"

#include <cstdint>

#include "image/PLDispatch.h"

namespace {

// Past this the float pixel counters and x + 0.5 stop being exact.
constexpr int32_t kMaxSide = 1 << 23;

bool SideOk(int32_t side) { return side >= 2 && side <= kMaxSide; }

// Offsets are formed in 32 bits: every byte of the image must be reachable that way.
bool Addressable(const NuvImage* v) {
  int64_t extent = int64_t{v->lastRow} * v->rowBytes + int64_t{v->width} * v->bytesPerPixel;
  return v->rowBytes > 0 && extent <= INT32_MAX;
}

// Lowest and one-past-highest address that the rows of a view occupy, as integers (the
// images are unrelated objects).
void Span(const NuvImage* v, uintptr_t* low, uintptr_t* high) {
  *low = reinterpret_cast<uintptr_t>(v->data);
  *high = *low + static_cast<uintptr_t>(int64_t{v->lastRow} * v->rowBytes +
                                        int64_t{v->width} * v->bytesPerPixel);
}

[[noreturn]] void Refuse() { throw PLErrParameter; }

}  // namespace

void PLMotionBlur(PLImage* dst, const PLImage* src, const PLImage* flow, int32_t quality,
                  int32_t /*reserved*/, NuvIdleAndProgressClass* progress, uint8_t countOutside,
                  float amount) {
  if (!dst || !src || !flow) Refuse();
  PLMotionBlurRect(dst, src, flow, quality, progress, countOutside, 0, src->lastColumn, 0,
                   src->lastRow, amount);
}

void PLMotionBlurRect(PLImage* dst, const PLImage* src, const PLImage* flow, int32_t quality,
                      NuvIdleAndProgressClass* progress, uint8_t countOutside, int32_t x0,
                      int32_t x1, int32_t y0, int32_t y1, float amount) {
  if (!dst || !src || !flow) Refuse();
  // Wrappers and views on the stack, made source, destination, flow; they unwind in the
  // reverse order, also when a failure passes.
  NuvImageInternal srcWrap(src);
  NuvImage srcView;
  if (int32_t status = srcView.Attach(&srcWrap)) throw static_cast<PLErr>(status);
  NuvImageInternal dstWrap(dst);
  NuvImage dstView;
  if (int32_t status = dstView.Attach(&dstWrap)) throw static_cast<PLErr>(status);
  NuvImageInternal flowWrap(flow);
  NuvImage flowView;
  if (int32_t status = flowView.Attach(&flowWrap)) throw static_cast<PLErr>(status);

  const uint8_t bilinearSampling = quality == 1 ? 1 : 0;
  RenderMotionBlur(&dstView, &srcView, &flowView, bilinearSampling, progress, countOutside, x0,
                   x1, y0, y1, amount);
}

void RenderMotionBlur(NuvImage* dst, const NuvImage* src, const NuvImage* flow,
                      uint8_t bilinearSampling, NuvIdleAndProgressClass* progress,
                      uint8_t countOutside, int32_t x0, int32_t x1, int32_t y0, int32_t y1,
                      float amount) {
  if (!dst || !src || !flow || !dst->internal || !src->internal || !flow->internal) Refuse();
  // The checks of the design, in their order.
  if (src->pixelType < 0 || src->pixelType > 2) Refuse();
  if (src->GetChannels() != dst->GetChannels() || src->width != dst->width ||
      src->height != dst->height || src->pixelType != dst->pixelType)
    Refuse();
  if (flow->GetChannels() != 2 || flow->pixelType != 2) Refuse();
  // Outside the renderer's domain; refused here so that nothing below can divide by zero,
  // read outside an image or loop forever on float counters. A view of more than 4
  // channels is left unset by its attach, so the channel count comes first.
  const int32_t channels = src->GetChannels();
  if (channels < 1 || channels > 4) Refuse();
  if (!src->data || !dst->data || !flow->data) Refuse();
  if (!SideOk(src->width) || !SideOk(src->height)) Refuse();
  if (!SideOk(flow->width) || !SideOk(flow->height)) Refuse();
  if (!Addressable(src) || !Addressable(dst) || !Addressable(flow)) Refuse();
  if (y1 < y0 || y0 < 0 || y1 > src->lastRow) Refuse();
  if (x0 <= x1 && (x0 < 0 || x1 > src->lastColumn)) Refuse();
  // Rows are read across bands while others are written: the destination must not share
  // memory with the source or the flow.
  uintptr_t dLow, dHigh, sLow, sHigh, fLow, fHigh;
  Span(dst, &dLow, &dHigh);
  Span(src, &sLow, &sHigh);
  Span(flow, &fLow, &fHigh);
  if ((dLow < sHigh && sLow < dHigh) || (dLow < fHigh && fLow < dHigh)) Refuse();

  int32_t errorSlot = 0;
  int32_t interruptWord = 0;
  NuvIdleAndProgressClass jobProgress(progress);
  NuvIdleAndProgressClass unusedProgress(nullptr);
  (void)unusedProgress;

  const int32_t rows = y1 - y0 + 1;
  const int32_t threads = NuvMPThreadsForRows(rows);
  try {
    // Rows cost what their motion costs (a fast object makes its rows slow): the workers take
    // bands of 16 rows in turn rather than a fixed share each.
    NuvMPForkBands(threads, rows, 16, MotionBlurRowWorker, dst, src, flow, &amount,
                   &bilinearSampling, &jobProgress, &errorSlot, &interruptWord, &countOutside,
                   &x0, &x1, &y0);
  } catch (PLErr& err) {
    PLErr value = err;
    throw value;
  }
  if (int32_t code = NuvMPLoadError(&errorSlot)) throw static_cast<PLErr>(code);
}

void MotionBlurRowWorker(int32_t /*thread*/, uint8_t reporter, int32_t firstRow, int32_t lastRow,
                         NuvMPArgs* args) {
  NuvImage* dst = args->Next<NuvImage*>();
  const NuvImage* src = args->Next<const NuvImage*>();
  const NuvImage* flow = args->Next<const NuvImage*>();
  const float amount = *args->Next<const float*>();
  const uint8_t bilinearSampling = *args->Next<const uint8_t*>();
  NuvIdleAndProgressClass* jobProgress = args->Next<NuvIdleAndProgressClass*>();
  int32_t* errorSlot = args->Next<int32_t*>();
  int32_t* interruptWord = args->Next<int32_t*>();
  const uint8_t countOutside = *args->Next<const uint8_t*>();
  const int32_t x0 = *args->Next<const int32_t*>();
  const int32_t x1 = *args->Next<const int32_t*>();
  const int32_t y0 = *args->Next<const int32_t*>();
  const int32_t yFirst = firstRow + y0;
  const int32_t yLast = lastRow + y0;

  NuvIldeAndProgressMPInterruptible workerProgress(jobProgress, reporter != 0, interruptWord);
  try {
    // An unsupported pair does no work; RenderMotionBlur has refused it already.
    PLDispatch(NuvPixelTypeToDataType(src->pixelType), src->GetChannels(), [&](auto tag) {
      using T = typename decltype(tag)::Type;
      constexpr int32_t C = decltype(tag)::Channels;
      if (countOutside == 0)
        BlurRowsStopAtEdge<T, C>(x0, x1, yFirst, yLast, dst, src, flow, bilinearSampling,
                                 &workerProgress, amount);
      else
        BlurRowsCountOutside<T, C>(x0, x1, yFirst, yLast, dst, src, flow, bilinearSampling,
                                   &workerProgress, amount);
    });
  } catch (PLErr& err) {
    NuvMPStoreError(errorSlot, err);
  }
}
