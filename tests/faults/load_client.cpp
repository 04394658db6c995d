// Clients under load, driven by tests/faults/world.cpp: one command a line on
// standard input, one answer a line on what was standard output (gauges print
// there, so that is sent elsewhere).
//
//   usage: load_client COUNTS (NAME DIR/ files|slots sync|async)...
//          load_client --descriptors      exits with the number above standard error
//
//   load | calm      -> ok; eight threads log, or no longer
//   phase N          -> ok; from here on the counts of that phase
//   forks on         -> ok; a thread forks and executes, all the time
//   forks off        -> programs run, and how many were handed a descriptor
//   rounds N         -> rounds of registration that failed, bytes of heap that stayed
//   state            -> how many threads and descriptors there are
//   enabled          -> 1 while each client has its campaign
//   end              -> 0 when each de-registration gave that
//   exit             no answer: exit(0) with all threads alive
#include <fcntl.h>
#include <linux/close_range.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "orb_sdk.h"
#include "tests/faults/load.h"

namespace orb::test {
namespace {

constexpr int kBurst = 16;                        // Samples between two pauses.
constexpr int kBlobEvery = 64;                    // Bursts between two blobs of a thread.
constexpr std::chrono::microseconds kPause(900);  // Leaves the machine to the services.

// Names in a folder of /proc/self; among descriptors is the one that lists them.
std::vector<std::string> ProcEntries(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/" + folder)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

std::string State() {
  size_t binder = 0;
  const std::vector<std::string> tasks = ProcEntries("task");
  for (const std::string& task : tasks) {
    std::ifstream file("/proc/self/task/" + task + "/comm");
    std::string name;
    std::getline(file, name);
    if (name == "binder") ++binder;
  }
  std::ostringstream out;
  // Of the pool's threads there may be so many.
  out << tasks.size() - std::min<size_t>(binder, 16) << " threads, " << ProcEntries("fd").size()
      << " descriptors";
  return out.str();
}

int DescriptorsAboveStandardError() {
  int count = 0;
  for (const std::string& fd : ProcEntries("fd")) count += std::stoi(fd) > STDERR_FILENO ? 1 : 0;
  return count - 1;
}

LoadCounts* MapCounts(const char* path) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  void* mapped = mmap(nullptr, kLoadClientsMax * sizeof(LoadCounts), PROT_READ | PROT_WRITE,
                      MAP_SHARED, fd, 0);
  if (mapped == MAP_FAILED) exit(2);
  close(fd);
  return static_cast<LoadCounts*>(mapped);
}

// Threads that fork and execute this program again, which looks for descriptors
// that it should not have got.
class Forker {
 public:
  void Start() {
    running_ = true;
    thread_ = std::thread([this] {
      while (running_) RunOnce();
    });
  }
  std::string Stop() {
    running_ = false;
    if (thread_.joinable()) thread_.join();
    return std::to_string(run_) + " " + std::to_string(failed_);
  }

 private:
  void RunOnce() {
    const pid_t child = fork();
    if (child == 0) {
      execl("/proc/self/exe", "load_client", "--descriptors", nullptr);
      _exit(99);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ++run_;
    if (status != 0) ++failed_;
  }

  std::atomic<bool> running_{false};
  std::thread thread_;
  int run_ = 0;
  int failed_ = 0;
};

// One registered client, and its counts.
class Client {
 public:
  Client(char** argv, LoadCounts* counts)
      : name_(argv[0]),
        dir_(argv[1]),
        slots_(strcmp(argv[2], "slots") == 0),
        sync_(strcmp(argv[3], "sync") == 0),
        counts_(counts),
        life_(++counts->lives) {}

  // Once to an end and back, so that what the library keeps for ever is there.
  bool Begin() {
    kiv_collector* c = Register(true);
    if (c == nullptr || kiv_deregister(c) != 0) return false;
    Open(sync_);
    return collector_ != nullptr;
  }
  void SetPhase(int phase) { phase_ = phase; }
  bool Enabled() const { return kiv_is_kpi_enabled(collector_, kLoadKpis[0].id) == 1; }
  int End() { return kiv_deregister(collector_); }

  // Some end before they are registered, some before the campaign is back, some
  // within it.
  std::string Rounds(int count) {
    int failed = End() == 0 ? 0 : 1;
    size_t before = 0;
    for (uint32_t i = 0; i < static_cast<uint32_t>(count); ++i) {
      const bool sync = i % 3 != 0;
      kiv_collector* c = Register(sync);
      for (int wait = 0; i % 3 == 2 && wait < 1000 && kiv_is_kpi_enabled(c, 1) != 1; ++wait) {
        std::this_thread::sleep_for(kPause);
      }
      LogNumbers(c, i);
      if (kiv_deregister(c) != 0 && sync) ++failed;
      if (i == 2) before = mallinfo2().uordblks;  // One of each kind.
    }
    const auto grown = static_cast<int64_t>(mallinfo2().uordblks - before);
    Open(true);
    return std::to_string(failed) + " " + std::to_string(grown);
  }

  void Log(int thread, uint32_t burst) {
    LogNumbers(collector_, burst);
    if (burst % kBlobEvery == 0) LogBlob(thread);
  }

