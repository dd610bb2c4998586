// flowblur: the per-pixel stages of the flow solve: gradients, moments, residual, update,
// smoothing, hints and the transfer of a flow to a finer level.
#include "flow/PLFlowStages.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "filter/PLKernels.h"
#include "runtime/PLWidePath.h"
#include "runtime/PLWidePick.h"
#include "flow/PLFlowPrivate.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "runtime/NuvMem.h"

using plflow::BilinearCell;
using plflow::Cell;
using plflow::FRow;
using plflow::FView;

// ---- Gradients -------------------------------------------------------------------------

static void MomentsRow(float* s, const float* gx, const float* gy, int32_t w, bool wide);

#if !defined(FLOWBLUR_PLAIN_ONLY)
// The wide loops of a gradient row (run only where PLWideAvailable); each returns the first
// pixel left to the plain loop, and lane l does the plain loop's operations for pixel x + l
// in their order (left or upper term first, then the division by 2).
// Interior gx from x = 1 while eight remain before the last pixel.
__attribute__((target("avx2"))) static int32_t GradientXWide(float* gx, const float* row,
                                                             int32_t w) {
  const __m256 two = _mm256_set1_ps(2.0f);
  int32_t x = 1;
  for (; x + 8 <= w - 1; x += 8) {
    const __m256 c = _mm256_loadu_ps(row + x);
    const __m256 left = _mm256_sub_ps(c, _mm256_loadu_ps(row + x - 1));
    const __m256 right = _mm256_sub_ps(_mm256_loadu_ps(row + x + 1), c);
    _mm256_storeu_ps(gx + x, _mm256_div_ps(_mm256_add_ps(left, right), two));
  }
  return x;
}
// gy of a row with rows above and below, from x = 0.
__attribute__((target("avx2"))) static int32_t GradientYWide(float* gy, const float* row,
                                                             const float* up,
                                                             const float* down, int32_t w) {
  const __m256 two = _mm256_set1_ps(2.0f);
  int32_t x = 0;
  for (; x + 8 <= w; x += 8) {
    const __m256 c = _mm256_loadu_ps(row + x);
    const __m256 upper = _mm256_sub_ps(c, _mm256_loadu_ps(up + x));
    const __m256 lower = _mm256_sub_ps(_mm256_loadu_ps(down + x), c);
    _mm256_storeu_ps(gy + x, _mm256_div_ps(_mm256_add_ps(upper, lower), two));
  }
  return x;
}
// The three moments of eight pixels, interleaved, from x = 0.
__attribute__((target("avx2"))) static int32_t MomentsRowWide(float* s, const float* gx,
                                                              const float* gy, int32_t w) {
  // Output k of the 24 holds moment k % 3 of pixel k / 3; each of the three output vectors
  // takes its lanes from the three moment vectors, moved into place.
  const __m256i pa0 = _mm256_setr_epi32(0, 0, 0, 1, 0, 0, 2, 0);
  const __m256i pb0 = _mm256_setr_epi32(0, 0, 0, 0, 1, 0, 0, 2);
  const __m256i pc0 = _mm256_setr_epi32(0, 0, 0, 0, 0, 1, 0, 0);
  const __m256i pa1 = _mm256_setr_epi32(0, 3, 0, 0, 4, 0, 0, 5);
  const __m256i pb1 = _mm256_setr_epi32(0, 0, 3, 0, 0, 4, 0, 0);
  const __m256i pc1 = _mm256_setr_epi32(2, 0, 0, 3, 0, 0, 4, 0);
  const __m256i pa2 = _mm256_setr_epi32(0, 0, 6, 0, 0, 7, 0, 0);
  const __m256i pb2 = _mm256_setr_epi32(5, 0, 0, 6, 0, 0, 7, 0);
  const __m256i pc2 = _mm256_setr_epi32(0, 5, 0, 0, 6, 0, 0, 7);
  int32_t x = 0;
  for (; x + 8 <= w; x += 8) {
    const __m256 h = _mm256_loadu_ps(gx + x);
    const __m256 v = _mm256_loadu_ps(gy + x);
    const __m256 a = _mm256_mul_ps(h, h);
    const __m256 b = _mm256_mul_ps(v, h);
    const __m256 c = _mm256_mul_ps(v, v);
    float* o = s + 3 * x;
    // Lanes by moment: out0 a.. b.. c.. at 0 3 6 | 1 4 7 | 2 5; out1 at 1 4 7 | 2 5 | 0 3 6;
    // out2 at 2 5 | 0 3 6 | 1 4 7.
    _mm256_storeu_ps(o, _mm256_blend_ps(_mm256_blend_ps(_mm256_permutevar8x32_ps(a, pa0),
                                                        _mm256_permutevar8x32_ps(b, pb0), 0x92),
                                        _mm256_permutevar8x32_ps(c, pc0), 0x24));
    _mm256_storeu_ps(o + 8, _mm256_blend_ps(_mm256_blend_ps(_mm256_permutevar8x32_ps(a, pa1),
                                                            _mm256_permutevar8x32_ps(b, pb1), 0x24),
                                            _mm256_permutevar8x32_ps(c, pc1), 0x49));
    _mm256_storeu_ps(o + 16, _mm256_blend_ps(_mm256_blend_ps(_mm256_permutevar8x32_ps(a, pa2),
                                                             _mm256_permutevar8x32_ps(b, pb2), 0x49),
                                             _mm256_permutevar8x32_ps(c, pc2), 0x92));
  }
  return x;
}
#endif

