// flowblur: how the batch host speaks on a terminal: one-line messages, quoted file names, and
// the progress line of a run. Every command says things the same way.
#pragma once
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace flowblur {

inline void Say(const std::string& text) { std::fprintf(stderr, "flowblur: %s\n", text.c_str()); }

inline std::string Quote(const std::string& path) { return "'" + path + "'"; }

inline std::string SizeText(int32_t width, int32_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

// Progress on one line of a terminal: frame, rate, time left.
class Progress {
 public:
  Progress(bool show, int64_t total) : show_(show), total_(total) {}
  void Update(int64_t done, int64_t fileFrame) {
    if (!show_) return;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double fps = seconds > 0.0 ? done / seconds : 0.0;
    const int64_t left = static_cast<int64_t>((fps > 0.0 ? (total_ - done) / fps : 0.0) + 0.5);
    std::fprintf(stderr, "\rflowblur: frame %lld (%lld of %lld)  %.2f fps  %lld:%02lld left   ",
                 static_cast<long long>(fileFrame), static_cast<long long>(done),
                 static_cast<long long>(total_), fps, static_cast<long long>(left / 60),
                 static_cast<long long>(left % 60));
    std::fflush(stderr);
    dirty_ = true;
  }
  // Ends the progress line before any other message.
  void Break() {
    if (dirty_) std::fputc('\n', stderr);
    dirty_ = false;
  }

 private:
  bool show_;
  bool dirty_ = false;
  int64_t total_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace flowblur
