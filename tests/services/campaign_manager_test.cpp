// The manager in one process with its clients: registrations, campaigns given
// back, and clients that refuse, hang and die.
#include "services/manager/campaign_manager.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utils/String8.h>

#include <cerrno>
#include <functional>
#include <future>
#include <thread>

#include "ipc/BnKIVCallback.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace orb::manager {
namespace {

using android::sp;
using android::binder::Status;
using orb::test::WaitFor;
using std::chrono::milliseconds;

// Plays one client: notes what it is told, and answers as scripted.
class FakeClient : public BnKIVCallback {
 public:
  Status StartSession(const std::string& token, const KIVCampConfig& config,
                      int32_t* result) override {
    std::function<int32_t()> script;
    {
      MutexLock lock(mutex_);
      started_ = config;
      script = on_start_;
    }
    *result = script ? script() : 0;
    Note("start " + token + " " + std::to_string(config.campId));
    return StatusNow();
  }
  Status StopSession(const std::string& token, int64_t camp_id) override {
    Note("stop " + token + " " + std::to_string(camp_id));
    return StatusNow();
  }
  Status StartSessionforLicSN(const std::string&, int64_t camp_id, int64_t lic_sn) override {
    Note("lic-start " + std::to_string(camp_id) + " " + std::to_string(lic_sn));
    return StatusNow();
  }
  Status StopSessionforLicSN(const std::string&, int64_t camp_id, int64_t lic_sn) override {
    Note("lic-stop " + std::to_string(camp_id) + " " + std::to_string(lic_sn));
    return StatusNow();
  }

  android::status_t dump(int fd, const android::Vector<android::String16>& args) override {
    std::string text;
    for (size_t i = 0; i < args.size(); ++i) text += android::String8(args[i]).c_str();
    {
      MutexLock lock(mutex_);
      if (status_ != android::OK) return status_;
    }
    return write(fd, text.data(), text.size()) >= 0 ? android::OK : -errno;
  }

  void OnStart(std::function<int32_t()> script) {
    MutexLock lock(mutex_);
    on_start_ = std::move(script);
  }
  // From now on every call ends with this status.
  void AnswerWith(android::status_t status) {
    MutexLock lock(mutex_);
    status_ = status;
  }
  std::vector<std::string> Calls() const {
    MutexLock lock(mutex_);
    return calls_;
  }
  KIVCampConfig Started() const {
    MutexLock lock(mutex_);
    return started_;
  }

 private:
  void Note(const std::string& call) {
    MutexLock lock(mutex_);
    calls_.push_back(call);
  }
  Status StatusNow() {
    MutexLock lock(mutex_);
    return Status::fromStatusT(status_);
  }

  mutable Mutex mutex_;
  std::function<int32_t()> on_start_ GUARDED_BY(mutex_);
  android::status_t status_ GUARDED_BY(mutex_) = android::OK;
  std::vector<std::string> calls_ GUARDED_BY(mutex_);
  KIVCampConfig started_ GUARDED_BY(mutex_);
};

KIVCampConfig Campaign(int64_t id, const std::vector<int64_t>& lic_sns = {42, 77}) {
  KIVCampConfig config;
  config.campId = id;
  config.campaignDef = {1, 2, 3};
  for (const int64_t lic_sn : lic_sns) {
    LicInfo lic;
    lic.licSN = lic_sn;
    lic.sKeyEncAlgo = 2;
    lic.pKeyEncAlgo = 1;
    lic.encryptionPKey = {'P', 'E', 'M'};
    config.licInfo.push_back(lic);
  }
  return config;
}

using Calls = std::vector<std::string>;

class CampaignManagerTest : public ::testing::Test {
 protected:
  CampaignManagerTest() { Restart(); }

  // The manager ends, and a new one takes over the state.
  void Restart() {
    manager_.reset();
    std::string error;
    CampaignManager::Timing timing;
    timing.answer = answer_;
    timing.restart_waits = {milliseconds(0), milliseconds(1), milliseconds(1)};
    manager_ = std::make_shared<CampaignManager>(StateStore::Open(temp_.path(), &error), timing);
  }
  KIVClientId Register(const std::string& name, const sp<FakeClient>& client) {
    KIVClientInfo info;
    info.clientName = name;
    info.clientType = 3;
    info.clientOption = -1;
    KIVClientId id;
    EXPECT_TRUE(manager_->Register(info, client, &id));
    return id;
  }
  ClientRecord Record(const std::string& name) {
    for (const ClientRecord& record : manager_->ListClients()) {
      if (record.name == name) return record;
    }
    return ClientRecord();
  }
  bool WaitSession(const std::string& name, int32_t session) {
    return WaitFor([&] { return Record(name).session == session; });
  }