// The mean of the one-sided differences that exist, the left (upper) term first. With no
// term at all (a line of one sample) it is 0/0, a NaN, which no later stage acts on.
// With a structure image, each row's moments follow at once, from the row just written.
static void GradientsWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow,
                            NuvMPArgs* args) {
  PLImage* gradX = args->Next<PLImage*>();
  PLImage* gradY = args->Next<PLImage*>();
  const PLImage* image = args->Next<const PLImage*>();
  PLImage* structure = args->Next<PLImage*>();
  const bool wide = args->Next<int32_t>() != 0;
  const int32_t w = image->width;
  const int32_t h = image->height;
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    const float* row = FRow(image, y);
    const float* up = y > 0 ? FRow(image, y - 1) : nullptr;
    const float* down = y < h - 1 ? FRow(image, y + 1) : nullptr;
    float* gx = FRow(gradX, y);
    float* gy = FRow(gradY, y);
    if (w == 1) {
      gx[0] = nan;
    } else {
      gx[0] = row[1] - row[0];
      int32_t x = 1;
#if !defined(FLOWBLUR_PLAIN_ONLY)
      if (wide) x = GradientXWide(gx, row, w);
#endif
      for (; x < w - 1; ++x) gx[x] = ((row[x] - row[x - 1]) + (row[x + 1] - row[x])) / 2.0f;
      gx[w - 1] = row[w - 1] - row[w - 2];
    }
    if (up && down) {
      int32_t x = 0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
      if (wide) x = GradientYWide(gy, row, up, down, w);
#endif
      for (; x < w; ++x) gy[x] = ((row[x] - up[x]) + (down[x] - row[x])) / 2.0f;
    } else if (up) {
      for (int32_t x = 0; x < w; ++x) gy[x] = row[x] - up[x];
    } else if (down) {
      for (int32_t x = 0; x < w; ++x) gy[x] = down[x] - row[x];
    } else {
      for (int32_t x = 0; x < w; ++x) gy[x] = nan;
    }
    if (structure) MomentsRow(FRow(structure, y), gx, gy, w, wide);
  }
}

void ComputeGradients(PLImage* gradX, PLImage* gradY, const PLImage* image) {
  if (image->width < 1) return;
  const int32_t wide = PLWideChosen() ? 1 : 0;
  PLForkImageRows(image->height, GradientsWorker, gradX, gradY, image,
                  static_cast<PLImage*>(nullptr), wide);
}

void ComputeGradientsAndMoments(PLImage* gradX, PLImage* gradY, PLImage* structure,
                                const PLImage* image) {
  ComputeGradientsAndMomentsOnPath(PLWideChosen(), gradX, gradY, structure, image);
}

void ComputeGradientsAndMomentsOnPath(bool wide, PLImage* gradX, PLImage* gradY,
                                      PLImage* structure, const PLImage* image) {
  if (image->width < 1) return;
  const int32_t useWide = wide && PLWideAvailable() ? 1 : 0;
  PLForkImageRows(image->height, GradientsWorker, gradX, gradY, image, structure, useWide);
}

// ---- Gate --------------------------------------------------------------------------------

static void GateWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* gradX = args->Next<PLImage*>();
  PLImage* gradY = args->Next<PLImage*>();
  const PLImage* mask = args->Next<const PLImage*>();
  const int32_t lastColumn = gradX->lastColumn;
  const int32_t lastRowY = gradY->lastRow;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    const float* m = FRow(mask, y);
    const float* up = y > 0 ? FRow(mask, y - 1) : nullptr;
    const float* down = y < lastRowY ? FRow(mask, y + 1) : nullptr;
    float* gx = FRow(gradX, y);
    float* gy = FRow(gradY, y);
    for (int32_t x = 0; x <= lastColumn; ++x) {
      bool invalid = static_cast<double>(m[x]) < 0.95;
      if (x > 0 && static_cast<double>(m[x - 1]) < 0.95) invalid = true;
      if (x < lastColumn && static_cast<double>(m[x + 1]) < 0.95) invalid = true;
      if (up && static_cast<double>(up[x]) < 0.95) invalid = true;
      if (down && static_cast<double>(down[x]) < 0.95) invalid = true;
      if (invalid) {
        gx[x] = 0.0f;
        gy[x] = 0.0f;
      }
    }
  }
}

void GateGradients(PLImage* gradX, PLImage* gradY, const PLImage* mask) {
  PLForkImageRows(gradY->height, GateWorker, gradX, gradY, mask);
}

// ---- Moments -----------------------------------------------------------------------------

