// flowblur: time maps of the retime command: which output frames a run makes and which
// source time each one shows, from a speed, a pair of frame rates or a file of keys.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace flowblur {

// One output frame: its file number and the source time it shows, in input frame numbers
// (fractional; frame n of the input is at time n).
struct TimedFrame {
  int64_t number = 0;
  double sourceTime = 0.0;
};

// A frame rate as a fraction: "24", "29.97" (as 2997/100) or "24000/1001". False with a
// message for anything else, zero or negative.
struct Rate {
  int64_t numerator = 0, denominator = 1;
};
bool ParseRate(const std::string& text, Rate* rate, std::string* error);

// A speed factor: any finite number but 0. False with a message otherwise.
bool ParseSpeed(const std::string& text, double* speed, std::string* error);

// The input runs over frames first..last (inclusive, first <= last); output numbers start
// at `start`. Every map below keeps its source times inside first..last.
//
// Speed F: output k shows first + k F (F > 0), or last + k F (F < 0, played backwards), for
// every k whose time stays inside the input: floor((last - first) / |F|) + 1 frames (a
// time within 1e-9 frames of the end counts as inside, so that 0.1 x 10 reaches it).
std::vector<TimedFrame> SpeedTimes(int64_t first, int64_t last, double speed, int64_t start);

// Rates: output k shows first + k A / B, computed in integers, so that an output time on a
// source frame is that frame exactly; as many frames as stay inside the input.
std::vector<TimedFrame> RateTimes(int64_t first, int64_t last, const Rate& in, const Rate& out,
                                  int64_t start);

// A time map file: one key a line, "OUTPUT_FRAME SOURCE_TIME" (whole output frame number,
// source time in input frame numbers), separated by blanks; blank lines and lines starting
// with '#' are skipped. Output frames must rise from line to line. The run makes every
// output frame from the first key's to the last key's, each at the source time linearly
// interpolated between the keys around it. The output numbers are the file's own.
struct TimeKey {
  int64_t outputFrame = 0;
  double sourceTime = 0.0;
  int32_t line = 0;  // line number in the file, for messages
};
// Parses the text of a file named `name` (for messages). False with a message naming the
// line for an empty map, an unparsable or non-numeric line, a fractional or negative output
// frame, output frames that do not rise, and a source time outside first..last.
bool ParseTimeMap(const std::string& text, const std::string& name, int64_t first, int64_t last,
                  std::vector<TimeKey>* keys, std::string* error);
std::vector<TimedFrame> KeyedTimes(const std::vector<TimeKey>& keys);

// Source time of a fractional output position between two listed frames, for the engine's
// look one output frame ahead (shutter length): interpolated between the listed frames,
// extended past the last one along the last step (a single frame stays put).
double SourceTimeAt(const std::vector<TimedFrame>& frames, double index);

}  // namespace flowblur
