// flowblur: hole fills: black, small-hole diffusion, nearest-site maps and the Voronoi fill.
#include "fill/PLHoleFill.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <vector>

#include "image/PLDispatch.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
#include "runtime/NuvMP.h"

namespace {

bool HasPixels(const PLImage* im) {
  return im && im->data && im->width > 0 && im->height > 0;
}

bool SameSize(const PLImage* a, const PLImage* b) {
  return a->width == b->width && a->height == b->height;
}

bool IsWorkingType(int32_t dataType) {
  return dataType == PLUChar || dataType == PLUShort || dataType == PLFloat;
}

// A map can only name columns and rows below 65535; refuse before anything is touched.
void RequireMappable(const PLImage* im) {
  if (im->width > kPLNearestSiteMaxSide || im->height > kPLNearestSiteMaxSide)
    throw PLErrParameter;
}

bool IsSiteMap(const PLImage* map) {
  return map && map->data && map->dataType == PLUShort && map->channels == 2;
}

template <class M>
bool IsHole(const unsigned char* maskRow, int32_t x) {
  // NaN is non-zero, so a NaN mask sample is a hole; -0.0 is a known pixel.
  return PLLoad<M>(maskRow + static_cast<size_t>(x) * sizeof(M)) != M(0);
}

// ---- Small-hole diffusion ----------------------------------------------------------------

struct Spot {
  int32_t x, y;
};

// Arithmetic of one sweep step: integer sums scaled in double with rounding, float sums in
// single precision without.
template <class T>
struct Diffuse {
  using Sum = int32_t;
  static Sum Load(const unsigned char* p) { return PLLoad<T>(p); }
  static void Store(unsigned char* p, Sum sum, double factor, float) {
    PLStore<T>(p, static_cast<T>(static_cast<int32_t>(static_cast<double>(sum) * factor + 0.5)));
  }
};
template <>
struct Diffuse<float> {
  using Sum = float;
  static Sum Load(const unsigned char* p) { return PLLoad<float>(p); }
  static void Store(unsigned char* p, Sum sum, double, float factor) {
    PLStore<float>(p, sum * factor);
  }
};

constexpr double kQuarter = 0.25;
constexpr double kThird = 0.33333333;
constexpr float kQuarterF = 0.25f;
constexpr float kThirdF = 0.33333334f;

// One template for all nine image/mask type pairs; the mask only decides which pixels are
// visited, so the hole lists are built once, in visiting order, and reused by every sweep.
template <class T, class M>
void SmallHoleFillTyped(PLImage* image, const PLImage* mask, int32_t iterations) {
  using D = Diffuse<T>;
  using S = typename D::Sum;
  const int32_t lastX = image->lastColumn, lastY = image->lastRow;
  const int32_t channels = image->channels;
  const size_t px = static_cast<size_t>(image->bytesPerPixel);
  constexpr size_t bs = sizeof(T);

  std::vector<Spot> interior, left, right, top, bottom;
  for (int32_t y = 1; y < lastY; ++y) {
    const unsigned char* m = mask->Row(y);
    for (int32_t x = 1; x < lastX; ++x)
      if (IsHole<M>(m, x)) interior.push_back({x, y});
  }
  // The column passes need a second column, the row passes a second row.
  if (lastX >= 1) {
    for (int32_t y = 1; y < lastY; ++y)
      if (IsHole<M>(mask->Row(y), 0)) left.push_back({0, y});
    for (int32_t y = 1; y < lastY; ++y)
      if (IsHole<M>(mask->Row(y), lastX)) right.push_back({lastX, y});
  }
  if (lastY >= 1) {
    for (int32_t x = 1; x < lastX; ++x)
      if (IsHole<M>(mask->Row(0), x)) top.push_back({x, 0});
    for (int32_t x = 1; x < lastX; ++x)
      if (IsHole<M>(mask->Row(lastY), x)) bottom.push_back({x, lastY});
  }
  std::vector<Spot> corners;
  for (Spot s : {Spot{0, 0}, Spot{0, lastY}, Spot{lastX, 0}, Spot{lastX, lastY}})
    if (IsHole<M>(mask->Row(s.y), s.x)) corners.push_back(s);

  auto at = [&](int32_t x, int32_t y) { return image->Row(y) + static_cast<size_t>(x) * px; };

  for (int32_t it = 0; it < iterations; ++it) {
    for (Spot s : interior) {
      unsigned char* p = at(s.x, s.y);
      const unsigned char* u = at(s.x, s.y - 1);
      const unsigned char* d = at(s.x, s.y + 1);
      for (int32_t c = 0; c < channels; ++c) {
        const size_t o = c * bs;
        S sum = D::Load(p - px + o) + D::Load(p + px + o);
        sum = sum + D::Load(u + o);
        sum = sum + D::Load(d + o);
        D::Store(p + o, sum, kQuarter, kQuarterF);
      }
    }
    for (Spot s : left) {
      unsigned char* p = at(s.x, s.y);
      const unsigned char* u = at(s.x, s.y - 1);
      const unsigned char* d = at(s.x, s.y + 1);
      for (int32_t c = 0; c < channels; ++c) {
        const size_t o = c * bs;
        S sum = D::Load(p + px + o) + D::Load(u + o);
        sum = sum + D::Load(d + o);
        D::Store(p + o, sum, kThird, kThirdF);
      }
    }
    for (Spot s : right) {
      unsigned char* p = at(s.x, s.y);
      const unsigned char* u = at(s.x, s.y - 1);
      const unsigned char* d = at(s.x, s.y + 1);
      for (int32_t c = 0; c < channels; ++c) {
        const size_t o = c * bs;
        S sum = D::Load(p - px + o) + D::Load(u + o);
        sum = sum + D::Load(d + o);
        D::Store(p + o, sum, kThird, kThirdF);
      }
    }
    for (Spot s : top) {
      unsigned char* p = at(s.x, s.y);
      const unsigned char* d = at(s.x, s.y + 1);
      for (int32_t c = 0; c < channels; ++c) {
        const size_t o = c * bs;
        S sum = D::Load(p - px + o) + D::Load(p + px + o);
        sum = sum + D::Load(d + o);
        D::Store(p + o, sum, kThird, kThirdF);
      }
    }
    for (Spot s : bottom) {
      unsigned char* p = at(s.x, s.y);
      const unsigned char* u = at(s.x, s.y - 1);
      for (int32_t c = 0; c < channels; ++c) {
        const size_t o = c * bs;
        // kept: the bottom row has no left term and counts the upper neighbour twice, and the
        // upper pointer steps two samples per channel written (channel c reads sample 2c from
        // this pixel on in the row above). Layers filled with 30 sweeps depend on these bits.
        // The furthest read, sample 2(C-1) of pixel lastColumn-1, stays inside the row.
        const S up = D::Load(u + 2 * o);
        S sum = up + up;
        sum = sum + D::Load(p + px + o);
        D::Store(p + o, sum, kThird, kThirdF);
      }
    }
    for (Spot s : corners) {
      unsigned char* p = at(s.x, s.y);
      // kept: the in-image neighbours are scaled by 0.25, not by their count, so a corner
      // hole darkens sweep by sweep; results of existing layer fills depend on it.
      const unsigned char* n[2];
      int32_t count = 0;
      if (s.x < lastX) n[count++] = p + px;
      if (s.x > 0) n[count++] = p - px;
      if (s.y < lastY) n[count++] = at(s.x, s.y + 1);
      if (s.y > 0) n[count++] = at(s.x, s.y - 1);
      for (int32_t c = 0; c < channels; ++c) {
        const size_t o = c * bs;
        S sum = S(0);
        if (count == 2)
          sum = D::Load(n[0] + o) + D::Load(n[1] + o);
        else if (count == 1)
          sum = D::Load(n[0] + o);
        D::Store(p + o, sum, kQuarter, kQuarterF);
      }
    }
  }
}

// ---- Nearest-site sweeps ------------------------------------------------------------------

// Squared distance from (x, y) to a stored site, in single precision.
inline float SiteDistance(int32_t x, int32_t y, uint32_t sx, uint32_t sy) {
  const float dx = static_cast<float>(x - static_cast<int32_t>(sx));
  const float dy = static_cast<float>(y - static_cast<int32_t>(sy));
  return dx * dx + dy * dy;
}

// Start distance of a hole: about twice 65535 squared, so the first neighbour always wins.
constexpr float kFarAway = 8.5896724e+09f;

void FillNoSiteWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* map = args->Next<PLImage*>();
  const size_t bytes = static_cast<size_t>(map->width) * map->bytesPerPixel;
  for (int32_t y = firstRow; y <= lastRow; ++y) std::memset(map->Row(y), 0xFF, bytes);
}

