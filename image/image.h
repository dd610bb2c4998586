// flowblur: image model umbrella.
#pragma once
#include "image/NuvImage.h"
#include "image/PLDispatch.h"
#include "image/PLImage.h"
#include "image/PLPixelConvert.h"
