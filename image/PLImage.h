// flowblur: PLImage, the library's one raster type.
#pragma once
#include <cstdint>

#include "runtime/NuvMem.h"
#include "runtime/PLErr.h"

// Rules for this folder:
// - Images are interleaved. Row y lies at data + y * rowBytes, or with `flipped` at
//   data + (lastRow - y) * rowBytes; pixel x is x * bytesPerPixel further, sample c
//   c * bytesPerSample further. Offsets are formed in 32 bits, then added to data.
// - Every loop addresses each image by its own fields: two images of one size may differ
//   in row order and padding. Use PLRow() below.
// - Operations are free functions, destination first. Validate, then dispatch once per
//   call with PLDispatch (image/PLDispatch.h), then run; kernels check nothing.
// - Conversions between types are numeric casts; scaling is a separate step.
// - Unsupported types or channel counts are a silent no-op (or one stderr line).
// - Rows of wrapped images may sit at any address (a host's odd stride or odd buffer
//   start): read and write their samples through PLLoad/PLStore. Typed pointer walks
//   (PLRowPtr) are kept for images the library allocated itself, which are aligned.

enum PLDataType : int32_t {
  PLUChar = 0,
  PLUShort = 1,
  PLFloat = 2,
  PLChar = 3,
  PLShort = 4,
  PLShortFraction = 5,
  PLUShortFraction = 6,
  PLDouble = 7,
  PLLong = 8,
};

enum PLMatteMode : int32_t {
  MatteOpaque = 0,
  MatteStraight = 1,
  MattePremultiplied = 2,
  MatteUnknown = 3,
};

// Reads one sample of some type and writes it as a float, unscaled.
typedef void (*PLSampleReader)(float* dst, const void* src);

class PLImage : public NuvMem {
 public:
  // Allocated, throwing PLErr on failure.
  PLImage(int32_t width, int32_t height, int32_t channels, int32_t dataType, int32_t flipped);
  // Allocated; throws only when throwOnFailure is exactly 1, otherwise a failure leaves
  // errorCode set and data null.
  PLImage(int32_t throwOnFailure, int32_t width, int32_t height, int32_t channels,
          int32_t dataType, int32_t flipped);
  // Wrapping the caller's memory with a stated row distance (host rows may be padded).
  PLImage(void* data, int32_t width, int32_t height, int32_t rowBytes, int32_t channels,
          int32_t dataType, int32_t flipped);
  PLImage(int32_t throwOnFailure, void* data, int32_t width, int32_t height, int32_t rowBytes,
          int32_t channels, int32_t dataType, int32_t flipped);
  // Wrapping with rowBytes = width * bytesPerSample * channels.
  PLImage(void* data, int32_t width, int32_t height, int32_t channels, int32_t dataType,
          int32_t flipped);
  PLImage(int32_t throwOnFailure, void* data, int32_t width, int32_t height, int32_t channels,
          int32_t dataType, int32_t flipped);
  // No image file decoder exists: the image stays Empty and `name` is not read.
  PLImage(const char* name, int32_t flipped);
  virtual ~PLImage();

  PLImage(const PLImage&) = delete;
  PLImage& operator=(const PLImage&) = delete;

  // Common tail of the constructors; allocates when `allocate` is non-zero.
  void Init(int32_t allocate, int32_t throwOnFailure);
  // Points this image at other memory. What it owned before is not released.
  void Wrap(void* data, int32_t width, int32_t height, int32_t rowBytes, int32_t channels,
            int32_t dataType, int32_t flipped);

  // Accessors; x and y are not checked. GetPixel reads UChar and UShort, and reads a Float
  // image as 16-bit words at a 2-byte step (kept so: whole-image code never reaches it for
  // Float); other types leave `values` alone. GetChannel reads every type properly.
  void GetPixel(int32_t x, int32_t y, float* values) const;
  void SetPixel(int32_t x, int32_t y, const float* values);
  void GetChannel(int32_t x, int32_t y, float* value, int32_t channel) const;
  void SetChannel(int32_t x, int32_t y, int32_t channel, float value);

  // Flow vectors in a 2-channel image: 16-bit coded on UShort, raw floats otherwise.
  void SetFlow(int32_t x, int32_t y, int32_t range, float u, float v);
  // Bilinear read at a fractional position of a UShort or Float flow image.
  void GetFlow(float fx, float fy, float* u, float* v, int32_t range) const;

  // Matte members (4-channel images).
  void ToStraightMatte();
  void ToPremultipliedMatte();
  void UpdateMatteMode(int32_t premultiplied);

  // Address of row y, by this image's own order and padding.
  unsigned char* Row(int32_t y) const {
    int32_t offset = (flipped ? (lastRow - y) : y) * rowBytes;
    return data + offset;
  }
  unsigned char* PixelAddress(int32_t x, int32_t y) const { return Row(y) + x * bytesPerPixel; }

  int32_t channels = 0;
  int32_t width = 0;
  int32_t height = 0;
  int32_t errorCode = 0;
  int32_t dataType = 0;
  int32_t flipped = 0;
  int32_t bytesPerSample = 0;
  int32_t bytesPerPixel = 0;
  int32_t rowBytes = 0;
  int32_t ownsData = 0;
  unsigned char* data = nullptr;
  float whitePoint = 0.0f;
  int32_t matteMode = MatteUnknown;
  int32_t reserved = 0;
  int32_t lastRow = 0;
  int32_t lastColumn = 0;
  int32_t rowStep = 0;
  PLSampleReader readSample = nullptr;

 protected:
  PLImage() = default;  // for wrappers that set their fields themselves
};

// Bytes per sample by data type code; 0 for a code outside the table.
int32_t PLBytesPerSample(int32_t dataType);