void FillNoSite(PLImage* map) { PLForkImageRows(map->height, FillNoSiteWorker, map); }

// One sweep in the direction (stepX, stepY): each hole takes the best site among the pixel
// visited just before it in its row, the same column in the row visited before, and the
// diagonal between them, in that order; the first existing one is always taken, the others
// only when strictly nearer.
template <class M>
void Sweep(const PLImage* mask, PLImage* out, int32_t stepX, int32_t stepY) {
  const int32_t w = mask->width, h = mask->height;
  const int32_t x0 = stepX > 0 ? 0 : w - 1, y0 = stepY > 0 ? 0 : h - 1;
  for (int32_t i = 0; i < h; ++i) {
    const int32_t y = y0 + i * stepY;
    const unsigned char* m = mask->Row(y);
    unsigned char* row = out->Row(y);
    const unsigned char* prevRow = i > 0 ? out->Row(y - stepY) : nullptr;
    for (int32_t j = 0; j < w; ++j) {
      const int32_t x = x0 + j * stepX;
      unsigned char* site = row + static_cast<size_t>(x) * 4;
      if (!IsHole<M>(m, x)) {
        PLStore<uint16_t>(site, static_cast<uint16_t>(x));
        PLStore<uint16_t>(site + 2, static_cast<uint16_t>(y));
        continue;
      }
      uint32_t bx = kPLNoSite, by = kPLNoSite;
      float best = kFarAway;
      bool any = false;
      auto consider = [&](const unsigned char* n) {
        const uint32_t sx = PLLoad<uint16_t>(n), sy = PLLoad<uint16_t>(n + 2);
        const float d = SiteDistance(x, y, sx, sy);
        if (!any || d < best) {
          bx = sx;
          by = sy;
          best = d;
          any = true;
        }
      };
      const bool hasBefore = j > 0;
      if (hasBefore) consider(row + static_cast<size_t>(x - stepX) * 4);
      if (prevRow) consider(prevRow + static_cast<size_t>(x) * 4);
      if (hasBefore && prevRow) consider(prevRow + static_cast<size_t>(x - stepX) * 4);
      PLStore<uint16_t>(site, static_cast<uint16_t>(bx));
      PLStore<uint16_t>(site + 2, static_cast<uint16_t>(by));
    }
  }
}

