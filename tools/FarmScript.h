// flowblur: `flowblur farm slurm`: a render split into frame chunks, written as one
// self-contained Slurm batch script with a job array (one task a chunk), and submitted.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "tools/BatchRun.h"

namespace flowblur {

struct FarmOptions {
  int64_t chunk = 0;       // frames a task, 1 or more
  std::string partition;   // empty: the cluster's default
  std::string time;        // task time limit as sbatch takes it; empty: the partition's
  std::string script;      // where the script goes; empty: OUTPUT's folder/flowblur-slurm.sh
  bool submit = false;     // run sbatch and print the job id
  int32_t threads = 0;     // --threads as given (CPUs a task); 0: not given
};

// One chunk's command line after the executable, less --frames: input and output (absolute),
// the controls and output choices of `options`, the clip fixed with --clip (so that every
// chunk numbers frames as a whole run does), and --skip-existing unless --overwrite was
// given, so that a requeued task resumes. The thread count is left to SLURM_CPUS_PER_TASK;
// --io-threads is passed on when the user gave it.
std::vector<std::string> ChunkArguments(const BatchOptions& options, const ClipSpan& clip);

// `text` as one word of a POSIX shell command line (single quotes).
std::string ShellWord(const std::string& text);

// What a Slurm script holds.
struct SlurmJob {
  std::string executable;         // absolute path of flowblur
  std::vector<std::string> args;  // ChunkArguments
  int64_t first = 0, last = 0;    // file frames rendered, inclusive
  FarmOptions farm;
  std::string logFolder;          // absolute; a log file a task
};
// Number of array tasks: chunks of farm.chunk frames from first to last.
int64_t ChunkCount(const SlurmJob& job);
// The batch script: #SBATCH lines (array over the chunks, log per task, partition, time
// limit with a warning signal, CPUs), the task's frame range from SLURM_ARRAY_TASK_ID, the
// command, and signal forwarding: USR1 (the time-limit warning) stops the command after its
// current frame and requeues the task, which then resumes with --skip-existing.
std::string SlurmScript(const SlurmJob& job);

// The whole command: settles the clip and range as a run would, refuses outputs that exist
// without --overwrite or --skip-existing, writes the script (and its log folder), and with
// `submit` runs sbatch and prints the job id on standard output. Returns an ExitCode.
int RunFarmSlurm(const BatchOptions& options, const FarmOptions& farm);

}  // namespace flowblur
