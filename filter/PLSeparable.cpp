// flowblur: separable convolution with symmetric half-weights over NuvImage views.
#include "filter/PLSeparable.h"

#include <emmintrin.h>
#include <immintrin.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "filter/PLFilterPrivate.h"
#include "runtime/PLWidePath.h"
#include "image/PLDispatch.h"
#include "runtime/NuvMP.h"

using plfilter::LoadSample;
using plfilter::StoreClamped;

void ExpandKernel(ExpandedKernel* expanded, const SeparableKernel* kernel) {
  std::memset(expanded, 0, sizeof(ExpandedKernel));
  expanded->count = kernel->count;
  for (int32_t k = 0; k < kernel->count; ++k)
    for (int32_t lane = 0; lane < 4; ++lane) expanded->lanes[k * 4 + lane] = kernel->weights[k];
}

// How the lines are laid out. Every pass works on a float buffer of interleaved samples,
// C floats a pixel, with c margin pixels at each end; output sample j takes its taps at
// j +- k * stride, stride being C along a row and the strip's row width down a column.
// Each float of the buffer is thus one lane of its own: a vector of four neighbouring floats
// holds four independent outputs (two pixels of a 2-channel row, a third of a column strip),
// and every lane goes through exactly the operations of the one-sample rule, in its order.
// Margins hold 0.0 in 1-channel lines (outside tested by index) and the marker of the
// sample's channel otherwise (outside tested by value, lane by lane).
//
// Columns go in strips of neighbouring pixels: each row of the strip is read and written
// contiguously, and the strip buffer holds the whole height, so the in-place pass reads
// only copies. The strip is as wide as the stack buffer allows for that height, up to
// kStripMaxFloats, and always at least one pixel.

namespace {

// Floats of the column strip buffer: the stack of a line of kSeparableLineMax four-lane
// samples, 256 KiB.
constexpr int32_t kStripFloats = kSeparableLineMax * 4;
// Widest strip row, in floats: 256 bytes, four cache lines of each image row per visit.
constexpr int32_t kStripMaxFloats = 64;

// Marker lanes of the multi-channel line buffers: a tap whose lane equals the marker is
// outside the line. Four-channel Float images need markers that a matte of -1.0 alone
// would not give away, hence a different value per lane.
template <class T, int32_t C>
struct LineMarkers {
  static constexpr float lanes[4] = {-1.0f, -1.0f, -1.0f, -1.0f};
};
template <>
struct LineMarkers<float, 4> {
  static constexpr float lanes[4] = {-3.0f, -1415.0f, -9265.0f, -1.0f};
};

// The margin value of sample slot q of a line (q counts floats from a pixel boundary).
template <class T, int32_t C>
inline float MarginValue(int32_t q) {
  return C == 1 ? 0.0f : LineMarkers<T, C>::lanes[q % C];
}

// ---- Loads and stores of contiguous samples -----------------------------------------------

template <class T>
inline void LoadSamples(float* to, const unsigned char* from, int32_t count) {
  if constexpr (std::is_same<T, float>::value) {
    std::memcpy(to, from, static_cast<size_t>(count) * sizeof(float));
  } else {
    for (int32_t q = 0; q < count; ++q) to[q] = LoadSample<T>(from + q * sizeof(T));
  }
}

// The first `count` lanes of `value` as samples of T at `to`, by the store rule of T:
// (int)(v + 0.5) clamped for the integer types, Float as is. The vector conversion truncates
// like PLTruncToInt32 (0x80000000 out of range and for NaN), and the saturating packs clamp.
template <class T>
inline void StoreSamples(unsigned char* to, __m128 value, int32_t count) {
  if (count == 4) {
    if constexpr (std::is_same<T, float>::value) {
      _mm_storeu_ps(reinterpret_cast<float*>(to), value);
      return;
    } else {
      const __m128i i = _mm_cvttps_epi32(_mm_add_ps(value, _mm_set1_ps(0.5f)));
      if constexpr (std::is_same<T, uint8_t>::value) {
        const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(i, i), _mm_setzero_si128());
        const int32_t bytes = _mm_cvtsi128_si32(packed);
        std::memcpy(to, &bytes, 4);
      } else {
        // Clamp to 0 .. 65535 in 32 bits, then shift into the signed range for the pack.
        __m128i v = _mm_andnot_si128(_mm_cmplt_epi32(i, _mm_setzero_si128()), i);
        const __m128i top = _mm_set1_epi32(65535);
        const __m128i over = _mm_cmpgt_epi32(v, top);
        v = _mm_or_si128(_mm_and_si128(over, top), _mm_andnot_si128(over, v));
        v = _mm_sub_epi32(v, _mm_set1_epi32(32768));
        const __m128i packed = _mm_xor_si128(_mm_packs_epi32(v, v), _mm_set1_epi16(-32768));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(to), packed);
      }
      return;
    }
  }
  float out[4];
  _mm_storeu_ps(out, value);
  for (int32_t lane = 0; lane < count; ++lane) StoreClamped<T>(to + lane * sizeof(T), out[lane]);
}

