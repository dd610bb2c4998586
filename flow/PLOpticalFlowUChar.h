// flowblur: PLOpticalFlowUChar, the coarse-to-fine optical-flow estimator.
#pragma once
#include <cstdint>

#include "image/NuvImage.h"
#include "image/PLImage.h"
#include "runtime/NuvMem.h"
#include "runtime/NuvProgress.h"
#include "runtime/PLErr.h"

// Rules for this folder:
// - All per-level images are made by the constructor and live as long as the estimator;
//   a run allocates only the few temporaries of input preparation.
// - Every pyramid is an array of numLevels image pointers, index 0 the finest level.
// - Inside a run the flow has the internal sign: second(x - u, y - v) matches first(x, y).
//   The last step of a run negates level 0, which then points forward: first(x, y) is
//   found at second(x + u, y + v). Coarser levels keep the internal sign.
// - Stages fork over rows (the sweeps also over columns) through NuvMPFork; each worker
//   writes only its own lines, so results never depend on the worker count.
// - Arithmetic is single precision unless a rule says double; keep every stated order of
//   operations, since results are compared to the bit.
// - A target position that is not a number counts as outside the frame everywhere, so
//   that no bilinear read can leave an image.
// - The input frames may wrap host rows at any address: their samples are read through
//   PLLoad. The estimator's own float images are aligned and walked by typed pointers.

// A flow image is a PLImage of two Float channels, u then v, in pixels of its own grid.
class PLOpticalFlowUChar : public NuvMem {
 public:
  // One estimator for one input size and reduction mode:
  //   mode 0: works at the input size; 1, 2, 3: the input halved once, twice, three times
  //   (truncating); any other value: sizes as mode 0, but no luma is ever produced (such an
  //   object is not meant to be run; its level-0 luma starts at 0 so that a run on it is at
  //   least repeatable, and delivers a zero flow).
  //   useHints, useMasks: 0 or 1, turn the hint and mask pyramids on.
  //   minLevelSize: smallest width or height a coarser level may have (12 on the plug-in
  //   path, 2 for the deepest pyramid).
  // Level count: halve the working size while both halves stay at least minLevelSize and
  // at least 3; level sizes halve with a floor of 2 (a guard that never acts).
  // A failed image allocation leaves every pyramid null and its PLErr value in errorCode;
  // the value is thrown as well when throwOnError is 1. A working size below 1 in either
  // dimension (for example a 1x1 input in mode 1) has no pixel to estimate and fails the
  // same way with PLErrParameter. A failed object is never run: every entry point returns
  // at once.
  PLOpticalFlowUChar(int32_t throwOnError, int32_t width, int32_t height, int32_t mode,
                     int32_t useHints, int32_t useMasks, int32_t minLevelSize);
  PLOpticalFlowUChar(int32_t width, int32_t height, int32_t mode, int32_t useHints,
                     int32_t useMasks, int32_t minLevelSize);
  virtual ~PLOpticalFlowUChar();

  PLOpticalFlowUChar(const PLOpticalFlowUChar&) = delete;
  PLOpticalFlowUChar& operator=(const PLOpticalFlowUChar&) = delete;

  // The start parameter of the run: the coarsest level solved is
  // floor(numLevels + 2 * log2(levelFactor)) and what it finds is damped by the fraction.
  // 1.0 (the value after construction) starts at the coarsest level, undamped; 0 or any
  // value that gives a negative start delivers an all-zero flow. A NaN factor is treated
  // like 0 (an all-zero flow).
  void SetLevelFactor(float factor);

  // The start level and fraction a run would use now (numLevels and levelFactor).
  void GetStartLevel(int32_t* level, float* fraction) const;

