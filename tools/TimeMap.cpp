// flowblur: time maps of the retime command.
#include "tools/TimeMap.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <sstream>

namespace flowblur {

namespace {

// Parses a whole string as a finite double.
bool WholeDouble(const std::string& text, double* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  *value = std::strtod(text.c_str(), &end);
  return *end == '\0' && errno == 0 && std::isfinite(*value);
}

bool WholeInteger(const std::string& text, int64_t* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  long long v = std::strtoll(text.c_str(), &end, 10);
  *value = v;
  return *end == '\0' && errno == 0;
}

// Times this close to the input's last frame count as on it: decimal speeds such as 0.1
// add up to a hair past a whole frame.
constexpr double kEndSlack = 1e-9;

}  // namespace

bool ParseRate(const std::string& text, Rate* rate, std::string* error) {
  const size_t slash = text.find('/');
  Rate r;
  if (slash != std::string::npos) {
    if (!WholeInteger(text.substr(0, slash), &r.numerator) ||
        !WholeInteger(text.substr(slash + 1), &r.denominator) || r.numerator <= 0 ||
        r.denominator <= 0 || r.numerator > 1000000000 || r.denominator > 1000000000) {
      *error = "frame rate '" + text + "' is not a positive fraction such as 24000/1001";
      return false;
    }
  } else {
    // A decimal as an exact fraction: "29.97" is 2997/100.
    const size_t dot = text.find('.');
    std::string digits = text;
    r.denominator = 1;
    if (dot != std::string::npos) {
      const size_t decimals = text.size() - dot - 1;
      digits = text.substr(0, dot) + text.substr(dot + 1);
      if (decimals > 6 || text.find('.', dot + 1) != std::string::npos) digits.clear();
      for (size_t k = 0; k < decimals; ++k) r.denominator *= 10;
    }
    bool digitsOnly = !digits.empty();
    for (char c : digits) digitsOnly = digitsOnly && c >= '0' && c <= '9';
    if (!digitsOnly || !WholeInteger(digits, &r.numerator) || r.numerator <= 0 ||
        r.numerator > 1000000000) {
      *error = "frame rate '" + text + "' is not a positive number such as 24, 29.97 or 24000/1001";
      return false;
    }
  }
  *rate = r;
  return true;
}

bool ParseSpeed(const std::string& text, double* speed, std::string* error) {
  double value = 0.0;
  if (!WholeDouble(text, &value)) {
    *error = "--speed '" + text + "' is not a number";
    return false;
  }
  if (value == 0.0) {
    *error = "--speed 0 would show one frame for ever; give a speed other than 0";
    return false;
  }
  if (std::fabs(value) < 1e-3 || std::fabs(value) > 1e3) {
    *error = "--speed " + text + " is outside 0.001 to 1000 (either sign)";
    return false;
  }
  *speed = value;
  return true;
}

std::vector<TimedFrame> SpeedTimes(int64_t first, int64_t last, double speed, int64_t start) {
  std::vector<TimedFrame> frames;
  const double span = static_cast<double>(last - first);
  const double step = std::fabs(speed);
  const int64_t count = static_cast<int64_t>(std::floor(span / step + kEndSlack)) + 1;
  for (int64_t k = 0; k < count; ++k) {
    // Products, not running sums: no drift over long runs, and k F is exact for binary
    // fractions such as 0.5 or 0.25.
    double offset = std::min(static_cast<double>(k) * step, span);
    double t = speed > 0.0 ? static_cast<double>(first) + offset
                           : static_cast<double>(last) - offset;
    frames.push_back({start + k, t});
  }
  return frames;
}

std::vector<TimedFrame> RateTimes(int64_t first, int64_t last, const Rate& in, const Rate& out,
                                  int64_t start) {
  // Output k is k / out seconds, i.e. k * out.den * in.num / (out.num * in.den) source frames.
  const __int128 num = static_cast<__int128>(out.denominator) * in.numerator;
  const __int128 den = static_cast<__int128>(out.numerator) * in.denominator;
  std::vector<TimedFrame> frames;
  for (int64_t k = 0;; ++k) {
    const __int128 scaled = static_cast<__int128>(k) * num;
    const __int128 whole = scaled / den, rest = scaled % den;
    if (whole > last - first || (whole == last - first && rest != 0)) break;
    const double t = static_cast<double>(first + static_cast<int64_t>(whole)) +
                     static_cast<double>(rest) / static_cast<double>(den);
    frames.push_back({start + k, t});
  }
  return frames;
}

bool ParseTimeMap(const std::string& text, const std::string& name, int64_t first, int64_t last,
                  std::vector<TimeKey>* keys, std::string* error) {
  keys->clear();
  std::istringstream lines(text);
  std::string line;
  int32_t number = 0;
  auto fail = [&](const std::string& why) {
    *error = "time map '" + name + "' line " + std::to_string(number) + ": " + why;
    keys->clear();
    return false;
  };
  while (std::getline(lines, line)) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::istringstream fields(line);
    std::string a, b, extra;
    fields >> a;
    if (a.empty() || a[0] == '#') continue;
    fields >> b >> extra;
    if (b.empty() || !extra.empty())
      return fail("'" + line + "' is not two numbers (OUTPUT_FRAME SOURCE_TIME)");
    TimeKey key;
    key.line = number;
    double outputValue = 0.0;
    if (!WholeDouble(a, &outputValue) || !WholeDouble(b, &key.sourceTime))
      return fail("'" + line + "' is not two numbers (OUTPUT_FRAME SOURCE_TIME)");
    if (outputValue != std::floor(outputValue) || outputValue < 0.0 || outputValue > 1e9)
      return fail("output frame '" + a + "' is not a whole frame number of 0 or more");
    key.outputFrame = static_cast<int64_t>(outputValue);
    if (!keys->empty() && key.outputFrame <= keys->back().outputFrame)
      return fail("output frame " + a + " does not come after " +
                  std::to_string(keys->back().outputFrame) + " of line " +
                  std::to_string(keys->back().line));
    if (key.sourceTime < static_cast<double>(first) || key.sourceTime > static_cast<double>(last))
      return fail("source time " + b + " is outside the input, frames " + std::to_string(first) +
                  " to " + std::to_string(last));
    keys->push_back(key);
  }
  if (keys->empty()) {
    *error = "time map '" + name + "' has no keys (lines 'OUTPUT_FRAME SOURCE_TIME')";
    return false;
  }
  if (keys->back().outputFrame - keys->front().outputFrame >= 1000000) {
    number = keys->back().line;
    return fail("more than a million output frames");
  }
  return true;
}

