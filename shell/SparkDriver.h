// flowblur: the per-frame driver's state, its constants and the seams that tests replace.
#pragma once
#include <cstddef>
#include <cstdint>

#include "shell/SparkFlowCalls.h"
#include "shell/spark.h"

// SparkProcess, one frame, in this order:
//   1. ProcessorCount goes to the fork-join thread count, untested; busy cursor.
//   2. Buffer records 1 result, 2 front, 3 back, TempBufferId tmp are fetched; a failed
//      fetch or a record without the usable bit ends with null, silently. A null Buffer
//      prints "Error: null buffer pointer result(%d) front(%d) back(%d) tmp(%d)\n" on
//      stderr (each pointer shown as its low 32 bits, signed) and ends with null.
//   3. Controls: amount, motion flag, mode 2 for Draft and 1 for Best. With ControlsBypass
//      nonzero the controls are not read and the defaults of the records apply: mode 1,
//      amount 0.5 and motion from the front clip (kSparkBypassAmount, kSparkBypassMotion).
//   4. Neighbour of frame n: n - 1, or 1 for n 0; on the front clip a value of 0 or less
//      becomes n + 1 (so n 1 pairs with 2 on the front clip and with 0 on the back clip).
//      Frame numbers wrap as 32-bit two's complement at the ends of their range.
//   5. Width and Height of the result go to the exported Width and Height. The motion clip
//      (back when the flag is 1, else front) gives the flow size, format, stride, buffer.
//      Neighbour into tmp, then frame n into the clip's buffer.
//   6. Flow between (neighbour, current) for n 0, (current, neighbour) otherwise. Format 49
//      goes through three float planes A (current, later the front frame), B (neighbour),
//      C (output); every other format is used in place.
//   7. Render the front frame (always the front clip) into the result, clean up (estimator,
//      format 49 output packed back, planes freed), reload frame n into the back buffer
//      when the motion came from it, return the result buffer.
// Failures: a tmp buffer lost during loading, or planes that cannot be had, report
// "Cannot process image due to image buffer parameter error" / "... allocation error",
// clear the result after the message and return null. Flow or render codes 1 and 5 clear
// the result, report "Cannot process image flow|blur due to out of memory|parameter error",
// pause one second and return the result buffer; other codes are not reported. A null
// estimator is reported as the flow's out-of-memory case. The clean-up runs after every
// flow or render failure, so format 49 packs the output plane back over a cleared result.
//
// Choices of this implementation:
//   - Planes are zeroed when allocated (calloc) and hold at least as many pixels as the
//     result frame, so that packing workers split over the host's frame never read or write
//     past a plane, and a failure path that packs an unwritten C back gives zeros.
//   - A format outside the table builds no estimator; the result stays untouched.
//   - Format 49 frames are converted as packed pixel arrays (the packing has no stride), so
//     a host must give them without row padding.
//   - Clearing zeroes FrameBytes bytes from the result's first pixel but never more than the
//     result's own Stride x Height, so a FrameBytes larger than the buffer stays inside it.
//
// Hosts outside the design. Before loading any frame (after Width and Height are stored)
// the driver checks that the records agree with each other, since every address it forms
// comes from them. A call that fails the check writes nothing outside a buffer as its own
// record describes it (Stride x Height bytes from Buffer):
//   - Refused, returning null with one line on stderr and nothing written: ProcessorCount
//     above the fork-join job table (64); or, when a rule below fails, a result record that
//     cannot even be cleared safely (a format outside the table, a size below 1, a Stride
//     shorter than a row).
//   - Otherwise the render's parameter-error path: the result is cleared, "Cannot process
//     image blur due to parameter error", the pause, the result pointer returned; no frame
//     is loaded and no estimator built. The rules:
//     * the front in the table: the result has the front's sample layout (24 and 25 alike,
//       48 and 64 alike, 49 alone), and front and result are rows of at least Width pixels
//       of that layout (Width, Height at least 1);
//     * the motion clip in the table: it is such rows too, and tmp's Stride x Height covers
//       a frame of the clip ((Height - 1) x Stride + Width x bytes per pixel of the clip);
//     * the front or the motion clip in format 49: result, front, clip and tmp all have the
//       result's Width and Height and packed rows (Stride = 6 x Width), because the packing
//       splits the host's frame, the result's Width x Height, without any stride.
//   Records outside the table in format (front and clip both) stay the no-op above.

// Id of the temporary buffer, set by SparkMemoryTempBuffers; 4 until then.
extern "C" int32_t TempBufferId;

// Driver constants.
constexpr float kSparkLevelFactor = 0.7f;     // start of the estimator's pyramid walk
constexpr float kSparkWhitePoint = 65535.0f;  // white point of every flow and render call
constexpr int32_t kSparkRowOrder = 1;         // rows top-down for every image
constexpr float kSparkBypassAmount = 0.5f;    // amount when the controls are bypassed
constexpr uint8_t kSparkBypassMotion = 0;     // motion from the front clip when bypassed

// The outcome of the record check above.
enum class SparkRecordCheck { kAccept, kParameterError, kRefuse };
// The check on the fetched records; `why` (may be null) gets a short reason otherwise.
SparkRecordCheck SparkCheckRecords(int32_t processorCount, const spark_mem_buf_struct& result,
                                   const spark_mem_buf_struct& front,
                                   const spark_mem_buf_struct& clip,
                                   const spark_mem_buf_struct& tmp, const char** why);

// Neighbouring frame of frame n (step 4); motionFromBack is the control's value.
int32_t SparkNeighbourFrame(int32_t n, uint8_t motionFromBack);

// The pause after a reported flow or render failure; sleep() unless a test replaced it.
// Returns the previous function; null restores the real pause.
typedef void (*SparkPauseFunction)(uint32_t seconds);
SparkPauseFunction SparkSetPause(SparkPauseFunction pause);

// Allocation of the format 49 float planes: zeroed blocks from calloc unless a test
// replaced it (to make an allocation fail). Released with free() whatever the allocator.
// Returns the previous function; null restores calloc.
typedef void* (*SparkPlaneAllocFunction)(size_t bytes);
SparkPlaneAllocFunction SparkSetPlaneAllocator(SparkPlaneAllocFunction allocate);

// The four flow and render calls the driver makes, through one table so that tests can make
// any of them answer any code. Null restores the real ones.
struct SparkFlowCallTable {
  decltype(&CreateFlowEstimator) createFlowEstimator;
  decltype(&DestroyFlowEstimator) destroyFlowEstimator;
  decltype(&CalculateFlow) calculateFlow;
  decltype(&RenderBlur) renderBlur;
};
void SparkSetFlowCalls(const SparkFlowCallTable* calls);
