// flowblur: a Spark host simulator, for tests and the batch host.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "shell/spark.h"

// Rules for this folder:
// - One simulated host per process, as with a real host: its state is global. Tests
//   configure it from the calling thread between plug-in calls and call Reset() first.
// - The twelve host functions of shell/spark.h are defined here with C linkage and behave
//   as a real host's would; everything configurable lives in namespace sparkhost.
// - Configuration calls (SetClip, SetBuffer, Reset) may reallocate pixel blocks: a pointer
//   taken from an earlier record is invalid afterwards.
// - Workers may call sparkMpInfo, sparkMessage, sparkError and the readers below; all
//   other calls belong to the thread that calls the plug-in.
// - Misuse of a host function by the plug-in is not fatal: the simulator does what a
//   forgiving host would, returns failure where the function has a result, and writes a
//   line to HostLog() so that a test can see it. Misuse of the configuration API by a
//   test throws std::invalid_argument.

// What the host functions do here:
// - sparkAPIVersionInfo: the version set by SetAPIVersion (4.0 by default).
// - sparkError, sparkMessage: recorded in order in Notes() (a null text as "").
// - sparkCursorBusy, sparkViewingDraw: counted.
// - sparkLoadSetup, sparkSaveSetup: restore and save the registered setup values, and
//   record the address given and the record's contents (see SetupCalls()).
// - sparkMemRegisterBuffer: returns the next id, 4 first; the buffer follows the front clip.
// - sparkMemGetBuffer(id, record): for ids 1, 2, 3 and registered ids, zeroes the 128-byte
//   record, fills Buffer, State (usable bit 4), Width, Height, FormatCode and Stride,
//   remembers the record's address and returns 1. An unknown id or a null record returns
//   0 and leaves the record alone.
// - sparkGetFrame(clip, frame, pixels): copies the frame (stored, or fetched from the
//   clip's FrameSource) row by row at the clip's stride (each row's padding in `pixels` is
//   left alone) and returns 1. A frame number outside the clip is clamped to its first or
//   last frame, as hosts do at clip ends, and a HostLog() line says so. An unknown clip, a
//   clip without frames, null pixels, pixels inside a host block too near its end for the
//   frame, or a source that cannot deliver copy nothing and return 0.
// - sparkMpFork(worker, 1, arg): runs worker(arg) once on each of Processors() real
//   threads (never the caller's) and returns when all have ended. An exception that
//   leaves a worker is caught there, written to HostLog() after the join, and the one
//   from the lowest-numbered processor is rethrown on the calling thread. The threads are
//   the host's processors and outlive the fork: started by the first fork after the
//   count is set, reused by every later fork, ended by Reset(), by a new count, or at
//   the end of the process. A fork from inside a worker (also logged), or from another
//   thread while a fork runs, gets threads of its own for that fork instead of waiting.
// - sparkMpInfo(offset, count): inside a worker, processor k of P gets offset k x share
//   and count share, the last processor share plus the remainder, share being
//   FramePixels() / P at the time of the fork. Outside a worker: 0 and 0, and a line.

