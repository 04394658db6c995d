#include "tests/support/child_process.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

namespace orb::test {
namespace {

using Clock = std::chrono::steady_clock;

int MillisUntil(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<int64_t>(left, 0));
}

std::vector<std::string> Environment(const std::map<std::string, std::string>& changes) {
  std::vector<std::string> out;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (changes.count(text.substr(0, text.find('='))) == 0) out.push_back(text);
  }
  for (const auto& [name, value] : changes) {
    if (!value.empty()) out.push_back(name + "=" + value);
  }
  return out;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (std::string& text : strings) out.push_back(text.data());
  out.push_back(nullptr);
  return out;
}

int ExitCode(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const Options& options) {
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0) return;
  UniqueFd in_read(in[0]);
  input_.reset(in[1]);
  if (pipe2(out, O_CLOEXEC) != 0) return;
  output_.reset(out[0]);
  UniqueFd out_write(out[1]);

  // Everything that allocates happens before the fork.
  std::vector<std::string> args = argv;
  std::vector<std::string> env = Environment(options.env);
  const std::vector<char*> arg_pointers = Pointers(args);
  const std::vector<char*> env_pointers = Pointers(env);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ != 0) return;
  // Ends with the thread that started it, however that ends.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  dup2(in_read.get(), STDIN_FILENO);
  dup2(out_write.get(), STDOUT_FILENO);
  if (!options.stderr_path.empty()) {
    const int err =
        open(options.stderr_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (err >= 0) dup2(err, STDERR_FILENO);
  }
  // A test's child has no more than a shell's has, whatever the test itself was given.
  close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  execvpe(arg_pointers[0], arg_pointers.data(), env_pointers.data());
  _exit(127);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && exit_code_ < 0) {
    Signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept { *this = std::move(other); }

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  std::swap(pid_, other.pid_);
  std::swap(exit_code_, other.exit_code_);
  std::swap(input_, other.input_);
  std::swap(output_, other.output_);
  std::swap(buffer_, other.buffer_);
  return *this;
}

bool ChildProcess::Running() { return pid_ > 0 && Wait(std::chrono::milliseconds(0)) < 0; }

bool ChildProcess::Send(const std::string& line) {
  const std::string text = line + "\n";
  struct sigaction ignore = {};
  struct sigaction before = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &before);
  const bool sent = write(input_.get(), text.data(), text.size()) == ssize_t(text.size());
  sigaction(SIGPIPE, &before, nullptr);
  return sent;
}

bool ChildProcess::Fill(Clock::time_point deadline) {
  pollfd poller = {output_.get(), POLLIN, 0};
  if (poll(&poller, 1, MillisUntil(deadline)) <= 0) return false;
  char chunk[4096];
  const ssize_t got = read(output_.get(), chunk, sizeof chunk);
  if (got <= 0) return false;
  buffer_.append(chunk, static_cast<size_t>(got));
  return true;
}

std::optional<std::string> ChildProcess::ReadLine(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  size_t end;
  while ((end = buffer_.find('\n')) == std::string::npos) {
    if (!Fill(deadline)) return std::nullopt;
  }
  std::string line = buffer_.substr(0, end);
  buffer_.erase(0, end + 1);
  return line;
}

std::string ChildProcess::ReadAll(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (Fill(deadline)) {
  }
  return std::exchange(buffer_, {});
}

void ChildProcess::Signal(int sig) const {
  if (pid_ > 0 && exit_code_ < 0) kill(pid_, sig);
}

int ChildProcess::Wait(std::chrono::milliseconds timeout) {
  if (pid_ <= 0 || exit_code_ >= 0) return exit_code_;
  int status = 0;
  const bool ended = WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout);
  if (ended) exit_code_ = ExitCode(status);
  return exit_code_;
}

int ChildProcess::Stop() {
  Signal(SIGTERM);
  if (Wait(std::chrono::seconds(5)) >= 0) return exit_code_;
  Signal(SIGKILL);
  return Wait(std::chrono::seconds(5));
}

CommandResult RunCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env,
                         std::chrono::milliseconds timeout) {
  TempDir dir;
  CommandResult result;
  ChildProcess child(argv, {env, dir.path() + "/err"});
  child.CloseInput();
  result.out = child.ReadAll(timeout);
  result.exit_code = child.Wait(std::chrono::seconds(10));
  result.err = ReadFileOrEmpty(dir.path() + "/err");
  return result;
}

TempDir::TempDir() {
  path_ = std::filesystem::temp_directory_path() / "orb-test-XXXXXX";
  if (mkdtemp(path_.data()) == nullptr) abort();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> ListFiles(const std::string& dir) {
  std::vector<std::string> out;
  std::error_code error;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir, error)) {
    if (entry.is_regular_file()) {
      out.push_back(std::filesystem::relative(entry.path(), dir).string());
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::string ReadFileOrEmpty(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

bool WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  return file.good();
}

}  // namespace orb::test