// ---- The three rules, on a float buffer with taps `stride` floats apart ------------------

// Where both operands of an addition are NaN, SSE returns the first one's NaN, and the
// compiler may swap the operands of a + b. The additions that can meet two NaN samples are
// pinned here to the operand order the engine has always had, so that even the NaN an
// output carries does not change: accumulators first; a middle pair left tap first, except
// in the one-sample remainders of the 1-channel middle run (right tap first).
inline __m128 AddKeepFirst(__m128 a, __m128 b) {
  asm("addps %1, %0" : "+x"(a) : "x"(b));
  return a;
}
inline float AddKeepFirst(float a, float b) {
  asm("addss %1, %0" : "+x"(a) : "x"(b));
  return a;
}

// Middle run, V vectors side by side: value = w0 * p, then for k from c - 1 down to 1,
// value = w[k] * (p[+k] + p[-k]) + value. No division.
template <int32_t V, bool RightFirst = false>
inline void MiddleVectors(__m128* value, const float* p, ptrdiff_t stride, int32_t c,
                          const float* lanes) {
  const __m128 w0 = _mm_loadu_ps(lanes);
#pragma GCC unroll 8
  for (int32_t v = 0; v < V; ++v) value[v] = _mm_mul_ps(w0, _mm_loadu_ps(p + 4 * v));
  for (int32_t k = c - 1; k >= 1; --k) {
    const __m128 wk = _mm_loadu_ps(lanes + 4 * k);
    const float* right = p + k * stride;
    const float* left = p - k * stride;
#pragma GCC unroll 8
    for (int32_t v = 0; v < V; ++v) {
      const __m128 r = _mm_loadu_ps(right + 4 * v);
      const __m128 l = _mm_loadu_ps(left + 4 * v);
      const __m128 pair = RightFirst ? AddKeepFirst(r, l) : AddKeepFirst(l, r);
      value[v] = AddKeepFirst(value[v], _mm_mul_ps(wk, pair));
    }
  }
}

#if !defined(FLOWBLUR_PLAIN_ONLY)
// The AVX2 form of MiddleVectors<4> (run only where PLWideAvailable): 32 neighbouring outputs
// in four vectors of eight lanes, into `result`. Each lane does the same operations in the
// same order, the additions pinned to the same operand order (VEX: the first source's NaN).
__attribute__((target("avx2"))) inline __m256 AddKeepFirst8(__m256 a, __m256 b) {
  __m256 sum;
  asm("vaddps %2, %1, %0" : "=x"(sum) : "x"(a), "x"(b));
  return sum;
}
template <bool RightFirst>
__attribute__((target("avx2"), noinline)) void MiddleWide32(float* result, const float* p,
                                                            ptrdiff_t stride, int32_t c,
                                                            const float* w) {
  const __m256 w0 = _mm256_broadcast_ss(w);
  __m256 value[4];
#pragma GCC unroll 4
  for (int32_t v = 0; v < 4; ++v) value[v] = _mm256_mul_ps(w0, _mm256_loadu_ps(p + 8 * v));
  for (int32_t k = c - 1; k >= 1; --k) {
    const __m256 wk = _mm256_broadcast_ss(w + k);
    const float* right = p + k * stride;
    const float* left = p - k * stride;
    // Unrolled, so that the four sums stay in registers.
#pragma GCC unroll 4
    for (int32_t v = 0; v < 4; ++v) {
      const __m256 r = _mm256_loadu_ps(right + 8 * v);
      const __m256 l = _mm256_loadu_ps(left + 8 * v);
      const __m256 pair = RightFirst ? AddKeepFirst8(r, l) : AddKeepFirst8(l, r);
      value[v] = AddKeepFirst8(value[v], _mm256_mul_ps(wk, pair));
    }
  }
#pragma GCC unroll 4
  for (int32_t v = 0; v < 4; ++v) _mm256_storeu_ps(result + 8 * v, value[v]);
}
#endif

