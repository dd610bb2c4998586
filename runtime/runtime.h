// flowblur: runtime support umbrella: allocation, errors, fork-join, progress.
#pragma once
#include "runtime/NuvMP.h"
#include "runtime/NuvMem.h"
#include "runtime/NuvProgress.h"
#include "runtime/PLErr.h"
