// The manager's whole behaviour, without the bus: who is registered, what runs
// on whom, and giving clients back what they ran.
//
// Locks: mutex_ guards who is registered and is never held while a client is
// called, because a client calls back; the store's own lock comes after it. Calls to a client
// run on that client's own threads.
#pragma once

#include <orb_platform/lost_buses.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ipc/KIVClientId.h"
#include "ipc/KIVClientInfo.h"
#include "proto/control.pb.h"
#include "services/common/timer.h"
#include "services/manager/registered_client.h"
#include "services/manager/state_store.h"
#include "utility/thread_annotations.h"

namespace orb::manager {

// Thread-safe. Held by shared_ptr: death notices may come late.
class CampaignManager : public std::enable_shared_from_this<CampaignManager> {
 public:
  // The HAL takes folders of 200 bytes; a dot and a LicSN of 20 digits follow the name.
  static constexpr size_t kMaxNameBytes = 179;

  struct Timing {
    // How long an operator waits for a client's answer.
    std::chrono::milliseconds answer{30000};
    std::chrono::milliseconds dump{5000};  // Where the client only describes itself.
    // Waits before the first attempts to give a client its campaign back: it answers
    // -1 until it has taken note of its own registration. Then it counts as refused and
    // further waits double, as long as client and campaign are there: slots need a HAL.
    std::vector<std::chrono::milliseconds> restart_waits = {
        std::chrono::milliseconds(5), std::chrono::milliseconds(50), std::chrono::milliseconds(200),
        std::chrono::milliseconds(1000), std::chrono::milliseconds(3000)};
    std::chrono::milliseconds restart_wait_max{60000};
    // A client that dies sooner after a campaign's start is taken to die of it.
    std::chrono::milliseconds early_death{60000};
    std::function<StartWatch::TimePoint()> now = &std::chrono::steady_clock::now;
    // Counts how often the bus has gone: clients that go with it have not died.
    std::function<uint64_t()> lost_buses = &orb_platform::LostBuses;
  };

  // Takes the store.
  explicit CampaignManager(std::unique_ptr<StateStore> store) : store_(std::move(store)) {}
  CampaignManager(std::unique_ptr<StateStore> store, Timing timing)
      : store_(std::move(store)), timing_(std::move(timing)) {}
  // Waits for calls that clients have not answered.
  ~CampaignManager();

  // Makes a client of this user known, in place of an earlier one of that name, which is
  // told to stop, and gives it its campaign back soon. False, and logged, for a name under
  // which nothing can be stored or that is another user's, and when there are too many.
  bool Register(const KIVClientInfo& info, uid_t user, const android::sp<IKIVCallback>& callback,
                KIVClientId* id) ORB_EXCLUDES(mutex_);
  // Forgets the registration; the campaign stays on disk. False: no such token.
  bool Deregister(const std::string& token) ORB_EXCLUDES(mutex_);
  // Gives the client its campaign back if it does not run.
  void CheckPending(const std::string& token) ORB_EXCLUDES(mutex_);
  void ClientDied(const std::string& token) ORB_EXCLUDES(mutex_);

  // The slots that a session gave to a HAL are lost with it: once the next HAL has come, the
  // session is stopped and started again. Sessions that were refused are tried again at once.
  void HalCame() ORB_EXCLUDES(mutex_);
  void HalDied() { ++hal_changes_; }
  // `look` is called before each start, on the client's thread, and may wait a moment: a
  // HAL that is there has to have come before the start, or its slots count as lost.
  void LookForHalWith(std::function<void()> look) ORB_EXCLUDES(mutex_);

  // For operators, as proto/control.proto describes them. Block for the client's answer.
  std::vector<ClientRecord> ListClients() ORB_EXCLUDES(mutex_);
  ControlReply StartCampaign(const std::string& name, const SavedCampaign& campaign);
  ControlReply StopCampaign(const std::string& name);
  ControlReply ReleaseCampaign(const std::string& name);
  ControlReply SetLicSn(const std::string& name, int64_t lic_sn, bool run);
  ControlReply ForgetClient(const std::string& name, bool force) ORB_EXCLUDES(mutex_);
  ControlReply DumpClient(const std::string& name);

