// flowblur: the plug-in shell's public headers in one.
#pragma once
#include "shell/SparkDriver.h"
#include "shell/SparkFlowCalls.h"
#include "shell/SparkPack.h"
#include "shell/spark.h"
