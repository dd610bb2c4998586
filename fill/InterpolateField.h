// flowblur: field interpolation, an interlaced frame made whole from one of its fields.
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// Methods, selected once per call.
enum PLFieldMethod : int32_t {
  PLFieldNone = 0,         // the copy of the source stands
  PLFieldReplicate = 1,    // line replication
  PLFieldAverage = 2,      // line average
  PLFieldEdgeThree = 3,    // three-direction edge interpolation with side taps
  PLFieldEdgeFive = 4,     // five-way edge interpolation with wide taps
};

// InterpolateField(dst, src, method, field)
//
// Copies src into dst, then rebuilds the rows of one field of dst from the rows of the
// other, in place. `field` 1: nothing is rebuilt; 2: rows of the parity of lastRow - 1;
// any other value: rows of the parity of lastRow. Rows are logical rows (row order and
// padding are each image's own).
//
// Refusals, all silent:
// - dst and src differing in width, height, channels or bytesPerSample, a null image or
//   one without data: nothing at all is written;
// - src (and so dst) not of exactly 4 channels (R, G, B, matte): nothing is written;
// - method 0, field 1, or a method outside 1..4: dst is the exact copy of src;
// - an image of one row (no neighbour row exists): the copy stands.
// dst may be src (the copy is then skipped).
//
// Rebuilt row y reads the row above (y - 1, or y + 1 at the top) and the row below
// (y + 1, or y - 1 at the bottom); both belong to the kept field.
// - Method 1 copies row y - 1 over row y (field 2, y from lastRow - 1) or row y + 1 over
//   row y (otherwise, y from lastRow - 2), y falling by 2 while y >= 1: row 0 is never
//   written, and with a field other than 2 neither is lastRow. It copies bytes, so it
//   serves any data type.
// - Method 2: each sample is (above + below) * 0.5 in double; UChar and UShort add 0.5 and
//   truncate, Float keeps the product narrowed to float.
// - Methods 3 and 4 choose a direction by d(p, q) = |p0 - q0| + |p1 - q1| + |p2 - q2| in
//   float (the matte does not vote but is interpolated like the colour). Their outputs are
//   sums of samples times the double factors 0.333, 0.334, 0.166, 0.5, 0.1 and 0.3 (kept,
//   not exact thirds). A sum of samples is formed in the samples' own arithmetic (exactly,
//   as integers, for UChar and UShort; in float, left to right as written, for Float);
//   the products and their sum are double; integer types add 0.5 and truncate.
//   Afterwards a serial border pass rebuilds the outer column of each side (method 3) or
//   the outer two (method 4) of every rebuilt row by the line average of method 2.
// - Methods 2 to 4 serve UChar, UShort and Float; any other data type keeps the copy.
//
// Method 3's interior runs to the last column of each worker's range; at the image's last
// column the right-hand neighbours x + 1 would lie one pixel past the end of the row. That
// column is not computed here (no read past the row): the border pass writes it, which is
// what the stored value would have become anyway. On images narrower than the border band
// (width 1 to 3) the border pass rebuilds only the columns that exist.
//
// Parallel over columns: NuvMPThreadsForRows(width) workers, each rebuilding its own
// columns of every rebuilt row from the kept rows only, bottom row first. The result does
// not depend on the number of workers.
void InterpolateField(PLImage* dst, const PLImage* src, int32_t method, int32_t field);
