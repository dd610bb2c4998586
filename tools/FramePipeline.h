// flowblur: file I/O beside the plug-in: the frames a render loop needs next are decoded, and
// the frames it has finished are encoded and written, on a few I/O threads while the loop's
// own thread runs the plug-in.
#pragma once
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/FramePlan.h"
#include "tools/ImageFiles.h"

namespace flowblur {

// Rules of the pipeline:
// - The render loop's thread (the host thread) alone calls the plug-in, takes decoded frames
//   (Take) and queues finished ones (Write); I/O threads only run the read and write jobs
//   given to them, which must not touch the plug-in, the host simulator or the frame cache.
// - Reads are started in the order the caller lists them (a plan's DistinctReads), at most
//   `readAhead` decoded frames waiting to be taken. Writes wait while `writeBehind` are queued
//   or under way. So beside what the loop holds itself, the pipeline holds at most
//   readAhead + writeBehind frames, however long the run.
// - Results come back in order: Take hands out the frame asked for, Retire the oldest
//   write's outcome, whatever order the threads finished in.
// - A lane marked serial (a movie decodes and encodes frame after frame) runs one job at a
//   time, in the order given.
// - With 0 threads nothing runs in the background: Take reads on the calling thread and
//   Write writes there, in turn, as a loop without a pipeline would.
// - I/O threads block the stop signals (SIGINT, SIGTERM, SIGUSR1), so that those reach the
//   host thread, which decides when to stop.
struct PipelineSettings {
  int32_t threads = 2;      // I/O threads, 0 to kMaxIoThreads
  int32_t readAhead = 2;    // decoded frames waiting to be taken, at least 1
  int32_t writeBehind = 2;  // finished frames queued or being written, at least 1
  bool serialReads = false;
  bool serialWrites = false;
};
constexpr int32_t kMaxIoThreads = 64;

// The settings --io-threads N gives: N threads, N frames decoded ahead, N frames written
// behind (at least one each).
PipelineSettings PipelineFor(int32_t ioThreads);

class FramePipeline {
 public:
  // Reads one frame; false with a message on failure. Runs on an I/O thread.
  using ReadJob = std::function<bool(const FrameRead& read, Frame* frame, std::string* error)>;
  // Encodes and writes one finished frame; false with a message on failure. Runs on an I/O
  // thread and owns what it captured.
  using WriteJob = std::function<bool(std::string* error)>;

  // `reads`: every frame the run reads, once each, in the order of first use.
  FramePipeline(const PipelineSettings& settings, std::vector<FrameRead> reads, ReadJob read);
  // Stops the reads not yet started, waits for every job under way (queued writes included:
  // Drain first to see their outcomes) and ends the threads.
  ~FramePipeline();
  FramePipeline(const FramePipeline&) = delete;
  FramePipeline& operator=(const FramePipeline&) = delete;

  // The frame of `read`, waiting for it when it is not decoded yet; false with the read's
  // message when it failed. A read that was taken before, or is not among `reads` (a frame a
  // cache let go and needs again), is read on the calling thread.
  bool Take(const FrameRead& read, Frame* frame, std::string* error);

  // Queues a write; waits while writeBehind writes are queued or under way. Returns its
  // number: writes are numbered 0, 1, 2 ... in the order queued.
  int64_t Write(WriteJob job);
  // The outcome of the oldest write not yet retired: its number, and false with its message
  // when it failed. With `wait`, waits for it to end; without, false when it has not ended
  // (or no write is outstanding). Returns whether an outcome was given.
  struct Outcome {
    int64_t number = -1;
    bool ok = false;
    std::string error;
  };
  bool Retire(bool wait, Outcome* outcome);
  // Writes not yet retired.
  int64_t Outstanding() const;
  // After a failed write: the writes queued and not started are dropped (each is retired as
  // failed with "not written: an earlier write failed"), so that a full disk is not tried
  // again frame after frame.
  void CancelQueuedWrites();

 private:
  enum Lane : int32_t { kReadLane = 0, kWriteLane = 1 };
  struct Job {
    Lane lane;
    int64_t index;  // a read's place in reads_, or a write's number
  };
  struct ReadSlot {
    enum State { kIdle, kQueued, kRunning, kDone, kTaken } state = kIdle;
    Frame frame;
    bool ok = false;
    std::string error;
  };
  struct WriteSlot {
    WriteJob job;
    bool started = false, done = false, ok = false;
    std::string error;
  };

  void Work();
  void RunJob(const Job& job, std::unique_lock<std::mutex>& lock);
  void IssueReads();  // with mu_ held
  bool Runnable(const Job& job) const;
  bool SerialLane(Lane lane) const;
  // A read on the calling thread, one at a time with the lane's jobs when it is serial.
  bool ReadHere(const FrameRead& read, Frame* frame, std::string* error);

  const PipelineSettings settings_;
  const std::vector<FrameRead> reads_;
  const ReadJob read_;
  std::map<FrameRead, size_t> place_;  // each read's place in reads_

  mutable std::mutex mu_;
  std::condition_variable workCv_;  // a job is queued, or the pipeline ends
  std::condition_variable doneCv_;  // a job has ended
  std::deque<Job> queue_;
  std::vector<ReadSlot> readSlots_;
  size_t nextRead_ = 0;     // the first read not yet queued
  int64_t readsWaiting_ = 0;  // queued, running or done, not taken
  std::deque<WriteSlot> writes_;  // from number retired_ on
  int64_t retired_ = 0;
  int64_t writesPending_ = 0;  // queued or under way
  bool laneBusy_[2] = {false, false};
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace flowblur
