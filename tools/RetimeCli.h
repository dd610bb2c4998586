// flowblur: the command lines of `flowblur retime`, `flowblur deinterlace` and the demo's
// --retime, registered on the tool's command-line parser.
#pragma once
#include <cstdint>
#include <string>

#include "tools/RetimeCommand.h"

namespace CLI {
class App;
}

namespace flowblur {

class RetimeCli {
 public:
  // Adds the two subcommands to `app` and --retime to `demo`. `threads` is the tool's
  // default processor count.
  RetimeCli(CLI::App* app, CLI::App* demo, int32_t threads);

  // Whether a subcommand of ours was given, and runs it (after the parse): an ExitCode.
  bool Parsed() const;
  int Run();
  // Whether `flowblur demo --retime` was asked for, and runs it.
  bool DemoWanted() const { return demoRetime_; }
  int RunDemo(const std::string& folder, int32_t width, int32_t height, int32_t frames,
              int32_t threads, bool quiet);

 private:
  struct Common {
    std::string frames, outDepth, quality = "best", start;
    int32_t threads = 1;
  };
  void AddCommon(CLI::App* command, ResampleOptions* run, Common* common);
  int Settle(const Common& common, ResampleOptions* run, bool* draft, bool* haveStart,
             int64_t* start);
  int RunRetimeCommand();
  int RunDeinterlaceCommand();

  CLI::App* retime_ = nullptr;
  CLI::App* deinterlace_ = nullptr;
  bool demoRetime_ = false;

  RetimeOptions retimeOptions_;
  Common retimeCommon_;
  std::string speed_, fpsIn_, fpsOut_, method_ = "flow", warp_ = "gather", shutter_ = "0";

  DeinterlaceOptions deinterlaceOptions_;
  Common deinterlaceCommon_;
  std::string fieldOrder_, fieldMethod_ = "average", rate_ = "frame";
};

}  // namespace flowblur
