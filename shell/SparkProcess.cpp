// flowblur: SparkProcess, the whole per-frame job: buffers, controls, the frame pair, flow,
// render and the clean-up on every path.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/NuvMP.h"
#include "runtime/PLErr.h"
#include "shell/SparkDriver.h"
#include "shell/SparkFlowCalls.h"
#include "shell/spark.h"

extern "C" {
int32_t TempBufferId = 4;
}

namespace {
// Buffer ids and their records, overwritten by every call.
constexpr int kResultId = 1;
constexpr int kFrontId = 2;
constexpr int kBackId = 3;
constexpr int kFrontClip = 0;
constexpr int kBackClip = 1;
spark_mem_buf_struct gResult;
spark_mem_buf_struct gFront;
spark_mem_buf_struct gBack;
spark_mem_buf_struct gTmp;

void RealPause(uint32_t seconds) { sleep(seconds); }
void* ZeroedPlane(size_t bytes) { return calloc(1, bytes); }
SparkPauseFunction gPause = RealPause;
constexpr SparkFlowCallTable kRealCalls = {CreateFlowEstimator, DestroyFlowEstimator, CalculateFlow,
                                           RenderBlur};
SparkFlowCallTable gCalls = kRealCalls;
SparkPlaneAllocFunction gAllocPlane = ZeroedPlane;

// Zeroes FrameBytes bytes of the result buffer, never past its Stride x Height.
void ClearResult(const spark_info_struct& info) {
  int64_t span = gResult.Stride > 0 && gResult.Height > 0
                     ? int64_t{gResult.Stride} * gResult.Height
                     : 0;
  int64_t bytes = info.FrameBytes < span ? info.FrameBytes : span;
  if (gResult.Buffer && bytes > 0) std::memset(gResult.Buffer, 0, static_cast<size_t>(bytes));
}

// Clears before the message and pauses, for the flow and render failures the user must see;
// returns false for a code that is passed over in silence.
bool ReportFailure(const spark_info_struct& info, int32_t code, const char* outOfMemory,
                   const char* parameter) {
  const char* text = code == PLErrOutOfMemory ? outOfMemory
                     : code == PLErrParameter ? parameter
                                              : nullptr;
  if (!text) return false;
  ClearResult(info);
  sparkMessage(text);
  gPause(1);
  return true;
}

// A pointer as %d shows it: its low 32 bits, signed.
int LowBits(const void* p) {
  return static_cast<int>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)));
}

// Bytes per pixel row of a float plane, in the 32 bits the calls take.
int32_t PlaneRowBytes(int32_t width) {
  return static_cast<int32_t>(static_cast<uint32_t>(width) * 12u);
}

int32_t PixelTypeOf(int32_t format) {
  switch (format) {
    case 24:
    case 25:
      return 0;
    case 48:
    case 64:
      return 1;
    case 49:
      return 2;
    default:
      return -1;
  }
}
// Bytes a pixel of a format takes in a host buffer; 0 outside the table.
int64_t BytesPerPixelOf(int32_t format) {
  int32_t type = PixelTypeOf(format);
  return type < 0 ? 0 : type == 0 ? 3 : 6;
}

// Rows of at least Width pixels of the record's own format, at least one of each.
bool Sound(const spark_mem_buf_struct& r) {
  int64_t bpp = BytesPerPixelOf(r.FormatCode);
  return bpp > 0 && r.Width >= 1 && r.Height >= 1 && int64_t{r.Stride} >= r.Width * bpp;
}

// Bytes from the first pixel to the end of the last one.
int64_t Extent(const spark_mem_buf_struct& r) {
  return int64_t{r.Height - 1} * r.Stride + r.Width * BytesPerPixelOf(r.FormatCode);
}

int64_t Span(const spark_mem_buf_struct& r) {
  return r.Stride > 0 && r.Height > 0 ? int64_t{r.Stride} * r.Height : 0;
}

bool PackedHalfFrame(const spark_mem_buf_struct& r, const spark_mem_buf_struct& result) {
  return r.Width == result.Width && r.Height == result.Height &&
         int64_t{r.Stride} == int64_t{r.Width} * 6;
}
}  // namespace

