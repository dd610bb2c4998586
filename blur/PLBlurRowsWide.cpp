// flowblur: the renderer's wide row loop, eight pixels of a row side by side in AVX2 lanes.
#include <immintrin.h>

#include <cstring>
#include <type_traits>

#include "blur/PLBlurWide.h"
#include "image/PLPixelConvert.h"
#include "runtime/PLWideLanes.h"
#include "runtime/PLWidePath.h"

// The renderer follows the library's one choice.
bool PLBlurWideAvailable() { return PLWideAvailable(); }

PLBlurPath PLBlurChosenPath() { return PLWideChosen() ? PLBlurPath::kWide : PLBlurPath::kPlain; }

#if !defined(FLOWBLUR_PLAIN_ONLY)

#include "runtime/PLWideBegin.h"

namespace {

using namespace plwide;

// A view's addressing as byte offsets from its lowest address, so that every offset of a
// sample inside it is at least 0 and at most `lastWord` + 3 (the bounds checks have
// already made each offset fit in 32 bits).
struct WideView {
  const unsigned char* base;
  int32_t row0;       // offset of row 0
  int32_t step;       // row y + 1 minus row y
  int32_t below;      // the view's rowStep: the row under a bilinear cell
  int32_t lastWord;   // offset of the view's last four bytes
  int32_t lastColumn;
  int32_t lastRow;
  int32_t width;
  int32_t height;