namespace sparkhost {

// ---- Processors and the frame that sparkMpInfo divides among them

// Host processors for sparkMpFork, 1 included; 0 or less acts as 1.
void SetProcessors(int32_t processors);
int32_t Processors();

// The frame pixel count that sparkMpInfo divides among the processors when no result
// buffer is configured. A real host divides its result frame, and the plug-in divides
// the result record's Width x Height, so once the result buffer has a non-empty layout
// (its own or the front clip's) that count wins and the plug-in's fork stays in step
// with the host whatever order a test configures things in. A negative count acts as 0.
void SetFramePixels(int64_t pixels);
// For tests that put host and plug-in out of step on purpose: this count is divided
// whatever the result buffer says. A negative value withdraws it.
void ForceFramePixels(int64_t pixels);
// The count that the next sparkMpFork divides.
int64_t FramePixels();

// ---- Frame layouts

// Three channels a pixel, in one of the formats below; rows `stride` bytes apart.
struct FrameLayout {
  int32_t width = 0;
  int32_t height = 0;
  int32_t formatCode = 24;  // 24, 25: 8-bit; 48, 64: 16-bit; 49: half float
  int32_t stride = 0;       // bytes from one row to the next; 0: packed rows
};
// Bytes a pixel takes in a host buffer: 3 for 24 and 25, 6 for 48, 49 and 64. A code the
// host cannot interpret is stored as 6 bytes a pixel, so that nothing is under-allocated.
int32_t BytesPerPixel(int32_t formatCode);
// The layout's stride, or width x bytes per pixel for packed rows.
int64_t RowBytes(const FrameLayout& layout);
// Bytes of one frame: row bytes x height.
int64_t FrameBytes(const FrameLayout& layout);

// Sample `c` (0 to 2) of pixel (x, y) in a block of this layout: a byte for formats 24 and
// 25, a 16-bit word (the bits of a half for 49) for all others. Rows go top to bottom.
uint32_t Sample(const void* block, const FrameLayout& layout, int32_t x, int32_t y, int32_t c);
void SetSample(void* block, const FrameLayout& layout, int32_t x, int32_t y, int32_t c,
               uint32_t value);

// ---- Clips: front = clip 0, back = clip 1

// Clip `clip` becomes `frames` frames of `layout`, all bytes 0 (row padding included).
// The buffers that follow the clip take its layout (see Buffers).
void SetClip(int32_t clip, const FrameLayout& layout, int32_t frames);
FrameLayout ClipLayout(int32_t clip);
int32_t ClipFrames(int32_t clip);  // 0 when the clip is not configured
// The stored bytes of one frame, FrameBytes(ClipLayout(clip)) of them, writable; the
// padding of each row is stored too and never copied out. Throws for a frame outside, and
// for a clip served by a FrameSource.
uint8_t* ClipFrame(int32_t clip, int32_t frame);
// Copies FrameBytes(ClipLayout(clip)) bytes from `bytes` into the frame.
void SetClipFrame(int32_t clip, int32_t frame, const void* bytes);

// A clip whose frames the host fetches when they are asked for, as a host streams a long
// clip from its disk instead of holding it: the source returns frame `frame` (already
// clamped to the clip) as FrameBytes(layout) bytes of this layout, valid until the next
// call of the source, or null when it cannot. sparkGetFrame and BeginFrame call it (on the
// thread that calls them, with the simulator locked: it must not call the simulator) and
// copy from what it returns as from a stored frame; a null return copies nothing,
// sparkGetFrame returns 0 and a HostLog() line says so. Such a clip stores no frames:
// ClipFrame and SetClipFrame throw for it. SetClip makes the clip a stored one again.
using FrameSource = std::function<const void*(int32_t frame)>;
void SetClipSource(int32_t clip, const FrameLayout& layout, int32_t frames, FrameSource source);

// ---- Buffers: result (1), front (2), back (3), registered temporary buffers (4 on)

constexpr int32_t kResultBuffer = 1;
constexpr int32_t kFrontBuffer = 2;
constexpr int32_t kBackBuffer = 3;
constexpr int32_t kFirstTempBuffer = 4;

// Until a test gives a buffer its own layout, the front, result and temporary buffers
// follow the front clip's layout and the back buffer the back clip's. Every block holds
// at least the largest frame of any clip, as a host sizes its buffers for the largest
// frame, so a frame of either clip loaded into any buffer, or a result written at the
// clip's size, stays inside the block whatever size the record reports.
void SetBuffer(int32_t id, const FrameLayout& layout);  // 1, 2, 3 or a registered id
FrameLayout BufferLayout(int32_t id);
// The buffer's block; null while its layout is empty (a record then carries a null Buffer).
uint8_t* BufferPixels(int32_t id);
int64_t BufferCapacity(int32_t id);  // bytes in the block
// Registered temporary buffers so far; their ids are 4 to 3 + this count.
int32_t RegisteredBuffers();

// The host's per-frame step before it calls the plug-in: loads frame `frameNo` of the
// front clip into the front buffer and of the back clip into the back buffer (frames
// clamped as in sparkGetFrame; a clip without frames leaves its buffer alone) and returns
// the record for the call: all zero but FrameBytes (the result buffer's frame bytes),
// FrameNo, FormatCode (the front buffer's) and ProcessorCount (Processors(), at most 127).
// Not counted among the sparkGetFrame calls.
spark_info_struct BeginFrame(int32_t frameNo);

// ---- Guarded buffers, for hosts that test the plug-in's writes

// With guards on, every buffer's block is exactly the Stride x Height bytes its record
// describes (its own layout, not the largest frame), between two guard zones of
// kGuardBytes; guards and row padding hold a pattern, pixels start at 0. Under
// AddressSanitizer the guards are also poisoned, so any read or write there stops at once.
// Frames are copied into a guarded buffer (by sparkGetFrame and BeginFrame) only when the
// clip has the buffer's stride and bytes per pixel and fits; otherwise nothing is copied,
// sparkGetFrame returns 0 and a HostLog() line says why. In this mode SetBuffer also takes
// strides shorter than a row, for records that lie about their rows. Off by default and
// after Reset(); switching rebuilds every block.
constexpr int64_t kGuardBytes = 64;
void SetGuardedBuffers(bool on);
bool GuardedBuffers();
// Damage found in the guard zones and row padding of every guarded buffer, one line each
// (empty when all is intact). The result buffer's padding may be zero below
// `resultClearedBytes` (a clearing of FrameBytes bytes covers the padding between rows).
// Call between plug-in calls.
std::vector<std::string> GuardDamage(int64_t resultClearedBytes);

// ---- Failure injection, per buffer id; all withdrawn by Reset() or ClearInjections()

// sparkMemGetBuffer(id) returns 0 and leaves the record untouched.
void FailGetBuffer(int32_t id);
// sparkMemGetBuffer(id) fills the record with the usable bit (4) of State clear.
void ClearUsableBit(int32_t id);
// sparkMemGetBuffer(id) fills the record with a null Buffer.
void NullBufferPointer(int32_t id);
// A host that revokes a buffer while it loads a frame: after each sparkGetFrame (its copy
// done), the host writes null into the Buffer field of the record it last filled for
// `id`, i.e. the record whose address the plug-in last passed to sparkMemGetBuffer(id).
// The plug-in sees it when it reads that record again. The record must still be alive;
// when none was filled yet, only a HostLog() line is written.
void NullBufferOnGetFrame(int32_t id);
void ClearInjections();

// ---- What the plug-in did

struct Note {
  enum Kind { kMessage, kError };
  Kind kind;
  std::string text;
  bool operator==(const Note& other) const { return kind == other.kind && text == other.text; }
};
// sparkMessage and sparkError texts, in the order they came.
std::vector<Note> Notes();
// The simulator's own lines, in order: clamped frames, refused calls, worker exceptions.
std::vector<std::string> HostLog();

struct GetFrameCall {
  int32_t clip;
  int32_t frame;      // as asked
  int32_t delivered;  // the frame copied, after clamping; -1 when nothing was copied
  void* pixels;
  int result;
};
std::vector<GetFrameCall> GetFrameCalls();
std::vector<int32_t> GetBufferCalls();  // ids, in order

struct Counts {
  int64_t apiVersion = 0;
  int64_t cursorBusy = 0;
  int64_t viewingDraw = 0;
  int64_t loadSetup = 0;
  int64_t saveSetup = 0;
  int64_t registerBuffer = 0;
  int64_t getBuffer = 0;
  int64_t getFrame = 0;
  int64_t message = 0;
  int64_t error = 0;
  int64_t mpFork = 0;
  int64_t mpInfo = 0;  // calls from inside workers and outside alike
};
Counts Calls();

// ---- Interface version and setups

// What sparkAPIVersionInfo returns; 4.0 by default.
void SetAPIVersion(float version);

// A control value that the host saves and restores, found by name as a host finds the
// plug-in's exported controls: `bytes` bytes at `address`.
void AddSetupValue(const std::string& name, void* address, size_t bytes);
// sparkSaveSetup copies every registered value into the saved setup; sparkLoadSetup
// writes back those present in it (a fresh host has none, so a first load changes
// nothing) and leaves the others alone.
std::map<std::string, std::vector<uint8_t>> SavedSetup();
void SetSavedSetup(const std::map<std::string, std::vector<uint8_t>>& setup);

struct SetupCall {
  bool save;                      // sparkSaveSetup, else sparkLoadSetup
  const spark_info_struct* info;  // the address given
  spark_info_struct copy;         // its contents then; all zero for a null address
};
std::vector<SetupCall> SetupCalls();

// Everything back to defaults: 1 processor, no frame pixels, no clips, no buffer layouts,
// no registered buffers (the next id is 4 again), no injections, no records, version 4.0,
// no setup values. Ends the processor threads (see sparkMpFork).
void Reset();

}  // namespace sparkhost