void MergeWorker(int32_t, uint8_t, int32_t firstRow, int32_t lastRow, NuvMPArgs* args) {
  PLImage* best = args->Next<PLImage*>();
  const PLImage* candidate = args->Next<const PLImage*>();
  const int32_t w = best->width;
  for (int32_t y = firstRow; y <= lastRow; ++y) {
    unsigned char* b = best->Row(y);
    const unsigned char* c = candidate->Row(y);
    for (int32_t x = 0; x < w; ++x, b += 4, c += 4) {
      const uint16_t cx = PLLoad<uint16_t>(c), cy = PLLoad<uint16_t>(c + 2);
      const float dc = SiteDistance(x, y, cx, cy);
      const float db = SiteDistance(x, y, PLLoad<uint16_t>(b), PLLoad<uint16_t>(b + 2));
      if (dc < db) {
        PLStore<uint16_t>(b, cx);
        PLStore<uint16_t>(b + 2, cy);
      }
    }
  }
}

// Displaces each hole's site by the noise; see the declaration for the rule.
template <class M>
void JitterSites(PLImage* map, const PLImage* mask, const PLHoleFillNoise* noise, float amount) {
  const int32_t lastX = map->lastColumn, lastY = map->lastRow;
  const float fLastX = static_cast<float>(lastX), fLastY = static_cast<float>(lastY);
  auto inside = [](float v, float last) { return v >= 0.0f && v <= last; };  // NaN: outside
  for (int32_t y = 0; y <= lastY; ++y) {
    unsigned char* row = map->Row(y);
    const unsigned char* m = mask->Row(y);
    for (int32_t x = 0; x <= lastX; ++x) {
      unsigned char* site = row + static_cast<size_t>(x) * 4;
      int32_t sx = PLLoad<uint16_t>(site), sy = PLLoad<uint16_t>(site + 2);
      if (sx > lastX || sy > lastY) {
        sx = x;
        sy = y;
      }
      // A hole without a site is displaced from its own position (in y only, as dx is 0).
      if (IsHole<M>(m, x)) {
        uint32_t i = static_cast<uint32_t>(x) + static_cast<uint32_t>(x) * static_cast<uint32_t>(y);
        // kept: reduced only when it exceeds the length, so i == count stays; that one index
        // lies past the arrays and reads as no noise.
        if (i > noise->count) i %= noise->count;
        const float a = i < noise->count ? noise->first[i] : 0.0f;
        const float b = i < noise->count ? noise->second[i] : 0.0f;
        const int32_t dx = sx - x;
        // kept: x is displaced in proportion to the distance to the site, y is not.
        const float n = amount * a * static_cast<float>(dx);
        float nx = static_cast<float>(x) + static_cast<float>(dx) + n;
        if (!inside(nx, fLastX)) nx = static_cast<float>(sx) + n * 0.5f;
        if (inside(nx, fLastX)) sx = static_cast<int32_t>(nx);
        const float mDisp = amount * b;
        float ny = static_cast<float>(sy) + mDisp;
        if (!inside(ny, fLastY)) ny = static_cast<float>(sy) + mDisp * 0.5f;
        if (inside(ny, fLastY)) sy = static_cast<int32_t>(ny);
      }
      PLStore<uint16_t>(site, static_cast<uint16_t>(sx));
      PLStore<uint16_t>(site + 2, static_cast<uint16_t>(sy));
    }
  }
}