static void MomentsWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow,
                          NuvMPArgs* args) {
  PLImage* structure = args->Next<PLImage*>();
  const PLImage* gradX = args->Next<const PLImage*>();
  const PLImage* gradY = args->Next<const PLImage*>();
  const bool wide = args->Next<int32_t>() != 0;
  const int32_t w = structure->width;
  for (int32_t y = firstRow; y <= lastRow; ++y)
    MomentsRow(FRow(structure, y), FRow(gradX, y), FRow(gradY, y), w, wide);
}

static void MomentsRow(float* s, const float* gx, const float* gy, int32_t w, bool wide) {
  int32_t x = 0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
  if (wide) x = MomentsRowWide(s, gx, gy, w);
#else
  (void)wide;
#endif
  for (; x < w; ++x) {
    s[3 * x] = gx[x] * gx[x];
    s[3 * x + 1] = gy[x] * gx[x];
    s[3 * x + 2] = gy[x] * gy[x];
  }
}

void ComputeMoments(PLImage* structure, const PLImage* gradX, const PLImage* gradY) {
  const int32_t wide = PLWideChosen() ? 1 : 0;
  PLForkImageRows(structure->height, MomentsWorker, structure, gradX, gradY, wide);
}

// ---- Residual ----------------------------------------------------------------------------

#if !defined(FLOWBLUR_PLAIN_ONLY)
// The unmasked residual of row y for eight pixels at a time, from x = 0 while eight remain
// (run only where PLWideAvailable, on images of at least 2x2); returns the first pixel left
// to the plain loop. Lane l does the plain loop's operations for pixel x + l in their order:
// the frame test, the cell (which at a last index >= 1 never needs the clamp at 0), the
// bilinear mix with its left operands first, d, and the two products.
__attribute__((target("avx2"))) int32_t ResidualRowWide(float* r, const float* f, const float* a,
                                                        const float* gx, const float* gy,
                                                        const FView& s, int32_t w, int32_t h,
                                                        float fy, int32_t lastColumn,
                                                        int32_t lastRow) {
  const __m256 zero = _mm256_setzero_ps();
  const __m256 maxX = _mm256_set1_ps(static_cast<float>(w - 1));
  const __m256 maxY = _mm256_set1_ps(static_cast<float>(h - 1));
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 yv = _mm256_set1_ps(fy);
  const __m256i lastX = _mm256_set1_epi32(lastColumn - 1);
  const __m256i lastY = _mm256_set1_epi32(lastRow - 1);
  const __m256i step = _mm256_set1_epi32(static_cast<int32_t>(s.step));
  const __m256 iota = _mm256_setr_ps(0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f);
  int32_t x = 0;
  for (; x + 8 <= w; x += 8) {
    // Pairs (u, v) of eight pixels, split by channel.
    const __m256 lo = _mm256_loadu_ps(f + 2 * x);
    const __m256 hi = _mm256_loadu_ps(f + 2 * x + 8);
    const __m256 u = _mm256_castpd_ps(_mm256_permute4x64_pd(
        _mm256_castps_pd(_mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(2, 0, 2, 0))), 0xD8));
    const __m256 v = _mm256_castpd_ps(_mm256_permute4x64_pd(
        _mm256_castps_pd(_mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1))), 0xD8));
    const __m256 xv = _mm256_add_ps(_mm256_set1_ps(static_cast<float>(x)), iota);
    __m256 sx = _mm256_sub_ps(xv, u);
    __m256 sy = _mm256_sub_ps(yv, v);
    const __m256 in = _mm256_and_ps(
        _mm256_and_ps(_mm256_cmp_ps(sx, zero, _CMP_GE_OQ), _mm256_cmp_ps(sx, maxX, _CMP_LE_OQ)),
        _mm256_and_ps(_mm256_cmp_ps(sy, zero, _CMP_GE_OQ), _mm256_cmp_ps(sy, maxY, _CMP_LE_OQ)));
    // Lanes outside read the cell at (0, 0), and their result is replaced by 0.
    sx = _mm256_and_ps(sx, in);
    sy = _mm256_and_ps(sy, in);
    __m256i ix = _mm256_cvttps_epi32(sx);
    __m256i iy = _mm256_cvttps_epi32(sy);
    __m256 tx = _mm256_sub_ps(sx, _mm256_cvtepi32_ps(ix));
    __m256 ty = _mm256_sub_ps(sy, _mm256_cvtepi32_ps(iy));
    const __m256i slideX = _mm256_cmpgt_epi32(ix, lastX);
    const __m256i slideY = _mm256_cmpgt_epi32(iy, lastY);
    ix = _mm256_blendv_epi8(ix, lastX, slideX);
    iy = _mm256_blendv_epi8(iy, lastY, slideY);
    tx = _mm256_blendv_ps(tx, one, _mm256_castsi256_ps(slideX));
    ty = _mm256_blendv_ps(ty, one, _mm256_castsi256_ps(slideY));
    // Where the eight cells share their rows and lie among sixteen samples from two columns
    // left of lane 0's (the usual case of a smooth flow), the samples come from four whole
    // loads and lane permutations instead of four gathers.
    const int32_t row = _mm256_cvtsi256_si32(iy);
    const int32_t from = std::max(_mm256_cvtsi256_si32(ix) - 2, 0);
    const __m256i index = _mm256_sub_epi32(ix, _mm256_set1_epi32(from));
    const bool oneRow =
        _mm256_movemask_epi8(_mm256_cmpeq_epi32(iy, _mm256_set1_epi32(row))) == -1;
    const bool near = _mm256_movemask_epi8(_mm256_cmpeq_epi32(
                          index, _mm256_min_epu32(index, _mm256_set1_epi32(14)))) == -1;
    __m256 s00, s10, s01, s11;
    if (oneRow && near && from + 15 <= lastColumn) {
      const float* upper = s.base + row * s.step + from;
      PLPickCells16(upper, upper + s.step, index, &s00, &s10, &s01, &s11);
    } else {
      const __m256i at = _mm256_add_epi32(_mm256_mullo_epi32(iy, step), ix);
      const __m256i below = _mm256_add_epi32(at, step);
      s00 = _mm256_i32gather_ps(s.base, at, 4);
      s10 = _mm256_i32gather_ps(s.base + 1, at, 4);
      s01 = _mm256_i32gather_ps(s.base, below, 4);
      s11 = _mm256_i32gather_ps(s.base + 1, below, 4);
    }
    const __m256 top = _mm256_add_ps(s00, _mm256_mul_ps(tx, _mm256_sub_ps(s10, s00)));
    const __m256 bottom = _mm256_add_ps(s01, _mm256_mul_ps(tx, _mm256_sub_ps(s11, s01)));
    const __m256 value = _mm256_add_ps(top, _mm256_mul_ps(ty, _mm256_sub_ps(bottom, top)));
    const __m256 d = _mm256_sub_ps(value, _mm256_loadu_ps(a + x));
    const __m256 rx = _mm256_and_ps(_mm256_mul_ps(_mm256_loadu_ps(gx + x), d), in);
    const __m256 ry = _mm256_and_ps(_mm256_mul_ps(d, _mm256_loadu_ps(gy + x)), in);
    // Back to pairs.
    const __m256 p0 = _mm256_unpacklo_ps(rx, ry);
    const __m256 p1 = _mm256_unpackhi_ps(rx, ry);
    _mm256_storeu_ps(r + 2 * x, _mm256_permute2f128_ps(p0, p1, 0x20));
    _mm256_storeu_ps(r + 2 * x + 8, _mm256_permute2f128_ps(p0, p1, 0x31));
  }
  return x;
}
#endif

