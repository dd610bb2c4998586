// flowblur: Slurm batch scripts for chunked renders, and their submission.
#include "tools/FarmScript.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "tools/Messages.h"

extern char** environ;

namespace flowblur {
namespace {

std::string Absolute(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char here[PATH_MAX];
  if (!getcwd(here, sizeof here)) return path;
  return std::string(here) + "/" + (path.compare(0, 2, "./") == 0 ? path.substr(2) : path);
}

std::string Executable() {
  char path[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return "flowblur";
  path[length] = '\0';
  return path;
}

std::string FolderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// The script under a temporary name first, so that a failed write leaves no half script.
bool WriteTextFile(const std::string& path, const std::string& text, std::string* error) {
  const std::string temp = path + ".partial-" + std::to_string(getpid());
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0755);
  bool ok = fd >= 0;
  size_t done = 0;
  while (ok && done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
  }
  const int saved = errno;
  if (fd >= 0 && close(fd) != 0) ok = false;
  if (ok && rename(temp.c_str(), path.c_str()) == 0) return true;
  *error = "cannot write '" + path + "': " + std::strerror(ok ? errno : saved);
  unlink(temp.c_str());
  return false;
}

// Runs sbatch --parsable on the script; its answer is "jobid" or "jobid;cluster".
bool Submit(const std::string& script, std::string* jobId, std::string* error) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) {
    *error = std::string("cannot run sbatch: ") + std::strerror(errno);
    return false;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
  std::string program = "sbatch", parsable = "--parsable";
  char* argv[] = {program.data(), parsable.data(), const_cast<char*>(script.c_str()), nullptr};
  pid_t child;
  int spawned = posix_spawnp(&child, "sbatch", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  if (spawned != 0) {
    close(pipeFds[0]);
    *error = std::string("cannot run sbatch (is slurm-client installed?): ") +
             std::strerror(spawned);
    return false;
  }
  std::string answer;
  char buffer[256];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    answer.append(buffer, static_cast<size_t>(n));
  }
  close(pipeFds[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  *jobId = answer.substr(0, answer.find_first_of(";\n"));
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || jobId->empty()) {
    *error = "sbatch refused the job (its own message is above)";
    return false;
  }
  return true;
}

}  // namespace

std::string ShellWord(const std::string& text) {
  std::string word = "'";
  for (char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

std::vector<std::string> ChunkArguments(const BatchOptions& options, const ClipSpan& clip) {
  std::vector<std::string> args = {Absolute(options.input), Absolute(options.output)};
  char amount[32];
  // Nine significant digits give the same float back.
  std::snprintf(amount, sizeof amount, "%.9g", static_cast<double>(options.controls.amount));
  args.insert(args.end(), {"--amount", amount, "--quality",
                           options.controls.quality == 1 ? "draft" : "best"});
  if (!options.motionFrom.empty()) args.insert(args.end(), {"--motion-from", Absolute(options.motionFrom)});
  // Every task blurs in the same light as the rest.
  if (options.colour.mode == ColourChoice::Mode::kNone)
    args.insert(args.end(), {"--colorspace", "none"});
  else if (options.colour.mode == ColourChoice::Mode::kNamed)
    args.insert(args.end(), {"--colorspace", options.colour.name});
  // The node's own default (half its cores) unless the user chose the split.
  if (options.haveIoThreads)
    args.insert(args.end(), {"--io-threads", std::to_string(options.ioThreads)});
  if (options.haveOutDepth) args.insert(args.end(), {"--out-depth", DepthName(options.outDepth)});
  if (!options.writing.compression.empty())
    args.insert(args.end(), {"--compression", options.writing.compression});
  args.push_back(options.overwrite ? "--overwrite" : "--skip-existing");
  if (options.quiet) args.push_back("--quiet");
  if (!options.flowFolder.empty()) {
    args.insert(args.end(), {"--write-flow", Absolute(options.flowFolder)});
    if (options.flowExr) args.push_back("--write-flow-exr");
  }
  args.insert(args.end(),
              {"--clip", std::to_string(clip.first) + "-" + std::to_string(clip.Last())});
  return args;
}

int64_t ChunkCount(const SlurmJob& job) {
  return (job.last - job.first + job.farm.chunk) / job.farm.chunk;
}

std::string SlurmScript(const SlurmJob& job) {
  std::string s = "#!/bin/bash\n";
  s += "# flowblur: frames " + std::to_string(job.first) + " to " + std::to_string(job.last) +
       " in chunks of " + std::to_string(job.farm.chunk) +
       ", one array task a chunk. Submit with: sbatch " + ShellWord(job.farm.script) + "\n";
  s += "#SBATCH --job-name=flowblur\n";
  s += "#SBATCH --array=0-" + std::to_string(ChunkCount(job) - 1) + "\n";
  s += "#SBATCH --output=" + job.logFolder + "/flowblur-%A_%a.log\n";
  if (job.farm.threads > 0)
    s += "#SBATCH --cpus-per-task=" + std::to_string(job.farm.threads) + "\n";
  if (!job.farm.partition.empty()) s += "#SBATCH --partition=" + job.farm.partition + "\n";
  if (!job.farm.time.empty()) {
    s += "#SBATCH --time=" + job.farm.time + "\n";
    // Two minutes' warning before the limit: the task finishes its frame and is requeued.
    s += "#SBATCH --signal=B:USR1@120\n";
  }
  s += "#SBATCH --requeue\n";
  s += "set -u\n";
  s += "chunk=" + std::to_string(job.farm.chunk) + "\n";
  s += "first=$(( " + std::to_string(job.first) + " + SLURM_ARRAY_TASK_ID * chunk ))\n";
  s += "# The last chunk may run past the last frame; flowblur clamps it to the clip.\n";
  s += "last=$(( first + chunk - 1 ))\n";
  s += "requeue=0\n";
  s += ShellWord(job.executable);
  for (const std::string& arg : job.args) s += " " + ShellWord(arg);
  s += " --frames \"$first-$last\" &\n";
  s += "pid=$!\n";
  s += "trap 'requeue=1; kill -USR1 \"$pid\" 2>/dev/null' USR1\n";
  s += "trap 'kill -TERM \"$pid\" 2>/dev/null' TERM\n";
  s += "# A trapped signal ends wait early: wait again until flowblur has finished its frame.\n";
  s += "while kill -0 \"$pid\" 2>/dev/null; do wait \"$pid\"; done\n";
  s += "wait \"$pid\"; code=$?\n";
  s += "if [ \"$code\" -eq " + std::to_string(kExitStopped) +
       " ] && [ \"$requeue\" -eq 1 ]; then\n";
  s += "  scontrol requeue \"${SLURM_ARRAY_JOB_ID}_${SLURM_ARRAY_TASK_ID}\"\n";
  s += "fi\n";
  s += "exit \"$code\"\n";
  return s;
}

int RunFarmSlurm(const BatchOptions& options, const FarmOptions& farm) {
  if (farm.chunk < 1) {
    Say("--chunk must be 1 or more frames");
    return kExitUsage;
  }
  RunRange range;
  int code = ResolveRunRange(options, &range);
  if (code != kExitOk) return code;
  if (!range.input.numbered || !range.output.numbered) {
    Say("a farm render needs numbered input and output sequences (name.%04d.ext or name.####.ext)");
    return kExitUsage;
  }
  if (!options.overwrite && !options.skipExisting)
    for (int64_t f = range.first; f <= range.last; ++f) {
      std::string path = range.output.PathFor(f);
      if (access(path.c_str(), F_OK) == 0) {
        Say("output '" + path +
            "' exists; use --overwrite to replace it or --skip-existing to keep it");
        return kExitOutput;
      }
    }
  SlurmJob job;
  job.executable = Executable();
  job.args = ChunkArguments(options, range.clip);
  job.first = range.first;
  job.last = range.last;
  job.farm = farm;
  job.farm.script =
      Absolute(farm.script.empty() ? range.output.Folder() + "/flowblur-slurm.sh" : farm.script);
  job.logFolder = FolderOf(job.farm.script) + "/logs";
  std::string error;
  if (!PrepareOutputFolder(job.logFolder, &error) ||
      !WriteTextFile(job.farm.script, SlurmScript(job), &error)) {
    Say(error);
    return kExitOutput;
  }
  const int64_t tasks = ChunkCount(job);
  if (!options.quiet)
    Say("wrote " + job.farm.script + ": " + std::to_string(tasks) + (tasks == 1 ? " task" : " tasks") +
        " for frames " + std::to_string(job.first) + " to " + std::to_string(job.last) +
        ", logs in " + job.logFolder);
  if (!farm.submit) return kExitOk;
  std::string jobId;
  if (!Submit(job.farm.script, &jobId, &error)) {
    Say(error);
    return kExitUsage;
  }
  std::printf("%s\n", jobId.c_str());
  return kExitOk;
}

}  // namespace flowblur
