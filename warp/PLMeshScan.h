// flowblur: the warp folder's private helpers: mesh records, the one triangle scan converter,
// guarded source cells and a buffer from the library's allocator.
#pragma once
#include <xmmintrin.h>

#include <cmath>
#include <cstdint>

#include "image/PLImage.h"
#include "runtime/NuvMem.h"

// A mesh point of the warp: where it lands in the target, where it reads the source, and a
// fifth value that is carried along and never read.
struct MeshVertex {
  float targetX;
  float targetY;
  float sourceX;
  float sourceY;
  float carried;
};

// A mesh point of the flow inversion: where it lands, and the backward vector it carries.
struct InvertVertex {
  float targetX;
  float targetY;
  float u;
  float v;
};

// One edge of a triangle being scan-converted, between its upper and lower end. The two
// source slots carry whatever the vertices carry: a source position for the warp, a vector
// for the inversion. Steps are per row.
struct TriangleEdge {
  float upperX;
  float lowerX;
  float upperY;
  float lowerY;
  float x;
  float sourceX;
  float sourceY;
  float unused0;
  float stepX;
  float stepSourceX;
  float stepSourceY;
  float unused1;
};

// What Warp hands its walkers.
struct MeshWarpJob {
  const PLImage* source;
  PLImage* target;
  uint64_t secondMesh[2];  // cleared by the walkers, read by nothing here
  const PLImage* flow;
  PLImage* counts;  // average rule: 1 channel Float, the hit count in each pixel's lowest byte
  int32_t flowWidth;
  int32_t flowHeight;
  int32_t targetHeight;
  int32_t targetWidth;
  int32_t sourceWidth;
  int32_t sourceHeight;
  int32_t averaging;
  int32_t bilinearSource;
  float roundingAddend;  // 0.5, or 0.0 for a Float source
};

static_assert(sizeof(MeshVertex) == 5 * sizeof(float), "five floats");
static_assert(sizeof(InvertVertex) == 4 * sizeof(float), "four floats");
static_assert(sizeof(TriangleEdge) == 12 * sizeof(float), "twelve floats");

// The two interpolated values of each vertex kind.
inline float ScanValueA(const MeshVertex& v) { return v.sourceX; }
inline float ScanValueB(const MeshVertex& v) { return v.sourceY; }
inline float ScanValueA(const InvertVertex& v) { return v.u; }
inline float ScanValueB(const InvertVertex& v) { return v.v; }

// Narrowest spans drawn, and how far below its row a flat bottom may lie.
constexpr float kScanNarrowestSpan = 1e-8f;
constexpr float kScanNarrowestFlatBottom = 1e-5f;
constexpr float kScanFlatBottomTolerance = 0.01f;

namespace meshscan {

struct Point {
  float x, y, a, b;
};

// One span on `row` between two points of x leftX < rightX carrying (a, b). Start and stop
// are clipped in float first: only values inside 0..maxX reach an integer conversion, and
// a NaN fails the comparison and draws nothing.
template <class Plot>
inline void Span(int32_t row, float leftX, float leftA, float leftB, float rightX, float rightA,
                 float rightB, float maxX, float narrowest, Plot& plot) {
  float start = std::ceil(leftX);
  if (start < 0.0f) start = 0.0f;
  float stop = std::floor(rightX);
  if (stop > maxX) stop = maxX;
  const float width = rightX - leftX;
  if (!(start <= stop && width > narrowest)) return;
  const float inverse = 1.0f / width;
  const float spanA = rightA - leftA;
  const float spanB = rightB - leftB;
  if (start == stop) {
    const float t = (stop - leftX) * inverse;
    plot(static_cast<int32_t>(stop), row, leftA + t * spanA, leftB + t * spanB);
    return;
  }
  const float t = (start - leftX) * inverse;
  float a = leftA + t * spanA;
  float b = leftB + t * spanB;
  const float stepA = spanA * inverse;
  const float stepB = spanB * inverse;
  const int32_t last = static_cast<int32_t>(stop);
  for (int32_t x = static_cast<int32_t>(start); x <= last; ++x) {
    plot(x, row, a, b);
    // Repeated addition, as the walk is defined; not recomputed from x.
    a += stepA;
    b += stepB;
  }
}

}  // namespace meshscan

