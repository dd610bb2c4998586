// flowblur: field interpolation: line replication, line average and two edge-directed
// interpolations, parallel over columns, with a serial border pass.
#include "fill/InterpolateField.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "image/PLDispatch.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "runtime/NuvMP.h"

namespace {

constexpr int32_t kChannels = 4;

// Sums of samples are formed in the samples' own arithmetic: exact integers for UChar and
// UShort, float (left to right) for Float.
template <class T>
using FieldAcc = typename std::conditional<std::is_same<T, float>::value, float, int32_t>::type;

template <class T>
struct FieldPixel {
  FieldAcc<T> c[kChannels];
};

// Rows of wrapped images may sit at any address: samples go through PLLoad/PLStore.
template <class T>
inline FieldPixel<T> LoadPixel(const unsigned char* row, int32_t x) {
  const unsigned char* p = row + x * (kChannels * static_cast<int32_t>(sizeof(T)));
  FieldPixel<T> px;
  for (int32_t c = 0; c < kChannels; ++c)
    px.c[c] = static_cast<FieldAcc<T>>(PLLoad<T>(p + c * sizeof(T)));
  return px;
}

// Integer types add 0.5 and truncate; Float keeps the value. The samples are not negative
// and the factors of every formula sum to 1.0 at most (0.999 for the thirds), so an integer
// result lies in the type's range and needs no clamp.
template <class T>
inline void StoreSample(unsigned char* p, double v) {
  if constexpr (std::is_same<T, float>::value)
    PLStore<float>(p, static_cast<float>(v));
  else
    PLStore<T>(p, static_cast<T>(static_cast<int32_t>(v + 0.5)));
}

// d(p, q): colour channels only, in float, left to right.
template <class T>
inline float Distance(const FieldPixel<T>& p, const FieldPixel<T>& q) {
  float d0 = std::fabs(static_cast<float>(p.c[0]) - static_cast<float>(q.c[0]));
  float d1 = std::fabs(static_cast<float>(p.c[1]) - static_cast<float>(q.c[1]));
  float d2 = std::fabs(static_cast<float>(p.c[2]) - static_cast<float>(q.c[2]));
  return d0 + d1 + d2;
}

// The rows rebuilt by methods 2 to 4 and the border pass: from the first rebuilt row
// upward in steps of 2. Height is at least 2 (checked at the entry).
struct RowWalk {
  int32_t first;
  int32_t lastRow;
  RowWalk(const PLImage* image, int32_t field)
      : first(field == 2 ? image->lastRow - 1 : image->lastRow), lastRow(image->lastRow) {}
  int32_t Above(int32_t y) const { return y - 1 < 0 ? y + 1 : y - 1; }
  int32_t Below(int32_t y) const { return y + 1 > lastRow ? y - 1 : y + 1; }
};

// Line average of one pixel, in double.
template <class T>
inline void AveragePixel(unsigned char* out, const unsigned char* above,
                         const unsigned char* below, int32_t x) {
  const int32_t offset = x * (kChannels * static_cast<int32_t>(sizeof(T)));
  for (int32_t c = 0; c < kChannels; ++c) {
    const int32_t at = offset + c * static_cast<int32_t>(sizeof(T));
    double a = static_cast<double>(PLLoad<T>(above + at));
    double b = static_cast<double>(PLLoad<T>(below + at));
    StoreSample<T>(out + at, (a + b) * 0.5);
  }
}

// Method 3 at column x: A is the row above, B the row below.
template <class T>
inline void EdgeThreePixel(unsigned char* out, const unsigned char* aRow,
                           const unsigned char* bRow, int32_t x) {
  const FieldPixel<T> am = LoadPixel<T>(aRow, x - 1), a0 = LoadPixel<T>(aRow, x),
                      ap = LoadPixel<T>(aRow, x + 1);
  const FieldPixel<T> bm = LoadPixel<T>(bRow, x - 1), b0 = LoadPixel<T>(bRow, x),
                      bp = LoadPixel<T>(bRow, x + 1);
  const float v = Distance(a0, b0);
  const float l = Distance(a0, bm);
  const float r = Distance(a0, bp);
  const float p = Distance(am, b0);
  const float q = Distance(ap, b0);
  unsigned char* o = out + x * (kChannels * static_cast<int32_t>(sizeof(T)));
  // kept: strict against v and l, "not above" against the others; the mix decides ties,
  // and a tidier symmetric test would pick other directions on them.
  if (l < v && l < r && !(l > p) && !(l > q)) {
    for (int32_t c = 0; c < kChannels; ++c)
      StoreSample<T>(o + c * sizeof(T), static_cast<double>(b0.c[c] + bm.c[c] + a0.c[c]) * 0.333);
  } else if (r < v && r < l && !(r > p) && !(r > q)) {
    for (int32_t c = 0; c < kChannels; ++c)
      StoreSample<T>(o + c * sizeof(T), static_cast<double>(b0.c[c] + bp.c[c] + a0.c[c]) * 0.333);
  } else if (p < v && p < l && !(p > r) && !(p > q)) {
    for (int32_t c = 0; c < kChannels; ++c)
      StoreSample<T>(o + c * sizeof(T), static_cast<double>(b0.c[c] + bm.c[c] + am.c[c]) * 0.333);
  } else if (q < v && q < l && !(q > r) && !(q > p)) {
    for (int32_t c = 0; c < kChannels; ++c)
      StoreSample<T>(o + c * sizeof(T), static_cast<double>(bp.c[c] + ap.c[c] + b0.c[c]) * 0.333);
  } else {
    const float e = Distance(am, bm);
    const float f = Distance(ap, bp);
    if (e == f) {
      for (int32_t c = 0; c < kChannels; ++c)
        StoreSample<T>(o + c * sizeof(T), static_cast<double>(b0.c[c] + a0.c[c]) * 0.5);
    } else if (std::fabs(e - v) < std::fabs(f - v)) {
      // kept: 0.334 and 0.166, not 1/3 and 1/6; the bits depend on them.
      for (int32_t c = 0; c < kChannels; ++c)
        StoreSample<T>(o + c * sizeof(T),
                       static_cast<double>(b0.c[c] + a0.c[c]) * 0.334 +
                           static_cast<double>(am.c[c] + bm.c[c]) * 0.166);
    } else {
      for (int32_t c = 0; c < kChannels; ++c)
        StoreSample<T>(o + c * sizeof(T),
                       static_cast<double>(b0.c[c] + a0.c[c]) * 0.334 +
                           static_cast<double>(bp.c[c] + ap.c[c]) * 0.166);
    }
  }
}

// Method 4 at column x (2 <= x <= width - 3).
template <class T>
inline void EdgeFivePixel(unsigned char* out, const unsigned char* aRow,
                          const unsigned char* bRow, int32_t x) {
  const FieldPixel<T> am2 = LoadPixel<T>(aRow, x - 2), am1 = LoadPixel<T>(aRow, x - 1),
                      a0 = LoadPixel<T>(aRow, x), ap1 = LoadPixel<T>(aRow, x + 1),
                      ap2 = LoadPixel<T>(aRow, x + 2);
  const FieldPixel<T> bm2 = LoadPixel<T>(bRow, x - 2), bm1 = LoadPixel<T>(bRow, x - 1),
                      b0 = LoadPixel<T>(bRow, x), bp1 = LoadPixel<T>(bRow, x + 1),
                      bp2 = LoadPixel<T>(bRow, x + 2);
  const float m[5] = {Distance(b0, a0), Distance(bm1, a0), Distance(bp1, a0), Distance(b0, am1),
                      Distance(b0, ap1)};
  // kept: index 4 stands first and only a strictly smaller distance wins, so ties keep 4
  // before 0 and 0 before 1, 2, 3.
  int32_t best = 4;
  for (int32_t i = 0; i < 4; ++i)
    if (m[i] < m[best]) best = i;
  unsigned char* o = out + x * (kChannels * static_cast<int32_t>(sizeof(T)));
  for (int32_t c = 0; c < kChannels; ++c) {
    double value;
    switch (best) {
      case 0: value = static_cast<double>(a0.c[c] + b0.c[c]) * 0.5; break;
      case 1:
        value = static_cast<double>(am1.c[c] + bm2.c[c] + b0.c[c] + ap1.c[c]) * 0.1 +
                static_cast<double>(bm1.c[c] + a0.c[c]) * 0.3;
        break;
      case 2:
        value = static_cast<double>(am1.c[c] + bp2.c[c] + b0.c[c] + ap1.c[c]) * 0.1 +
                static_cast<double>(bp1.c[c] + a0.c[c]) * 0.3;
        break;
      case 3:
        value = static_cast<double>(am2.c[c] + bm1.c[c] + bp1.c[c] + a0.c[c]) * 0.1 +
                static_cast<double>(b0.c[c] + am1.c[c]) * 0.3;
        break;
      default:
        value = static_cast<double>(ap2.c[c] + bm1.c[c] + bp1.c[c] + a0.c[c]) * 0.1 +
                static_cast<double>(b0.c[c] + ap1.c[c]) * 0.3;
        break;
    }
    StoreSample<T>(o + c * sizeof(T), value);
  }
}

// Method 1, any data type: whole pixels copied from the kept neighbour, this worker's
// columns only.
void ReplicateColumns(int32_t /*thread*/, uint8_t /*reporter*/, int32_t firstColumn,
                      int32_t lastColumn, NuvMPArgs* args) {
  PLImage* image = args->Next<PLImage*>();
  const int32_t field = *args->Next<const int32_t*>();
  const int32_t offset = firstColumn * image->bytesPerPixel;
  const size_t bytes = static_cast<size_t>(lastColumn - firstColumn + 1) * image->bytesPerPixel;
  const int32_t from = field == 2 ? -1 : 1;
  for (int32_t y = field == 2 ? image->lastRow - 1 : image->lastRow - 2; y >= 1; y -= 2)
    std::memmove(image->Row(y) + offset, image->Row(y + from) + offset, bytes);
}

// Methods 2 to 4 over this worker's columns, bottom rebuilt row first. Method 3 stops one
// column short of the image's last (its right neighbour does not exist; the border pass
// writes that column), method 4 two short of each side.
template <class T, int32_t M>
void FieldColumns(int32_t /*thread*/, uint8_t /*reporter*/, int32_t firstColumn,
                  int32_t lastColumn, NuvMPArgs* args) {
  PLImage* image = args->Next<PLImage*>();
  const int32_t field = *args->Next<const int32_t*>();
  const RowWalk walk(image, field);
  int32_t x0 = firstColumn, x1 = lastColumn;
  if (M == 3) {
    if (x0 < 1) x0 = 1;
    if (x1 > image->lastColumn - 1) x1 = image->lastColumn - 1;
  } else if (M == 4) {
    if (x0 < 2) x0 = 2;
    if (x1 > image->width - 3) x1 = image->width - 3;
  }
  for (int32_t y = walk.first; y >= 0; y -= 2) {
    const unsigned char* above = image->Row(walk.Above(y));
    const unsigned char* below = image->Row(walk.Below(y));
    unsigned char* out = image->Row(y);
    for (int32_t x = x0; x <= x1; ++x) {
      if (M == 2)
        AveragePixel<T>(out, above, below, x);
      else if (M == 3)
        EdgeThreePixel<T>(out, above, below, x);
      else
        EdgeFivePixel<T>(out, above, below, x);
    }
  }
}

// After methods 3 and 4: the outer `band` columns of each side of every rebuilt row get
// the line average, outside in. Columns that do not exist on a narrow image are skipped.
template <class T>
void BorderPass(PLImage* image, int32_t field, int32_t band) {
  const RowWalk walk(image, field);
  for (int32_t y = walk.first; y >= 0; y -= 2) {
    const unsigned char* above = image->Row(walk.Above(y));
    const unsigned char* below = image->Row(walk.Below(y));
    unsigned char* out = image->Row(y);
    for (int32_t i = 0; i < band; ++i) {
      const int32_t left = i, right = image->lastColumn - i;
      if (left <= image->lastColumn) AveragePixel<T>(out, above, below, left);
      if (right >= 0) AveragePixel<T>(out, above, below, right);
    }
  }
}

}  // namespace