  explicit WideView(const NuvImage* v)
      : base(v->data),
        row0(v->rowOrder == 1 ? 0 : v->lastRow * v->rowBytes),
        step(v->rowOrder == 1 ? v->rowBytes : -v->rowBytes),
        below(v->rowStep),
        lastWord(v->lastRow * v->rowBytes + v->width * v->bytesPerPixel - 4),
        lastColumn(v->lastColumn),
        lastRow(v->lastRow),
        width(v->width),
        height(v->height) {}
};

// Four bytes at each lane's offset, the last word shifted down near the view's end.
inline I8 GatherWord(const WideView& s, I8 off) { return WordAt(s.base, s.lastWord, off); }
// Four bytes that lie inside the pixel itself.
inline I8 GatherInside(const WideView& s, I8 off) {
  return _mm256_i32gather_epi32(reinterpret_cast<const int*>(s.base), off, 1);
}

// The sample of T whose first byte is byte `at` of each lane's word, as a float: one byte
// shuffle (the lane's other bytes zero) and a conversion.
template <class T>
inline F8 SampleAt(I8 word, int32_t at) {
  const int32_t high = sizeof(T) == 2 ? at + 1 : 0x80;
  const I8 byDword = _mm256_setr_epi32(0, 0x04040404, 0x08080808, 0x0c0c0c0c, 0, 0x04040404,
                                       0x08080808, 0x0c0c0c0c);
  // Byte indices count within each 128-bit half; 0x80 and above give zero.
  const I8 mask = _mm256_add_epi8(SetI(at | high << 8 | 0x80800000), byDword);
  return _mm256_cvtepi32_ps(_mm256_shuffle_epi8(word, mask));
}

// The C samples of the pixel at each lane's offset, as floats, channel c in out[c]. With
// kRightFollows the pixel has a right neighbour in its row, so that a word read from it
// that runs into the next pixel stays inside the view (the left pixels of a bilinear cell).
template <class T, int32_t C, bool kRightFollows = false>
inline void LoadPixels(const WideView& s, I8 off, F8* out) {
  constexpr int32_t kPixelBytes = C * static_cast<int32_t>(sizeof(T));
  if constexpr (std::is_same<T, float>::value) {
#pragma GCC unroll 4
    for (int32_t c = 0; c < C; ++c)
      out[c] = AsF(GatherInside(s, _mm256_add_epi32(off, SetI(4 * c))));
  } else if constexpr (sizeof(T) == 1) {
    const I8 word = C == 4 || (kRightFollows && 2 * kPixelBytes >= 4) ? GatherInside(s, off)
                                                                       : GatherWord(s, off);
#pragma GCC unroll 4
    for (int32_t c = 0; c < C; ++c) out[c] = SampleAt<T>(word, c);
  } else {
    const I8 low = C == 1 && !kRightFollows ? GatherWord(s, off) : GatherInside(s, off);
    out[0] = SampleAt<T>(low, 0);
    if constexpr (C >= 2) out[1] = SampleAt<T>(low, 2);
    if constexpr (C >= 3) {
      const I8 off2 = _mm256_add_epi32(off, SetI(4));
      const I8 high = C == 3 && !kRightFollows ? GatherWord(s, off2) : GatherInside(s, off2);
      out[2] = SampleAt<T>(high, 0);
      if constexpr (C == 4) out[3] = SampleAt<T>(high, 2);
    }
  }
}

// Where the samples of a bilinear cell's left pixel and its right neighbour lie in the
// words read for the pair (integer pixels of at most 8 bytes): sample c of pixel p (0 left,
// 1 right) is byte Byte(p, c) of the word that starts Word(p, c) bytes after the left pixel.
// Every word lies inside the pair: a word that would run past it starts earlier instead.
template <class T, int32_t C>
struct PairLayout {
  static constexpr int32_t kSize = static_cast<int32_t>(sizeof(T));
  static constexpr int32_t kPair = 2 * C * kSize;
  static constexpr int32_t Word(int32_t p, int32_t c) {
    const int32_t at = p * C * kSize + c * kSize;
    return at - at % 4 + 4 > kPair ? kPair - 4 : at - at % 4;
  }
  static constexpr int32_t Byte(int32_t p, int32_t c) {
    return p * C * kSize + c * kSize - Word(p, c);
  }
  static constexpr bool Read(int32_t w) {
    for (int32_t p = 0; p < 2; ++p)
      for (int32_t c = 0; c < C; ++c)
        if (Word(p, c) == w) return true;
    return false;
  }
};

// A bilinear cell's left pixel at each lane's offset and its right neighbour, the values
// LoadPixels gives for each, from the fewest gathers: the words that hold the pair's bytes
// (one for pairs of up to four bytes, where two loads took two, and no clamping near the
// view's end). The walk is bound by its operations, and a gather is the costliest of them.
template <class T, int32_t C>
inline void LoadPair(const WideView& s, I8 off, F8* left, F8* right) {
  constexpr int32_t kPixelBytes = C * static_cast<int32_t>(sizeof(T));
  if constexpr (std::is_same<T, float>::value) {
    LoadPixels<T, C, true>(s, off, left);
    LoadPixels<T, C>(s, _mm256_add_epi32(off, SetI(kPixelBytes)), right);
  } else if constexpr (kPixelBytes == 1) {
    // The pair is two bytes: the word is read where GatherWord reads it, the pair at its
    // low end.
    const I8 word = GatherWord(s, off);
    left[0] = SampleAt<T>(word, 0);
    right[0] = SampleAt<T>(word, 1);
  } else {
    using L = PairLayout<T, C>;
    I8 words[L::kPair - 3];
#pragma GCC unroll 8
    for (int32_t w = 0; w + 4 <= L::kPair; ++w)
      if (L::Read(w)) words[w] = GatherInside(s, _mm256_add_epi32(off, SetI(w)));
#pragma GCC unroll 4
    for (int32_t c = 0; c < C; ++c) {
      left[c] = SampleAt<T>(words[L::Word(0, c)], L::Byte(0, c));
      right[c] = SampleAt<T>(words[L::Word(1, c)], L::Byte(1, c));
    }
  }
}


// acc + value in the lanes of `take`, acc elsewhere. Integer samples and their bilinear
// mixes are never negative, never -0 and never NaN, and neither is a sum of them from +0, so
// there adding +0 in the other lanes keeps acc's bits: a mask instead of a blend. Float
// samples may be anything, and blend.
template <class T>
inline F8 Accumulate(F8 acc, F8 value, I8 take) {
  if constexpr (std::is_same<T, float>::value)
    return Blend(acc, _mm256_add_ps(acc, value), AsF(take));
  else
    return _mm256_add_ps(acc, _mm256_and_ps(value, AsF(take)));
}

// One direction of the walk for eight pixels: lane l takes count[l] samples from
// (px[l], py[l]) stepping by (dx[l], dy[l]), while `live`; exactly the plain walk by lane.
// Inlined, so that the sums stay in registers between steps.
template <class T, int32_t C, bool CountOutside, bool Bilinear>
__attribute__((always_inline)) inline void WalkWide(const WideView& s, F8 px, F8 py, F8 dx,
                                                    F8 dy, I8 count, I8 live, F8* acc,
                                                    I8* counter) {
  constexpr int32_t kPixelBytes = C * static_cast<int32_t>(sizeof(T));
  const F8 zero = _mm256_setzero_ps();
  const F8 w = Set(static_cast<float>(s.width));
  const F8 h = Set(static_cast<float>(s.height));
  live = _mm256_and_si256(live, _mm256_cmpgt_epi32(count, _mm256_setzero_si256()));
  for (int32_t i = 1; Any(live); ++i) {
    I8 take;
    if constexpr (Bilinear) {
      const F8 inside = _mm256_and_ps(
          _mm256_and_ps(_mm256_cmp_ps(zero, px, _CMP_LE_OQ), _mm256_cmp_ps(px, w, _CMP_LT_OQ)),
          _mm256_and_ps(_mm256_cmp_ps(zero, py, _CMP_LE_OQ), _mm256_cmp_ps(py, h, _CMP_LT_OQ)));
      take = _mm256_and_si256(live, AsI(inside));
      if (Any(take)) {
        I8 ix, iy;
        F8 tx, ty;
        CellOf(px, s.lastColumn, &ix, &tx);
        CellOf(py, s.lastRow, &iy, &ty);
        const I8 up = _mm256_add_epi32(
            _mm256_add_epi32(SetI(s.row0), _mm256_mullo_epi32(iy, SetI(s.step))),
            _mm256_mullo_epi32(ix, SetI(kPixelBytes)));
        const I8 low = _mm256_add_epi32(up, SetI(s.below));
        // Lanes not sampled read offset 0: inside the view whatever their position was.
        F8 p[C], right[C], lower[C], lowerRight[C];
        // Lanes not taken read offset 0, the first pixel, which has a right neighbour too
        // (the cell needs two columns).
        LoadPair<T, C>(s, _mm256_and_si256(up, take), p, right);
        LoadPair<T, C>(s, _mm256_and_si256(low, take), lower, lowerRight);
#pragma GCC unroll 4
        for (int32_t c = 0; c < C; ++c) {
          const F8 a = _mm256_add_ps(_mm256_mul_ps(tx, _mm256_sub_ps(right[c], p[c])), p[c]);
          const F8 b = _mm256_add_ps(_mm256_mul_ps(tx, _mm256_sub_ps(lowerRight[c], lower[c])),
                                     lower[c]);
          const F8 mix = _mm256_add_ps(_mm256_mul_ps(ty, _mm256_sub_ps(b, a)), a);
          acc[c] = Accumulate<T>(acc[c], mix, take);
        }
      }
    } else {
      // Truncation, not floor, as in the plain loop; out of range or NaN gives the
      // indefinite integer, which fails the tests below.
      const I8 ix = _mm256_cvttps_epi32(px);
      const I8 iy = _mm256_cvttps_epi32(py);
      const I8 minusOne = SetI(-1);
      const I8 inside = _mm256_and_si256(
          _mm256_and_si256(_mm256_cmpgt_epi32(ix, minusOne), _mm256_cmpgt_epi32(SetI(s.width), ix)),
          _mm256_and_si256(_mm256_cmpgt_epi32(iy, minusOne), _mm256_cmpgt_epi32(SetI(s.height), iy)));
      take = _mm256_and_si256(live, inside);
      if (Any(take)) {
        const I8 at = _mm256_add_epi32(
            _mm256_add_epi32(SetI(s.row0), _mm256_mullo_epi32(iy, SetI(s.step))),
            _mm256_mullo_epi32(ix, SetI(kPixelBytes)));
        F8 sample[C];
        LoadPixels<T, C>(s, _mm256_and_si256(at, take), sample);
#pragma GCC unroll 4
        for (int32_t c = 0; c < C; ++c) acc[c] = Accumulate<T>(acc[c], sample[c], take);
      }
    }
    // A mask lane is -1: subtracting it counts one.
    if constexpr (CountOutside) {
      *counter = _mm256_sub_epi32(*counter, live);  // outside acts as black: it counts
    } else {
      *counter = _mm256_sub_epi32(*counter, take);
      live = take;  // a lane that met the outside ends its walk
    }
    px = _mm256_add_ps(px, dx);
    py = _mm256_add_ps(py, dy);
    live = _mm256_and_si256(live, _mm256_cmpgt_epi32(count, SetI(i)));
  }
}

// The plain loop's static_cast<float> of an unsigned 32-bit count: both halves are exact
// in float, so their one rounded sum is the correctly rounded value.
inline F8 UnsignedToFloat(I8 v) {
  const F8 high = _mm256_cvtepi32_ps(_mm256_srli_epi32(v, 16));
  const F8 low = _mm256_cvtepi32_ps(_mm256_and_si256(v, SetI(0xffff)));
  return _mm256_add_ps(_mm256_mul_ps(high, Set(65536.0f)), low);
}

// The integer finish by lane: (float)(int)(x + 0.5), clamped to the type's range, low end
// first, as a whole number.
template <class T>
inline I8 FinishInteger(F8 average) {
  constexpr float kHigh = sizeof(T) == 1 ? 255.0f : 65535.0f;
  F8 rounded = _mm256_cvtepi32_ps(_mm256_cvttps_epi32(_mm256_add_ps(average, Set(0.5f))));
  rounded = _mm256_max_ps(rounded, _mm256_setzero_ps());
  rounded = _mm256_min_ps(rounded, Set(kHigh));
  return _mm256_cvttps_epi32(rounded);
}

// Byte shuffles that interleave eight pixels of C integer samples: block k (16 bytes of the
// 8 C sizeof(T) output bytes) is the OR over c of channel c's samples shuffled by
// mask[k][c] (0x80 where the byte belongs to another channel).
template <class T, int32_t C>
struct InterleaveMasks {
  static constexpr int32_t kBytes = 8 * C * static_cast<int32_t>(sizeof(T));
  static constexpr int32_t kBlocks = (kBytes + 15) / 16;
  __m128i mask[kBlocks][C];
  InterleaveMasks() {
    constexpr int32_t size = static_cast<int32_t>(sizeof(T));
    for (int32_t k = 0; k < kBlocks; ++k) {
      for (int32_t c = 0; c < C; ++c) {
        alignas(16) uint8_t m[16];
        for (int32_t j = 0; j < 16; ++j) {
          const int32_t g = 16 * k + j;
          const int32_t sample = g / size;
          m[j] = g < kBytes && sample % C == c
                     ? static_cast<uint8_t>((sample / C) * size + g % size)
                     : uint8_t{0x80};
        }
        mask[k][c] = _mm_load_si128(reinterpret_cast<const __m128i*>(m));
      }
    }
  }
};

// Eight finished pixels (channel c of pixel l in lane l of q[c], in the type's range) stored
// interleaved at d: the bytes the per-sample stores would write.
template <class T, int32_t C>
inline void StoreInterleaved(unsigned char* d, const I8* q, const InterleaveMasks<T, C>& m) {
  __m128i plane[C];  // channel c's eight samples, packed, from byte 0
#pragma GCC unroll 4
  for (int32_t c = 0; c < C; ++c) {
    // In range already: the unsigned packs change no value.
    const I8 words = _mm256_permute4x64_epi64(_mm256_packus_epi32(q[c], q[c]), 0xD8);
    plane[c] = _mm256_castsi256_si128(words);
    if constexpr (sizeof(T) == 1) plane[c] = _mm_packus_epi16(plane[c], plane[c]);
  }
  for (int32_t k = 0; k < InterleaveMasks<T, C>::kBlocks; ++k) {
    __m128i block = _mm_shuffle_epi8(plane[0], m.mask[k][0]);
#pragma GCC unroll 4
    for (int32_t c = 1; c < C; ++c)
      block = _mm_or_si128(block, _mm_shuffle_epi8(plane[c], m.mask[k][c]));
    if (16 * (k + 1) <= InterleaveMasks<T, C>::kBytes)
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16 * k), block);
    else
      _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 16 * k), block);  // the last 8 bytes
  }
}

