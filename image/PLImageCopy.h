// flowblur: predicates, copies, clears and fills of whole images and their rectangles.
#pragma once
#include <cstdint>

#include "image/PLImage.h"
#include "runtime/NuvMP.h"
#include "runtime/PLErr.h"

// Every function here addresses each image by its own fields (rowBytes, flipped): row y
// of one image meets row y of the other whatever their row order and padding. Rectangles
// are given as a corner (x, y) and a size (w, h) in pixels. Nothing here allocates and
// nothing reports an error of its own: a mismatch is a silent no-op, and so is a null
// pointer or an image without data (Empty or Failed) in any operation. Typed row walks
// assume that `data` and `rowBytes` are multiples of the sample size, as every allocated
// image and every host buffer is.

// ---- Comparison predicates -------------------------------------------------------------
// Each returns true when the two images do NOT go together, so that a caller gives up on
// true.

// Either pointer null, or height or width differ, or either data null (an Empty image).
bool DifferentSize(const PLImage* a, const PLImage* b);
// DifferentSize, or channels differ.
bool DifferentSizeOrChannels(const PLImage* a, const PLImage* b);
// DifferentSize, or dataType differs.
bool DifferentSizeOrType(const PLImage* a, const PLImage* b);
// The weak test: either null, DifferentSize, channels differ or bytesPerSample differs.
// Two images of different dataType but equal sample width (Float and Long) pass it.
bool DifferentLayout(const PLImage* a, const PLImage* b);
// DifferentSize, or dataType, channels or bytesPerSample differ.
bool DifferentSizeOrFormat(const PLImage* a, const PLImage* b);
// dataType, channels or bytesPerSample differ, or either data null, or whitePoint differs
// (a NaN white point counts as different). Sizes are not compared. Both pointers must be
// valid (not null).
bool DifferentFormat(const PLImage* a, const PLImage* b);

// ---- Copies ------------------------------------------------------------------------------

// Row-parallel over dst's height: each row of dst gets dst->width * dst->bytesPerPixel
// bytes from the same row of src. No check beyond null: src must have at least as many
// rows and bytes per row. dst == src leaves the image as it is.
void CopyWhole(PLImage* dst, const PLImage* src);
// CopyWhole when !DifferentLayout(src, dst); otherwise nothing. Bytes are copied as they
// are, so a Float image and a Long image of one size copy raw.
void CopyRows(PLImage* dst, const PLImage* src);
// Copies between images that may differ in size: CopyRows when the layouts match;
// otherwise centres the smaller in the larger on each axis separately (offset = the
// difference / 2, truncated, on the larger side; 0 on the other; the smaller extent is
// copied) and calls CopyRect. Nothing outside the centred rectangle of dst is written.
// Through CopyRect, images of different dataType are converted in the REVERSE direction,
// dst into src (see CopyRect), which is why src is not const. A null pointer: nothing.
void CopyCentered(PLImage* dst, PLImage* src);
// Copies a w x h rectangle, corners (dstX, dstY) of dst and (srcX, srcY) of src.
// - Equal dataType: the whole of both images (offsets 0, w and h equal to both sizes)
//   goes to CopyWhole, row-parallel. Any other rectangle is copied on the calling thread,
//   w * dst->bytesPerPixel bytes per row: the byte count comes from dst, so images of
//   different channels get a raw copy that shifts the samples.
// - Different dataType: ConvertRect(dst, src, dstX, dstY, srcX, srcY, w, h), row-parallel
//   over h rows. The data then flows FROM the image called dst TO the image called src,
//   each keeping its own offsets: the reverse of the same-type direction. Deliberate.
// A rectangle that does not lie inside both images (each in its own pixels) is refused:
// nothing is clipped, nothing is copied. A same-type copy whose dst-sized rows would read
// past the end of src's memory (src of fewer channels) is refused too.
void CopyRect(PLImage* dst, int32_t dstX, int32_t dstY, PLImage* src, int32_t srcX,
              int32_t srcY, int32_t w, int32_t h);