  LogCapture log_;
  orb::test::TempDir temp_;
  milliseconds answer_{20000};
  std::shared_ptr<CampaignManager> manager_;
};

TEST_F(CampaignManagerTest, GivesEveryRegistrationATokenAndEveryNameAnId) {
  const sp<FakeClient> client = new FakeClient();
  const KIVClientId first = Register("radio", client);
  EXPECT_EQ(first.token.size(), 32U);
  EXPECT_EQ(first.token.find_first_not_of("0123456789abcdef"), std::string::npos);
  const KIVClientId gps = Register("gps", client);
  EXPECT_NE(gps.clientId, first.clientId);
  EXPECT_TRUE(manager_->Deregister(first.token));
  EXPECT_FALSE(manager_->Deregister(first.token));
  const KIVClientId second = Register("radio", client);
  EXPECT_NE(second.token, first.token);
  EXPECT_EQ(second.clientId, first.clientId);
  const ClientRecord record = Record("radio");
  EXPECT_TRUE(record.connected);
  EXPECT_EQ(record.clientType, 3);
  EXPECT_EQ(record.clientOption, -1);
  EXPECT_GT(record.connectedSinceMs, 0);
}

TEST_F(CampaignManagerTest, RefusesHostileRegistrations) {
  const sp<FakeClient> client = new FakeClient();
  KIVClientId id;
  const std::string long_name(CampaignManager::kMaxNameBytes + 1, 'x');
  for (const std::string& name : {std::string(), std::string("a\nb"), long_name}) {
    KIVClientInfo info;
    info.clientName = name;
    EXPECT_FALSE(manager_->Register(info, client, &id));
  }
  KIVClientInfo info;
  info.clientName = "radio";
  EXPECT_FALSE(manager_->Register(info, nullptr, &id));
  EXPECT_EQ(log_.Count("registration refused: "), 4U);
}

TEST_F(CampaignManagerTest, StartsAndStopsACampaignWithTheClientsResult) {
  const sp<FakeClient> client = new FakeClient();
  const std::string token = Register("radio", client).token;
  EXPECT_EQ(manager_->StartCampaign("radio", Campaign(9)).status, ControlReply::DONE);
  EXPECT_EQ(client->Started(), Campaign(9));
  ClientRecord record = Record("radio");
  EXPECT_EQ(record.session, ClientRecord::RUNNING);
  EXPECT_EQ(record.campId, 9);
  EXPECT_EQ(record.licSNs, (std::vector<int64_t>{42, 77}));

  const ControlReply second = manager_->StartCampaign("radio", Campaign(10));
  EXPECT_EQ(second.status, ControlReply::REFUSED);
  EXPECT_EQ(second.message, "campaign 9 runs on radio; stop it first");

  EXPECT_EQ(manager_->StopCampaign("radio").status, ControlReply::DONE);
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);
  EXPECT_EQ(client->Calls(), (Calls{"start " + token + " 9", "stop " + token + " 9"}));
}

TEST_F(CampaignManagerTest, TellsOperatorsWhyNot) {
  const sp<FakeClient> client = new FakeClient();
  client->OnStart([] { return 5; });
  Register("radio", client);
  const std::string gone = Register("gps", client).token;
  manager_->Deregister(gone);
  ControlReply reply = manager_->StartCampaign("radio", Campaign(9));
  EXPECT_EQ(reply.status, ControlReply::REFUSED);
  EXPECT_EQ(reply.result, 5);
  EXPECT_EQ(reply.message, "radio refused the campaign with result 5; its log says why");
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);
  EXPECT_EQ(Record("radio").lastResult, 5);
  EXPECT_EQ(manager_->StartCampaign("nobody", Campaign(9)).message,
            "no client is called nobody; see orbctl client list");
  EXPECT_EQ(manager_->StartCampaign("gps", Campaign(9)).message, "gps is not connected");
  EXPECT_EQ(manager_->StopCampaign("nobody").message,
            "no client is called nobody; see orbctl client list");
  for (const char* name : {"radio", "gps"}) {
    EXPECT_EQ(manager_->StopCampaign(name).message, std::string("no campaign runs on ") + name);
  }
  EXPECT_EQ(manager_->SetLicSn("radio", 42, true).message, "no campaign runs on radio");
  client->OnStart({});
  ASSERT_EQ(manager_->StartCampaign("radio", Campaign(9)).status, ControlReply::DONE);
  EXPECT_EQ(manager_->SetLicSn("radio", 43, true).message, "campaign 9 of radio has no LicSN 43");
  client->AnswerWith(android::FAILED_TRANSACTION);
  EXPECT_EQ(manager_->SetLicSn("radio", 42, false).status, ControlReply::FAILED);
}

