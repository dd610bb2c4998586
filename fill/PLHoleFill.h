// flowblur: hole fills: blacking out, small-hole diffusion and nearest-known-pixel fills.
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// Rules for these fills:
// - A mask is a 1-channel PLImage of the image's size. A non-zero mask sample (a Float NaN
//   included) marks a hole; a zero sample (-0.0 included) marks a known pixel.
// - Image and mask are each addressed by their own `flipped` and `rowBytes`; rows may sit at
//   any address.
// - The nearest-site map is a 2-channel UShort PLImage of the image's size: per pixel the x
//   and y of the nearest known pixel, in plain pixel coordinates (independent of
//   `flipped`). A known pixel holds its own coordinates; 65535, 65535 means "no site".
//   So a map addresses at most 65535 columns and rows: every entry point that builds or
//   reads a map throws PLErrParameter (5) for a wider or taller image, before it reads or
//   writes a pixel or allocates anything.

// Largest width or height that a nearest-site map can address.
constexpr int32_t kPLNearestSiteMaxSide = 65535;
// The "no site reached" coordinate.
constexpr uint16_t kPLNoSite = 65535;

// Noise source of the jittered Voronoi fill: two float arrays of `count` entries each.
// Who fills them is up to the caller. A record with a null array or a count of 0 counts as
// no noise.
struct PLHoleFillNoise {
  const float* first = nullptr;   // scales the x displacement (times the distance in x)
  const float* second = nullptr;  // the y displacement itself
  uint32_t count = 0;
};

// Sets every sample of each hole pixel to 0. `mask` must be 1-channel UChar of the image's
// size, otherwise prints "input problem in PLFillHolesWithBlack\n" to stderr and returns
// with `image` unchanged. `image` is UChar, UShort or Float of any channel count (another
// type: nothing). A null pointer: nothing.
void PLFillHolesWithBlack(PLImage* image, const PLImage* mask);

// Diffuses known values into the holes, in place, `iterations` sweeps, on the calling thread.
// `image` and `mask` may each be UChar, UShort or Float (all nine pairs); `image` may have any
// channel count. A sweep writes at once, so values written early feed later ones; it visits
// holes in this order, row by row, left to right:
//   interior (rows 1..lastRow-1, columns 1..lastColumn-1)   (L + R + U + D) * 0.25
//   left column (rows 1..lastRow-1)                          (R + U + D) * 1/3
//   right column (rows 1..lastRow-1)                         (L + U + D) * 1/3
//   top row (columns 1..lastColumn-1)                        (L + R + D) * 1/3
//   bottom row (columns 1..lastColumn-1)                     (2 * U + R) * 1/3
//   corners: top left, bottom left, top right, bottom right  (sum of in-image neighbours) * 0.25
// Integer images: integer sum, times 0.25 or 0.33333333 in double, plus 0.5, truncated.
// Float images: single precision with 0.25f and 0.33333334f, no rounding term.
// Kept as the system does it: in the bottom row the upper row is read two samples further per
// channel (channel c of pixel x reads sample 2c of the upper row from pixel x on), and a
// corner's two neighbours are scaled by 0.25, so a corner hole darkens sweep by sweep.
// The column passes need a second column and the row passes a second row: a 1-pixel-wide
// image runs only the corners (whose one in-image neighbour is then the whole sum), and a
// 1-pixel-high one likewise; a 1x1 hole becomes 0.
// Widths or heights that differ, or a mask of other than 1 channel: every row of `image` is
// zeroed (width * bytesPerPixel bytes), "input problem in PLSmallHoleFill\n" goes to stderr,
// and it returns. Then, `iterations` not above 0: nothing. Another type: nothing. Null: nothing.
void PLSmallHoleFill(PLImage* image, const PLImage* mask, int32_t iterations);

// Gives each hole the value (all channels) of the nearest known pixel, by NearestSiteMap and
// ApplyNearestSites over two scratch maps allocated here (throwing: an allocation failure
// leaves as PLErrOutOfMemory with `image` untouched). Sizes that differ or a mask of other
// than 1 channel: prints "input problem in PLVoronoiFill\n" and returns, image unchanged. A
// mask of another type than UChar, UShort, Float: returns quietly. With no known pixel the
// image stays as it is. Wider or taller than 65535: PLErrParameter. Null: nothing.
void PLVoronoiFill(PLImage* image, const PLImage* mask);

// The same, with each hole's site displaced by noise before it is applied. Per hole (x, y)
// with site (sx, sy) and i = x + x * y (reduced modulo noise->count only when it exceeds it):
//   n = amount * first[i] * (sx - x); new x = x + (sx - x) + n; if outside 0..lastColumn,
//   sx + n / 2; if still outside, sx. m = amount * second[i]; new y = sy + m; then sy + m / 2;
//   then sy. Both truncated to 16 bits. Known pixels keep their sites. A site beyond the
//   image (no site reached) first becomes the pixel's own coordinates; a hole then still
//   moves in y by the rule above (dx is 0, so not in x), and otherwise keeps its value.
// Choices where the rule leaves no value: the single index i == count (not reduced, one past
// the arrays) reads a noise of 0; a NaN position counts as outside.
// A displaced site may be a hole: the sites are applied in raster order on the calling
// thread, so such a hole gives whatever it holds at that moment (filled if already visited).
// amount == 0, a null `noise`, a null array or a count of 0: exactly PLVoronoiFill above.
void PLVoronoiFill(PLImage* image, const PLImage* mask, const PLHoleFillNoise* noise,
                   float amount);

// Builds `map` for `mask` (UChar, UShort or Float, 1 channel, any layout) with `scratch` as
// work image: four sequential diagonal sweeps (down/right, down/left, up/left, up/right), each
// carrying sites from the pixel visited just before in the row, the one in the row visited
// before, and the diagonal one, in that order; a later neighbour wins only when strictly
// nearer (squared distance in single precision). The first sweep is copied into `map`, each
// later one merged by MergeNearest. `map` and `scratch` must be 2-channel UShort of the
// mask's size, distinct, else PLErrParameter (5); so must a mask wider or taller than 65535.
// A mask of another type or channel count: nothing. No known pixel: all 65535, 65535.
void NearestSiteMap(const PLImage* mask, PLImage* map, PLImage* scratch);

// For each pixel in raster order, on the calling thread: with (sx, sy) from `map`, if that
// differs from the pixel's own position and sx <= lastColumn and sy <= lastRow, copies the
// pixel at (sx, sy) of `image` over it, all channels (any type and channel count, as bytes).
// `map` must be 2-channel UShort of the image's size, else PLErrParameter; so must an image
// wider or taller than 65535.
void ApplyNearestSites(PLImage* image, const PLImage* map);

// Row-parallel: where the site in `candidate` is strictly nearer to the pixel than the site
// in `best` (squared distances in single precision, 65535 measured like any other value),
// `best` takes it; equal distance keeps `best`. Both 2-channel UShort of one size, else
// PLErrParameter. Output identical for any worker count.
void MergeNearest(PLImage* best, const PLImage* candidate);
