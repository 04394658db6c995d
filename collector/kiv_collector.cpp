// Construction, registration with the manager, and de-registration.
// Tested by tests/collector/lifecycle_test.cpp.
#include "collector/kiv_collector.h"

#include <algorithm>
#include <utility>

#include "ipc/kiv_aidl_client.h"
#include "utility/check.h"
#include "utility/clock.h"
#include "utility/conf.h"
#include "utility/contained.h"
#include "utility/log.h"

namespace {

// Clients of this mode and above use neither manager nor HAL.
constexpr uint32_t kFirstUnconnectedMode = 2;

}  // namespace

kiv_collector::kiv_collector(const kiv_cfg_s* cfg) : cfg_(*cfg) { Conf::Load(cfg_.data_dir); }

kiv_collector::~kiv_collector() { ORB_CHECK(abandoned_); }

int kiv_collector::Register() {
  if (cfg_.sync_register) return RunRegistration();
  return registerThreads_.Start("orb_register", [this] { RunRegistration(); }) ? 0 : -1;
}

int kiv_collector::RunRegistration() {
  const Conf& conf = Conf::Get();
  const int32_t wait_sec = conf.register_retry_wait_sec;
  const int32_t max_attempts = std::max(conf.register_max_retries, 0);
  const uint64_t start_ms = veskstats_uptime_ms();
  for (int32_t attempts = max_attempts; attempts >= 1; --attempts) {
    if (stop_.raised()) return -1;
    if (AttemptRegistration()) {
      LOGI("%s: MGR registration succeeded", cfg_.name.c_str());
      return 0;
    }
    LOGE("%s: MGR registration failed - waiting for %ld seconds before retrying", cfg_.name.c_str(),
         static_cast<long>(wait_sec));
    if (link_.client() != nullptr) {
      LOGI("%s: Resetting client ptr", cfg_.name.c_str());
      link_.ResetClient();
    }
    if (wait_sec >= 1) stop_.WaitFor(wait_sec);
  }
  if (stop_.raised()) return -1;
  LOGE(
      "%s: MGR registration given up after %d attempts in %llu seconds - start the manager, then "
      "restart this client or have it register anew",
      cfg_.name.c_str(), max_attempts,
      static_cast<unsigned long long>((veskstats_uptime_ms() - start_ms) / 1000));
  return -1;
}

bool kiv_collector::AttemptRegistration() {
  if (cfg_.client_mode >= kFirstUnconnectedMode) return false;
  return link_.ObtainClient()->registerClient(cfg_.name, cfg_.registration_arg1,
                                              cfg_.registration_arg2, this) == 0;
}

int kiv_collector::DeRegister() {
  // No mutex is held while joining: the threads take them.
  stop_.Raise();
  if (const auto client = link_.client()) client->serviceManager().Wake();
  if (lostConnThreads_.any()) {
    LOGI("%s: waiting for lostConnThread", "DeRegister");
    lostConnThreads_.JoinAll();
    LOGI("%s: lostConnThread exited", "DeRegister");
  }
  if (registerThreads_.any()) {
    LOGI("%s: waiting for registerThread", "DeRegister");
    registerThreads_.JoinAll();
    LOGI("%s: registerThread exited", "DeRegister");
  }
  // The manager is told even if the session ends badly.
  orb::Contained("DeRegister", [this] { session_.StopSession(); });
  const auto client = link_.client();
  return client == nullptr ? -1 : client->deRegisterClient(link_.token());
}

bool kiv_collector::AdoptInChild() {
  abandoned_ = header_.AdoptInChild() && uploader_.AdoptInChild() && regions_.AdoptInChild() &&
               ledger_.AdoptInChild() && link_.AdoptInChild() && stop_.AdoptInChild() &&
               session_.AdoptInChild() && registerThreads_.AdoptInChild() &&
               lostConnThreads_.AdoptInChild();
  return abandoned_;
}

void kiv_collector::Unroute() {
  abandoned_ = true;
  if (cfg_.client_mode < kFirstUnconnectedMode) {
    // After a lost connection there are routes but no reference to the client: get one.
    link_.ObtainClient()->forgetCollector(this);
  }
  // The writer thread of a session whose start was refused still uses this object.
  session_.Drop();
}

bool kiv_collector::LostConn() {
  return lostConnThreads_.Start("orb_lost_conn", [this] { LostConnThread(); });
}

void kiv_collector::LostConnThread() {
  // The session mutex is held during the registration too, so the next session and the
  // death of the next manager find it done. Calls that log do not wait for it.
  session_.StopThen([this] {
    LOGI("%s: c::LostConn deleteing client instance for token - %s", cfg_.name.c_str(),
         link_.token().c_str());
    link_.ResetClient();
    if (stop_.raised() || Register() == 0 || cfg_.sync_register) return;
    RunRegistration();  // There is no thread for it, so this one does it.
  });
}

void kiv_collector::SetIdentity(const std::string& token, int32_t clientId) {
  link_.SetIdentity(token, clientId);
  header_.SetClientId(clientId);
}

void kiv_collector::SetClientForTest(std::shared_ptr<kivAIDLClient> client) {
  link_.SetClientForTest(std::move(client));
}
