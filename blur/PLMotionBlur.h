// flowblur: the motion-blur renderer, a gather of source samples along each pixel's flow.
#pragma once
#include <cstdint>

#include "image/NuvImage.h"
#include "image/PLImage.h"
#include "runtime/NuvMP.h"
#include "runtime/NuvProgress.h"

// Rules for this folder:
// - All checks happen in RenderMotionBlur before the fork; the row members check nothing.
// - The pixel loop is float geometry with float constants (0.5f, 1e-6f, 1.0f); nothing in
//   it is promoted to double, and no operation is reordered or fused (the bits are fixed).
// - One template (PLBlurRows.cpp) makes all 24 members; they are picked once per worker by
//   the one dispatcher, never inside a pixel loop.
// - Workers catch PLErr into the job's error slot; RenderMotionBlur throws it after the join.
// - Every image is addressed by its own row order and padding.
// - A pixel's channels live in four float lanes worked on as one SSE vector; each lane
//   does the scalar rule's operations in the scalar rule's order, so vector and scalar
//   give the same bits (the tests hold all 24 members to a scalar reference).
// - Where the processor has AVX2, a wide loop (PLBlurRowsWide.cpp) renders eight pixels side
//   by side, one lane each, with the same operations in the same order: the same bytes.
//   FLOWBLUR_PLAIN=1 in the environment, or FLOWBLUR_PLAIN_ONLY in the build, keeps the
//   plain loop (PLBlurWide.h).

// Meaning of the amount: each output pixel is the box average of source samples along a
// straight line through itself, of total length amount x its flow vector, half on each
// side. Amount 1 spans the whole motion between the two frames the flow came from; 0 (or
// zero flow) copies the source bit for bit; a negative amount walks the same line reversed.
//
// Flow: two Float channels, u then v, in pixels of the flow image's own grid; any size of
// at least 2 x 2. It is mapped onto the source corner-aligned, by the ratio of last
// indices, and read bilinearly.
//
// Sampling: quality 1 selects bilinear sampling; every other value nearest sampling.
// Border rule (countOutside): 0 stops a direction of the walk at its first sample outside
// the source (edge pixels average fewer samples); any other value counts samples outside
// as black.
//
// Images: source and destination alike in channels (1 to 4), width, height and data type
// (UChar, UShort or Float); row order and padding of all three images are free. Integer
// results are rounded and clamped, Float results are neither. No limit is put on the
// sample count; a vector too long for a 32-bit count (or infinite or NaN) takes n = 2 and
// the half-vector as its step, so its far samples fall outside.
//
// Failure: every check below runs before any pixel is written, and a refusal throws
// PLErrParameter (5) with the destination untouched:
//   - a null image, or one with no pixels (data null);
//   - source data type not UChar, UShort or Float;
//   - source and destination differing in channels, width, height or data type;
//   - source channels outside 1..4 (an image of more than 4 channels cannot be viewed);
//   - flow not 2-channel Float;
//   - a source or flow of one row or one column: the grid ratio would divide by zero, or
//     the bilinear flow cell would leave the image;
//   - a source or flow wider or taller than 8388608 (2^23): the pixel loop counts in
//     float, and beyond that x + 0.5 is no longer exact;
//   - an image whose bytes cannot all be addressed by 32-bit offsets;
//   - a destination sharing memory with the source or the flow (workers read rows that
//     others write);
//   - (rectangle form) y1 < y0, or a rectangle not inside the source. An empty column
//     range (x1 < x0) is accepted and writes nothing.
// An interruption raised through the progress chain ends the workers and is thrown as
// PLErrInterrupted (6) after the join; the destination then holds the rows finished.
// Results do not depend on the number of workers.

// Whole image: PLMotionBlurRect over x 0..src lastColumn, y 0..src lastRow. `reserved` is
// not read (the frame driver passes 0). `progress` may be null; it becomes the parent of
// the job's progress object.
void PLMotionBlur(PLImage* dst, const PLImage* src, const PLImage* flow, int32_t quality,
                  int32_t reserved, NuvIdleAndProgressClass* progress, uint8_t countOutside,
                  float amount);

// Renders the inclusive rectangle x0..x1, y0..y1 of the destination; pixels outside it
// keep their values. Wraps the three images in views on the stack (no pixel copy) and
// calls RenderMotionBlur.
void PLMotionBlurRect(PLImage* dst, const PLImage* src, const PLImage* flow, int32_t quality,
                      NuvIdleAndProgressClass* progress, uint8_t countOutside, int32_t x0,
                      int32_t x1, int32_t y0, int32_t y1, float amount);

// The engine on views: checks (see above), then forks MotionBlurRowWorker over the rows
// y0..y1 in bands of 16 rows (NuvMPForkBands). `bilinearSampling` is 1 for bilinear, 0 for nearest. Throws PLErr.
void RenderMotionBlur(NuvImage* dst, const NuvImage* src, const NuvImage* flow,
                      uint8_t bilinearSampling, NuvIdleAndProgressClass* progress,
                      uint8_t countOutside, int32_t x0, int32_t x1, int32_t y0, int32_t y1,
                      float amount);

// Fork-join worker. firstRow and lastRow are inclusive and relative to y0. Its argument
// list, in order (all words):
//   1 NuvImage* destination       2 const NuvImage* source     3 const NuvImage* flow
//   4 const float* amount         5 const uint8_t* bilinearSampling
//   6 NuvIdleAndProgressClass* job progress (parent of the worker's progress object)
//   7 int32_t* error slot         8 int32_t* interruption word shared by the workers
//   9 const uint8_t* countOutside 10 const int32_t* x0  11 const int32_t* x1
//   12 const int32_t* y0
// Picks the member below by the source's channels and pixel type (none for an unsupported
// pair: no work), and stores a PLErr raised by the rows in the error slot; nothing is
// thrown out of it.
void MotionBlurRowWorker(int32_t thread, uint8_t reporter, int32_t firstRow, int32_t lastRow,
                         NuvMPArgs* args);

// One complete renderer per pixel layout and border rule: rows yFirst..yLast and columns
// x0..x1 (absolute, inclusive, inside the source), both sampling paths. T is uint8_t,
// uint16_t or float and C is 1 to 4: 24 members, instantiated in PLBlurRows.cpp from one
// template. They check nothing; `progress` is the worker's object (rows report on a local
// child of it once per row). They raise only what a progress report raises.
//   StopAtEdge:   a direction of the walk ends at its first sample outside the source.
//   CountOutside: samples outside count in the divisor but add nothing (black).
template <class T, int32_t C>
void BlurRowsStopAtEdge(int32_t x0, int32_t x1, int32_t yFirst, int32_t yLast, NuvImage* dst,
                        const NuvImage* src, const NuvImage* flow, uint8_t bilinearSampling,
                        NuvIdleAndProgressClass* progress, float amount);
template <class T, int32_t C>
void BlurRowsCountOutside(int32_t x0, int32_t x1, int32_t yFirst, int32_t yLast, NuvImage* dst,
                          const NuvImage* src, const NuvImage* flow, uint8_t bilinearSampling,
                          NuvIdleAndProgressClass* progress, float amount);
