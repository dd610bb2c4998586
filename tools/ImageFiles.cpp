// flowblur: frame files through OpenImageIO, packing for the plug-in, and safe writes.
#include "tools/ImageFiles.h"

#include <Imath/half.h>
#include <OpenImageIO/filesystem.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <functional>

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

#include "tools/Messages.h"

namespace flowblur {
namespace {

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// A reader's error text may run over several lines (each library layer adds its own): the
// first says what went wrong, and one message is one line.
std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// OIIO keeps its last error per thread; reading it also clears it.
std::string OiioError(const std::string& fallback) {
  std::string e = OIIO::geterror();
  return e.empty() ? fallback : e;
}

constexpr int64_t kMaxSamplesPerByte = 4096;

// Whether `path` is a regular file with something in it; false with the reason in `why`.
bool CheckInputFile(const std::string& path, std::string* why) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    *why = std::strerror(errno);
    return false;
  }
  if (S_ISDIR(st.st_mode)) {
    *why = "it is a folder, not an image file";
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *why = "it is not a regular file";
    return false;
  }
  if (st.st_size == 0) {
    *why = "the file is empty";
    return false;
  }
  return true;
}

// Bytes `n` at `offset` of the file being opened; false when they are not all there.
using ReadAt = std::function<bool(int64_t offset, void* into, size_t n)>;

constexpr int32_t kMaxExrAttributes = 65536;

// An EXR header, walked before any reader sees it. OpenEXR allocates what an attribute says
// it holds before reading it (about 2 GB for a string that claims so, in a file of a few
// hundred bytes), and which of its readers runs (the classic one or the core one) is
// OpenImageIO's choice, which a user's environment can change: so the sizes are checked here,
// whatever reads the file later. Refused, with the reason in `why`: an attribute claiming more
// bytes than the file has left, a data window over kMaxFrameSamples pixels, a header of more
// than kMaxExrAttributes attributes. Anything else that is wrong (or a file that is no EXR)
// is left to the reader to report.
bool CheckExrHeader(const ReadAt& read, int64_t bytes, std::string* why) {
  unsigned char head[8];
  if (bytes < 8 || !read(0, head, 8)) return true;
  if (head[0] != 0x76 || head[1] != 0x2f || head[2] != 0x31 || head[3] != 0x01) return true;
  const bool multipart = (head[5] & 0x10) != 0;  // version flag 0x1000
  int64_t pos = 8;
  auto name = [&](std::string* out) {  // null-terminated, at most 255 characters
    char text[256];
    const size_t n = static_cast<size_t>(std::min<int64_t>(sizeof text, bytes - pos));
    if (n == 0 || !read(pos, text, n)) return false;
    const void* end = std::memchr(text, 0, n);
    if (!end) return false;
    out->assign(text, static_cast<size_t>(static_cast<const char*>(end) - text));
    pos += static_cast<int64_t>(out->size()) + 1;
    return true;
  };
  auto int32At = [](const unsigned char* b) {  // little-endian
    return static_cast<int32_t>(static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
                                static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24);
  };
  int32_t attributes = 0;
  for (;;) {
    for (;;) {
      std::string attribute, type;
      if (!name(&attribute)) return true;
      if (attribute.empty()) break;  // the end of this header
      unsigned char size4[4];
      if (!name(&type) || bytes - pos < 4 || !read(pos, size4, 4)) return true;
      pos += 4;
      const int64_t size = int32At(size4);
      if (++attributes > kMaxExrAttributes) {
        *why = "its header holds more than " + std::to_string(kMaxExrAttributes) + " attributes";
        return false;
      }
      if (size < 0 || size > bytes - pos) {
        *why = "its header's attribute '" + attribute + "' claims " + std::to_string(size) +
               " bytes, more than the file holds";
        return false;
      }
      unsigned char box[16];
      if (attribute == "dataWindow" && type == "box2i" && size == 16 && read(pos, box, 16)) {
        const int64_t width = int64_t{int32At(box + 8)} - int32At(box) + 1;
        const int64_t height = int64_t{int32At(box + 12)} - int32At(box + 4) + 1;
        if (width > 0 && height > 0 &&
            (width > kMaxFrameSamples || height > kMaxFrameSamples ||
             width * height > kMaxFrameSamples)) {
          *why = "its header claims " + std::to_string(width) + "x" + std::to_string(height) +
                 " pixels, more than a frame may have (" + std::to_string(kMaxFrameSamples) +
                 " samples)";
          return false;
        }
      }
      pos += size;
    }
    // The parts of a multipart file follow one another; an empty header ends them.
    unsigned char next = 0;
    if (!multipart || pos >= bytes || !read(pos, &next, 1) || next == 0) return true;
  }
}