template <bool RightFirst>
inline float MiddleScalar(const float* p, ptrdiff_t stride, int32_t c, const float* w) {
  float value = w[0] * p[0];
  for (int32_t k = c - 1; k >= 1; --k) {
    const float r = p[k * stride];
    const float l = p[-k * stride];
    const float pair = RightFirst ? AddKeepFirst(r, l) : AddKeepFirst(l, r);
    value = AddKeepFirst(value, w[k] * pair);
  }
  return value;
}

// Head or tail by marker: the centre tap always counts; taps k >= 1 drop out in the lanes
// where the sample equals that lane's marker. Then the renormalising division.
inline __m128 BorderMarked(const float* p, ptrdiff_t stride, int32_t c, const float* lanes,
                           __m128 marker) {
  const __m128 w0 = _mm_loadu_ps(lanes);
  __m128 sum = _mm_mul_ps(_mm_loadu_ps(p), w0);
  __m128 norm = w0;
  for (int32_t k = c - 1; k >= 1; --k) {
    const __m128 wk = _mm_loadu_ps(lanes + 4 * k);
    const __m128 pr = _mm_loadu_ps(p + k * stride);
    const __m128 pl = _mm_loadu_ps(p - k * stride);
    const __m128 wr = _mm_andnot_ps(_mm_cmpeq_ps(pr, marker), wk);
    const __m128 wl = _mm_andnot_ps(_mm_cmpeq_ps(pl, marker), wk);
    norm = AddKeepFirst(AddKeepFirst(norm, wr), wl);
    sum = AddKeepFirst(AddKeepFirst(sum, _mm_mul_ps(pr, wr)), _mm_mul_ps(pl, wl));
  }
  return _mm_div_ps(sum, norm);
}

inline float BorderMarkedScalar(const float* p, ptrdiff_t stride, int32_t c, const float* w,
                                float marker) {
  float sum = p[0] * w[0];
  float norm = w[0];
  for (int32_t k = c - 1; k >= 1; --k) {
    const float pr = p[k * stride];
    const float pl = p[-k * stride];
    const float wr = pr == marker ? 0.0f : w[k];
    const float wl = pl == marker ? 0.0f : w[k];
    norm = AddKeepFirst(AddKeepFirst(norm, wr), wl);
    sum = AddKeepFirst(AddKeepFirst(sum, pr * wr), pl * wl);
  }
  return sum / norm;
}

// Head or tail by index, for output i of a line of n (1 channel): the same taps for every
// lane of the vector, which holds neighbouring columns of one row.
inline __m128 BorderIndexed(const float* p, ptrdiff_t stride, int32_t c, const float* lanes,
                            int32_t i, int32_t n) {
  const __m128 w0 = _mm_loadu_ps(lanes);
  const __m128 zero = _mm_setzero_ps();
  __m128 sum = _mm_mul_ps(_mm_loadu_ps(p), w0);
  __m128 norm = w0;
  for (int32_t k = c - 1; k >= 1; --k) {
    const __m128 wk = _mm_loadu_ps(lanes + 4 * k);
    const __m128 wr = i + k <= n - 1 ? wk : zero;
    const __m128 wl = i - k >= 0 ? wk : zero;
    norm = AddKeepFirst(AddKeepFirst(norm, wr), wl);
    sum = AddKeepFirst(AddKeepFirst(sum, _mm_mul_ps(_mm_loadu_ps(p + k * stride), wr)),
                       _mm_mul_ps(_mm_loadu_ps(p - k * stride), wl));
  }
  return _mm_div_ps(sum, norm);
}

inline float BorderIndexedScalar(const float* p, int32_t c, const float* w, int32_t i,
                                 int32_t n) {
  float sum = p[0] * w[0];
  float norm = w[0];
  for (int32_t k = c - 1; k >= 1; --k) {
    const float wr = (i + k <= n - 1) ? w[k] : 0.0f;
    const float wl = (i - k >= 0) ? w[k] : 0.0f;
    norm = AddKeepFirst(AddKeepFirst(norm, wr), wl);
    sum = AddKeepFirst(AddKeepFirst(sum, p[k] * wr), p[-k] * wl);
  }
  return sum / norm;
}

