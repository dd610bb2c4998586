// flowblur tool tests: movies written and read back through FFmpeg's libraries, in order and
// out of order, every codec the tool offers; movies the reader and writer refuse (the rest of
// the refusals are checked through the command, in MovieCommandTest).
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cmath>
#include <cstring>
#include <fstream>

#include "tools/MovieFiles.h"
#include "tools/tests/ToolTestSupport.h"

namespace flowblur {
namespace {

// A frame of a moving pattern: a textured background and a bright square moving 3 px a frame;
// alpha, when there is one, a ramp that changes with t.
Frame MakeFrame(int32_t width, int32_t height, int32_t channels, SampleDepth depth, int32_t t) {
  Frame f;
  OIIO::ImageSpec imageSpec(width, height, channels, TypeFor(depth));
  if (channels == 4) imageSpec.alpha_channel = 3;
  std::string error;
  EXPECT_TRUE(ClassifyFrame("made", imageSpec, &f.info, &error)) << error;
  f.pixels.resize(static_cast<size_t>(width) * height * channels);
  const double levels = depth == SampleDepth::k8 ? 255.0 : 65535.0;
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x)
      for (int32_t c = 0; c < channels; ++c) {
        double v = 0.5 + 0.3 * std::sin(x * 0.3 + c) * std::cos(y * 0.2 - c);
        if (x >= 4 + 3 * t && x < 14 + 3 * t && y >= 6 && y < 16) v = 0.95;
        if (c == 3) v = ((x + y + 7 * t) % 64) / 63.0;
        // Stored values are what the depth can hold, so a lossless codec must give them back.
        f.pixels[(static_cast<size_t>(y) * width + x) * channels + c] =
            static_cast<float>(std::round(v * levels) / levels);
      }
  return f;
}

double PsnrOf(const Frame& a, const Frame& b) {
  double sum = 0.0;
  for (size_t i = 0; i < a.pixels.size(); ++i) {
    double d = static_cast<double>(a.pixels[i]) - b.pixels[i];
    sum += d * d;
  }
  return sum == 0.0 ? 99.0 : 10.0 * std::log10(a.pixels.size() / sum);
}

struct CodecCase {
  const char* name;
  const char* file;
  MovieCodec codec;
  SampleDepth depth;
  int32_t channels;
  double bound;  // lossless: the largest difference allowed (0); lossy: the lowest PSNR in dB
  bool lossless;
};

class MovieRoundTrip : public ::testing::TestWithParam<CodecCase> {};

TEST_P(MovieRoundTrip, FramesComeBackInAnyOrderAsWritten) {
  const CodecCase& c = GetParam();
  test::TempDir dir;
  const std::string path = dir / c.file;
  // 66x38: even for 4:2:0; a size that is no multiple of 16.
  const int32_t w = 66, h = 38, frames = 6;
  std::vector<Frame> written;
  for (int32_t t = 0; t < frames; ++t) written.push_back(MakeFrame(w, h, c.channels, c.depth, t));
  const MovieSettings settings{c.codec, 18, {25, 1}, w, h, c.channels, c.depth, "", {}};
  MovieWriter writer;
  std::string error;
  ASSERT_TRUE(writer.Open(path, settings, false, &error)) << error;
  for (const Frame& f : written) ASSERT_TRUE(writer.Write(f, &error)) << error;
  // Nothing under the final name until the movie is finished.
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  ASSERT_TRUE(writer.Finish(&error)) << error;
  EXPECT_EQ(test::Names(test::Snapshot(dir.path())), std::vector<std::string>{c.file});

  MovieReader reader;
  ASSERT_TRUE(reader.Open(path, &error)) << error;
  const MovieInfo& info = reader.Info();
  EXPECT_EQ(info.frames, frames);
  EXPECT_EQ(info.width, w);
  EXPECT_EQ(info.height, h);
  EXPECT_EQ(info.channels, c.channels);
  EXPECT_EQ(info.rate.Value(), 25.0);
  std::vector<Frame> inOrder(frames);
  for (int32_t t = 0; t < frames; ++t) {
    ASSERT_TRUE(reader.Read(t, &inOrder[t], &error)) << error;
    ASSERT_EQ(inOrder[t].pixels.size(), written[t].pixels.size());
    if (c.lossless) {
      EXPECT_EQ(inOrder[t].info.depth, c.depth);
      EXPECT_EQ(inOrder[t].pixels, written[t].pixels) << "frame " << t;
    } else {
      EXPECT_GT(PsnrOf(inOrder[t], written[t]), c.bound) << "frame " << t;
    }
  }
  // Backwards and skipping: the same pictures as decoding in order.
  for (int32_t t : {5, 2, 2, 0, 4, 1, 3}) {
    Frame again;
    ASSERT_TRUE(reader.Read(t, &again, &error)) << error;
    EXPECT_EQ(again.pixels, inOrder[t].pixels) << "frame " << t;
  }
  EXPECT_FALSE(reader.Read(frames, &inOrder[0], &error));
  EXPECT_NE(error.find("frames 0 to 5"), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, MovieRoundTrip,
    ::testing::Values(
        CodecCase{"Ffv1Rgb8", "a.mkv", MovieCodec::kFfv1, SampleDepth::k8, 3, 0.0, true},
        CodecCase{"Ffv1Rgba16", "a.avi", MovieCodec::kFfv1, SampleDepth::k16, 4, 0.0, true},
        // 4:2:0 chroma halves the colour detail of the texture: about 30 dB at crf 18.
        CodecCase{"H264Yuv420", "a.mp4", MovieCodec::kH264, SampleDepth::k8, 3, 27.0, false},
        CodecCase{"H264TenBit", "a.mov", MovieCodec::kH264, SampleDepth::k16, 3, 27.0, false},
        CodecCase{"ProresAlpha", "a.mov", MovieCodec::kProres, SampleDepth::k16, 4, 30.0, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(MovieWriterRefuses, AnUnfinishedMovieLeavesNothingAndAnExistingOneStays) {
  test::TempDir dir;
  const MovieSettings s{MovieCodec::kFfv1, 18, {}, 16, 16, 3, SampleDepth::k8, "", {}};
  std::string error;
  const Frame fits = MakeFrame(16, 16, 3, SampleDepth::k8, 0);
  const Frame wider = MakeFrame(18, 16, 3, SampleDepth::k8, 0);
  {
    MovieWriter writer;
    ASSERT_TRUE(writer.Open(dir / "m.mkv", s, false, &error)) << error;
    ASSERT_TRUE(writer.Write(fits, &error)) << error;
    // A frame of another size is refused, naming the movie.
    EXPECT_FALSE(writer.Write(wider, &error));
    EXPECT_NE(error.find("m.mkv"), std::string::npos) << error;
  }
  EXPECT_TRUE(test::Snapshot(dir.path()).empty());
  std::ofstream(dir / "m.mkv") << "keep";
  MovieWriter writer;
  EXPECT_FALSE(writer.Open(dir / "m.mkv", s, false, &error));
  EXPECT_NE(error.find("exists"), std::string::npos) << error;
  EXPECT_EQ(test::ReadBytes(dir / "m.mkv"), "keep");
}

// A movie whose frames change size: Motion JPEG in AVI, each packet a JPEG file of its own size
// (two 32x32, then one 48x32), muxed through the libraries directly (our writer refuses such
// frames).
void WriteSizeChangingMovie(const test::TempDir& dir, const std::string& path) {
  AVFormatContext* out = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&out, nullptr, nullptr, path.c_str()), 0);
  AVStream* stream = avformat_new_stream(out, nullptr);
  stream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
  stream->codecpar->codec_id = AV_CODEC_ID_MJPEG;
  stream->codecpar->width = stream->codecpar->height = 32;
  stream->time_base = {1, 25};
  ASSERT_GE(avio_open(&out->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
  ASSERT_GE(avformat_write_header(out, nullptr), 0);
  AVPacket* packet = av_packet_alloc();
  for (int i = 0; i < 3; ++i) {
    const int32_t w = i < 2 ? 32 : 48;
    const std::string file = dir / ("frame" + std::to_string(i) + ".jpg");
    test::WriteRgb8(file, w, 32, std::vector<float>(w * 32 * 3, 0.5f));
    const std::string jpeg = test::ReadBytes(file);
    ASSERT_GE(av_new_packet(packet, static_cast<int>(jpeg.size())), 0);
    std::memcpy(packet->data, jpeg.data(), jpeg.size());
    packet->pts = packet->dts = i;
    packet->flags |= AV_PKT_FLAG_KEY;
    av_packet_rescale_ts(packet, {1, 25}, stream->time_base);
    ASSERT_GE(av_interleaved_write_frame(out, packet), 0);
  }
  av_write_trailer(out);
  avio_closep(&out->pb);
  avformat_free_context(out);
  av_packet_free(&packet);
}

// A WAV file: sound and no picture (a PCM header, mono 16-bit at 8 kHz, then 800 silent
// samples).
void WriteAudioOnly(const std::string& path) {
  const char header[] = "RIFF\x64\x06\0\0WAVEfmt \x10\0\0\0\x01\0\x01\0\x40\x1f\0\0\x80\x3e\0\0"
                        "\x02\0\x10\0data\x40\x06\0\0";
  std::ofstream f(path, std::ios::binary);
  f.write(header, sizeof header - 1);
  f << std::string(1600, '\0');
}

TEST(MovieReaderRefuses, FilesThatAreNoReadableMovie) {
  test::TempDir dir;
  std::string error;
  MovieReader reader;
  // Sound only.
  WriteAudioOnly(dir / "sound.avi");
  EXPECT_FALSE(reader.Open(dir / "sound.avi", &error));
  EXPECT_NE(error.find("no video stream"), std::string::npos) << error;
  // A size that changes after the first frames is found when that frame is read.
  WriteSizeChangingMovie(dir, dir / "sizes.avi");
  ASSERT_TRUE(reader.Open(dir / "sizes.avi", &error)) << error;
  EXPECT_EQ(reader.Info().frames, 3);
  Frame frame;
  EXPECT_TRUE(reader.Read(1, &frame, &error)) << error;
  EXPECT_FALSE(reader.Read(2, &frame, &error));
  EXPECT_NE(error.find("changes mid-movie"), std::string::npos) << error;
  EXPECT_NE(error.find("sizes.avi"), std::string::npos) << error;
}

TEST(MovieNames, ExtensionsAndRates) {
  EXPECT_TRUE(IsMoviePath("a/b.MP4"));
  EXPECT_TRUE(IsMoviePath("clip.mkv"));
  EXPECT_FALSE(IsMoviePath("shot.%04d.png"));
  EXPECT_FALSE(IsMoviePath("movie.mov/frame"));
  FrameRate r;
  std::string error;
  ASSERT_TRUE(ParseFrameRate("29.97", &r, &error));
  EXPECT_EQ(r.numerator, 2997);
  EXPECT_EQ(r.denominator, 100);
  ASSERT_TRUE(ParseFrameRate("30000/1001", &r, &error));
  EXPECT_EQ(r.denominator, 1001);
  for (const char* bad : {"", "0", "-24", "24/0", "x", "1/2/3"})
    EXPECT_FALSE(ParseFrameRate(bad, &r, &error)) << bad;
}

}  // namespace
}  // namespace flowblur
