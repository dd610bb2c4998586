// flowblur: the retiming engine served from a frame plan, and the run loop of the commands
// that make new frames (retime, deinterlace).
#include "tools/ResampleRun.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <new>
#include <set>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "fill/InterpolateField.h"
#include "host/SparkHost.h"
#include "image/PLPixelConvert.h"
#include "runtime/NuvMP.h"
#include "shell/spark.h"
#include "tools/Messages.h"
#include "tools/TimeMap.h"

namespace flowblur {

namespace {

int64_t gResampleWritten = 0;

float WhiteOf(int32_t dataType) {
  return dataType == PLUChar ? 255.0f : dataType == PLUShort ? 65535.0f : 1.0f;
}

int32_t AlphaChannel(const FrameInfo& info) {
  const int32_t a = info.imageSpec.alpha_channel;
  return a >= 0 && a < info.channels ? a : -1;
}

}  // namespace

int32_t WorkingTypeFor(SampleDepth depth) {
  return depth == SampleDepth::k8 ? PLUChar : depth == SampleDepth::k16 ? PLUShort : PLFloat;
}

namespace {

// A sample in white units of T: integers scaled, rounded (+ 0.5, truncated) and limited,
// NaN giving 0; floats as they are.
template <class T>
inline T Quantise(float v) {
  if constexpr (std::is_same_v<T, float>) {
    return v;
  } else {
    const float white = std::is_same_v<T, uint8_t> ? 255.0f : 65535.0f;
    float scaled = v * white + 0.5f;
    scaled = !(scaled > 0.0f) ? 0.0f : scaled > white ? white : scaled;
    return static_cast<T>(scaled);
  }
}

// Quantise over a run of samples; four at a time where SSE2 is (max with 0 first gives 0
// for NaN, as the scalar rule does).
template <class T>
void QuantiseRun(const float* in, T* out, size_t n) {
  size_t k = 0;
#if defined(__SSE2__)
  if constexpr (!std::is_same_v<T, float>) {
    const __m128 white = _mm_set1_ps(std::is_same_v<T, uint8_t> ? 255.0f : 65535.0f);
    const __m128 half = _mm_set1_ps(0.5f), zero = _mm_setzero_ps();
    alignas(16) int32_t lanes[4];
    for (; k + 4 <= n; k += 4) {
      const __m128 scaled = _mm_add_ps(_mm_mul_ps(_mm_loadu_ps(in + k), white), half);
      _mm_store_si128(reinterpret_cast<__m128i*>(lanes),
                      _mm_cvttps_epi32(_mm_min_ps(_mm_max_ps(scaled, zero), white)));
      for (int32_t l = 0; l < 4; ++l) out[k + l] = static_cast<T>(lanes[l]);
    }
  }
#endif
  for (; k < n; ++k) out[k] = Quantise<T>(in[k]);
}

// One frame into one working type: the type is chosen once, outside the pixel loop. Frames
// whose channels are R, G, B (and alpha) in order are converted a row at a time.
template <class T>
void ToWorkingAs(const Frame& frame, PLImage* out) {
  const FrameInfo& info = frame.info;
  const int32_t alpha = AlphaChannel(info);
  const int32_t source[4] = {info.colour[0], info.colour[1], info.colour[2], alpha};
  const int32_t channels = info.channels;
  const int32_t pictureChannels = out->channels;  // 3 leaves the matte out
  const size_t width = static_cast<size_t>(out->width);
  const bool rgbInOrder = source[0] == 0 && source[1] == 1 && source[2] == 2;
  const bool same = rgbInOrder && channels == pictureChannels &&
                    (pictureChannels == 3 || source[3] == 3);
  const bool addMatte = rgbInOrder && channels == 3 && pictureChannels == 4 && source[3] < 0;
  std::vector<T> colour(addMatte ? width * 3 : 0);
  const T white = Quantise<T>(1.0f);
  for (int32_t y = 0; y < out->height; ++y) {
    const float* row = frame.pixels.data() + static_cast<size_t>(y) * info.width * channels;
    T* dst = reinterpret_cast<T*>(out->Row(y));
    if (same) {
      QuantiseRun<T>(row, dst, width * channels);
      continue;
    }
    if (addMatte) {
      QuantiseRun<T>(row, colour.data(), width * 3);
      for (size_t x = 0; x < width; ++x) {
        dst[4 * x] = colour[3 * x];
        dst[4 * x + 1] = colour[3 * x + 1];
        dst[4 * x + 2] = colour[3 * x + 2];
        dst[4 * x + 3] = white;
      }
      continue;
    }
    for (size_t x = 0; x < width; ++x, row += channels, dst += pictureChannels)
      for (int32_t c = 0; c < pictureChannels; ++c)
        dst[c] = Quantise<T>(source[c] >= 0 ? row[source[c]] : 1.0f);
  }
}

}  // namespace

void ToWorking(const Frame& frame, int32_t dataType, PLImage* out) {
  if (dataType == PLUChar)
    ToWorkingAs<uint8_t>(frame, out);
  else if (dataType == PLUShort)
    ToWorkingAs<uint16_t>(frame, out);
  else
    ToWorkingAs<float>(frame, out);
}

namespace {

// The picture's samples of one type into the frame's floats. The pairs (picture channel,
// frame channel) are worked out once; a grey frame's one channel takes R.
template <class T>
void FromWorkingAs(const PLImage& picture, Frame* frame, const int32_t (*pairs)[2],
                   int32_t pairCount) {
  const int32_t channels = frame->info.channels;
  const int32_t width = picture.width;
  const int32_t step = picture.channels;
  // 8-bit samples through a table of the same quotients (a division per sample was most of
  // this step).
  float whiteUnits[256];
  if constexpr (std::is_same_v<T, uint8_t>)
    for (int32_t v = 0; v < 256; ++v) whiteUnits[v] = static_cast<float>(v) / WhiteOf(PLUChar);
  for (int32_t y = 0; y < picture.height; ++y) {
    float* row = frame->pixels.data() + static_cast<size_t>(y) * frame->info.width * channels;
    const T* src = reinterpret_cast<const T*>(picture.Row(y));
    for (int32_t k = 0; k < pairCount; ++k) {
      const int32_t from = pairs[k][0], to = pairs[k][1];
      float* d = row + to;
      const T* s = src + from;
      for (int32_t x = 0; x < width; ++x, d += channels, s += step) {
        if constexpr (std::is_same_v<T, float>)
          *d = PLLoad<float>(s);
        else if constexpr (std::is_same_v<T, uint8_t>)
          *d = whiteUnits[*s];
        else
          *d = static_cast<float>(PLLoad<T>(s)) / WhiteOf(PLUShort);
      }
    }
  }
}

}  // namespace

void FromWorking(const PLImage& picture, Frame* frame) {
  const FrameInfo& info = frame->info;
  const int32_t alpha = AlphaChannel(info);
  // Each picture channel's frame channel: the matte to alpha, R, G, B to the colour channels.
  // For a grey frame the three colour indices are one channel, which takes R.
  int32_t targets[4];
  for (int32_t c = 0; c < 4; ++c) targets[c] = c == 3 ? alpha : info.colour[c];
  int32_t pairs[4][2];
  int32_t pairCount = 0;
  for (int32_t c = 0; c < picture.channels; ++c) {
    bool taken = targets[c] < 0 || targets[c] >= info.channels;
    for (int32_t e = 0; e < c; ++e) taken = taken || targets[e] == targets[c];
    if (taken) continue;
    pairs[pairCount][0] = c;
    pairs[pairCount][1] = targets[c];
    ++pairCount;
  }
  if (picture.dataType == PLUChar)
    FromWorkingAs<uint8_t>(picture, frame, pairs, pairCount);
  else if (picture.dataType == PLUShort)
    FromWorkingAs<uint16_t>(picture, frame, pairs, pairCount);
  else
    FromWorkingAs<float>(picture, frame, pairs, pairCount);
}

// ---- The engine over a plan's frames ---------------------------------------------------

struct PlannedChronar::Picture {
  std::unique_ptr<PLImage> image;
  std::unique_ptr<NuvImageInternal> wrapper;
  std::unique_ptr<NuvImage> view;
};

// A frame's pictures: the one shown and, when that one leaves the matte out, the one
// estimated on.
struct PlannedChronar::Served {
  std::unique_ptr<Picture> shown, motion;
};

PlannedChronar::PlannedChronar(int32_t width, int32_t height, int32_t dataType,
                               int64_t clipFrames)
    : width_(width), height_(height), dataType_(dataType), clipFrames_(clipFrames) {
  interpolation = 1;
  useFlow = 1;
  shutter = 0.0f;
  // A clip's frame is the same picture in every render: the engine may keep the prepared
  // motion pyramids of the last two frames from one pair to the next.
  stableFrames = 1;
}

PlannedChronar::~PlannedChronar() = default;

void PlannedChronar::SetShutterFraction(float fraction) {
  shutterFraction_ = fraction;
  // The engine blurs only above this; the amount itself comes from OverrideAmount.
  shutter = fraction > 0.005f ? fraction : 0.0f;
}

int32_t PlannedChronar::OverrideAmount(float* amount) {
  if (!(shutterFraction_ > 0.0f)) return 0;
  // The flow spans one source frame; an output interval spans |t1 - t0| of them.
  float t0 = 0.0f, t1 = 0.0f;
  MapTime(renderTime_, &t0);
  MapTime(renderTime_ + 1.0f, &t1);
  float a = shutterFraction_ * std::fabs(t1 - t0);
  *amount = a > 20.0f ? 20.0f : a;
  return 1;
}

void PlannedChronar::Serve(const Inputs* inputs) {
  inputs_ = inputs;
  if (!inputs) return;
  // Pictures of frames the next render no longer reads are let go; the others are kept, so
  // that each frame is converted once however many renders read it.
  for (auto it = served_.begin(); it != served_.end();)
    it = inputs->count({kFrontClip, it->first}) ? std::next(it) : served_.erase(it);
}

int32_t PlannedChronar::ChoosePictureChannels(const FrameInfo& info) {
  // The matte is worth carrying when the clip has alpha; the shutter blur, the dissolve and
  // the forward warp are not taken to treat each channel alone, and fields are made whole
  // from four.
  const bool matteUnused = AlphaChannel(info) < 0 && !(shutter > 0.005f) && interpolation != 2 &&
                       warpStyle <= 1 && keptRows_ < 0;
  pictureChannels_ = matteUnused ? 3 : 4;
  return pictureChannels_;
}

int32_t PlannedChronar::ServePicture(NuvImage** view, int32_t frameNumber, bool motion) {
  *view = nullptr;
  if (!inputs_ || frameNumber < 0) return PLErrParameter;
  // Past the clip's end only with weight 0 (a time on the last frame): that frame serves.
  const int64_t offset = std::min<int64_t>(frameNumber, clipFrames_ - 1);
  // Motion pictures keep the matte: the estimator's luma of four channels is another rule
  // than of three, and the flow must not depend on how many are shown.
  const int32_t channels = motion ? 4 : pictureChannels_;
  std::unique_ptr<Served>& served = served_[offset];
  if (!served) served = std::make_unique<Served>();
  std::unique_ptr<Picture>& picture =
      channels == pictureChannels_ ? served->shown : served->motion;
  if (picture) {
    *view = picture->view.get();
    return 0;
  }
  auto found = inputs_->find({kFrontClip, offset});
  if (found == inputs_->end()) {
    lastError_ = "frame " + std::to_string(offset) + " of the clip is not in the plan";
    return PLErrParameter;
  }
  auto made = std::make_unique<Picture>();
  made->image.reset(new PLImage(0, width_, height_, channels, dataType_, 0));
  if (made->image->errorCode) return made->image->errorCode;
  ToWorking(*found->second, dataType_, made->image.get());
  if (keptRows_ >= 0 && height_ > 1) {
    // Height is even for field work, so lastRow is odd: field 2 rebuilds the even rows.
    std::unique_ptr<PLImage> whole(new PLImage(0, width_, height_, channels, dataType_, 0));
    if (whole->errorCode) return whole->errorCode;
    InterpolateField(whole.get(), made->image.get(), PLFieldAverage, keptRows_ == 1 ? 2 : 3);
    made->image = std::move(whole);
  }
  made->wrapper.reset(new NuvImageInternal(made->image.get()));
  made->view.reset(new NuvImage());
  made->view->Attach(made->wrapper.get());
  *view = made->view.get();
  picture = std::move(made);
  return 0;
}

int32_t PlannedChronar::GetFrame(NuvImage** view, int32_t frameNumber) {
  return ServePicture(view, frameNumber, false);
}

int32_t PlannedChronar::GetMotionFrame(NuvImage** frame, int32_t frameNumber) {
  return ServePicture(frame, frameNumber, true);
}

// Pictures stay with the engine's subclass until Serve lets them go (the engine only reads
// them).
void PlannedChronar::ReleaseFrame(NuvImage*) {}

int32_t PlannedChronar::GetMatte(NuvImage** matte, int32_t, int32_t) {
  *matte = nullptr;
  return PLErrParameter;  // no layers
}

void PlannedChronar::ReleaseMatte(NuvImage* matte) { ReleaseFrame(matte); }

void PlannedChronar::MapTime(float time, float* sourceTime) {
  *sourceTime = times_ ? static_cast<float>(SourceTimeAt(*times_, static_cast<double>(time)) -
                                            static_cast<double>(timesFirst_))
                       : time;
}

int32_t PlannedChronar::FrameKind(float time) {
  const double whole = std::floor(static_cast<double>(time));
  // Outside the clip a time is held (the engine then shows the nearest frame); one shot.
  return whole >= 0.0 && whole < static_cast<double>(clipFrames_) ? 0 : 3;
}

bool PlannedChronar::Render(double time, int32_t quality, PLImage* out, std::string* error) {
  NuvImageInternal wrapper(out);
  NuvImage view;
  view.Attach(&wrapper);
  lastError_.clear();
  renderTime_ = static_cast<float>(time);
  const int32_t status = RenderAtTime(&view, renderTime_, quality, 1, nullptr);
  if (status == 0) return true;
  if (!lastError_.empty())
    *error = lastError_;
  else if (status == PLErrInterrupted)
    *error = "interrupted";
  else if (status == PLErrOutOfMemory)
    *error = "out of memory";
  else
    *error = "the retiming engine failed (error " + std::to_string(status) + ")";
  return false;
}

bool PlannedChronar::LastFlow(FlowField* flow) const {
  // Interpolation 1 and 2 keep the flow from i to j as backwardFlow; 0 keeps one flow whose
  // direction follows the nearer frame, shown as it is.
  if (!internal) return false;
  const PLImage* f = interpolation == 0 ? internal->forwardFlow : internal->backwardFlow;
  if (!f) return false;
  flow->width = f->width;
  flow->height = f->height;
  flow->uv.resize(static_cast<size_t>(f->width) * f->height * 2);
  for (int32_t y = 0; y < f->height; ++y)
    for (int32_t x = 0; x < f->width * 2; ++x)
      flow->uv[static_cast<size_t>(y) * f->width * 2 + x] =
          PLLoad<float>(f->Row(y) + x * f->bytesPerSample);
  return true;
}

// ---- The run ---------------------------------------------------------------------------

void UseWorkers(int32_t threads, int32_t width, int32_t height) {
  NuvMPSetThreadCount(threads);
  sparkhost::SetProcessors(threads);
  // The host divides a frame's pixels among its processors; the library's stages ask it.
  Width = width;
  Height = height;
  sparkhost::SetFramePixels(static_cast<int64_t>(width) * height);
}

int64_t LastResampleFramesWritten() { return gResampleWritten; }

namespace {

// A frame's floats as the integer samples the writer would store, for a file whose every
// channel is 8- or 16-bit. The writer scales by the type's top, rounds to nearest and clamps;
// its rounding of exact halves depends on how the image library was built, so a sample within
// 1/64 of a half (or NaN) is not decided here: false, and the writer converts the floats
// itself. Made frames of integer inputs are whole multiples of 1 / top and never come near.
template <class T>
bool IntegerSamplesAs(const std::vector<float>& in, std::vector<unsigned char>* bytes) {
  const float top = std::is_same_v<T, uint8_t> ? 255.0f : 65535.0f;
  bytes->resize(in.size() * sizeof(T));
  T* out = reinterpret_cast<T*>(bytes->data());
  const size_t n = in.size();
  size_t k = 0;
  bool undecided = false;
#if defined(__SSE2__)
  // Four at a time, the operations of the loop below: max with 0 first gives 0 for NaN as
  // !(lifted > 0) does.
  const __m128 vTop = _mm_set1_ps(top), vHalf = _mm_set1_ps(0.5f), vZero = _mm_setzero_ps();
  const __m128 vLo = _mm_set1_ps(0.484375f), vHi = _mm_set1_ps(0.515625f);
  const __m128 vAbs = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
  __m128 flags = _mm_setzero_ps();
  alignas(16) int32_t lanes[4];
  for (; k + 4 <= n; k += 4) {
    const __m128 y = _mm_mul_ps(_mm_loadu_ps(in.data() + k), vTop);
    const __m128 r = _mm_min_ps(_mm_max_ps(_mm_add_ps(y, vHalf), vZero), vTop);
    const __m128i sample = _mm_cvttps_epi32(r);
    const __m128 d = _mm_and_ps(_mm_sub_ps(y, _mm_cvtepi32_ps(sample)), vAbs);
    flags = _mm_or_ps(flags, _mm_or_ps(_mm_cmpunord_ps(y, y),
                                       _mm_and_ps(_mm_cmpgt_ps(d, vLo), _mm_cmplt_ps(d, vHi))));
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), sample);
    for (int32_t l = 0; l < 4; ++l) out[k + l] = static_cast<T>(lanes[l]);
  }
  undecided = _mm_movemask_ps(flags) != 0;
#endif
  for (; k < n; ++k) {
    const float y = in[k] * top;
    const float lifted = y + 0.5f;
    const float r = !(lifted > 0.0f) ? 0.0f : lifted > top ? top : lifted;
    const T sample = static_cast<T>(r);
    const float d = std::fabs(y - static_cast<float>(sample));  // up to 0.5 within range
    undecided |= (y != y) | ((d > 0.484375f) & (d < 0.515625f));
    out[k] = sample;
  }
  return !undecided;
}

