// One trial: a client of the real library logs a load against an in-process
// manager and HAL, while faults come and go.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ledger/delivery_ledger.h"
#include "orb_sdk.h"
#include "proto/manager_state.pb.h"
#include "tools/orbctl/sim/fault_plan.h"
#include "tools/orbctl/sim/library_log.h"
#include "tools/orbctl/sim/load_file.h"
#include "tools/orbctl/sim/sim_clock.h"
#include "tools/orbctl/sim/sim_services.h"

namespace orb::orbctl {

struct TrialInput {
  std::string client;
  manager::SavedCampaign campaign;
  Load load;
  std::vector<FaultSpan> faults;
  std::string data_dir;  // Ends with a slash.
  uint32_t slots = 0;    // 0: data files.
  uint32_t slot_bytes = 0;
};

// What came of the calls, by KPI.
struct CallTally {
  uint64_t logged = 0;
  uint64_t accepted = 0;
  uint64_t refused = 0;  // Answered -1 or -2.
};

// What the library did when it ended the process.
enum class Phase { kBeginning, kLogging, kEnding };

// Driver only, unless it says otherwise. All arguments are borrowed.
class Trial {
 public:
  Trial(const TrialInput& input, SimServices* services, LibraryLog* log);
  ~Trial();
  Trial(const Trial&) = delete;
  Trial& operator=(const Trial&) = delete;

  // Registers the client and starts the campaign; time 0 is when that is done.
  // False with *error, and *result what the client answered to the campaign.
  bool Begin(double factor, int32_t* result, std::string* error);
  // Logs the whole load.
  void Run();
  // Ends the session, and de-registers the client.
  void End();

  // For another thread, once the driver stands still in a call of the library, which
  // it will never leave: waits until the library's other threads are done with what
  // they have. The client stays registered, and is never freed.
  void Abandon();

  const std::map<uint32_t, CallTally>& calls() const { return calls_; }
  size_t queue_max() const { return queue_max_; }
  // How far the trial got; while logging, with the item that is being logged, or null
  // between two.
  Phase phase() const { return phase_; }
  const LoadItem* current() const { return current_; }
  // The library's own account; after End().
  const Books& books() const { return books_; }

 private:
  struct Edge {
    SimClock::Time time;
    const FaultSpan* span;
    bool begins;
  };

  void Register();
  bool WaitForLog(const std::string& text, uint64_t count) const;
  void AdvanceTo(SimClock::Time time);
  void Settle();
  bool IsQuiet();
  bool IsRegistrationQuiet();
  void Apply(const Edge& edge);
  void KillHal();
  void KillManager();
  void Feed(const LoadItem& item);
  void Count(const LoadItem& item, int result);

  const TrialInput& input_;
  SimServices& services_;
  LibraryLog& log_;
  SimClock& clock_ = SimClock::Get();
  kiv_collector* collector_ = nullptr;
  std::vector<Edge> edges_;  // In order of time.
  std::map<uint32_t, CallTally> calls_;
  size_t queue_max_ = 0;
  Phase phase_ = Phase::kBeginning;
  const LoadItem* current_ = nullptr;
  Books books_;

  // Of a client that lost its manager.
  bool lost_ = false;
  uint64_t registrations_ = 0;  // When it did.
  size_t waits_ = 0;
};

}  // namespace orb::orbctl
