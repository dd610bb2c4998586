// flowblur: flat views of pixel memory (NuvImage) and the image behind them.
#pragma once
#include <cstdint>

#include "image/PLImage.h"

// A PLImage that also knows the position of each colour channel.
class NuvImageInternal : public PLImage {
 public:
  // Wraps nothing: null data, sizes 0, 0 channels, type 0, not flipped.
  NuvImageInternal();
  // Wraps the same pixels as `image`, without owning them.
  explicit NuvImageInternal(const PLImage* image);

  int32_t hasMatte = 0;
  int32_t colorSet = 0;
  int32_t redIndex = 0;
  int32_t greenIndex = 0;
  int32_t blueIndex = 0;
  int32_t alphaIndex = 0;
};

// pixelType <-> dataType: 0, 1, 2 map to themselves. rowOrder <-> flipped: 0 <-> 1.
// Other values have no mapping; these return -1 for them.
int32_t NuvPixelTypeToDataType(int32_t pixelType);
int32_t NuvDataTypeToPixelType(int32_t dataType);
int32_t NuvRowOrderToFlipped(int32_t rowOrder);
int32_t NuvFlippedToRowOrder(int32_t flipped);

// A snapshot of an image's addressing in plain fields, for inner loops. Setups return a
// PLErr value (0 on success). A view must not outlive its wrapper, nor the wrapper its
// pixels.
class NuvImage : public NuvMem {
 public:
  NuvImage() = default;  // unattached: unusable until attached and set up
  virtual ~NuvImage();
  NuvImage(const NuvImage&) = delete;
  NuvImage& operator=(const NuvImage&) = delete;

  // Replaces any wrapper by a new empty owned one: 0, or 1 when it cannot allocate.
  int32_t Create();
  // Uses `wrapper` (not owned) and sets up by its channel count (1 to 4; any other count
  // leaves the view as it is). Always returns 0.
  int32_t Attach(NuvImageInternal* wrapper);

  // Retarget the wrapper at a pixel block with 1, 2, 3 or 4 channels; 5 with no wrapper.
  int32_t SetupGray(void* data, int32_t width, int32_t height, int32_t rowBytes,
                    int32_t rowOrder, int32_t pixelType);
  int32_t SetupTwoChannel(void* data, int32_t width, int32_t height, int32_t rowBytes,
                          int32_t rowOrder, int32_t pixelType);
  int32_t SetupRGB(void* data, int32_t width, int32_t height, int32_t rowBytes,
                   int32_t rowOrder, int32_t pixelType);
  int32_t SetupRGBA(void* data, int32_t width, int32_t height, int32_t rowBytes,
                    int32_t rowOrder, int32_t pixelType);
  // Four channels with caller-given roles; each flag is 1 when its selector equals 1.
  int32_t SetupCustom(void* data, int32_t width, int32_t height, int32_t rowBytes,
                      int32_t rowOrder, int32_t pixelType, int32_t hasMatteSelector,
                      int32_t colorSetSelector, int32_t red, int32_t green, int32_t blue,
                      int32_t alpha);

  int32_t GetChannels() const { return internal ? internal->channels : 0; }
  int32_t GetRedIndex() const { return internal ? internal->redIndex : 0; }
  int32_t GetGreenIndex() const { return internal ? internal->greenIndex : 0; }
  int32_t GetBlueIndex() const { return internal ? internal->blueIndex : 0; }
  int32_t GetAlphaIndex() const { return internal ? internal->alphaIndex : 0; }
  // Fills all eleven from the wrapper: 0, or 5 with no wrapper.
  int32_t GetInfo(void** data, int32_t* width, int32_t* height, int32_t* rowBytes,
                  int32_t* rowOrder, int32_t* pixelType, int32_t* channels, int32_t* red,
                  int32_t* green, int32_t* blue, int32_t* alpha) const;

  int32_t bytesPerPixel = 0;
  int32_t rowBytes = 0;
  int32_t rowStep = 0;
  unsigned char* data = nullptr;
  int32_t rowOrder = 0;
  int32_t lastRow = 0;
  int32_t lastColumn = 0;
  int32_t height = 0;
  int32_t width = 0;
  int32_t pixelType = 0;
  NuvImageInternal* internal = nullptr;
  uint8_t ownsInternal = 0;

 private:
  int32_t Setup(int32_t channels, void* data, int32_t width, int32_t height, int32_t rowBytes,
                int32_t rowOrder, int32_t pixelType);
  // Copies the wrapper's addressing; throws PLErrParameter with no wrapper.
  void Sync(int32_t rowOrder, int32_t pixelType);
};