// Scan-converts one triangle into a target whose last column and row are maxX and maxY,
// calling plot(x, y, a, b) for each covered pixel in row order, left to right, with the
// vertices' two values interpolated. Rows are half-open (a lower end stays out), spans run
// from ceil(left x) to floor(right x), a span of width kScanNarrowestSpan or less draws
// nothing, and two lower corners lying exactly on the last row draw that row as a flat
// bottom. Any float input is safe: NaN and infinite coordinates clip or draw nothing, and
// plot() only ever gets x in 0..maxX and y in 0..maxY (its values may be anything).
//
// Band: only rows bandFirst..bandLast (inclusive) are plotted. The edges are still set up
// and stepped from the triangle's own first row, so every plotted pixel gets exactly the
// bits of a scan over the whole target; a walk split into bands of rows, each band walking
// the mesh in order, writes what one walk writes.
template <class Vertex, class Plot>
inline void ScanTriangle(const Vertex& v0, const Vertex& v1, const Vertex& v2, float maxX,
                         float maxY, Plot& plot, int32_t bandFirst, int32_t bandLast) {
  using meshscan::Point;
  if (v0.targetX < 0.0f && v1.targetX < 0.0f && v2.targetX < 0.0f) return;
  if (v0.targetY < 0.0f && v1.targetY < 0.0f && v2.targetY < 0.0f) return;
  if (v0.targetX > maxX && v1.targetX > maxX && v2.targetX > maxX) return;
  if (v0.targetY > maxY && v1.targetY > maxY && v2.targetY > maxY) return;
  const float first = static_cast<float>(bandFirst);
  const float last = static_cast<float>(bandLast);
  // Wholly above or below the band: no row of it (flat bottom included) is in the band.
  if (v0.targetY < first && v1.targetY < first && v2.targetY < first) return;
  if (v0.targetY > last && v1.targetY > last && v2.targetY > last) return;

  // Stable sort by y: equal rows keep the mesh order of the vertices.
  Point p[3] = {{v0.targetX, v0.targetY, ScanValueA(v0), ScanValueB(v0)},
                {v1.targetX, v1.targetY, ScanValueA(v1), ScanValueB(v1)},
                {v2.targetX, v2.targetY, ScanValueA(v2), ScanValueB(v2)}};
  for (int32_t k = 1; k < 3; ++k)
    for (int32_t m = k; m > 0 && p[m].y < p[m - 1].y; --m) {
      Point swap = p[m];
      p[m] = p[m - 1];
      p[m - 1] = swap;
    }

  float firstRow = std::ceil(p[0].y);
  if (firstRow < 0.0f) firstRow = 0.0f;
  float lastRow = std::floor(p[2].y);
  if (lastRow > maxY) lastRow = maxY;

  TriangleEdge edges[2];
  int32_t live = 0;
  int32_t next = 0;
  for (float y = firstRow; y <= lastRow && y <= last; y += 1.0f) {
    while (next < 3 && p[next].y <= y) {
      // Retire edges whose lower end has been reached; a second edge moves up.
      for (int32_t e = 0; e < live;) {
        if (edges[e].lowerY <= y) {
          if (e == 0 && live == 2) edges[0] = edges[1];
          --live;
        } else {
          ++e;
        }
      }
      // Edges down from this vertex to the later ones that reach below the row. An edge
      // to an earlier vertex has its lower end at or above the row, so never qualifies.
      const Point& upper = p[next];
      for (int32_t m = next + 1; m < 3; ++m) {
        const Point& lower = p[m];
        if (!(upper.y <= y && lower.y > y) || live == 2) continue;
        TriangleEdge& e = edges[live++];
        const float height = lower.y - upper.y;
        const float dx = lower.x - upper.x;
        const float da = lower.a - upper.a;
        const float db = lower.b - upper.b;
        // The four quotients by the edge's height in one vector division: each lane is the
        // correctly rounded scalar quotient, so the bits are those of four divisions.
        alignas(16) float q[4];
        _mm_store_ps(q, _mm_div_ps(_mm_setr_ps(dx, da, db, (y - 1.0f) - upper.y),
                                   _mm_set1_ps(height)));
        const float reach = q[3];  // the edge starts one row above
        e.upperX = upper.x;
        e.lowerX = lower.x;
        e.upperY = upper.y;
        e.lowerY = lower.y;
        e.x = upper.x + reach * dx;
        e.sourceX = upper.a + reach * da;
        e.sourceY = upper.b + reach * db;
        e.unused0 = 0.0f;
        e.stepX = q[0];
        e.stepSourceX = q[1];
        e.stepSourceY = q[2];
        e.unused1 = 0.0f;
      }
      ++next;
    }
    for (int32_t e = 0; e < live; ++e) {
      edges[e].x += edges[e].stepX;
      edges[e].sourceX += edges[e].stepSourceX;
      edges[e].sourceY += edges[e].stepSourceY;
    }
    if (live == 2 && y >= first) {
      const TriangleEdge& l = edges[1].x < edges[0].x ? edges[1] : edges[0];
      const TriangleEdge& r = edges[1].x < edges[0].x ? edges[0] : edges[1];
      meshscan::Span(static_cast<int32_t>(y), l.x, l.sourceX, l.sourceY, r.x, r.sourceX,
                     r.sourceY, maxX, kScanNarrowestSpan, plot);
    }
  }

  // Flat bottom on the last row, which the half-open rows leave out.
  if (p[1].y == maxY && p[2].y == maxY) {
    const bool middleLeft = p[1].x < p[2].x;  // on a tie the later vertex is the left one
    const Point& l = middleLeft ? p[1] : p[2];
    const Point& r = middleLeft ? p[2] : p[1];
    if (l.y >= 0.0f && l.y < maxY + 1.0f) {
      const int32_t row = static_cast<int32_t>(l.y);
      if (l.y - static_cast<float>(row) <= kScanFlatBottomTolerance && row <= maxY &&
          row >= bandFirst && row <= bandLast)
        meshscan::Span(row, l.x, l.a, l.b, r.x, r.a, r.b, maxX, kScanNarrowestFlatBottom, plot);
    }
  }
}

