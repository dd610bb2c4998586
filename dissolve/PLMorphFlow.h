// flowblur: PLMorphFlow, a dense flow field spread from sparse point pairs.
#pragma once
#include <cstdint>

#include "image/PLImage.h"
#include "runtime/NuvMem.h"
#include "runtime/NuvProgress.h"
#include "runtime/PLErr.h"

// The sibling of PLOpticalFlowUChar for the case where no picture is looked at: a few points
// say where they moved, and the rest of the field is filled in level by level, by blurring
// and relaxation, from a chosen coarse level down to the working size. Hints are given
// forward and the result points forward too (first(x, y) is found at second(x + u, y + v));
// no sign change happens anywhere. Flows are 2-channel Float images in pixels of their own
// grid.
class PLMorphFlow : public NuvMem {
 public:
  // Working size: mode 1, 2, 3 halve width and height once, twice, three times
  // (truncating); mode 0 and any other value keep the input size.
  // Levels: from the working size, each dimension becomes max(half, minLevelSize, 2) and a
  // level is counted, until both dimensions equal minLevelSize or both equal 2; so there
  // are always at least 2 levels. The images of level l are sized max(2, half) per halving,
  // whatever minLevelSize says (a 100x100 working size with minLevelSize 10 counts 5 levels
  // of 100, 50, 25, 12 and 6). Each pyramid holds numLevels + 1 levels; the solve uses
  // numLevels of them. Every image starts cleared to 0.
  // A working size below 2 in either dimension has no coarser grid to spread hints into
  // and fails with PLErrParameter. A failed image allocation, or that refusal, leaves every
  // pyramid null and the value in errorCode, thrown as well when throwOnError is 1. A failed
  // object is never run: every operation returns at once.
  PLMorphFlow(int32_t throwOnError, int32_t width, int32_t height, int32_t mode,
              int32_t minLevelSize);
  PLMorphFlow(int32_t width, int32_t height, int32_t mode, int32_t minLevelSize);
  virtual ~PLMorphFlow();

  PLMorphFlow(const PLMorphFlow&) = delete;
  PLMorphFlow& operator=(const PLMorphFlow&) = delete;

  // The start parameter, as for the estimator: the coarsest level solved is
  // floor(numLevels + 2 * log2(levelFactor)), and what it finds is damped by the fraction.
  // 1.0 (after construction) starts at the coarsest level, undamped; a factor that gives a
  // negative start (0, NaN, tiny) delivers an all-zero flow.
  void SetLevelFactor(float factor);

  // Clears the hint flow and weight at every level below numLevels.
  void ClearHints();
  // One point pair in the caller's coordinate system of sourceWidth x sourceHeight, scaled
  // by workMaxX / sourceWidth and workMaxY / sourceHeight. The pixel is the truncation of
  // the scaled start point plus 0.5; its hint flow grows by target minus start and its
  // weight by 1. A pixel outside the working size (or a NaN position) is dropped silently.
  void AddHint(float x0, float y0, float x1, float y1, float sourceWidth, float sourceHeight);
  // At level 0, every pixel of weight above 0 gets the mean of its hints and weight 1.
  void FinishHints();

  // Spreads the finished hints into flowPyramid[0] and copies it to flowOut (may be null,
  // or flowPyramid[0] itself: no copy). flowOut receives the working rectangle at its
  // origin; a flowOut of another size gets only the rectangle both hold, and one that is
  // not 2-channel Float is left unwritten. progress may be null; interruption and failed
  // temporaries arrive as a thrown PLErr, and a flow transfer between levels that fails its
  // tests throws PLErrParameter.
  // scatter 0, the plain pass: at each level the hints replace the flow, which is then
  // blurred (Gaussian, radius 5); at level 0 the hints are applied once more, so a hinted
  // pixel ends exactly at its hint.
  // scatter nonzero: each level is refilled from the level-0 hints by a bilinear splat and
  // relaxed towards them. The splat is deterministic: every coarse pixel receives its
  // additions in the raster order of the level-0 pixels, whatever the worker count. At
  // level 0 the refill first clears the very hints it would read, so level 0 gets none
  // and the hint pyramids hold no level-0 hints after such a solve; call AddHint and
  // FinishHints again before another one.
  void SolveFromHints(PLImage* flowOut, NuvIdleAndProgressClass* progress, uint8_t scatter);

  int32_t iterationsPerLevel = 2;
  PLImage** flowPyramid = nullptr;        // 2 ch: flow per level
  PLImage** hintFlowPyramid = nullptr;    // 2 ch: hint sums (means after FinishHints)
  PLImage** hintWeightPyramid = nullptr;  // 1 ch: hint weights
  PLImage** scratchPyramid = nullptr;     // 1 ch: scratch for the weight reductions
  int32_t numLevels = 1;
  int32_t workWidth = 0;
  int32_t workHeight = 0;
  float workMaxX = -1.0f;
  float workMaxY = -1.0f;
  int32_t startLevel = 0;
  int32_t minLevelSize = 0;
  float levelFactor = 1.0f;
  int32_t errorCode = 0;

 private:
  void Construct(int32_t throwOnError, int32_t width, int32_t height, int32_t mode,
                 int32_t minSize);
  void ReleaseAll();
  void BuildHintPyramids();
  // The scatter refill of one level from the level-0 hints, into t and the level's hint
  // images (all cleared by the caller).
  void Splat(int32_t level, PLImage* t);
  void ScatterRelax(int32_t level, PLImage* t, NuvIdleAndProgressClass* progress);
};

// The level count of the rule above, for a working size and minLevelSize.
int32_t PLMorphLevelCount(int32_t workWidth, int32_t workHeight, int32_t minLevelSize);
