// flowblur: the clips a command reads and writes, whatever holds them: numbered image files,
// one image, or one movie; and the linear-light stage frames pass through on the way to the
// plug-in and back.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "tools/ColourSpace.h"
#include "tools/ImageFiles.h"
#include "tools/MovieFiles.h"
#include "tools/Sequence.h"

namespace flowblur {

// A movie's frames are numbered from 1: frame 1 is its first frame (as image sequences made
// from movies usually are), so `--frames 1-10` takes its first ten.
constexpr int64_t kMovieFirstFrame = 1;

// Whether a parsed pattern names one movie (a movie extension and no frame token).
bool IsMoviePattern(const SequencePattern& pattern);

// Frames of an input clip by file frame number: the files of a pattern, or the frames of a
// movie. Not thread-safe (a movie decodes on from where it stands).
class ClipSource {
 public:
  // Takes the pattern; a movie is opened and its frames counted now. False with a message
  // naming the file when the movie cannot be opened or decoded.
  bool Open(const SequencePattern& pattern, std::string* error);
  bool IsMovie() const { return movie_ != nullptr; }
  // A movie's frames: kMovieFirstFrame onwards (count 0 for files).
  int64_t MovieFrames() const { return movie_ ? movie_->Info().frames : 0; }
  const MovieInfo* Movie() const { return movie_ ? &movie_->Info() : nullptr; }
  // The file that holds frame `number` (the movie itself for a movie).
  std::string PathOf(int64_t number) const;
  // How messages name frame `number`: 'a.0012.png', or 'clip.mp4' frame 12.
  std::string Describe(int64_t number) const;
  bool Exists(int64_t number) const;
  // The header of frame `number` (a movie: its first frame's), and the frame itself.
  bool ReadInfo(int64_t number, FrameInfo* info, std::string* error);
  // With keepHalves, a file whose channels are all half is held as halves (see Frame); a
  // movie's frames are floats.
  bool Read(int64_t number, Frame* frame, std::string* error, bool keepHalves = false);

 private:
  SequencePattern pattern_;
  std::unique_ptr<MovieReader> movie_;
  std::unique_ptr<Frame> first_;  // a movie's first frame, decoded when opened
};

// How output is written (options of the commands): image files' compression, movies' codec,
// quality and rate.
struct OutputOptions {
  std::string compression;  // --compression (ImageFiles.h); empty: the file format's default
  bool haveCodec = false;
  MovieCodec codec = MovieCodec::kH264;
  bool haveCrf = false;
  int32_t crf = 18;
  bool haveRate = false;  // --fps; otherwise the input movie's rate, or 24
  FrameRate rate;
};

// --compression against OUTPUT (a sequence pattern, a file or a movie), before any frame.
bool CheckOutputCompression(const std::string& output, const std::string& choice,
                            std::string* error);

// Where a run's output frames go: each to its own file (written safely), or all into one
// movie, opened at the first frame and renamed into place by Finish. Destroying an
// unfinished movie output removes its temporary file: a stopped or failed run leaves no
// movie under the final name.
class ClipSink {
 public:
  // For an output pattern, the input's first frame header and source (for a movie's rate,
  // pixel format and colour tags), and the depth asked for (--out-depth; without it the
  // input's, and 16 bits in a movie for half and float input). Movie output: checks the
  // container, codec, depth and alpha now. False with a message naming the file.
  bool Prepare(const SequencePattern& output, const ClipSource& input, const FrameInfo& info,
               bool depthAsked, SampleDepth asked, const OutputOptions& options,
               std::string* error);
  bool IsMovie() const { return movie_; }
  // The depth the output is written at.
  SampleDepth Depth() const { return depth_; }
  // Writes one output frame: to `path` (a file), or as the movie's next frame. A frame held
  // as halves goes to a half file as it is.
  bool Write(const std::string& path, const Frame& frame, bool overwrite, std::string* error);
  // A movie: flushed, synced and renamed into place. Files: nothing to do.
  bool Finish(std::string* error);

 private:
  bool movie_ = false;
  SampleDepth depth_ = SampleDepth::k8;
  std::string compression_;
  std::string moviePath_;
  MovieSettings settings_;
  bool overwrite_ = false;
  std::unique_ptr<MovieWriter> writer_;
};

// The colour stage of a run: nothing, or the conversion of the colour channels to linear
// light before the plug-in and back after it. Converted frames go through the plug-in's
// half-float format, so an 8-bit input loses nothing to rounding in between.
class LinearStage {
 public:
  // Settles the stage for a clip from its first frame. False with a message for a colour
  // space name the configuration does not know.
  bool Settle(const ColourChoice& choice, const FrameInfo& first, std::string* error);
  bool Active() const { return active_; }
  const std::string& Space() const { return light_.Space(); }
  // The plug-in format for a depth: 49 while active, else the depth's own (24, 48, 49).
  int32_t FormatCode(SampleDepth depth) const;
  // The conversions work on floats: a frame held as halves is turned into floats first.
  void In(Frame* frame) const {
    if (!active_) return;
    SamplesAsFloats(frame);
    light_.ToLinear(frame);
  }
  void Out(Frame* frame) const {
    if (!active_) return;
    SamplesAsFloats(frame);
    light_.FromLinear(frame);
  }

 private:
  bool active_ = false;
  LinearLight light_;
};

}  // namespace flowblur
