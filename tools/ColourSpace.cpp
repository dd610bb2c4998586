// flowblur: colour spaces of clips and their conversion to linear light and back.
#include "tools/ColourSpace.h"

#include <vector>

namespace flowblur {
namespace {

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool IsLinearName(const std::string& name) {
  const std::string n = Lower(name);
  return n == "linear" || n == "scene_linear" || n == "lin_srgb" || n == "lin_rec709" ||
         n == "acescg" || n == "aces2065-1";
}

// The configuration's scene-linear space: the `scene_linear` role of a user's $OCIO
// configuration, else "linear" (the built-in configuration's name).
std::string LinearSpace(const OIIO::ColorConfig& config) {
  const char* role = config.getColorSpaceNameByRole("scene_linear");
  return role && *role ? role : "linear";
}

}  // namespace

bool ParseColourChoice(const std::string& text, ColourChoice* choice, std::string* error) {
  const std::string lower = Lower(text);
  if (text.empty()) {
    *error = "--colorspace needs auto, none, linear, srgb, rec709 or a colour space name";
    return false;
  }
  if (lower == "auto") {
    *choice = {ColourChoice::Mode::kAuto, ""};
  } else if (lower == "none") {
    *choice = {ColourChoice::Mode::kNone, ""};
  } else {
    // The built-in configuration spells these "sRGB" and "Rec709"; other names go to the
    // configuration as typed.
    std::string name = lower == "srgb" ? "sRGB" : lower == "rec709" ? "Rec709" : text;
    *choice = {ColourChoice::Mode::kNamed, name};
  }
  return true;
}

std::string EncodedSpaceFor(const ColourChoice& choice, const FrameInfo& first) {
  std::string space;
  switch (choice.mode) {
    case ColourChoice::Mode::kNone: return "";
    case ColourChoice::Mode::kNamed: space = choice.name; break;
    case ColourChoice::Mode::kAuto:
      space = first.imageSpec.get_string_attribute("oiio:ColorSpace");
      // A file that says nothing goes as stored: float files are linear by convention (EXR
      // says "Linear"), and of an untagged integer file we cannot know better.
      if (space.empty()) return "";
      break;
  }
  return IsLinearName(space) ? "" : space;
}

bool LinearLight::Create(const std::string& space, std::string* error) {
  // A fresh configuration reads $OCIO now, so a user's configuration is honoured.
  OIIO::ColorConfig config;
  const std::string linear = LinearSpace(config);
  toLinear_ = config.createColorProcessor(space, linear);
  fromLinear_ = config.createColorProcessor(linear, space);
  if (!toLinear_ || !fromLinear_) {
    const std::string why = config.geterror();
    *error = "unknown colour space '" + space + "' (the colour configuration " +
             config.configname() + " has no conversion from it to " + linear +
             (why.empty() ? "" : ": " + why) + ")";
    toLinear_.reset();
    fromLinear_.reset();
    return false;
  }
  space_ = space;
  return true;
}

void LinearLight::Apply(const OIIO::ColorProcessor& processor, Frame* frame) {
  const FrameInfo& f = frame->info;
  const size_t pixels = static_cast<size_t>(f.width) * f.height;
  const size_t channels = static_cast<size_t>(f.channels);
  // The colour channels gathered into RGB rows (they may sit anywhere among the channels).
  std::vector<float> rgb(pixels * 3);
  float* data = frame->pixels.data();
  for (size_t i = 0; i < pixels; ++i)
    for (int c = 0; c < 3; ++c) rgb[i * 3 + c] = data[i * channels + f.colour[c]];
  processor.apply(rgb.data(), f.width, f.height, 3, sizeof(float), 3 * sizeof(float),
                  static_cast<OIIO::stride_t>(f.width) * 3 * sizeof(float));
  const int count = f.grey ? 1 : 3;
  for (size_t i = 0; i < pixels; ++i)
    for (int c = 0; c < count; ++c) data[i * channels + f.colour[c]] = rgb[i * 3 + c];
}

}  // namespace flowblur
