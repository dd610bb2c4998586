// flowblur fuzzing: random host sessions driving SparkProcess through the host simulator, in
// and out of the design, with guard zones around every host buffer checked after each call.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "host/SparkHost.h"
#include "runtime/NuvMem.h"
#include "shell/shell.h"

namespace {

using sparkhost::FrameLayout;

// Mostly the five formats of the table, now and then codes a host should never send.
int32_t PickFormat(FuzzedDataProvider& in) {
  static const int32_t kFormats[] = {24, 25, 48, 49, 64, 24, 48, 49, 26, -1, 0, 47, 65};
  return in.PickValueInArray(kFormats);
}

// Sizes 1 to 257, small ones far more often: a session costs a flow estimate per call.
int32_t PickSide(FuzzedDataProvider& in) {
  uint8_t b = in.ConsumeIntegral<uint8_t>();
  return b < 224 ? 1 + b % 40 : in.ConsumeIntegralInRange<int32_t>(1, 257);
}

// Packed rows, padded rows or (rarely) rows shorter than the record's width.
int32_t PickStride(FuzzedDataProvider& in, int32_t width, int32_t format) {
  int32_t row = width * sparkhost::BytesPerPixel(format);
  switch (in.ConsumeIntegralInRange<int32_t>(0, 7)) {
    case 0:
      return std::max(1, row - in.ConsumeIntegralInRange<int32_t>(1, 8));
    case 1:
    case 2:
      return row + in.ConsumeIntegralInRange<int32_t>(1, 13);
    default:
      return 0;
  }
}

FrameLayout PickLayout(FuzzedDataProvider& in) {
  FrameLayout l;
  l.width = PickSide(in);
  l.height = PickSide(in);
  l.formatCode = PickFormat(in);
  l.stride = PickStride(in, l.width, l.formatCode);
  if (l.stride != 0 && l.stride < l.width * sparkhost::BytesPerPixel(l.formatCode)) l.stride = 0;
  return l;
}

// A variation of `base` for a buffer record that may disagree with the clips.
FrameLayout Vary(FuzzedDataProvider& in, FrameLayout l) {
  uint8_t what = in.ConsumeIntegral<uint8_t>();
  if (what & 1) l.width = std::max(1, l.width + in.ConsumeIntegralInRange<int32_t>(-3, 3));
  if (what & 2) l.height = std::max(1, l.height + in.ConsumeIntegralInRange<int32_t>(-3, 3));
  if (what & 4) l.formatCode = PickFormat(in);
  if (what & 8) l.stride = PickStride(in, l.width, l.formatCode);
  if (what & 16) l = PickLayout(in);
  int32_t row = l.width * sparkhost::BytesPerPixel(l.formatCode);
  if (l.stride != 0 && l.stride < row && !(what & 32)) l.stride = 0;
  return l;
}

float PickAmount(FuzzedDataProvider& in) {
  static const float kSpecial[] = {0.5f,
                                   0.0f,
                                   -2.0f,
                                   10.0f,
                                   -0.0f,
                                   std::numeric_limits<float>::quiet_NaN(),
                                   std::numeric_limits<float>::infinity(),
                                   -std::numeric_limits<float>::infinity(),
                                   std::numeric_limits<float>::max(),
                                   -std::numeric_limits<float>::max(),
                                   std::numeric_limits<float>::denorm_min(),
                                   1e30f};
  if (in.ConsumeBool()) return in.PickValueInArray(kSpecial);
  return in.ConsumeFloatingPointInRange<float>(-4.0f, 12.0f);
}

int32_t PickFrame(FuzzedDataProvider& in) {
  static const int32_t kSpecial[] = {0,
                                     1,
                                     2,
                                     -1,
                                     std::numeric_limits<int32_t>::min(),
                                     std::numeric_limits<int32_t>::min() + 1,
                                     std::numeric_limits<int32_t>::max(),
                                     std::numeric_limits<int32_t>::max() - 1};
  if (in.ConsumeBool()) return in.PickValueInArray(kSpecial);
  return in.ConsumeIntegral<int32_t>();
}

// Host failures: the Nth allocation of the library, or of the half-float planes, fails.
std::atomic<int64_t> gAllocsLeft{-1};
void* FailingAlloc(void*, uint64_t size) {
  if (gAllocsLeft.fetch_sub(1) == 0) return nullptr;
  return std::malloc(static_cast<size_t>(size));
}
void PlainFree(void*, void* block) { std::free(block); }
int64_t gPlanesLeft = -1;
void* FailingPlane(size_t bytes) {
  if (gPlanesLeft-- == 0) return nullptr;
  return std::calloc(1, bytes);
}
void NoPause(uint32_t) {}

// FLOWBLUR_FUZZ_VERBOSE=1 describes each session on stderr, to read a failing input.
bool Verbose() {
  static const bool verbose = std::getenv("FLOWBLUR_FUZZ_VERBOSE") != nullptr;
  return verbose;
}

std::string Describe(const FrameLayout& l) {
  return std::to_string(l.width) + "x" + std::to_string(l.height) + " format " +
         std::to_string(l.formatCode) + " stride " + std::to_string(l.stride);
}

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "flowblur session fuzz: %s\n", what.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  sparkhost::Reset();
  sparkhost::SetGuardedBuffers(true);
  SparkSetPause(NoPause);
  SparkFloat0.value = 0.5f;
  SparkPup1.value = 0;
  SparkBoolean2.value = 0;
  SparkMemoryTempBuffers();

