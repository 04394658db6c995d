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

#include "services/manager/manager_service.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_client.h"
#include "tests/support/log_capture.h"

namespace orb::manager {

// For the LicSNs 42 and 77.
inline KIVCampConfig Campaign(int64_t id) {
  KIVCampConfig config;
  config.campId = id;
  config.campaignDef = {1, 2, 3};
  LicInfo lic;
  lic.licSN = 42;
  lic.sKeyEncAlgo = 2;
  lic.pKeyEncAlgo = 1;
  lic.encryptionPKey = {'P', 'E', 'M'};
  config.licInfo = {lic, lic};
  config.licInfo[1].licSN = 77;
  return config;
}

inline constexpr uid_t kUser = 1000;

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
  ClientRecord Record(const std::string& name) {
    for (const ClientRecord& record : manager_->ListClients()) {
      if (record.name == name) return record;
    }
    return ClientRecord();
  }
  bool WaitSession(const std::string& name, int32_t session) {
    return test::WaitFor([&] { return Record(name).session == session; });
  }

  // One life of a client that has a campaign; the letters are the test's below.
  void Live(const std::string& name, char life) {
    const bool given = Record(name).session != ClientRecord::QUARANTINED;
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
      ASSERT_TRUE(test::WaitFor([&] { return !Record(name).connected; }));
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
