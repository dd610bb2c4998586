// flowblur: movie reading and writing over FFmpeg's libraries.
#include "tools/MovieFiles.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <OpenImageIO/fmath.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <vector>

#include "tools/Messages.h"

namespace flowblur {
namespace {

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof text);
  return text;
}

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Our own deleters, so every FFmpeg object is freed on every path.
struct FormatInputCloser {
  void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
struct CodecCloser {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameCloser {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketCloser {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct ScaleCloser {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};
using FormatInput = std::unique_ptr<AVFormatContext, FormatInputCloser>;
using Codec = std::unique_ptr<AVCodecContext, CodecCloser>;
using FramePtr = std::unique_ptr<AVFrame, FrameCloser>;
using PacketPtr = std::unique_ptr<AVPacket, PacketCloser>;
using Scaler = std::unique_ptr<SwsContext, ScaleCloser>;

bool HasAlpha(AVPixelFormat format) {
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(format);
  return d && (d->flags & AV_PIX_FMT_FLAG_ALPHA);
}
bool IsRgb(AVPixelFormat format) {
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(format);
  return d && (d->flags & AV_PIX_FMT_FLAG_RGB);
}
int BitsOf(AVPixelFormat format) {
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(format);
  return d ? d->comp[0].depth : 8;
}

// The packed RGB layout our floats go through for a depth and alpha.
AVPixelFormat PackedFormat(SampleDepth depth, bool alpha) {
  if (depth == SampleDepth::k8) return alpha ? AV_PIX_FMT_RGBA : AV_PIX_FMT_RGB24;
  return alpha ? AV_PIX_FMT_RGBA64 : AV_PIX_FMT_RGB48;
}

// The YUV matrix of a stream whose tag says nothing: HD and larger is BT.709, smaller BT.601.
int MatrixFor(int tagged, int height) {
  if (tagged != AVCOL_SPC_UNSPECIFIED && tagged != AVCOL_SPC_RESERVED) return tagged;
  return height >= 720 ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
}

// A swscale context between two formats of one size, bit-exact and with full chroma so that
// RGB to RGB layouts are plain permutations and YUV round trips are as close as they can be.
Scaler MakeScaler(int width, int height, AVPixelFormat from, AVPixelFormat to, int matrix,
                  int range) {
  const int flags = SWS_BICUBIC | SWS_ACCURATE_RND | SWS_BITEXACT | SWS_FULL_CHR_H_INT |
                    SWS_FULL_CHR_H_INP;
  Scaler scaler(sws_getContext(width, height, from, width, height, to, flags, nullptr, nullptr,
                               nullptr));
  if (!scaler) return scaler;
  const int* coefficients = sws_getCoefficients(matrix);
  const bool fullRange = range == AVCOL_RANGE_JPEG;
  // Source range, then destination range: RGB is always full; YUV as tagged.
  int srcFull = IsRgb(from) ? 1 : fullRange, dstFull = IsRgb(to) ? 1 : fullRange;
  sws_setColorspaceDetails(scaler.get(), coefficients, srcFull, coefficients, dstFull, 0,
                           1 << 16, 1 << 16);
  return scaler;
}

// FFmpeg's own log goes to standard error; our messages already name the file and the
// reason, so only its fatal lines stay (it keeps this one setting process-wide).
void QuietLibraries() { av_log_set_level(AV_LOG_FATAL); }

}  // namespace

bool IsMoviePath(const std::string& path) {
  size_t slash = path.rfind('/');
  size_t dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return false;
  const std::string ext = Lower(path.substr(dot + 1));
  // Every name OpenImageIO's own movie reader would take is here too (it reads a movie as
  // single frames and leaks inside libavutil): none of them reaches it.
  for (const char* movie : {"mp4", "mov", "qt", "mkv", "avi", "m4v", "m4a", "3gp", "3g2", "mj2",
                            "webm", "mpg", "mpeg", "ts", "mts", "m2ts", "mxf", "flv", "wmv", "ogv"})
    if (ext == movie) return true;
  return false;
}

bool ParseFrameRate(const std::string& text, FrameRate* rate, std::string* error) {
  auto bad = [&] {
    *error = "frame rate '" + text + "' is not a positive number such as 25, 29.97 or 30000/1001";
    return false;
  };
  if (text.empty() || text.size() > 24) return bad();
  size_t slash = text.find('/');
  if (slash != std::string::npos) {
    const std::string a = text.substr(0, slash), b = text.substr(slash + 1);
    if (a.empty() || b.empty() || a.find_first_not_of("0123456789") != std::string::npos ||
        b.find_first_not_of("0123456789") != std::string::npos || a.size() > 9 || b.size() > 9)
      return bad();
    rate->numerator = std::stoi(a);
    rate->denominator = std::stoi(b);
  } else {
    size_t dot = text.find('.');
    std::string digits = text;
    int32_t denominator = 1;
    if (dot != std::string::npos) {
      digits = text.substr(0, dot) + text.substr(dot + 1);
      for (size_t i = dot + 1; i < text.size(); ++i) denominator *= 10;
    }
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos ||
        digits.size() > 9 || denominator > 1000000)
      return bad();
    rate->numerator = std::stoi(digits);
    rate->denominator = denominator;
  }
  if (rate->numerator <= 0 || rate->denominator <= 0) return bad();
  return true;
}

// ---- Reading

struct MovieReader::State {
  FormatInput format;
  Codec codec;
  int stream = -1;
  FramePtr decoded{av_frame_alloc()};
  PacketPtr packet{av_packet_alloc()};
  Scaler scaler;
  AVPixelFormat scalerFrom = AV_PIX_FMT_NONE;
  std::vector<int64_t> times;    // presentation time of every frame, ascending
  std::vector<int64_t> keyTimes; // of the key frames, ascending
  bool timed = true;             // every packet had a time: frames are found by their time
  int64_t next = 0;              // index of the next frame the decoder hands out (sequential)
  int64_t current = -1;          // index of the frame in `decoded`; -1: none
  bool drained = false;          // the decoder has been sent the end of the stream
};

MovieReader::MovieReader() = default;
MovieReader::~MovieReader() = default;

namespace {

// Opens the demuxer and the decoder of the first video stream.
bool OpenStream(const std::string& path, FormatInput* format, Codec* codec, int* stream,
                std::string* why) {
  AVFormatContext* raw = nullptr;
  int code = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
  if (code < 0) {
    *why = AvError(code);
    return false;
  }
  format->reset(raw);
  if ((code = avformat_find_stream_info(raw, nullptr)) < 0) {
    *why = AvError(code);
    return false;
  }
  const AVCodec* decoder = nullptr;
  *stream = av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
  if (*stream == AVERROR_STREAM_NOT_FOUND) {
    *why = "it has no video stream";
    return false;
  }
  if (*stream < 0 || !decoder) {
    AVCodecID id = AV_CODEC_ID_NONE;
    for (unsigned i = 0; i < raw->nb_streams; ++i)
      if (raw->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
        id = raw->streams[i]->codecpar->codec_id;
    *why = std::string("no decoder for its video codec (") + avcodec_get_name(id) + ")";
    return false;
  }
  codec->reset(avcodec_alloc_context3(decoder));
  if (!*codec) {
    *why = "out of memory";
    return false;
  }
  AVCodecContext* c = codec->get();
  if ((code = avcodec_parameters_to_context(c, raw->streams[*stream]->codecpar)) < 0) {
    *why = AvError(code);
    return false;
  }
  // One decoding thread: frames come out in order, and a seek needs nothing but a flush.
  c->thread_count = 1;
  if ((code = avcodec_open2(c, decoder, nullptr)) < 0) {
    *why = "its decoder refused it: " + AvError(code);
    return false;
  }
  return true;
}

int64_t PacketTime(const AVPacket* p) { return p->pts != AV_NOPTS_VALUE ? p->pts : p->dts; }

}  // namespace

bool MovieReader::Open(const std::string& path, std::string* error) {
  state_ = std::make_unique<State>();
  info_ = MovieInfo();
  info_.path = path;
  State& s = *state_;
  std::string why;
  auto fail = [&](const std::string& reason) {
    *error = "cannot read movie " + Quote(path) + ": " + reason;
    state_.reset();
    return false;
  };
  if (!s.decoded || !s.packet) return fail("out of memory");
  QuietLibraries();
  if (!OpenStream(path, &s.format, &s.codec, &s.stream, &why)) return fail(why);
  // Count the frames and note their times: one pass over the packets, nothing decoded.
  int code;
  while ((code = av_read_frame(s.format.get(), s.packet.get())) >= 0) {
    if (s.packet->stream_index == s.stream) {
      const int64_t t = PacketTime(s.packet.get());
      if (t == AV_NOPTS_VALUE) s.timed = false;
      s.times.push_back(t);
      if (s.packet->flags & AV_PKT_FLAG_KEY) s.keyTimes.push_back(t);
    }
    av_packet_unref(s.packet.get());
  }
  if (code != AVERROR_EOF) return fail("reading its packets failed: " + AvError(code));
  if (s.times.empty()) return fail("its video stream holds no frames");
  std::sort(s.times.begin(), s.times.end());
  std::sort(s.keyTimes.begin(), s.keyTimes.end());
  if (std::adjacent_find(s.times.begin(), s.times.end()) != s.times.end()) s.timed = false;
  info_.frames = static_cast<int64_t>(s.times.size());
  // Back to the start for decoding: a fresh demuxer is the one rewind every format supports.
  if (!OpenStream(path, &s.format, &s.codec, &s.stream, &why)) return fail(why);
  const AVStream* st = s.format->streams[s.stream];
  AVRational rate = st->avg_frame_rate.num > 0 ? st->avg_frame_rate : st->r_frame_rate;
  if (rate.num > 0 && rate.den > 0) info_.rate = {rate.num, rate.den};
  info_.codec = s.codec->codec ? s.codec->codec->name : "";
  // The first frame: proves the stream decodes and gives its true format and tags.
  Frame first;
  std::string readError;
  info_.width = 0;
  if (!Read(0, &first, &readError)) {
    state_.reset();
    *error = readError;
    return false;
  }
  return true;
}

bool MovieReader::Read(int64_t index, Frame* frame, std::string* error) {
  if (!state_) {
    *error = "cannot read movie " + Quote(info_.path) + ": it is not open";
    return false;
  }
  State& s = *state_;
  auto fail = [&](const std::string& reason) {
    *error = "cannot read frame " + std::to_string(index) + " of movie " + Quote(info_.path) +
             ": " + reason;
    return false;
  };
  if (index < 0 || index >= info_.frames)
    return fail("the movie has frames 0 to " + std::to_string(info_.frames - 1));
  // Where to start: decode on from here, or seek. A seek lands on a key frame at or before
  // the frame; an untimed stream can only start again from its beginning.
  if (s.current != index) {
    bool seek = s.next < 0 || index < s.next;
    if (!seek && s.timed) {
      auto key = std::upper_bound(s.keyTimes.begin(), s.keyTimes.end(), s.times[index]);
      seek = key != s.keyTimes.begin() && *(key - 1) > s.times[std::min(s.next, index)];
    }
    if (seek) {
      int code = -1;
      if (s.timed)
        code = av_seek_frame(s.format.get(), s.stream, s.times[index], AVSEEK_FLAG_BACKWARD);
      if (code < 0) {
        std::string why;
        if (!OpenStream(info_.path, &s.format, &s.codec, &s.stream, &why)) return fail(why);
        s.next = 0;
      } else {
        avcodec_flush_buffers(s.codec.get());
        s.next = -1;  // known from the next frame's time
      }
      s.current = -1;
      s.drained = false;
    }
  }
  bool restarted = false;
  while (s.current != index) {
    int code = avcodec_receive_frame(s.codec.get(), s.decoded.get());
    if (code == AVERROR(EAGAIN)) {
      if (s.drained) return fail("the decoder stopped early");
      code = av_read_frame(s.format.get(), s.packet.get());
      if (code == AVERROR_EOF) {
        avcodec_send_packet(s.codec.get(), nullptr);
        s.drained = true;
        continue;
      }
      if (code < 0) return fail("the file is damaged: " + AvError(code));
      if (s.packet->stream_index == s.stream) {
        code = avcodec_send_packet(s.codec.get(), s.packet.get());
        av_packet_unref(s.packet.get());
        if (code < 0 && code != AVERROR(EAGAIN))
          return fail("it cannot be decoded: " + AvError(code));
      } else {
        av_packet_unref(s.packet.get());
      }
      continue;
    }
    if (code == AVERROR_EOF) return fail("the file ends before it (truncated?)");
    if (code < 0) return fail("it cannot be decoded: " + AvError(code));
    int64_t at = s.next;
    if (s.timed) {
      const int64_t t = s.decoded->best_effort_timestamp != AV_NOPTS_VALUE
                            ? s.decoded->best_effort_timestamp
                            : s.decoded->pts;
      auto found = std::lower_bound(s.times.begin(), s.times.end(), t);
      if (found == s.times.end() || *found != t) {
        // A frame whose time is not in the index: the times cannot be trusted; decode in order.
        s.timed = false;
        std::string why;
        if (!OpenStream(info_.path, &s.format, &s.codec, &s.stream, &why)) return fail(why);
        s.next = 0;
        s.drained = false;
        continue;
      }
      at = found - s.times.begin();
    }
    s.current = at;
    s.next = at + 1;
    if (at > index) {
      // The seek landed past the frame: start again from the beginning, once.
      if (restarted) return fail("it cannot be reached by seeking");
      restarted = true;
      std::string why;
      if (!OpenStream(info_.path, &s.format, &s.codec, &s.stream, &why)) return fail(why);
      s.next = 0;
      s.current = -1;
      s.drained = false;
    }
  }

  const AVFrame* d = s.decoded.get();
  const AVPixelFormat format = static_cast<AVPixelFormat>(d->format);
  if (info_.width == 0) {
    // The first frame read fixes what the whole movie must be.
    info_.width = d->width;
    info_.height = d->height;
    info_.channels = HasAlpha(format) ? 4 : 3;
    info_.depth = BitsOf(format) > 8 ? SampleDepth::k16 : SampleDepth::k8;
    const char* name = av_get_pix_fmt_name(format);
    info_.pixelFormat = name ? name : "";
    info_.tags = {d->color_primaries, d->color_trc, d->colorspace, d->color_range};
    switch (d->color_trc) {
      case AVCOL_TRC_LINEAR: info_.colourSpace = "linear"; break;
      case AVCOL_TRC_IEC61966_2_1: info_.colourSpace = "sRGB"; break;
      case AVCOL_TRC_UNSPECIFIED: info_.colourSpace = IsRgb(format) ? "sRGB" : "Rec709"; break;
      default: info_.colourSpace = "Rec709"; break;
    }
  } else if (d->width != info_.width || d->height != info_.height) {
    return fail("it is " + std::to_string(d->width) + "x" + std::to_string(d->height) +
                " but the movie starts at " + std::to_string(info_.width) + "x" +
                std::to_string(info_.height) + ": the frame size changes mid-movie");
  }
  if (d->width <= 0 || d->height <= 0) return fail("it has no pixels");

  const bool alpha = info_.channels == 4;
  const AVPixelFormat packed = PackedFormat(info_.depth, alpha);
  if (!s.scaler || s.scalerFrom != format) {
    s.scaler = MakeScaler(d->width, d->height, format, packed,
                          MatrixFor(d->colorspace, d->height), d->color_range);
    s.scalerFrom = format;
    if (!s.scaler) return fail("no conversion from its pixel format to RGB");
  }
  const int channels = info_.channels;
  const int sampleBytes = info_.depth == SampleDepth::k8 ? 1 : 2;
  const size_t rowBytes = static_cast<size_t>(d->width) * channels * sampleBytes;
  std::vector<uint8_t> rgb(rowBytes * d->height);
  uint8_t* planes[4] = {rgb.data(), nullptr, nullptr, nullptr};
  int strides[4] = {static_cast<int>(rowBytes), 0, 0, 0};
  sws_scale(s.scaler.get(), d->data, d->linesize, 0, d->height, planes, strides);

  OIIO::ImageSpec imageSpec(d->width, d->height, channels,
                       sampleBytes == 1 ? OIIO::TypeDesc::UINT8 : OIIO::TypeDesc::UINT16);
  if (alpha) {
    imageSpec.channelnames = {"R", "G", "B", "A"};
    imageSpec.alpha_channel = 3;
  }
  imageSpec.attribute("oiio:ColorSpace", info_.colourSpace);
  const int rate[2] = {info_.rate.numerator, info_.rate.denominator};
  imageSpec.attribute("FramesPerSecond", OIIO::TypeRational, rate);
  if (!ClassifyFrame(info_.path, imageSpec, &frame->info, error)) return false;
  const size_t samples = static_cast<size_t>(d->width) * d->height * channels;
  frame->pixels.resize(samples);
  if (sampleBytes == 1) {
    for (size_t i = 0; i < samples; ++i) frame->pixels[i] = static_cast<float>(rgb[i]) / 255.0f;
  } else {
    const uint16_t* wide = reinterpret_cast<const uint16_t*>(rgb.data());
    for (size_t i = 0; i < samples; ++i) frame->pixels[i] = static_cast<float>(wide[i]) / 65535.0f;
  }
  return true;
}

// ---- Writing

const char* MovieCodecName(MovieCodec codec) {
  switch (codec) {
    case MovieCodec::kH264: return "h264";
    case MovieCodec::kFfv1: return "ffv1";
    case MovieCodec::kProres: return "prores";
  }
  return "?";
}

bool ParseMovieCodec(const std::string& text, MovieCodec* codec) {
  for (MovieCodec c : {MovieCodec::kH264, MovieCodec::kFfv1, MovieCodec::kProres})
    if (Lower(text) == MovieCodecName(c)) {
      *codec = c;
      return true;
    }
  return false;
}

namespace {

const char* EncoderName(MovieCodec codec) {
  switch (codec) {
    case MovieCodec::kH264: return "libx264";
    case MovieCodec::kFfv1: return "ffv1";
    case MovieCodec::kProres: return "prores_ks";
  }
  return "";
}

bool Takes(const AVCodec* encoder, AVPixelFormat format) {
  if (!encoder->pix_fmts) return false;
  for (const AVPixelFormat* p = encoder->pix_fmts; *p != AV_PIX_FMT_NONE; ++p)
    if (*p == format) return true;
  return false;
}

// The encoder and pixel format a movie is written with; false with the reason.
bool ChooseEncoding(const std::string& path, const MovieSettings& settings,
                    const AVOutputFormat** container, const AVCodec** encoder,
                    AVPixelFormat* format, std::string* why) {
  *container = av_guess_format(nullptr, path.c_str(), nullptr);
  if (!*container) {
    *why = "no movie container is known for its extension";
    return false;
  }
  *encoder = avcodec_find_encoder_by_name(EncoderName(settings.codec));
  if (!*encoder) {
    *why = std::string("this FFmpeg has no ") + EncoderName(settings.codec) + " encoder";
    return false;
  }
  if (avformat_query_codec(*container, (*encoder)->id, FF_COMPLIANCE_NORMAL) != 1) {
    *why = std::string("the ") + (*container)->name + " container cannot hold " +
           MovieCodecName(settings.codec) +
           (settings.codec == MovieCodec::kFfv1 ? " (use .mkv or .avi)"
            : settings.codec == MovieCodec::kProres ? " (use .mov or .mkv)" : "");
    return false;
  }
  const bool alpha = settings.channels == 2 || settings.channels == 4;
  const bool deep = settings.depth == SampleDepth::k16;
  if (settings.depth == SampleDepth::kHalf || settings.depth == SampleDepth::kFloat) {
    *why = std::string(MovieCodecName(settings.codec)) + " cannot hold " +
           DepthName(settings.depth) + " samples (use --out-depth 8 or 16)";
    return false;
  }
  const bool even = settings.width % 2 == 0 && settings.height % 2 == 0;
  switch (settings.codec) {
    case MovieCodec::kH264: {
      if (alpha) {
        *why = "h264 cannot hold alpha (use --codec ffv1 in .mkv, or prores in .mov)";
        return false;
      }
      const AVPixelFormat kept = av_get_pix_fmt(settings.inputPixelFormat.c_str());
      if (kept != AV_PIX_FMT_NONE && Takes(*encoder, kept) && !IsRgb(kept) &&
          (BitsOf(kept) > 8) == deep && (even || kept == AV_PIX_FMT_YUV444P ||
                                         kept == AV_PIX_FMT_YUV444P10))
        *format = kept;
      else if (deep)
        *format = even ? AV_PIX_FMT_YUV420P10 : AV_PIX_FMT_YUV444P10;
      else
        *format = even ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_YUV444P;
      break;
    }
    case MovieCodec::kFfv1:
      // RGB, as written: a lossless movie gives back exactly the frames it was given.
      *format = deep ? (alpha ? AV_PIX_FMT_RGBA64LE : AV_PIX_FMT_RGB48LE)
                     : (alpha ? AV_PIX_FMT_BGRA : AV_PIX_FMT_BGR0);
      break;
    case MovieCodec::kProres:
      // 4:2:2 needs an even width; otherwise 4:4:4.
      *format = alpha ? AV_PIX_FMT_YUVA444P10
                      : settings.width % 2 == 0 ? AV_PIX_FMT_YUV422P10 : AV_PIX_FMT_YUV444P10;
      break;
  }
  if (!Takes(*encoder, *format)) {
    *why = std::string(EncoderName(settings.codec)) + " does not take pixel format " +
           av_get_pix_fmt_name(*format);
    return false;
  }
  if (settings.width <= 0 || settings.height <= 0) {
    *why = "the frames have no pixels";
    return false;
  }
  return true;
}

}  // namespace

bool CheckMovieOutput(const std::string& path, const MovieSettings& settings,
                      std::string* error) {
  const AVOutputFormat* container = nullptr;
  const AVCodec* encoder = nullptr;
  AVPixelFormat format = AV_PIX_FMT_NONE;
  std::string why;
  if (settings.codec == MovieCodec::kH264 && (settings.crf < 0 || settings.crf > 51))
    why = "--crf " + std::to_string(settings.crf) + " is outside 0 to 51";
  else if (ChooseEncoding(path, settings, &container, &encoder, &format, &why))
    return true;
  *error = "cannot write movie " + Quote(path) + ": " + why;
  return false;
}

struct MovieWriter::State {
  std::string path, temp;
  bool overwrite = false;
  MovieSettings settings;
  AVFormatContext* format = nullptr;  // output contexts have no closing call of their own
  Codec codec;
  AVStream* stream = nullptr;
  FramePtr picture{av_frame_alloc()};
  PacketPtr packet{av_packet_alloc()};
  Scaler scaler;
  AVPixelFormat packedFormat = AV_PIX_FMT_NONE;
  bool finished = false;