// ---- Rows ---------------------------------------------------------------------------------

// One row of n pixels from input to output (which may coincide), through `line`, a buffer
// of at least (n + 2c) * C floats.
template <class T, int32_t C>
void ConvolveRow(const unsigned char* input, unsigned char* output, int32_t n,
                 const SeparableKernel* kernel, const ExpandedKernel* expanded, float* line,
                 bool wide) {
  const int32_t c = kernel->count;
  const float* w = kernel->weights;
  const float* lanes = expanded->lanes;
  const int32_t margin = c * C;
  // Copy the row out first: the pass may run in place.
  for (int32_t q = 0; q < margin; ++q) line[q] = MarginValue<T, C>(q);
  LoadSamples<T>(line + margin, input, n * C);
  for (int32_t q = 0; q < margin; ++q) line[margin + n * C + q] = MarginValue<T, C>(q);
  const float* p = line + margin;  // sample j of the row at p[j], j in -cC .. (n + c)C - 1

  const int32_t head = c < n ? c : n;
  const int32_t middle = n - 2 * c > 0 ? n - 2 * c : 0;
  const int32_t headEnd = head * C;
  const int32_t middleEnd = (head + middle) * C;
  const int32_t end = n * C;
  auto out = [&](int32_t j) { return output + static_cast<ptrdiff_t>(j) * sizeof(T); };

  // Head and tail. Vectors start at pixel boundaries in the 4-channel rows, so lane and
  // channel agree with the marker vector; the other layouts have one marker for all lanes.
  auto border = [&](int32_t from, int32_t to) {
    if constexpr (C == 1) {
      for (int32_t i = from; i < to; ++i)
        StoreClamped<T>(out(i), BorderIndexedScalar(p + i, c, w, i, n));
    } else {
      const __m128 marker = _mm_loadu_ps(LineMarkers<T, C>::lanes);
      int32_t j = from;
      for (; j + 4 <= to; j += 4)
        StoreSamples<T>(out(j), BorderMarked(p + j, C, c, lanes, marker), 4);
      for (; j < to; ++j)
        StoreClamped<T>(out(j), BorderMarkedScalar(p + j, C, c, w, MarginValue<T, C>(j)));
    }
  };

  border(0, headEnd);
  int32_t j = headEnd;
#if !defined(FLOWBLUR_PLAIN_ONLY)
  // The wide loop takes whole groups of 32 from the start of the middle run, which the
  // four-lane loops below would have taken with the same pair order.
  if (wide) {
    for (; j + 32 <= middleEnd; j += 32) {
      if constexpr (std::is_same<T, float>::value) {
        // Float samples store as they are: straight into the row.
        MiddleWide32<false>(reinterpret_cast<float*>(out(j)), p + j, C, c, w);
        continue;
      }
      alignas(32) float result[32];
      MiddleWide32<false>(result, p + j, C, c, w);
      for (int32_t v = 0; v < 8; ++v)
        StoreSamples<T>(out(j + 4 * v), _mm_load_ps(result + 4 * v), 4);
    }
  }
#else
  (void)wide;
#endif
  for (; j + 16 <= middleEnd; j += 16) {
    __m128 value[4];
    MiddleVectors<4>(value, p + j, C, c, lanes);
#pragma GCC unroll 4
    for (int32_t v = 0; v < 4; ++v) StoreSamples<T>(out(j + 4 * v), value[v], 4);
  }
  for (; j + 4 <= middleEnd; j += 4) {
    __m128 value[1];
    MiddleVectors<1>(value, p + j, C, c, lanes);
    StoreSamples<T>(out(j), value[0], 4);
  }
  for (; j < middleEnd; ++j) StoreClamped<T>(out(j), MiddleScalar<C == 1>(p + j, C, c, w));
  border(middleEnd, end);
}