// The flow's rows mixed across: for every column x of a chunk, the first half of the flow's
// bilinear lookup on one flow row, a = tx * (right - left) + left for u and for v, with the
// column's cell. Both flow rows of a source row's cell are such a mix, and the next source rows
// share them (the flow is smaller than the source), so each flow row is mixed once per chunk
// rather than twice for every source row that reads it. Two slots, one per row of the cell,
// known by the row's address. On the stack (32 KiB), so that the renderer allocates nothing on
// the host's threads.
class FlowRowMixes {
 public:
  static constexpr int32_t kColumns = 2048;

  // Columns x0..x1, at most kColumns of them (none when x1 < x0).
  FlowRowMixes(const WideView& f, int32_t x0, int32_t x1, float sx)
      : f_(f), x0_(x0), sx_(sx), groups_(x1 >= x0 ? (x1 - x0) / 8 + 1 : 0) {}
  FlowRowMixes(const FlowRowMixes&) = delete;
  FlowRowMixes& operator=(const FlowRowMixes&) = delete;

  // The mixes of the cell's upper and lower rows for a source row, in u then v planes.
  void Rows(const unsigned char* up, const unsigned char* low, const float** upMix,
            const float** lowMix) {
    const int32_t upSlot = Slot(up, -1);
    const int32_t lowSlot = Slot(low, upSlot);
    *upMix = Plane(upSlot);
    *lowMix = Plane(lowSlot);
  }
  // Offset of the v plane from the u plane of a slot.
  static constexpr int32_t VPlane() { return kColumns; }