std::vector<TimedFrame> KeyedTimes(const std::vector<TimeKey>& keys) {
  std::vector<TimedFrame> frames;
  if (keys.empty()) return frames;
  frames.push_back({keys[0].outputFrame, keys[0].sourceTime});
  for (size_t k = 1; k < keys.size(); ++k) {
    const TimeKey& a = keys[k - 1];
    const TimeKey& b = keys[k];
    const double length = static_cast<double>(b.outputFrame - a.outputFrame);
    for (int64_t n = a.outputFrame + 1; n <= b.outputFrame; ++n) {
      // a + (b - a) f: exactly a at f 0 and exactly b at f 1, so keys are met exactly, and a
      // hold (a equal to b) stays on its frame.
      const double f = static_cast<double>(n - a.outputFrame) / length;
      const double t = n == b.outputFrame ? b.sourceTime
                                          : a.sourceTime + (b.sourceTime - a.sourceTime) * f;
      frames.push_back({n, t});
    }
  }
  return frames;
}

double SourceTimeAt(const std::vector<TimedFrame>& frames, double index) {
  if (frames.empty()) return 0.0;
  const double lastIndex = static_cast<double>(frames.size() - 1);
  if (frames.size() == 1 || index <= 0.0) return frames[0].sourceTime;
  if (index >= lastIndex) {
    const double step = frames.back().sourceTime - frames[frames.size() - 2].sourceTime;
    return frames.back().sourceTime + step * (index - lastIndex);
  }
  const size_t k = static_cast<size_t>(index);
  const double f = index - static_cast<double>(k);
  if (f == 0.0) return frames[k].sourceTime;
  return frames[k].sourceTime + (frames[k + 1].sourceTime - frames[k].sourceTime) * f;
}

}  // namespace flowblur