// The masked and unmasked loops are separate so that the common case tests no mask.
template <bool kMasked>
static void ResidualWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow,
                           NuvMPArgs* args) {
  PLImage* residual = args->Next<PLImage*>();
  const PLImage* first = args->Next<const PLImage*>();
  const PLImage* second = args->Next<const PLImage*>();
  const PLImage* gradX = args->Next<const PLImage*>();
  const PLImage* gradY = args->Next<const PLImage*>();
  const PLImage* flow = args->Next<const PLImage*>();
  const PLImage* secondMask = args->Next<const PLImage*>();
  const bool wide = args->Next<int32_t>() != 0;
  const int32_t w = residual->width;
  const float maxX = static_cast<float>(w - 1);
  const float maxY = static_cast<float>(residual->height - 1);
  const FView s(second);
  const FView mk = kMasked ? FView(secondMask) : FView(second);
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    const float* f = FRow(flow, y);
    const float* a = FRow(first, y);
    const float* gx = FRow(gradX, y);
    const float* gy = FRow(gradY, y);
    float* r = FRow(residual, y);
    const float fy = static_cast<float>(y);
    int32_t x = 0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
    if (!kMasked && wide)
      x = ResidualRowWide(r, f, a, gx, gy, s, w, residual->height, fy, second->lastColumn,
                          second->lastRow);
#else
    (void)wide;
#endif
    for (; x < w; ++x) {
      const float sx = static_cast<float>(x) - f[2 * x];
      const float sy = fy - f[2 * x + 1];
      if (!plflow::InFrame(sx, sy, maxX, maxY)) {
        r[2 * x] = 0.0f;
        r[2 * x + 1] = 0.0f;
        continue;
      }
      const Cell cx = BilinearCell(sx, second->lastColumn);
      const Cell cy = BilinearCell(sy, second->lastRow);
      const float* r0 = s.Row(cy.i0);
      const float* r1 = s.Row(cy.i1);
      const float v = plflow::Bilinear(r0[cx.i0], r0[cx.i1], r1[cx.i0], r1[cx.i1], cx.t, cy.t);
      if (kMasked) {
        const Cell mx = BilinearCell(sx, secondMask->lastColumn);
        const Cell my = BilinearCell(sy, secondMask->lastRow);
        const float* m0 = mk.Row(my.i0);
        const float* m1 = mk.Row(my.i1);
        const float m = plflow::Bilinear(m0[mx.i0], m0[mx.i1], m1[mx.i0], m1[mx.i1], mx.t, my.t);
        if (static_cast<double>(m) < 0.999) {
          r[2 * x] = 0.0f;
          r[2 * x + 1] = 0.0f;
          continue;
        }
      }
      const float d = v - a[x];
      r[2 * x] = gx[x] * d;
      r[2 * x + 1] = d * gy[x];
    }
  }
}

