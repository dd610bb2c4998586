// flowblur: parsing of sequence patterns and frame ranges, and the search for frames on disk.
#include "tools/Sequence.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace flowblur {
namespace {

bool AllDigits(const std::string& s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A decimal frame number of at most 12 digits (frame numbers beyond that are nonsense here).
bool ParseFrameNumber(const std::string& s, int64_t* value) {
  if (!AllDigits(s) || s.size() > 12) return false;
  int64_t v = 0;
  for (char c : s) v = v * 10 + (c - '0');
  *value = v;
  return true;
}

}  // namespace

std::string SequencePattern::PathFor(int64_t frame) const {
  if (!numbered) return text;
  char digits[32];
  std::snprintf(digits, sizeof digits, "%0*lld", static_cast<int>(padding),
                static_cast<long long>(frame));
  return head + digits + tail;
}

std::string SequencePattern::Folder() const {
  size_t slash = text.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return text.substr(0, slash);
}

bool ParseSequencePattern(const std::string& text, SequencePattern* pattern, std::string* error) {
  SequencePattern p;
  p.text = text;
  size_t slash = text.rfind('/');
  size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  if (nameStart >= text.size()) {
    *error = "'" + text + "' names a folder, not a file";
    return false;
  }
  // Locate every token; exactly zero or one is allowed, and only in the file name.
  struct Token {
    size_t at, length;
    int32_t padding;
  };
  std::vector<Token> tokens;
  for (size_t i = 0; i < text.size();) {
    if (text[i] == '#') {
      size_t j = i;
      while (j < text.size() && text[j] == '#') ++j;
      tokens.push_back({i, j - i, static_cast<int32_t>(j - i)});
      i = j;
    } else if (text[i] == '%') {
      if (i + 1 < text.size() && text[i + 1] == 'd') {
        tokens.push_back({i, 2, 0});
        i += 2;
      } else if (i + 3 < text.size() && text[i + 1] == '0' && text[i + 2] >= '1' &&
                 text[i + 2] <= '9' && text[i + 3] == 'd') {
        tokens.push_back({i, 4, text[i + 2] - '0'});
        i += 4;
      } else {
        *error = "'" + text + "': a frame number is written %d or %0Nd (N from 1 to 9) or ####";
        return false;
      }
    } else {
      ++i;
    }
  }
  if (tokens.size() > 1) {
    *error = "'" + text + "' has more than one frame-number token";
    return false;
  }
  if (tokens.size() == 1) {
    const Token& t = tokens[0];
    if (t.at < nameStart) {
      *error = "'" + text + "': the frame number must be in the file name, not in a folder name";
      return false;
    }
    if (t.padding > 9) {
      *error = "'" + text + "': at most 9 '#' for the frame number";
      return false;
    }
    p.numbered = true;
    p.padding = t.padding;
    p.head = text.substr(0, t.at);
    p.tail = text.substr(t.at + t.length);
  }
  *pattern = p;
  return true;
}

bool ParseFrameRange(const std::string& text, int64_t* first, int64_t* last, std::string* error) {
  size_t dash = text.find('-', 1);
  int64_t a = 0, b = 0;
  bool ok;
  if (dash == std::string::npos) {
    ok = ParseFrameNumber(text, &a);
    b = a;
  } else {
    ok = ParseFrameNumber(text.substr(0, dash), &a) && ParseFrameNumber(text.substr(dash + 1), &b);
  }
  if (!ok) {
    *error = "--frames '" + text + "': expected A-B or A, with frame numbers 0 or more";
    return false;
  }
  if (a > b) {
    *error = "--frames '" + text + "': the first frame is after the last";
    return false;
  }
  *first = a;
  *last = b;
  return true;
}

std::vector<int64_t> FindFrames(const SequencePattern& pattern, std::string* error) {
  std::vector<int64_t> frames;
  std::string folder = pattern.Folder();
  DIR* dir = opendir(folder.c_str());
  if (!dir) {
    *error = "cannot read folder '" + folder + "': " + std::strerror(errno);
    return frames;
  }
  size_t slash = pattern.head.rfind('/');
  std::string headName = slash == std::string::npos ? pattern.head : pattern.head.substr(slash + 1);
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (!pattern.numbered) continue;
    if (name.size() <= headName.size() + pattern.tail.size()) continue;
    if (name.compare(0, headName.size(), headName) != 0) continue;
    if (name.compare(name.size() - pattern.tail.size(), pattern.tail.size(), pattern.tail) != 0)
      continue;
    std::string digits =
        name.substr(headName.size(), name.size() - headName.size() - pattern.tail.size());
    int64_t frame;
    if (!ParseFrameNumber(digits, &frame)) continue;
    // Only the spelling that PathFor gives back counts.
    if (pattern.PathFor(frame) != pattern.head + digits + pattern.tail) continue;
    frames.push_back(frame);
  }
  closedir(dir);
  std::sort(frames.begin(), frames.end());
  return frames;
}

bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return false;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace flowblur
