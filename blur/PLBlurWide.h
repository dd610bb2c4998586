// flowblur: the choice between the plain and the wide row loops of the renderer (folder-private).
#pragma once
#include <cstdint>

#include "image/NuvImage.h"
#include "runtime/NuvProgress.h"

// Two row loops give the same bytes for every member:
//   plain: one pixel at a time, its channels in the four lanes of one SSE vector (any x86-64);
//   wide:  eight neighbouring pixels side by side, one AVX2 lane each, every lane doing the
//          plain loop's operations in the plain loop's order (no fused multiply-add).
enum class PLBlurPath : int32_t { kPlain = 0, kWide = 1 };

// The flow's row cell of source row y, the same for the whole row in both loops: the row
// trunc(y * sy) and its weight; at or beyond the flow's last row the cell slides back by one
// with weight 1.
inline void PLBlurFlowRowCell(float y, float sy, int32_t flowLastRow, int32_t* iy, float* ty) {
  const float fy = y * sy;
  *iy = static_cast<int32_t>(fy);
  *ty = fy - static_cast<float>(*iy);
  if (*iy >= flowLastRow) {
    *iy = flowLastRow - 1;
    *ty = 1.0f;
  }
}

// PLWideAvailable() (runtime/PLWidePath.h): this build carries the wide loop and the processor
// runs AVX2. A build with FLOWBLUR_PLAIN_ONLY defined carries only the plain loop.
bool PLBlurWideAvailable();

// The loop the renderer uses: the library's one choice, PLWideChosen() (wide when available,
// unless the environment variable FLOWBLUR_PLAIN is set to anything but "" or "0").
PLBlurPath PLBlurChosenPath();

// One member of the renderer on a given path, on the calling thread: rows yFirst..yLast,
// columns x0..x1 (absolute, inclusive), as BlurRowsStopAtEdge / BlurRowsCountOutside.
// Asking for the wide path where it is not available runs the plain one. For tests and
// benchmarks that compare the two; the renderer itself goes through PLBlurChosenPath.
template <class T, int32_t C>
void BlurRowsOnPath(PLBlurPath path, bool countOutside, int32_t x0, int32_t x1, int32_t yFirst,
                    int32_t yLast, NuvImage* dst, const NuvImage* src, const NuvImage* flow,
                    uint8_t bilinearSampling, NuvIdleAndProgressClass* progress, float amount);

// The wide pixel loop of one sampling path (PLBlurRowsWide.cpp); `progress` is the member's
// local object. Only called when PLBlurWideAvailable().
template <class T, int32_t C, bool CountOutside, bool Bilinear>
void BlurRowsWidePath(int32_t x0, int32_t x1, int32_t yFirst, int32_t yLast, NuvImage* dst,
                      const NuvImage* src, const NuvImage* flow,
                      NuvIdleAndProgressClass* progress, float amount);
