// flowblur: reading and writing frames with OpenImageIO: channel roles, sample depths, the
// plug-in's packed buffers, and writes that never leave a half-written file under its name.
#pragma once
#include <OpenImageIO/imageio.h>

#include <cstdint>
#include <string>
#include <vector>

namespace flowblur {

// The depths the tool tells apart, and the plug-in format each goes through.
enum class SampleDepth { k8, k16, kHalf, kFloat };
const char* DepthName(SampleDepth depth);                  // "8", "16", "half", "float"
bool ParseDepth(const std::string& text, SampleDepth* depth);  // the names above
// 24 for 8-bit, 48 for 16-bit, 49 for half and float (float is rounded to half on the way in).
int32_t FormatCodeFor(SampleDepth depth);
OIIO::TypeDesc TypeFor(SampleDepth depth);

// What a file's header says, and which channels the plug-in sees.
struct FrameInfo {
  std::string path;
  OIIO::ImageSpec imageSpec;  // size, channels, depth and metadata as read
  int32_t width = 0, height = 0, channels = 0;
  SampleDepth depth = SampleDepth::k8;
  bool grey = false;     // one colour channel, expanded to R = G = B for the plug-in
  int32_t colour[3] = {0, 1, 2};  // channel index of R, G, B (all one index when grey)
};

// Classifies a header. Colour channels are R, G, B by name, else the first three channels;
// one channel (or one plus alpha) is grey. Every other channel (alpha, depth, ...) is carried
// through unchanged. 8-bit integers go as 8-bit; other integer types as 16-bit; half as half;
// float and double as float. Only the first subimage of a file is used. False, with a message
// naming the file, for a file with two colour channels and no R, G, B, or with none.
bool ClassifyFrame(const std::string& path, const OIIO::ImageSpec& imageSpec, FrameInfo* info,
                   std::string* error);
// Opens the file and reads and classifies its header only.
bool ReadFrameInfo(const std::string& path, FrameInfo* info, std::string* error);

// Files that lie. Before any reader sees a path, a folder, anything but a regular file, and an
// empty file are refused. A header is refused before any pixel memory is taken when it
// describes deep data, more than kMaxFrameSamples samples (width x height x channels, 1 GiB
// as floats: 8192 x 8192 x 4, or 16384 x 16384 x 1), or more than 4096 samples for each byte
// of the file (no format compresses that far). A file whose pixels cannot all be decoded
// (truncated, corrupted) is refused, also when the reader only warned. An EXR header is
// walked before any reader opens the file, as its readers take the memory its attributes
// claim before reading them: an attribute claiming more bytes than the file holds, a data
// window of more than kMaxFrameSamples pixels, or more than 65536 attributes is refused there.
// A row of more than kMaxRowBytes bytes as stored (262144 float RGBA pixels) is refused too:
// the reader takes 256 rows of memory for it before decoding.
// Every refusal is one message that names the file.
constexpr int64_t kMaxFrameSamples = int64_t{1} << 28;
constexpr int64_t kMaxRowBytes = int64_t{4} << 20;

// A whole frame in memory: every channel as float, interleaved, rows packed, row 0 on top.
// Samples are as stored: alpha is neither multiplied in nor divided out.
// A frame read with keepHalves whose channels are all half holds their bits in `halves`
// instead (same layout) and `pixels` is empty: the file's own samples at half the memory,
// with no conversion on the way to the plug-in's half format or back to a half file. Every
// half is exactly a float, so the two forms give the same bits wherever they meet (the
// packed frames, the written files); SamplesAsFloats turns one into the other.
struct Frame {
  FrameInfo info;
  std::vector<float> pixels;
  std::vector<uint16_t> halves{};
  bool HoldsHalves() const { return !halves.empty(); }
};
bool ReadFrame(const std::string& path, Frame* frame, std::string* error, bool keepHalves = false);
// A frame held as halves becomes one held as floats (the same values); others are left alone.
void SamplesAsFloats(Frame* frame);
// Whether every channel of a header is half.
bool AllChannelsHalf(const OIIO::ImageSpec& imageSpec);
// ReadFrame from `size` bytes in memory; `name` chooses the reader by its extension and names
// the frame in messages.
bool ReadFrameFromMemory(const std::string& name, const void* bytes, size_t size, Frame* frame,
                         std::string* error);

// The bits of the half nearest to each of `n` floats (ties to even), as Imath::half gives them.
void FloatsToHalfBits(const float* in, uint16_t* out, size_t n);

// Bytes of a packed plug-in frame (three channels, rows without padding).
int64_t PackedFrameBytes(int32_t width, int32_t height, int32_t formatCode);
// The frame's colour channels into a packed plug-in buffer of `formatCode` (24, 48 or 49).
// Integer formats round to nearest and clamp to the range; 49 rounds to the nearest half.
void PackColour(const Frame& frame, int32_t formatCode, void* packed);
// A packed plug-in result back into the colour channels of `frame` (every other channel is
// left alone). For a grey frame the first of the three channels becomes the grey channel.
// A frame held as halves stays so for 49 (the bits go in as they are) and is turned into
// floats first for the other formats.
void UnpackColour(const void* packed, int32_t formatCode, Frame* frame);
// UnpackColour on a copy of `input`, without copying the samples the result replaces (an RGB
// frame without other channels takes none of `input`'s).
Frame WithColourFrom(const Frame& input, const void* packed, int32_t formatCode);

// The image description an output frame is written with: the input's, with its metadata
// (colour space, pixel aspect, timecode, ...), samples marked as stored (no alpha
// association). At the input's own depth each channel keeps its own format; at another depth
// all channels take `depth`.
OIIO::ImageSpec OutputSpec(const FrameInfo& input, SampleDepth depth);

// --compression of an output image file, by its extension. Lossless unless said:
//   .exr   none, rle, zips, zip, piz, pxr24, b44, b44a, dwaa, dwab (pxr24 rounds float to
//          24 bits; b44, b44a, dwaa and dwab are lossy). Default piz: on the demo clip's
//          1080p half frames it encoded faster than zip, to files as small or smaller.
//   .png   0 to 9, zlib's level. Default 1, rows filtered by the row above only: the
//          encoder's search over row filters and zlib's default level took most of a run.
//   .tif   none, lzw, zip, packbits. Default lzw: about 2.5 times as fast as zip on 16-bit
//          frames for files a quarter larger.
//   .jpg   1 to 100, the quality. Default 95.
// Other formats take their writer's own way and refuse a choice. The empty choice is the
// default. A movie takes --codec and --crf instead.
extern const char* const kCompressionHelp;
bool CheckCompression(const std::string& path, const std::string& choice, std::string* error);
// Tells the writer of `path` the (checked) choice.
void ApplyCompression(const std::string& path, const std::string& choice,
                      OIIO::ImageSpec* imageSpec);

// Writes an image to `path` so that `path` is never a partial file: the data goes to a hidden
// temporary file beside it (same folder, same extension), is flushed to disk, and only then is
// renamed into place. Without `overwrite` an existing `path` is an error and is left alone,
// also when it appeared while the write was under way. Any failure removes the temporary
// file and leaves a message naming `path`.
bool WriteImageSafely(const std::string& path, const OIIO::ImageSpec& imageSpec, OIIO::TypeDesc type,
                      const void* pixels, bool overwrite, std::string* error);

// Flushes a written file to the disk, so that a name given to it afterwards cannot stand over
// unwritten data (a full disk can still show up here). False with the system's reason.
bool SyncToDisk(const std::string& path, std::string* why);

// The hidden temporary name WriteImageSafely uses for `path` (used by tests to check that
// nothing is left behind).
std::string TemporaryPathFor(const std::string& path);

// Whether `folder` exists (or can be created, which is then done) and a file can be created in
// it: a probe file is created and removed. False with a message naming the folder; folders it
// made are then removed again. The folders it made are appended to `created` (may be null),
// outermost first, so that a run refused later can take them away (RemoveCreatedFolders).
bool PrepareOutputFolder(const std::string& folder, std::string* error,
                         std::vector<std::string>* created = nullptr);
// Removes the folders, innermost first, where they are still empty.
void RemoveCreatedFolders(const std::vector<std::string>& created);

}  // namespace flowblur
