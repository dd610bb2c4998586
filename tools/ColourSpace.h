// flowblur: motion blur in linear light: which colour space a clip's values are encoded in,
// and the conversion of a frame's colour channels to scene-linear values and back, through
// OpenImageIO's colour management (OpenColorIO; $OCIO is honoured).
#pragma once
#include <OpenImageIO/color.h>

#include <string>

#include "tools/ImageFiles.h"

namespace flowblur {

// What --colorspace asks for.
struct ColourChoice {
  enum class Mode {
    kAuto,   // from the file: its `oiio:ColorSpace`; EXR and other float files are linear
    kNone,   // the stored values go to the plug-in as they are
    kNamed,  // the values are encoded in `name` (linear, srgb, rec709 or a name of the config)
  };
  Mode mode = Mode::kAuto;
  std::string name;  // with kNamed
};
// "auto", "none", or a colour space name (checked later against the colour configuration).
// False with a message for an empty text.
bool ParseColourChoice(const std::string& text, ColourChoice* choice, std::string* error);

// The space a clip's values are encoded in, for a choice and the clip's first frame: empty
// when they go to the plug-in as stored (none; a linear space; auto on a file that says
// nothing, e.g. a TIFF without a colour space). Auto takes `oiio:ColorSpace`, and a float or
// half file without one (EXR) as linear.
std::string EncodedSpaceFor(const ColourChoice& choice, const FrameInfo& first);

// Converts the colour channels of frames between an encoded space and scene-linear values.
// Alpha and every other channel are left alone (samples as stored, not premultiplied). A
// grey frame is converted as R = G = B and keeps the red result. Immutable once created;
// safe to use from several threads.
class LinearLight {
 public:
  // For `space` ("sRGB", "Rec709", or any name of the configuration; case as the
  // configuration takes it). False with a message naming it when the configuration does not
  // know it or cannot convert it.
  bool Create(const std::string& space, std::string* error);
  const std::string& Space() const { return space_; }
  void ToLinear(Frame* frame) const { Apply(*toLinear_, frame); }
  void FromLinear(Frame* frame) const { Apply(*fromLinear_, frame); }

 private:
  static void Apply(const OIIO::ColorProcessor& processor, Frame* frame);
  std::string space_;
  OIIO::ColorProcessorHandle toLinear_, fromLinear_;
};

}  // namespace flowblur
