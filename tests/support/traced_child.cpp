#include "tests/support/traced_child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <map>
#include <optional>

namespace orb::test {
namespace {

constexpr int kSyscallStop = SIGTRAP | 0x80;

struct CallKind {
  long number;
  const char* name;
  int path_argument;  // Of a string; -1: argument 0 is a descriptor.
};

const CallKind kKinds[] = {
    {SYS_openat, "open", 1},
    {SYS_write, "write", -1},
    {SYS_pwrite64, "write", -1},
    {SYS_writev, "write", -1},
    {SYS_fsync, "fsync", -1},
    {SYS_fdatasync, "fsync", -1},
    {SYS_ftruncate, "ftruncate", -1},
    {SYS_close, "close", -1},
    {SYS_unlinkat, "unlink", 1},
    {SYS_renameat2, "rename", 1},
#ifdef SYS_unlink
    {SYS_open, "open", 0},
    {SYS_unlink, "unlink", 0},
    {SYS_rename, "rename", 0},
    {SYS_renameat, "rename", 1},
#endif
};

std::string LinkOf(pid_t pid, uint64_t fd) {
  const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
  char path[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), path, sizeof path);
  return length < 0 ? "" : std::string(path, static_cast<size_t>(length));
}

std::string StringOf(pid_t pid, uint64_t address) {
  char text[512] = {};
  const iovec here{text, sizeof text - 1};
  const iovec there{reinterpret_cast<void*>(address), sizeof text - 1};
  process_vm_readv(pid, &here, 1, &there, 1, 0);
  return text;
}

class Tracer {
 public:
  Tracer(pid_t child, const std::string& prefix, size_t nth, KillAt when)
      : child_(child), prefix_(prefix), nth_(nth), when_(when) {}

  TraceResult Run() {
    int status = 0;
    if (waitpid(child_, &status, __WALL) != child_ || !WIFSTOPPED(status) ||
        ptrace(PTRACE_SETOPTIONS, child_, 0,
               PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL) != 0) {
      kill(child_, SIGKILL);
      return result_;
    }
    ptrace(PTRACE_SYSCALL, child_, 0, 0);
    for (pid_t tid = 0; (tid = waitpid(-1, &status, __WALL)) > 0;) {
      if (WIFSTOPPED(status)) {
        OnStop(tid, WSTOPSIG(status));
      } else if (tid == child_) {
        result_.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
    }
    return result_;
  }

 private:
  void OnStop(pid_t tid, int signal) {
    int pass = 0;
    if (signal == kSyscallStop) {
      OnCall(tid);
    } else if (signal != SIGTRAP && signal != SIGSTOP) {  // Not clone events, nor new threads.
      pass = signal;
    }
    ptrace(PTRACE_SYSCALL, tid, 0, pass);
  }

  void OnCall(pid_t tid) {
    __ptrace_syscall_info info{};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, tid, sizeof info, &info) <= 0) return;
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      const std::optional<FileCall> call = Decode(tid, info.entry.nr, info.entry.args);
      if (!call || result_.killed) return;
      open_calls_[tid] = {++count_, *call};
      if (count_ == nth_ && when_ == KillAt::kEntry) Kill(tid);
    } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && open_calls_.count(tid) != 0) {
      auto [number, call] = open_calls_[tid];
      open_calls_.erase(tid);
      call.result = info.exit.rval;
      result_.done.push_back(call);
      if (number == nth_ && when_ == KillAt::kReturn) Kill(tid);
    }
  }

  void Kill(pid_t tid) {
    open_calls_.erase(tid);
    result_.killed = true;
    kill(child_, SIGKILL);
  }

  std::optional<FileCall> Decode(pid_t tid, uint64_t number, const uint64_t* args) const {
    for (const CallKind& kind : kKinds) {
      if (number != static_cast<uint64_t>(kind.number)) continue;
      const std::string name = kind.name;
      if (name == "open" && (args[kind.path_argument + 1] & (O_WRONLY | O_RDWR)) == 0) break;
      FileCall call{
          name,
          kind.path_argument < 0 ? LinkOf(tid, args[0]) : StringOf(tid, args[kind.path_argument]),
          0};
      if (call.path.rfind(prefix_, 0) == 0) return call;
    }
    return std::nullopt;
  }

  const pid_t child_;
  const std::string prefix_;
  const size_t nth_;
  const KillAt when_;
  size_t count_ = 0;
  std::map<pid_t, std::pair<size_t, FileCall>> open_calls_;  // By thread.
  TraceResult result_;
};

}  // namespace

TraceResult RunTraced(const std::function<int()>& body, const std::string& prefix, size_t nth,
                      KillAt when) {
  fflush(nullptr);  // Else the child may print what this process has in its buffers.
  const pid_t child = fork();
  if (child == 0) {
    if (ptrace(PTRACE_TRACEME, 0, 0, 0) != 0) _exit(99);
    raise(SIGSTOP);
    _exit(body());
  }
  return Tracer(child, prefix, nth, when).Run();
}

}  // namespace orb::test