void ComputeResidual(PLImage* residual, const PLImage* first, const PLImage* second,
                     const PLImage* gradX, const PLImage* gradY, const PLImage* flow,
                     int32_t useMasks, const PLImage* secondMask) {
  ComputeResidualOnPath(PLWideChosen(), residual, first, second, gradX, gradY, flow, useMasks,
                        secondMask);
}

void ComputeResidualOnPath(bool wide, PLImage* residual, const PLImage* first,
                           const PLImage* second, const PLImage* gradX, const PLImage* gradY,
                           const PLImage* flow, int32_t useMasks, const PLImage* secondMask) {
  if (residual->width < 1) return;
  // The wide loop needs a second cell column and row.
  const int32_t useWide =
      wide && PLWideAvailable() && second->width >= 2 && second->height >= 2 ? 1 : 0;
  if (useMasks != 0 && secondMask)
    PLForkImageRows(residual->height, ResidualWorker<true>, residual, first, second, gradX,
                    gradY, flow, secondMask, int32_t{0});
  else
    PLForkImageRows(residual->height, ResidualWorker<false>, residual, first, second, gradX,
                    gradY, flow, secondMask, useWide);
}

// ---- Update ------------------------------------------------------------------------------

#if !defined(FLOWBLUR_PLAIN_ONLY)
namespace plflow {
// Eight interleaved (u, v) pairs split by channel, and back.
__attribute__((target("avx2"), always_inline)) inline void SplitPairs8(const float* p,
                                                                     __m256* c0, __m256* c1) {
  const __m256 lo = _mm256_loadu_ps(p);
  const __m256 hi = _mm256_loadu_ps(p + 8);
  *c0 = _mm256_castpd_ps(_mm256_permute4x64_pd(
      _mm256_castps_pd(_mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(2, 0, 2, 0))), 0xD8));
  *c1 = _mm256_castpd_ps(_mm256_permute4x64_pd(
      _mm256_castps_pd(_mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1))), 0xD8));
}
__attribute__((target("avx2"), always_inline)) inline void JoinPairs8(float* p, __m256 c0,
                                                                    __m256 c1) {
  const __m256 lo = _mm256_unpacklo_ps(c0, c1);
  const __m256 hi = _mm256_unpackhi_ps(c0, c1);
  _mm256_storeu_ps(p, _mm256_permute2f128_ps(lo, hi, 0x20));
  _mm256_storeu_ps(p + 8, _mm256_permute2f128_ps(lo, hi, 0x31));
}
}  // namespace plflow
#endif

#if !defined(FLOWBLUR_PLAIN_ONLY)
// The update of row pixels from x = 0 while eight remain (run only where PLWideAvailable);
// returns the first pixel left to the plain loop. Lane l does the plain loop's operations
// for pixel x + l in their order; a lane that takes no step keeps its flow's bits.
__attribute__((target("avx2"))) int32_t UpdateRowWide(float* f, const float* st,
                                                      const float* rs, int32_t w) {
  const __m256 limit = _mm256_set1_ps(40.0f);
  const __m256 magnitude = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
  // Sample c of pixel l of a 3-channel row lies at 3 l + c: three whole loads, and per
  // channel two blends and a lane permutation (three gathers cost more).
  const __m256i orderA = _mm256_setr_epi32(0, 3, 6, 1, 4, 7, 2, 5);
  const __m256i orderB = _mm256_setr_epi32(1, 4, 7, 2, 5, 0, 3, 6);
  const __m256i orderC = _mm256_setr_epi32(2, 5, 0, 3, 6, 1, 4, 7);
  int32_t x = 0;
  for (; x + 8 <= w; x += 8) {
    const float* s = st + 3 * x;
    const __m256 m0 = _mm256_loadu_ps(s);
    const __m256 m1 = _mm256_loadu_ps(s + 8);
    const __m256 m2 = _mm256_loadu_ps(s + 16);
    const __m256 a = _mm256_permutevar8x32_ps(
        _mm256_blend_ps(_mm256_blend_ps(m0, m1, 0x92), m2, 0x24), orderA);
    const __m256 b = _mm256_permutevar8x32_ps(
        _mm256_blend_ps(_mm256_blend_ps(m0, m1, 0x24), m2, 0x49), orderB);
    const __m256 c = _mm256_permutevar8x32_ps(
        _mm256_blend_ps(_mm256_blend_ps(m0, m1, 0x49), m2, 0x92), orderC);
    __m256 p, q, u, v;
    plflow::SplitPairs8(rs + 2 * x, &p, &q);
    plflow::SplitPairs8(f + 2 * x, &u, &v);
    const __m256 det = _mm256_sub_ps(_mm256_mul_ps(b, b), _mm256_mul_ps(a, c));
    // |det| > 40.0, strictly; a NaN fails it.
    const __m256 step = _mm256_cmp_ps(_mm256_and_ps(det, magnitude), limit, _CMP_GT_OQ);
    if (_mm256_movemask_ps(step) == 0) continue;
    const __m256 du = _mm256_div_ps(_mm256_sub_ps(_mm256_mul_ps(b, q), _mm256_mul_ps(c, p)), det);
    const __m256 dv = _mm256_div_ps(_mm256_sub_ps(_mm256_mul_ps(b, p), _mm256_mul_ps(a, q)), det);
    u = _mm256_blendv_ps(u, _mm256_add_ps(u, du), step);
    v = _mm256_blendv_ps(v, _mm256_add_ps(v, dv), step);
    plflow::JoinPairs8(f + 2 * x, u, v);
  }
  return x;
}
#endif

