// flowblur: colour coding of flow fields, the legend wheel and flow resampling.
#include "tools/FlowView.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace flowblur {
namespace {

constexpr double kPi = 3.14159265358979323846;

// A 3x5 pixel font for the legend's number: digits, '.', 'p', 'x'. One row a nibble-triple,
// top row first, the high bit of each row on the left.
struct Glyph {
  char c;
  uint8_t rows[5];
};
constexpr Glyph kGlyphs[] = {
    {'0', {7, 5, 5, 5, 7}}, {'1', {2, 6, 2, 2, 7}}, {'2', {7, 1, 7, 4, 7}},
    {'3', {7, 1, 7, 1, 7}}, {'4', {5, 5, 7, 1, 1}}, {'5', {7, 4, 7, 1, 7}},
    {'6', {7, 4, 7, 5, 7}}, {'7', {7, 1, 1, 1, 1}}, {'8', {7, 5, 7, 5, 7}},
    {'9', {7, 5, 7, 1, 7}}, {'.', {0, 0, 0, 0, 2}}, {'p', {0, 7, 5, 7, 4}},
    {'x', {0, 5, 2, 5, 5}},
};

void PutPixel(std::vector<uint8_t>* rgb, int32_t width, int32_t height, int32_t x, int32_t y,
              const uint8_t colour[3]) {
  if (x < 0 || y < 0 || x >= width || y >= height) return;
  uint8_t* p = rgb->data() + (static_cast<size_t>(y) * width + x) * 3;
  std::memcpy(p, colour, 3);
}

// Writes `text` with its top left corner at (x, y), each font pixel `scale` picture pixels.
void DrawText(std::vector<uint8_t>* rgb, int32_t width, int32_t height, int32_t x, int32_t y,
              int32_t scale, const char* text, const uint8_t colour[3]) {
  for (; *text; ++text, x += 4 * scale) {
    const Glyph* glyph = nullptr;
    for (const Glyph& g : kGlyphs)
      if (g.c == *text) glyph = &g;
    if (!glyph) continue;
    for (int32_t row = 0; row < 5; ++row)
      for (int32_t col = 0; col < 3; ++col)
        if (glyph->rows[row] & (4 >> col))
          for (int32_t dy = 0; dy < scale; ++dy)
            for (int32_t dx = 0; dx < scale; ++dx)
              PutPixel(rgb, width, height, x + col * scale + dx, y + row * scale + dy, colour);
  }
}

}  // namespace

FlowField ResampleFlow(const FlowField& flow, int32_t width, int32_t height) {
  FlowField out;
  out.width = width;
  out.height = height;
  out.uv.assign(static_cast<size_t>(width) * height * 2, 0.0f);
  if (flow.width <= 0 || flow.height <= 0 || width <= 0 || height <= 0) return out;
  // Corner-aligned: the last index maps onto the last index.
  double rx = width > 1 ? static_cast<double>(flow.width - 1) / (width - 1) : 0.0;
  double ry = height > 1 ? static_cast<double>(flow.height - 1) / (height - 1) : 0.0;
  double sx = flow.width > 1 && width > 1 ? static_cast<double>(width - 1) / (flow.width - 1) : 1.0;
  double sy =
      flow.height > 1 && height > 1 ? static_cast<double>(height - 1) / (flow.height - 1) : 1.0;
  for (int32_t y = 0; y < height; ++y) {
    double fy = y * ry;
    int32_t y0 = std::min(static_cast<int32_t>(fy), flow.height - 1);
    int32_t y1 = std::min(y0 + 1, flow.height - 1);
    double ty = fy - y0;
    for (int32_t x = 0; x < width; ++x) {
      double fx = x * rx;
      int32_t x0 = std::min(static_cast<int32_t>(fx), flow.width - 1);
      int32_t x1 = std::min(x0 + 1, flow.width - 1);
      double tx = fx - x0;
      for (int32_t c = 0; c < 2; ++c) {
        auto at = [&](int32_t xx, int32_t yy) {
          return static_cast<double>(flow.uv[(static_cast<size_t>(yy) * flow.width + xx) * 2 + c]);
        };
        double top = at(x0, y0) * (1.0 - tx) + at(x1, y0) * tx;
        double bottom = at(x0, y1) * (1.0 - tx) + at(x1, y1) * tx;
        double value = (top * (1.0 - ty) + bottom * ty) * (c == 0 ? sx : sy);
        out.uv[(static_cast<size_t>(y) * width + x) * 2 + c] = static_cast<float>(value);
      }
    }
  }
  return out;
}

