// Manager and HAL of a trial, within the process: the daemons' own code behind
// a local service manager, and the faults that a trial asks for.
#pragma once

#include <orb_platform/local_service_manager.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "services/hal/orbsyshal_service.h"
#include "services/manager/campaign_manager.h"

namespace orb::orbctl {

// What all incarnations of the HAL share. Written by the driver only.
struct HalState {
  std::atomic<int64_t> delay_ns{0};
  std::atomic<bool> wrong{false};
  std::atomic<uint64_t> asked{0};     // Uploads and slots that were offered.
  std::atomic<uint64_t> accepted{0};  // Those that it said to have stored.
};

// Any thread, unless it says otherwise.
class SimServices {
 public:
  // Spool and state go below `directory`. Publishes both services. Null with
  // *error. One at a time in a process.
  static std::unique_ptr<SimServices> Open(const std::string& directory, std::string* error);
  ~SimServices();

  // As if the process died, or was started again. Driver only.
  void KillHal();
  bool StartHal();
  void KillManager();
  void StartManager();
  bool manager_runs() const { return manager_runs_; }

  HalState& hal() { return *state_; }
  manager::CampaignManager& manager() { return *manager_; }
  // What the manager knows of the client; no name when it knows nothing.
  manager::ClientRecord Client(const std::string& name);

 private:
  class SimHal;

  SimServices(std::shared_ptr<hal::Hal> hal, std::shared_ptr<manager::CampaignManager> manager);

  const android::sp<orb_platform::LocalServiceManager> names_;
  const std::shared_ptr<HalState> state_ = std::make_shared<HalState>();
  const std::shared_ptr<hal::Hal> hal_;
  const std::shared_ptr<manager::CampaignManager> manager_;
  std::shared_ptr<SimHal> hal_service_;
  bool manager_runs_ = false;
};

}  // namespace orb::orbctl