static void UpdateWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* flow = args->Next<PLImage*>();
  const PLImage* structure = args->Next<const PLImage*>();
  const PLImage* residual = args->Next<const PLImage*>();
  const bool wide = args->Next<int32_t>() != 0;
  const int32_t w = flow->width;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    float* f = FRow(flow, y);
    const float* st = FRow(structure, y);
    const float* rs = FRow(residual, y);
    int32_t x = 0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
    if (wide) x = UpdateRowWide(f, st, rs, w);
#else
    (void)wide;
#endif
    for (; x < w; ++x) {
      const float a = st[3 * x];
      const float b = st[3 * x + 1];
      const float c = st[3 * x + 2];
      const float p = rs[2 * x];
      const float q = rs[2 * x + 1];
      // The negative of the usual determinant; the 40.0 is absolute, tied to the 0..255
      // luma scale and the smoothing kernels, and strict.
      const float det = b * b - a * c;
      if (std::fabs(det) > 40.0f) {
        f[2 * x] = f[2 * x] + (b * q - c * p) / det;
        f[2 * x + 1] = f[2 * x + 1] + (b * p - a * q) / det;
      }
    }
  }
}

void UpdateFlow(PLImage* flow, const PLImage* structure, const PLImage* residual) {
  UpdateFlowOnPath(PLWideChosen(), flow, structure, residual);
}

void UpdateFlowOnPath(bool wide, PLImage* flow, const PLImage* structure,
                      const PLImage* residual) {
  const int32_t useWide = wide && PLWideAvailable() ? 1 : 0;
  PLForkImageRows(flow->height, UpdateWorker, flow, structure, residual, useWide);
}

// ---- Smoothing ---------------------------------------------------------------------------

void SmoothStage(PLImage* image, bool asMoments, int32_t smoothing) {
  switch (smoothing) {
    case 0: PLBoxBlur(image, 0, 2.0f); break;
    case 1: PLGaussBlur(image, 0, asMoments ? 7.0f : 5.0f); break;
    case 2: PLGaussBlur(image, 0, asMoments ? 5.0f : 3.0f); break;
    default: break;
  }
}

// ---- Hints -------------------------------------------------------------------------------

static void HintsWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* flow = args->Next<PLImage*>();
  const PLImage* hintFlow = args->Next<const PLImage*>();
  const PLImage* hintWeight = args->Next<const PLImage*>();
  const int32_t replace = args->Next<int32_t>();
  const int32_t w = flow->width;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    float* f = FRow(flow, y);
    const float* hf = FRow(hintFlow, y);
    const float* hw = FRow(hintWeight, y);
    for (int32_t x = 0; x < w; ++x) {
      const float weight = hw[x];
      if (weight == 0.0f) continue;
      for (int32_t c = 0; c < 2; ++c) {
        if (replace == 1)
          f[2 * x + c] = hf[2 * x + c] / weight;
        else
          f[2 * x + c] = f[2 * x + c] + (hf[2 * x + c] - weight * f[2 * x + c]);
      }
    }
  }
}

void ApplyHints(PLImage* flow, const PLImage* hintFlow, const PLImage* hintWeight,
                int32_t replace) {
  PLForkImageRows(flow->height, HintsWorker, flow, hintFlow, hintWeight, replace);
}

bool HasHintWeight(PLImage* const* pyramid, int32_t level) {
  if (!pyramid) return false;
  const PLImage* image = pyramid[level];
  if (!image || !image->data) return false;
  const int32_t n = image->width * image->channels;
  for (int32_t y = 0; y < image->height; ++y) {
    const float* row = FRow(image, y);
    for (int32_t i = 0; i < n; ++i)
      if (row[i] != 0.0f) return true;
  }
  return false;
}

// ---- Upsampling --------------------------------------------------------------------------

