// A process that a test kills at a system call of its choice.
//
// The calls that count are those that change files: open for writing, write, fsync,
// ftruncate, rename, unlink, close. They are counted over all threads, in the order in
// which the kernel is entered. ptrace sees them where a preloaded library would not:
// stdio's own writes do not go through the symbol `write`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orb::test {

struct FileCall {
  std::string name;  // "write"
  std::string path;
  int64_t result = 0;
};

struct TraceResult {
  bool killed = false;  // Else it ended on its own:
  int exit_code = -1;
  std::vector<FileCall> done;  // The calls that returned, in order.
};

enum class KillAt {
  kEntry,   // The call is never made.
  kReturn,  // The call is made, and its result not seen.
};

// Forks, runs body() in the child, and kills it with SIGKILL at the nth call (from 1) whose
// path begins with `prefix`; never for 0. The calling process must have one thread, and no
// other children. exit_code -1 without `killed`: the child cannot be traced here.
TraceResult RunTraced(const std::function<int()>& body, const std::string& prefix, size_t nth,
                      KillAt when = KillAt::kEntry);

}  // namespace orb::test
