// flowblur: the mesh warp, which pushes an image along a flow as a mesh of scan-converted triangles.
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// What the warp does: the source's pixel grid is a mesh of triangles. Mesh point (a, b) keeps
// its source position (a, b) and moves to the target position
//   ((gx * u + a) * scale, (gy * v + b) * scale),
// with (u, v) the flow read at (a * fx, b * fy), fx = (flow width - 1) / (source width - 1),
// fy likewise, gx = amount / fx, gy = amount / fy, and scale = (target width - 1) / (source
// width - 1) for x and y alike. Each cell (i, j) gives the triangles (i, j), (i + 1, j),
// (i, j + 1) and then (i + 1, j + 1), (i + 1, j), (i, j + 1), in row order of the cells, and
// each triangle is scan-converted into the target with its source position interpolated for
// a texture lookup. Pixels that move apart leave no holes; pixels that move together overlap.
//
// Coverage: rows and columns are half-open (a pixel centre exactly on a triangle's lower edge
// or right edge belongs to the next triangle), except that the floor of a span's right end is
// drawn, and a triangle whose two lower corners lie exactly on the last row draws that row as
// well. So a zero flow at scale 1 puts every source pixel on itself, last row and last column
// included. A span of width 1e-8 or less draws nothing; so does a triangle whose three
// corners lie beyond one side of the target. Coordinates may be huge, infinite or NaN: the
// rows and spans are clipped to the target in float before any conversion to an integer,
// and a source position that drifts outside the source reads its nearest border pixel.
//
// Flow: 2 channels, Float, u then v, in pixels of the flow's own grid, at least 2 x 2, of
// any size (mapped corner-aligned onto the source; read bilinearly with the cell slid back at
// the last row and column, or read directly when flow and source have the same size).
// Positive amount pushes the picture forward along the flow.
//
// bilinearSource: 0 reads the source at the truncated position (nearest), any other value
// bilinearly (with the cell slid back at the last row and column).
//
// averaging selects the write rule. Pixels that no triangle reaches keep what the target
// held: the destination's own values, or 0 in a temporary (which starts cleared). Spans
// include both ends, so a column where two cells meet is drawn by both: with 4 channels and
// the over rule a matte below white composites such a pixel over itself.
//   0      over, into the destination (or an oversampled temporary of its type).
//          Channels 1 to 3: the triangle drawn last wins (integer types store value + 0.5,
//          truncated; Float stores the value). Channels 4 (colour premultiplied by the matte,
//          matte a, white W of the type): a = W copies all four samples, a = 0 leaves the
//          target, otherwise colour = target * (1 - a / W) + source and matte = target matte
//          + (W - target matte) * (a / W), each + 0.5 and truncated for integer types;
//          Float stores them as computed.
//   1      average, into a cleared Float temporary of the oversampled size (any source
//          type), which is then converted (numeric cast, integer types keep the low bits of
//          the truncated value) into the destination.
//   other  average, into the destination (or an oversampled temporary of its type).
// The average rule keeps a running mean per pixel with a hit count n per pixel: the first
// hit stores the value, hit n + 1 stores (target * n + value) * (1 / (n + 1)); from a count
// of 255 on, each further hit gives (target * 255 + value) / 256 and the count stays. Integer
// targets add 0.5 before truncation, Float targets add 0.0.
// Afterwards every hit pixel is divided by its count as the counts image holds it: the count
// sits in the lowest byte of a Float pixel, so the divisor read is the subnormal float of
// those bits (count x 2^-149), not the count. Deliberately so: a hit sample other than 0
// comes out infinite (Float) or as the low bits of an out-of-range integer, which is 0;
// a sample of 0 stays 0 plus the rounding term (0.5 for integer sources, 0.0 for Float).
//
// oversampling: 1 or less renders at the destination's size. N >= 2 renders at N x the
// width and height and reduces into the destination with PLZoom and the triangle filter of
// support 1.0 (a tent of 2N - 1 target pixels per destination pixel whose weights add up to
// 1, exactly so for N a power of two; no ringing, so nothing is lost to the zoom's clamp).
// The zoom works on UChar pictures only: it clamps every result to 0..255 and reads a Float
// image as 16-bit words, so oversampling is meant for UChar destinations.
//
// background (may be null): afterwards, per pixel and sample in float, with b the
// background and r the result: combine 1 takes r = max(r, b), combine 2 r = min(r, b), other
// values neither; then r = mix * b + (1 - mix) * r + 0.5, stored through the destination's
// per-sample writer (a numeric cast: no clamp; a Float destination keeps the + 0.5 too).
// The background must have the destination's width, height and channels, and be UChar,
// UShort or Float.
//
// Threads: the mesh is walked in bands of target rows on the fork-join workers (at least 16
// rows a band). Each band walks every cell in mesh order and draws only its own rows, with
// the edges stepped from each triangle's own first row, so every pixel receives the writes
// of one ordered walk (the over rule and the running mean depend on that order) and the
// result is the same for any number of workers. The division, the mix and the copies are
// row-parallel too; the zoom runs on the calling thread.
//
// Returns 1 on completion and 0 on refusal. Refusals write nothing:
//   - source and destination not alike in width, height, data type and channels, or the
//     flow not Float: the message "can't warp image, input files not of correct types and
//     sizes\n" on the standard error stream. The same message, as the same refusal, for a
//     null image or one without data, a type other than UChar, UShort or Float, channels
//     outside 1..4, a flow not of 2 channels or smaller than 2 x 2, a source smaller than
//     2 x 2, a background that does not fit (see above), a target whose width or height
//     (times the oversampling) exceeds 8388608 (2^23), past which the float row counter
//     of the scan is no longer exact, and a temporary target or counts image of more than
//     2^31 - 1 bytes, which 32-bit row offsets cannot address, and a destination sharing
//     memory with the source or the flow (workers write it while others read those), or
//     with a background other than the destination itself;
//   - morphPath 1 (a renderer built on a morph object, which this library does not have):
//     0, silently. Every other morphPath value renders as 0 does.
// A temporary that cannot be allocated is thrown as PLErr with the image's errorCode.
int32_t Warp(PLImage* destination, const PLImage* source, const PLImage* flow,
             int32_t bilinearSource, int32_t morphPath, int32_t averaging,
             const PLImage* background, int32_t oversampling, int32_t combine, float mix,
             float amount);
