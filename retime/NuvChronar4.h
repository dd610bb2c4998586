// flowblur: NuvChronar4, the retiming engine: a picture for any time of a clip, also between
// frames, from flow between the two source frames around that time.
#pragma once
#include <cstdint>

#include "flow/PLOpticalFlowUChar.h"
#include "image/NuvImage.h"
#include "image/PLImage.h"
#include "runtime/NuvMem.h"
#include "runtime/NuvProgress.h"
#include "runtime/PLErr.h"

class PLMorphFlow;

// Most layers a picture can have (mattes + 1).
constexpr int32_t kNuvChronarMaxLayers = 10;

// The engine's state between renders: the flows of the last frame pair and the keys that
// decide whether they still serve. Owned by a NuvChronar4.
class NuvChronar4Internal : public NuvMem {
 public:
  NuvChronar4Internal();
  virtual ~NuvChronar4Internal();
  NuvChronar4Internal(const NuvChronar4Internal&) = delete;
  NuvChronar4Internal& operator=(const NuvChronar4Internal&) = delete;

  // Deletes every flow image (the pair flows and the layer flows) and nulls the pointers.
  void ReleaseFlows();
  // Deletes the estimator and the morph solver.
  void ReleaseSolvers();

  int32_t width = 0, height = 0;  // output size
  int32_t layerCount = 1, lastLayerCount = 1;
  int64_t interpolation = 0, lastInterpolation = 0;
  int32_t flowMode = 0, lastFlowMode = 0;
  int32_t useFlow = 0, lastUseFlow = 0;
  int32_t warpStyle = 0, lastWarpStyle = 0;
  int32_t flowWidth = 0, flowHeight = 0;
  PLOpticalFlowUChar* estimator = nullptr;
  PLMorphFlow* morphFlow = nullptr;
  // Flows of a frame pair, on the flow grid, in flow-grid pixels, pointing forward as the
  // estimator delivers them (first(x) is found at second(x + flow)). Always images of their own:
  // the solvers' level 0 is copied out, so a solver can be replaced without leaving a
  // dangling flow. With interpolation 0 only forwardFlow is used (see RenderAtTime).
  PLImage* forwardFlow = nullptr;
  PLImage* backwardFlow = nullptr;
  PLImage* forwardLayerFlows[kNuvChronarMaxLayers] = {};
  PLImage* backwardLayerFlows[kNuvChronarMaxLayers] = {};
  int32_t lastInputFields = 0, lastOutputFields = 0;
  int32_t lastFrame = -1, lastFirst = -1, lastSecond = -1;
  float lastScaleX = 0.0f, lastScaleY = 0.0f;
  float levelFactors[kNuvChronarMaxLayers] = {};
  float chokes[kNuvChronarMaxLayers] = {};
  int32_t lastTopLayer = 0, lastBottomLayer = 0;
  uint8_t edgeBlend = 0;
  uint8_t useEstimator[kNuvChronarMaxLayers] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  uint8_t hintsPresent = 0;
  int32_t direction = 0;  // of the vector step: 0 none, 1 previous, 2 next

  // Frames whose input pyramids (prepared for a run) the estimator holds on its first and
  // second side, -1 for none. Kept only for engines with stableFrames 1; anything else that
  // runs or replaces the estimator forgets them.
  int32_t pyramidFrames[2] = {-1, -1};
  void ForgetPyramids() { pyramidFrames[0] = pyramidFrames[1] = -1; }

  // Not part of the keys: counts of solver runs, for callers that want to see the cache
  // at work (each ComputeFlow or SolveFromHints adds one).
  int64_t flowRuns = 0;
  // Input pyramids prepared for the estimator's runs (two per run unless reused).
  int64_t pyramidSides = 0;
};