  // Stops all calls to clients; false when one still waits at the deadline.
  bool StopBy(std::chrono::steady_clock::time_point deadline) ORB_EXCLUDES(mutex_);

 private:
  using Client = std::shared_ptr<RegisteredClient>;
  struct Patience {
    std::chrono::milliseconds wait;
    const char* too_late;  // What the operator is told afterwards.
  };

  // Gives the client its id and puts it in the place of `former`, if there is one, in one
  // step. False when it gets none (logged).
  bool Enter(const Client& client, Client* former) ORB_EXCLUDES(mutex_);
  std::vector<Client> Connected() ORB_EXCLUDES(mutex_);
  Client Find(const std::string& name) ORB_EXCLUDES(mutex_);
  Client FindLocked(const std::string& name) const ORB_REQUIRES(mutex_);
  Client FindToken(const std::string& token) ORB_EXCLUDES(mutex_);
  Client Take(const std::string& token) ORB_EXCLUDES(mutex_);
  void Retire(const Client& client) ORB_REQUIRES(mutex_);
  // Takes the client's registration away from it, and tells it to stop.
  void Displace(const Client& client) ORB_REQUIRES(mutex_);
  // Ends a registration that another one has replaced.
  void LeaveTo(const Client& former) ORB_EXCLUDES(mutex_);
  void NoteDeath(const Client& client);
  // Begins to give the client its campaign back, or to renew it.
  void BeginRestarts(const Client& client);
  void RestartLater(const std::string& token, uint64_t series, size_t attempt);
  std::chrono::milliseconds WaitBefore(size_t attempt) const;
  // Counts early deaths in a row, and forgets them after any other end.
  void Book(const std::string& name, StartWatch::Verdict verdict);
  ControlReply NotThere(const std::string& name) const;
  // Runs the call on one of the client's two threads, and waits for what it answers.
  static ControlReply RunOn(const Client& client, services::SerialExecutor& thread,
                            const Patience& patience, std::function<ControlReply()> call);
  ControlReply Change(const Client& client, std::function<ControlReply()> call);

  // These run on one of the client's threads.
  void Restart(RegisteredClient* client, uint64_t series, size_t attempt);
  // Whether the session's slots went with a HAL, so that it has to begin again.
  bool SlotsAreLost(RegisteredClient* client);
  void LookForHal() ORB_EXCLUDES(mutex_);
  // False when the client could not be told.
  bool StopToRenew(RegisteredClient* client);
  bool HasSlots(RegisteredClient* client);
  ControlReply Start(RegisteredClient* client, const SavedCampaign& campaign);
  ControlReply Started(RegisteredClient* client, const SavedCampaign& campaign, int32_t result);
  // Starts the campaign that is kept, with the owners stopped that were.
  ControlReply GiveBack(RegisteredClient* client, const SavedCampaign& saved);
  // Saves the campaign. False when the client was replaced, or the disk did not take it.
  bool Keep(const RegisteredClient& client, const SavedCampaign& campaign) ORB_EXCLUDES(mutex_);
  ControlReply Stop(RegisteredClient* client);
  static void StopReplaced(RegisteredClient* client);
  ControlReply SwitchLicSn(RegisteredClient* client, int64_t lic_sn, bool run);
  ControlReply CallFailed(RegisteredClient* client, const char* call,
                          const android::binder::Status& status);
  // Asks the client to describe itself.
  ControlReply Dump(RegisteredClient* client);

  const std::unique_ptr<StateStore> store_;
  const Timing timing_;
  std::atomic<uint64_t> hal_changes_{0};  // Deaths and arrivals of a HAL.
  Mutex mutex_;
  std::function<void()> look_for_hal_ ORB_GUARDED_BY(mutex_) = [] {};
  std::map<std::string, Client> by_token_ ORB_GUARDED_BY(mutex_);
  // Clients that are gone, but may not have returned from a call. They are kept until their
  // threads have ended: the destructor, which joins the threads, must not run on one.
  std::vector<Client> retired_ ORB_GUARDED_BY(mutex_);
  services::Timer timer_;  // Its tasks post to clients' threads.
};

}  // namespace orb::manager