template <size_t B>
void ApplySitesBytes(PLImage* image, const PLImage* map, size_t bytes) {
  const int32_t lastX = image->lastColumn, lastY = image->lastRow;
  const size_t px = B ? B : bytes;
  for (int32_t y = 0; y <= lastY; ++y) {
    const unsigned char* sites = map->Row(y);
    unsigned char* row = image->Row(y);
    for (int32_t x = 0; x <= lastX; ++x) {
      const int32_t sx = PLLoad<uint16_t>(sites + static_cast<size_t>(x) * 4);
      const int32_t sy = PLLoad<uint16_t>(sites + static_cast<size_t>(x) * 4 + 2);
      if ((sx == x && sy == y) || sx > lastX || sy > lastY) continue;
      std::memcpy(row + static_cast<size_t>(x) * px,
                  image->Row(sy) + static_cast<size_t>(sx) * px, B ? B : bytes);
    }
  }
}

template <class Fn>
bool DispatchMask(int32_t dataType, Fn&& fn) {
  return PLDispatchType(dataType, fn);
}

void VoronoiFill(PLImage* image, const PLImage* mask, const PLHoleFillNoise* noise,
                 float amount) {
  if (!HasPixels(image) || !mask) return;
  RequireMappable(image);
  std::unique_ptr<PLImage> map(NUV_NEW PLImage(image->width, image->height, 2, PLUShort, 0));
  std::unique_ptr<PLImage> scratch(NUV_NEW PLImage(image->width, image->height, 2, PLUShort, 0));
  if (!SameSize(image, mask) || mask->channels != 1 || !mask->data) {
    std::fputs("input problem in PLVoronoiFill\n", stderr);
    return;
  }
  if (!IsWorkingType(mask->dataType)) return;
  NearestSiteMap(mask, map.get(), scratch.get());
  const bool jitter = amount != 0.0f && noise && noise->first && noise->second && noise->count;
  if (jitter)
    DispatchMask(mask->dataType, [&](auto tag) {
      JitterSites<typename decltype(tag)::Type>(map.get(), mask, noise, amount);
    });
  ApplyNearestSites(image, map.get());
}

}  // namespace