// The retimer. Abstract: a subclass supplies frames, mattes and the time mapping through
// the virtual operations below; the engine owns nothing of them and gives every view back.
//
// Frames: every frame and motion frame of one render must have the output's width, height
// and dataType (UChar, UShort or Float), and the output's channel count (1 to 4; 3 or 4
// with mattes). Mattes are single-channel, of the frames' size and dataType. Anything else
// is refused with 5 before a pixel is written (the output is then left cleared).
//
// Times: output time t maps to source time through MapTime; frame n of the source is at
// time n. Source times are truncated to a frame number (toward zero), so a negative source
// time is not a frame before 0: subclasses keep their source times at 0 or above. A NaN
// time, or a source time whose magnitude is 2^28 or more, is refused with 5.
//
// Warps (GetWarpStyle):
//   0  gather warp: each output pixel reads its source at its own position plus the
//      share of the flow (bilinear read; positions outside the frame read the nearest
//      edge pixel, so no hole is made);
//   1  the gather warp with a mask of the pixels whose read fell inside the frame; the
//      others are filled smoothly from their surroundings (single channel fill);
//   2  the forward mesh Warp with a mask of the pixels that some triangle covered; the
//      rest is filled the same way;
//   3  the forward mesh Warp alone: the output starts as the nearer frame, so the few
//      pixels no triangle reaches (at the frame's edge) keep that frame's value.
//
// Mixes (the `interpolation` field):
//   0  the nearer frame, warped by its share of the flow;
//   1  both frames warped towards t and cross-faded with weight 1 - w of frame j; with
//      masks (styles 1 and 2) a pixel one side did not cover takes the other side alone,
//      and a pixel neither covered is filled;
//   2  motion-weighted dissolve: as 1, but the cross-fade follows the agreement of the two
//      flows (PLFlowAgreement of the flow dissolve, on frame i's flow grid): where the
//      forward and the backward flow return a pixel to within W/320 of its start (W the
//      flow width) the fade is the linear one; where they miss by more than 12 W/320 the
//      change of picture becomes a cut at the midpoint; in between the crossing narrows
//      smoothly. The agreement map is blurred (Gaussian, radius 4 on the flow grid) so that
//      no seam follows a flow edge, and read corner-aligned at each output pixel. The
//      crossing rule is the flow dissolve's; unlike PLFlowDissolve this form serves every
//      working type and channel count, the gather warps, and the coverage masks. Without
//      flow (exact frames) it is the plain cross-fade.
// Mixes are in single precision, b = a + (c - a) * f; integer results add 0.5, truncate
// and are limited to the type's range.
class NuvChronar4 : public NuvMem {
 public:
  NuvChronar4();
  virtual ~NuvChronar4();
  NuvChronar4(const NuvChronar4&) = delete;
  NuvChronar4& operator=(const NuvChronar4&) = delete;

  // ---- Supplied by the subclass ---------------------------------------------------------
  // A frame to show. Returns 0 with *frame set to a view of the frame (its wrapper attached),
  // or a nonzero status. A status of 5 (no such frame) or 6 (interrupted) is passed on; any
  // other nonzero status is reported as 1 (after the frame, if any, has been given back); a
  // null view, a view without wrapper or pixels, or one of width or height 0 is reported
  // as 5.
  virtual int32_t GetFrame(NuvImage** frame, int32_t frameNumber) = 0;
  // The frame to estimate motion on, where it differs from the frame shown. Same contract,
  // except that for a render with one layer (RenderAtTime) a frame of 3 or 4 channels fits
  // an output of 3 or 4: it is read for its luma only.
  virtual int32_t GetMotionFrame(NuvImage** frame, int32_t frameNumber) = 0;
  // Gives back a view from GetFrame or GetMotionFrame (never null).
  virtual void ReleaseFrame(NuvImage* frame) = 0;
  // Matte `matte` (0 .. matteCount - 1, 0 the nearest layer) of a frame: a single-channel
  // view. Same contract; a view of more than one channel is reported as 5.
  virtual int32_t GetMatte(NuvImage** matteView, int32_t frameNumber, int32_t matte) = 0;
  virtual void ReleaseMatte(NuvImage* matteView) = 0;
  // Output time to source time.
  virtual void MapTime(float time, float* sourceTime) = 0;