 private:
  float* Plane(int32_t slot) { return block_ + slot * 2 * kColumns; }

  // The slot that holds `row`, mixed now if neither does, in a slot other than `keep`.
  int32_t Slot(const unsigned char* row, int32_t keep) {
    for (int32_t k = 0; k < 2; ++k)
      if (key_[k] == row) return k;
    const int32_t slot = keep == 0 ? 1 : 0;
    key_[slot] = row;
    Mix(reinterpret_cast<const float*>(row), Plane(slot));
    return slot;
  }

  // As the lookup of every group of eight columns in BlurRowsWidePath: lanes past x1 slide to
  // the last cell and read inside the flow.
  void Mix(const float* row, float* u) const {
    float* v = u + VPlane();
    const F8 iotaF = _mm256_cvtepi32_ps(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    for (int32_t g = 0; g < groups_; ++g) {
      const F8 x = _mm256_add_ps(Set(static_cast<float>(x0_ + 8 * g)), iotaF);
      I8 ix;
      F8 tx;
      CellOf(_mm256_mul_ps(Set(sx_), x), f_.lastColumn, &ix, &tx);
      const I8 at = _mm256_slli_epi32(ix, 1);
      const F8 ul = _mm256_i32gather_ps(row, at, 4);
      const F8 ur = _mm256_i32gather_ps(row, _mm256_add_epi32(at, SetI(2)), 4);
      _mm256_storeu_ps(u + 8 * g, _mm256_add_ps(_mm256_mul_ps(tx, _mm256_sub_ps(ur, ul)), ul));
      const F8 vl = _mm256_i32gather_ps(row, _mm256_add_epi32(at, SetI(1)), 4);
      const F8 vr = _mm256_i32gather_ps(row, _mm256_add_epi32(at, SetI(3)), 4);
      _mm256_storeu_ps(v + 8 * g, _mm256_add_ps(_mm256_mul_ps(tx, _mm256_sub_ps(vr, vl)), vl));
    }
  }

  const WideView& f_;
  const int32_t x0_;
  const float sx_;
  const int32_t groups_;
  const unsigned char* key_[2] = {nullptr, nullptr};
  alignas(32) float block_[2 * 2 * kColumns];  // slot 0 u, v; slot 1 u, v
};

template <class T>
inline void StoreSample(unsigned char* d, int32_t bits) {
  if constexpr (std::is_same<T, float>::value)
    PLStore<int32_t>(d, bits);
  else
    PLStore<T>(d, static_cast<T>(bits));
}

}  // namespace