bool IntegerSamples(const Frame& frame, const OIIO::ImageSpec& imageSpec,
                    std::vector<unsigned char>* bytes, OIIO::TypeDesc* type) {
  for (OIIO::TypeDesc channel : imageSpec.channelformats)
    if (channel != imageSpec.format) return false;
  if (imageSpec.get_int_attribute("oiio:dither", 0) != 0) return false;  // dithers floats
  if (imageSpec.format == OIIO::TypeDesc::UINT8) {
    *type = OIIO::TypeDesc::UINT8;
    return IntegerSamplesAs<uint8_t>(frame.pixels, bytes);
  }
  if (imageSpec.format == OIIO::TypeDesc::UINT16) {
    *type = OIIO::TypeDesc::UINT16;
    return IntegerSamplesAs<uint16_t>(frame.pixels, bytes);
  }
  return false;
}

std::string FlowPath(const std::string& folder, int64_t number) {
  char name[64];
  std::snprintf(name, sizeof name, "/flow.%04lld.png", static_cast<long long>(number));
  return folder + name;
}

struct Setup {
  SequencePattern input, output;
  ClipSpan clip;
  FrameInfo info;
  ResamplePlan whole;
  std::vector<size_t> chosen;  // indices into whole.plan.frames this run makes
  FramePlan plan;              // those frames
  std::vector<std::string> outputs;
  int64_t skipped = 0;
  std::shared_ptr<ClipSource> source;  // the input's files or movie
  std::shared_ptr<ClipSink> sink;      // a movie OUTPUT (files are written below)
};