  // The clips: the front one, and a back one like it or not.
  FrameLayout front = PickLayout(in);
  FrameLayout back = in.ConsumeBool() ? front : Vary(in, front);
  if (back.stride != 0 && back.stride < back.width * sparkhost::BytesPerPixel(back.formatCode))
    back.stride = 0;  // clips are always whole frames
  sparkhost::SetClip(0, front, in.ConsumeIntegralInRange<int32_t>(1, 3));
  sparkhost::SetClip(1, back, in.ConsumeIntegralInRange<int32_t>(0, 3));
  for (int32_t clip = 0; clip < 2; ++clip) {
    FrameLayout l = sparkhost::ClipLayout(clip);
    size_t bytes = static_cast<size_t>(sparkhost::FrameBytes(l));
    for (int32_t t = 0; t < sparkhost::ClipFrames(clip); ++t) {
      uint8_t* frame = sparkhost::ClipFrame(clip, t);
      uint32_t seed = in.ConsumeIntegral<uint32_t>() | 1u;
      for (size_t i = 0; i < bytes; ++i) {
        seed = seed * 1664525u + 1013904223u;
        frame[i] = static_cast<uint8_t>(seed >> 24);
      }
    }
  }
  // Buffer records that follow their clips, or disagree with them.
  for (int32_t id : {1, 2, 3, 4})
    if (in.ConsumeIntegralInRange<int32_t>(0, 3) == 0)
      sparkhost::SetBuffer(id, Vary(in, sparkhost::BufferLayout(id)));
  sparkhost::SetProcessors(in.ConsumeIntegralInRange<int32_t>(1, 4));

  // Host failures.
  uint8_t faults = in.ConsumeIntegral<uint8_t>();
  for (int32_t id : {1, 2, 3, 4}) {
    if ((faults & 0x0F) != id) continue;
    switch (in.ConsumeIntegralInRange<int32_t>(0, 3)) {
      case 0: sparkhost::FailGetBuffer(id); break;
      case 1: sparkhost::ClearUsableBit(id); break;
      case 2: sparkhost::NullBufferPointer(id); break;
      default: sparkhost::NullBufferOnGetFrame(id); break;
    }
  }
  gAllocsLeft = (faults & 0x10) ? in.ConsumeIntegralInRange<int64_t>(0, 200) : -1;
  NuvMemSetHooks(nullptr, (faults & 0x10) ? FailingAlloc : nullptr,
                 (faults & 0x10) ? PlainFree : nullptr);
  gPlanesLeft = (faults & 0x20) ? in.ConsumeIntegralInRange<int64_t>(0, 2) : -1;
  SparkSetPlaneAllocator((faults & 0x20) ? FailingPlane : nullptr);

  if (Verbose()) {
    for (int32_t clip = 0; clip < 2; ++clip)
      std::fprintf(stderr, "clip %d: %s, %d frames\n", clip,
                   Describe(sparkhost::ClipLayout(clip)).c_str(), sparkhost::ClipFrames(clip));
    for (int32_t id : {1, 2, 3, 4})
      std::fprintf(stderr, "buffer %d: %s\n", id, Describe(sparkhost::BufferLayout(id)).c_str());
    std::fprintf(stderr, "processors %d, faults 0x%02x\n", sparkhost::Processors(), faults);
  }

  const int32_t calls = in.ConsumeIntegralInRange<int32_t>(1, 3);
  int64_t cleared = 0;
  for (int32_t call = 0; call < calls; ++call) {
    SparkFloat0.value = PickAmount(in);
    SparkPup1.value = in.ConsumeBool() ? in.ConsumeIntegralInRange<int32_t>(0, 1)
                                       : in.ConsumeIntegral<int32_t>();
    SparkBoolean2.value = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint8_t>(0, 1)
                                           : in.ConsumeIntegral<uint8_t>();
    spark_info_struct info = sparkhost::BeginFrame(PickFrame(in));
    info.ControlsBypass = in.ConsumeIntegralInRange<uint8_t>(0, 7) == 0;
    if (in.ConsumeIntegralInRange<int32_t>(0, 3) == 0) info.ProcessorCount = in.ConsumeIntegral<int8_t>();
    if (in.ConsumeIntegralInRange<int32_t>(0, 5) == 0) info.FrameBytes = in.ConsumeIntegral<int32_t>();
    if (in.ConsumeIntegralInRange<int32_t>(0, 5) == 0) info.FormatCode = PickFormat(in);

    if (Verbose())
      std::fprintf(stderr,
                   "call: frame %d amount %g pup %d back %d bypass %d processors %d bytes %d "
                   "format %d\n",
                   info.FrameNo, static_cast<double>(SparkFloat0.value), SparkPup1.value,
                   SparkBoolean2.value, info.ControlsBypass, info.ProcessorCount, info.FrameBytes,
                   info.FormatCode);
    const size_t notesBefore = sparkhost::Notes().size();
    void* got = in.ConsumeBool() ? sparkCallback(1, info) : SparkProcess(info);
    void* result = sparkhost::BufferPixels(sparkhost::kResultBuffer);
    if (got && got != result) Fail("SparkProcess returned a pointer that is not the result");
    // Every message of the driver comes with a clearing of FrameBytes bytes, and what one
    // call cleared stays cleared through the session.
    if (sparkhost::Notes().size() > notesBefore) cleared = std::max<int64_t>(cleared, info.FrameBytes);
    if (Verbose())
      for (size_t k = notesBefore; k < sparkhost::Notes().size(); ++k)
        std::fprintf(stderr, "  message: %s\n", sparkhost::Notes()[k].text.c_str());
    std::vector<std::string> damage = sparkhost::GuardDamage(cleared);
    if (!damage.empty()) Fail(damage.front());
  }

  NuvMemSetHooks(nullptr, nullptr, nullptr);
  SparkSetPlaneAllocator(nullptr);
  sparkhost::Reset();
  return 0;
}
