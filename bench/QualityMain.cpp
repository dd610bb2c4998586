// flowblur: flowblur_quality, the plug-in's output against the true shutter blur of the demo
// clip, with the do-nothing baseline and the estimator's endpoint error, frame by frame.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchHost.h"
#include "bench/GroundTruth.h"
#include "blur/PLMotionBlur.h"
#include "image/PLImage.h"
#include "runtime/NuvMP.h"
#include "shell/SparkPack.h"
#include "shell/spark.h"

namespace flowblur {
namespace {

using Options = HarnessOptions;

const char kUsage[] =
    "usage: flowblur_quality [--width W] [--height H] [--frames N] [--format 24|48|49]\n"
    "                        [--draft] [--amount A] [--processors P] [--subframes S]\n"
    "                        [--threads T] [--linear-light]\n"
    "Runs the plug-in (SparkProcess through the host simulator) on frames 0..N-1 (N >= 3) of the demo\n"
    "clip, moving as at 960 wide at any size (5 to 30 px a frame), and compares each output with the\n"
    "true blur: the mean of S renders across a shutter open for amount x the frame interval,\n"
    "centred on the frame. Defaults: 960x540, 8 frames, format 24, Best, amount 0.5,\n"
    "2 processors, 64 sub-frames.\n"
    "--linear-light: the clip's values are sRGB-encoded light; the true blur adds up linear\n"
    "light and is stored as 8-bit sRGB. Compares the plug-in on the stored 8-bit values\n"
    "(--colorspace none, format 24) with the plug-in in linear light through half floats\n"
    "(--colorspace auto, format 49).\n";

// The published sRGB curves (the built-in configuration's sRGB, as the batch host converts it).
double SrgbToLinear(double v) {
  return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}
double LinearToSrgb(double v) {
  return v <= 0.0031308 ? v * 12.92 : 1.055 * std::pow(v, 1.0 / 2.4) - 0.055;
}
float Quantise8(double v) { return static_cast<float>(std::lround(std::clamp(v, 0.0, 1.0) * 255.0) / 255.0); }

// The plug-in's output for frame n of a session whose clip is already set, decoded to floats.
bool Process(PluginSession& session, int32_t n, int32_t format, int64_t pixels, float* rgb) {
  spark_info_struct info = session.BeginFrame(n);
  const void* result = SparkProcess(info);
  std::string said;
  if (session.TakeNotes(&said) || !result) {
    std::fprintf(stderr, "flowblur_quality: frame %d: %s\n", n,
                 said.empty() ? "the plug-in returned no result" : said.c_str());
    return false;
  }
  return DecodeHostFrame(result, pixels, format, rgb);
}

// The plug-in's renderer as RenderBlur calls it (bilinear, edges not counted) on a packed host
// frame along `flow`, decoded to floats as the host would receive it. Half frames go through
// float planes and back to halves, as in the driver.
void RenderAlong(const void* hostFrame, int32_t width, int32_t height, int32_t format,
                 float* flow, int32_t flowWidth, int32_t flowHeight, float amount,
                 int32_t processors, float* rgb) {
  const int64_t pixels = static_cast<int64_t>(width) * height;
  const size_t samples = static_cast<size_t>(pixels) * 3;
  const int32_t type = format == 49 ? PLFloat : format == 48 || format == 64 ? PLUShort : PLUChar;
  std::vector<float> planes;
  std::vector<uint8_t> rendered;
  void* source = const_cast<void*>(hostFrame);
  void* destination;
  if (type == PLFloat) {
    planes.resize(samples * 2);
    DecodeHostFrame(hostFrame, pixels, 49, planes.data());
    source = planes.data();
    destination = planes.data() + samples;
  } else {
    rendered.resize(samples * HostBytesPerPixel(format) / 3);
    destination = rendered.data();
  }
  PLImage sourceImage(source, width, height, 3, type, 0);
  PLImage destinationImage(destination, width, height, 3, type, 0);
  PLImage flowImage(flow, flowWidth, flowHeight, 2, PLFloat, 0);
  NuvMPSetThreadCount(processors);
  ::Width = width;
  ::Height = height;
  PLMotionBlur(&destinationImage, &sourceImage, &flowImage, 1, 0, nullptr, 0, amount);
  if (type == PLFloat)
    for (size_t i = 0; i < samples; ++i)
      rgb[i] = HalfToFloat(SparkFloatToHalf(planes[samples + i]));  // the driver's packing
  else
    DecodeHostFrame(rendered.data(), pixels, format, rgb);
}

int Run(const Options& o) {
  const int32_t threads =
      o.threads > 0 ? o.threads : std::max(1, static_cast<int32_t>(std::thread::hardware_concurrency()));
  DemoScene scene(o.width, o.height);
  PluginSession session(o.width, o.height, o.format, o.frames, false, o.processors,
                        BenchControls(o.amount, o.draft));
  const int64_t pixels = static_cast<int64_t>(o.width) * o.height;
  const size_t samples = static_cast<size_t>(pixels) * 3;

  // The clip as the host holds it, and each frame as the plug-in sees it (after coding).
  std::vector<std::vector<float>> seen(o.frames, std::vector<float>(samples));
  {
    std::vector<float> rgb(samples);
    std::vector<uint8_t> host(static_cast<size_t>(session.FrameBytes()));
    for (int32_t n = 0; n < o.frames; ++n) {
      RenderSceneFrame(scene, n, threads, rgb.data());
      EncodeHostFrame(rgb.data(), pixels, o.format, host.data());
      session.SetFrame(kFrontClip, n, host.data());
      DecodeHostFrame(host.data(), pixels, o.format, seen[n].data());
    }
  }

  std::printf("flowblur_quality: demo clip %dx%d, %d frames, format %d, %s, amount %.2f, "
              "%d processor%s, true blur of %d sub-frames\n",
              o.width, o.height, o.frames, o.format, o.draft ? "Draft" : "Best", o.amount,
              o.processors, o.processors == 1 ? "" : "s", o.subframes);
  std::printf("%5s %7s %14s %15s %7s %11s %9s %9s %10s\n", "frame", "pair", "PSNR plug-in",
              "PSNR unblurred", "gain", "PSNR truth", "EPE px", "disc EPE", "ms/frame");

  std::vector<float> truth(samples), output(samples), motion;
  std::vector<float> flow;
  std::vector<uint8_t> layers(static_cast<size_t>(pixels));
  std::vector<float> trueFlow;
  std::vector<float> oracle(samples);
  int32_t reproduced = 0;
  double sumPlugin = 0.0, sumBase = 0.0, sumOracle = 0.0, sumEpe = 0.0, sumDisc = 0.0, sumMs = 0.0;
  for (int32_t n = 0; n < o.frames; ++n) {
    RenderTrueBlur(scene, n, o.amount, o.subframes, threads, truth.data());

    spark_info_struct info = session.BeginFrame(n);
    auto start = std::chrono::steady_clock::now();
    const void* result = SparkProcess(info);
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    std::string said;
    if (session.TakeNotes(&said) || !result) {
      std::fprintf(stderr, "flowblur_quality: frame %d: %s\n", n,
                   said.empty() ? "the plug-in returned no result" : said.c_str());
      return 1;
    }
    DecodeHostFrame(result, pixels, o.format, output.data());
    double psnrPlugin = Psnr(output.data(), truth.data(), samples);
    double psnrBase = Psnr(seen[n].data(), truth.data(), samples);

    int32_t flowWidth = 0, flowHeight = 0, first = 0, second = 0;
    std::string error;
    if (!session.PluginFlow(n, &flow, &flowWidth, &flowHeight, &first, &second, &error)) {
      std::fprintf(stderr, "flowblur_quality: frame %d: %s\n", n, error.c_str());
      return 1;
    }
    // The flow lives on the first image's grid and measures the displacement to the second.
    scene.Motion(first, &motion);
    double epe = AverageEndpointError(flow.data(), flowWidth, flowHeight, motion.data(), o.width,
                                      o.height, second - first);
    scene.Layers(first, layers.data());
    double discEpe = AverageEndpointError(flow.data(), flowWidth, flowHeight, motion.data(),
                                          o.width, o.height, second - first, layers.data(),
                                          DemoClip::kDisc);
    // The same render along the plug-in's own flow must give the plug-in's output: then the
    // render along the true motion below is what the plug-in's renderer makes of the exact
    // motion of each pixel's surface (no ceiling: see TrueFlowOnGrid).
    RenderAlong(session.ClipFrame(kFrontClip, n), o.width, o.height, o.format, flow.data(), flowWidth,
                flowHeight, o.amount, o.processors, oracle.data());
    reproduced += oracle == output ? 1 : 0;
    trueFlow.resize(flow.size());
    TrueFlowOnGrid(motion.data(), o.width, o.height, second - first, flowWidth, flowHeight,
                   trueFlow.data());
    RenderAlong(session.ClipFrame(kFrontClip, n), o.width, o.height, o.format, trueFlow.data(), flowWidth,
                flowHeight, o.amount, o.processors, oracle.data());
    double psnrOracle = Psnr(oracle.data(), truth.data(), samples);
    std::printf("%5d %3d->%-3d %14.2f %15.2f %+7.2f %11.2f %9.3f %9.3f %10.1f\n", n, first,
                second, psnrPlugin, psnrBase, psnrPlugin - psnrBase, psnrOracle, epe, discEpe, ms);
    sumOracle += psnrOracle;
    sumPlugin += psnrPlugin;
    sumBase += psnrBase;
    sumEpe += epe;
    sumDisc += discEpe;
    sumMs += ms;
  }
  const double count = o.frames;
  std::printf("%5s %7s %14.2f %15.2f %+7.2f %11.2f %9.3f %9.3f %10.1f\n", "mean", "",
              sumPlugin / count, sumBase / count, (sumPlugin - sumBase) / count, sumOracle / count,
              sumEpe / count, sumDisc / count, sumMs / count);
  std::printf("the harness's render along the plug-in's flow reproduced the plug-in's output on "
              "%d of %d frames\n", reproduced, o.frames);
  std::printf("(PSNR in dB against the true blur, peak 1; PSNR truth: the plug-in's renderer "
              "along the true motion of each pixel's surface instead of the estimate; EPE: mean endpoint error of the flow on "
              "its working grid, in source pixels, over all pixels and over the fast disc; ms/frame: "
              "SparkProcess wall time; means are of the per-frame figures)\n");
  return 0;
}

// The linear-light case: the demo clip's values taken as sRGB-encoded; the truth is the mean
// of the sub-frames' linear light, stored as 8-bit sRGB. The plug-in runs on the 8-bit frames
// as stored (none), and on their linear light as half floats, encoded back to 8-bit sRGB
// after (auto), as the batch host does with --colorspace none and auto.
int RunLinearLight(const Options& o) {
  const int32_t threads =
      o.threads > 0 ? o.threads : std::max(1, static_cast<int32_t>(std::thread::hardware_concurrency()));
  DemoScene scene(o.width, o.height);
  const int64_t pixels = static_cast<int64_t>(o.width) * o.height;
  const size_t samples = static_cast<size_t>(pixels) * 3;
  std::printf("flowblur_quality --linear-light: demo clip %dx%d, %d frames, %s, amount %.2f, "
              "true blur of %d sub-frames in linear light, stored as 8-bit sRGB\n",
              o.width, o.height, o.frames, o.draft ? "Draft" : "Best", o.amount, o.subframes);
  // The truth of every frame, and the clip as 8-bit files hold it.
  std::vector<std::vector<float>> truth(o.frames, std::vector<float>(samples));
  std::vector<std::vector<uint8_t>> files(o.frames, std::vector<uint8_t>(samples));
  {
    std::vector<float> sub(samples);
    std::vector<double> sum(samples);
    for (int32_t n = 0; n < o.frames; ++n) {
      RenderSceneFrame(scene, n, threads, sub.data());
      EncodeHostFrame(sub.data(), pixels, 24, files[n].data());
      std::fill(sum.begin(), sum.end(), 0.0);
      for (int32_t k = 0; k < o.subframes; ++k) {
        const double t = n - o.amount / 2.0 + (k + 0.5) * o.amount / o.subframes;
        RenderSceneFrame(scene, t, threads, sub.data());
        for (size_t i = 0; i < samples; ++i) sum[i] += SrgbToLinear(sub[i]);
      }
      for (size_t i = 0; i < samples; ++i)
        truth[n][i] = Quantise8(LinearToSrgb(sum[i] / o.subframes));
    }
  }
  // One session at a time (the plug-in keeps its frame records in statics): first the stored
  // values, then linear light.
  std::vector<double> psnr[2];
  std::vector<float> out(samples), light(samples);
  for (int pass = 0; pass < 2; ++pass) {
    const int32_t format = pass == 0 ? 24 : 49;
    PluginSession session(o.width, o.height, format, o.frames, false, o.processors,
                          BenchControls(o.amount, o.draft));
    std::vector<uint8_t> host(static_cast<size_t>(session.FrameBytes()));
    for (int32_t n = 0; n < o.frames; ++n) {
      if (pass == 0) {
        session.SetFrame(kFrontClip, n, files[n].data());
      } else {
        for (size_t i = 0; i < samples; ++i)
          light[i] = static_cast<float>(SrgbToLinear(files[n][i] / 255.0));
        EncodeHostFrame(light.data(), pixels, 49, host.data());
        session.SetFrame(kFrontClip, n, host.data());
      }
    }
    for (int32_t n = 0; n < o.frames; ++n) {
      if (!Process(session, n, format, pixels, out.data())) return 1;
      if (pass == 1)
        for (float& v : out) v = Quantise8(LinearToSrgb(std::max(0.0f, v)));
      psnr[pass].push_back(Psnr(out.data(), truth[n].data(), samples));
    }
  }
  std::printf("%5s %12s %12s %7s\n", "frame", "PSNR none", "PSNR auto", "gain");
  double sumNone = 0.0, sumAuto = 0.0;
  for (int32_t n = 0; n < o.frames; ++n) {
    std::printf("%5d %12.2f %12.2f %+7.2f\n", n, psnr[0][n], psnr[1][n], psnr[1][n] - psnr[0][n]);
    sumNone += psnr[0][n];
    sumAuto += psnr[1][n];
  }
  std::printf("%5s %12.2f %12.2f %+7.2f\n", "mean", sumNone / o.frames, sumAuto / o.frames,
              (sumAuto - sumNone) / o.frames);
  std::printf("(PSNR in dB against the true blur in linear light stored as 8-bit sRGB, peak 1; "
              "none: the plug-in on the stored values; auto: in linear light through half)\n");
  return 0;
}

}  // namespace
}  // namespace flowblur

int main(int argc, char** argv) {
  flowblur::Options options;
  // --linear-light is this program's own; the rest are the harness's common options.
  std::vector<char*> args;
  bool linearLight = false;
  for (int i = 0; i < argc; ++i) {
    if (i > 0 && std::strcmp(argv[i], "--linear-light") == 0)
      linearLight = true;
    else
      args.push_back(argv[i]);
  }
  if (!flowblur::ParseHarnessOptions(static_cast<int>(args.size()), args.data(),
                                     {"flowblur_quality", !linearLight, false, 16}, &options)) {
    std::fputs(flowblur::kUsage, stderr);
    return 2;
  }
  return linearLight ? flowblur::RunLinearLight(options) : flowblur::Run(options);
}
