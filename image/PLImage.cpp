// flowblur: PLImage construction, addressing and the per-pixel accessors.
#include "image/PLImage.h"

#include <cstring>

#include "image/PLPixelConvert.h"

int32_t PLBytesPerSample(int32_t dataType) {
  switch (dataType) {
    case PLUChar:
    case PLChar:
      return 1;
    case PLUShort:
    case PLShort:
    case PLShortFraction:
    case PLUShortFraction:
      return 2;
    case PLFloat:
    case PLLong:  // listed as 4 bytes although its routines move 8
      return 4;
    case PLDouble:
      return 8;
    default:
      return 0;
  }
}

PLImage::PLImage(int32_t width_, int32_t height_, int32_t channels_, int32_t dataType_,
                 int32_t flipped_)
    : PLImage(1, width_, height_, channels_, dataType_, flipped_) {}

PLImage::PLImage(int32_t throwOnFailure, int32_t width_, int32_t height_, int32_t channels_,
                 int32_t dataType_, int32_t flipped_) {
  channels = channels_;
  width = width_;
  height = height_;
  dataType = dataType_;
  flipped = flipped_;
  Init(1, throwOnFailure);
}

PLImage::PLImage(void* data_, int32_t width_, int32_t height_, int32_t rowBytes_,
                 int32_t channels_, int32_t dataType_, int32_t flipped_)
    : PLImage(1, data_, width_, height_, rowBytes_, channels_, dataType_, flipped_) {}

PLImage::PLImage(int32_t /*throwOnFailure*/, void* data_, int32_t width_, int32_t height_,
                 int32_t rowBytes_, int32_t channels_, int32_t dataType_, int32_t flipped_) {
  channels = channels_;
  data = static_cast<unsigned char*>(data_);
  rowBytes = rowBytes_;
  dataType = dataType_;
  flipped = flipped_;
  if (!data) return;  // Empty: sizes stay 0
  width = width_;
  height = height_;
  Init(0, 0);
}

PLImage::PLImage(void* data_, int32_t width_, int32_t height_, int32_t channels_,
                 int32_t dataType_, int32_t flipped_)
    : PLImage(1, data_, width_, height_, channels_, dataType_, flipped_) {}

PLImage::PLImage(int32_t /*throwOnFailure*/, void* data_, int32_t width_, int32_t height_,
                 int32_t channels_, int32_t dataType_, int32_t flipped_) {
  channels = channels_;
  data = static_cast<unsigned char*>(data_);
  rowBytes = width_ * PLBytesPerSample(dataType_) * channels_;
  dataType = dataType_;
  flipped = flipped_;
  if (!data) return;
  width = width_;
  height = height_;
  Init(0, 0);
}

PLImage::PLImage(const char* /*name*/, int32_t flipped_) {
  flipped = flipped_;
  matteMode = MatteUnknown;
}

PLImage::~PLImage() {
  if (ownsData && data) NuvMemFree(data);
}

void PLImage::Init(int32_t allocate, int32_t throwOnFailure) {
  reserved = 0;
  matteMode = MatteUnknown;
  errorCode = 0;
  bytesPerSample = PLBytesPerSample(dataType);
  bytesPerPixel = bytesPerSample * channels;
  if (allocate) {
    rowBytes = width * bytesPerPixel;
    try {
      data = static_cast<unsigned char*>(
          NuvMemAlloc(static_cast<uint64_t>(static_cast<int64_t>(rowBytes) * height)));
      ownsData = 1;
    } catch (PLErr& err) {
      data = nullptr;
      ownsData = 0;
      errorCode = err;
      if (throwOnFailure == 1) {
        PLErr value = err;
        throw value;
      }
      return;
    }
  } else {
    ownsData = 0;
  }
  lastRow = height - 1;
  lastColumn = width - 1;
  rowStep = flipped ? -rowBytes : rowBytes;
  if (dataType == PLUChar) whitePoint = 255.0f;
  if (dataType == PLUShort) whitePoint = 65535.0f;
  if (dataType == PLFloat) whitePoint = 1.0f;
  readSample = PLGetSampleReader(dataType);
}

void PLImage::Wrap(void* data_, int32_t width_, int32_t height_, int32_t rowBytes_,
                   int32_t channels_, int32_t dataType_, int32_t flipped_) {
  data = static_cast<unsigned char*>(data_);
  width = width_;
  height = height_;
  rowBytes = rowBytes_;
  channels = channels_;
  dataType = dataType_;
  flipped = flipped_;
  Init(0, 0);
}

void PLImage::GetPixel(int32_t x, int32_t y, float* values) const {
  const unsigned char* p = PixelAddress(x, y);
  switch (dataType) {
    case PLUChar:
      for (int32_t c = 0; c < channels; ++c) values[c] = static_cast<float>(p[c]);
      break;
    case PLUShort:
    case PLFloat:  // the Float branch reads 16-bit words, as the UShort one does
      for (int32_t c = 0; c < channels; ++c)
        values[c] = static_cast<float>(PLLoad<uint16_t>(p + 2 * c));
      break;
    default:
      break;
  }
}

void PLImage::SetPixel(int32_t x, int32_t y, const float* values) {
  unsigned char* p = PixelAddress(x, y);
  if (dataType == PLFloat) {
    std::memcpy(p, values, sizeof(float) * static_cast<size_t>(channels));
    return;
  }
  PLSampleConverter write = PLGetSampleWriter(dataType);
  if (!write) return;
  for (int32_t c = 0; c < channels; ++c) write(p + c * bytesPerSample, &values[c]);
}

void PLImage::GetChannel(int32_t x, int32_t y, float* value, int32_t channel) const {
  const unsigned char* p = PixelAddress(x, y);
  if (dataType == PLFloat) {
    *value = PLLoad<float>(p + channel * 4);
    return;
  }
  if (readSample) readSample(value, p + channel * bytesPerSample);
}

void PLImage::SetChannel(int32_t x, int32_t y, int32_t channel, float value) {
  unsigned char* p = PixelAddress(x, y);
  if (dataType == PLFloat) {
    PLStore<float>(p + channel * 4, value);
    return;
  }
  PLSampleConverter write = PLGetSampleWriter(dataType);
  if (write) write(p + channel * bytesPerSample, &value);
}
