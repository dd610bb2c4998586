// flowblur: the exported controls and the thin entry points the host calls around frames.
#include "shell/SparkDriver.h"
#include "shell/spark.h"

extern "C" {
SparkFloatControl SparkFloat0 = {0.5f, -2.0f, 10.0f, 0.05f, {}, "Amount of Blur %5.2f", nullptr};
SparkPupControl SparkPup1 = {0, 2, nullptr, {"Best Quality", "Draft Quality"}};
SparkBooleanControl SparkBoolean2 = {0, {}, "Motion From Back", nullptr};

int SparkInitialise(spark_info_struct info) {
  // An old host is told once and carries on; an unordered answer counts as new enough.
  float version = sparkAPIVersionInfo();
  if (version < 4.0f) sparkError("The version doesn't support this plug-in");
  sparkLoadSetup(&info);
  return 1;
}

void SparkUnInitialise(spark_info_struct info) { sparkSaveSetup(&info); }

int SparkClips(void) { return 2; }

void SparkMemoryTempBuffers(void) { TempBufferId = sparkMemRegisterBuffer(); }

bool SparkIsInputFormatSupported(int format) {
  switch (format) {
    case 24:
    case 25:
    case 48:
    case 49:
    case 64:
      return true;
    default:
      return false;
  }
}

int SparkProcessStart(void) { return 1; }

void* sparkCallback(int reason, spark_info_struct info) {
  if (reason != 1) return nullptr;
  spark_info_struct copy = info;
  void* result = SparkProcess(copy);
  sparkViewingDraw();
  return result;
}
}
