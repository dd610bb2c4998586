// flowblur: the demo command and the contact sheet that shows its result.
#include "tools/Demo.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "tools/DemoClip.h"
#include "tools/ImageFiles.h"
#include "tools/Messages.h"
#include "tools/MovieFiles.h"

namespace flowblur {
namespace {

constexpr const char* kMarker = kDemoMarker;

// The blurred frames as one movie beside them.
bool WriteDemoMovie(const std::string& folder, int32_t frames, std::string* error) {
  MovieWriter writer;
  for (int32_t t = 0; t < frames; ++t) {
    char name[64];
    std::snprintf(name, sizeof name, "/output/demo.%04d.png", t + 1);
    Frame frame;
    if (!ReadFrame(folder + name, &frame, error)) return false;
    if (t == 0) {
      MovieSettings settings;
      settings.width = frame.info.width;
      settings.height = frame.info.height;
      settings.rate = {24, 1};
      settings.tags.primaries = 1;  // BT.709 primaries, the sRGB curve: as the PNGs are
      settings.tags.transfer = 13;
      if (!writer.Open(folder + "/output/demo.mp4", settings, true, error)) return false;
    }
    if (!writer.Write(frame, error)) return false;
  }
  return writer.Finish(error);
}

}  // namespace

Picture HalfSize(const Picture& picture) {
  Picture half;
  half.width = picture.width / 2;
  half.height = picture.height / 2;
  half.rgb.resize(static_cast<size_t>(half.width) * half.height * 3);
  for (int32_t y = 0; y < half.height; ++y)
    for (int32_t x = 0; x < half.width; ++x)
      for (int c = 0; c < 3; ++c) {
        auto at = [&](int32_t xx, int32_t yy) {
          return static_cast<int32_t>(
              picture.rgb[(static_cast<size_t>(yy) * picture.width + xx) * 3 + c]);
        };
        int32_t sum = at(2 * x, 2 * y) + at(2 * x + 1, 2 * y) + at(2 * x, 2 * y + 1) +
                      at(2 * x + 1, 2 * y + 1);
        half.rgb[(static_cast<size_t>(y) * half.width + x) * 3 + c] =
            static_cast<uint8_t>((sum + 2) / 4);
      }
  return half;
}

Picture Crop(const Picture& picture, int32_t x, int32_t y, int32_t width, int32_t height) {
  x = std::clamp(x, 0, picture.width);
  y = std::clamp(y, 0, picture.height);
  width = std::clamp(width, 0, picture.width - x);
  height = std::clamp(height, 0, picture.height - y);
  Picture crop;
  crop.width = width;
  crop.height = height;
  crop.rgb.resize(static_cast<size_t>(width) * height * 3);
  for (int32_t row = 0; row < height; ++row)
    std::memcpy(&crop.rgb[static_cast<size_t>(row) * width * 3],
                &picture.rgb[(static_cast<size_t>(y + row) * picture.width + x) * 3],
                static_cast<size_t>(width) * 3);
  return crop;
}

Picture ContactSheet(const std::vector<Picture>& cells, int32_t columns, int32_t gap) {
  Picture sheet;
  if (cells.empty() || columns <= 0) return sheet;
  int32_t cellW = 0, cellH = 0;
  for (const Picture& p : cells) {
    cellW = std::max(cellW, p.width);
    cellH = std::max(cellH, p.height);
  }
  int32_t rows = static_cast<int32_t>((cells.size() + columns - 1) / columns);
  sheet.width = columns * cellW + (columns + 1) * gap;
  sheet.height = rows * cellH + (rows + 1) * gap;
  sheet.rgb.assign(static_cast<size_t>(sheet.width) * sheet.height * 3, 40);
  for (size_t i = 0; i < cells.size(); ++i) {
    const Picture& p = cells[i];
    int32_t x0 = gap + static_cast<int32_t>(i % columns) * (cellW + gap);
    int32_t y0 = gap + static_cast<int32_t>(i / columns) * (cellH + gap);
    for (int32_t row = 0; row < p.height; ++row)
      std::memcpy(&sheet.rgb[(static_cast<size_t>(y0 + row) * sheet.width + x0) * 3],
                  &p.rgb[static_cast<size_t>(row) * p.width * 3], static_cast<size_t>(p.width) * 3);
  }
  return sheet;
}

int PrepareDemoFolder(const std::string& folder, std::initializer_list<const char*> subfolders) {
  const std::string marker = folder + "/" + kMarker;
  if (HasEntries(folder) && access(marker.c_str(), F_OK) != 0) {
    Say("demo folder '" + folder +
        "' already holds other files; name an empty or new folder (the demo only replaces its "
        "own earlier results)");
    return kExitOutput;
  }
  std::string error;
  for (const char* sub : subfolders)
    if (!PrepareOutputFolder(folder + sub, &error)) {
      Say(error);
      return kExitOutput;
    }
  const int fd = open(marker.c_str(), O_WRONLY | O_CREAT, 0644);
  if (fd >= 0) close(fd);
  return kExitOk;
}

int WriteDemoFrames(const DemoClip& clip, const std::string& folder, int32_t count, double step) {
  std::vector<uint8_t> rgb(static_cast<size_t>(clip.Width()) * clip.Height() * 3);
  OIIO::ImageSpec imageSpec(clip.Width(), clip.Height(), 3, OIIO::TypeDesc::UINT8);
  imageSpec.attribute("oiio:ColorSpace", "sRGB");
  std::string error;
  for (int32_t k = 0; k < count; ++k) {
    clip.Render8(step * k, rgb.data());
    char name[64];
    std::snprintf(name, sizeof name, "/demo.%04d.png", k + 1);
    if (!WriteImageSafely(folder + name, imageSpec, OIIO::TypeDesc::UINT8, rgb.data(), true,
                          &error)) {
      Say(error);
      return kExitOutput;
    }
  }
  return kExitOk;
}

int RunDemo(const std::string& folder, const BatchOptions& base, int32_t width, int32_t height,
            int32_t frames, bool movie) {
  std::string error;
  int code = PrepareDemoFolder(folder, {"/input", "/output", "/flow"});
  if (code != kExitOk) return code;
  DemoClip clip(width, height, frames);
  if (!base.quiet)
    Say("rendering the demo clip: " + std::to_string(frames) + " frames of " +
        std::to_string(width) + "x" + std::to_string(height));
  if ((code = WriteDemoFrames(clip, folder + "/input", frames, 1.0)) != kExitOk) return code;

  BatchOptions options = base;
  options.input = folder + "/input/demo.%04d.png";
  options.output = folder + "/output/demo.%04d.png";
  options.motionFrom.clear();
  options.haveFrames = false;
  options.haveOutDepth = false;
  options.overwrite = true;
  options.flowFolder = folder + "/flow";
  options.flowExr = false;
  code = RunBatch(options);
  if (code != kExitOk) return code;
  if (movie && !WriteDemoMovie(folder, frames, &error)) {
    Say(error);
    return kExitOutput;
  }

  // The sheet: for three frames, input | output | flow at half size; then one row at full
  // size around the disc in the middle frame, where the blur is longest.
  std::vector<int32_t> shown = {frames / 6, frames / 2, (5 * frames) / 6};
  std::vector<Picture> cells;
  for (int32_t t : shown) {
    char name[64];
    std::snprintf(name, sizeof name, "demo.%04d.png", t + 1);
    std::snprintf(name + 32, 32, "flow.%04d.png", t + 1);
    Picture in, out, flow;
    if (!ReadPicture(folder + "/input/" + name, &in, &error) ||
        !ReadPicture(folder + "/output/" + name, &out, &error) ||
        !ReadPicture(folder + "/flow/" + std::string(name + 32), &flow, &error)) {
      Say(error);
      return kExitOutput;
    }
    cells.push_back(HalfSize(in));
    cells.push_back(HalfSize(out));
    cells.push_back(HalfSize(flow));
    if (t == shown[1]) {
      double cx, cy;
      clip.DiscCentre(t, &cx, &cy);
      int32_t cropW = std::max(width / 2, 1), cropH = std::max(height / 2, 1);
      int32_t x0 = std::clamp(static_cast<int32_t>(cx) - cropW / 2, 0, std::max(width - cropW, 0));
      int32_t y0 = std::clamp(static_cast<int32_t>(cy) - cropH / 2, 0, std::max(height - cropH, 0));
      Picture crops[3] = {Crop(in, x0, y0, cropW, cropH), Crop(out, x0, y0, cropW, cropH),
                          Crop(flow, x0, y0, cropW, cropH)};
      for (Picture& p : crops) cells.push_back(p);
    }
  }
  // Put the full-size row last.
  std::rotate(cells.begin() + 6, cells.begin() + 9, cells.end());
  Picture sheet = ContactSheet(cells, 3, 8);
  OIIO::ImageSpec sheetSpec(sheet.width, sheet.height, 3, OIIO::TypeDesc::UINT8);
  std::string sheetPath = folder + "/contact-sheet.png";
  if (!WriteImageSafely(sheetPath, sheetSpec, OIIO::TypeDesc::UINT8, sheet.rgb.data(), true,
                        &error)) {
    Say(error);
    return kExitOutput;
  }
  std::printf(
      "flowblur demo written to %s/\n"
      "  input/demo.####.png    the clip (%d frames)\n"
      "  output/demo.####.png   blurred by the plug-in (amount %.2f, %s quality)\n"
      "  flow/flow.####.png     the motion it found (hue: direction, saturation: length)\n"
      "  contact-sheet.png      input | output | flow for frames %d, %d, %d, then a 1:1 crop\n"
      "%s",
      folder.c_str(), frames, static_cast<double>(base.controls.amount),
      base.controls.quality == 1 ? "draft" : "best", shown[0] + 1, shown[1] + 1, shown[2] + 1,
      movie ? "  output/demo.mp4        the blurred frames as a movie (h264, 24 fps)\n" : "");
  return kExitOk;
}

bool HasEntries(const std::string& folder) {
  DIR* dir = opendir(folder.c_str());
  if (!dir) return false;
  bool any = false;
  while (dirent* entry = readdir(dir))
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) any = true;
  closedir(dir);
  return any;
}

bool ReadPicture(const std::string& path, Picture* picture, std::string* error) {
  Frame frame;
  if (!ReadFrame(path, &frame, error)) return false;
  picture->width = frame.info.width;
  picture->height = frame.info.height;
  picture->rgb.resize(static_cast<size_t>(picture->width) * picture->height * 3);
  for (size_t i = 0; i < static_cast<size_t>(picture->width) * picture->height; ++i)
    for (int c = 0; c < 3; ++c) {
      float v = frame.pixels[i * frame.info.channels + frame.info.colour[c]];
      v = std::clamp(v, 0.0f, 1.0f);
      picture->rgb[i * 3 + c] = static_cast<uint8_t>(v * 255.0f + 0.5f);
    }
  return true;
}

}  // namespace flowblur
