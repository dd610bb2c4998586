// flowblur: the frei0r entry points, the only names the plug-in exports.
// The header declares its functions without C linkage of its own.
extern "C" {
#include <frei0r.h>
}

#include <atomic>
#include <new>

#include "frei0r/FlowBlurFilter.h"
#include "frei0r/Frei0rProcessors.h"

using frei0rblur::FlowBlurFilter;

namespace {

constexpr int kParamCount = 2;

// Loads of the plug-in that have not been undone: hosts load it once per filter they build.
std::atomic<int> gInits{0};

FlowBlurFilter* Instance(f0r_instance_t instance) { return static_cast<FlowBlurFilter*>(instance); }

}  // namespace

extern "C" {

int f0r_init(void) {
  ++gInits;
  return 1;
}

void f0r_deinit(void) {
  // The processors are not needed while no host holds the plug-in.
  if (--gInits <= 0) {
    gInits = 0;
    frei0rblur::StopProcessors();
  }
}

void f0r_get_plugin_info(f0r_plugin_info_t* info) {
  if (!info) return;
  info->name = "flowblur";
  info->author = "flowblur";
  info->plugin_type = F0R_PLUGIN_TYPE_FILTER;
  info->color_model = F0R_COLOR_MODEL_RGBA8888;
  info->frei0r_version = FREI0R_MAJOR_VERSION;
  info->major_version = 1;
  info->minor_version = 0;
  info->num_params = kParamCount;
  info->explanation =
      "Optical-flow motion blur: each frame is smeared along the motion measured from the "
      "frame before it. The first frame, and the frame after a seek, pass through unchanged.";
}

void f0r_get_param_info(f0r_param_info_t* info, int index) {
  if (!info) return;
  switch (index) {
    case 0:
      info->name = "amount";
      info->type = F0R_PARAM_DOUBLE;
      info->explanation =
          "Amount of Blur, a fraction of the frame-to-frame motion from -2 to 10, sent as "
          "(amount + 2) / 12: 0.1667 is none, 0.2083 is 0.5 (default), 0.25 is 1, 1 is 10; "
          "below 0.1667 sharpens along the motion";
      break;
    case 1:
      info->name = "draft";
      info->type = F0R_PARAM_BOOL;
      info->explanation =
          "Draft quality: the motion is measured at a quarter of the frame size instead of "
          "half (faster, coarser)";
      break;
    default:
      break;
  }
}

f0r_instance_t f0r_construct(unsigned int width, unsigned int height) {
  // The frame-sized buffers come with the first frame, so that a failure there passes
  // frames through instead of refusing the filter.
  return new (std::nothrow) FlowBlurFilter(width, height);
}

void f0r_destruct(f0r_instance_t instance) { delete Instance(instance); }

void f0r_set_param_value(f0r_instance_t instance, f0r_param_t param, int index) {
  if (!instance || !param || index < 0 || index >= kParamCount) return;
  // Both parameters are doubles (a frei0r boolean is a double too).
  Instance(instance)->SetParam(index, *static_cast<const double*>(param));
}

void f0r_get_param_value(f0r_instance_t instance, f0r_param_t param, int index) {
  if (!instance || !param || index < 0 || index >= kParamCount) return;
  *static_cast<double*>(param) = Instance(instance)->GetParam(index);
}

void f0r_update(f0r_instance_t instance, double time, const uint32_t* inframe,
                uint32_t* outframe) {
  if (instance) Instance(instance)->Update(time, inframe, outframe);
}

// For hosts that call every plug-in through the two-input form: a filter reads the first.
void f0r_update2(f0r_instance_t instance, double time, const uint32_t* inframe1,
                 const uint32_t* /*inframe2*/, const uint32_t* /*inframe3*/,
                 uint32_t* outframe) {
  f0r_update(instance, time, inframe1, outframe);
}

}  // extern "C"
