// flowblur: NuvImageInternal and NuvImage views.
#include "image/NuvImage.h"

NuvImageInternal::NuvImageInternal() : PLImage(1, nullptr, 0, 0, 0, 0, 0, 0) {}

NuvImageInternal::NuvImageInternal(const PLImage* image)
    : PLImage(1, image->data, image->width, image->height, image->rowBytes, image->channels,
              image->dataType, image->flipped) {}

int32_t NuvPixelTypeToDataType(int32_t pixelType) {
  return (pixelType >= 0 && pixelType <= 2) ? pixelType : -1;
}
int32_t NuvDataTypeToPixelType(int32_t dataType) {
  return (dataType >= 0 && dataType <= 2) ? dataType : -1;
}
int32_t NuvRowOrderToFlipped(int32_t rowOrder) {
  return rowOrder == 0 ? 1 : (rowOrder == 1 ? 0 : -1);
}
int32_t NuvFlippedToRowOrder(int32_t flipped) {
  return flipped == 0 ? 1 : (flipped == 1 ? 0 : -1);
}

NuvImage::~NuvImage() {
  if (ownsInternal == 1 && internal) delete internal;
  internal = nullptr;
}

int32_t NuvImage::Create() {
  ownsInternal = 0;
  if (internal) {
    delete internal;
    internal = nullptr;
  }
  try {
    internal = NUV_NEW NuvImageInternal();
  } catch (...) {
    internal = nullptr;
    return 1;
  }
  ownsInternal = 1;
  return 0;
}

int32_t NuvImage::Attach(NuvImageInternal* wrapper) {
  ownsInternal = 0;
  internal = wrapper;
  if (!wrapper) return 0;
  int32_t type = NuvDataTypeToPixelType(wrapper->dataType);
  int32_t order = NuvFlippedToRowOrder(wrapper->flipped);
  switch (wrapper->channels) {
    case 1: SetupGray(wrapper->data, wrapper->width, wrapper->height, wrapper->rowBytes, order, type); break;
    case 2: SetupTwoChannel(wrapper->data, wrapper->width, wrapper->height, wrapper->rowBytes, order, type); break;
    case 3: SetupRGB(wrapper->data, wrapper->width, wrapper->height, wrapper->rowBytes, order, type); break;
    case 4: SetupRGBA(wrapper->data, wrapper->width, wrapper->height, wrapper->rowBytes, order, type); break;
    default: break;
  }
  return 0;
}

int32_t NuvImage::Setup(int32_t channels, void* data_, int32_t width_, int32_t height_,
                        int32_t rowBytes_, int32_t rowOrder_, int32_t pixelType_) {
  if (!internal) return PLErrParameter;
  internal->Wrap(data_, width_, height_, rowBytes_, channels, NuvPixelTypeToDataType(pixelType_),
                 NuvRowOrderToFlipped(rowOrder_));
  NuvImageInternal& w = *internal;
  w.hasMatte = channels == 4 ? 1 : 0;
  w.colorSet = 1;
  w.redIndex = 0;
  if (channels == 1) {
    w.greenIndex = 0;
    w.blueIndex = 0;
    w.alphaIndex = 0;
  } else {
    w.greenIndex = 1;
    if (channels >= 3) w.blueIndex = 2;
    if (channels == 4) w.alphaIndex = 3;
  }
  Sync(rowOrder_, pixelType_);
  return 0;
}

int32_t NuvImage::SetupGray(void* d, int32_t w, int32_t h, int32_t rb, int32_t ro, int32_t pt) {
  return Setup(1, d, w, h, rb, ro, pt);
}
int32_t NuvImage::SetupTwoChannel(void* d, int32_t w, int32_t h, int32_t rb, int32_t ro, int32_t pt) {
  return Setup(2, d, w, h, rb, ro, pt);
}
int32_t NuvImage::SetupRGB(void* d, int32_t w, int32_t h, int32_t rb, int32_t ro, int32_t pt) {
  return Setup(3, d, w, h, rb, ro, pt);
}
int32_t NuvImage::SetupRGBA(void* d, int32_t w, int32_t h, int32_t rb, int32_t ro, int32_t pt) {
  return Setup(4, d, w, h, rb, ro, pt);
}

int32_t NuvImage::SetupCustom(void* d, int32_t w, int32_t h, int32_t rb, int32_t ro, int32_t pt,
                              int32_t hasMatteSelector, int32_t colorSetSelector, int32_t red,
                              int32_t green, int32_t blue, int32_t alpha) {
  if (!internal) return PLErrParameter;
  internal->Wrap(d, w, h, rb, 4, NuvPixelTypeToDataType(pt), NuvRowOrderToFlipped(ro));
  internal->hasMatte = hasMatteSelector == 1 ? 1 : 0;
  internal->colorSet = colorSetSelector == 1 ? 1 : 0;
  internal->redIndex = red;
  internal->greenIndex = green;
  internal->blueIndex = blue;
  internal->alphaIndex = alpha;
  Sync(ro, pt);
  return 0;
}

void NuvImage::Sync(int32_t rowOrder_, int32_t pixelType_) {
  if (!internal) throw PLErrParameter;
  rowOrder = rowOrder_;
  pixelType = pixelType_;
  bytesPerPixel = internal->bytesPerPixel;
  rowBytes = internal->rowBytes;
  rowStep = internal->rowStep;
  data = internal->data;
  lastColumn = internal->lastColumn;
  lastRow = internal->lastRow;
  width = internal->width;
  height = internal->height;
}

int32_t NuvImage::GetInfo(void** d, int32_t* w, int32_t* h, int32_t* rb, int32_t* ro,
                          int32_t* pt, int32_t* ch, int32_t* red, int32_t* green,
                          int32_t* blue, int32_t* alpha) const {
  if (!internal) return PLErrParameter;
  *d = internal->data;
  *w = internal->width;
  *h = internal->height;
  *rb = internal->rowBytes;
  *ro = NuvFlippedToRowOrder(internal->flipped);
  *pt = NuvDataTypeToPixelType(internal->dataType);
  *ch = internal->channels;
  *red = internal->redIndex;
  *green = internal->greenIndex;
  *blue = internal->blueIndex;
  *alpha = internal->alphaIndex;
  return 0;
}