 private:
  kiv_collector* Register(bool sync) const {
    kiv_cfg_s cfg{};
    cfg.name = name_.c_str();
    cfg.data_dir = dir_.c_str();
    cfg.sync_register = sync;
    if (slots_) {
      cfg.hbt = 1;
      cfg.allocate_fd = 1;
      cfg.fd_nof_slots = 31;
      cfg.fd_slot_size = 2048;
    }
    return kiv_register(&cfg);
  }

  void Open(bool sync) {
    for (size_t i = 0; i < kLoadKpiCount; ++i) {
      LoadCount& earlier = counts_->earlier[i];
      earlier.offered = earlier.refused = 0;
      for (const auto& phase : counts_->kpis) {
        earlier.offered += phase[i].offered;
        earlier.refused += phase[i].refused;
      }
    }
    collector_ = Register(sync);
  }

  void LogNumbers(kiv_collector* c, uint32_t burst) {
    for (uint32_t i = 0; i < kBurst; ++i) {
      const size_t index = (burst + i) % (kLoadKpiCount - 1);  // All but the blob.
      const uint32_t value = 1 + (burst + i) % kLoadValueMax;
      LoadCount& count = counts_->kpis[phase_][index];
      ++count.offered;
      count.sum += value;
      if (kiv_log(c, kLoadKpis[index].id, value) == 0) continue;
      ++count.refused;
      count.sum -= value;
    }
  }

  // Every blob says which one it is.
  void LogBlob(int thread) {
    const std::string text = std::to_string(phase_) + "-" + std::to_string(life_) + "-" +
                             std::to_string(thread) + "-" + std::to_string(blobs_++);
    LoadCount& count = counts_->kpis[phase_][kLoadKpiCount - 1];
    ++count.offered;
    if (kiv_log_blob(collector_, kLoadKpis[kLoadKpiCount - 1].id,
                     reinterpret_cast<const uint8_t*>(text.data()),
                     static_cast<uint32_t>(text.size())) != 0) {
      ++count.refused;
    }
  }

  const std::string name_;
  const std::string dir_;
  const bool slots_;
  const bool sync_;
  LoadCounts* const counts_;
  const uint64_t life_;
  int phase_ = 0;
  kiv_collector* collector_ = nullptr;
  std::atomic<uint64_t> blobs_{0};
};

class LoadProcess {
 public:
  LoadProcess(int argc, char** argv) {
    LoadCounts* counts = MapCounts(argv[1]);
    for (int i = 2; i + 3 < argc; i += 4) clients_.emplace_back(argv + i, counts++);
  }

  bool Begin() {
    return std::all_of(clients_.begin(), clients_.end(), [](Client& c) { return c.Begin(); });
  }

  std::string Run(const std::string& line) {
    std::istringstream in(line);
    std::string verb;
    std::string argument;
    in >> verb >> argument;
    if (verb == "load") return Load();
    if (verb == "calm") return Calm();
    if (verb == "phase") return SetPhase(std::stoi(argument));
    if (verb == "state") return State();
    if (verb == "enabled") return Enabled() ? "1" : "0";
    if (verb == "rounds") return Rounds(std::stoi(argument));
    if (verb == "end") return End();
    if (verb == "forks" && argument == "on") return forker_.Start(), "ok";
    if (verb == "forks") return forker_.Stop();
    if (verb == "exit") exit(0);
    return "unknown command " + verb;
  }

 private:
  std::string SetPhase(int phase) {
    Calm();
    for (Client& client : clients_) client.SetPhase(phase);
    return "ok";
  }
  bool Enabled() {
    return std::all_of(clients_.begin(), clients_.end(), [](Client& c) { return c.Enabled(); });
  }
  std::string Rounds(int count) {
    Calm();
    const std::string answer = clients_.front().Rounds(count);
    Load();
    return answer;
  }
  std::string End() {
    Calm();
    int result = 0;
    for (Client& client : clients_) result |= client.End();
    return std::to_string(result);
  }

  // Each thread logs to one client: one that waits must not keep the others quiet.
  std::string Load() {
    if (running_) return "ok";
    running_ = true;
    for (int i = 0; i < kLoadThreads; ++i) {
      threads_.emplace_back([this, i] { LogForever(i, clients_[i % clients_.size()]); });
    }
    return "ok";
  }
  std::string Calm() {
    running_ = false;
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
    return "ok";
  }
  void LogForever(int thread, Client& client) {
    for (uint32_t burst = 0; running_; ++burst) {
      client.Log(thread, burst);
      std::this_thread::sleep_for(kPause);
    }
  }

  std::deque<Client> clients_;
  std::atomic<bool> running_{false};
  std::vector<std::thread> threads_;
  Forker forker_;
};

}  // namespace
}  // namespace orb::test

int main(int argc, char** argv) {
  if (argc == 2) return orb::test::DescriptorsAboveStandardError();
  if (argc < 6) return 2;
  // What this program was handed itself is nobody's leak.
  close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  const int answers = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (freopen("/dev/null", "w", stdout) == nullptr) return 2;
  const auto answer = [answers](const std::string& text) {
    const std::string line = text + "\n";
    return write(answers, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  };
  // Never destroyed: exit() leaves its threads running. Static, so that it is no leak.
  static auto* const clients = new orb::test::LoadProcess(argc, argv);
  if (!answer(clients->Begin() ? "ready" : "failed")) return 2;
  for (std::string line; std::getline(std::cin, line);) {
    if (!answer(clients->Run(line))) return 2;
  }
  return 0;
}
