// A client under load, driven by tests/faults/world.cpp: one command a line on
// standard input, one answer a line on what was standard output (gauges print
// there, so that is sent elsewhere).
//
//   usage: load_client NAME DIR/ COUNTS [slots] [sync]
//          load_client --descriptors      exits with the number above standard error
//
//   load | calm      -> ok; eight threads log, or no longer
//   phase N          -> ok; from here on the counts of that phase
//   forks on         -> ok; a thread forks and executes, all the time
//   forks off        -> programs run, and how many were handed a descriptor
//   rounds N         -> rounds of registration that failed, bytes of heap that stayed
//   state            -> how many threads and descriptors there are
//   enabled          -> 1 while the campaign is there
//   end              -> result of the de-registration
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
  void* mapped = mmap(nullptr, sizeof(LoadCounts), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
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

class LoadClient {
 public:
  LoadClient(int argc, char** argv) : name_(argv[1]), dir_(argv[2]), counts_(MapCounts(argv[3])) {
    for (int i = 4; i < argc; ++i) {
      slots_ = slots_ || strcmp(argv[i], "slots") == 0;
      sync_ = sync_ || strcmp(argv[i], "sync") == 0;
    }
    life_ = ++counts_->lives;
  }

  // Once to an end and back, so that what the library keeps for ever is there.
  bool Begin() {
    if (!Round()) return false;
    Open(sync_);
    return collector_ != nullptr;
  }

  std::string Run(const std::string& line) {
    std::istringstream in(line);
    std::string verb;
    std::string argument;
    in >> verb >> argument;
    if (verb == "load") return Load();
    if (verb == "calm") return Calm();
    if (verb == "phase") return Calm() + (phase_ = std::stoi(argument), "");
    if (verb == "state") return State();
    if (verb == "enabled") return std::to_string(kiv_is_kpi_enabled(collector_, kLoadKpis[0].id));
    if (verb == "rounds") return Rounds(std::stoi(argument));
    if (verb == "end") return Calm(), std::to_string(kiv_deregister(collector_));
    if (verb == "forks" && argument == "on") return forker_.Start(), "ok";
    if (verb == "forks") return forker_.Stop();
    if (verb == "exit") exit(0);
    return "unknown command " + verb;
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

  bool Round() const {
    kiv_collector* c = Register(true);
    return c != nullptr && kiv_deregister(c) == 0;
  }

  // Some end before they are registered, some before the campaign is back, some
  // within it.
  std::string Rounds(int count) {
    Calm();
    int failed = kiv_deregister(collector_) == 0 ? 0 : 1;
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
    Load();
    return std::to_string(failed) + " " + std::to_string(grown);
  }

  std::string Load() {
    if (running_) return "ok";
    running_ = true;
    for (int i = 0; i < kLoadThreads; ++i) {
      threads_.emplace_back([this, i] { LogForever(i); });
    }
    return "ok";
  }
  std::string Calm() {
    running_ = false;
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
    return "ok";
  }

  void LogForever(int thread) {
    for (uint32_t burst = 0; running_; ++burst) {
      LogNumbers(collector_, burst);
      if (burst % kBlobEvery == 0) LogBlob(thread);
      std::this_thread::sleep_for(kPause);
    }
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
  LoadCounts* const counts_;
  bool slots_ = false;
  bool sync_ = false;
  uint64_t life_ = 0;
  int phase_ = 0;
  kiv_collector* collector_ = nullptr;
  std::atomic<bool> running_{false};
  std::atomic<uint64_t> blobs_{0};
  std::vector<std::thread> threads_;
  Forker forker_;
};

}  // namespace
}  // namespace orb::test

int main(int argc, char** argv) {
  if (argc == 2) return orb::test::DescriptorsAboveStandardError();
  if (argc < 4) return 2;
  // What this program was handed itself is nobody's leak.
  close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  const int answers = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (freopen("/dev/null", "w", stdout) == nullptr) return 2;
  const auto answer = [answers](const std::string& text) {
    const std::string line = text + "\n";
    return write(answers, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  };
  // Never destroyed: exit() leaves its threads running. Static, so that it is no leak.
  static auto* const client = new orb::test::LoadClient(argc, argv);
  if (!answer(client->Begin() ? "ready" : "failed")) return 2;
  for (std::string line; std::getline(std::cin, line);) {
    if (!answer(client->Run(line))) return 2;
  }
  return 0;
}