  // Overrides at a source time; returning 1 replaces the value.
  virtual int32_t OverrideTopLevelFactor(float time, float* factor);
  virtual int32_t OverrideLevelFactor(float time, float* factor, int32_t layer);
  virtual int32_t OverrideChoke(float time, float* choke, int32_t layer);
  // 1 uses the image estimator for the layer, 0 the hint-only morph solver.
  virtual void UseEstimatorForLayer(float time, uint8_t* useEstimator, int32_t layer);
  virtual void UseEstimatorForTop(float time, uint8_t* useEstimator);
  // Class of the source frame at a source time. The engine compares the class at the time
  // with the class one frame later (half a frame with input fields): a difference marks a
  // change of shot between the two frames, and no picture is made across it (the nearest
  // frame is shown). Classes 3 and 4 never interpolate at all: 3 marks a held frame (for
  // example a time outside the clip), 4 a frame that must not be mixed with its neighbours
  // (a damaged or inserted frame). Any other value is a plain shot label.
  virtual int32_t FrameKind(float time) = 0;
  // Layer walk, from TopLayer (the farthest) down to BottomLayer.
  virtual int32_t TopLayer();
  virtual int32_t BottomLayer();
  virtual int32_t GetWarpStyle();  // 0 to 3, see above
  virtual int32_t UseEdgeBlend();  // 1 sets edgeBlend of the flow runs
  // Motion hints of a layer for the run from the frame at firstTime to the one at
  // secondTime: HintCount sets, each one a list of point pairs (x0, y0) -> (x1, y1) in
  // output pixels. GetHints writes the count and the four arrays (the subclass keeps them
  // alive until the next call).
  virtual int32_t HintCount(float firstTime, float secondTime, int32_t layer);
  virtual void GetHints(float firstTime, float secondTime, int32_t layer, int32_t index,
                        int32_t* count, const float** x0, const float** y0, const float** x1,
                        const float** y1);
  // Extension slots the engine does not call; kept so that subclasses have a stable layout.
  virtual void ReservedHook();
  virtual void GetFillColor(uint8_t* red, uint8_t* green, uint8_t* blue);  // not read
  // 1: the subclass supplies its flows; the engine then keeps no flow between renders.
  virtual int32_t UsesExternalFlow();
  virtual int32_t ReservedPointer1(void** out);
  virtual int32_t ReservedPointer2(void** out);
  virtual int32_t ReservedQuery1();
  virtual int32_t ReservedQuery2();
  // The two scale settings of a render (see SetQuality): 1.0 and 1.0 by default.
  virtual void GetScale(float* first, float* second);
  // Returning 1 replaces the shutter amount computed from the time step.
  virtual int32_t OverrideAmount(float* amount);

  // ---- Operations -----------------------------------------------------------------------
  // All return a PLErr value (0 success), and 1 when `internal` is null.

  // The picture at output time `time` into `output` (a view of 1 to 4 channels). `quality`
  // is the flow quality code (see SetQuality). Fields: 0 progressive. Input fields 1 or 2
  // read interlaced sources (4-channel frames only, else 5): source times count fields, and
  // field n is frame n / 2 made whole by InterpolateField (line average) with field number
  // 2 + (n & 1), or 3 - (n & 1) with field order 2. Output fields 1 or 2 render two pictures
  // half an output frame apart and interleave them, the first into the even rows (1) or the
  // odd rows (2). `matteCount`
  // 0 to 9; levelFactors holds matteCount + 1 values (the farthest layer last) and chokes
  // matteCount values (both may be null with matteCount 0: level factor 1.0). `keepFlow`
  // 0 releases all flow at the end. `progress` may be null. Returns 5 for a null output,
  // a NaN time, matteCount outside 0..9, a quality code outside 0..5, a refused frame or
  // matte, 6 when interrupted, another PLErr value raised inside.
  int32_t RenderAtTime(NuvImage* output, float time, int32_t quality, int32_t inputFields,
                       int32_t outputFields, int32_t matteCount, const float* levelFactors,
                       const float* chokes, int32_t keepFlow, NuvIdleAndProgressClass* progress);
  // One layer, level factor 1.0, no fields.
  int32_t RenderAtTime(NuvImage* output, float time, int32_t quality, int32_t keepFlow,
                       NuvIdleAndProgressClass* progress);

  // One step between frame `frame` and a neighbour (direction 1 the previous, 2 the next;
  // other values pair the frame with itself). outputKind 0: a motion vector picture of the
  // flow from the frame to its neighbour, R = 0.5 + u * vectorScale, G = 0.5 + v *
  // vectorScale (u, v in output pixels, white units), B = 0, matte 1 (with several layers
  // and one layer in range, the layer's matte goes into B). outputKind 1: the neighbour
  // warped onto the frame by the mesh warp; `mix` then 0 cross-fades it half and half with
  // the frame, 1, 2, 3 apply PLRetimeStyleMix styles 0, 2, 3 at 0.6, 4 leaves it.
  // A neighbour that cannot be fetched is a soft failure: flows are released, the output
  // is filled with (0.5, 0.5, 0, 1) for vectors or (0, 1, 0, 1) for the warped picture, and
  // the result is 0. pixelType (0, 1, 2) must name the output's data type, else 5.
  int32_t RenderVectors(NuvImage* output, int32_t frame, int32_t direction, int32_t outputKind,
                        float vectorScale, int32_t mix, int32_t quality, int32_t matteCount,
                        const float* levelFactors, const float* chokes,
                        NuvIdleAndProgressClass* progress, int32_t pixelType);
  // The same with the output's own data type.
  int32_t RenderVectors(NuvImage* output, int32_t frame, int32_t direction, int32_t outputKind,
                        float vectorScale, int32_t mix, int32_t quality, int32_t matteCount,
                        const float* levelFactors, const float* chokes,
                        NuvIdleAndProgressClass* progress);

