// flowblur tests: the built plug-in as a host sees it: its dynamic symbols, and a whole
// session through dlopen from this process, which exports the host functions.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/SparkHost.h"
#include "shell/spark.h"

namespace {

const char* const kExported[] = {"SparkInitialise",
                                 "SparkUnInitialise",
                                 "SparkClips",
                                 "SparkMemoryTempBuffers",
                                 "SparkIsInputFormatSupported",
                                 "SparkProcessStart",
                                 "sparkCallback",
                                 "SparkProcess",
                                 "sparkCombineBuffers",
                                 "sparkCombineBuffers_mp",
                                 "sparkUnCombineBuffers",
                                 "sparkUnCombineBuffers_mp",
                                 "sparkCombine16FBuffers",
                                 "sparkCombine16FBuffers_mp",
                                 "NuvMPSparkGetNumberOfFramePixels",
                                 "SparkFloat0",
                                 "SparkPup1",
                                 "SparkBoolean2",
                                 "Width",
                                 "Height"};

const char* const kHostFunctions[] = {
    "sparkAPIVersionInfo",    "sparkError",        "sparkLoadSetup", "sparkSaveSetup",
    "sparkMemRegisterBuffer", "sparkMemGetBuffer", "sparkGetFrame",  "sparkCursorBusy",
    "sparkMessage",           "sparkViewingDraw",  "sparkMpFork",    "sparkMpInfo"};

std::vector<std::string> Lines(const std::string& command) {
  std::vector<std::string> lines;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return lines;
  char buffer[4096];
  while (std::fgets(buffer, sizeof buffer, pipe)) {
    std::string line(buffer);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    lines.push_back(line);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return lines;
}

// "name@VERSION" -> name
std::string Bare(const std::string& symbol) { return symbol.substr(0, symbol.find('@')); }

bool FromSanitizer(const std::string& name) {
  for (const char* prefix : {"__asan", "__ubsan", "__sanitizer", "__lsan", "__tsan"})
    if (name.rfind(prefix, 0) == 0) return true;
  return false;
}

TEST(SharedObject, ExportsExactlyTheHostFacingNames) {
  std::set<std::string> defined;
  for (const std::string& line :
       Lines(std::string("nm -D --defined-only '") + FLOWBLUR_SPARK_SO + "'")) {
    std::istringstream in(line);
    std::string address, type, name;
    in >> address >> type >> name;
    if (name.empty()) continue;
    if (FromSanitizer(Bare(name))) continue;
    defined.insert(Bare(name));
  }
  std::set<std::string> want(std::begin(kExported), std::end(kExported));
  EXPECT_EQ(defined, want);
}

bool NeedsSanitizerRuntime() {
  for (const std::string& line : Lines(std::string("objdump -p '") + FLOWBLUR_SPARK_SO + "'"))
    if (line.find("NEEDED") != std::string::npos &&
        (line.find("libasan") != std::string::npos || line.find("libtsan") != std::string::npos))
      return true;
  return false;
}

// A name of this code base (demangled): its definition should have been linked in.
bool OursByName(const std::string& demangled) {
  for (const char* mark : {"PL", "Nuv", "Spark", "spark"})
    for (size_t at = demangled.find(mark); at != std::string::npos;
         at = demangled.find(mark, at + 1)) {
      bool starts = at == 0 || !std::isalnum(static_cast<unsigned char>(demangled[at - 1]));
      if (starts) return true;
    }
  return false;
}

// The host functions stay undefined, to come from the host process; anything else that is
// undefined comes from a system library. An undefined name of our own would mean a part of
// the library missing from the build. (With the sanitizer runtime, whose interceptors carry
// no symbol versions, system names are recognised by not being ours.)
TEST(SharedObject, LeavesOnlyHostAndSystemSymbolsUndefined) {
  std::set<std::string> host(std::begin(kHostFunctions), std::end(kHostFunctions));
  std::set<std::string> undefinedHost;
  const bool sanitized = NeedsSanitizerRuntime();
  for (const std::string& line :
       Lines(std::string("nm -D -C --undefined-only '") + FLOWBLUR_SPARK_SO + "'")) {
    std::istringstream in(line);
    std::string type, name;
    in >> type;
    std::getline(in >> std::ws, name);
    if (name.empty()) continue;
    if (host.count(name)) {
      EXPECT_EQ(type, "U") << name;
      undefinedHost.insert(name);
      continue;
    }
    EXPECT_FALSE(OursByName(Bare(name))) << line;
    bool versioned = name.find('@') != std::string::npos;
    EXPECT_TRUE(versioned || type == "w" || sanitized || FromSanitizer(name)) << line;
  }
  // All twelve are called.
  EXPECT_EQ(undefinedHost, host);
}

TEST(SharedObject, NeedsOnlyTheSystemLibraries) {
  const char* allowed[] = {"libstdc++.so",  "libm.so",  "libgcc_s.so", "libc.so",
                           "libpthread.so", "ld-linux", "libasan.so",  "libubsan.so",
                           "libtsan.so"};
  int needed = 0;
  for (const std::string& line : Lines(std::string("objdump -p '") + FLOWBLUR_SPARK_SO + "'")) {
    std::istringstream in(line);
    std::string tag, library;
    in >> tag >> library;
    if (tag != "NEEDED") continue;
    ++needed;
    bool ok = false;
    for (const char* a : allowed) ok = ok || library.rfind(a, 0) == 0;
    EXPECT_TRUE(ok) << library;
  }
  EXPECT_GT(needed, 0);
}

// ---- A session through dlopen

struct Plugin {
  void* handle = nullptr;
  int (*Initialise)(spark_info_struct) = nullptr;
  void (*UnInitialise)(spark_info_struct) = nullptr;
  int (*Clips)(void) = nullptr;
  void (*MemoryTempBuffers)(void) = nullptr;
  bool (*IsInputFormatSupported)(int) = nullptr;
  int (*ProcessStart)(void) = nullptr;
  void* (*Callback)(int, spark_info_struct) = nullptr;
  void* (*Process)(spark_info_struct) = nullptr;
  int (*CombineBuffers)(spark_info_struct, void*, void*, void*) = nullptr;
  int (*UnCombineBuffers)(spark_info_struct, void*, void*) = nullptr;
  int64_t (*FramePixels)(void) = nullptr;
  SparkFloatControl* amount = nullptr;
  SparkPupControl* quality = nullptr;
  SparkBooleanControl* fromBack = nullptr;
  int32_t* width = nullptr;
  int32_t* height = nullptr;

  template <class T>
  void Find(T& slot, const char* name) {
    void* p = dlsym(handle, name);
    ASSERT_NE(p, nullptr) << name << ": " << dlerror();
    slot = reinterpret_cast<T>(p);
  }
  void Load() {
    handle = dlopen(FLOWBLUR_SPARK_SO, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    for (const char* name : kExported) ASSERT_NE(dlsym(handle, name), nullptr) << name;
    Find(Initialise, "SparkInitialise");
    Find(UnInitialise, "SparkUnInitialise");
    Find(Clips, "SparkClips");
    Find(MemoryTempBuffers, "SparkMemoryTempBuffers");
    Find(IsInputFormatSupported, "SparkIsInputFormatSupported");
    Find(ProcessStart, "SparkProcessStart");
    Find(Callback, "sparkCallback");
    Find(Process, "SparkProcess");
    Find(CombineBuffers, "sparkCombineBuffers");
    Find(UnCombineBuffers, "sparkUnCombineBuffers");
    Find(FramePixels, "NuvMPSparkGetNumberOfFramePixels");
    Find(amount, "SparkFloat0");
    Find(quality, "SparkPup1");
    Find(fromBack, "SparkBoolean2");
    Find(width, "Width");
    Find(height, "Height");
    // Internal names stay inside.
    EXPECT_EQ(dlsym(handle, "TempBufferId"), nullptr);
    EXPECT_EQ(dlsym(handle, "NuvMPSetThreadCount"), nullptr);
  }
};

// Half bits of a value in 0..1 (normal range), rounded to nearest.
uint16_t Half(double v) {
  if (v <= 0.0) return 0;
  int e;
  double m = std::frexp(v, &e);                                  // v = m * 2^e, m in [0.5, 1)
  int32_t bits = static_cast<int32_t>(std::lround(m * 2048.0));  // 11 significant bits
  if (bits == 2048) {
    bits = 1024;
    ++e;
  }
  return static_cast<uint16_t>(((e + 14) << 10) | (bits - 1024));
}

double Texture(double x, double y, int32_t c) {
  const double k = 6.283185307179586;
  return 0.5 + 0.22 * std::sin(k * x / 23.0 + 1.3 * std::sin(k * y / 31.0) + 0.7 * c) +
         0.18 * std::cos(k * (x + 0.6 * y) / 17.0 - 0.7 * c);
}

void MakeClip(int32_t clip, const sparkhost::FrameLayout& layout, int32_t frames, double vx,
              double vy) {
  sparkhost::SetClip(clip, layout, frames);
  for (int32_t t = 0; t < frames; ++t)
    for (int32_t y = 0; y < layout.height; ++y)
      for (int32_t x = 0; x < layout.width; ++x)
        for (int32_t c = 0; c < 3; ++c) {
          double v = Texture(x + vx * t, y + vy * t, c);
          uint32_t s = layout.formatCode == 24   ? static_cast<uint32_t>(std::lround(v * 255.0))
                       : layout.formatCode == 49 ? Half(v)
                                                 : static_cast<uint32_t>(std::lround(v * 65535.0));
          sparkhost::SetSample(sparkhost::ClipFrame(clip, t), layout, x, y, c, s);
        }
}

std::vector<uint8_t> Packed(const uint8_t* block, const sparkhost::FrameLayout& layout) {
  size_t used = static_cast<size_t>(layout.width) * sparkhost::BytesPerPixel(layout.formatCode);
  std::vector<uint8_t> out;
  for (int32_t y = 0; y < layout.height; ++y) {
    const uint8_t* row = block + y * sparkhost::RowBytes(layout);
    out.insert(out.end(), row, row + used);
  }
  return out;
}

class SharedObjectSession : public testing::Test {
 protected:
  void SetUp() override {
    sparkhost::Reset();
    plugin.Load();
  }
  void TearDown() override {
    if (plugin.handle) dlclose(plugin.handle);
    sparkhost::Reset();
  }
  Plugin plugin;
};

TEST_F(SharedObjectSession, LoadsInitialisesProcessesAndUnInitialises) {
  if (HasFatalFailure()) return;
  spark_info_struct info{};
  EXPECT_EQ(plugin.Initialise(info), 1);
  EXPECT_EQ(plugin.Clips(), 2);
  plugin.MemoryTempBuffers();
  EXPECT_EQ(sparkhost::RegisteredBuffers(), 1);
  EXPECT_EQ(plugin.ProcessStart(), 1);
  EXPECT_EQ(plugin.amount->value, 0.5f);
  EXPECT_STREQ(plugin.quality->titles[1], "Draft Quality");

  struct Case {
    int32_t format;
    int32_t pad;  // half floats are packed without row padding
  };
  for (const Case& c : {Case{24, 5}, Case{48, 6}, Case{64, 2}, Case{49, 0}}) {
    SCOPED_TRACE(c.format);
    EXPECT_TRUE(plugin.IsInputFormatSupported(c.format));
    sparkhost::FrameLayout layout;
    layout.width = 72;
    layout.height = 136;
    layout.formatCode = c.format;
    layout.stride = c.pad ? layout.width * sparkhost::BytesPerPixel(c.format) + c.pad : 0;
    MakeClip(0, layout, 4, 3.0, 1.0);
    MakeClip(1, layout, 4, 0.0, 0.0);
    std::vector<uint8_t> byCount[2];
    const int32_t processors[2] = {1, 8};
    for (int32_t i = 0; i < 2; ++i) {
      sparkhost::SetProcessors(processors[i]);
      plugin.amount->value = 1.0f;
      plugin.fromBack->value = 0;
      for (int32_t n = 0; n < 4; ++n) {
        spark_info_struct frame = sparkhost::BeginFrame(n);
        void* result = n == 2 ? plugin.Callback(1, frame) : plugin.Process(frame);
        ASSERT_EQ(result, sparkhost::BufferPixels(sparkhost::kResultBuffer));
        std::vector<uint8_t> out = Packed(sparkhost::BufferPixels(1), layout);
        EXPECT_NE(out, Packed(sparkhost::ClipFrame(0, n), layout)) << n;
        if (n == 3) byCount[i] = out;
      }
      EXPECT_EQ(*plugin.width, 72);
      EXPECT_EQ(*plugin.height, 136);
      EXPECT_EQ(plugin.FramePixels(), 72 * 136);
      // Motion from the still back clip: the front frame comes out as it went in.
      plugin.fromBack->value = 1;
      spark_info_struct frame = sparkhost::BeginFrame(1);
      plugin.Process(frame);
      EXPECT_EQ(Packed(sparkhost::BufferPixels(1), layout),
                Packed(sparkhost::ClipFrame(0, 1), layout));
    }
    EXPECT_EQ(byCount[0], byCount[1]);
  }
  EXPECT_TRUE(sparkhost::Notes().empty());
  EXPECT_EQ(sparkhost::Calls().viewingDraw, 8);
  EXPECT_GT(sparkhost::Calls().mpFork, 0);

  // A packing helper, found by name like the rest.
  sparkhost::SetProcessors(3);
  std::vector<uint8_t> frame(30 * 3), matte(30 * 3, 9), combined(30 * 4), back(30 * 3);
  for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 7);
  sparkhost::SetBuffer(sparkhost::kResultBuffer, sparkhost::FrameLayout{30, 1, 24, 0});
  spark_info_struct pack{};
  pack.FormatCode = 24;
  EXPECT_EQ(plugin.CombineBuffers(pack, combined.data(), frame.data(), matte.data()), 1);
  EXPECT_EQ(plugin.UnCombineBuffers(pack, back.data(), combined.data()), 1);
  EXPECT_EQ(back, frame);
  EXPECT_EQ(combined[3], 9);

  plugin.UnInitialise(info);
  EXPECT_EQ(sparkhost::Calls().saveSetup, 1);
  EXPECT_EQ(sparkhost::Calls().loadSetup, 1);
  EXPECT_TRUE(sparkhost::HostLog().empty()) << sparkhost::HostLog()[0];
}

}  // namespace