template <class T, int32_t C>
void RowWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  const unsigned char* source = args->Next<const unsigned char*>();
  unsigned char* destination = args->Next<unsigned char*>();
  const int32_t width = args->Next<int32_t>();
  const int32_t rowBytes = args->Next<int32_t>();
  const SeparableKernel* kernel = args->Next<const SeparableKernel*>();
  const ExpandedKernel* expanded = args->Next<const ExpandedKernel*>();
  const bool wide = args->Next<int32_t>() != 0;
  float line[kSeparableLineMax * C];  // width + 2c <= kSeparableLineMax pixels
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    const ptrdiff_t offset = static_cast<ptrdiff_t>(y) * rowBytes;
    ConvolveRow<T, C>(source + offset, destination + offset, width, kernel, expanded, line, wide);
  }
}

// ---- Columns ------------------------------------------------------------------------------

// Where a strip's rows come from and go to: output rows `from` .. `to` - 1 of a column of
// n rows, stored from `output` (row `from`) on; the input holds rows `inputTop` on, from
// `input`, and must hold every row that those outputs' taps reach inside 0 .. n - 1.
struct StripWindow {
  const unsigned char* input;
  ptrdiff_t inputBytes;  // row distance
  int32_t inputTop;
  unsigned char* output;
  ptrdiff_t outputBytes;
  int32_t from, to, n;
};

// A strip of `pixels` neighbouring columns through `strip`, a buffer of at least
// (to - from + 2c) * stride floats, where stride is pixels * C rounded up to whole vectors.
// The lanes past pixels * C are loaded as 0.0 and never stored. Rows outside 0 .. n - 1 are
// margins; which rule a row takes depends on its place in the whole column alone, so a
// window gives the rows that the whole column would.
template <class T, int32_t C>
void ConvolveStrip(const StripWindow& at, int32_t pixels, const SeparableKernel* kernel,
                   const ExpandedKernel* expanded, float* strip, bool wide) {
  (void)wide;  // read only where the build carries the wide loop
  const int32_t c = kernel->count;
  const int32_t n = at.n;
  const float* lanes = expanded->lanes;
  const int32_t samples = pixels * C;
  const int32_t stride = (samples + 3) & ~3;
  const int32_t vectors = stride / 4;
  const int32_t lastCount = samples - 4 * (vectors - 1);  // lanes stored of the last vector

  // Margin rows, a vector at a time: stride is a multiple of 4, so in 4-channel strips lane
  // q % 4 is the channel, as the marker vector expects; the other layouts have one margin
  // value for all lanes. Copy the strip out before any output is stored: the pass may run
  // in place.
  const __m128 margin = C == 1 ? _mm_setzero_ps() : _mm_loadu_ps(LineMarkers<T, C>::lanes);
  const int32_t top = at.from - c;  // the buffer's first row
  for (int32_t g = top; g < at.to + c; ++g) {
    float* s = strip + static_cast<ptrdiff_t>(g - top) * stride;
    // Taps reach c - 1 rows: for c >= 1 the buffer's first and last rows are never read.
    const bool unread = c > 0 && (g == top || g == at.to + c - 1);
    if (g < 0 || g >= n || unread) {
      for (int32_t q = 0; q < stride; q += 4) _mm_storeu_ps(s + q, margin);
      continue;
    }
    LoadSamples<T>(s, at.input + (g - at.inputTop) * at.inputBytes, samples);
    for (int32_t q = samples; q < stride; ++q) s[q] = 0.0f;
  }
  auto rowAt = [&](int32_t r) { return strip + static_cast<ptrdiff_t>(r - top) * stride; };

  auto storeRow = [&](int32_t r, const __m128* value, int32_t v0, int32_t count) {
    unsigned char* o = at.output + (r - at.from) * at.outputBytes;
#pragma GCC unroll 4
    for (int32_t v = v0; v < v0 + count; ++v)
      StoreSamples<T>(o + static_cast<ptrdiff_t>(4 * v) * sizeof(T), value[v - v0],
                      v == vectors - 1 ? lastCount : 4);
  };

  const int32_t head = c < n ? c : n;
  const int32_t middle = n - 2 * c > 0 ? n - 2 * c : 0;
  const __m128 marker = _mm_loadu_ps(LineMarkers<T, C>::lanes);
  auto border = [&](int32_t r) {
    const float* p = rowAt(r);
    for (int32_t v = 0; v < vectors; ++v) {
      __m128 value;
      if constexpr (C == 1)
        value = BorderIndexed(p + 4 * v, stride, c, lanes, r, n);
      else
        value = BorderMarked(p + 4 * v, stride, c, lanes, marker);
      storeRow(r, &value, v, 1);
    }
  };

  const int32_t headEnd = head < at.to ? head : at.to;
  for (int32_t r = at.from; r < headEnd; ++r) border(r);
  // A 1-channel column was once filtered four rows a vector with the last zero to three rows
  // one at a time; those rows keep their own pair order (see AddKeepFirst).
  const int32_t pairedEnd = C == 1 ? head + (middle & ~3) : head + middle;
  auto middleRow = [&](int32_t r, auto rightFirst) {
    constexpr bool kRightFirst = decltype(rightFirst)::value;
    const float* p = rowAt(r);
    int32_t v = 0;
#if !defined(FLOWBLUR_PLAIN_ONLY)
    if (wide) {
      for (; v + 8 <= vectors; v += 8) {
        if constexpr (std::is_same<T, float>::value) {
          // Float samples store as they are: straight into the image row, unless the group
          // holds the strip's last vector and that one is not whole.
          if (v + 8 < vectors || lastCount == 4) {
            MiddleWide32<kRightFirst>(
                reinterpret_cast<float*>(at.output + (r - at.from) * at.outputBytes +
                                         static_cast<ptrdiff_t>(4 * v) * 4),
                p + 4 * v, stride, c, kernel->weights);
            continue;
          }
        }
        alignas(32) float result[32];
        MiddleWide32<kRightFirst>(result, p + 4 * v, stride, c, kernel->weights);
        for (int32_t i = 0; i < 8; ++i) {
          const __m128 value = _mm_load_ps(result + 4 * i);
          storeRow(r, &value, v + i, 1);
        }
      }
    }
#endif
    for (; v + 4 <= vectors; v += 4) {
      __m128 value[4];
      MiddleVectors<4, kRightFirst>(value, p + 4 * v, stride, c, lanes);
      storeRow(r, value, v, 4);
    }
    for (; v < vectors; ++v) {
      __m128 value[1];
      MiddleVectors<1, kRightFirst>(value, p + 4 * v, stride, c, lanes);
      storeRow(r, value, v, 1);
    }
  };
  auto lo = [&](int32_t r) { return r > at.from ? r : at.from; };
  auto hi = [&](int32_t r) { return r < at.to ? r : at.to; };
  for (int32_t r = lo(head); r < hi(pairedEnd); ++r) middleRow(r, std::false_type());
  for (int32_t r = lo(pairedEnd); r < hi(head + middle); ++r) middleRow(r, std::true_type());
  for (int32_t r = lo(head + middle); r < at.to; ++r) border(r);
}

