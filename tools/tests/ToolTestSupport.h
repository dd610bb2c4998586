// flowblur tool tests: temporary folders, folder snapshots, running the built command, the test
// clip written as files.
#pragma once
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/PLTestTexture.h"
#include "tools/ImageFiles.h"

namespace flowblur::test {

// The whole contents of a file ("" when it cannot be read).
inline std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A fresh folder under $TMPDIR (or /tmp), removed with everything in it at the end.
class TempDir {
 public:
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/flowblur-tools-XXXXXX";
    if (mkdtemp(pattern.data())) path_ = pattern;
  }
  ~TempDir() {
    if (!path_.empty()) Remove(path_);
  }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  static void Remove(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }

 private:
  std::string path_;
};

// Every file under a folder with its contents (folders as "name/" with none), to show that a
// refused run changed nothing (names relative to the folder).
inline std::map<std::string, std::string> Snapshot(const std::string& folder) {
  std::map<std::string, std::string> files;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator it(folder, error), end; !error && it != end;
       it.increment(error)) {
    const std::string name = it->path().string().substr(folder.size() + 1);
    const bool isFolder = it->is_directory() && !it->is_symlink();
    files[isFolder ? name + "/" : name] = isFolder ? "" : ReadBytes(it->path().string());
  }
  return files;
}

inline std::vector<std::string> Names(const std::map<std::string, std::string>& snapshot) {
  std::vector<std::string> names;
  for (auto& [k, v] : snapshot) names.push_back(k);
  return names;
}

struct RunResult {
  int exitCode = -1;  // the exit status; 128 + signal when killed by one
  std::string err;    // standard error
  std::string out;    // standard output
  long maxRssKb = 0;  // the child's own peak resident size
};

// Options for RunCommand.
struct RunOptions {
  long fileSizeLimit = -1;  // RLIMIT_FSIZE in bytes for the child; -1: none
  // The sanitizer's quarantine of freed blocks off in the child: it holds back up to hundreds
  // of megabytes by design, which would hide a run's own growth in memory.
  bool noQuarantine = false;
  // Called in the parent with the child's pid while it runs (e.g. to interrupt it).
  std::function<void(pid_t child)> whileRunning;
};

// Runs the command with `args`, standard input closed, both output streams captured.
inline RunResult RunCommand(const std::string& exe, const std::vector<std::string>& args,
                            const RunOptions& options = RunOptions()) {
  RunResult result;
  TempDir scratch;
  std::string errPath = scratch / "stderr", outPath = scratch / "stdout";
  pid_t child = fork();
  if (child == 0) {
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    if (options.fileSizeLimit >= 0) {
      rlimit limit{static_cast<rlim_t>(options.fileSizeLimit),
                   static_cast<rlim_t>(options.fileSizeLimit)};
      setrlimit(RLIMIT_FSIZE, &limit);
    }
    if (options.noQuarantine) {
      const char* old = std::getenv("ASAN_OPTIONS");
      setenv("ASAN_OPTIONS",
             (std::string(old ? old : "") + ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0")
                 .c_str(),
             1);
    }
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(exe.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  if (options.whileRunning) options.whileRunning(child);
  int status = 0;
  rusage usage{};
  while (wait4(child, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  result.maxRssKb = usage.ru_maxrss;
  if (WIFEXITED(status))
    result.exitCode = WEXITSTATUS(status);
  else if (WIFSIGNALED(status))
    result.exitCode = 128 + WTERMSIG(status);
  result.err = ReadBytes(errPath);
  result.out = ReadBytes(outPath);
  return result;
}

inline RunResult Flowblur(const std::vector<std::string>& args,
                          const RunOptions& options = RunOptions()) {
  return RunCommand(FLOWBLUR_EXE, args, options);
}

// Runs the command: success, or a failure with its exit code and standard error.
inline ::testing::AssertionResult Succeeds(const std::vector<std::string>& args) {
  const RunResult r = Flowblur(args);
  if (r.exitCode == 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "exit code " << r.exitCode << ": " << r.err;
}

// `pattern` (printf style) with its frame number filled in.
inline std::string Numbered(const std::string& pattern, int64_t frame) {
  char path[512];
  std::snprintf(path, sizeof path, pattern.c_str(), static_cast<int>(frame));
  return path;
}

// The test clip, frames first..first+count-1: the project's texture, still, and a textured
// 24x20 block moving 3 px a frame to the right from (8, 8); the lower right corner (x >= 60,
// y >= 40) never changes. With 2 or 4 channels the last is alpha, a ramp that moves with the
// block (so it differs from frame to frame). Written at `depth` with a pixel aspect and a
// time code that counts the frames.
inline void WriteClip(const std::string& pattern, int32_t first, int32_t count, SampleDepth depth,
                      int32_t channels, int32_t width = 96, int32_t height = 64) {
  for (int32_t t = 0; t < count; ++t) {
    const int32_t bx = 8 + 3 * t, by = 8;
    std::vector<float> pixels(static_cast<size_t>(width) * height * channels);
    for (int32_t y = 0; y < height; ++y)
      for (int32_t x = 0; x < width; ++x)
        for (int32_t c = 0; c < channels; ++c) {
          double v = pltest::Texture(x + 13.0 * c, y + 7.0 * c);
          if (channels % 2 == 0 && c == channels - 1)
            v = 0.25 + 0.5 * ((x - bx + 64) % 32) / 32.0;
          else if (x >= bx && x < bx + 24 && y >= by && y < by + 20)
            v = 0.2 + 0.6 * (((x - bx) / 3 + (y - by) / 3 + c) % 2);
          pixels[(static_cast<size_t>(y) * width + x) * channels + c] = static_cast<float>(v);
        }
    OIIO::ImageSpec imageSpec(width, height, channels, TypeFor(depth));
    if (channels == 2) {
      imageSpec.channelnames = {"Y", "A"};
      imageSpec.alpha_channel = 1;
    }
    imageSpec.attribute("oiio:UnassociatedAlpha", 1);
    imageSpec.attribute("PixelAspectRatio", 1.5f);
    uint32_t timecode[2] = {0x10203000u + static_cast<uint32_t>(t), 0};
    imageSpec.attribute("smpte:TimeCode", OIIO::TypeTimeCode, timecode);
    std::string error;
    ASSERT_TRUE(WriteImageSafely(Numbered(pattern, first + t), imageSpec, OIIO::TypeDesc::FLOAT,
                                 pixels.data(), false, &error))
        << error;
  }
}

// Writes 8-bit RGB `pixels` (floats from 0 to 1) to `path`.
inline void WriteRgb8(const std::string& path, int32_t width, int32_t height,
                      const std::vector<float>& pixels) {
  std::string error;
  ASSERT_TRUE(WriteImageSafely(path, OIIO::ImageSpec(width, height, 3, OIIO::TypeDesc::UINT8),
                               OIIO::TypeDesc::FLOAT, pixels.data(), false, &error))
      << error;
}

// A file format and sample layout of the end-to-end tests, named in the test's name.
struct FormatCase {
  const char* name;
  const char* ext;
  SampleDepth depth;
  int32_t channels;
};
inline std::string FormatName(const ::testing::TestParamInfo<FormatCase>& info) {
  return info.param.name;
}

inline Frame Load(const std::string& path) {
  Frame f;
  std::string error;
  EXPECT_TRUE(ReadFrame(path, &f, &error)) << error;
  return f;
}

}  // namespace flowblur::test
