// flowblur: the filter stages' plain/wide choice, which is the library's one (runtime/).
#pragma once
#include "runtime/PLWidePath.h"