std::string InputPath(const Setup& s, int64_t offset) {
  return s.input.numbered ? s.input.PathFor(s.clip.first + offset) : s.input.text;
}

int Resolve(const ResampleOptions& options, Setup* s) {
  BatchOptions batch;
  batch.input = options.input;
  batch.output = options.output;
  RunRange range;
  if (int code = ResolveRunRange(batch, &range)) return code;
  s->input = range.input;
  s->output = range.output;
  s->clip = range.clip;
  s->source = range.inputSource;
  std::string error;
  if (!s->source->ReadInfo(s->clip.first, &s->info, &error)) {
    Say(error);
    return kExitInput;
  }
  return kExitOk;
}

int Choose(const ResampleOptions& options, Setup* s) {
  const std::vector<PlannedFrame>& all = s->whole.plan.frames;
  if (all.empty()) {
    Say("the time map gives no output frames");
    return kExitUsage;
  }
  if (IsMoviePattern(s->output) && options.skipExisting) {
    Say("--skip-existing cannot resume movie output " + Quote(s->output.text));
    return kExitUsage;
  }
  if (all.size() > 1 && !s->output.numbered && !IsMoviePattern(s->output)) {
    Say("output " + Quote(s->output.text) +
        " has no frame number (%04d or ####) but the run makes " + std::to_string(all.size()) +
        " frames");
    return kExitUsage;
  }
  const ClipSpan outSpan{all.front().outputNumber,
                         all.back().outputNumber - all.front().outputNumber + 1};
  int64_t first = 0, last = 0;
  std::string error;
  if (!ChooseRenderRange(outSpan, options.haveFrames, options.firstFrame, options.lastFrame,
                         &first, &last, &error)) {
    Say(error.replace(error.find("clip"), 4, "output"));
    return kExitUsage;
  }
  s->plan.clip = s->clip;
  for (size_t k = 0; k < all.size(); ++k) {
    const int64_t n = all[k].outputNumber;
    if (n < first || n > last) continue;
    const std::string path = s->output.numbered ? s->output.PathFor(n) : s->output.text;
    if (options.skipExisting && access(path.c_str(), F_OK) == 0) {
      ++s->skipped;
      continue;
    }
    s->chosen.push_back(k);
    s->plan.frames.push_back(all[k]);
    s->outputs.push_back(path);
  }
  return kExitOk;
}