  ~State() {
    if (format) {
      if (format->pb) avio_closep(&format->pb);
      avformat_free_context(format);
    }
    if (!finished && !temp.empty()) unlink(temp.c_str());
  }

  // Hands every packet the encoder has ready to the muxer.
  int Drain() {
    for (;;) {
      int code = avcodec_receive_packet(codec.get(), packet.get());
      if (code == AVERROR(EAGAIN) || code == AVERROR_EOF) return 0;
      if (code < 0) return code;
      av_packet_rescale_ts(packet.get(), codec->time_base, stream->time_base);
      packet->stream_index = stream->index;
      code = av_interleaved_write_frame(format, packet.get());
      if (code < 0) return code;
    }
  }
};

MovieWriter::MovieWriter() = default;
MovieWriter::~MovieWriter() { Abandon(); }

void MovieWriter::Abandon() { state_.reset(); }

bool MovieWriter::Open(const std::string& path, const MovieSettings& settings, bool overwrite,
                       std::string* error) {
  Abandon();
  written_ = 0;
  auto fail = [&](const std::string& why) {
    *error = "cannot write movie " + Quote(path) + ": " + why;
    state_.reset();
    return false;
  };
  QuietLibraries();
  if (!CheckMovieOutput(path, settings, error)) return false;
  if (!overwrite && access(path.c_str(), F_OK) == 0)
    return fail("it exists (use --overwrite to replace it)");
  state_ = std::make_unique<State>();
  State& s = *state_;
  s.path = path;
  s.temp = TemporaryPathFor(path);
  s.overwrite = overwrite;
  s.settings = settings;
  if (!s.picture || !s.packet) return fail("out of memory");
  const AVOutputFormat* container = nullptr;
  const AVCodec* encoder = nullptr;
  AVPixelFormat format = AV_PIX_FMT_NONE;
  std::string why;
  if (!ChooseEncoding(path, settings, &container, &encoder, &format, &why)) return fail(why);
  int code = avformat_alloc_output_context2(&s.format, container, nullptr, s.temp.c_str());
  if (code < 0 || !s.format) return fail(AvError(code));
  s.codec.reset(avcodec_alloc_context3(encoder));
  if (!s.codec) return fail("out of memory");
  AVCodecContext* c = s.codec.get();
  c->width = settings.width;
  c->height = settings.height;
  c->pix_fmt = format;
  c->time_base = {settings.rate.denominator, settings.rate.numerator};
  c->framerate = {settings.rate.numerator, settings.rate.denominator};
  c->sample_aspect_ratio = {1, 1};
  c->color_primaries = static_cast<AVColorPrimaries>(settings.tags.primaries);
  c->color_trc = static_cast<AVColorTransferCharacteristic>(settings.tags.transfer);
  const bool yuv = !IsRgb(format);
  c->colorspace = yuv ? static_cast<AVColorSpace>(MatrixFor(settings.tags.matrix, settings.height))
                      : AVCOL_SPC_RGB;
  c->color_range = yuv ? (settings.tags.range == AVCOL_RANGE_JPEG ? AVCOL_RANGE_JPEG
                                                                   : AVCOL_RANGE_MPEG)
                       : AVCOL_RANGE_JPEG;
  if (s.format->oformat->flags & AVFMT_GLOBALHEADER) c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  AVDictionary* options = nullptr;
  switch (settings.codec) {
    case MovieCodec::kH264:
      av_dict_set_int(&options, "crf", settings.crf, 0);
      av_dict_set(&options, "preset", "medium", 0);
      break;
    case MovieCodec::kFfv1:
      av_dict_set(&options, "level", "3", 0);
      av_dict_set(&options, "slicecrc", "1", 0);
      break;
    case MovieCodec::kProres:
      av_dict_set(&options, "profile", format == AV_PIX_FMT_YUV422P10 ? "hq" : "4444", 0);
      break;
  }
  code = avcodec_open2(c, encoder, &options);
  av_dict_free(&options);
  if (code < 0) return fail("the encoder refused the settings: " + AvError(code));
  s.stream = avformat_new_stream(s.format, nullptr);
  if (!s.stream) return fail("out of memory");
  s.stream->time_base = c->time_base;
  s.stream->avg_frame_rate = c->framerate;
  if ((code = avcodec_parameters_from_context(s.stream->codecpar, c)) < 0)
    return fail(AvError(code));
  if ((code = avio_open(&s.format->pb, s.temp.c_str(), AVIO_FLAG_WRITE)) < 0)
    return fail(AvError(code));
  if ((code = avformat_write_header(s.format, nullptr)) < 0) return fail(AvError(code));
  const bool alpha = settings.channels == 2 || settings.channels == 4;
  s.packedFormat = PackedFormat(settings.depth, alpha);
  s.scaler = MakeScaler(settings.width, settings.height, s.packedFormat, format, c->colorspace,
                        c->color_range);
  if (!s.scaler) return fail("no conversion from RGB to " + std::string(av_get_pix_fmt_name(format)));
  s.picture->format = format;
  s.picture->width = settings.width;
  s.picture->height = settings.height;
  if ((code = av_frame_get_buffer(s.picture.get(), 0)) < 0) return fail(AvError(code));
  return true;
}

bool MovieWriter::Write(const Frame& frame, std::string* error) {
  if (!state_) {
    *error = "cannot write a movie frame: no movie is open";
    return false;
  }
  State& s = *state_;
  auto fail = [&](const std::string& why) {
    *error = "cannot write movie " + Quote(s.path) + ": " + why;
    return false;
  };
  const FrameInfo& f = frame.info;
  if (f.width != s.settings.width || f.height != s.settings.height)
    return fail("a frame of " + std::to_string(f.width) + "x" + std::to_string(f.height) +
                " in a movie of " + std::to_string(s.settings.width) + "x" +
                std::to_string(s.settings.height));
  // Colour and alpha channels into the packed RGB(A) layout.
  const bool alpha = s.packedFormat == AV_PIX_FMT_RGBA || s.packedFormat == AV_PIX_FMT_RGBA64;
  const int out = alpha ? 4 : 3;
  int32_t alphaIndex = f.imageSpec.alpha_channel;
  if (alpha && (alphaIndex < 0 || alphaIndex >= f.channels)) alphaIndex = f.channels - 1;
  const bool wide = s.settings.depth == SampleDepth::k16;
  const size_t pixels = static_cast<size_t>(f.width) * f.height;
  std::vector<uint8_t> packed(pixels * out * (wide ? 2 : 1));
  uint16_t* packed16 = reinterpret_cast<uint16_t*>(packed.data());
  for (size_t i = 0; i < pixels; ++i) {
    const float* p = frame.pixels.data() + i * f.channels;
    for (int c = 0; c < out; ++c) {
      // OpenImageIO's own rounding, so a lossless movie holds what a file of the frame would.
      float v = p[c < 3 ? f.colour[c] : alphaIndex];
      if (std::isnan(v)) v = 0.0f;  // no integer holds it; the low end, as files get
      if (wide)
        packed16[i * out + c] = OIIO::convert_type<float, uint16_t>(v);
      else
        packed[i * out + c] = OIIO::convert_type<float, uint8_t>(v);
    }
  }
  int code = av_frame_make_writable(s.picture.get());
  if (code < 0) return fail(AvError(code));
  const uint8_t* planes[4] = {packed.data(), nullptr, nullptr, nullptr};
  const int strides[4] = {static_cast<int>(f.width * out * (wide ? 2 : 1)), 0, 0, 0};
  sws_scale(s.scaler.get(), planes, strides, 0, f.height, s.picture->data, s.picture->linesize);
  s.picture->pts = written_;
  if ((code = avcodec_send_frame(s.codec.get(), s.picture.get())) < 0 || (code = s.Drain()) < 0)
    return fail(AvError(code));
  ++written_;
  return true;
}

bool MovieWriter::Finish(std::string* error) {
  if (!state_) {
    *error = "cannot finish a movie: no movie is open";
    return false;
  }
  State& s = *state_;
  auto fail = [&](const std::string& why) {
    *error = "cannot write movie " + Quote(s.path) + ": " + why;
    state_.reset();
    return false;
  };
  int code = avcodec_send_frame(s.codec.get(), nullptr);
  if (code < 0 || (code = s.Drain()) < 0) return fail(AvError(code));
  if ((code = av_write_trailer(s.format)) < 0) return fail(AvError(code));
  if ((code = avio_closep(&s.format->pb)) < 0) return fail(AvError(code));
  // On the disk before the name appears.
  std::string why;
  if (!SyncToDisk(s.temp, &why)) return fail(why);
  if (s.overwrite) {
    if (rename(s.temp.c_str(), s.path.c_str()) != 0) return fail(std::strerror(errno));
  } else {
    // link() refuses an existing name, so a movie that appeared meanwhile is not replaced.
    if (link(s.temp.c_str(), s.path.c_str()) != 0) {
      int e = errno;
      if (e == EEXIST) return fail("it exists (use --overwrite to replace it)");
      if (e != EPERM && e != ENOTSUP && e != EXDEV) return fail(std::strerror(e));
      if (access(s.path.c_str(), F_OK) == 0) return fail("it exists (use --overwrite to replace it)");
      if (rename(s.temp.c_str(), s.path.c_str()) != 0) return fail(std::strerror(errno));
    } else {
      unlink(s.temp.c_str());
    }
  }
  s.finished = true;
  state_.reset();
  return true;
}

}  // namespace flowblur