TEST_F(CampaignManagerTest, GivesAReturningClientItsCampaignBack) {
  const sp<FakeClient> client = new FakeClient();
  const std::string first = Register("radio", client).token;
  ASSERT_EQ(manager_->StartCampaign("radio", Campaign(9)).status, ControlReply::DONE);
  ASSERT_EQ(manager_->SetLicSn("radio", 77, false).status, ControlReply::DONE);
  EXPECT_EQ(Record("radio").stoppedLicSNs, (std::vector<int64_t>{77}));
  manager_->Deregister(first);
  EXPECT_EQ(Record("radio").session, ClientRecord::WAITING);

  Restart();
  EXPECT_EQ(Record("radio").session, ClientRecord::WAITING);
  const sp<FakeClient> again = new FakeClient();
  const std::string token = Register("radio", again).token;
  ASSERT_TRUE(WaitFor([&] { return again->Calls().size() == 2; }));
  EXPECT_EQ(again->Calls(), (Calls{"start " + token + " 9", "lic-stop 9 77"}));
  EXPECT_EQ(again->Started(), Campaign(9));
  ASSERT_TRUE(WaitFor([&] { return Record("radio").stoppedLicSNs.size() == 1; }));
  EXPECT_EQ(manager_->SetLicSn("radio", 77, true).status, ControlReply::DONE);
  EXPECT_TRUE(Record("radio").stoppedLicSNs.empty());
}

TEST_F(CampaignManagerTest, TriesAgainWhileAClientDoesNotYetKnowItsToken) {
  const sp<FakeClient> client = new FakeClient();
  manager_->Deregister(Register("radio", client).token);
  ASSERT_EQ(manager_->StartCampaign("radio", Campaign(9)).status, ControlReply::REFUSED);
  Register("radio", client);
  ASSERT_EQ(manager_->StartCampaign("radio", Campaign(9)).status, ControlReply::DONE);
  const sp<FakeClient> late = new FakeClient();
  int attempts = 0;  // Of one executor's thread, before the session runs.
  late->OnStart([&attempts] { return ++attempts < 3 ? -1 : 0; });
  Register("radio", late);
  EXPECT_TRUE(WaitSession("radio", ClientRecord::RUNNING));
  EXPECT_TRUE(log_.Contains("client radio registers again"));

  const sp<FakeClient> stubborn = new FakeClient();
  stubborn->OnStart([] { return -1; });
  const std::string token = Register("radio", stubborn).token;
  EXPECT_TRUE(WaitSession("radio", ClientRecord::REFUSED));
  EXPECT_TRUE(log_.Has(ANDROID_LOG_ERROR, "orb-managerd",
                       "client radio does not take its campaign back: result -1"));
  stubborn->OnStart({});
  manager_->CheckPending(token);
  EXPECT_TRUE(WaitSession("radio", ClientRecord::RUNNING));
}

TEST_F(CampaignManagerTest, WithdrawsTheCampaignOfAClientThatIsAway) {
  const sp<FakeClient> client = new FakeClient();
  const std::string token = Register("radio", client).token;
  ASSERT_EQ(manager_->StartCampaign("radio", Campaign(9)).status, ControlReply::DONE);
  manager_->ClientDied(token);
  EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "orb-managerd", "client radio died"));
  EXPECT_FALSE(Record("radio").connected);
  const ControlReply reply = manager_->StopCampaign("radio");
  EXPECT_EQ(reply.status, ControlReply::DONE);
  EXPECT_EQ(reply.message, "radio is not connected; its campaign will not start again");
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);
}