// Pixels of a strip that fits `rows` + 2c rows in the stack buffer, at least one.
int32_t StripPixels(int32_t rows, int32_t c, int32_t channels) {
  int32_t floatsPerRow = (kStripFloats / (rows + 2 * c)) & ~3;
  if (floatsPerRow > kStripMaxFloats) floatsPerRow = kStripMaxFloats;
  // Whole groups of 32 lanes where one fits: the wide loop takes the strip in those, and the
  // four-lane loops it would leave behind take longer than the narrower strip.
  if (floatsPerRow >= 32) floatsPerRow &= ~31;
  return floatsPerRow / channels;
}

template <class T, int32_t C>
void ColumnWorker(int32_t, uint8_t, int32_t firstColumn, int32_t lastColumn, NuvMPArgs* args) {
  unsigned char* destination = args->Next<unsigned char*>();
  const int32_t height = args->Next<int32_t>();
  const int32_t rowBytes = args->Next<int32_t>();
  const SeparableKernel* kernel = args->Next<const SeparableKernel*>();
  const ExpandedKernel* expanded = args->Next<const ExpandedKernel*>();
  const bool wide = args->Next<int32_t>() != 0;
  float strip[kStripFloats];
  // height + 2c <= kSeparableLineMax, so at least one vector of floats a row: one pixel.
  const int32_t stripPixels = StripPixels(height, kernel->count, C);
  const ptrdiff_t pixelBytes = static_cast<ptrdiff_t>(sizeof(T)) * C;
  for (int32_t x = firstColumn; x <= lastColumn; x += stripPixels) {
    const int32_t pixels = lastColumn - x + 1 < stripPixels ? lastColumn - x + 1 : stripPixels;
    unsigned char* first = destination + x * pixelBytes;
    const StripWindow whole{first, rowBytes, 0, first, rowBytes, 0, height, height};
    ConvolveStrip<T, C>(whole, pixels, kernel, expanded, strip, wide);
  }
}

