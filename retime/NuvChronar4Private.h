// flowblur: what the retimer's source files share: the state of one render (fetched views,
// work images, the local progress object) and the steps both render paths use.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "retime/NuvChronar4.h"

namespace chronar {

// One row of the gather warp's bilinear read of 8-bit samples, in the AVX2 loop
// (retime/NuvChronar4MixWide.cpp): what the plain loop works out once per worker and per row.
struct GatherWideRow {
  const unsigned char* srcBase;  // the source's lowest row
  int32_t srcRow0;               // offset of row 0 from srcBase
  int32_t srcStep;               // row y + 1 minus row y
  int32_t srcLastWord;           // offset of the source's last four bytes
  int32_t srcBpp, srcLastColumn, srcLastRow;
  const unsigned char* flow0;  // the flow rows of this row's cell, and its fraction
  const unsigned char* flow1;
  float flowT;
  int32_t flowBpp;
  const int32_t* columnOffset;  // each column's flow cell: byte offset and fraction
  const float* columnT;
  float toDstX, toDstY, share, lastX, lastY;
  int32_t clampOutside;
  int32_t y, width;
  unsigned char* out;
  unsigned char* mask;  // or null
};
// Columns 0 .. of the row in whole groups of eight, the same bytes as the plain loop; the
// number of columns done (the rest are the plain loop's).
template <int32_t C>
int32_t GatherRowWide(const GatherWideRow& row);
// PLGatherWarp on the plain loop, or on the wide one where the processor has AVX2.
int32_t GatherWarpOnPath(bool wide, PLImage* dst, const PLImage* src, const PLImage* flow,
                         int32_t bilinear, PLImage* mask, int32_t clampOutside, float share);

// Owned work image, deleted through NuvMem.
struct ImageDeleter {
  void operator()(PLImage* image) const { delete image; }
};
using ImagePtr = std::unique_ptr<PLImage, ImageDeleter>;

// A new image (throws the allocation's PLErr), cleared.
ImagePtr NewImage(int32_t width, int32_t height, int32_t channels, int32_t dataType);
ImagePtr NewImageLike(const PLImage* like, int32_t channels);

enum class Source { kDisplay, kMotion, kMatte };

// Everything one render fetches or makes, given back on every way out.
class RenderState {
 public:
  RenderState(NuvChronar4* engine, NuvImage* output, NuvIdleAndProgressClass* progress);
  ~RenderState();  // gives back whatever is still held
  RenderState(const RenderState&) = delete;
  RenderState& operator=(const RenderState&) = delete;

  // Fetches a frame (or a matte of layer `matte`) and checks it against the output: same
  // width, height and dataType; frames also the same channel count (any of 1..4), mattes
  // one channel. With input fields (1 or 2), frame n / 2 is fetched and field n made whole.
  // Throws the fetch status as PLErr (5 missing, empty or mismatched; 6 interrupted; 1 any
  // other status). The image stays valid until ReleaseFetched.
  PLImage* Fetch(Source source, int32_t frameNumber, int32_t matte = 0);
  // Gives back every fetched view, restoring the channel order of reordered ones first.
  void ReleaseFetched();

  NuvChronar4* engine;
  NuvChronar4Internal* in;
  NuvImage* outputView;
  PLImage* output;  // the output's wrapper
  NuvIdleAndProgressClass progress;
  int32_t inputFields = 0;
  bool lastFetchEmpty = false;  // the last refused fetch was a missing or empty view
  // Set on the single path, where motion frames are read for their luma only: a motion frame
  // of 3 or 4 channels then fits an output of 3 or 4 (a subclass may show 3 channels and
  // estimate on 4, whose luma is another rule).
  bool motionForLumaOnly = false;

 private:
  struct Held {
    NuvImage* view;
    Source source;
    int32_t frameNumber, matte;
    bool reordered;
    ImagePtr field;  // the whole frame made from one field, when input is in fields
  };
  std::vector<Held> held_;
};

// Brings up the solver a layer asks for (estimator or morph solver) at the flow size, and
// sets its level factor. Replaces one that does not fit (size, mode, masks, hints).
void BringUpSolver(NuvChronar4Internal* in, int32_t layer, float levelFactor);

// One flow run of the current solver from `from` to `to` into `flowOut` (allocated at the
// flow size if null), hints of `layer` added first when hintsPresent. With masks (several
// layers) the pyramids are built from the matted pictures and their mask images.
struct LayerInputs {
  const PLImage* fromMaskImage = nullptr;  // inverted "other layers" matte, side 0
  const PLImage* toMaskImage = nullptr;
  const PLImage* fromMatte = nullptr;  // this layer's matte on each side
  const PLImage* toMatte = nullptr;
  const PLImage* fromFullMatte = nullptr;  // the layer's own matte, nearer layers kept
  const PLImage* toFullMatte = nullptr;
};
void RunFlow(NuvChronar4* engine, NuvChronar4Internal* in, PLImage** flowOut,
             const PLImage* from, const PLImage* to, float fromTime, float toTime,
             int32_t layer, NuvIdleAndProgressClass* progress, const LayerInputs* layerInputs);

// One flow run of the estimator path from frame `fromFrame` to `toFrame` (motion frames,
// fetched only when needed). With the engine's stableFrames 1 the estimator's prepared
// pyramids of frames it already holds are reused and the others prepared one side at a time;
// the flow is the same bits as RunFlow's on the fetched pictures. Otherwise it is RunFlow.
void RunFrameFlow(NuvChronar4* engine, NuvChronar4Internal* in, PLImage** flowOut,
                  int32_t fromFrame, int32_t toFrame, RenderState& st, float fromTime,
                  float toTime, int32_t layer);

// The picture of one pair: frames (or layer images) a = frame i, b = frame j, w the weight
// of i, the flows of the pair (either may be null when not needed), exact or not. Writes
// `dst` (alike to a and b). Uses in->interpolation, in->warpStyle, in->useFlow.
void WarpAndMix(NuvChronar4Internal* in, PLImage* dst, const PLImage* a, const PLImage* b,
                float w, bool exact, const PLImage* forwardFlow, const PLImage* backwardFlow,
                NuvIdleAndProgressClass* progress, bool layerImages = false);

// The layered path: each layer from TopLayer down to BottomLayer cut out by its matte (the
// nearer layers taken away), its holes filled, warped and mixed, then composited over the
// farther ones. dst has 3 or 4 channels.
void LayeredPath(NuvChronar4* engine, RenderState& st, PLImage* dst, int32_t i, int32_t j,
                 float w, bool exact, bool newPair, const float* levelFactors,
                 const float* chokes, int32_t matteCount);

// The matte of `layer` on one side with the nearer layers taken away (each nearer matte
// spread by its choke radius first). mattes: the side's mattes, nearest first.
void VisibleMatte(PLImage* visible, const PLImage* const* mattes, int32_t layer,
                  int32_t layerCount, const float* chokes, float matteScale, PLImage* scratchFloat,
                  NuvIdleAndProgressClass* progress);
// The estimator's mask image of a side: white where the layer is not hidden by a nearer one.
void UnhiddenMask(PLImage* mask, const PLImage* const* mattes, int32_t layer, int32_t layerCount,
                  const PLImage* visible);

// True when the value is a whole number of fields/frames within 0.005.
bool NearWhole(float t);

}  // namespace chronar
