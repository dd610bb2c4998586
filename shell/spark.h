// flowblur: the Spark host interface as the plug-in sees it: records, host functions,
// and the names the plug-in exports.
#pragma once
#include <cstddef>
#include <cstdint>

// The host's per-call record, handed over by value. Only the fields the plug-in uses are
// named; their byte positions belong to the host interface.
struct spark_info_struct {
  uint8_t reserved0[4116];
  int32_t FrameBytes;      // 4116: bytes of the result frame; length of every clearing
  uint8_t ControlsBypass;  // 4120: nonzero: the controls are not read
  uint8_t reserved1[3];
  int32_t FrameNo;  // 4124: the frame to produce
  uint8_t reserved2[12];
  int32_t FormatCode;  // 4140: pixel format of the frames
  uint8_t reserved3[8];
  int8_t ProcessorCount;  // 4152: host worker processors for this call
  uint8_t reserved4[103];
};
static_assert(sizeof(spark_info_struct) == 4256, "spark_info_struct is 4256 bytes");
static_assert(offsetof(spark_info_struct, FrameBytes) == 4116, "FrameBytes at 4116");
static_assert(offsetof(spark_info_struct, ControlsBypass) == 4120, "ControlsBypass at 4120");
static_assert(offsetof(spark_info_struct, FrameNo) == 4124, "FrameNo at 4124");
static_assert(offsetof(spark_info_struct, FormatCode) == 4140, "FormatCode at 4140");
static_assert(offsetof(spark_info_struct, ProcessorCount) == 4152, "ProcessorCount at 4152");

// The host's description of one frame buffer, with room for 128 bytes.
constexpr uint8_t kSparkBufferUsable = 4;  // bit of State: the buffer may be used
struct spark_mem_buf_struct {
  uint8_t reserved0[8];
  void* Buffer;  // 8: first pixel
  uint8_t State;  // 16: flags
  uint8_t reserved1[11];
  int32_t Width;       // 28
  int32_t Height;      // 32
  int32_t FormatCode;  // 36
  int32_t Stride;      // 40: bytes from one row to the next
  uint8_t reserved2[84];
};
static_assert(sizeof(spark_mem_buf_struct) == 128, "spark_mem_buf_struct has room for 128 bytes");
static_assert(offsetof(spark_mem_buf_struct, Buffer) == 8, "Buffer at 8");
static_assert(offsetof(spark_mem_buf_struct, State) == 16, "State at 16");
static_assert(offsetof(spark_mem_buf_struct, Width) == 28, "Width at 28");
static_assert(offsetof(spark_mem_buf_struct, Height) == 32, "Height at 32");
static_assert(offsetof(spark_mem_buf_struct, FormatCode) == 36, "FormatCode at 36");
static_assert(offsetof(spark_mem_buf_struct, Stride) == 40, "Stride at 40");

// A function the host runs once on each of its processors.
typedef void (*SparkMpWorker)(void* arg);

extern "C" {
// Host functions: only the host defines them.
float sparkAPIVersionInfo(void);
void sparkError(const char* text);
void sparkLoadSetup(spark_info_struct* info);
void sparkSaveSetup(spark_info_struct* info);
int sparkMemRegisterBuffer(void);
int sparkMemGetBuffer(int id, spark_mem_buf_struct* record);  // nonzero on success
int sparkGetFrame(int clip, int frame, void* pixels);         // clip 0 front, 1 back
void sparkCursorBusy(void);
void sparkMessage(const char* text);
void sparkViewingDraw(void);
// Runs worker(arg) on every host processor and returns when all have ended. `nargs` is 1.
void sparkMpFork(SparkMpWorker worker, int nargs, void* arg);
// Inside a worker: this processor's first frame pixel and pixel count.
void sparkMpInfo(uint64_t* offset, uint64_t* count);

// Frame size of the call in progress, written by SparkProcess before any worker runs.
extern int32_t Width;
extern int32_t Height;
// Width x Height multiplied in 32 bits, then sign-extended.
int64_t NuvMPSparkGetNumberOfFramePixels(void);
}