  // Stores output size, quality code, scales, useFlow, interpolation and warpStyle when any
  // differs from what is stored, and sets flowMode, flowWidth and flowHeight. Quality codes
  // 0, 1, 2 give base 3, 3 gives 2, 4 gives 1, 5 gives 0; with a first scale of 0 bases 0
  // to 2 go up by one. flowMode is the base; the flow size is the output size halved base
  // times (truncating each time). Returns 1 with no internal, 5 for a code outside 0..5.
  int32_t SetQuality(int32_t width, int32_t height, int32_t quality, int32_t firstScale,
                     float secondScale, int32_t useFlowSetting, int64_t interpolationSetting,
                     int32_t warpStyleSetting);

  int32_t flowQuality = 0;
  int32_t scaleX = 1;  // first scale, as an integer: 0 estimates one step coarser
  float scaleY = 1.0f;
  float scaleYStored = 1.0f;
  int32_t useFlow = 1;
  int64_t interpolation = 1;
  int64_t blurQuality = 1;  // 1 bilinear sampling in the shutter blur
  float shutter = 0.0f;     // up to 0.005 means none
  // 1: the subclass promises that a frame number always gives the same motion picture while
  // flow keeping is on (as a clip on disk does). The estimator's prepared input pyramids of
  // the last two frames are then reused by the next flow runs that need those frames: the
  // second flow of a pair reuses the first's, and the next pair of a clip played forward or
  // backward reuses the shared frame's, also across renders that land on a source frame. The
  // flows are the same bits either way; 0 (the default) prepares both inputs for every run.
  int32_t stableFrames = 0;
  NuvChronar4Internal* internal = nullptr;
};

// ---- Operations of the engine, usable alone ----------------------------------------------

// Gather warp: each destination pixel (x, y) reads `src` bilinearly at
// (x, y) + share * flow(x, y), the flow read bilinearly at the corner-aligned position of
// its own grid and scaled to destination pixels by the ratio of last indices. A read
// position outside the source is moved to the nearest edge (clampOutside 1), or leaves the
// destination pixel untouched (0). `mask` (null, or 1-channel UChar of the destination's
// size) gets 255 where the read fell inside the source and 0 elsewhere. `bilinear` 0 reads
// the nearest source pixel instead. dst and src: equal size, channels (1..4) and dataType;
// flow 2-channel Float of at least 2 x 2; otherwise "can't warp image, input files not of
// correct types and sizes\n" on stderr and 0 is returned. Row-parallel; 1 when done.
int32_t PLGatherWarp(PLImage* dst, const PLImage* src, const PLImage* flow, int32_t bilinear,
                     PLImage* mask, int32_t clampOutside, float share);

// Cross-fade dst = a + (b - a) * f per sample, f the share of b, with optional coverage
// masks (1-channel UChar, 255 covered): where exactly one side is covered it is taken
// alone; where neither is, holes (if given, 1-channel UChar) gets 255 and the pixel the
// plain fade, else holes gets 0. `agreement` (null, or 1-channel Float of any size of at
// least 2 x 2, read corner-aligned) makes it the motion-weighted dissolve described above,
// with f then the share of b at full agreement. All images alike in size (holes and masks
// as well); dst, a, b also in channels and dataType. Row-parallel. Returns 1, or 0 when
// refused (nothing written).
int32_t PLRetimeMix(PLImage* dst, const PLImage* a, const PLImage* b, float f,
                    const PLImage* maskA, const PLImage* maskB, const PLImage* agreement,
                    PLImage* holes);

// Motion vector picture: dst (1 to 4 channels, any working type) gets R = 0.5 + u * scale,
// G = 0.5 + v * scale, B = 0, matte 1 in white units (integer types rounded and limited),
// u and v the flow read corner-aligned and scaled to dst pixels. With a `matte` (1-channel,
// dst's size and type) only pixels where it is above half white are written, and B (when
// there is one) gets the matte. Returns 1, or 0 when refused.
int32_t PLFlowPicture(PLImage* dst, const PLImage* flow, float scale, const PLImage* matte);

// Comparison views of a warped picture against its reference, for checking alignment:
//   style 0: cross-fade, dst = src + (dst - src) * amount;
//   style 2: difference, dst = 0.5 white + (dst - src) * amount, so aligned pixels are grey;
//   style 3: checkerboard of 16-pixel squares, dst where (x/16 + y/16) is even, src
//            elsewhere; amount not used;
//   other styles: nothing.
// The matte (channel 3) is left alone. dst and src alike; returns 1, or 0 when refused.
int32_t PLRetimeStyleMix(PLImage* dst, const PLImage* src, int32_t style, float amount);
