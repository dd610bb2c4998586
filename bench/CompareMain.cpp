// flowblur: flowblur_compare, a yardstick: OpenCV's DIS and Farneback flows against the plug-in's
// estimator on the same demo frames, working size and threads, each rendered by the same gather
// and scored against the same true shutter blur.
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchHost.h"
#include "bench/GroundTruth.h"
#include "blur/PLMotionBlur.h"
#include "image/PLImage.h"
#include "runtime/NuvMP.h"
#include "shell/SparkDriver.h"
#include "shell/spark.h"

namespace flowblur {
namespace {

using Options = HarnessOptions;

const char kUsage[] =
    "usage: flowblur_compare [--width W] [--height H] [--frames N] [--draft] [--amount A]\n"
    "                        [--processors P] [--subframes S] [--repeat R] [--threads T]\n"
    "On frames 0..N-1 of the demo clip (8-bit), computes the flow of each frame's pair (the\n"
    "plug-in's pair and order) with the plug-in's estimator and with OpenCV's DIS (ultrafast,\n"
    "fast, medium) and Farneback, at the plug-in's working size (half, or a quarter with\n"
    "--draft) and on P threads, renders each flow with the plug-in's renderer and scores it\n"
    "against the true blur. Flow times are the best of R runs per frame, from the RGB frames.\n";

// The build's "Parallel framework:" line, which says what runs OpenCV's threads.
std::string ParallelFramework() {
  const std::string info = cv::getBuildInformation();
  const std::string key = "Parallel framework:";
  size_t at = info.find(key);
  if (at == std::string::npos) return "unknown";
  at = info.find_first_not_of(' ', at + key.size());
  return info.substr(at, info.find('\n', at) - at);
}

double Milliseconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - since).count();
}

// A flow method: from the two 8-bit RGB frames (packed rows) to a flow at the working size in
// pixels of that grid, forward from the first to the second (first(x) at second(x + flow)).
using FlowMethod = std::function<bool(uint8_t* first, uint8_t* second, cv::Mat* flow)>;

struct Score {
  std::string name;
  double flowMs = 0.0, psnr = 0.0, epe = 0.0, discEpe = 0.0;
};