#if !defined(FLOWBLUR_PLAIN_ONLY)
// Row pixels of the upsampling from x = 0 while eight remain (run only where
// PLWideAvailable, on a source of at least 2 columns); returns the first pixel left to the
// plain loop. Lane l does the plain loop's operations for pixel x + l in their order: the
// cell of x * invX (never negative, so no clamp at 0), the mix, the scaling.
__attribute__((target("avx2"))) int32_t UpsampleRowWide(float* d, const float* r0,
                                                        const float* r1, int32_t w, float invX,
                                                        float ty, int32_t lastColumn,
                                                        float kx, float ky) {
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 inv = _mm256_set1_ps(invX);
  const __m256 tyv = _mm256_set1_ps(ty);
  const __m256 kxv = _mm256_set1_ps(kx);
  const __m256 kyv = _mm256_set1_ps(ky);
  const __m256i last = _mm256_set1_epi32(lastColumn - 1);
  const __m256i two = _mm256_set1_epi32(2);
  const __m256 iota = _mm256_setr_ps(0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f);
  int32_t x = 0;
  for (; x + 8 <= w; x += 8) {
    // Whole numbers below 2^24: the plain loop's static_cast<float>(x) exactly.
    const __m256 fx = _mm256_mul_ps(_mm256_add_ps(_mm256_set1_ps(static_cast<float>(x)), iota), inv);
    __m256i i = _mm256_cvttps_epi32(fx);
    __m256 t = _mm256_sub_ps(fx, _mm256_cvtepi32_ps(i));
    const __m256i slide = _mm256_cmpgt_epi32(i, last);
    i = _mm256_blendv_epi8(i, last, slide);
    t = _mm256_blendv_ps(t, one, _mm256_castsi256_ps(slide));
    // The cells are in order. When those of the eight lanes lie among eight source pixels
    // of the row (always, away from the row's end, when enlarging), the samples come from
    // whole loads and lane permutations instead of eight gathers.
    const int32_t first = _mm256_cvtsi256_si32(i);
    const bool near = _mm256_extract_epi32(i, 7) - first <= 6 && first + 7 <= lastColumn;
    __m256 sample[2][4];  // by channel: s00, s10, s01, s11
    if (near) {
      const __m256i at = _mm256_sub_epi32(i, _mm256_set1_epi32(first));
      const __m256i right = _mm256_add_epi32(at, _mm256_set1_epi32(1));
      __m256 upper[2], lower[2];
      plflow::SplitPairs8(r0 + 2 * first, &upper[0], &upper[1]);
      plflow::SplitPairs8(r1 + 2 * first, &lower[0], &lower[1]);
      for (int32_t c = 0; c < 2; ++c) {
        sample[c][0] = _mm256_permutevar8x32_ps(upper[c], at);
        sample[c][1] = _mm256_permutevar8x32_ps(upper[c], right);
        sample[c][2] = _mm256_permutevar8x32_ps(lower[c], at);
        sample[c][3] = _mm256_permutevar8x32_ps(lower[c], right);
      }
    } else {
      const __m256i a = _mm256_slli_epi32(i, 1);
      const __m256i b = _mm256_add_epi32(a, two);
      for (int32_t c = 0; c < 2; ++c) {
        sample[c][0] = _mm256_i32gather_ps(r0 + c, a, 4);
        sample[c][1] = _mm256_i32gather_ps(r0 + c, b, 4);
        sample[c][2] = _mm256_i32gather_ps(r1 + c, a, 4);
        sample[c][3] = _mm256_i32gather_ps(r1 + c, b, 4);
      }
    }
    __m256 out[2];
    for (int32_t c = 0; c < 2; ++c) {
      const __m256 s00 = sample[c][0], s10 = sample[c][1];
      const __m256 s01 = sample[c][2], s11 = sample[c][3];
      const __m256 top = _mm256_add_ps(s00, _mm256_mul_ps(t, _mm256_sub_ps(s10, s00)));
      const __m256 bottom = _mm256_add_ps(s01, _mm256_mul_ps(t, _mm256_sub_ps(s11, s01)));
      out[c] = _mm256_add_ps(top, _mm256_mul_ps(tyv, _mm256_sub_ps(bottom, top)));
    }
    plflow::JoinPairs8(d + 2 * x, _mm256_mul_ps(out[0], kxv), _mm256_mul_ps(out[1], kyv));
  }
  return x;
}
#endif

static void UpsampleWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow,
                           NuvMPArgs* args) {
  PLImage* dst = args->Next<PLImage*>();
  const PLImage* src = args->Next<const PLImage*>();
  const float kx = *args->Next<const float*>();
  const float ky = *args->Next<const float*>();
  const bool wide = args->Next<int32_t>() != 0;
  const float invX = 1.0f / kx;
  const float invY = 1.0f / ky;
  const FView s(src);
  const int32_t w = dst->width;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    const float fy = static_cast<float>(y) * invY;
    const Cell cy = BilinearCell(fy, src->lastRow);
    const float* r0 = s.Row(cy.i0);
    const float* r1 = s.Row(cy.i1);
    float* d = FRow(dst, y);
    int32_t x = 0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
    if (wide) x = UpsampleRowWide(d, r0, r1, w, invX, cy.t, src->lastColumn, kx, ky);
#else
    (void)wide;
#endif
    for (; x < w; ++x) {
      const float fx = static_cast<float>(x) * invX;
      const Cell cx = BilinearCell(fx, src->lastColumn);
      const int32_t a = 2 * cx.i0;
      const int32_t b = 2 * cx.i1;
      const float u = plflow::Bilinear(r0[a], r0[b], r1[a], r1[b], cx.t, cy.t);
      const float v =
          plflow::Bilinear(r0[a + 1], r0[b + 1], r1[a + 1], r1[b + 1], cx.t, cy.t);
      d[2 * x] = u * kx;
      d[2 * x + 1] = v * ky;
    }
  }
}

