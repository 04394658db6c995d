// A program that a test starts, talks to line by line, and kills.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/wait_for.h"
#include "utility/unique_fd.h"

namespace orb::test {

// Not thread-safe. The destructor kills and reaps what still runs; it is also killed when
// the thread that started it ends, so that a killed test leaves nothing behind.
class ChildProcess {
 public:
  struct Options {
    // Added to this process's environment; an empty value removes the name.
    std::map<std::string, std::string> env;
    // File that standard error is appended to; empty: this process's own.
    std::string stderr_path;
  };

  ChildProcess() = default;
  // Starts argv[0] (found through PATH); pid() is -1 when that failed.
  explicit ChildProcess(const std::vector<std::string>& argv, const Options& options = {});
  ~ChildProcess();
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;

  pid_t pid() const { return pid_; }
  bool Running();

  // Writes `line` and a line feed to its standard input. False when it is gone.
  bool Send(const std::string& line);
  void CloseInput() { input_.reset(); }

  // The next line of its standard output, without the line feed; nullopt when
  // none came in time or the output ended.
  std::optional<std::string> ReadLine(std::chrono::milliseconds timeout);
  // Everything up to the end of its output.
  std::string ReadAll(std::chrono::milliseconds timeout);

  void Signal(int sig) const;
  // Waits for its end. The exit code, 128 + signal, or -1 when it still runs.
  int Wait(std::chrono::milliseconds timeout);
  // SIGTERM, then SIGKILL after five seconds; what Wait returned.
  int Stop();

 private:
  bool Fill(std::chrono::steady_clock::time_point deadline);

  pid_t pid_ = -1;
  int exit_code_ = -1;
  UniqueFd input_;
  UniqueFd output_;
  std::string buffer_;
};

// Runs argv to its end with nothing on standard input.
struct CommandResult {
  int exit_code = -1;  // -1: did not end in time, and was killed.
  std::string out;
  std::string err;
};
CommandResult RunCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env = {},
                         std::chrono::milliseconds timeout = std::chrono::seconds(60));

// A directory of its own below TMPDIR, removed with all it holds. path() ends
// without a slash.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Paths below dir (recursively) of regular files, relative, sorted.
std::vector<std::string> ListFiles(const std::string& dir);
std::string ReadFileOrEmpty(const std::string& path);
bool WriteFile(const std::string& path, const std::string& content);

}  // namespace orb::test
