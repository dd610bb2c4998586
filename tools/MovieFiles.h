// flowblur: movie files as clips: reading a movie frame by frame and encoding frames into a
// movie, through FFmpeg's own libraries (libavformat, libavcodec, libswscale).
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "tools/ImageFiles.h"

namespace flowblur {

// Whether `path` names a movie by its extension (.mp4, .mov, .qt, .mkv, .avi, .m4v, .m4a,
// .3gp, .3g2, .mj2, .webm, .mpg, .mpeg, .ts, .mts, .m2ts, .mxf, .flv, .wmv, .ogv; any case).
// Everything else is an image file or a sequence of them.
bool IsMoviePath(const std::string& path);

// Frames a second as a fraction.
struct FrameRate {
  int32_t numerator = 24, denominator = 1;
  double Value() const { return static_cast<double>(numerator) / denominator; }
};
// "25", "29.97" (as 2997/100), "30000/1001"; false with a message for anything else.
bool ParseFrameRate(const std::string& text, FrameRate* rate, std::string* error);

// FFmpeg's colour tags of a picture (AVColorPrimaries, AVColorTransferCharacteristic,
// AVColorSpace, AVColorRange); 2 is "unspecified" for the first three, 0 for the range.
struct ColourTags {
  int32_t primaries = 2, transfer = 2, matrix = 2, range = 0;
};

// What a movie's video stream holds.
struct MovieInfo {
  std::string path;
  int32_t width = 0, height = 0;
  int64_t frames = 0;         // every video packet of the stream (one a frame)
  FrameRate rate;             // the stream's average rate (24 when the file gives none)
  int32_t channels = 3;       // 4 when the pixel format carries alpha
  SampleDepth depth = SampleDepth::k8;  // k16 for more than 8 bits a sample
  std::string codec;          // decoder name, e.g. "h264"
  std::string pixelFormat;    // e.g. "yuv420p"
  ColourTags tags;
  // The encoding of its values for --colorspace auto: "sRGB", "Rec709" or "linear" from the
  // transfer tag; untagged YUV is taken as Rec709 (the video convention), untagged RGB as sRGB.
  std::string colourSpace;
};

// Reads the frames of a movie's first video stream in any order (forward reads decode on;
// backward or far reads seek to a key frame first). Frame 0 is the movie's first frame.
// Decoded pictures come out as RGB (or RGBA) floats in 0..1 with the depth of the stream's
// pixel format, YUV converted with the stream's matrix (untagged: BT.709 from 720 rows up,
// else BT.601) and range. Not thread-safe.
class MovieReader {
 public:
  MovieReader();
  ~MovieReader();
  MovieReader(const MovieReader&) = delete;
  MovieReader& operator=(const MovieReader&) = delete;

  // Opens the movie, counts its frames and decodes the first. False with a message naming
  // the file for a file that is missing, not a movie, has no video stream, no decoder for its
  // codec, or whose first frame cannot be decoded.
  bool Open(const std::string& path, std::string* error);
  const MovieInfo& Info() const { return info_; }
  // Frame `index` (0 to frames - 1) as ReadFrame gives a file: every channel as float, rows
  // packed, row 0 on top, a FrameInfo with RGB(A) channel names and `oiio:ColorSpace` set to
  // Info().colourSpace. False with a message for a frame that cannot be decoded or whose
  // size differs from the first frame's.
  bool Read(int64_t index, Frame* frame, std::string* error);

 private:
  struct State;
  std::unique_ptr<State> state_;
  MovieInfo info_;
};

// The codecs a movie can be written with.
enum class MovieCodec {
  kH264,   // libx264: lossy, for delivery; 8-bit or 10-bit YUV, no alpha
  kFfv1,   // FFV1: lossless RGB(A), 8 or 16 bits a sample; .mkv and .avi
  kProres  // ProRes (prores_ks): 10-bit 4:2:2 (4:4:4 for odd widths), 4:4:4:4 with alpha;
           // .mov and .mkv
};
const char* MovieCodecName(MovieCodec codec);  // "h264", "ffv1", "prores"
bool ParseMovieCodec(const std::string& text, MovieCodec* codec);

// How a movie is written.
struct MovieSettings {
  MovieCodec codec = MovieCodec::kH264;
  int32_t crf = 18;        // h264 only: constant rate factor, 0 (lossless) to 51
  FrameRate rate;
  int32_t width = 0, height = 0;
  int32_t channels = 3;    // 1 or 3: no alpha; 2 or 4: alpha (refused by h264)
  SampleDepth depth = SampleDepth::k8;  // k8 or k16 (10 bits in h264 and prores); no floats
  // The input movie's pixel format, kept when the codec takes it (empty: none).
  std::string inputPixelFormat;
  ColourTags tags;         // written into the stream as they are
};

// Whether `path`'s container can hold the codec and the codec the depth and alpha. False
// with a message naming the file and the reason. Writes nothing.
bool CheckMovieOutput(const std::string& path, const MovieSettings& settings, std::string* error);

// Encodes frames into a movie under a hidden temporary name beside `path` (as
// WriteImageSafely does for frames) and renames it into place only in Finish, so a failed or
// stopped run leaves no movie under the final name.
class MovieWriter {
 public:
  MovieWriter();
  ~MovieWriter();  // abandons an unfinished movie: its temporary file is removed
  MovieWriter(const MovieWriter&) = delete;
  MovieWriter& operator=(const MovieWriter&) = delete;

  bool Open(const std::string& path, const MovieSettings& settings, bool overwrite,
            std::string* error);
  // One frame: its colour channels (and alpha, where the settings have it), values in 0..1
  // clamped, rounded to the codec's depth.
  bool Write(const Frame& frame, std::string* error);
  // Flushes the encoder, closes the file, syncs it to the disk and renames it to `path`
  // (refusing an existing `path` without `overwrite`).
  bool Finish(std::string* error);
  // Removes the temporary file of an unfinished movie.
  void Abandon();
  int64_t FramesWritten() const { return written_; }

 private:
  struct State;
  std::unique_ptr<State> state_;
  int64_t written_ = 0;
};

}  // namespace flowblur
