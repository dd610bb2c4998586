// flowblur fuzzing: the batch host's file layer on bytes in memory. The first byte picks the
// reader (PNG, JPEG, TIFF, EXR, DPX); a frame that reads is packed for the plug-in and back.
#include <OpenImageIO/imageio.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/ImageFiles.h"

namespace {

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "flowblur file fuzz: %s\n", what.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // One thread: OpenImageIO is not instrumented, and its pool would only add noise.
  OIIO::attribute("threads", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const char* const kNames[] = {"f.png", "f.jpg", "f.tif", "f.exr", "f.dpx"};
  if (size == 0) return 0;
  const std::string name = kNames[data[0] % 5];
  flowblur::Frame frame;
  std::string error;
  if (!flowblur::ReadFrameFromMemory(name, data + 1, size - 1, &frame, &error)) {
    // Every refusal is one message that names the frame.
    if (error.find("'" + name + "'") == std::string::npos) Fail("message without the name: " + error);
    if (!frame.pixels.empty() && frame.info.width > 0) Fail("pixels kept after a refusal");
    return 0;
  }
  const flowblur::FrameInfo& f = frame.info;
  const size_t samples = static_cast<size_t>(f.width) * f.height * f.channels;
  if (frame.pixels.size() != samples) Fail("pixel count does not match the header");
  if (samples > static_cast<size_t>(flowblur::kMaxFrameSamples)) Fail("a frame over the limit");
  for (int32_t format : {24, 48, 49}) {
    std::vector<uint8_t> packed(
        static_cast<size_t>(flowblur::PackedFrameBytes(f.width, f.height, format)));
    flowblur::PackColour(frame, format, packed.data());
    flowblur::UnpackColour(packed.data(), format, &frame);
  }
  return 0;
}