// A DPX header's user data size, checked before the reader takes that many bytes (twice: it
// reads the block and copies it into an attribute) whatever the file holds. Refused, with the
// reason in `why`, when it claims more bytes than the file has; 0 and all ones mean none.
bool CheckDpxHeader(const ReadAt& read, int64_t bytes, std::string* why) {
  unsigned char head[36];
  if (bytes < 36 || !read(0, head, 36)) return true;
  const bool big = std::memcmp(head, "SDPX", 4) == 0;
  if (!big && std::memcmp(head, "XPDS", 4) != 0) return true;
  uint32_t user = 0;  // in the byte order the magic number says
  for (int k = 0; k < 4; ++k) user = user << 8 | head[32 + (big ? k : 3 - k)];
  if (user == 0 || user == 0xFFFFFFFFu || user <= bytes) return true;
  *why = "its header's user data claims " + std::to_string(user) +
         " bytes, more than the file holds";
  return false;
}

// Opens `path` (or, with `proxy`, the bytes behind it, `path` naming them) for reading with
// `config` and fills `header` with the file's description (size, channels, sample format,
// metadata). Null, with the reason in `why`, on failure.
std::unique_ptr<OIIO::ImageInput> OpenToRead(const std::string& path,
                                             const OIIO::ImageSpec& config,
                                             OIIO::ImageSpec* header, std::string* why,
                                             OIIO::Filesystem::IOProxy* proxy = nullptr) {
  if (!proxy && !CheckInputFile(path, why)) return nullptr;
  {
    int fd = proxy ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (!proxy && fd < 0) {
      *why = std::strerror(errno);
      return nullptr;
    }
    struct stat st;
    const int64_t size = proxy ? static_cast<int64_t>(proxy->size())
                               : (fstat(fd, &st) == 0 ? static_cast<int64_t>(st.st_size) : 0);
    const ReadAt read = [&](int64_t offset, void* into, size_t n) {
      if (proxy) return proxy->pread(into, n, offset) == n;
      return pread(fd, into, n, offset) == static_cast<ssize_t>(n);
    };
    const bool fine = CheckExrHeader(read, size, why) && CheckDpxHeader(read, size, why);
    if (fd >= 0) close(fd);
    if (!fine) return nullptr;
  }
  // The readers take the proxy from the configuration at open().
  OIIO::ImageSpec withProxy = config;
  if (proxy) withProxy.attribute("oiio:ioproxy", OIIO::TypeDesc::PTR, &proxy);
  auto in = OIIO::ImageInput::create(path, false, &withProxy, proxy);
  if (!in) {
    *why = OiioError("no reader for this file");
    return nullptr;
  }
  if (!in->open(path, *header, withProxy)) {
    std::string e = in->geterror();
    *why = FirstLine(e.empty() ? OiioError("unknown error") : e);
    return nullptr;
  }
  // No format packs more than a few thousand samples into one byte of file (deflate stops
  // near 1032:1, LZW below 2000:1): a header that claims more lies, and is refused before
  // its pixels are given any memory.
  const int64_t bytes = proxy ? static_cast<int64_t>(proxy->size())
                              : static_cast<int64_t>(OIIO::Filesystem::file_size(path));
  const int64_t samples = int64_t{std::max(header->width, 0)} * std::max(header->height, 0);
  if (samples > bytes * kMaxSamplesPerByte ||
      samples * std::max(header->nchannels, 1) > bytes * kMaxSamplesPerByte) {
    *why = "its header claims " + std::to_string(header->width) + "x" +
           std::to_string(header->height) + " pixels, far more than its " +
           std::to_string(bytes) + " bytes can hold";
    return nullptr;
  }
  // The reader converts samples through a buffer of 256 of the file's rows, whatever the
  // image's height: a 1-row header 16 million pixels wide took 34 GB before any pixel.
  const int64_t rowBytes = static_cast<int64_t>(header->scanline_bytes(true));
  if (rowBytes > kMaxRowBytes) {
    *why = "its header claims rows of " + std::to_string(rowBytes) + " bytes (" +
           std::to_string(header->width) + " pixels), wider than a frame may have (" +
           std::to_string(kMaxRowBytes) + " bytes)";
    return nullptr;
  }
  return in;
}

// Samples are taken as the file stores them: no premultiplication by alpha on read, none
// undone on write, so alpha and colour go through exactly.
OIIO::ImageSpec ReadConfig() {
  OIIO::ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  return config;
}