// One member per (type, channels): rows then columns by mode.
template <class T, int32_t C>
int32_t ConvolveSeparableMember(const unsigned char* source, unsigned char* destination,
                                int32_t width, int32_t height, int32_t rowBytes,
                                const SeparableKernel* kernel, uint32_t mode, bool wide) {
  const int32_t rowThreads = NuvMPThreadsForRows(height);
  const int32_t columnThreads = NuvMPThreadsForRows(width);
  ExpandedKernel expanded;
  ExpandKernel(&expanded, kernel);
  if (mode < 2)
    NuvMPFork(rowThreads, height, RowWorker<T, C>, source, destination, width, rowBytes, kernel,
              &expanded, int32_t{wide});
  // The fork has joined: the column pass sees finished rows.
  if (mode == 0 || mode == 2)
    NuvMPFork(columnThreads, width, ColumnWorker<T, C>, destination, height, rowBytes, kernel,
              &expanded, int32_t{wide});
  return 0;
}

}  // namespace

int32_t ConvolveSeparable(const NuvImage* source, NuvImage* destination,
                          const SeparableKernel* kernel, uint32_t mode) {
  return ConvolveSeparableOnPath(PLWideChosen(), source, destination, kernel, mode);
}

int32_t ConvolveSeparableOnPath(bool wide, const NuvImage* source, NuvImage* destination,
                                const SeparableKernel* kernel, uint32_t mode) {
  wide = wide && PLWideAvailable();
  const int32_t width = source->width;
  const int32_t height = source->height;
  const int32_t c = kernel->count;
  if (mode > 2 || width <= 0 || height <= 0) return 0;
  // Outside the line buffer or the record: refuse before anything is written.
  if (c < 0 || c > kSeparableKernelMax) return PLErrParameter;
  const bool rows = mode < 2;
  const bool columns = mode == 0 || mode == 2;
  if (rows && width + 2 * c > kSeparableLineMax) return PLErrParameter;
  if (columns && height + 2 * c > kSeparableLineMax) return PLErrParameter;

  const unsigned char* sourceData = source->data;
  unsigned char* destinationData = destination->data;
  const int32_t rowBytes = source->rowBytes;
  PLDispatch(source->pixelType, source->GetChannels(), [&](auto tag) {
    using T = typename decltype(tag)::Type;
    constexpr int32_t C = decltype(tag)::Channels;
    ConvolveSeparableMember<T, C>(sourceData, destinationData, width, height, rowBytes, kernel,
                                  mode, wide);
  });
  return 0;
}

void ConvolveFloatRowHere(const float* input, float* output, int32_t n,
                          const SeparableKernel* kernel, const ExpandedKernel* expanded,
                          float* line, bool wide) {
  ConvolveRow<float, 1>(reinterpret_cast<const unsigned char*>(input),
                        reinterpret_cast<unsigned char*>(output), n, kernel, expanded, line,
                        wide && PLWideAvailable());
}

void ConvolveFloatColumnsHere(const FloatRows& input, int32_t width, int32_t height,
                              int32_t from, int32_t to, float* output, ptrdiff_t outputStep,
                              const SeparableKernel* kernel, const ExpandedKernel* expanded,
                              bool wide) {
  if (from >= to || width < 1) return;
  wide = wide && PLWideAvailable();
  float strip[kStripFloats];
  const int32_t stripPixels = StripPixels(to - from, kernel->count, 1);
  for (int32_t x = 0; x < width; x += stripPixels) {
    const int32_t pixels = width - x < stripPixels ? width - x : stripPixels;
    const StripWindow window{reinterpret_cast<const unsigned char*>(input.first + x),
                             input.step * static_cast<ptrdiff_t>(sizeof(float)),
                             input.top,
                             reinterpret_cast<unsigned char*>(output + x),
                             outputStep * static_cast<ptrdiff_t>(sizeof(float)),
                             from,
                             to,
                             height};
    ConvolveStrip<float, 1>(window, pixels, kernel, expanded, strip, wide);
  }
}