void PLFillHolesWithBlack(PLImage* image, const PLImage* mask) {
  if (!HasPixels(image) || !mask) return;
  if (!SameSize(image, mask) || mask->dataType != PLUChar || mask->channels != 1 || !mask->data) {
    std::fputs("input problem in PLFillHolesWithBlack\n", stderr);
    return;
  }
  if (!IsWorkingType(image->dataType)) return;
  // Zero bytes are the value 0 in each of the three types.
  const size_t px = static_cast<size_t>(image->bytesPerPixel);
  for (int32_t y = 0; y < image->height; ++y) {
    const unsigned char* m = mask->Row(y);
    unsigned char* row = image->Row(y);
    for (int32_t x = 0; x < image->width; ++x)
      if (m[x] != 0) std::memset(row + x * px, 0, px);
  }
}

void PLSmallHoleFill(PLImage* image, const PLImage* mask, int32_t iterations) {
  if (!HasPixels(image) || !mask) return;
  if (!SameSize(image, mask) || mask->channels != 1 || !mask->data) {
    Clear(image);
    std::fputs("input problem in PLSmallHoleFill\n", stderr);
    return;
  }
  if (iterations <= 0) return;
  PLDispatchType(image->dataType, [&](auto imageTag) {
    using T = typename decltype(imageTag)::Type;
    DispatchMask(mask->dataType, [&](auto maskTag) {
      SmallHoleFillTyped<T, typename decltype(maskTag)::Type>(image, mask, iterations);
    });
  });
}

void PLVoronoiFill(PLImage* image, const PLImage* mask) {
  VoronoiFill(image, mask, nullptr, 0.0f);
}

void PLVoronoiFill(PLImage* image, const PLImage* mask, const PLHoleFillNoise* noise,
                   float amount) {
  VoronoiFill(image, mask, noise, amount);
}

void NearestSiteMap(const PLImage* mask, PLImage* map, PLImage* scratch) {
  if (!mask || !mask->data) return;
  RequireMappable(mask);
  if (!IsSiteMap(map) || !IsSiteMap(scratch) || map == scratch || !SameSize(map, mask) ||
      !SameSize(scratch, mask))
    throw PLErrParameter;
  if (mask->channels != 1 || mask->width < 1 || mask->height < 1) return;
  DispatchMask(mask->dataType, [&](auto tag) {
    using M = typename decltype(tag)::Type;
    // A single sweep carries a site only down and along its own direction; four diagonal
    // sweeps together reach every pixel from every quarter.
    const int32_t steps[4][2] = {{1, 1}, {-1, 1}, {-1, -1}, {1, -1}};
    for (int32_t k = 0; k < 4; ++k) {
      FillNoSite(scratch);
      Sweep<M>(mask, scratch, steps[k][0], steps[k][1]);
      if (k == 0)
        CopyRect(map, 0, 0, scratch, 0, 0, mask->width, mask->height);
      else
        MergeNearest(map, scratch);
    }
  });
}

void ApplyNearestSites(PLImage* image, const PLImage* map) {
  if (!HasPixels(image)) return;
  RequireMappable(image);
  if (!IsSiteMap(map) || !SameSize(image, map)) throw PLErrParameter;
  const size_t bytes = static_cast<size_t>(image->bytesPerPixel);
  switch (bytes) {
    case 4: ApplySitesBytes<4>(image, map, bytes); break;
    case 8: ApplySitesBytes<8>(image, map, bytes); break;
    case 16: ApplySitesBytes<16>(image, map, bytes); break;
    default: ApplySitesBytes<0>(image, map, bytes); break;
  }
}

void MergeNearest(PLImage* best, const PLImage* candidate) {
  if (!IsSiteMap(best) || !IsSiteMap(candidate) || !SameSize(best, candidate))
    throw PLErrParameter;
  PLForkImageRows(best->height, MergeWorker, best, candidate);
}
