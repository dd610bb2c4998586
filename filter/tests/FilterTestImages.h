// flowblur test support for the filter folder: the shared image kit under its old name.
#pragma once
#include "tests/support/PLTestImages.h"

namespace filtertest {
using namespace pltest;
}  // namespace filtertest