template <class T, int32_t C, bool CountOutside, bool Bilinear>
void BlurRowsWidePath(int32_t x0, int32_t x1, int32_t yFirst, int32_t yLast, NuvImage* dst,
                      const NuvImage* src, const NuvImage* flow,
                      NuvIdleAndProgressClass* progress, float amount) {
  constexpr int32_t kPixelBytes = C * static_cast<int32_t>(sizeof(T));
  constexpr int32_t kSampleBytes = static_cast<int32_t>(sizeof(T));
  const WideView s(src);
  const WideView f(flow);
  const WideView d(dst);
  // Every scalar below is the plain loop's, computed the same way.
  const float sx = static_cast<float>(flow->lastColumn) / static_cast<float>(src->lastColumn);
  const float sy = static_cast<float>(flow->lastRow) / static_cast<float>(src->lastRow);
  const float gx = (0.5f / sx) * amount;
  const float gy = (0.5f / sy) * amount;
  const float copyBelow = Bilinear ? 1e-6f : 1.0f;
  const I8 iota = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const F8 iotaF = _mm256_cvtepi32_ps(iota);
  const F8 signBit = Set(-0.0f);
  const InterleaveMasks<T, C> interleave;

  // Columns in chunks of FlowRowMixes::kColumns, each chunk all the way down its rows, so
  // that the mixed flow rows fit in a small buffer on the stack (the destination shares no
  // memory with the source or the flow, so the order of the pixels changes no byte). Progress
  // runs once from 0 to 1 over the chunks.
  const int32_t chunks = x1 >= x0 ? (x1 - x0) / FlowRowMixes::kColumns + 1 : 1;
  for (int32_t chunk = 0; chunk < chunks; ++chunk) {
    const int32_t cx0 = x0 + chunk * FlowRowMixes::kColumns;
    const int32_t cx1 = x1 - cx0 >= FlowRowMixes::kColumns ? cx0 + FlowRowMixes::kColumns - 1 : x1;
    FlowRowMixes mixes(f, cx0, cx1, sx);
    const float yEnd = static_cast<float>(yLast);
    for (float y = static_cast<float>(yFirst); y <= yEnd; y += 1.0f) {
      if (yLast > yFirst)
        progress->Progress((static_cast<float>(chunk) +
                            (y - static_cast<float>(yFirst)) / static_cast<float>(yLast - yFirst)) /
                           static_cast<float>(chunks));
      const int32_t yi = static_cast<int32_t>(y);
      unsigned char* outRow = const_cast<unsigned char*>(d.base) + d.row0 + yi * d.step;
      const unsigned char* srcRow = s.base + s.row0 + yi * s.step;

      int32_t iy;
      float ty;
      PLBlurFlowRowCell(y, sy, f.lastRow, &iy, &ty);
      const float* upMix;
      const float* lowMix;
      mixes.Rows(f.base + f.row0 + iy * f.step, f.base + f.row0 + iy * f.step + f.below, &upMix,
                 &lowMix);
      const int32_t vPlane = mixes.VPlane();
      const F8 yv = Set(y);
      const F8 tyv = Set(ty);

      for (int32_t xb = cx0; xb <= cx1; xb += 8) {
        const int32_t lanes = cx1 - xb + 1 < 8 ? cx1 - xb + 1 : 8;
        // Whole numbers below 2^24: the same values the plain loop reaches by adding 1.0f.
        const F8 x = _mm256_add_ps(Set(static_cast<float>(xb)), iotaF);
        // Flow lookup: the second half of the bilinear mix, across the cell's two mixed rows.
        const int32_t at = xb - cx0;
        F8 u, v;
        {
          const F8 a = _mm256_loadu_ps(upMix + at), b = _mm256_loadu_ps(lowMix + at);
          u = _mm256_add_ps(_mm256_mul_ps(tyv, _mm256_sub_ps(b, a)), a);
        }
        {
          const F8 a = _mm256_loadu_ps(upMix + vPlane + at);
          const F8 b = _mm256_loadu_ps(lowMix + vPlane + at);
          v = _mm256_add_ps(_mm256_mul_ps(tyv, _mm256_sub_ps(b, a)), a);
        }
        const F8 hx = _mm256_mul_ps(Set(gx), u);
        const F8 hy = _mm256_mul_ps(Set(gy), v);
        const F8 m = _mm256_add_ps(_mm256_mul_ps(hx, hx), _mm256_mul_ps(hy, hy));
        const I8 copy = AsI(_mm256_cmp_ps(m, Set(copyBelow), _CMP_LT_OQ));
        const I8 valid = _mm256_cmpgt_epi32(SetI(lanes), iota);
        const I8 walk = _mm256_andnot_si256(copy, valid);

        F8 acc[C];
  #pragma GCC unroll 4
        for (int32_t c = 0; c < C; ++c) acc[c] = _mm256_setzero_ps();
        I8 counter = _mm256_setzero_si256();
        if (Any(walk)) {
          const F8 len = _mm256_sqrt_ps(m);
          I8 n = _mm256_cvttps_epi32(_mm256_add_ps(len, Set(1.0f)));
          const I8 few = _mm256_cmpgt_epi32(SetI(2), n);
          n = BlendI(n, SetI(2), few);
          const F8 steps = _mm256_cvtepi32_ps(_mm256_sub_epi32(n, SetI(1)));
          const F8 dx = Blend(_mm256_div_ps(hx, steps), hx, AsF(few));
          const F8 dy = Blend(_mm256_div_ps(hy, steps), hy, AsF(few));
          const F8 ndx = _mm256_xor_ps(dx, signBit);
          const F8 ndy = _mm256_xor_ps(dy, signBit);
          const I8 back = _mm256_sub_epi32(n, SetI(1));
          if constexpr (Bilinear) {
            WalkWide<T, C, CountOutside, true>(s, x, yv, dx, dy, n, walk, acc, &counter);
            WalkWide<T, C, CountOutside, true>(s, _mm256_sub_ps(x, dx), _mm256_sub_ps(yv, dy), ndx,
                                               ndy, back, walk, acc, &counter);
          } else {
            const F8 half = Set(0.5f);
            WalkWide<T, C, CountOutside, false>(s, _mm256_add_ps(x, half), _mm256_add_ps(yv, half),
                                                dx, dy, n, walk, acc, &counter);
            WalkWide<T, C, CountOutside, false>(
                s, _mm256_add_ps(_mm256_add_ps(x, ndx), half),
                _mm256_add_ps(_mm256_add_ps(yv, ndy), half), ndx, ndy, back, walk, acc, &counter);
          }
        }
        // Lanes that copy or lie past the chunk have a count of 0; their result is not stored.
        const F8 inv = _mm256_div_ps(Set(1.0f), UnsignedToFloat(counter));
        const int32_t copyBits = _mm256_movemask_ps(AsF(copy));
        unsigned char* out = outRow + xb * kPixelBytes;
        if constexpr (!std::is_same<T, float>::value) {
          if (lanes == 8) {
            // Eight whole pixels: the finished samples interleaved in registers and stored in
            // whole blocks; copied pixels then go over their places, read before the store in
            // case the destination is the source.
            unsigned char copied[8 * kPixelBytes];
            if (copyBits)
              std::memcpy(copied, srcRow + xb * kPixelBytes, sizeof(copied));
            I8 q[C];
  #pragma GCC unroll 4
            for (int32_t c = 0; c < C; ++c) q[c] = FinishInteger<T>(_mm256_mul_ps(acc[c], inv));
            StoreInterleaved<T, C>(out, q, interleave);
            for (int32_t l = 0; copyBits && l < 8; ++l)
              if (copyBits & (1 << l))
                std::memcpy(out + l * kPixelBytes, copied + l * kPixelBytes, kPixelBytes);
            continue;
          }
        }
        alignas(32) int32_t result[C][8];
        for (int32_t c = 0; c < C; ++c) {
          const F8 average = _mm256_mul_ps(acc[c], inv);
          if constexpr (std::is_same<T, float>::value)
            _mm256_store_si256(reinterpret_cast<I8*>(result[c]), AsI(average));
          else
            _mm256_store_si256(reinterpret_cast<I8*>(result[c]), FinishInteger<T>(average));
        }
        for (int32_t l = 0; l < lanes; ++l, out += kPixelBytes) {
          if (copyBits & (1 << l)) {
            // Copied unchanged, with no conversion: floats keep every bit.
            std::memcpy(out, srcRow + (xb + l) * kPixelBytes, kPixelBytes);
            continue;
          }
          for (int32_t c = 0; c < C; ++c) StoreSample<T>(out + c * kSampleBytes, result[c][l]);
        }
      }
    }
  }
}

