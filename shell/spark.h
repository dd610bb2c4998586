// flowblur: the Spark host interface as the plug-in sees it: records, host functions,
// and the names the plug-in exports.
#pragma once
#include <cstddef>
#include <cstdint>

// Rules for this folder:
// - The shell is the only code the host calls. Nothing thrown may leave it: the flow and
//   render calls (SparkFlowCalls.h) turn every PLErr into a return code, and SparkProcess
//   turns the codes into messages.
// - Byte positions of every record below belong to the host interface; each is checked
//   at compile time.
// - The driver's buffer records, Width and Height are static and overwritten per frame:
//   SparkProcess is not re-entrant.
// - Frame-sized working copies use malloc/free; library objects use the library allocator.
// - The shared object exports exactly the extern "C" names declared under "Exported" below
//   (see flowblur_spark.map); everything else stays inside it.

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
  void* Buffer;   // 8: first pixel
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

// ---- Control records: exported data the host finds by name and reads and writes. ----

// A numeric control. The title holds a print conversion the host fills with the value.
struct SparkFloatControl {
  float value;      // 0
  float minimum;    // 4
  float maximum;    // 8
  float increment;  // 12
  uint8_t reserved0[8];
  const char* title;  // 24
  void* reserved1;    // 32
};
static_assert(sizeof(SparkFloatControl) == 40, "SparkFloatControl is 40 bytes");
static_assert(offsetof(SparkFloatControl, value) == 0, "value at 0");
static_assert(offsetof(SparkFloatControl, minimum) == 4, "minimum at 4");
static_assert(offsetof(SparkFloatControl, maximum) == 8, "maximum at 8");
static_assert(offsetof(SparkFloatControl, increment) == 12, "increment at 12");
static_assert(offsetof(SparkFloatControl, reserved0) == 16, "reserved at 16");
static_assert(offsetof(SparkFloatControl, title) == 24, "title at 24");
static_assert(offsetof(SparkFloatControl, reserved1) == 32, "reserved pointer at 32");

// A pop-up choice: value is the index of the chosen title.
constexpr int32_t kSparkPupTitles = 20;
struct SparkPupControl {
  int32_t value;                        // 0
  int32_t count;                        // 4
  void* reserved;                       // 8
  const char* titles[kSparkPupTitles];  // 16
};
static_assert(sizeof(SparkPupControl) == 176, "SparkPupControl is 176 bytes");
static_assert(offsetof(SparkPupControl, value) == 0, "value at 0");
static_assert(offsetof(SparkPupControl, count) == 4, "count at 4");
static_assert(offsetof(SparkPupControl, reserved) == 8, "reserved at 8");
static_assert(offsetof(SparkPupControl, titles) == 16, "titles at 16");

// An on/off switch.
struct SparkBooleanControl {
  uint8_t value;  // 0
  uint8_t reserved0[7];
  const char* title;  // 8
  void* reserved1;    // 16
};
static_assert(sizeof(SparkBooleanControl) == 24, "SparkBooleanControl is 24 bytes");
static_assert(offsetof(SparkBooleanControl, value) == 0, "value at 0");
static_assert(offsetof(SparkBooleanControl, reserved0) == 1, "reserved at 1");
static_assert(offsetof(SparkBooleanControl, title) == 8, "title at 8");
static_assert(offsetof(SparkBooleanControl, reserved1) == 16, "reserved pointer at 16");

// ---- Exported: the names the host looks up in the shared object. ----
extern "C" {
// Controls. Initial contents: amount 0.5 in -2..10 by 0.05; Best (0) or Draft (1) quality;
// motion from the front clip (0) or the back clip (1).
extern SparkFloatControl SparkFloat0;      // "Amount of Blur %5.2f"
extern SparkPupControl SparkPup1;          // "Best Quality", "Draft Quality"
extern SparkBooleanControl SparkBoolean2;  // "Motion From Back"

// Entry points, in the order the host uses them.
// Version test (a host below 4.0 gets one error message and goes on), then restores the
// saved controls. Always 1.
int SparkInitialise(spark_info_struct info);
// Saves the controls.
void SparkUnInitialise(spark_info_struct info);
// Two clips: front and back. Always 2.
int SparkClips(void);
// Reserves the temporary frame buffer that holds the neighbouring frame.
void SparkMemoryTempBuffers(void);
// True for 24, 25 (8-bit), 48, 64 (16-bit) and 49 (half float).
bool SparkIsInputFormatSupported(int format);
// Always 1.
int SparkProcessStart(void);
// One output frame (SparkDriver.h tells the steps): the result buffer, or null when there
// is nothing to show. Non-null does not mean success: after a flow or render failure the
// result comes back cleared.
void* SparkProcess(spark_info_struct info);
// Reason 1: SparkProcess on a copy of info, then a viewer redraw, and its result. Any
// other reason: nothing, null.
void* sparkCallback(int reason, spark_info_struct info);

// Packing between host frames and working buffers (SparkPack.h). Each stores its pointers
// in the shell's statics, runs its worker on every host processor and returns 1. No row
// padding: offsets are pixel numbers.
int sparkCombineBuffers(spark_info_struct info, void* destination, void* frame, void* matte);
int sparkUnCombineBuffers(spark_info_struct info, void* frame, void* source);
int sparkCombine16FBuffers(spark_info_struct info, void* destination, void* frame);
void sparkCombineBuffers_mp(spark_info_struct* info);
void sparkUnCombineBuffers_mp(spark_info_struct* info);
void sparkCombine16FBuffers_mp(spark_info_struct* info);
}
