// flowblur: the retiming engine over an image sequence on disk.
#include "tools/SequenceChronar.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "image/PLPixelConvert.h"

namespace flowblur {

namespace {

constexpr int32_t kPictureStream = 0;  // mattes are streams 1 and up

float WhiteOf(int32_t dataType) {
  return dataType == PLUChar ? 255.0f : dataType == PLUShort ? 65535.0f : 1.0f;
}

// A sample in white units into the working type: integers rounded and limited.
void StoreScaled(unsigned char* p, int32_t dataType, float v) {
  if (dataType == PLFloat) {
    PLStore<float>(p, v);
    return;
  }
  float white = WhiteOf(dataType);
  float s = v * white + 0.5f;
  s = !(s > 0.0f) ? 0.0f : s > white ? white : s;
  if (dataType == PLUChar)
    *p = static_cast<uint8_t>(s);
  else
    PLStore<uint16_t>(p, static_cast<uint16_t>(s));
}

float LoadScaled(const unsigned char* p, int32_t dataType) {
  if (dataType == PLFloat) return PLLoad<float>(p);
  float s = dataType == PLUChar ? static_cast<float>(*p)
                                : static_cast<float>(PLLoad<uint16_t>(p));
  return s / WhiteOf(dataType);
}

// The channel a matte is read from: alpha where the file has one, else the first.
int32_t MatteChannel(const FrameInfo& info) {
  if (info.imageSpec.alpha_channel >= 0 && info.imageSpec.alpha_channel < info.channels)
    return info.imageSpec.alpha_channel;
  for (int32_t c = 0; c < info.channels; ++c) {
    const std::string& name = info.imageSpec.channel_name(c);
    if (name == "A" || name == "alpha") return c;
  }
  return 0;
}

}  // namespace

// One view handed to the engine, with the converted picture behind it.
struct SequenceChronar::Served {
  std::unique_ptr<PLImage> image;
  std::unique_ptr<NuvImageInternal> wrapper;
  std::unique_ptr<NuvImage> view;
};

SequenceChronar::SequenceChronar(SequenceChronarOptions options)
    : options_(std::move(options)), cache_(options_.cacheBytes) {
  std::string error;
  if (options_.first <= options_.last && options_.first >= 0 &&
      ReadFrameInfo(options_.frames.PathFor(options_.first), &firstInfo_, &error)) {
    width_ = firstInfo_.width;
    height_ = firstInfo_.height;
  } else {
    lastError_ = error.empty() ? "the frame range is empty" : error;
  }
  std::sort(options_.cuts.begin(), options_.cuts.end());
}

SequenceChronar::~SequenceChronar() = default;

bool SequenceChronar::ReadInto(int64_t frame, int32_t stream, Frame* out, std::string* error) {
  const SequencePattern& pattern =
      stream == kPictureStream ? options_.frames : options_.mattes[stream - 1];
  return ReadFrame(pattern.PathFor(frame), out, error);
}

int32_t SequenceChronar::Serve(NuvImage** view, int32_t frameNumber, int32_t stream) {
  *view = nullptr;
  if (frameNumber < options_.first || frameNumber > options_.last) return PLErrParameter;
  std::string error;
  std::shared_ptr<const Frame> frame = cache_.Get(
      frameNumber, stream,
      [&](Frame* out, std::string* why) { return ReadInto(frameNumber, stream, out, why); },
      &error);
  if (!frame) {
    lastError_ = error;
    return PLErrFile;
  }
  const FrameInfo& info = frame->info;
  if (info.width != width_ || info.height != height_) {
    lastError_ = "\"" + info.path + "\" is " + std::to_string(info.width) + "x" +
                 std::to_string(info.height) + ", not " + std::to_string(width_) + "x" +
                 std::to_string(height_) + " like the first frame";
    return PLErrFile;
  }
  const int32_t type = options_.dataType;
  const bool matte = stream != kPictureStream;
  const int32_t channels = matte ? 1 : 3;
  auto served = std::make_unique<Served>();
  served->image.reset(new PLImage(0, width_, height_, channels, type, 0));
  if (served->image->errorCode) return served->image->errorCode;
  int32_t source[3] = {info.colour[0], info.colour[1], info.colour[2]};
  if (matte) source[0] = MatteChannel(info);
  PLImage* im = served->image.get();
  for (int32_t y = 0; y < height_; ++y) {
    const float* row = frame->pixels.data() + static_cast<size_t>(y) * width_ * info.channels;
    unsigned char* out = im->Row(y);
    for (int32_t x = 0; x < width_; ++x)
      for (int32_t c = 0; c < channels; ++c)
        StoreScaled(out + x * im->bytesPerPixel + c * im->bytesPerSample, type,
                    row[x * info.channels + source[c]]);
  }
  served->wrapper.reset(new NuvImageInternal(im));
  served->view.reset(new NuvImage());
  served->view->Attach(served->wrapper.get());
  *view = served->view.get();
  served_.push_back(std::move(served));
  return 0;
}

int32_t SequenceChronar::GetFrame(NuvImage** frame, int32_t frameNumber) {
  return Serve(frame, frameNumber, kPictureStream);
}

int32_t SequenceChronar::GetMotionFrame(NuvImage** frame, int32_t frameNumber) {
  return Serve(frame, frameNumber, kPictureStream);
}

void SequenceChronar::ReleaseFrame(NuvImage* frame) {
  for (size_t k = 0; k < served_.size(); ++k)
    if (served_[k]->view.get() == frame) {
      served_.erase(served_.begin() + static_cast<std::ptrdiff_t>(k));
      return;
    }
}

int32_t SequenceChronar::GetMatte(NuvImage** matte, int32_t frameNumber, int32_t matteIndex) {
  if (matteIndex < 0 || matteIndex >= static_cast<int32_t>(options_.mattes.size())) {
    *matte = nullptr;
    return PLErrParameter;
  }
  return Serve(matte, frameNumber, matteIndex + 1);
}

void SequenceChronar::ReleaseMatte(NuvImage* matte) { ReleaseFrame(matte); }

void SequenceChronar::MapTime(float time, float* sourceTime) {
  *sourceTime = options_.timeMap ? static_cast<float>(options_.timeMap(time)) : time;
}

int32_t SequenceChronar::FrameKind(float time) {
  double whole = std::floor(static_cast<double>(time));
  if (!(whole >= static_cast<double>(options_.first) &&
        whole <= static_cast<double>(options_.last)))
    return 3;  // outside the clip (or NaN): held
  // Shots are labelled 0, 1, 2 in turn, so two neighbouring shots always differ.
  int64_t shot = 0;
  for (int64_t cut : options_.cuts)
    if (cut > options_.first && static_cast<double>(cut) <= whole) ++shot;
  return static_cast<int32_t>(shot % 3);
}

bool SequenceChronar::Render(double time, int32_t quality, float levelFactor,
                             const float* chokes, Frame* out, std::string* error) {
  if (width_ <= 0 || height_ <= 0) {
    *error = lastError_;
    return false;
  }
  const int32_t mattes = static_cast<int32_t>(options_.mattes.size());
  if (mattes > kNuvChronarMaxLayers - 1) {
    *error = "at most 9 mattes (10 layers) can be used";
    return false;
  }
  if (options_.dataType != PLUChar && options_.dataType != PLUShort &&
      options_.dataType != PLFloat) {
    *error = "the working type must be 8-bit, 16-bit or float";
    return false;
  }
  std::unique_ptr<PLImage> image(new PLImage(0, width_, height_, 3, options_.dataType, 0));
  if (image->errorCode) {
    *error = "out of memory";
    return false;
  }
  NuvImageInternal wrapper(image.get());
  NuvImage view;
  view.Attach(&wrapper);
  float levelFactors[kNuvChronarMaxLayers];
  float chokeValues[kNuvChronarMaxLayers];
  for (int32_t k = 0; k < kNuvChronarMaxLayers; ++k) {
    levelFactors[k] = levelFactor;
    chokeValues[k] = chokes && k < mattes ? chokes[k] : 0.0f;
  }
  lastError_.clear();
  int32_t status = RenderAtTime(&view, static_cast<float>(time), quality, 0, 0, mattes,
                                levelFactors, chokeValues, 1, nullptr);
  if (status != 0) {
    if (!lastError_.empty())
      *error = lastError_;
    else if (status == PLErrParameter)
      *error = "time " + std::to_string(time) +
               " cannot be rendered: it falls outside frames " + std::to_string(options_.first) +
               "-" + std::to_string(options_.last) + ", or a setting or frame does not fit";
    else if (status == PLErrInterrupted)
      *error = "interrupted";
    else
      *error = "the retimer failed (error " + std::to_string(status) + ")";
    return false;
  }
  out->info = firstInfo_;
  out->info.path.clear();
  out->info.channels = 3;
  out->info.grey = false;
  out->info.colour[0] = 0;
  out->info.colour[1] = 1;
  out->info.colour[2] = 2;
  out->pixels.resize(static_cast<size_t>(width_) * height_ * 3);
  for (int32_t y = 0; y < height_; ++y) {
    const unsigned char* row = image->Row(y);
    for (int32_t x = 0; x < width_ * 3; ++x)
      out->pixels[static_cast<size_t>(y) * width_ * 3 + x] =
          LoadScaled(row + x * image->bytesPerSample, options_.dataType);
  }
  return true;
}

}  // namespace flowblur