uint8_t To8(float v) {
  // NaN maps to 0 (the clamp's lower end), like every other out-of-range value to its limit.
  if (!(v > 0.0f)) return 0;
  if (v >= 1.0f) return 255;
  return static_cast<uint8_t>(static_cast<double>(v) * 255.0 + 0.5);
}

uint16_t To16(float v) {
  if (!(v > 0.0f)) return 0;
  if (v >= 1.0f) return 65535;
  return static_cast<uint16_t>(static_cast<double>(v) * 65535.0 + 0.5);
}

bool MakeFolders(const std::string& folder, std::string* error,
                 std::vector<std::string>* created) {
  struct stat st;
  if (stat(folder.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    *error = "output folder " + Quote(folder) + " is not a folder";
    return false;
  }
  size_t slash = folder.find_last_of('/');
  if (slash != std::string::npos && slash > 0 &&
      !MakeFolders(folder.substr(0, slash), error, created))
    return false;
  if (mkdir(folder.c_str(), 0777) != 0) {
    if (errno == EEXIST) return true;
    *error = "cannot create output folder " + Quote(folder) + ": " + std::strerror(errno);
    return false;
  }
  created->push_back(folder);
  return true;
}

}  // namespace

const char* DepthName(SampleDepth depth) {
  switch (depth) {
    case SampleDepth::k8: return "8";
    case SampleDepth::k16: return "16";
    case SampleDepth::kHalf: return "half";
    case SampleDepth::kFloat: return "float";
  }
  return "?";
}

bool ParseDepth(const std::string& text, SampleDepth* depth) {
  for (SampleDepth d : {SampleDepth::k8, SampleDepth::k16, SampleDepth::kHalf, SampleDepth::kFloat})
    if (text == DepthName(d)) {
      *depth = d;
      return true;
    }
  return false;
}

int32_t FormatCodeFor(SampleDepth depth) {
  switch (depth) {
    case SampleDepth::k8: return 24;
    case SampleDepth::k16: return 48;
    default: return 49;
  }
}

OIIO::TypeDesc TypeFor(SampleDepth depth) {
  switch (depth) {
    case SampleDepth::k8: return OIIO::TypeDesc::UINT8;
    case SampleDepth::k16: return OIIO::TypeDesc::UINT16;
    case SampleDepth::kHalf: return OIIO::TypeDesc::HALF;
    case SampleDepth::kFloat: return OIIO::TypeDesc::FLOAT;
  }
  return OIIO::TypeDesc::FLOAT;
}

bool ClassifyFrame(const std::string& path, const OIIO::ImageSpec& imageSpec, FrameInfo* info,
                   std::string* error) {
  FrameInfo f;
  f.path = path;
  f.imageSpec = imageSpec;
  f.width = imageSpec.width;
  f.height = imageSpec.height;
  f.channels = imageSpec.nchannels;
  if (imageSpec.width <= 0 || imageSpec.height <= 0 || imageSpec.nchannels <= 0) {
    *error = Quote(path) + " has no pixels";
    return false;
  }
  if (imageSpec.deep) {
    *error = Quote(path) + " holds deep data: flat images only";
    return false;
  }
  // Checked in steps, so that no product can overflow.
  const int64_t samples = int64_t{imageSpec.width} * imageSpec.height;
  if (samples > kMaxFrameSamples || samples * imageSpec.nchannels > kMaxFrameSamples) {
    *error = Quote(path) + " claims " + std::to_string(imageSpec.width) + "x" +
             std::to_string(imageSpec.height) + " pixels of " +
             std::to_string(imageSpec.nchannels) + " channels, more than a frame may have (" +
             std::to_string(kMaxFrameSamples) + " samples)";
    return false;
  }
  int32_t byName[3] = {-1, -1, -1};
  const char* names[3] = {"r", "g", "b"};
  std::vector<int32_t> plain;  // channels that are neither alpha nor depth
  for (int32_t c = 0; c < imageSpec.nchannels; ++c) {
    std::string name = c < static_cast<int32_t>(imageSpec.channelnames.size())
                           ? Lower(imageSpec.channelnames[static_cast<size_t>(c)])
                           : std::string();
    for (int k = 0; k < 3; ++k)
      if (name == names[k] || name == (k == 0 ? "red" : k == 1 ? "green" : "blue")) byName[k] = c;
    bool alpha = c == imageSpec.alpha_channel || name == "a" || name == "alpha";
    bool depthChannel = c == imageSpec.z_channel || name == "z";
    if (!alpha && !depthChannel) plain.push_back(c);
  }
  if (byName[0] >= 0 && byName[1] >= 0 && byName[2] >= 0) {
    std::copy(byName, byName + 3, f.colour);
  } else if (plain.size() == 1) {
    f.grey = true;
    f.colour[0] = f.colour[1] = f.colour[2] = plain[0];
  } else if (plain.size() >= 3) {
    std::copy(plain.begin(), plain.begin() + 3, f.colour);
  } else {
    *error = Quote(path) + " has " + std::to_string(plain.size()) +
             " colour channels: RGB or greyscale is needed";
    return false;
  }
  OIIO::TypeDesc type = imageSpec.channelformat(f.colour[0]);
  switch (type.basetype) {
    case OIIO::TypeDesc::UINT8: f.depth = SampleDepth::k8; break;
    case OIIO::TypeDesc::HALF: f.depth = SampleDepth::kHalf; break;
    case OIIO::TypeDesc::FLOAT:
    case OIIO::TypeDesc::DOUBLE: f.depth = SampleDepth::kFloat; break;
    default: f.depth = SampleDepth::k16; break;
  }
  *info = f;
  return true;
}

