// flowblur tests: the built plug-in as a host sees it: its dynamic symbols. (The soak loads
// it with dlopen from this process, which exports the host functions.)
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <vector>

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

// Defined: exactly the host-facing names. Undefined: the twelve host functions, to come
// from the host process, and versioned system names; an unversioned name of our own would
// mean a part of the library missing from the build. Needed: system libraries only. (The
// sanitizer runtime's interceptors carry no symbol versions; there the soak's loading with
// RTLD_NOW into a process that exports only the host finds a missing part.)
TEST(SharedObject, ExportsTheHostFacingNamesAndImportsOnlyHostAndSystemSymbols) {
  std::set<std::string> defined, undefinedHost;
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
  bool sanitized = false;
  for (const std::string& line : Lines("objdump -p")) {
    std::istringstream in(line);
    std::string tag, library;
    in >> tag >> library;
    if (tag != "NEEDED") continue;
    ++needed;
    sanitized = sanitized || library.find("libasan") == 0 || library.find("libtsan") == 0;
    bool ok = false;
    for (const char* a : allowed) ok = ok || library.rfind(a, 0) == 0;
    EXPECT_TRUE(ok) << library;
  }
  EXPECT_GT(needed, 0);
  std::set<std::string> host(std::begin(kHostFunctions), std::end(kHostFunctions));
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
    bool versioned = name.find('@') != std::string::npos;
    EXPECT_TRUE(versioned || type == "w" || sanitized || FromSanitizer(name)) << line;
  }
  EXPECT_EQ(undefinedHost, host);  // all twelve are called
}

}  // namespace
