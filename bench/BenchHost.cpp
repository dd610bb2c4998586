// flowblur: plug-in sessions on the host simulator, the plug-in's flow, and heap counting.
#include "bench/BenchHost.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "bench/GroundTruth.h"
#include "flow/PLOpticalFlowUChar.h"
#include "host/SparkHost.h"
#include "runtime/NuvMP.h"
#include "runtime/NuvMem.h"
#include "shell/SparkDriver.h"
#include "shell/SparkFlowCalls.h"

namespace flowblur {
namespace {

constexpr int32_t kFrontClip = 0;

int32_t PixelTypeFor(int32_t formatCode) {
  if (formatCode == 48 || formatCode == 64) return 1;
  if (formatCode == 49) return 2;
  return 0;
}

// ---- Heap counting. Hooks run on every host processor, so the counts are atomic.
std::atomic<int64_t> gLive{0};
std::atomic<int64_t> gPeak{0};
std::atomic<int64_t> gLibraryLive{0};
std::atomic<int64_t> gLibraryPeak{0};
std::atomic<int64_t> gPlanes{0};

void RaisePeak(std::atomic<int64_t>* peak, int64_t value) {
  int64_t seen = peak->load();
  while (value > seen && !peak->compare_exchange_weak(seen, value)) {
  }
}

void* CountingAlloc(void* /*context*/, uint64_t size) {
  void* block = std::malloc(static_cast<size_t>(size));
  if (block) {
    int64_t bytes = static_cast<int64_t>(malloc_usable_size(block));
    RaisePeak(&gLibraryPeak, gLibraryLive += bytes);
    RaisePeak(&gPeak, gLive += bytes);
  }
  return block;
}

void CountingFree(void* /*context*/, void* block) {
  if (block) {
    int64_t bytes = static_cast<int64_t>(malloc_usable_size(block));
    gLibraryLive -= bytes;
    gLive -= bytes;
  }
  std::free(block);
}

// The driver's own plane allocation is calloc; this is the same, counted.
void* CountingPlane(size_t bytes) {
  void* block = std::calloc(1, bytes);
  if (block) {
    int64_t usable = static_cast<int64_t>(malloc_usable_size(block));
    gPlanes += usable;
    RaisePeak(&gPeak, gLive += usable);
  }
  return block;
}

}  // namespace

HostSession::HostSession(int32_t width, int32_t height, int32_t formatCode, int32_t frames,
                         int32_t processors, float amount, bool draft)
    : width_(width),
      height_(height),
      formatCode_(formatCode),
      frames_(frames),
      processors_(processors),
      draft_(draft) {
  sparkhost::Reset();
  sparkhost::SetProcessors(processors);
  sparkhost::FrameLayout layout;
  layout.width = width;
  layout.height = height;
  layout.formatCode = formatCode;
  layout.stride = 0;
  sparkhost::SetClip(kFrontClip, layout, frames);
  // The plug-in fetches the back buffer on every frame; with no back clip it holds black.
  sparkhost::SetBuffer(sparkhost::kBackBuffer, layout);
  spark_info_struct info;
  std::memset(&info, 0, sizeof info);
  info.FormatCode = formatCode;
  info.ProcessorCount = static_cast<int8_t>(processors);
  SparkInitialise(info);
  SparkMemoryTempBuffers();
  SparkFloat0.value = amount;
  SparkPup1.value = draft ? 1 : 0;
  SparkBoolean2.value = 0;
  notesSeen_ = sparkhost::Notes().size();
}

HostSession::~HostSession() {
  spark_info_struct info;
  std::memset(&info, 0, sizeof info);
  info.FormatCode = formatCode_;
  info.ProcessorCount = static_cast<int8_t>(processors_);
  SparkUnInitialise(info);
}

int64_t HostSession::FrameBytes() const {
  return sparkhost::FrameBytes(sparkhost::ClipLayout(kFrontClip));
}

void HostSession::SetFrame(int32_t n, const void* hostFrame) {
  sparkhost::SetClipFrame(kFrontClip, n, hostFrame);
}

uint8_t* HostSession::ClipFrame(int32_t n) { return sparkhost::ClipFrame(kFrontClip, n); }

spark_info_struct HostSession::BeginFrame(int32_t n) { return sparkhost::BeginFrame(n); }

bool HostSession::TakeNotes(std::string* said) {
  std::vector<sparkhost::Note> notes = sparkhost::Notes();
  said->clear();
  for (size_t i = notesSeen_; i < notes.size(); ++i)
    *said += (said->empty() ? "" : "; ") + notes[i].text;
  notesSeen_ = notes.size();
  return !said->empty();
}

const void* HostSession::Process(int32_t n, std::string* error) {
  spark_info_struct info = BeginFrame(n);
  void* result = SparkProcess(info);
  std::string said;
  if (TakeNotes(&said)) {
    *error = "the plug-in reported: " + said;
    return nullptr;
  }
  if (!result) *error = "the plug-in returned no result";
  return result;
}

bool HostSession::PluginFlow(int32_t n, std::vector<float>* uv, int32_t* flowWidth,
                             int32_t* flowHeight, int32_t* first, int32_t* second,
                             std::string* error) {
  auto clamp = [&](int32_t f) { return f < 0 ? 0 : f >= frames_ ? frames_ - 1 : f; };
  const int32_t current = clamp(n), neighbour = clamp(SparkNeighbourFrame(n, 0));
  // The driver's order: the neighbour first at frame 0, the current frame first otherwise.
  *first = n == 0 ? neighbour : current;
  *second = n == 0 ? current : neighbour;
  uint8_t* a = sparkhost::ClipFrame(kFrontClip, *first);
  uint8_t* b = sparkhost::ClipFrame(kFrontClip, *second);
  int32_t rowBytes = static_cast<int32_t>(sparkhost::RowBytes(sparkhost::ClipLayout(kFrontClip)));
  // Half frames reach the estimator as float planes, as in the driver.
  std::vector<float> planeA, planeB;
  if (formatCode_ == 49) {
    const int64_t pixels = static_cast<int64_t>(width_) * height_;
    planeA.resize(static_cast<size_t>(pixels) * 3);
    planeB.resize(static_cast<size_t>(pixels) * 3);
    DecodeHostFrame(a, pixels, 49, planeA.data());
    DecodeHostFrame(b, pixels, 49, planeB.data());
    a = reinterpret_cast<uint8_t*>(planeA.data());
    b = reinterpret_cast<uint8_t*>(planeB.data());
    rowBytes = width_ * 12;
  }
  // What SparkProcess sets before its calls: thread count and the frame the workers divide.
  NuvMPSetThreadCount(processors_);
  ::Width = width_;
  ::Height = height_;
  PLOpticalFlowUChar* estimator = CreateFlowEstimator(width_, height_, draft_ ? 2 : 1);
  if (!estimator) {
    *error = "cannot create the flow estimator";
    return false;
  }
  int32_t code = CalculateFlow(estimator, a, width_, height_, rowBytes, kSparkRowOrder, b,
                               width_, height_, rowBytes, kSparkRowOrder,
                               PixelTypeFor(formatCode_), false, kSparkLevelFactor,
                               kSparkWhitePoint);
  if (code != 0) {
    DestroyFlowEstimator(estimator);
    *error = "the flow calculation failed with code " + std::to_string(code);
    return false;
  }
  const PLImage* flow = estimator->flowPyramid[0];
  *flowWidth = flow->width;
  *flowHeight = flow->height;
  uv->resize(static_cast<size_t>(flow->width) * flow->height * 2);
  for (int32_t y = 0; y < flow->height; ++y)
    std::memcpy(&(*uv)[static_cast<size_t>(y) * flow->width * 2], flow->Row(y),
                static_cast<size_t>(flow->width) * 2 * sizeof(float));
  DestroyFlowEstimator(estimator);
  return true;
}

HeapPeak MeasureHeap(const spark_info_struct& info, const void** result) {
  gLive = 0;
  gPeak = 0;
  gLibraryLive = 0;
  gLibraryPeak = 0;
  gPlanes = 0;
  NuvMemSetHooks(nullptr, CountingAlloc, CountingFree);
  SparkPlaneAllocFunction previous = SparkSetPlaneAllocator(CountingPlane);
  void* pixels = SparkProcess(info);
  SparkSetPlaneAllocator(previous);
  NuvMemSetHooks(nullptr, nullptr, nullptr);
  if (result) *result = pixels;
  HeapPeak heap;
  heap.peak = gPeak;
  heap.libraryPeak = gLibraryPeak;
  heap.planes = gPlanes;
  heap.libraryLeft = gLibraryLive;
  return heap;
}

}  // namespace flowblur
