// flowblur: `flowblur demo --retime`: the demo clip in slow motion, with a contact sheet of
// source frames, made frames and their flow.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "tools/Demo.h"
#include "tools/DemoClip.h"
#include "tools/Messages.h"
#include "tools/RetimeCommand.h"

namespace flowblur {

namespace {

std::string Numbered(const std::string& folder, const char* stem, int32_t number) {
  char name[64];
  std::snprintf(name, sizeof name, "/%s.%04d.png", stem, number);
  return folder + name;
}

}  // namespace

int RunRetimeDemo(const std::string& folder, const RetimeOptions& base, int32_t width,
                  int32_t height, int32_t frames) {
  std::string error;
  int code = PrepareDemoFolder(folder, {"/input", "/retime", "/retime-flow", "/truth"});
  if (code != kExitOk) return code;
  DemoClip clip(width, height, frames);
  if (!base.run.quiet)
    Say("rendering the demo clip: " + std::to_string(frames) + " frames of " +
        std::to_string(width) + "x" + std::to_string(height));
  // Beside the input, what a camera running twice as fast would have shot: the clip at every
  // output time of the half-speed run, and one half frame beyond, to measure the made frames by.
  if ((code = WriteDemoFrames(clip, folder + "/input", frames, 1.0)) != kExitOk ||
      (code = WriteDemoFrames(clip, folder + "/truth", 2 * frames, 0.5)) != kExitOk)
    return code;

  RetimeOptions options = base;
  options.run.input = folder + "/input/demo.%04d.png";
  options.run.output = folder + "/retime/demo.%04d.png";
  options.run.flowFolder = folder + "/retime-flow";
  options.run.overwrite = true;
  options.run.haveFrames = false;
  options.haveStart = false;
  code = RunRetime(options);
  if (code != kExitOk) return code;

  // At half speed output 1 + 2k is source frame 1 + k, and the even outputs are made: show
  // three made frames beside the source frame before them and their flow.
  const int32_t made = 2 * (frames - 1) + 1;
  std::vector<int32_t> shown = {made / 6, made / 2, (5 * made) / 6};
  std::vector<Picture> cells;
  for (int32_t& k : shown) {
    if (k % 2 == 0) k += 1;  // output index k (0-based) odd: a made frame
    k = std::min(k, made - 2);
    Picture source, frame, flow;
    if (!ReadPicture(Numbered(folder + "/input", "demo", 1 + k / 2), &source, &error) ||
        !ReadPicture(Numbered(folder + "/retime", "demo", 1 + k), &frame, &error) ||
        !ReadPicture(Numbered(folder + "/retime-flow", "flow", 1 + k), &flow, &error)) {
      Say(error);
      return kExitOutput;
    }
    cells.push_back(HalfSize(source));
    cells.push_back(HalfSize(frame));
    cells.push_back(HalfSize(flow));
  }
  const Picture sheet = ContactSheet(cells, 3, 8);
  OIIO::ImageSpec sheetSpec(sheet.width, sheet.height, 3, OIIO::TypeDesc::UINT8);
  if (!WriteImageSafely(folder + "/retime-sheet.png", sheetSpec, OIIO::TypeDesc::UINT8,
                        sheet.rgb.data(), true, &error)) {
    Say(error);
    return kExitOutput;
  }
  std::printf(
      "flowblur demo (retime) written to %s/\n"
      "  input/demo.####.png        the clip (%d frames)\n"
      "  retime/demo.####.png       at half speed (%d frames; every other one made)\n"
      "  retime-flow/flow.####.png  the motion each made frame was moved along\n"
      "  truth/demo.####.png        the clip truly rendered at those times (and half a frame on)\n"
      "  retime-sheet.png           source | made frame | flow for outputs %d, %d, %d\n",
      folder.c_str(), frames, made, shown[0] + 1, shown[1] + 1, shown[2] + 1);
  return kExitOk;
}

}  // namespace flowblur
