// flowblur: pictures of a flow field for people: hue for direction, saturation for length,
// with a legend wheel, and the corner-aligned resampling of a flow to the frame's grid.
#pragma once
#include <cstdint>
#include <vector>

namespace flowblur {

// A flow field: 2 interleaved floats a pixel (u to the right, v downward), rows packed, row 0 on
// top.
struct FlowField {
  int32_t width = 0;
  int32_t height = 0;
  std::vector<float> uv;
};

// The flow mapped onto a grid of width x height: positions corner-aligned (ratio of last
// indices, as everywhere in the library), read bilinearly, and the vectors scaled by the same
// ratios so they are in pixels of the new grid. A grid of one column or row keeps scale 1 on
// that axis.
FlowField ResampleFlow(const FlowField& flow, int32_t width, int32_t height);

// Length of the longest vector (0 for an empty or motionless field; non-finite vectors are
// skipped).
float MaxFlowLength(const FlowField& flow);

// One vector as a colour: hue from its direction (right red, down yellow-green, left cyan, up
// violet), saturation from its length over `fullLength` (capped at 1), value 1; zero motion is
// white. Non-finite vectors are black.
void FlowColour(float u, float v, float fullLength, uint8_t rgb[3]);

// The whole field as 8-bit RGB (3 bytes a pixel, rows packed). fullLength 0 or less takes the
// field's own longest vector (so the strongest motion is fully saturated).
std::vector<uint8_t> FlowToColour(const FlowField& flow, float fullLength);

// Draws the legend into the lower right corner of an RGB8 picture: a wheel whose every point
// shows the colour of the vector from its centre to that point, its rim standing for
// `fullLength`, inside a dark frame, and that length written under it in pixels ("12.5px").
// Skipped when the picture is too small to hold it.
void DrawFlowLegend(std::vector<uint8_t>* rgb, int32_t width, int32_t height, float fullLength);

}  // namespace flowblur