bool ReadFrameInfo(const std::string& path, FrameInfo* info, std::string* error) {
  OIIO::ImageSpec header;
  std::string why;
  auto in = OpenToRead(path, ReadConfig(), &header, &why);
  if (!in) {
    *error = "cannot read " + Quote(path) + ": " + why;
    return false;
  }
  bool ok = ClassifyFrame(path, header, info, error);
  in->close();
  return ok;
}

namespace {

bool ReadFrameFrom(const std::string& path, OIIO::Filesystem::IOProxy* proxy, Frame* frame,
                   std::string* error, bool keepHalves) {
  OIIO::ImageSpec imageSpec;
  std::string why;
  auto in = OpenToRead(path, ReadConfig(), &imageSpec, &why, proxy);
  if (!in) {
    *error = "cannot read " + Quote(path) + ": " + why;
    return false;
  }
  if (!ClassifyFrame(path, imageSpec, &frame->info, error)) return false;
  const size_t samples =
      static_cast<size_t>(imageSpec.width) * imageSpec.height * imageSpec.nchannels;
  bool ok;
  frame->pixels = std::vector<float>();
  frame->halves = std::vector<uint16_t>();
  if (keepHalves && AllChannelsHalf(imageSpec)) {
    // The file's own samples: the reader copies them without converting any.
    frame->halves.resize(samples);
    ok = in->read_image(0, 0, 0, imageSpec.nchannels, OIIO::TypeDesc::HALF, frame->halves.data());
  } else {
    frame->pixels.resize(samples);
    ok = in->read_image(0, 0, 0, imageSpec.nchannels, OIIO::TypeDesc::FLOAT, frame->pixels.data());
  }
  // Some readers fill what a truncated file lacks and only warn: any error they left counts.
  std::string e = in->geterror();
  if (!ok || !e.empty()) {
    *error = "cannot read " + Quote(path) + ": " + (e.empty() ? "read failed" : FirstLine(e));
    frame->pixels = std::vector<float>();
    frame->halves = std::vector<uint16_t>();
    return false;
  }
  in->close();
  return true;
}

}  // namespace

bool ReadFrame(const std::string& path, Frame* frame, std::string* error, bool keepHalves) {
  return ReadFrameFrom(path, nullptr, frame, error, keepHalves);
}

bool AllChannelsHalf(const OIIO::ImageSpec& imageSpec) {
  bool allHalf = imageSpec.format == OIIO::TypeDesc::HALF;
  for (OIIO::TypeDesc channel : imageSpec.channelformats) allHalf &= channel == OIIO::TypeDesc::HALF;
  return allHalf;
}

bool ReadFrameFromMemory(const std::string& name, const void* bytes, size_t size, Frame* frame,
                         std::string* error) {
  if (size == 0) {
    *error = "cannot read " + Quote(name) + ": the file is empty";
    return false;
  }
  OIIO::Filesystem::IOMemReader proxy(bytes, size);
  return ReadFrameFrom(name, &proxy, frame, error, false);
}

int64_t PackedFrameBytes(int32_t width, int32_t height, int32_t formatCode) {
  int64_t bytesPerPixel = formatCode == 24 || formatCode == 25 ? 3 : 6;
  return int64_t{width} * height * bytesPerPixel;
}