  // The normal way in. first and second: equal size, channels and dataType (UChar, UShort
  // or Float; 1, 3 or 4 channels give luma), else "calculating flow, incompatible
  // inputs!\n" on stderr and nothing is done. flowOut (may be null; may be flowPyramid[0],
  // then nothing is copied) receives a copy of the delivered flow at its origin. One that
  // is not of the working size or not of 2 channels is reported with the same message and
  // the run goes on; then, so that nothing is read or written outside an image, a 2-channel
  // Float flowOut receives only the rectangle both images share, and any other flowOut is
  // left unwritten.
  // Inputs whose size, halved as the mode says, is not the working size are reported with
  // "incorrect with and height\n" (three times) and the run goes on; mode 0 then converts
  // only the rectangle both share, other modes resample the whole input. Where a working
  // axis has length 1 (modes 1 to 3 on inputs under 4, 8, 16 pixels), which the bilinear
  // resize refuses, the reduction maps that axis to its first sample.
  // prefilter 1: high-pass both pyramids. smoothing: 0 box, 1 or 2 Gaussian, other none.
  // skipPropagation nonzero leaves out the sweeps. progress may be null. edgeBlend mixes
  // gradient magnitude into level 0. Throws PLErr for memory and interruption, and
  // PLErrParameter from the blurs for a level beyond their line limit (about 16,000 pixels
  // a side).
  void ComputeFlow(PLImage* flowOut, const PLImage* first, const PLImage* second,
                   int32_t prefilter, int32_t smoothing, int32_t skipPropagation,
                   NuvIdleAndProgressClass* progress, bool edgeBlend);
  void ComputeFlow(PLImage* flowOut, const PLImage* first, const PLImage* second,
                   int32_t prefilter, int32_t smoothing, int32_t skipPropagation,
                   NuvIdleAndProgressClass* progress);
  // ComputeFlow with the masks switched off for this call; they are put back whatever
  // happened, and a nonzero PLErr is then thrown again.
  void ComputeFlowIgnoringMasks(PLImage* flowOut, const PLImage* first, const PLImage* second,
                                int32_t prefilter, int32_t smoothing, int32_t skipPropagation,
                                NuvIdleAndProgressClass* progress, bool edgeBlend);
  // The run proper over filled pyramids; result in flowPyramid[0] and flowOut.
  void SolvePyramid(PLImage* flowOut, int32_t smoothing, int32_t skipPropagation,
                    NuvIdleAndProgressClass* progress);
  void SolvePyramidIgnoringMasks(PLImage* flowOut, int32_t smoothing, int32_t skipPropagation,
                                 NuvIdleAndProgressClass* progress);

  // Step-by-step use. side 0 is the first image, any other value the second.
  // other1 may be null; otherwise image, other1 and other2 must agree in width and height.
  void BuildPyramidForSide(const PLImage* image, const PLImage* other1, const PLImage* other2,
                           int32_t side, bool edgeBlend);
  // Fills the mask pyramid of a side from a mask image of the input size (1, 3 or 4
  // channels, valid where its luma is at or above 0.9999 * 255). Does nothing when the
  // mask pyramids are off.
  void BuildMaskPyramid(const PLImage* image, int32_t side);
  void ComputeFlowFromPyramids(PLImage* flowOut, int32_t prefilter, int32_t smoothing,
                               int32_t skipPropagation, NuvIdleAndProgressClass* progress);
  void PrefilterPyramids(int32_t prefilter);
  void PrefilterSide(int32_t side);
  void HighPassPyramids();
  // Exchanges the two image pyramids and the two mask pyramids.
  void SwapInputs();

  // Input preparation (public for callers that build levels themselves).
  // Luma of `source` into the 1-channel Float `dest` of the same size, nominally 0..255
  // (of images of different sizes, only the rectangle both share). A Float source whose
  // whitePoint is not 1.0 is refused with " floating image input to PLOpticalFlowUChar is
  // not in correct range\n"; 2 channels, or more than 4, leave dest as it was.
  void ConvertToLuma(PLImage* dest, const PLImage* source, uint8_t isYUV);
  void BuildInputPyramid(PLImage** pyramid, const PLImage* image, bool edgeBlend,
                         const PLImage* mask);
  void BuildLevelZero(PLImage** pyramid, const PLImage* image);