TEST_F(CampaignManagerTest, ForgetsAClientThatTurnsOutDead) {
  const sp<FakeClient> client = new FakeClient();
  Register("radio", client);
  ASSERT_EQ(manager_->StartCampaign("radio", Campaign(9)).status, ControlReply::DONE);
  client->AnswerWith(android::DEAD_OBJECT);
  EXPECT_EQ(manager_->StopCampaign("radio").status, ControlReply::DONE)
      << "a dead client has no session";
  EXPECT_FALSE(Record("radio").connected);
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);
}

TEST_F(CampaignManagerTest, LetsAClientCallBackFromItsStart) {
  const sp<FakeClient> client = new FakeClient();
  const KIVClientId id = Register("radio", client);
  client->OnStart([&] {
    manager_->CheckPending(id.token);
    KIVClientId other;
    KIVClientInfo info;
    info.clientName = "gps";
    EXPECT_TRUE(manager_->Register(info, client, &other));
    EXPECT_TRUE(manager_->Deregister(other.token));
    EXPECT_EQ(manager_->ListClients().size(), 2U);
    return 0;
  });
  EXPECT_EQ(manager_->StartCampaign("radio", Campaign(9)).status, ControlReply::DONE);
}

TEST_F(CampaignManagerTest, KeepsNobodyWaitingForAClientThatHangs) {
  answer_ = milliseconds(50);
  Restart();
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  const sp<FakeClient> hung = new FakeClient();
  hung->OnStart([released] {
    released.wait();
    return 0;
  });
  const sp<FakeClient> other = new FakeClient();
  const std::string token = Register("hung", hung).token;
  Register("radio", other);
  const ControlReply reply = manager_->StartCampaign("hung", Campaign(1));
  EXPECT_EQ(reply.status, ControlReply::FAILED);
  EXPECT_EQ(reply.message, "hung has not answered in time; it may still do what was asked");
  EXPECT_EQ(manager_->StartCampaign("radio", Campaign(2)).status, ControlReply::DONE);
  EXPECT_EQ(manager_->DumpClient("hung", UniqueFd(memfd_create("dump", 0))).status,
            ControlReply::DONE)
      << "that is when one wants to look";
  EXPECT_TRUE(manager_->Deregister(token));
  EXPECT_FALSE(manager_->StopBy(std::chrono::steady_clock::now()));
  release.set_value();
  EXPECT_TRUE(manager_->StopBy(std::chrono::steady_clock::now() + std::chrono::seconds(20)));
}

TEST_F(CampaignManagerTest, PassesOnWhatAClientSaysOfItself) {
  const sp<FakeClient> client = new FakeClient();
  const std::string token = Register("radio", client).token;
  const UniqueFd memory(memfd_create("dump", MFD_CLOEXEC));
  const auto dump = [&](const char* name) {
    return manager_->DumpClient(name, UniqueFd(dup(memory.get())));
  };
  EXPECT_EQ(dump("radio").status, ControlReply::DONE);
  char text[100] = {};
  EXPECT_GT(pread(memory.get(), text, sizeof text - 1, 0), 0);
  EXPECT_EQ(text, "--token" + token);
  EXPECT_EQ(dump("gps").message, "no client is called gps; see orbctl client list");
  client->AnswerWith(android::NAME_NOT_FOUND);
  EXPECT_EQ(dump("radio").message, "radio does not know of its registration yet");
  client->AnswerWith(android::DEAD_OBJECT);
  EXPECT_EQ(dump("radio").message, "radio died");
  EXPECT_EQ(dump("radio").message, "radio is not connected");
}

TEST_F(CampaignManagerTest, AnswersWhoWaitsForAClientThatGoes) {
  std::promise<void> entered;
  std::promise<void> release;
  const sp<FakeClient> client = new FakeClient();
  client->OnStart([&] {
    entered.set_value();
    release.get_future().wait();
    return 0;
  });
  const std::string token = Register("radio", client).token;
  std::thread first([&] { manager_->StartCampaign("radio", Campaign(1)); });
  entered.get_future().wait();
  ControlReply reply;
  std::thread second([&] { reply = manager_->StopCampaign("radio"); });
  // Whether the second call waits already or comes too late, it is answered.
  manager_->ClientDied(token);
  second.join();
  EXPECT_NE(reply.status, ControlReply::DONE);
  release.set_value();
  first.join();
}

}  // namespace
}  // namespace orb::manager