namespace {

// Floats to the bits of the nearest half (ties to even), as Imath::half(v) gives them. Where the
// processor converts eight at a time (F16C) it does, with the same bits for every value but a
// NaN; a group holding a NaN is converted one by one, as the processor keeps NaN payloads
// otherwise. Tested against Imath over every float bit pattern once; a sweep stays in the tests.
void FloatsToHalvesPlain(const float* in, uint16_t* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = Imath::half(in[i]).bits();
}

#if defined(__x86_64__)
// Asked of the processor directly: not every compiler knows "f16c" as a feature name.
bool ProcessorHasF16c() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_F16C) != 0;
}

__attribute__((target("avx,f16c"))) void FloatsToHalvesF16c(const float* in, uint16_t* out,
                                                            size_t n) {
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256 v = _mm256_loadu_ps(in + i);
    if (_mm256_movemask_ps(_mm256_cmp_ps(v, v, _CMP_UNORD_Q)) != 0) {
      FloatsToHalvesPlain(in + i, out + i, 8);
      continue;
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i),
                     _mm256_cvtps_ph(v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
  }
  FloatsToHalvesPlain(in + i, out + i, n - i);
}
#endif

void FloatsToHalves(const float* in, uint16_t* out, size_t n) {
#if defined(__x86_64__)
  static const bool f16c = __builtin_cpu_supports("avx") && ProcessorHasF16c();
  if (f16c) return FloatsToHalvesF16c(in, out, n);
#endif
  FloatsToHalvesPlain(in, out, n);
}

}  // namespace

void FloatsToHalfBits(const float* in, uint16_t* out, size_t n) { FloatsToHalves(in, out, n); }

namespace {

float HalfValue(uint16_t bits) {
  Imath::half h;
  h.setBits(bits);
  return static_cast<float>(h);
}

// Colour in channels 0, 1, 2 and nothing else: the packed plug-in frame is the frame itself.
bool PlainRgb(const FrameInfo& f) {
  return f.channels == 3 && !f.grey && f.colour[0] == 0 && f.colour[1] == 1 && f.colour[2] == 2;
}

// A frame held as halves into a plug-in format: for 49 the bits as they are; the integer
// formats from their exact float values, as from a frame held as floats.
void PackHalves(const Frame& frame, int32_t formatCode, void* packed) {
  const FrameInfo& f = frame.info;
  const size_t pixels = static_cast<size_t>(f.width) * f.height;
  const uint16_t* src = frame.halves.data();
  if (formatCode == 49) {
    uint16_t* to = static_cast<uint16_t*>(packed);
    if (PlainRgb(f)) {
      std::memcpy(to, src, pixels * 3 * sizeof(uint16_t));
      return;
    }
    for (size_t i = 0; i < pixels; ++i)
      for (int c = 0; c < 3; ++c) to[i * 3 + c] = src[i * f.channels + f.colour[c]];
    return;
  }
  const bool eight = formatCode == 24 || formatCode == 25;
  for (size_t i = 0; i < pixels; ++i)
    for (int c = 0; c < 3; ++c) {
      const float v = HalfValue(src[i * f.channels + f.colour[c]]);
      if (eight)
        static_cast<uint8_t*>(packed)[i * 3 + c] = To8(v);
      else
        static_cast<uint16_t*>(packed)[i * 3 + c] = To16(v);
    }
}

}  // namespace

void SamplesAsFloats(Frame* frame) {
  if (!frame->HoldsHalves()) return;
  std::vector<float> pixels(frame->halves.size());
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = HalfValue(frame->halves[i]);
  frame->pixels = std::move(pixels);
  frame->halves = std::vector<uint16_t>();
}

void PackColour(const Frame& frame, int32_t formatCode, void* packed) {
  if (frame.HoldsHalves()) return PackHalves(frame, formatCode, packed);
  const FrameInfo& f = frame.info;
  size_t pixels = static_cast<size_t>(f.width) * f.height;
  const float* src = frame.pixels.data();
  if (formatCode == 49) {
    // Gathered a run of pixels at a time, then converted together.
    constexpr size_t kRun = 1024;
    float colour[kRun * 3];
    uint16_t* to = static_cast<uint16_t*>(packed);
    for (size_t start = 0; start < pixels; start += kRun) {
      const size_t run = std::min(kRun, pixels - start);
      for (size_t i = 0; i < run; ++i)
        for (int c = 0; c < 3; ++c) colour[i * 3 + c] = src[(start + i) * f.channels + f.colour[c]];
      FloatsToHalves(colour, to + start * 3, run * 3);
    }
    return;
  }
  const bool eight = formatCode == 24 || formatCode == 25;
  for (size_t i = 0; i < pixels; ++i) {
    const float* p = src + i * f.channels;
    for (int c = 0; c < 3; ++c) {
      float v = p[f.colour[c]];
      if (eight)
        static_cast<uint8_t*>(packed)[i * 3 + c] = To8(v);
      else
        static_cast<uint16_t*>(packed)[i * 3 + c] = To16(v);
    }
  }
}