void InterpolateField(PLImage* dst, const PLImage* src, int32_t method, int32_t field) {
  if (DifferentLayout(dst, src)) return;
  if (src->channels != kChannels) return;
  CopyRows(dst, src);
  if (dst->channels != kChannels) return;
  if (method == PLFieldNone || field == 1) return;
  if (method < PLFieldReplicate || method > PLFieldEdgeFive) return;
  // One row has no neighbour to rebuild from (the walk would leave the image).
  if (dst->height < 2) return;

  NuvMPWorker worker = nullptr;
  if (method == PLFieldReplicate) {
    worker = ReplicateColumns;
  } else {
    PLDispatchType(dst->dataType, [&](auto tag) {
      using T = typename decltype(tag)::Type;
      worker = method == PLFieldAverage  ? FieldColumns<T, 2>
               : method == PLFieldEdgeThree ? FieldColumns<T, 3>
                                            : FieldColumns<T, 4>;
    });
  }
  if (!worker) return;  // methods 2 to 4 on a type outside the three: the copy stands

  // Columns, not rows: each worker owns a band of columns of every rebuilt row and reads
  // only the kept rows, which nobody writes.
  const int32_t threads = NuvMPThreadsForRows(dst->width);
  NuvMPFork(threads, dst->width, worker, dst, &field);

  if (method == PLFieldEdgeThree || method == PLFieldEdgeFive) {
    const int32_t band = method == PLFieldEdgeThree ? 1 : 2;
    PLDispatchType(dst->dataType, [&](auto tag) {
      using T = typename decltype(tag)::Type;
      BorderPass<T>(dst, field, band);
    });
  }
}