int CheckInputs(Setup* s) {
  std::string error;
  const std::string firstPath = InputPath(*s, 0);
  for (const FrameRead& read : s->plan.DistinctReads()) {
    const std::string path = InputPath(*s, read.offset);
    if (!s->source->Exists(s->clip.first + read.offset)) {
      Say("input frame " + Quote(path) + " is missing (the sequence runs from " +
          std::to_string(s->clip.first) + " to " + std::to_string(s->clip.Last()) + ")");
      return kExitInput;
    }
    FrameInfo header;
    if (!s->source->ReadInfo(s->clip.first + read.offset, &header, &error)) {
      Say(error);
      return kExitInput;
    }
    if (header.width != s->info.width || header.height != s->info.height) {
      Say("input frame " + Quote(path) + " is " + std::to_string(header.width) + "x" +
          std::to_string(header.height) + ", but " + Quote(firstPath) + " is " +
          std::to_string(s->info.width) + "x" + std::to_string(s->info.height) +
          ": all frames of a sequence must have one size");
      return kExitInput;
    }
    if (header.depth != s->info.depth || header.channels != s->info.channels ||
        header.grey != s->info.grey) {
      Say("input frame " + Quote(path) + " has other channels or another depth than " +
          Quote(firstPath) + ": all frames of a sequence must match");
      return kExitInput;
    }
  }
  return kExitOk;
}

