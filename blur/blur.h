// flowblur: motion blur umbrella.
#pragma once
#include "blur/PLMotionBlur.h"
