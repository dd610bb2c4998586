// flowblur: filtering and resampling umbrella.
#pragma once
#include "filter/PLBlend.h"
#include "filter/PLConvolveFull.h"
#include "filter/PLKernels.h"
#include "filter/PLResize.h"
#include "filter/PLSeparable.h"
