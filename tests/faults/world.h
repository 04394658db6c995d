// A whole system under load, in which a scenario lets things fail.
#pragma once

#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/faults/load.h"
#include "tests/faults/scenarios.h"
#include "tests/faults/spool_check.h"
#include "tests/integration/stack.h"

namespace orb::test {

// Not thread-safe. What goes wrong is collected in failures().
class World {
 public:
  World(const Scenario& scenario, uint64_t seed);
  ~World();

  // The whole of it: start, faults for that long, recovery, end, checks.
  void Run(std::chrono::milliseconds duration);
  const std::vector<std::string>& failures() const { return failures_; }
  void Fail(const std::string& what) { failures_.push_back(what); }
  std::string Summary() const;
  // Copies logs and files to a new folder of the working directory, and names it.
  std::string Keep();

  // For scenarios.
  Stack& stack() { return stack_; }
  ChildProcess& client() { return client_; }
  ChildProcess& hal() { return scenario_.Is(kOddHal) ? odd_hal_ : stack_.hal(); }
  std::string data_dir() const { return members_.front().data_dir; }
  std::map<std::string, std::string>& client_environment() { return client_environment_; }
  uint64_t Random(uint64_t below) { return random_() % below; }
  void Pause(int max_ms);
  void KillManager();
  void KillHal(int signal);
  void StartManager();
  void StartHal();
  void RestartBus();
  // What the odd HAL is told.
  void Mood(const std::string& word);
  void StartClient();
  // The campaign of the phase, on each client.
  void StartCampaign();
  void StopCampaign();
  // As an operator does after a client's third death in a row, which quarantines it.
  void ReleaseCampaign();
  bool CampaignStops(std::chrono::milliseconds patience);
  bool WaitForCampaign();
  // "gone" and a failure with the client's stacks when no answer comes in time.
  std::string Ask(const std::string& command);
  void Expect(bool holds, const std::string& what);
  void ExpectRunning();
  // The client's threads go on logging, whatever it is that fails.
  void ExpectProgress();
  // A file system of its own in place of a folder.
  void MountDisk(const std::string& folder);
  // Leaves no room on it; with false, gives the room back.
  void Fill(const std::string& folder, bool full);

  // For scenarios: bytes that stayed, after so many rounds.
  int64_t heap_grown = 0;
  int64_t heap_rounds = 0;

 private:
  // A registered client of the process.
  struct Member {
    Scenario rules;  // The scenario, with kSlots where this one has them.
    std::string name;
    bool sync;
    std::string data_dir;
    LoadCounts* counts;
    std::string books;
    SpoolReport report;

    uint64_t Logged() const;
    std::string campaign_file() const { return "campaign-" + name + ".txtpb"; }
  };

  void AddMember(const std::string& name, bool slots);
  bool IsIdle(const Member& member);
  bool Stops(const Member& member, std::chrono::milliseconds patience);
  void Start();
  void Recover();
  void End();
  void Check();
  void WriteCampaign(const Member& member);
  void DumpStacks(ChildProcess* process, const std::string& who);
  void CheckLogs();
  bool WaitForLine(const std::string& log, const std::string& text, size_t before);

  const Scenario& scenario_;
  std::mt19937_64 random_;
  Stack stack_;
  ChildProcess client_;
  ChildProcess odd_hal_;
  std::map<std::string, std::string> client_environment_;
  LoadCounts* counts_ = nullptr;  // kLoadClientsMax of them.
  std::vector<Member> members_;
  std::vector<std::string> failures_;
  std::string first_state_;
  std::map<pid_t, size_t> service_descriptors_;
  std::vector<std::string> mounts_;
  uint64_t phase_ = 0;
  uint64_t faults_ = 0;
};

}  // namespace orb::test
