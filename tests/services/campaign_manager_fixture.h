// The manager in one process with its clients.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "services/manager/control/campaign.h"
#include "services/manager/manager_service.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_client.h"
#include "tests/support/log_capture.h"

namespace orb::manager {

// For the LicSNs 42 and 77.
inline SavedCampaign Campaign(int64_t id) {
  SavedCampaign campaign;
  campaign.set_camp_id(id);
  campaign.set_definition("\x01\x02\x03");
  for (const int64_t lic_sn : {42, 77}) {
    LicKey* const key = campaign.add_lic_keys();
    key->set_lic_sn(lic_sn);
    key->set_symmetric_algo(2);
    key->set_public_key_algo(1);
    key->set_public_key("PEM");
  }
  return campaign;
}

inline constexpr uid_t kUser = 1000;

// Holds whoever calls Wait until Release.
class Gate {
 public:
  int32_t Wait() {
    const std::shared_future<void> released = released_;  // The gate may go before this returns.
    entered_.set_value();
    released.wait();
    return 0;
  }
  void WaitEntered() { entered_.get_future().wait(); }
  void Release() { release_.set_value(); }

 private:
  std::promise<void> entered_;
  std::promise<void> release_;
  std::shared_future<void> released_ = release_.get_future().share();
};

class CampaignManagerTest : public ::testing::Test {
 protected:
  template <typename T>
  using sp = android::sp<T>;
  using FakeClient = test::FakeClient;
  using milliseconds = std::chrono::milliseconds;

  CampaignManagerTest() { Restart(); }

  // The manager ends, and a new one takes over the state.
  void Restart(milliseconds answer = milliseconds(20000)) {
    manager_.reset();
    CampaignManager::Timing timing;
    timing.answer = answer;
    timing.restart_waits = waits_;
    timing.now = [this] { return std::chrono::steady_clock::time_point(milliseconds(now_ms_)); };
    timing.lost_buses = [this] { return lost_buses_.load(); };
    manager_ = std::make_shared<CampaignManager>(*StateStore::Open(temp_.path()), timing);
  }
  KIVClientId Register(const std::string& name, const sp<FakeClient>& client, bool want = true,
                       uid_t user = kUser) {
    KIVClientInfo info;
    info.clientName = name;
    info.clientType = 3;
    info.clientOption = -1;
    KIVClientId id;
    EXPECT_EQ(manager_->Register(info, user, client, &id), want);
    return id;
  }
  ControlReply Start(const std::string& name, int64_t id = 9) {
    return manager_->StartCampaign(name, Campaign(id));
  }
  // Registers a client that runs campaign 9; its token.
  std::string Run(const std::string& name, const sp<FakeClient>& client) {
    const std::string token = Register(name, client).token;
    EXPECT_EQ(Start(name).status(), ControlReply::DONE);
    return token;
  }
  ControlReply::Status Switch(const std::string& name, int64_t lic_sn, bool run) {
    return manager_->SetLicSn(name, lic_sn, run).status();
  }
  ClientRecord Record(const std::string& name) {
    for (const ClientRecord& record : manager_->ListClients()) {
      if (record.name() == name) return record;
    }
    return ClientRecord();
  }
  ClientRecord::Session Session(const std::string& name) { return Record(name).session(); }
  bool WaitSession(const std::string& name, ClientRecord::Session session) {
    return test::WaitFor([&] { return Session(name) == session; });
  }
  static bool WaitLastCall(const sp<FakeClient>& client, const std::string& call) {
    return test::WaitFor(
        [&] { return !client->Calls().empty() && client->Calls().back() == call; });
  }

  // One life of a client that has a campaign; the letters are explained at the test.
  void Live(const std::string& name, char life) {
    const bool given = Session(name) != ClientRecord::QUARANTINED;
    const sp<FakeClient> client = new FakeClient();
    std::promise<std::string> known;
    const std::shared_future<std::string> its_token = known.get_future().share();
    client->OnStart([&, its_token] {
      if (life == 's') manager_->ClientDied(its_token.get());
      return life == 'r' ? 5 : 0;
    });
    const std::string token = Register(name, client).token;
    known.set_value(token);
    if (given && life == 'r') {
      ASSERT_TRUE(WaitSession(name, ClientRecord::REFUSED));
    }
    if (given && (strchr("dDbx", life) != nullptr)) {
      ASSERT_TRUE(WaitSession(name, ClientRecord::RUNNING));
      manager_->SetLicSn(name, 42, true);  // Comes after all that the start does.
    }
    if (given && life == 's') {
      ASSERT_TRUE(test::WaitFor([&] { return !Record(name).connected(); }));
    }
    now_ms_ += life == 'D' ? 60000 : 59999;
    if (life == 'b') ++lost_buses_;
    if (life == 'x') {
      manager_->Deregister(token);
    } else {
      manager_->ClientDied(token);
    }
    ASSERT_TRUE(manager_->StopBy(std::chrono::steady_clock::now() + std::chrono::seconds(20)));
  }

  LogCapture log_;
  std::vector<milliseconds> waits_ = {milliseconds(0), milliseconds(1), milliseconds(1)};
  std::atomic<int64_t> now_ms_{1000};
  std::atomic<uint64_t> lost_buses_{0};
  orb::test::TempDir temp_;
  std::shared_ptr<CampaignManager> manager_;
  const sp<FakeClient> client_ = new FakeClient();
};

}  // namespace orb::manager