void UnpackColour(const void* packed, int32_t formatCode, Frame* frame) {
  const FrameInfo& f = frame->info;
  const size_t pixels = static_cast<size_t>(f.width) * f.height;
  const int channels = f.grey ? 1 : 3;
  if (frame->HoldsHalves() && formatCode == 49) {
    // The result's bits as they are: what a float frame would hold, converted back.
    const uint16_t* from = static_cast<const uint16_t*>(packed);
    uint16_t* dst = frame->halves.data();
    for (size_t i = 0; i < pixels; ++i)
      for (int c = 0; c < channels; ++c) dst[i * f.channels + f.colour[c]] = from[i * 3 + c];
    return;
  }
  SamplesAsFloats(frame);
  float* dst = frame->pixels.data();
  // One loop a format, so that the choice is not made again for every sample.
  auto unpack = [&](auto value) {
    for (size_t i = 0; i < pixels; ++i) {
      float* p = dst + i * f.channels;
      for (int c = 0; c < channels; ++c) p[f.colour[c]] = value(i * 3 + c);
    }
  };
  if (formatCode == 24 || formatCode == 25) {
    const uint8_t* from = static_cast<const uint8_t*>(packed);
    unpack([from](size_t k) { return static_cast<float>(from[k]) / 255.0f; });
  } else if (formatCode == 49) {
    const uint16_t* from = static_cast<const uint16_t*>(packed);
    unpack([from](size_t k) { return HalfValue(from[k]); });
  } else {
    const uint16_t* from = static_cast<const uint16_t*>(packed);
    unpack([from](size_t k) { return static_cast<float>(from[k]) / 65535.0f; });
  }
}

Frame WithColourFrom(const Frame& input, const void* packed, int32_t formatCode) {
  Frame out;
  out.info = input.info;
  if (input.HoldsHalves() && formatCode == 49 && PlainRgb(input.info)) {
    // Every sample comes from the result.
    out.halves.resize(input.halves.size());
    std::memcpy(out.halves.data(), packed, out.halves.size() * sizeof(uint16_t));
    return out;
  }
  out = input;
  UnpackColour(packed, formatCode, &out);
  return out;
}

OIIO::ImageSpec OutputSpec(const FrameInfo& input, SampleDepth depth) {
  OIIO::ImageSpec imageSpec = input.imageSpec;
  // At the input's own depth every channel keeps its own format (an EXR may hold half colour
  // and float alpha), so nothing carried through loses a bit.
  if (depth != input.depth) {
    imageSpec.set_format(TypeFor(depth));
    imageSpec.channelformats.clear();
    imageSpec.erase_attribute("oiio:BitsPerSample");
  }
  imageSpec.attribute("oiio:UnassociatedAlpha", 1);
  return imageSpec;
}