  // Hints, in the caller's coordinate system of sourceWidth x sourceHeight, given forward
  // like delivered flow. Do nothing when the hint pyramids are off. Not during a run.
  void ClearFlowHints();
  void AddFlowHint(float x0, float y0, float x1, float y1, float sourceWidth,
                   float sourceHeight);
  void PinFlowHint(float x, float y, float sourceWidth, float sourceHeight);
  void FinishFlowHints();
  // Level 0 of the hint flow, the hint weight, the first mask; null when switched off.
  PLImage* GetHintFlow();
  PLImage* GetHintWeight();
  PLImage* GetFirstMask();

  // The four propagation sweeps at level (0 .. numLevels - 1; nothing at all when skip is
  // true or the object failed). progress may be null. Uses residualPyramid[level] as
  // scratch: the run rewrites it before every read.
  void PropagateFlow(int32_t level, bool skip, NuvIdleAndProgressClass* progress);

  int32_t iterationsPerLevel = 3;
  int32_t mode = 0;
  PLImage** structurePyramid = nullptr;   // 3 ch: gx*gx, gy*gx, gy*gy, blurred
  PLImage** residualPyramid = nullptr;    // 2 ch: right-hand side of the solve
  PLImage** secondPyramid = nullptr;      // 1 ch: second image luma
  PLImage** firstPyramid = nullptr;       // 1 ch: first image luma
  PLImage** flowPyramid = nullptr;        // 2 ch: flow per level
  PLImage** hintFlowPyramid = nullptr;    // 2 ch, only with useHints
  PLImage** hintWeightPyramid = nullptr;  // 1 ch, only with useHints
  PLImage** firstMaskPyramid = nullptr;   // 1 ch, only with useMasks
  PLImage** secondMaskPyramid = nullptr;  // 1 ch, only with useMasks
  PLImage** gradXPyramid = nullptr;       // 1 ch: gx of the first image; also scratch
  PLImage** gradYPyramid = nullptr;       // 1 ch: gy of the first image; also scratch
  int32_t errorCode = 0;
  int32_t numLevels = 1;
  int32_t useHints = 0;
  int32_t useMasks = 0;
  int32_t workWidth = 0;
  int32_t workHeight = 0;
  int32_t workMaxX = -1;
  int32_t workMaxY = -1;
  int32_t startLevel = 0;
  int32_t minLevelSize = 0;
  float levelFactor = 1.0f;
  int32_t inputWidth = 0;
  int32_t inputHeight = 0;
  // Set to 1 directly, before building pyramids, when inputs hold luma in a YUV layout.
  uint8_t inputIsYUV = 0;

 private:
  void Construct(int32_t throwOnError, int32_t width, int32_t height, int32_t modeValue,
                 int32_t hints, int32_t masks, int32_t minSize);
  void ReleaseAll();
  // Prints "incorrect with and height\n" when the input size, reduced by mode, is not the
  // working size.
  void CheckInputSize(const PLImage* image) const;
  void PrefilterPyramid(PLImage** pyramid);
  void PrefilterPyramidFromKept(PLImage** pyramid, PLImage** kept);
  // Levels 1 and up from level 0; with `keep`, the blurred copy of each finer level is made
  // in keep[level - 1] instead of a temporary, and stays there.
  void ReducePyramid(PLImage** pyramid, bool binarise, PLImage** keep);
  void BuildInputPyramidKeeping(PLImage** pyramid, const PLImage* image, bool edgeBlend,
                                const PLImage* mask, PLImage** keep);
};

// Number of levels and the size of each, as the constructor finds them.
int32_t PLFlowLevelCount(int32_t workWidth, int32_t workHeight, int32_t minLevelSize);
void PLFlowLevelSize(int32_t workWidth, int32_t workHeight, int32_t level, int32_t* width,
                     int32_t* height);

// One-shot flow over wrapped images: builds an estimator for first's size (hints and masks
// off, minLevelSize 2) and runs ComputeFlow(flow, first, second, 1, 1, 0, progress, false).
// Returns 0, 5 for unsuited arguments (a null view, first and second differing in type,
// channels or size, flow not 2-channel Float or not of the working size), or the PLErr
// value raised by construction or the run.
int32_t ComputeFlowOneShot(NuvImage* flow, NuvImage* first, NuvImage* second, int32_t mode,
                           NuvIdleAndProgressClass* progress);