SparkRecordCheck SparkCheckRecords(int32_t processorCount, const spark_mem_buf_struct& result,
                                   const spark_mem_buf_struct& front,
                                   const spark_mem_buf_struct& clip,
                                   const spark_mem_buf_struct& tmp, const char** why) {
  const char* reason = nullptr;
  bool fatal = false;
  if (processorCount > kNuvMPMaxJobs) {
    reason = "more processors than the job table holds";
    fatal = true;
  }
  const int32_t frontType = PixelTypeOf(front.FormatCode);
  const int32_t clipType = PixelTypeOf(clip.FormatCode);
  if (!reason && frontType >= 0) {
    if (PixelTypeOf(result.FormatCode) != frontType)
      reason = "the result's format differs from the front's";
    else if (!Sound(front) || !Sound(result))
      reason = "front or result rows are shorter than their width";
  }
  if (!reason && clipType >= 0) {
    if (!Sound(clip))
      reason = "the motion clip's rows are shorter than its width";
    else if (Span(tmp) < Extent(clip))
      reason = "the tmp buffer cannot hold a frame of the motion clip";
  }
  if (!reason && (frontType == 2 || clipType == 2)) {
    if (!PackedHalfFrame(result, result) || !PackedHalfFrame(front, result) ||
        !PackedHalfFrame(clip, result) || !PackedHalfFrame(tmp, result))
      reason = "half-float frames of another size than the result, or with padded rows";
  }
  if (!reason) return SparkRecordCheck::kAccept;
  if (why) *why = reason;
  // Clearing needs a result that is rows of its own format at least.
  if (fatal || !Sound(result)) return SparkRecordCheck::kRefuse;
  return SparkRecordCheck::kParameterError;
}

int32_t SparkNeighbourFrame(int32_t n, uint8_t motionFromBack) {
  // Unsigned steps: frame numbers at the ends of the range wrap instead of overflowing.
  int32_t start = n == 0 ? 1 : static_cast<int32_t>(static_cast<uint32_t>(n) - 1u);
  if (motionFromBack != 1 && start <= 0)
    start = static_cast<int32_t>(static_cast<uint32_t>(n) + 1u);
  return start;
}

SparkPauseFunction SparkSetPause(SparkPauseFunction pause) {
  SparkPauseFunction previous = gPause;
  gPause = pause ? pause : RealPause;
  return previous;
}

void SparkSetFlowCalls(const SparkFlowCallTable* calls) { gCalls = calls ? *calls : kRealCalls; }

SparkPlaneAllocFunction SparkSetPlaneAllocator(SparkPlaneAllocFunction allocate) {
  SparkPlaneAllocFunction previous = gAllocPlane;
  gAllocPlane = allocate ? allocate : ZeroedPlane;
  return previous;
}

