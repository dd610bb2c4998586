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

#include <time.h>

#include "bench/BenchHost.h"
#include "bench/GroundTruth.h"
#include "blur/PLMotionBlur.h"
#include "host/SparkHost.h"
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
    "against the true blur. Flow times are the best of R runs per frame, from the RGB frames.\n"
    "With --pipeline (default size 1920x1080) it times whole frames instead: SparkProcess in\n"
    "Best and Draft against the script a user would write (DIS medium at half size, or\n"
    "ultrafast at a quarter, the flow upsampled, then 11 bilinear remaps along it averaged),\n"
    "on 1 and on P threads, and prints the ratios: of wall times, and on 1 thread also of the\n"
    "calling thread's CPU times, which a loaded machine disturbs far less.\n";

// The build's "Parallel framework:" line, which says what runs OpenCV's threads.
std::string ParallelFramework() {
  const std::string info = cv::getBuildInformation();
  const std::string key = "Parallel framework:";
  size_t at = info.find(key);
  if (at == std::string::npos) return "unknown";
  at = info.find_first_not_of(' ', at + key.size());
  return info.substr(at, info.find('\n', at) - at);
}

// The first three fields of /proc/loadavg and a newline ("?" where it cannot be read).
std::string LoadAverage() {
  char text[128] = {};
  FILE* f = std::fopen("/proc/loadavg", "r");
  if (!f) return "?\n";
  double a = 0, b = 0, c = 0;
  const int read = std::fscanf(f, "%lf %lf %lf", &a, &b, &c);
  std::fclose(f);
  if (read != 3) return "?\n";
  std::snprintf(text, sizeof text, "%.2f %.2f %.2f\n", a, b, c);
  return text;
}

// CPU time of the calling thread, in ms. On one processor both sides run wholly on the
// calling thread (the plug-in forks nothing, OpenCV on one thread runs inline), so this is
// their work without the time other programs took from them: the figure to trust on a
// loaded machine.
double ThreadCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec * 1e-6;
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

// ---- Whole frames: the plug-in against the usual flow-plus-remap script -----------------

// The script, on one pair of 8-bit RGB frames: grey at the working size by area averaging,
// DIS, the flow resized to the frame and scaled to its pixels, then `taps` remaps of the
// frame at offsets t * flow for t evenly from -amount/2 to +amount/2, averaged in float.
struct RemapScript {
  cv::Ptr<cv::DISOpticalFlow> dis;
  int32_t workWidth, workHeight, taps;
  float amount;
  cv::Mat gridX, gridY;  // pixel coordinates of the frame

  RemapScript(int preset, int32_t width, int32_t height, int32_t ww, int32_t wh, float a)
      : dis(cv::DISOpticalFlow::create(preset)), workWidth(ww), workHeight(wh), taps(11),
        amount(a) {
    gridX.create(height, width, CV_32F);
    gridY.create(height, width, CV_32F);
    for (int32_t y = 0; y < height; ++y)
      for (int32_t x = 0; x < width; ++x) {
        gridX.at<float>(y, x) = static_cast<float>(x);
        gridY.at<float>(y, x) = static_cast<float>(y);
      }
  }