void UpsampleFlow(PLImage* dst, const PLImage* src) {
  UpsampleFlowOnPath(PLWideChosen(), dst, src);
}

void UpsampleFlowOnPath(bool wide, PLImage* dst, const PLImage* src) {
  if (!dst || !src || dst->dataType != PLFloat || src->dataType != PLFloat ||
      dst->channels != src->channels)
    throw PLErrParameter;
  // Guards of ours: a flow has two channels, and the grid ratios need a source of at least
  // 2x2 and a destination no smaller, so that every read stays inside the source.
  if (src->channels != 2 || !src->data || !dst->data || src->width < 2 || src->height < 2 ||
      dst->width < src->width || dst->height < src->height)
    throw PLErrParameter;
  const float kx = static_cast<float>(dst->width - 1) / static_cast<float>(src->width - 1);
  const float ky = static_cast<float>(dst->height - 1) / static_cast<float>(src->height - 1);
  const int32_t useWide = wide && PLWideAvailable() ? 1 : 0;
  PLForkImageRows(dst->height, UpsampleWorker, dst, src, &kx, &ky, useWide);
}

// ---- Whole-image helpers of input preparation -------------------------------------------

void ScaleXY(PLImage* image, float sx, float sy) {
  if (image->channels != 2 && image->dataType != PLFloat) {
    std::fputs("error in ScaleXY!\n", stderr);
    return;
  }
  if (!image->data) return;
  // Walked as two floats a pixel, as far as the row's own bytes reach.
  const int64_t rowFloats = static_cast<int64_t>(image->width) * image->bytesPerPixel / 4;
  const int64_t pairs = rowFloats / 2 < image->width ? rowFloats / 2 : image->width;
  for (int32_t y = 0; y < image->height; ++y) {
    unsigned char* row = image->Row(y);
    for (int64_t x = 0; x < pairs; ++x) {
      PLStore<float>(row + 8 * x, PLLoad<float>(row + 8 * x) * sx);
      PLStore<float>(row + 8 * x + 4, PLLoad<float>(row + 8 * x + 4) * sy);
    }
  }
}

void Binarise(PLImage* image) {
  for (int32_t y = 0; y < image->height; ++y) {
    float* row = FRow(image, y);
    for (int32_t x = 0; x < image->width; ++x)
      row[x] = static_cast<double>(row[x]) >= 0.9999 ? 1.0f : 0.0f;
  }
}

// ---- Start level and hints, shared by the estimator and the morph flow ------------------

void PLFlowStartLevel(int32_t levels, float levelFactor, int32_t* level, float* fraction) {
  // The parameter enters squared: s = n + 2 log2(levelFactor), in double, narrowed once.
  const float s = static_cast<float>(
      static_cast<double>(levels) +
      std::log(std::pow(static_cast<double>(levelFactor), 2.0)) / std::log(2.0));
  if (s < 0.0f || s != s) {  // a NaN factor gives the all-zero outcome of a tiny one
    *level = 0;
    *fraction = 0.0f;
  } else if (s >= static_cast<float>(levels)) {
    *level = levels - 1;
    *fraction = 1.0f;
  } else {
    *level = static_cast<int32_t>(std::floor(s));
    *fraction = s - static_cast<float>(*level);
  }
}

void PLFlowAddHint(PLImage* hintFlow, PLImage* hintWeight, float workMaxX, float workMaxY,
                   float x0, float y0, float x1, float y1, float sourceWidth,
                   float sourceHeight) {
  const float sx = workMaxX / sourceWidth;
  const float sy = workMaxY / sourceHeight;
  const float px = x0 * sx;
  const float py = y0 * sy;
  const float tx = x1 * sx;
  const float ty = y1 * sy;
  // A NaN or huge position truncates to the integer-indefinite value and is dropped.
  const int32_t ix = PLTruncToInt32(px + 0.5f);
  const int32_t iy = PLTruncToInt32(py + 0.5f);
  if (ix < 0 || iy < 0 || ix >= hintWeight->width || iy >= hintWeight->height) return;
  float* f = FRow(hintFlow, iy) + 2 * ix;
  float* w = FRow(hintWeight, iy) + ix;
  f[0] = f[0] + (tx - px);
  f[1] = f[1] + (ty - py);
  w[0] = w[0] + 1.0f;
}

PLImage** PLFlowNewPyramid(int32_t levels) {
  PLImage** array =
      static_cast<PLImage**>(NuvMemAlloc(sizeof(PLImage*) * static_cast<uint64_t>(levels)));
  for (int32_t i = 0; i < levels; ++i) array[i] = nullptr;
  return array;
}

void PLFlowDeletePyramid(PLImage**& pyramid, int32_t levels) {
  if (!pyramid) return;
  for (int32_t i = 0; i < levels; ++i) delete pyramid[i];
  NuvMemFree(pyramid);
  pyramid = nullptr;
}