int CheckOutputs(const ResampleOptions& options, const Setup& s, std::vector<std::string>* made) {
  std::set<std::string> inputNames;
  std::set<std::pair<dev_t, ino_t>> inputFiles;
  for (const FrameRead& read : s.plan.DistinctReads()) {
    const std::string path = InputPath(s, read.offset);
    inputNames.insert(path);
    struct stat st;
    if (stat(path.c_str(), &st) == 0) inputFiles.insert({st.st_dev, st.st_ino});
  }
  for (size_t i = 0; i < s.outputs.size(); ++i) {
    std::vector<std::string> files = {s.outputs[i]};
    if (!options.flowFolder.empty())
      files.insert(files.begin(), FlowPath(options.flowFolder, s.plan.frames[i].outputNumber));
    for (const std::string& out : files) {
      struct stat st;
      const bool exists = stat(out.c_str(), &st) == 0;
      if (inputNames.count(out) || (exists && inputFiles.count({st.st_dev, st.st_ino}))) {
        Say("output " + Quote(out) + " is an input file; choose another output name");
        return kExitOutput;
      }
      if (exists && !options.overwrite && !options.skipExisting) {
        Say("output " + Quote(out) + " exists; use --overwrite to replace it");
        return kExitOutput;
      }
    }
  }
  std::string error;
  if (!PrepareOutputFolder(s.output.Folder(), &error, made) ||
      (!options.flowFolder.empty() && !PrepareOutputFolder(options.flowFolder, &error, made))) {
    RemoveCreatedFolders(*made);
    Say(error);
    return kExitOutput;
  }
  return kExitOk;
}

