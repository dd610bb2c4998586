// flowblur: `flowblur demo`: the built-in clip written, blurred, and shown on a contact sheet.
#pragma once
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "tools/BatchRun.h"
#include "tools/DemoClip.h"

namespace flowblur {

// Writes the demo clip as 8-bit PNGs into DIR/input, blurs it into DIR/output with the
// controls, threads and quiet flags of `base` (flow pictures into DIR/flow), and writes
// DIR/contact-sheet.png. DIR must be empty, new, or an earlier demo folder (it holds the
// marker file .flowblur-demo); an earlier demo's files are replaced. With `movie`, the
// blurred frames also go into DIR/output/demo.mp4 (h264, 24 frames a second). Returns an
// ExitCode.
int RunDemo(const std::string& folder, const BatchOptions& base, int32_t width, int32_t height,
            int32_t frames, bool movie = false);

// An RGB8 picture (3 bytes a pixel, rows packed).
struct Picture {
  int32_t width = 0, height = 0;
  std::vector<uint8_t> rgb;
};
// Half size by 2x2 means (a trailing odd row or column is dropped).
Picture HalfSize(const Picture& picture);
// The rectangle at (x, y) of width x height, clipped to the picture.
Picture Crop(const Picture& picture, int32_t x, int32_t y, int32_t width, int32_t height);
// Pictures laid out in rows of `columns`, `gap` pixels of dark grey between and around them.
// Every cell is as large as the largest picture.
Picture ContactSheet(const std::vector<Picture>& cells, int32_t columns, int32_t gap);

// The file a demo leaves in its folder, so that either demo may write there again.
inline constexpr const char* kDemoMarker = ".flowblur-demo";
// Readies a demo folder: refused when it holds files but no marker (an earlier demo's folder
// may be written again), then the subfolders made and the marker left. An ExitCode.
int PrepareDemoFolder(const std::string& folder, std::initializer_list<const char*> subfolders);
// The demo clip at times 0, step, 2 step, ... (`count` frames) as 8-bit sRGB PNGs
// FOLDER/demo.0001.png on. An ExitCode, after saying why.
int WriteDemoFrames(const DemoClip& clip, const std::string& folder, int32_t count, double step);
// Whether the folder has anything in it besides . and ..; false for a missing folder.
bool HasEntries(const std::string& folder);
// An image file's colour channels as 8-bit RGB, clamped to 0..1 first, for a contact sheet.
bool ReadPicture(const std::string& path, Picture* picture, std::string* error);

}  // namespace flowblur
