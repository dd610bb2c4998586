// flowblur: flow arithmetic, two flow fields joined into one (chained or added).
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// Flows are in the delivered sign: the content of first(x, y) is found at
// second(x + u, y + v). A flow is a 2-channel Float image (u, v in pixels), or, where
// stated, a 2-channel UShort image of 16-bit codes (PLImage::SetFlow / GetFlow, with range
// the larger of f's width and height).
//
// All three change f in place and return nothing. A refusal prints
// "can't add two flows together\n" to stderr and changes nothing. For the two chains, f
// and g must be distinct images whose pixel memory does not overlap (workers read g
// anywhere while others write f): an overlap is refused too.

// ChainFlows(f, g): f becomes the motion across two steps, f then g. Both 2-channel, both
// Float or both UShort, each at least 2 x 2 (the grid ratio and the bilinear cell need two
// samples an axis); anything else is refused. Row-parallel over f.
// - Float: kx = g lastColumn / f lastColumn, ky likewise with lastRow (float). For each
//   pixel, tx = x + u, ty = y + v; when 0 <= tx < w and 0 <= ty < h (w, h of f; a NaN
//   fails) g is read bilinearly at (tx * kx, ty * ky) giving (a, b), and u += a * (1 / kx),
//   v += b * (1 / ky). Otherwise the pixel is unchanged.
// - UShort: the same target test with the decoded vector of f; inside, (a, b) is g's
//   GetFlow at (tx, ty), with no size ratio, and u += a, v += b. The pixel is coded back
//   with SetFlow in every case (so a code that does not survive decode/encode changes even
//   when the target is outside).
void ChainFlows(PLImage* f, const PLImage* g);

// ChainFlowsClamped(f, g): as the Float ChainFlows, but the target is pulled back and the
// addition always happens. Both 2-channel Float, each at least 2 x 2, else refused.
//   y1 = max(y + v, 0)                 (no upper clamp: the bilinear cell slides)
//   x1 = min(max(x + u, 0), w)
//   if y1 >= h: x1 = h                 (kept: the height, not the width, in x)
//   (a, b) = g bilinear at (x1 * kx, y1 * ky); u += (1 / kx) * a, v += b * (1 / ky).
// max and min take a NaN coordinate as the other operand (as fmaxf/fminf), so a NaN u or
// v reads column or row 0. A read position beyond g (y1 infinite, or x1 = h past g's grid)
// takes g's last column or row, as the sliding cell gives it.
void ChainFlowsClamped(PLImage* f, const PLImage* g);

// AddFlows(f, g): pixelwise sum on the calling thread. f and g of equal width and height
// and more than 1 channel each; channels 0 and 1 are added. The type test is lopsided,
// kept as it stands:
// - g UShort and f UShort: refused;
// - g UShort, f of another type: the 16-bit branch, which reads and writes f as 16-bit
//   codes all the same;
// - g of any other type: the Float branch, both read as Float.
// Each branch walks both images as packed samples of its width (2 or 4 bytes) from the
// start of each row, stepping `channels` samples a pixel. An image whose own samples are
// narrower than that (a UChar f in the 16-bit branch; a UChar or UShort image in the Float
// branch) would be walked past its row ends and is refused.
// - Float: f = f + g in float.
// - 16-bit: with range = max(f width, f height) in float, per channel, from the codes cf,
//   cg: s = ((((cg - 32767) / 32767) * range + ((cf - 32767) / 32767) * range) * 32767)
//   / range in float, clamped to [-32767, 32767]; the new code is trunc(s + 32767 + 0.5).
void AddFlows(PLImage* f, const PLImage* g);