// Frames held by the store, the engine's working copies (four pictures and their fields),
// its flows and the estimator: refused when it would not fit the machine.
int CheckMemory(const Setup& s, int64_t* storeBudget) {
  const double pixels = static_cast<double>(s.info.width) * s.info.height;
  const double stored = pixels * s.info.channels * sizeof(float);
  const double held = static_cast<double>(s.plan.MostHeld());
  // Counted as the cache counts a frame: its samples and a share for its description.
  *storeBudget = static_cast<int64_t>(held * (stored + 4096.0)) + 1;
  const double need = (held + 2.0) * stored + 10.0 * pixels * 16.0 + 32.0 * pixels;
  const double machine = static_cast<double>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE);
  if (machine > 0.0 && need > 0.75 * machine) {
    char text[200];
    std::snprintf(text, sizeof text,
                  "frames of %dx%d need about %.1f GiB of memory, more than this machine can "
                  "spare (%.1f GiB)",
                  s.info.width, s.info.height, need / 1073741824.0, machine / 1073741824.0);
    Say(text);
    return kExitMemory;
  }
  return kExitOk;
}

int Stopped(const Setup& s, Progress* progress, const std::string& why, int code) {
  progress->Break();
  Say(why);
  if (gResampleWritten > 0 || s.outputs.size() > 1)
    Say(std::to_string(gResampleWritten) + " of " + std::to_string(s.outputs.size()) +
        " frames written" +
        (gResampleWritten > 0
             ? " (" + s.outputs[0] + " to " + s.outputs[static_cast<size_t>(gResampleWritten - 1)] + ")"
             : ""));
  return code;
}