int Run(const Options& o) {
  const int32_t threads =
      o.threads > 0 ? o.threads
                    : std::max(1, static_cast<int32_t>(std::thread::hardware_concurrency()));
  const int64_t pixels = static_cast<int64_t>(o.width) * o.height;
  const size_t samples = static_cast<size_t>(pixels) * 3;
  DemoScene scene(o.width, o.height);
  PluginSession session(o.width, o.height, 24, o.frames, false, o.processors,
                        BenchControls(o.amount, o.draft));

  std::vector<std::vector<uint8_t>> frames(o.frames, std::vector<uint8_t>(samples));
  std::vector<std::vector<float>> seen(o.frames, std::vector<float>(samples));
  {
    std::vector<float> rgb(samples);
    for (int32_t n = 0; n < o.frames; ++n) {
      RenderSceneFrame(scene, n, threads, rgb.data());
      EncodeHostFrame(rgb.data(), pixels, 24, frames[n].data());
      DecodeHostFrame(frames[n].data(), pixels, 24, seen[n].data());
      session.SetFrame(kFrontClip, n, frames[n].data());
    }
  }

  // The working size is the plug-in estimator's own.
  int32_t workWidth = 0, workHeight = 0;
  {
    std::vector<float> uv;
    int32_t first, second;
    std::string error;
    if (!session.PluginFlow(1, &uv, &workWidth, &workHeight, &first, &second, &error)) {
      std::fprintf(stderr, "flowblur_compare: %s\n", error.c_str());
      return 1;
    }
  }

  cv::setNumThreads(o.processors);
  // OpenCV's inputs: the frames reduced to the working size by area averaging, then grey.
  auto grey = [&](uint8_t* rgb, cv::Mat* out) {
    cv::Mat frame(o.height, o.width, CV_8UC3, rgb);
    cv::Mat small;
    cv::resize(frame, small, cv::Size(workWidth, workHeight), 0, 0, cv::INTER_AREA);
    cv::cvtColor(small, *out, cv::COLOR_RGB2GRAY);
  };

  std::vector<std::pair<std::string, FlowMethod>> methods;
  methods.emplace_back(std::string("flowblur ") + (o.draft ? "Draft" : "Best"),
                       [&](uint8_t*, uint8_t*, cv::Mat*) { return true; });  // filled below
  const std::pair<const char*, int> presets[] = {
      {"DIS ultrafast", cv::DISOpticalFlow::PRESET_ULTRAFAST},
      {"DIS fast", cv::DISOpticalFlow::PRESET_FAST},
      {"DIS medium", cv::DISOpticalFlow::PRESET_MEDIUM}};
  std::vector<cv::Ptr<cv::DISOpticalFlow>> dis;
  for (const auto& preset : presets) {
    dis.push_back(cv::DISOpticalFlow::create(preset.second));
    cv::Ptr<cv::DISOpticalFlow> method = dis.back();
    methods.emplace_back(preset.first, [&, method](uint8_t* a, uint8_t* b, cv::Mat* flow) {
      cv::Mat ga, gb;
      grey(a, &ga);
      grey(b, &gb);
      method->calc(ga, gb, *flow);
      return true;
    });
  }
  methods.emplace_back("Farneback", [&](uint8_t* a, uint8_t* b, cv::Mat* flow) {
    cv::Mat ga, gb;
    grey(a, &ga);
    grey(b, &gb);
    // Common settings: halving pyramid of 5 levels (reaches motions of tens of pixels), 15 px
    // window, 3 iterations, degree-5 expansion.
    cv::calcOpticalFlowFarneback(ga, gb, *flow, 0.5, 5, 15, 3, 5, 1.2, 0);
    return true;
  });
  // The plug-in's estimator exactly as the frame driver runs it: build, run, tear down.
  int32_t pluginFrame = 0;
  methods[0].second = [&](uint8_t*, uint8_t*, cv::Mat* flow) {
    std::vector<float> uv;
    int32_t w, h, first, second;
    std::string error;
    if (!session.PluginFlow(pluginFrame, &uv, &w, &h, &first, &second, &error)) {
      std::fprintf(stderr, "flowblur_compare: %s\n", error.c_str());
      return false;
    }
    flow->create(h, w, CV_32FC2);
    std::memcpy(flow->ptr<float>(), uv.data(), uv.size() * sizeof(float));
    return true;
  };

  // The truth itself on the working grid: the exact motion of each pixel's surface.
  std::vector<float> motion;
  int32_t distance = 0;
  methods.emplace_back("true motion", [&](uint8_t*, uint8_t*, cv::Mat* flow) {
    flow->create(workHeight, workWidth, CV_32FC2);
    TrueFlowOnGrid(motion.data(), o.width, o.height, distance, workWidth, workHeight,
                   flow->ptr<float>());
    return true;
  });
  const size_t oracle = methods.size() - 1;

  std::vector<Score> scores(methods.size());
  for (size_t m = 0; m < methods.size(); ++m) scores[m].name = methods[m].first;
  double baseline = 0.0, renderMs = 0.0, pluginMatches = 0.0;
  std::vector<float> truth(samples), output(samples);
  std::vector<uint8_t> layers(static_cast<size_t>(pixels)), rendered(samples);

  for (int32_t n = 0; n < o.frames; ++n) {
    RenderTrueBlur(scene, n, o.amount, o.subframes, threads, truth.data());
    baseline += Psnr(seen[n].data(), truth.data(), samples);
    // The plug-in's own output, to check that the gather below reproduces it.
    std::string error;
    const void* pluginOutput = session.Process(n, &error);
    if (!pluginOutput) {
      std::fprintf(stderr, "flowblur_compare: frame %d: %s\n", n, error.c_str());
      return 1;
    }
    std::vector<uint8_t> pluginCopy(static_cast<const uint8_t*>(pluginOutput),
                                    static_cast<const uint8_t*>(pluginOutput) + samples);
    const int32_t neighbour = std::min(o.frames - 1, SparkNeighbourFrame(n, 0));
    const int32_t first = n == 0 ? neighbour : n, second = n == 0 ? n : neighbour;
    scene.Motion(first, &motion);
    scene.Layers(first, layers.data());
    distance = second - first;
    pluginFrame = n;

    for (size_t m = 0; m < methods.size(); ++m) {
      cv::Mat flow;
      double best = 0.0;
      for (int32_t r = 0; r < o.repeat; ++r) {
        auto start = std::chrono::steady_clock::now();
        if (!methods[m].second(frames[first].data(), frames[second].data(), &flow)) return 1;
        double ms = Milliseconds(start);
        best = r == 0 ? ms : std::min(best, ms);
      }
      if (flow.type() != CV_32FC2 || !flow.isContinuous() || flow.cols != workWidth ||
          flow.rows != workHeight) {
        std::fprintf(stderr, "flowblur_compare: %s gave a flow of another shape\n",
                     methods[m].first.c_str());
        return 1;
      }
      // The same gather for every flow: the plug-in's renderer, as RenderBlur calls it.
      NuvMPSetThreadCount(o.processors);
      ::Width = o.width;
      ::Height = o.height;
      PLImage source(frames[n].data(), o.width, o.height, 3, PLUChar, 0);
      PLImage destination(rendered.data(), o.width, o.height, 3, PLUChar, 0);
      PLImage flowImage(flow.ptr<float>(), workWidth, workHeight, 2, PLFloat, 0);
      std::fill(rendered.begin(), rendered.end(), 0);
      auto start = std::chrono::steady_clock::now();
      PLMotionBlur(&destination, &source, &flowImage, 1, 0, nullptr, 0, o.amount);
      if (m == 0) {
        renderMs += Milliseconds(start);
        pluginMatches += rendered == pluginCopy ? 1.0 : 0.0;
      }
      DecodeHostFrame(rendered.data(), pixels, 24, output.data());
      scores[m].flowMs += best;
      scores[m].psnr += Psnr(output.data(), truth.data(), samples);
      const float* uv = flow.ptr<float>();
      scores[m].epe += AverageEndpointError(uv, workWidth, workHeight, motion.data(), o.width,
                                            o.height, second - first);
      scores[m].discEpe += AverageEndpointError(uv, workWidth, workHeight, motion.data(), o.width,
                                                o.height, second - first, layers.data(),
                                                DemoClip::kDisc);
    }
  }

  const double count = o.frames;
  std::printf("flowblur_compare: demo clip %dx%d 8-bit, %d frames, working size %dx%d, amount "
              "%.2f, %d thread%s, true blur of %d sub-frames\n",
              o.width, o.height, o.frames, workWidth, workHeight, o.amount, o.processors,
              o.processors == 1 ? "" : "s", o.subframes);
  std::printf("OpenCV %s, %d threads, parallel framework: %s\n", CV_VERSION,
              cv::getNumThreads(), ParallelFramework().c_str());
  std::printf("%-16s %14s %9s %8s %9s %9s\n", "flow", "flow ms/frame", "PSNR dB", "gain dB",
              "EPE px", "disc EPE");
  for (size_t m = 0; m < scores.size(); ++m) {
    const Score& s = scores[m];
    char ms[32];
    std::snprintf(ms, sizeof ms, "%.1f", s.flowMs / count);
    std::printf("%-16s %14s %9.2f %+8.2f %9.3f %9.3f\n", s.name.c_str(), m == oracle ? "-" : ms,
                s.psnr / count, (s.psnr - baseline) / count, s.epe / count, s.discEpe / count);
  }
  std::printf("%-16s %14s %9.2f %+8.2f %9s %9s\n", "none (unblurred)", "-", baseline / count, 0.0,
              "-", "-");
  std::printf("render (the same gather for every flow): %.1f ms/frame; it reproduced the "
              "plug-in's output on %d of %d frames\n",
              renderMs / count, static_cast<int>(pluginMatches), o.frames);
  std::printf("(PSNR against the true blur, peak 1, mean of per-frame figures; EPE: mean endpoint "
              "error on the working grid in source pixels, over all pixels and over the disc)\n");
  return 0;
}

}  // namespace
}  // namespace flowblur

int main(int argc, char** argv) {
  flowblur::Options options;
  if (!flowblur::ParseHarnessOptions(argc, argv, {"flowblur_compare", false, true, 32}, &options)) {
    std::fputs(flowblur::kUsage, stderr);
    return 2;
  }
  return flowblur::Run(options);
}
