// flowblur: optical-flow umbrella.
#pragma once
#include "flow/PLFlowStages.h"
#include "flow/PLOpticalFlowUChar.h"