extern "C" void* SparkProcess(spark_info_struct info) {
  NuvMPSetThreadCount(info.ProcessorCount);
  sparkCursorBusy();

  if (!sparkMemGetBuffer(kResultId, &gResult)) return nullptr;
  if (!sparkMemGetBuffer(kFrontId, &gFront)) return nullptr;
  if (!sparkMemGetBuffer(kBackId, &gBack)) return nullptr;
  if (!sparkMemGetBuffer(TempBufferId, &gTmp)) return nullptr;
  if (!(gResult.State & kSparkBufferUsable)) return nullptr;
  if (!(gFront.State & kSparkBufferUsable)) return nullptr;
  if (!(gBack.State & kSparkBufferUsable)) return nullptr;
  if (!(gTmp.State & kSparkBufferUsable)) return nullptr;
  if (!gResult.Buffer || !gFront.Buffer || !gBack.Buffer || !gTmp.Buffer) {
    std::fprintf(stderr, "Error: null buffer pointer result(%d) front(%d) back(%d) tmp(%d)\n",
                 LowBits(gResult.Buffer), LowBits(gFront.Buffer), LowBits(gBack.Buffer),
                 LowBits(gTmp.Buffer));
    return nullptr;
  }

  float amount = kSparkBypassAmount;
  uint8_t motionFromBack = kSparkBypassMotion;
  int32_t mode = 1;
  if (!info.ControlsBypass) {
    amount = SparkFloat0.value;
    motionFromBack = SparkBoolean2.value;
    mode = SparkPup1.value == 1 ? 2 : 1;
  }

  const int32_t n = info.FrameNo;
  const int32_t neighbour = SparkNeighbourFrame(n, motionFromBack);

  Width = gResult.Width;
  Height = gResult.Height;

  const bool fromBack = motionFromBack == 1;
  const spark_mem_buf_struct& clip = fromBack ? gBack : gFront;
  const int clipId = fromBack ? kBackClip : kFrontClip;
  const int32_t clipWidth = clip.Width;
  const int32_t clipHeight = clip.Height;
  int32_t format = clip.FormatCode;
  const int32_t clipStride = clip.Stride;
  void* const clipBuffer = clip.Buffer;

  // Records that disagree would make the addresses below leave the host's buffers.
  const char* why = "";
  switch (SparkCheckRecords(info.ProcessorCount, gResult, gFront, clip, gTmp, &why)) {
    case SparkRecordCheck::kAccept:
      break;
    case SparkRecordCheck::kRefuse:
      std::fprintf(stderr, "Error: buffer records refused: %s\n", why);
      return nullptr;
    case SparkRecordCheck::kParameterError:
      ReportFailure(info, PLErrParameter, "", "Cannot process image blur due to parameter error");
      return gResult.Buffer;
  }

  sparkGetFrame(clipId, neighbour, gTmp.Buffer);
  sparkGetFrame(clipId, n, clipBuffer);

  // The host may have taken the tmp buffer away while loading.
  if (!gTmp.Buffer) {
    sparkMessage("Cannot process image due to image buffer parameter error");
    ClearResult(info);
    return nullptr;
  }

  void* planeA = nullptr;
  void* planeB = nullptr;
  void* planeC = nullptr;
  int32_t planeWidth = 0;  // C's size; 0 x 0 unless the planes were made
  int32_t planeHeight = 0;
  PLOpticalFlowUChar* estimator = nullptr;
  void* first = nullptr;
  void* second = nullptr;
  int32_t rowBytes = clipStride;
  const int32_t pixelType = PixelTypeOf(format);

  if (format == 49) {
    // At least the result frame's pixels: the host splits its frame among the packing
    // workers whatever size a plane nominally has.
    int64_t pixels = static_cast<int64_t>(clipWidth) * clipHeight;
    int64_t framePixels = static_cast<int64_t>(gResult.Width) * gResult.Height;
    if (framePixels > pixels) pixels = framePixels;
    int64_t bytes = pixels * 12;
    bool ok = bytes >= 0;
    if (ok) planeA = gAllocPlane(static_cast<size_t>(bytes));
    if (planeA) planeB = gAllocPlane(static_cast<size_t>(bytes));
    if (planeB) planeC = gAllocPlane(static_cast<size_t>(bytes));
    if (!planeC) {
      free(planeA);
      free(planeB);
      sparkMessage("Cannot process image due to image buffer allocation error");
      ClearResult(info);
      return nullptr;
    }
    planeWidth = clipWidth;
    planeHeight = clipHeight;
    sparkCombine16FBuffers(info, planeA, clipBuffer);
    sparkCombine16FBuffers(info, planeB, gTmp.Buffer);
    rowBytes = PlaneRowBytes(clipWidth);
    estimator = gCalls.createFlowEstimator(clipWidth, clipHeight, mode);
    first = planeA;
    second = planeB;
  } else if (pixelType >= 0) {
    estimator = gCalls.createFlowEstimator(clipWidth, clipHeight, mode);
    first = clipBuffer;
    second = gTmp.Buffer;
  }

  if (pixelType >= 0) {
    // Frame 0 has only a successor: the pair runs from it to frame 0. Everywhere else the
    // current frame comes first.
    if (n == 0) {
      void* swap = first;
      first = second;
      second = swap;
    }
    // A null estimator comes back as the out-of-memory code.
    int32_t flowCode =
        gCalls.calculateFlow(estimator, first, clipWidth, clipHeight, rowBytes, kSparkRowOrder,
                             second, clipWidth, clipHeight, rowBytes, kSparkRowOrder, pixelType,
                             false, kSparkLevelFactor, kSparkWhitePoint);
    if (flowCode == 0) {
      // The pixels always come from the front clip, whichever clip gave the motion.
      format = gFront.FormatCode;
      int32_t renderCode = 0;
      switch (format) {
        case 24:
        case 25:
        case 48:
        case 64:
          renderCode = gCalls.renderBlur(estimator, gResult.Buffer, gResult.Width, gResult.Height,
                                         gResult.Stride, kSparkRowOrder, gFront.Buffer,
                                         gFront.Width, gFront.Height, gFront.Stride, kSparkRowOrder,
                                         PixelTypeOf(format), amount, kSparkWhitePoint);
          break;
        case 49:
          sparkCombine16FBuffers(info, planeA, gFront.Buffer);
          renderCode = gCalls.renderBlur(estimator, planeC, planeWidth, planeHeight,
                                         PlaneRowBytes(planeWidth), kSparkRowOrder, planeA,
                                         gFront.Width, gFront.Height, PlaneRowBytes(gFront.Width),
                                         kSparkRowOrder, 2, amount, kSparkWhitePoint);
          break;
        default:
          break;
      }
      ReportFailure(info, renderCode, "Cannot process image blur due to out of memory error",
                    "Cannot process image blur due to parameter error");
    } else {
      ReportFailure(info, flowCode, "Cannot process image flow due to out of memory error",
                    "Cannot process image flow due to parameter error");
    }
  }

  gCalls.destroyFlowEstimator(estimator);
  if (format == 49) sparkUnCombineBuffers(info, gResult.Buffer, planeC);
  free(planeA);
  free(planeB);
  free(planeC);

  if (fromBack) sparkGetFrame(kBackClip, n, gBack.Buffer);
  return gResult.Buffer;
}