namespace {

enum class FileCodec { kExr, kPng, kTiff, kJpeg, kOther };

std::string LowerExtension(const std::string& path) {
  std::string ext = OIIO::Filesystem::extension(path, false);
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext;
}

FileCodec CodecOf(const std::string& path) {
  const std::string ext = LowerExtension(path);
  if (ext == "exr") return FileCodec::kExr;
  if (ext == "png") return FileCodec::kPng;
  if (ext == "tif" || ext == "tiff") return FileCodec::kTiff;
  if (ext == "jpg" || ext == "jpeg") return FileCodec::kJpeg;
  return FileCodec::kOther;
}

const std::vector<std::string> kExrCompressions = {"none",  "rle", "zips", "zip",  "piz",
                                                   "pxr24", "b44", "b44a", "dwaa", "dwab"};
const std::vector<std::string> kTiffCompressions = {"none", "lzw", "zip", "packbits"};

// A whole number lo..hi written with digits only.
bool LevelIn(const std::string& text, int lo, int hi, int* level) {
  if (text.empty() || text.size() > 3 ||
      !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return false;
  *level = std::stoi(text);
  return *level >= lo && *level <= hi;
}

bool NameIn(const std::string& text, const std::vector<std::string>& names, const char* format,
            std::string* error) {
  if (std::find(names.begin(), names.end(), text) != names.end()) return true;
  std::string list;
  for (const std::string& name : names) list += (list.empty() ? "" : ", ") + name;
  *error = std::string("--compression for ") + format + " files is one of " + list + ", not '" +
           text + "'";
  return false;
}

}  // namespace

const char* const kCompressionHelp =
    "Image file OUTPUT compression. EXR: none, rle, zips, zip, piz (default), pxr24, b44, "
    "b44a, dwaa, dwab (the last four lose detail, pxr24 rounds float to 24 bits); PNG: zlib "
    "level 0 to 9 (default 1); TIFF: none, lzw (default), zip, packbits; JPEG: quality 1 to "
    "100 (default 95). Movies take --codec and --crf";

bool CheckCompression(const std::string& path, const std::string& choice, std::string* error) {
  if (choice.empty()) return true;
  int level = 0;
  switch (CodecOf(path)) {
    case FileCodec::kExr:
      return NameIn(choice, kExrCompressions, "EXR", error);
    case FileCodec::kTiff:
      return NameIn(choice, kTiffCompressions, "TIFF", error);
    case FileCodec::kPng:
      if (LevelIn(choice, 0, 9, &level)) return true;
      *error = "--compression for PNG files is a zlib level 0 to 9, not '" + choice + "'";
      return false;
    case FileCodec::kJpeg:
      if (LevelIn(choice, 1, 100, &level)) return true;
      *error = "--compression for JPEG files is a quality 1 to 100, not '" + choice + "'";
      return false;
    case FileCodec::kOther:
      break;
  }
  *error = "--compression does not apply to ." + LowerExtension(path) +
           " files (EXR, PNG, TIFF and JPEG take it)";
  return false;
}

void ApplyCompression(const std::string& path, const std::string& choice,
                      OIIO::ImageSpec* imageSpec) {
  switch (CodecOf(path)) {
    case FileCodec::kExr:
      imageSpec->attribute("compression", choice.empty() ? "piz" : choice);
      break;
    case FileCodec::kTiff:
      imageSpec->attribute("compression", choice.empty() ? "lzw" : choice);
      break;
    case FileCodec::kPng: {
      // An input's "compression" (a PNG's "zip") would otherwise set the level too.
      imageSpec->erase_attribute("compression");
      const int level = choice.empty() ? 1 : std::stoi(choice);
      imageSpec->attribute("png:compressionLevel", level);
      if (level == 1)
        imageSpec->attribute("png:filter", 32);  // PNG_FILTER_UP
      else
        imageSpec->erase_attribute("png:filter");
      break;
    }
    case FileCodec::kJpeg:
      imageSpec->attribute("compression", "jpeg:" + (choice.empty() ? std::string("95") : choice));
      break;
    case FileCodec::kOther:
      break;
  }
}

bool SyncToDisk(const std::string& path, std::string* why) {
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) {
    *why = std::string("temporary file vanished: ") + std::strerror(errno);
    return false;
  }
  const bool synced = fsync(fd) == 0;
  if (!synced) *why = std::strerror(errno);
  close(fd);
  return synced;
}

std::string TemporaryPathFor(const std::string& path) {
  size_t slash = path.rfind('/');
  std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  size_t dot = name.rfind('.');
  std::string stem = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
  std::string ext = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
  return folder + "." + stem + ".partial-" + std::to_string(getpid()) + ext;
}

namespace {

// Writes all of `bytes` to a new file `path`, flushed to the disk; false with errno's words.
bool WriteBytes(const std::string& path, const std::vector<unsigned char>& bytes,
                std::string* why) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) {
    *why = std::strerror(errno);
    return false;
  }
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *why = n < 0 ? std::strerror(errno) : "the disk took no more data";
      close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  if (fsync(fd) != 0) {
    *why = std::strerror(errno);
    close(fd);
    return false;
  }
  if (close(fd) != 0) {
    *why = std::strerror(errno);
    return false;
  }
  return true;
}

// Some writers do not report a failed write (a full disk gives a short file and success).
// Reading the whole file back catches what they let through.
bool VerifyReadable(const std::string& path, const OIIO::ImageSpec& imageSpec, std::string* why) {
  OIIO::ImageSpec got;
  std::string reason;
  auto in = OpenToRead(path, OIIO::ImageSpec(), &got, &reason);
  if (!in) {
    *why = "the written file cannot be read back: " + reason;
    return false;
  }
  if (got.width != imageSpec.width || got.height != imageSpec.height) {
    *why = "the written file cannot be read back whole";
    return false;
  }
  std::vector<float> scratch(static_cast<size_t>(got.width) * got.height * got.nchannels);
  bool ok = in->read_image(0, 0, 0, got.nchannels, OIIO::TypeDesc::FLOAT, scratch.data());
  if (!ok) {
    std::string e = in->geterror();
    *why = "the written file cannot be read back: " + (e.empty() ? "read failed" : e);
  }
  in->close();
  return ok;
}

}  // namespace

