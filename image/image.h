// flowblur: image model umbrella.
#pragma once
#include "image/NuvImage.h"
#include "image/PLConvertImage.h"
#include "image/PLDispatch.h"
#include "image/PLImage.h"
#include "image/PLImageArith.h"
#include "image/PLImageCopy.h"
#include "image/PLPixelConvert.h"