float MaxFlowLength(const FlowField& flow) {
  float longest = 0.0f;
  for (size_t i = 0; i + 1 < flow.uv.size(); i += 2) {
    float length = std::hypot(flow.uv[i], flow.uv[i + 1]);
    if (std::isfinite(length)) longest = std::max(longest, length);
  }
  return longest;
}

void FlowColour(float u, float v, float fullLength, uint8_t rgb[3]) {
  if (!std::isfinite(u) || !std::isfinite(v)) {
    rgb[0] = rgb[1] = rgb[2] = 0;
    return;
  }
  double length = std::hypot(static_cast<double>(u), static_cast<double>(v));
  double saturation = fullLength > 0.0f ? std::min(length / fullLength, 1.0) : 0.0;
  double hue = std::atan2(static_cast<double>(v), static_cast<double>(u)) / (2.0 * kPi);
  if (hue < 0.0) hue += 1.0;
  // HSV to RGB with value 1.
  double h6 = hue * 6.0;
  int32_t sector = std::min(static_cast<int32_t>(h6), 5);
  double f = h6 - sector;
  double p = 1.0 - saturation, q = 1.0 - saturation * f, t = 1.0 - saturation * (1.0 - f);
  double r, g, b;
  switch (sector) {
    case 0: r = 1.0; g = t; b = p; break;
    case 1: r = q; g = 1.0; b = p; break;
    case 2: r = p; g = 1.0; b = t; break;
    case 3: r = p; g = q; b = 1.0; break;
    case 4: r = t; g = p; b = 1.0; break;
    default: r = 1.0; g = p; b = q; break;
  }
  rgb[0] = static_cast<uint8_t>(r * 255.0 + 0.5);
  rgb[1] = static_cast<uint8_t>(g * 255.0 + 0.5);
  rgb[2] = static_cast<uint8_t>(b * 255.0 + 0.5);
}

std::vector<uint8_t> FlowToColour(const FlowField& flow, float fullLength) {
  if (fullLength <= 0.0f) fullLength = MaxFlowLength(flow);
  std::vector<uint8_t> rgb(static_cast<size_t>(flow.width) * flow.height * 3);
  for (size_t i = 0; i < static_cast<size_t>(flow.width) * flow.height; ++i)
    FlowColour(flow.uv[2 * i], flow.uv[2 * i + 1], fullLength, &rgb[3 * i]);
  return rgb;
}

void DrawFlowLegend(std::vector<uint8_t>* rgb, int32_t width, int32_t height, float fullLength) {
  int32_t radius = std::clamp(std::min(width, height) / 10, 12, 64);
  int32_t textScale = radius >= 32 ? 2 : 1;
  int32_t textHeight = 5 * textScale + 4;
  int32_t margin = 4;
  int32_t boxSize = 2 * radius + 2 * margin;
  if (width < boxSize + 4 || height < boxSize + textHeight + 4) return;
  int32_t x0 = width - boxSize - 4, y0 = height - boxSize - textHeight - 4;
  const uint8_t dark[3] = {24, 24, 24};
  for (int32_t y = y0; y < y0 + boxSize + textHeight; ++y)
    for (int32_t x = x0; x < x0 + boxSize; ++x) PutPixel(rgb, width, height, x, y, dark);
  int32_t cx = x0 + margin + radius, cy = y0 + margin + radius;
  float unit = fullLength > 0.0f ? fullLength : 1.0f;
  for (int32_t dy = -radius; dy <= radius; ++dy)
    for (int32_t dx = -radius; dx <= radius; ++dx) {
      if (dx * dx + dy * dy > radius * radius) continue;
      uint8_t colour[3];
      FlowColour(dx * unit / radius, dy * unit / radius, unit, colour);
      PutPixel(rgb, width, height, cx + dx, cy + dy, colour);
    }
  char label[32];
  std::snprintf(label, sizeof label, "%.1fpx", static_cast<double>(fullLength));
  const uint8_t white[3] = {235, 235, 235};
  DrawText(rgb, width, height, x0 + margin, y0 + boxSize, textScale, label, white);
}

}  // namespace flowblur