bool WriteImageSafely(const std::string& path, const OIIO::ImageSpec& imageSpec, OIIO::TypeDesc type,
                      const void* pixels, bool overwrite, std::string* error) {
  std::string temp = TemporaryPathFor(path);
  auto fail = [&](const std::string& why) {
    unlink(temp.c_str());
    *error = "cannot write " + Quote(path) + ": " + why;
    return false;
  };
  if (!overwrite && access(path.c_str(), F_OK) == 0)
    return fail("it exists (use --overwrite to replace it)");
  auto out = OIIO::ImageOutput::create(path);
  if (!out) return fail(OiioError("no writer for this file type"));
  // Floats for a file of halves are converted here, eight at a time where the processor can,
  // to the bits the writer's own conversion gives; the writer then copies them.
  std::vector<uint16_t> halves;
  if (type == OIIO::TypeDesc::FLOAT && AllChannelsHalf(imageSpec) && imageSpec.depth <= 1) {
    halves.resize(static_cast<size_t>(imageSpec.image_pixels()) * imageSpec.nchannels);
    FloatsToHalves(static_cast<const float*>(pixels), halves.data(), halves.size());
    type = OIIO::TypeDesc::HALF;
    pixels = halves.data();
  }
  if (out->supports("ioproxy")) {
    // Encode in memory, then write the bytes ourselves: every failure of the disk is seen,
    // with the system's own words ("No space left on device").
    std::vector<unsigned char> bytes;
    OIIO::Filesystem::IOVecOutput proxy(bytes);
    if (!out->set_ioproxy(&proxy) || !out->open(temp, imageSpec)) return fail(out->geterror());
    bool wrote = out->write_image(type, pixels);
    std::string writeError = wrote ? std::string() : out->geterror();
    bool closed = out->close();
    if (!wrote) return fail(writeError.empty() ? "encoding failed" : writeError);
    if (!closed) return fail(out->geterror());
    out.reset();
    std::string why;
    if (!WriteBytes(temp, bytes, &why)) return fail(why);
  } else {
    // The writer writes the temporary file itself (its name keeps the final extension).
    if (!out->open(temp, imageSpec)) return fail(out->geterror());
    bool wrote = out->write_image(type, pixels);
    std::string writeError = wrote ? std::string() : out->geterror();
    bool closed = out->close();
    if (!wrote) return fail(writeError.empty() ? "write failed" : writeError);
    if (!closed) {
      std::string e = out->geterror();
      return fail(e.empty() ? "closing failed" : e);
    }
    out.reset();
    std::string why;
    if (!SyncToDisk(temp, &why) || !VerifyReadable(temp, imageSpec, &why)) return fail(why);
  }
  if (overwrite) {
    if (rename(temp.c_str(), path.c_str()) != 0) return fail(std::strerror(errno));
    return true;
  }
  // link() refuses an existing name, so a file that appeared meanwhile is not replaced.
  if (link(temp.c_str(), path.c_str()) != 0) {
    int e = errno;
    if (e == EEXIST) return fail("it exists (use --overwrite to replace it)");
    if (e != EPERM && e != ENOTSUP && e != EXDEV) return fail(std::strerror(e));
    // A file system without hard links: check, then rename.
    if (access(path.c_str(), F_OK) == 0) return fail("it exists (use --overwrite to replace it)");
    if (rename(temp.c_str(), path.c_str()) != 0) return fail(std::strerror(errno));
    return true;
  }
  unlink(temp.c_str());
  return true;
}

bool PrepareOutputFolder(const std::string& folder, std::string* error,
                         std::vector<std::string>* created) {
  std::vector<std::string> made;
  auto undo = [&] {
    for (auto it = made.rbegin(); it != made.rend(); ++it) rmdir(it->c_str());
    return false;
  };
  if (!MakeFolders(folder, error, &made)) return undo();
  std::string probe = folder + "/.flowblur-probe-" + std::to_string(getpid());
  int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd < 0) {
    *error = "cannot write in output folder " + Quote(folder) + ": " + std::strerror(errno);
    return undo();
  }
  close(fd);
  unlink(probe.c_str());
  if (created) created->insert(created->end(), made.begin(), made.end());
  return true;
}

void RemoveCreatedFolders(const std::vector<std::string>& created) {
  for (auto it = created.rbegin(); it != created.rend(); ++it) rmdir(it->c_str());
}

}  // namespace flowblur