template <class Vertex, class Plot>
inline void ScanTriangle(const Vertex& v0, const Vertex& v1, const Vertex& v2, float maxX,
                         float maxY, Plot& plot) {
  ScanTriangle(v0, v1, v2, maxX, maxY, plot, 0, static_cast<int32_t>(maxY));
}

// The cell of a bilinear read along one axis: index i and fraction t, with the cell slid
// back (i = last - 1, t = 1.0) at or past the last sample. A position at or below -1, or NaN,
// takes the first cell with t = 0; only those bypass the plain truncation, so every position
// the warp can produce from finite input reads as the bare rule does. Needs last >= 1.
inline void ScanCell(float p, int32_t last, int32_t* i, float* t) {
  if (p >= static_cast<float>(last)) {
    *i = last - 1;
    *t = 1.0f;
  } else if (p > -1.0f) {
    *i = static_cast<int32_t>(p);
    *t = p - static_cast<float>(*i);
  } else {
    *i = 0;
    *t = 0.0f;
  }
}

// The index a nearest read takes: the truncated position, held inside 0..last.
inline int32_t ScanNearest(float p, int32_t last) {
  if (p >= static_cast<float>(last)) return last;
  if (p > -1.0f) return static_cast<int32_t>(p);
  return 0;
}

// Whether the pixel memory of two images (from the lowest to the highest stored row) overlaps.
inline bool SharesMemory(const PLImage* a, const PLImage* b) {
  const uintptr_t a0 = reinterpret_cast<uintptr_t>(a->data);
  const uintptr_t b0 = reinterpret_cast<uintptr_t>(b->data);
  const uintptr_t a1 = a0 + static_cast<uintptr_t>(a->rowBytes) * static_cast<uintptr_t>(a->height);
  const uintptr_t b1 = b0 + static_cast<uintptr_t>(b->rowBytes) * static_cast<uintptr_t>(b->height);
  return a0 < b1 && b0 < a1;
}

// Same pixel memory, addressed the same way: each pixel of one is the same pixel of the other.
inline bool SameLayout(const PLImage* a, const PLImage* b) {
  return a->data == b->data && a->rowBytes == b->rowBytes && a->flipped == b->flipped &&
         a->bytesPerPixel == b->bytesPerPixel && a->height == b->height;
}

// A block of T from the library's allocator, released on every way out.
template <class T>
class ScanBuffer {
 public:
  explicit ScanBuffer(int64_t count)
      : data_(static_cast<T*>(NuvMemAlloc(static_cast<uint64_t>(count) * sizeof(T)))) {}
  ~ScanBuffer() { NuvMemFree(data_); }
  ScanBuffer(const ScanBuffer&) = delete;
  ScanBuffer& operator=(const ScanBuffer&) = delete;
  T* get() const { return data_; }
  T& operator[](int64_t k) const { return data_[k]; }

 private:
  T* data_;
};
