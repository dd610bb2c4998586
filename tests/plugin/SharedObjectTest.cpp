// flowblur tests: the built plug-in as a host sees it: its dynamic symbols, and a session
// through dlopen from this process, which exports the host functions.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/SparkHost.h"
#include "shell/spark.h"


namespace {

const char* const kExported[] = {
    "SparkInitialise",          "SparkUnInitialise",         "SparkClips",
    "SparkMemoryTempBuffers",   "SparkIsInputFormatSupported", "SparkProcessStart",
    "sparkCallback",            "SparkProcess",              "sparkCombineBuffers",
    "sparkCombineBuffers_mp",   "sparkUnCombineBuffers",     "sparkUnCombineBuffers_mp",
    "sparkCombine16FBuffers",   "sparkCombine16FBuffers_mp", "NuvMPSparkGetNumberOfFramePixels",
    "SparkFloat0",              "SparkPup1",                 "SparkBoolean2",
    "Width",                    "Height"};

const char* const kHostFunctions[] = {
    "sparkAPIVersionInfo",    "sparkError",        "sparkLoadSetup", "sparkSaveSetup",
    "sparkMemRegisterBuffer", "sparkMemGetBuffer", "sparkGetFrame",  "sparkCursorBusy",
    "sparkMessage",           "sparkViewingDraw",  "sparkMpFork",    "sparkMpInfo"};

// The output of a tool run on the plug-in, a line at a time.
std::vector<std::string> Lines(const std::string& tool) {
  std::vector<std::string> lines;
  FILE* pipe = popen((tool + " '" FLOWBLUR_SPARK_SO "'").c_str(), "r");
  if (!pipe) return lines;
  char buffer[4096];
  while (std::fgets(buffer, sizeof buffer, pipe)) {
    std::string line(buffer);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    lines.push_back(line);
  }
  EXPECT_EQ(pclose(pipe), 0) << tool;
  return lines;
}

// "name@VERSION" -> name
std::string Bare(const std::string& symbol) { return symbol.substr(0, symbol.find('@')); }

bool FromSanitizer(const std::string& name) {
  for (const char* prefix : {"__asan", "__ubsan", "__sanitizer", "__lsan", "__tsan"})
    if (name.rfind(prefix, 0) == 0) return true;
  return false;
}

// A name of this code base (demangled): its definition should have been linked in.
bool OursByName(const std::string& demangled) {
  for (const char* mark : {"PL", "Nuv", "Spark", "spark"})
    for (size_t at = demangled.find(mark); at != std::string::npos;
         at = demangled.find(mark, at + 1))
      if (at == 0 || !std::isalnum(static_cast<unsigned char>(demangled[at - 1]))) return true;
  return false;
}

TEST(SharedObject, ExportsExactlyTheHostFacingNamesAndNeedsOnlySystemLibraries) {
  std::set<std::string> defined;
  for (const std::string& line : Lines("nm -D --defined-only")) {
    std::istringstream in(line);
    std::string address, type, name;
    in >> address >> type >> name;
    if (!name.empty() && !FromSanitizer(Bare(name))) defined.insert(Bare(name));
  }
  EXPECT_EQ(defined, std::set<std::string>(std::begin(kExported), std::end(kExported)));
  const char* allowed[] = {"libstdc++.so",  "libm.so",  "libgcc_s.so", "libc.so",
                           "libpthread.so", "ld-linux", "libasan.so",  "libubsan.so",
                           "libtsan.so"};
  int needed = 0;
  for (const std::string& line : Lines("objdump -p")) {
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

// The host functions stay undefined, to come from the host process; anything else that is
// undefined comes from a system library. An undefined name of our own would mean a part of
// the library missing from the build. (With the sanitizer runtime, whose interceptors carry
// no symbol versions, system names are recognised by not being ours.)
TEST(SharedObject, LeavesOnlyHostAndSystemSymbolsUndefined) {
  std::set<std::string> host(std::begin(kHostFunctions), std::end(kHostFunctions));
  std::set<std::string> undefinedHost;
  bool sanitized = false;
  for (const std::string& line : Lines("objdump -p"))
    sanitized = sanitized || (line.find("NEEDED") != std::string::npos &&
                              (line.find("libasan") != std::string::npos ||
                               line.find("libtsan") != std::string::npos));
  for (const std::string& line : Lines("nm -D -C --undefined-only")) {
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
  EXPECT_EQ(undefinedHost, host);  // all twelve are called
}

// The plug-in's entry points, found by name as a host finds them.
struct Plugin {
  void* handle = nullptr;
  int (*initialise)(spark_info_struct) = nullptr;
  void (*unInitialise)(spark_info_struct) = nullptr;
  void (*tempBuffers)() = nullptr;
  void* (*callback)(int, spark_info_struct) = nullptr;
  void* (*process)(spark_info_struct) = nullptr;
  int (*combine)(spark_info_struct, void*, void*, void*) = nullptr;
  int (*unCombine)(spark_info_struct, void*, void*) = nullptr;
  SparkFloatControl* amount = nullptr;
  SparkPupControl* quality = nullptr;
  SparkBooleanControl* fromBack = nullptr;

  template <class T>
  void Find(T& slot, const char* name) {
    slot = reinterpret_cast<T>(dlsym(handle, name));
    ASSERT_NE(slot, nullptr) << name << ": " << dlerror();
  }
  void Load() {
    handle = dlopen(FLOWBLUR_SPARK_SO, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    Find(initialise, "SparkInitialise");
    Find(unInitialise, "SparkUnInitialise");
    Find(tempBuffers, "SparkMemoryTempBuffers");
    Find(callback, "sparkCallback");
    Find(process, "SparkProcess");
    Find(combine, "sparkCombineBuffers");
    Find(unCombine, "sparkUnCombineBuffers");
    Find(amount, "SparkFloat0");
    Find(quality, "SparkPup1");
    Find(fromBack, "SparkBoolean2");
    // Internal names stay inside.
    EXPECT_EQ(dlsym(handle, "TempBufferId"), nullptr);
    EXPECT_EQ(dlsym(handle, "NuvMPSetThreadCount"), nullptr);
  }
  ~Plugin() {
    if (handle) dlclose(handle);
  }
};

// Fills every frame of both clips with bytes that differ by frame, clip and place.
void FillClips(const sparkhost::FrameLayout& layout, int32_t frames) {
  for (int32_t clip = 0; clip < 2; ++clip) {
    sparkhost::SetClip(clip, layout, frames);
    for (int32_t t = 0; t < frames; ++t) {
      uint8_t* frame = sparkhost::ClipFrame(clip, t);
      for (int64_t i = 0; i < sparkhost::FrameBytes(layout); ++i)
        frame[i] = static_cast<uint8_t>((i * 7 + t * 13 + clip * 5) & 0xFF);
    }
  }
}

// The steps around frames, and a packing helper, through the loaded plug-in. (Frames
// themselves are the soak's.)
TEST(SharedObjectSession, InitialisesCallsBackPacksAndUnInitialises) {
  sparkhost::Reset();
  Plugin plugin;
  plugin.Load();
  if (HasFatalFailure()) return;
  spark_info_struct info{};
  EXPECT_EQ(plugin.initialise(info), 1);
  plugin.tempBuffers();
  FillClips(sparkhost::FrameLayout{72, 40, 24, 0}, 3);
  plugin.amount->value = 1.0f;
  EXPECT_EQ(plugin.callback(1, sparkhost::BeginFrame(1)),
            sparkhost::BufferPixels(sparkhost::kResultBuffer));
  EXPECT_TRUE(sparkhost::Notes().empty());
  EXPECT_EQ(sparkhost::Calls().viewingDraw, 1);
  sparkhost::SetProcessors(3);
  std::vector<uint8_t> frame(30 * 3), matte(30 * 3, 9), combined(30 * 4), back(30 * 3);
  for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 7);
  sparkhost::SetBuffer(sparkhost::kResultBuffer, sparkhost::FrameLayout{30, 1, 24, 0});
  spark_info_struct pack{};
  pack.FormatCode = 24;
  EXPECT_EQ(plugin.combine(pack, combined.data(), frame.data(), matte.data()), 1);
  EXPECT_EQ(plugin.unCombine(pack, back.data(), combined.data()), 1);
  EXPECT_EQ(back, frame);
  EXPECT_EQ(combined[3], 9);
  plugin.unInitialise(info);
  EXPECT_EQ(sparkhost::Calls().saveSetup, 1);
  EXPECT_EQ(sparkhost::Calls().loadSetup, 1);
  EXPECT_EQ(sparkhost::HostLog(), std::vector<std::string>{});
  sparkhost::Reset();
}

}  // namespace