int Loop(const ResampleOptions& options, Setup* s, int64_t storeBudget) {
  std::map<FrameRead, size_t> lastUse = s->plan.LastUse();
  FrameCache cache(storeBudget);  // keyed by (offset in the clip, clip)
  auto load = [&](const FrameRead& read, Frame* frame, std::string* error) {
    const std::string path = InputPath(*s, read.offset);
    if (!s->source->Read(s->clip.first + read.offset, frame, error)) return false;
    if (frame->info.width != s->info.width || frame->info.height != s->info.height) {
      *error = Quote(path) + " changed size while the run was under way";
      return false;
    }
    return true;
  };
  Progress progress(options.progress && !options.quiet && isatty(2),
                    static_cast<int64_t>(s->outputs.size()));
  const bool frameLines = !options.quiet && !isatty(2);
  const bool replace = options.overwrite || options.skipExisting;
  std::vector<unsigned char> integerSamples;  // kept from frame to frame
  for (size_t i = 0; i < s->plan.frames.size(); ++i) {
    if (gInterrupted.load()) return Stopped(*s, &progress, "interrupted", kExitInterrupted);
    if (int signal = gStopSignal.load())
      return Stopped(*s, &progress,
                     std::string("stopped by ") + (signal == SIGUSR1 ? "SIGUSR1" : "SIGTERM") +
                         " after a whole frame; run again with --skip-existing to finish",
                     kExitStopped);
    const auto started = std::chrono::steady_clock::now();
    const PlannedFrame& planned = s->plan.frames[i];
    std::string error;
    PlannedChronar::Inputs inputs;
    for (const FrameRead& read : planned.reads) {
      auto frame = cache.Get(
          read.offset, read.clip,
          [&](Frame* into, std::string* why) { return load(read, into, why); }, &error);
      if (!frame) return Stopped(*s, &progress, error, kExitInput);
      inputs[read] = frame;
    }
    auto base = inputs.find({kFrontClip, planned.offset});
    Frame out = base != inputs.end() ? *base->second : *inputs.begin()->second;
    FlowField flow;
    if (!s->whole.make(s->chosen[i], inputs, &out, &flow, &error))
      return Stopped(*s, &progress,
                     "output frame " + std::to_string(planned.outputNumber) + ": " + error,
                     error == "interrupted" ? kExitInterrupted : kExitPlugin);
    if (!options.flowFolder.empty()) {
      const int32_t w = s->info.width, h = s->info.height;
      FlowField picture = flow.width > 0 ? ResampleFlow(flow, w, h) : FlowField{w, h, {}};
      if (picture.uv.empty()) picture.uv.assign(static_cast<size_t>(w) * h * 2, 0.0f);
      const float longest = MaxFlowLength(picture);
      std::vector<uint8_t> rgb = FlowToColour(picture, longest);
      DrawFlowLegend(&rgb, w, h, longest);
      OIIO::ImageSpec imageSpec(w, h, 3, OIIO::TypeDesc::UINT8);
      const std::string flowPath = FlowPath(options.flowFolder, planned.outputNumber);
      ApplyCompression(flowPath, "", &imageSpec);
      if (!WriteImageSafely(flowPath, imageSpec,
                            OIIO::TypeDesc::UINT8, rgb.data(), replace, &error))
        return Stopped(*s, &progress, error, kExitOutput);
    }
    if (s->sink->IsMovie()) {
      if (!s->sink->Write(s->outputs[i], out, options.overwrite, &error))
        return Stopped(*s, &progress, error, kExitOutput);
    } else {
      OIIO::ImageSpec imageSpec =
          OutputSpec(out.info, options.haveOutDepth ? options.outDepth : s->info.depth);
      ApplyCompression(s->outputs[i], options.writing.compression, &imageSpec);
      // Integer files get their samples from here: the writer's own conversion of the
      // floats was a fifth of a run.
      OIIO::TypeDesc type = OIIO::TypeDesc::FLOAT;
      const void* samples = out.pixels.data();
      if (IntegerSamples(out, imageSpec, &integerSamples, &type))
        samples = integerSamples.data();
      else
        type = OIIO::TypeDesc::FLOAT;
      if (!WriteImageSafely(s->outputs[i], imageSpec, type, samples, options.overwrite, &error))
        return Stopped(*s, &progress, error, kExitOutput);
    }
    ++gResampleWritten;
    for (const FrameRead& read : planned.reads)
      if (lastUse[read] == i) cache.Drop(read.offset, read.clip);
    if (frameLines) {
      const double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
      char text[64];
      std::snprintf(text, sizeof text, "frame %lld done in %.2f s: ",
                    static_cast<long long>(planned.outputNumber), seconds);
      Say(text + s->outputs[i]);
    }
    progress.Update(static_cast<int64_t>(i) + 1, planned.outputNumber);
  }
  progress.Break();
  std::string error;
  if (!s->sink->Finish(&error)) return Stopped(*s, &progress, error, kExitOutput);
  if (!options.quiet) {
    const size_t count = s->outputs.size();
    Say("wrote " + std::to_string(count) + (count == 1 ? " frame: " : " frames: ") +
        s->outputs.front() + (count > 1 ? " to " + s->outputs.back() : "") +
        (s->skipped > 0 ? " (" + std::to_string(s->skipped) + " skipped: their output existed)"
                        : ""));
  }
  return kExitOk;
}

