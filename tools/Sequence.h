// flowblur: numbered file sequences: patterns such as name.%04d.exr or name.####.exr, frame
// ranges, and the frames a pattern finds on disk.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace flowblur {

// A file name pattern with at most one frame token in its last path component:
//   %d      the frame number as printed, no padding
//   %0Nd    zero-padded to at least N digits (N 1 to 9)
//   ###...  zero-padded to at least as many digits as there are '#' signs
// A pattern without a token names one file, used for every frame.
struct SequencePattern {
  std::string text;    // as given
  std::string head;    // everything before the token, folder included
  std::string tail;    // everything after the token
  int32_t padding = 0;  // minimum digits
  bool numbered = false;

  // The file of one frame (frames are 0 or more).
  std::string PathFor(int64_t frame) const;
  // Folder part of the pattern ("." when it has none).
  std::string Folder() const;
};

// Parses `text`; false with a message naming the problem (two tokens, a token in a folder name,
// a padding outside 1..9, an empty name).
bool ParseSequencePattern(const std::string& text, SequencePattern* pattern, std::string* error);

// "A-B" (A <= B) or a single "A"; frames 0 or more.
bool ParseFrameRange(const std::string& text, int64_t* first, int64_t* last, std::string* error);

// Frame numbers of the files in the pattern's folder that the pattern matches, ascending. A
// number with fewer digits than the padding, or with a superfluous leading zero, doesn't match
// (so that name.%04d.exr never picks up name.00001.exr twice over). Empty when the folder
// cannot be read; `error` then says why.
std::vector<int64_t> FindFrames(const SequencePattern& pattern, std::string* error);

// Whether two paths name the same existing file (same device and inode). False when either
// does not exist.
bool SameFile(const std::string& a, const std::string& b);

}  // namespace flowblur