  void Run(const cv::Mat& current, const cv::Mat& neighbour, cv::Mat* out) {
    cv::Mat small, greyCurrent, greyNeighbour, flow, full;
    cv::resize(current, small, cv::Size(workWidth, workHeight), 0, 0, cv::INTER_AREA);
    cv::cvtColor(small, greyCurrent, cv::COLOR_RGB2GRAY);
    cv::resize(neighbour, small, cv::Size(workWidth, workHeight), 0, 0, cv::INTER_AREA);
    cv::cvtColor(small, greyNeighbour, cv::COLOR_RGB2GRAY);
    dis->calc(greyCurrent, greyNeighbour, flow);
    cv::resize(flow, full, current.size(), 0, 0, cv::INTER_LINEAR);
    cv::Mat uv[2];
    cv::split(full, uv);
    uv[0] *= static_cast<double>(current.cols) / workWidth;
    uv[1] *= static_cast<double>(current.rows) / workHeight;
    cv::Mat sum = cv::Mat::zeros(current.size(), CV_32FC3), mapX, mapY, warped;
    for (int32_t k = 0; k < taps; ++k) {
      const double t = amount * (static_cast<double>(k) / (taps - 1) - 0.5);
      cv::scaleAdd(uv[0], t, gridX, mapX);
      cv::scaleAdd(uv[1], t, gridY, mapY);
      cv::remap(current, warped, mapX, mapY, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
      cv::accumulate(warped, sum);
    }
    sum.convertTo(*out, CV_8UC3, 1.0 / taps);
  }
};

int RunPipeline(const Options& o) {
  const int32_t threads =
      o.threads > 0 ? o.threads
                    : std::max(1, static_cast<int32_t>(std::thread::hardware_concurrency()));
  const int64_t pixels = static_cast<int64_t>(o.width) * o.height;
  const size_t samples = static_cast<size_t>(pixels) * 3;
  DemoScene scene(o.width, o.height);
  std::vector<std::vector<uint8_t>> frames(o.frames, std::vector<uint8_t>(samples));
  {
    std::vector<float> rgb(samples);
    for (int32_t n = 0; n < o.frames; ++n) {
      RenderSceneFrame(scene, n, threads, rgb.data());
      EncodeHostFrame(rgb.data(), pixels, 24, frames[n].data());
    }
  }
  std::printf("flowblur_compare --pipeline: demo clip %dx%d 8-bit, frames 1..%d, amount %.2f, "
              "best of %d runs a frame; OpenCV %s (%s); load average at the start %s",
              o.width, o.height, o.frames - 1, o.amount, o.repeat, CV_VERSION,
              ParallelFramework().c_str(), LoadAverage().c_str());
  std::printf("%-6s %5s %-32s %12s %12s %7s %12s %12s %7s  %s\n", "preset", "procs", "script",
              "plug-in ms", "script ms", "ratio", "plug-in cpu", "script cpu", "ratio",
              "plug-in output hash");
  std::vector<int32_t> processorCounts = {1};
  if (o.processors > 1) processorCounts.push_back(o.processors);
  double pluginMs[2][2] = {};
  uint64_t hash[2][2] = {{14695981039346656037ull, 14695981039346656037ull},
                         {14695981039346656037ull, 14695981039346656037ull}};
  for (size_t pi = 0; pi < processorCounts.size(); ++pi) {
    const int32_t processors = processorCounts[pi];
    for (int32_t draft = 0; draft < 2; ++draft) {
      // The plug-in, whole frames as the host asks for them (frame 0 is left out: it pairs
      // forward, every other frame backward).
      double plugin = 0.0, script = 0.0, pluginCpu = 0.0, scriptCpu = 0.0;
      int32_t workWidth = 0, workHeight = 0;
      {
        PluginSession session(o.width, o.height, 24, o.frames, false, processors,
                              BenchControls(o.amount, draft != 0));
        for (int32_t n = 0; n < o.frames; ++n) session.SetFrame(kFrontClip, n, frames[n].data());
        std::string error;
        for (int32_t n = 1; n < o.frames; ++n) {
          double best = 0.0, bestCpu = 0.0;
          const void* output = nullptr;
          for (int32_t r = 0; r < o.repeat; ++r) {
            const double cpu = ThreadCpuMs();
            auto start = std::chrono::steady_clock::now();
            output = session.Process(n, &error);
            if (!output) {
              std::fprintf(stderr, "flowblur_compare: frame %d: %s\n", n, error.c_str());
              return 1;
            }
            const double ms = Milliseconds(start);
            const double cpuMs = ThreadCpuMs() - cpu;
            best = r == 0 ? ms : std::min(best, ms);
            bestCpu = r == 0 ? cpuMs : std::min(bestCpu, cpuMs);
          }
          plugin += best;
          pluginCpu += bestCpu;
          // FNV-1a over the output bytes: two builds that print the same hash gave the
          // same frames.
          const uint8_t* bytes = static_cast<const uint8_t*>(output);
          uint64_t& h = hash[pi][draft];
          for (size_t i = 0; i < samples; ++i) h = (h ^ bytes[i]) * 1099511628211ull;
        }
        std::vector<float> uv;
        int32_t first, second;
        if (!session.PluginFlow(1, &uv, &workWidth, &workHeight, &first, &second, &error)) {
          std::fprintf(stderr, "flowblur_compare: %s\n", error.c_str());
          return 1;
        }
      }
      sparkhost::Reset();
      // The script at the plug-in's working size, on as many threads.
      cv::setNumThreads(processors);
      RemapScript remap(draft ? cv::DISOpticalFlow::PRESET_ULTRAFAST
                              : cv::DISOpticalFlow::PRESET_MEDIUM,
                        o.width, o.height, workWidth, workHeight, o.amount);
      cv::Mat out;
      for (int32_t n = 1; n < o.frames; ++n) {
        const cv::Mat current(o.height, o.width, CV_8UC3, frames[n].data());
        const cv::Mat neighbour(o.height, o.width, CV_8UC3,
                                frames[std::min(o.frames - 1, SparkNeighbourFrame(n, 0))].data());
        double best = 0.0, bestCpu = 0.0;
        for (int32_t r = 0; r < o.repeat; ++r) {
          const double cpu = ThreadCpuMs();
          auto start = std::chrono::steady_clock::now();
          remap.Run(current, neighbour, &out);
          const double ms = Milliseconds(start);
          const double cpuMs = ThreadCpuMs() - cpu;
          best = r == 0 ? ms : std::min(best, ms);
          bestCpu = r == 0 ? cpuMs : std::min(bestCpu, cpuMs);
        }
        script += best;
        scriptCpu += bestCpu;
      }
      const double count = o.frames - 1;
      pluginMs[pi][draft] = plugin / count;
      char what[64];
      std::snprintf(what, sizeof what, "DIS %s %dx%d + 11 remaps", draft ? "ultrafast" : "medium",
                    workWidth, workHeight);
      char cpuColumns[64] = "";
      if (processors == 1)
        std::snprintf(cpuColumns, sizeof cpuColumns, "%12.1f %12.1f %7.3f", pluginCpu / count,
                      scriptCpu / count, pluginCpu / scriptCpu);
      else
        std::snprintf(cpuColumns, sizeof cpuColumns, "%12s %12s %7s", "-", "-", "-");
      std::printf("%-6s %5d %-32s %12.1f %12.1f %7.3f %s  %016llx\n", draft ? "Draft" : "Best",
                  processors, what, plugin / count, script / count, plugin / script, cpuColumns,
                  static_cast<unsigned long long>(hash[pi][draft]));
    }
  }
  if (processorCounts.size() == 2)
    std::printf("plug-in, %d processors against 1: Best %.2f times, Draft %.2f times\n",
                o.processors, pluginMs[0][0] / pluginMs[1][0], pluginMs[0][1] / pluginMs[1][1]);
  std::printf("load average at the end %s", LoadAverage().c_str());
  return 0;
}

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
  // --pipeline is ours; the rest goes to the shared option parser. Whole frames default to
  // 1920x1080 and 4 frames unless a size or count is given.
  bool pipeline = false, sized = false, counted = false;
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    if (i > 0 && a == "--pipeline") {
      pipeline = true;
      continue;
    }
    if (a == "--width" || a == "--height") sized = true;
    if (a == "--frames") counted = true;
    rest.push_back(argv[i]);
  }
  flowblur::Options options;
  if (pipeline) {
    if (!sized) options.width = 1920, options.height = 1080;
    if (!counted) options.frames = 4;
  }
  if (!flowblur::ParseHarnessOptions(static_cast<int>(rest.size()), rest.data(),
                                     {"flowblur_compare", false, true, 32}, &options)) {
    std::fputs(flowblur::kUsage, stderr);
    return 2;
  }
  return pipeline ? flowblur::RunPipeline(options) : flowblur::Run(options);
}
