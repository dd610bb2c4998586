// flowblur frei0r tests: the built flowblur.so as a host loads it: only f0r_* exported, none
// of the library's imports left for the host, and the same RGB as the Spark plug-in's driver
// (run here in the host simulator) for every frame after the first two.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <vector>

extern "C" {
#include <frei0r.h>
}

#include "frei0r/tests/MovingSquare.h"
#include "host/SparkHost.h"
#include "runtime/NuvMP.h"
#include "shell/shell.h"

namespace {

using frei0rtest::Clip;

std::vector<std::string> Symbols(const std::string& options) {
  std::vector<std::string> names;
  const std::string command = "nm -D " + options + " '" FLOWBLUR_FREI0R_SO "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return names;
  char line[4096];
  while (std::fgets(line, sizeof line, pipe)) {
    std::istringstream words(line);
    std::string word, last;
    while (words >> word) last = word;
    names.push_back(last.substr(0, last.find('@')));
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return names;
}

TEST(SharedObject, ExportsOnlyTheFrei0rNames) {
  const std::set<std::string> expected = {
      "f0r_init",       "f0r_deinit",          "f0r_get_plugin_info", "f0r_get_param_info",
      "f0r_construct",  "f0r_destruct",        "f0r_set_param_value", "f0r_get_param_value",
      "f0r_update",     "f0r_update2"};
  std::set<std::string> defined;
  for (const std::string& name : Symbols("--defined-only")) defined.insert(name);
  EXPECT_EQ(defined, expected);
  // The host functions the library imports are the plug-in's own, never the host's.
  for (const std::string& name : Symbols("--undefined-only")) {
    EXPECT_EQ(name.rfind("spark", 0), std::string::npos) << name;
    EXPECT_EQ(name.rfind("Nuv", 0), std::string::npos) << name;
  }
}

// An entry point of the loaded file, as a host finds it.
template <class T>
T Entry(void* handle, const char* name) {
  return handle ? reinterpret_cast<T>(dlsym(handle, name)) : nullptr;
}

struct ParityCase {
  int32_t width, height;
  double amountParam;
  float amount;
  bool draft;
};

class SparkParity : public testing::TestWithParam<ParityCase> {
 protected:
  void TearDown() override {
    sparkhost::Reset();
    NuvMPSetThreadCount(1);
  }
};

// From frame 2 on, the Spark driver pairs frame n with n - 1, current frame first: the frei0r
// filter fed frames in order must give the very same RGB, with the input's alpha.
TEST_P(SparkParity, SameRgbAsTheSparkDriver) {
  const ParityCase& c = GetParam();
  const Clip clip{c.width, c.height};
  constexpr int32_t kFrames = 4;

  sparkhost::Reset();
  sparkhost::SetProcessors(3);
  const sparkhost::FrameLayout layout{c.width, c.height, 24, 0};
  sparkhost::SetClip(0, layout, kFrames);
  sparkhost::SetClip(1, layout, kFrames);
  for (int32_t f = 0; f < kFrames; ++f) {
    const std::vector<uint8_t> rgba = frei0rtest::Frame(clip, f);
    uint8_t* rgb = sparkhost::ClipFrame(0, f);
    for (size_t i = 0; i < rgba.size() / 4; ++i)
      for (int c3 = 0; c3 < 3; ++c3) rgb[3 * i + c3] = rgba[4 * i + c3];
  }
  SparkMemoryTempBuffers();
  SparkFloat0.value = c.amount;
  SparkPup1.value = c.draft ? 1 : 0;
  SparkBoolean2.value = 0;

  void* so = dlopen(FLOWBLUR_FREI0R_SO, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(so, nullptr) << dlerror();
  const auto init = Entry<decltype(&f0r_init)>(so, "f0r_init");
  const auto deinit = Entry<decltype(&f0r_deinit)>(so, "f0r_deinit");
  const auto construct = Entry<decltype(&f0r_construct)>(so, "f0r_construct");
  const auto destruct = Entry<decltype(&f0r_destruct)>(so, "f0r_destruct");
  const auto setParam = Entry<decltype(&f0r_set_param_value)>(so, "f0r_set_param_value");
  const auto update = Entry<decltype(&f0r_update)>(so, "f0r_update");
  ASSERT_TRUE(init && deinit && construct && destruct && setParam && update);
  ASSERT_EQ(init(), 1);
  f0r_instance_t instance = construct(c.width, c.height);
  ASSERT_NE(instance, nullptr);
  double amount = c.amountParam, draft = c.draft ? 1.0 : 0.0;
  setParam(instance, &amount, 0);
  setParam(instance, &draft, 1);

  for (int32_t f = 0; f < kFrames; ++f) {
    const std::vector<uint8_t> in = frei0rtest::Frame(clip, f);
    std::vector<uint8_t> out(in.size());
    update(instance, 40.0 * f, reinterpret_cast<const uint32_t*>(in.data()),
           reinterpret_cast<uint32_t*>(out.data()));
    if (f < 2) continue;
    ASSERT_NE(SparkProcess(sparkhost::BeginFrame(f)), nullptr);
    const uint8_t* spark = sparkhost::BufferPixels(sparkhost::kResultBuffer);
    size_t mismatches = 0;
    for (size_t i = 0; i < in.size() / 4; ++i) {
      for (int c3 = 0; c3 < 3; ++c3) mismatches += out[4 * i + c3] != spark[3 * i + c3];
      mismatches += out[4 * i + 3] != in[4 * i + 3];
    }
    EXPECT_EQ(mismatches, 0u) << "frame " << f;
    EXPECT_TRUE(out != in) << "frame " << f << " was not blurred";
  }
  destruct(instance);
  deinit();
  dlclose(so);
}

INSTANTIATE_TEST_SUITE_P(Cases, SparkParity,
                         testing::Values(ParityCase{96, 64, 2.5 / 12.0, 0.5f, false},
                                         ParityCase{161, 113, 0.25, 1.0f, true},
                                         ParityCase{64, 50, 0.0, -2.0f, false}));

}  // namespace