// As CopyRect, src to dst in every case, but keeping brightness across types: when
// dataType and whitePoint agree (neither NaN) it is step 1 of CopyRect; otherwise,
// row-parallel over h rows, each sample s becomes s * k with k = dst->whitePoint /
// src->whitePoint in single precision; a UChar or UShort dst adds 0.5 and truncates with
// no clamp (a Float sample above 1.0 wraps), a Float dst keeps the product (the 0.5 is
// added in single precision, like the product). Serves pairs among UChar, UShort and
// Float; any other dataType, or a different channel count on the two sides: nothing.
void CopyRectScaled(PLImage* dst, int32_t dstX, int32_t dstY, const PLImage* src, int32_t srcX,
                    int32_t srcY, int32_t w, int32_t h);
// Matching layouts with equal white points: as CopyCentered (CopyRows). Matching layouts
// with different white points: CopyRectScaled of the whole image. Otherwise the offsets
// and sizes of CopyCentered, then CopyRectScaled. A null pointer: nothing.
void CopyCenteredScaled(PLImage* dst, const PLImage* src);
// Converts a w x rows rectangle sample by sample FROM `from` TO `to`: row i runs from
// pixel (fromX, fromY + i) of `from` and (toX, toY + i) of `to`. Numeric casts with no
// scaling (UShort to UChar keeps the low 8 bits, Float to UChar/UShort truncates toward
// zero to 32 bits and keeps the low bits: -1.0 gives 255, 256.0 gives 0, NaN gives 0).
// Row-parallel over `rows`. Only UChar, UShort and Float on both sides; any other type:
// nothing. Both pointers advance by from->channels samples a pixel, so both images must
// have the same channel count: a different count is refused (nothing).
void ConvertRect(const PLImage* from, PLImage* to, int32_t fromX, int32_t fromY, int32_t toX,
                 int32_t toY, int32_t w, int32_t rows);

// ---- Clear and fill ----------------------------------------------------------------------

// Null image or width below 1: nothing. Otherwise row-parallel: each row gets
// width * bytesPerPixel zero bytes; the padding of a wrapped image is not touched.
void Clear(PLImage* image);
// Sets every pixel to one colour, on the calling thread. r, g, b, a are in 0 to 1 and are
// used as far as the image has channels (1: r; 2: r, g; 3: r, g, b; 4: all); any other
// channel count: nothing. Stored value per channel, computed once:
//   UChar  (uint8)  trunc(v * 255.0 + 0.5) in double
//   UShort (uint16) trunc(v * 65535.0 + 0.499) in double (0.499, not 0.5: deliberate)
//   Float           v * whitePoint in single precision
// Other types: nothing. Out-of-range values wrap to the low bits without UB.
void FillColor(PLImage* image, float r, float g, float b, float a);

// ---- Fork helper -------------------------------------------------------------------------

// Row-parallel run of `worker` over rows 0 .. rows-1 through the fork-join on `threads`
// workers. Rows below 1: nothing. A PLErr from the fork is thrown again when its value is
// not 0; a PLErr of value 0 ends the operation silently.
template <class... A>
void PLForkImageRowsOn(int32_t threads, int32_t rows, NuvMPWorker worker, A... args) {
  if (rows < 1) return;
  try {
    NuvMPFork(threads, rows, worker, args...);
  } catch (PLErr& err) {
    if (err != PLErrNone) {
      PLErr value = err;
      throw value;
    }
  }
}

// The same with the thread count of NuvMPThreadsForRows(rows); the form above is for workers that
// need per-worker storage made before the fork.
template <class... A>
void PLForkImageRows(int32_t rows, NuvMPWorker worker, A... args) {
  PLForkImageRowsOn(NuvMPThreadsForRows(rows), rows, worker, args...);
}
