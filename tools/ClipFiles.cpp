// flowblur: input and output clips as files or movies, and the linear-light stage.
#include "tools/ClipFiles.h"

#include <unistd.h>

#include "tools/Messages.h"

namespace flowblur {
namespace {

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// FFmpeg's tags for the encoding a sequence's metadata names (values of AVColorPrimaries and
// AVColorTransferCharacteristic: 1 BT.709, 8 linear, 13 sRGB, 2 unspecified).
ColourTags TagsForSpace(const std::string& space) {
  ColourTags tags;
  const std::string s = Lower(space);
  if (s == "srgb") tags = {1, 13, 2, 0};
  else if (s == "rec709") tags = {1, 1, 2, 0};
  else if (s == "linear") tags = {1, 8, 2, 0};
  return tags;
}

}  // namespace

bool IsMoviePattern(const SequencePattern& pattern) {
  return !pattern.numbered && IsMoviePath(pattern.text);
}

bool ClipSource::Open(const SequencePattern& pattern, std::string* error) {
  pattern_ = pattern;
  movie_.reset();
  first_.reset();
  if (!IsMoviePattern(pattern)) return true;
  if (access(pattern.text.c_str(), F_OK) != 0) {
    *error = "input movie " + Quote(pattern.text) + " does not exist";
    return false;
  }
  auto movie = std::make_unique<MovieReader>();
  if (!movie->Open(pattern.text, error)) return false;
  auto first = std::make_unique<Frame>();
  if (!movie->Read(0, first.get(), error)) return false;
  movie_ = std::move(movie);
  first_ = std::move(first);
  return true;
}

std::string ClipSource::PathOf(int64_t number) const {
  return pattern_.numbered ? pattern_.PathFor(number) : pattern_.text;
}

std::string ClipSource::Describe(int64_t number) const {
  if (movie_) return Quote(pattern_.text) + " frame " + std::to_string(number);
  return Quote(PathOf(number));
}

bool ClipSource::Exists(int64_t number) const {
  if (movie_) return number >= kMovieFirstFrame && number < kMovieFirstFrame + MovieFrames();
  return access(PathOf(number).c_str(), F_OK) == 0;
}

bool ClipSource::ReadInfo(int64_t number, FrameInfo* info, std::string* error) {
  if (!movie_) return ReadFrameInfo(PathOf(number), info, error);
  if (!Exists(number)) {
    *error = Describe(number) + " is past the movie's end (it has " +
             std::to_string(MovieFrames()) + " frames)";
    return false;
  }
  *info = first_->info;
  return true;
}

bool ClipSource::Read(int64_t number, Frame* frame, std::string* error, bool keepHalves) {
  if (!movie_) return ReadFrame(PathOf(number), frame, error, keepHalves);
  if (!Exists(number)) return ReadInfo(number, &frame->info, error);
  if (number == kMovieFirstFrame) {
    *frame = *first_;
    return true;
  }
  return movie_->Read(number - kMovieFirstFrame, frame, error);
}

bool CheckOutputCompression(const std::string& output, const std::string& choice,
                            std::string* error) {
  if (choice.empty()) return true;
  if (IsMoviePath(output)) {
    *error = "--compression applies to image files; a movie takes --codec and --crf";
    return false;
  }
  return CheckCompression(output, choice, error);
}

bool ClipSink::Prepare(const SequencePattern& output, const ClipSource& input,
                       const FrameInfo& info, bool depthAsked, SampleDepth asked,
                       const OutputOptions& options, std::string* error) {
  movie_ = IsMoviePattern(output);
  depth_ = depthAsked ? asked : info.depth;
  compression_ = options.compression;
  if (!movie_) return true;
  moviePath_ = output.text;
  // Half and float frames become 16-bit in a movie, unless asked for as such (which
  // CheckMovieOutput then refuses).
  if (!depthAsked && (depth_ == SampleDepth::kHalf || depth_ == SampleDepth::kFloat))
    depth_ = SampleDepth::k16;
  MovieSettings& s = settings_;
  s = MovieSettings();
  s.codec = options.codec;
  s.crf = options.crf;
  s.width = info.width;
  s.height = info.height;
  s.channels = info.channels;
  s.depth = depth_;
  if (const MovieInfo* movie = input.Movie()) {
    s.rate = movie->rate;
    s.inputPixelFormat = movie->pixelFormat;
    s.tags = movie->tags;
  } else {
    s.tags = TagsForSpace(info.imageSpec.get_string_attribute("oiio:ColorSpace"));
  }
  if (options.haveRate) s.rate = options.rate;
  if (options.haveCrf && s.codec != MovieCodec::kH264) {
    *error = std::string("--crf applies to h264 only, not to ") + MovieCodecName(s.codec);
    return false;
  }
  return CheckMovieOutput(moviePath_, s, error);
}

bool ClipSink::Write(const std::string& path, const Frame& frame, bool overwrite,
                     std::string* error) {
  if (frame.HoldsHalves() && (movie_ || depth_ != SampleDepth::kHalf)) {
    // Other depths and movies are written from floats (the same values).
    Frame floats = frame;
    SamplesAsFloats(&floats);
    return Write(path, floats, overwrite, error);
  }
  if (!movie_) {
    OIIO::ImageSpec imageSpec = OutputSpec(frame.info, depth_);
    ApplyCompression(path, compression_, &imageSpec);
    if (frame.HoldsHalves())
      return WriteImageSafely(path, imageSpec, OIIO::TypeDesc::HALF, frame.halves.data(),
                              overwrite, error);
    return WriteImageSafely(path, imageSpec, OIIO::TypeDesc::FLOAT, frame.pixels.data(), overwrite,
                            error);
  }
  if (!writer_) {
    writer_ = std::make_unique<MovieWriter>();
    if (!writer_->Open(moviePath_, settings_, overwrite, error)) {
      writer_.reset();
      return false;
    }
  }
  return writer_->Write(frame, error);
}

bool ClipSink::Finish(std::string* error) {
  if (!writer_) return true;
  bool ok = writer_->Finish(error);
  writer_.reset();
  return ok;
}

bool LinearStage::Settle(const ColourChoice& choice, const FrameInfo& first, std::string* error) {
  const std::string space = EncodedSpaceFor(choice, first);
  active_ = !space.empty();
  if (!active_) return true;
  if (!light_.Create(space, error)) {
    active_ = false;
    return false;
  }
  return true;
}

int32_t LinearStage::FormatCode(SampleDepth depth) const {
  return active_ ? 49 : FormatCodeFor(depth);
}

}  // namespace flowblur