#define PL_BLUR_WIDE(T, C)                                                                     \
  template void BlurRowsWidePath<T, C, false, false>(int32_t, int32_t, int32_t, int32_t,       \
                                                     NuvImage*, const NuvImage*,               \
                                                     const NuvImage*, NuvIdleAndProgressClass*, \
                                                     float);                                   \
  template void BlurRowsWidePath<T, C, false, true>(int32_t, int32_t, int32_t, int32_t,        \
                                                    NuvImage*, const NuvImage*,                \
                                                    const NuvImage*, NuvIdleAndProgressClass*,  \
                                                    float);                                    \
  template void BlurRowsWidePath<T, C, true, false>(int32_t, int32_t, int32_t, int32_t,        \
                                                    NuvImage*, const NuvImage*,                \
                                                    const NuvImage*, NuvIdleAndProgressClass*,  \
                                                    float);                                    \
  template void BlurRowsWidePath<T, C, true, true>(int32_t, int32_t, int32_t, int32_t,         \
                                                   NuvImage*, const NuvImage*,                 \
                                                   const NuvImage*, NuvIdleAndProgressClass*,   \
                                                   float);
#define PL_BLUR_WIDE_ALL_CHANNELS(T) \
  PL_BLUR_WIDE(T, 1) PL_BLUR_WIDE(T, 2) PL_BLUR_WIDE(T, 3) PL_BLUR_WIDE(T, 4)
PL_BLUR_WIDE_ALL_CHANNELS(uint8_t)
PL_BLUR_WIDE_ALL_CHANNELS(uint16_t)
PL_BLUR_WIDE_ALL_CHANNELS(float)

#include "runtime/PLWideEnd.h"

#endif  // FLOWBLUR_PLAIN_ONLY