int Run(const ResampleOptions& options, const PlanMaker& makePlan) {
  Setup s;
  int code = Resolve(options, &s);
  if (code != kExitOk) return code;
  code = kExitUsage;
  if (!makePlan(s.clip, s.info, &s.whole, &code)) return code;
  if ((code = Choose(options, &s)) != kExitOk) return code;
  if (s.plan.frames.empty()) {
    if (!options.quiet)
      Say("all " + std::to_string(s.skipped) +
          " frames have their output already (--skip-existing); nothing to do");
    return kExitOk;
  }
  int64_t budget = 0;
  std::vector<std::string> made;
  s.sink = std::make_shared<ClipSink>();
  std::string error;
  if ((code = CheckInputs(&s)) != kExitOk) return code;
  if (!s.sink->Prepare(s.output, *s.source, s.info, options.haveOutDepth, options.outDepth,
                       options.writing, &error)) {
    Say(error);
    return kExitOutput;
  }
  if ((code = CheckMemory(s, &budget)) != kExitOk ||
      (code = CheckOutputs(options, s, &made)) != kExitOk)
    return code;
  UseWorkers(options.threads, s.info.width, s.info.height);
  return Loop(options, &s, budget);
}

}  // namespace

int RunResample(const ResampleOptions& options, const PlanMaker& makePlan) {
  gResampleWritten = 0;
  try {
    return Run(options, makePlan);
  } catch (const std::bad_alloc&) {
    Say("out of memory");
    return kExitMemory;
  }
}

}  // namespace flowblur
