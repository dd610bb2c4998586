// flowblur: `flowblur retime` (slow motion, speed changes, frame-rate conversion, time maps)
// and `flowblur deinterlace` (field interpolation, or field rate with motion compensation).
#pragma once
#include <cstdint>
#include <string>

#include "tools/ResampleRun.h"
#include "tools/TimeMap.h"

namespace flowblur {

// How a made frame is mixed from its two source frames.
enum class RetimeMethod {
  kNearest,   // the nearer source frame, moved along the flow by its share of the time
  kBlend,     // a cross-fade of the two source frames, no flow
  kFlow,      // both frames moved along the flow to the time and cross-faded
  kDissolve,  // as kFlow, but where the two flows disagree the change becomes a cut
};
bool ParseRetimeMethod(const std::string& text, RetimeMethod* method);

struct RetimeOptions {
  ResampleOptions run;
  // Exactly one time map: speed, rates, or a file.
  bool haveSpeed = false;
  double speed = 1.0;
  bool haveRates = false;
  Rate rateIn, rateOut;
  std::string timeMapFile;
  bool haveStart = false;  // output numbers from `start`, else from the first input frame
  int64_t start = 0;
  RetimeMethod method = RetimeMethod::kFlow;
  int32_t warpStyle = 1;  // 1 gather, 2 forward (both with holes filled)
  bool draft = false;     // flow at a quarter of the frame size, else a half
  float shutter = 0.0f;   // fraction of the output frame interval, 0 to 2
};

// The whole command. Output frame k (from the map's start) shows the source time the map
// gives it; a time on a source frame (within 0.005 of a frame) gives that frame back
// unchanged when there is no shutter. Frames in between are made by the retiming engine
// from the two source frames around the time; alpha goes through the engine with the
// colour, other channels come from the nearer source frame. Returns an ExitCode.
int RunRetime(const RetimeOptions& options);

enum class FieldOrder { kTopFirst, kBottomFirst };

struct DeinterlaceOptions {
  ResampleOptions run;
  FieldOrder order = FieldOrder::kTopFirst;
  int32_t method = 2;       // PLFieldMethod 1..4: line, average (default), edge3, edge5
  bool fieldRate = false;   // two frames out per frame in
  bool haveStart = false;
  int64_t start = 0;
  bool draft = false;       // flow quality at field rate
};

// Frame rate: output frame n keeps the first field of input frame n (the top rows with
// kTopFirst, the rows of the other parity with kBottomFirst) and rebuilds the other rows by
// field interpolation. Field rate: input frame n gives output frames 2n and 2n + 1 (counted
// from the start), the first and the second field in time; each keeps its field's rows and
// takes the other rows from the motion-compensated picture of the two nearest fields of
// the other parity (before and after it), made by the retiming engine from those fields
// made whole, each sample limited to the range of the field's samples above and below it
// (so a wrong vector cannot invent a value the field does not show there). The clip's first and last fields, which have a neighbour on one side only,
// are rebuilt by field interpolation with `method`. Frames of odd height are refused.
int RunDeinterlace(const DeinterlaceOptions& options);

// `flowblur demo DIR --retime`: the demo clip written into DIR/input, a half-speed version
// into DIR/retime, the flow of each made frame into DIR/retime-flow, the clip truly rendered
// at every half frame (output k of the half-speed run, and one more) into DIR/truth, and
// DIR/retime-sheet.png: source frame, made frame and its flow for three made frames.
int RunRetimeDemo(const std::string& folder, const RetimeOptions& base, int32_t width,
                  int32_t height, int32_t frames);

}  // namespace flowblur
