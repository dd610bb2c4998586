// flowblur tool tests: temporary folders, folder snapshots, running the built command, the test
// clip written as files, refused runs.
#pragma once
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
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
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data())) path_ = name.data();
  }
  ~TempDir() {
    if (!path_.empty()) Remove(path_);
  }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  static void Remove(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
      chmod(path.c_str(), 0755);
      if (DIR* dir = opendir(path.c_str())) {
        while (dirent* e = readdir(dir)) {
          std::string name = e->d_name;
          if (name != "." && name != "..") Remove(path + "/" + name);
        }
        closedir(dir);
      }
      rmdir(path.c_str());
    } else {
      unlink(path.c_str());
    }
  }

 private:
  std::string path_;
};

// Every file under a folder with its size and contents, to show that a refused run changed
// nothing (names relative to the folder).
inline std::map<std::string, std::string> Snapshot(const std::string& folder,
                                                   const std::string& prefix = "") {
  std::map<std::string, std::string> files;
  DIR* dir = opendir(folder.c_str());
  if (!dir) return files;
  while (dirent* e = readdir(dir)) {
    std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    std::string path = folder + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      files[prefix + name + "/"] = "";
      for (auto& [k, v] : Snapshot(path, prefix + name + "/")) files[k] = v;
    } else {
      files[prefix + name] = ReadBytes(path);
    }
  }
  closedir(dir);
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
  void (*whileRunning)(pid_t child, void* context) = nullptr;
  void* context = nullptr;
};

// Runs the command with `args`, standard input closed, both output streams captured.
inline RunResult RunCommand(const std::string& exe, const std::vector<std::string>& args,
                            const RunOptions& options = RunOptions()) {
  RunResult result;
  TempDir scratch;
  std::string errPath = scratch / "stderr", outPath = scratch / "stdout";
  pid_t child = fork();
  if (child == 0) {
    int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(err, 2);
    dup2(out, 1);
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
  if (options.whileRunning) options.whileRunning(child, options.context);
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

inline Frame Load(const std::string& path) {
  Frame f;
  std::string error;
  EXPECT_TRUE(ReadFrame(path, &f, &error)) << error;
  return f;
}

// Runs the command and checks its exit code, that its message holds `says`, and that nothing
// under `folder` changed.
inline void ExpectRefused(const std::string& folder, const std::vector<std::string>& args,
                          int code, const std::string& says) {
  const auto before = Snapshot(folder);
  const RunResult r = Flowblur(args);
  EXPECT_EQ(r.exitCode, code) << r.err;
  EXPECT_NE(r.err.find(says), std::string::npos) << "wanted '" << says << "', got: " << r.err;
  EXPECT_TRUE(Snapshot(folder) == before) << says;
}

}  // namespace flowblur::test
