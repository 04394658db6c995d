// The manager in one process with its clients: registrations, campaigns given
// back, and clients that refuse, hang and die.
#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>

#include "services/manager/manager_service.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_client.h"
#include "tests/support/log_capture.h"

namespace orb::manager {
namespace {

using android::sp;
using orb::test::FakeClient;
using orb::test::WaitFor;
using std::chrono::milliseconds;

// For the LicSNs 42 and 77.
KIVCampConfig Campaign(int64_t id) {
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

constexpr uid_t kUser = 1000;

class CampaignManagerTest : public ::testing::Test {
 protected:
  CampaignManagerTest() { Restart(); }

  // The manager ends, and a new one takes over the state.
  void Restart(milliseconds answer = milliseconds(20000)) {
    manager_.reset();
    std::string error;
    CampaignManager::Timing timing;
    timing.answer = answer;
    timing.restart_waits = waits_;
    timing.now = [this] { return std::chrono::steady_clock::time_point(milliseconds(now_ms_)); };
    timing.lost_buses = [this] { return lost_buses_.load(); };
    manager_ = std::make_shared<CampaignManager>(StateStore::Open(temp_.path(), &error), timing);
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
    return WaitFor([&] { return Record(name).session == session; });
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
      ASSERT_TRUE(WaitFor([&] { return !Record(name).connected; }));
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

TEST_F(CampaignManagerTest, GivesEveryRegistrationATokenAndEveryNameAnId) {
  const KIVClientId first = Register("radio", client_);
  EXPECT_EQ(first.token.size(), 32U);
  EXPECT_EQ(first.token.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(Register("gps", client_).clientId, first.clientId);
  EXPECT_TRUE(manager_->Deregister(first.token));
  EXPECT_FALSE(manager_->Deregister(first.token));
  const KIVClientId second = Register("radio", client_);
  EXPECT_NE(second.token, first.token);
  EXPECT_EQ(second.clientId, first.clientId);
  const ClientRecord record = Record("radio");
  EXPECT_TRUE(record.connected);
  EXPECT_EQ(record.clientType, 3);
  EXPECT_EQ(record.clientOption, -1);
  EXPECT_GT(record.connectedSinceMs, 0);
}

TEST_F(CampaignManagerTest, RefusesHostileRegistrations) {
  const std::string long_name(CampaignManager::kMaxNameBytes + 1, 'x');
  for (const std::string& name : {std::string(), std::string("a\nb"), long_name}) {
    Register(name, client_, false);
  }
  Register("a\xC2\x9B", client_, false);
  Register("radio", nullptr, false);
  EXPECT_EQ(log_.Count("registration refused to uid 1000: "), 5U);
}

TEST_F(CampaignManagerTest, AnotherUserCannotTakeAName) {
  const std::string token = Register("radio", client_).token;
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  const sp<FakeClient> thief = new FakeClient();
  Register("radio", thief, false, kUser + 1);
  EXPECT_TRUE(
      log_.Contains("registration of radio refused to uid 1001: the name belongs to uid "
                    "1000; orbctl client forget releases it"));
  manager_->Deregister(token);
  Register("radio", thief, false, kUser + 1);
  EXPECT_EQ(Record("radio").ownerUid, kUser);
  Register("radio", client_);
  EXPECT_TRUE(WaitSession("radio", ClientRecord::RUNNING));
  EXPECT_TRUE(thief->Calls().empty());
}

// A process that records unseen would go on for ever.
TEST_F(CampaignManagerTest, TellsAFormerProcessToStop) {
  const std::string token = Register("radio", client_).token;
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  const sp<FakeClient> second = new FakeClient();
  Register("radio", second);
  EXPECT_TRUE(WaitFor([&] { return client_->Calls().back() == "stop " + token + " 9"; }));
  ASSERT_TRUE(WaitSession("radio", ClientRecord::RUNNING)) << "the second one, meanwhile";

  // One that is in its start is stopped after it, and its campaign is not kept.
  const sp<FakeClient> third = new FakeClient();
  std::promise<void> entered;
  std::promise<void> release;
  ASSERT_EQ(manager_->StopCampaign("radio").status, ControlReply::DONE);
  const std::string late = Register("radio", third).token;
  third->OnStart([&] {
    entered.set_value();
    release.get_future().wait();
    return 0;
  });
  auto start = std::async(std::launch::async, [&] { return Start("radio", 10); });
  entered.get_future().wait();
  Register("radio", second);
  release.set_value();
  EXPECT_EQ(start.get().message, "radio has another registration by now");
  EXPECT_TRUE(WaitFor([&] { return third->Calls().back() == "stop " + late + " 10"; }));
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);
}

TEST_F(CampaignManagerTest, BoundsTheProcessesOfANameThatHang) {
  std::promise<void> release;
  const auto released = release.get_future().share();
  Register("radio", client_);
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  for (int i = 0; i <= RegisteredClient::kMaxLeft; ++i) {
    const sp<FakeClient> hung = new FakeClient();
    std::atomic<bool> entered{false};
    hung->OnStart([&, released] {
      entered = true;
      released.wait();
      return 0;
    });
    Register("radio", hung);
    ASSERT_TRUE(WaitFor([&] { return entered.load(); }));
  }
  Register("radio", client_, false);
  EXPECT_TRUE(log_.Contains("its former registrations have not returned from their calls"));
  Register("gps", client_);
  release.set_value();
}

TEST_F(CampaignManagerTest, ForgetsAClientForRoot) {
  const auto forget = [&](uid_t caller, const char* name, bool force = false) {
    ControlReply reply;
    const sp<ControlService> control = new ControlService(manager_, [&] { return caller; });
    EXPECT_TRUE(control->forgetClient(name, force, &reply).isOk());
    return reply.message;
  };
  const KIVClientId first = Register("radio", client_);
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  EXPECT_EQ(forget(kUser, "radio", true), "only root may have a client forgotten; try sudo");
  EXPECT_EQ(forget(0, "gps"), "no client is called gps; see orbctl client list");
  EXPECT_EQ(forget(0, "radio"), "radio is connected; end its daemon first, or give --force");
  EXPECT_EQ(forget(0, "radio", true), "");
  EXPECT_TRUE(WaitFor([&] { return client_->Calls().back() == "stop " + first.token + " 9"; }));
  EXPECT_TRUE(manager_->ListClients().empty());
  EXPECT_FALSE(manager_->Deregister(first.token));

  const KIVClientId second = Register("radio", client_, true, kUser + 1);
  EXPECT_GT(second.clientId, first.clientId);
  EXPECT_EQ(Record("radio").ownerUid, kUser + 1);
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);
  manager_->Deregister(second.token);
  EXPECT_EQ(forget(0, "radio"), "");
}

TEST_F(CampaignManagerTest, OneNameHasOneRegistrationHoweverManyComeAtOnce) {
  std::vector<std::future<std::string>> threads;
  for (int i = 0; i < 8; ++i) {
    threads.push_back(std::async(std::launch::async, [&] {
      std::string token;
      for (int n = 0; n < 50; ++n) token = Register("radio", new FakeClient()).token;
      return token;
    }));
  }
  std::vector<std::string> last;
  for (auto& thread : threads) last.push_back(thread.get());
  EXPECT_EQ(std::count_if(last.begin(), last.end(),
                          [&](const std::string& token) { return manager_->Deregister(token); }),
            1);
  EXPECT_FALSE(Record("radio").connected);
}

TEST_F(CampaignManagerTest, TellsOperatorsWhyNot) {
  client_->OnStart([] { return 5; });
  Register("radio", client_);
  manager_->Deregister(Register("gps", client_).token);
  const ControlReply reply = Start("radio");
  EXPECT_EQ(reply.status, ControlReply::REFUSED);
  EXPECT_EQ(reply.result, 5);
  EXPECT_EQ(reply.message, "radio refused the campaign with result 5; its log says why");
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);
  EXPECT_EQ(Record("radio").lastResult, 5);
  const char* const nobody = "no client is called nobody; see orbctl client list";
  EXPECT_EQ(Start("nobody").message, nobody);
  EXPECT_EQ(manager_->StopCampaign("nobody").message, nobody);
  EXPECT_EQ(Start("gps").message, "gps is not connected");
  EXPECT_EQ(manager_->StopCampaign("gps").message, "no campaign runs on gps");
  EXPECT_EQ(manager_->SetLicSn("radio", 42, true).message, "no campaign runs on radio");
  client_->OnStart({});
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  EXPECT_EQ(Start("radio", 10).message, "campaign 9 runs on radio; stop it first");
  EXPECT_EQ(manager_->SetLicSn("radio", 43, true).message, "campaign 9 of radio has no LicSN 43");
  client_->AnswerWith(android::FAILED_TRANSACTION);
  EXPECT_EQ(manager_->SetLicSn("radio", 42, false).message,
            "the bus did not carry the call to radio or its answer");
  KIVCampConfig large = Campaign(11);
  large.campaignDef.resize(1U << 20);
  EXPECT_EQ(manager_->StartCampaign("radio", large).message,
            "the campaign is too large for one transaction (1 MiB)");
}

TEST_F(CampaignManagerTest, GivesAReturningClientItsCampaignBack) {
  const std::string first = Register("radio", client_).token;
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  ASSERT_EQ(manager_->SetLicSn("radio", 77, false).status, ControlReply::DONE);
  EXPECT_EQ(Record("radio").campId, 9);
  EXPECT_EQ(Record("radio").licSNs, (std::vector<int64_t>{42, 77}));
  EXPECT_EQ(Record("radio").stoppedLicSNs, (std::vector<int64_t>{77}));
  manager_->Deregister(first);
  EXPECT_EQ(Record("radio").session, ClientRecord::WAITING);

  Restart();
  EXPECT_EQ(Record("radio").session, ClientRecord::WAITING);
  const sp<FakeClient> again = new FakeClient();
  const std::string token = Register("radio", again).token;
  ASSERT_TRUE(WaitFor([&] { return again->Calls().size() == 2; }));
  ASSERT_TRUE(WaitSession("radio", ClientRecord::RUNNING));
  EXPECT_EQ(again->Started(), Campaign(9));
  EXPECT_EQ(Record("radio").stoppedLicSNs, (std::vector<int64_t>{77}));
  EXPECT_EQ(manager_->SetLicSn("radio", 77, true).status, ControlReply::DONE);
  EXPECT_TRUE(Record("radio").stoppedLicSNs.empty());
  EXPECT_EQ(manager_->StopCampaign("radio").status, ControlReply::DONE);
  const std::string call = " " + token + " 9";
  EXPECT_EQ(again->Calls(), (std::vector<std::string>{"start" + call, "lic-stop" + call + " 77",
                                                      "lic-start" + call + " 77", "stop" + call}));
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);
}

TEST_F(CampaignManagerTest, TriesAgainWhileAClientDoesNotYetKnowItsToken) {
  Register("radio", client_);
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
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

// Slots need a HAL, and that may come a long time after the client.
TEST_F(CampaignManagerTest, TriesAgainAsLongAsClientAndCampaignAreThere) {
  Register("radio", client_);
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  const sp<FakeClient> late = new FakeClient();
  std::atomic<int> attempts{0};
  late->OnStart([&] { return ++attempts < 8 ? -5 : 0; });
  Register("radio", late);
  EXPECT_TRUE(WaitSession("radio", ClientRecord::RUNNING));
  EXPECT_EQ(attempts, 8);
  EXPECT_EQ(log_.Count("does not take its campaign back"), 1U);

  late->OnStart([&] { return attempts = -5; });
  Register("radio", late);
  ASSERT_TRUE(WaitSession("radio", ClientRecord::REFUSED));
  EXPECT_EQ(manager_->StopCampaign("radio").status, ControlReply::DONE);
  attempts = 0;
  EXPECT_EQ(Start("radio").status, ControlReply::REFUSED);
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);
}

TEST_F(CampaignManagerTest, OperatorsDoNotWaitForTheNextAttempt) {
  waits_ = {milliseconds(0), std::chrono::hours(1)};
  Restart();
  const std::string token = Register("radio", client_).token;
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  const sp<FakeClient> refuses = new FakeClient();
  std::atomic<int> attempts{0};
  refuses->OnStart([&] { return ++attempts == 1 ? -5 : 0; });
  Register("radio", refuses);
  ASSERT_TRUE(WaitFor([&] { return attempts == 1; }));
  EXPECT_EQ(manager_->SetLicSn("radio", 42, true).message, "no campaign runs on radio");
  // The HAL that was missing is there: no need to wait.
  manager_->HalCame();
  EXPECT_TRUE(WaitSession("radio", ClientRecord::RUNNING));
  EXPECT_EQ(manager_->StopCampaign("radio").status, ControlReply::DONE);
}

TEST_F(CampaignManagerTest, RenewsSessionsWhoseSlotsWentWithAHal) {
  manager_->HalCame();
  const sp<FakeClient> files = new FakeClient();
  const sp<FakeClient> silent = new FakeClient();
  client_->Say("client.name: \"slots\"\nclient.mode: slots\n");
  files->Say("client.name: \"files\"\nclient.mode: files\n");
  const std::string call = " " + Register("slots", client_).token + " 9";
  Register("files", files);
  Register("silent", silent);
  for (const char* name : {"slots", "files", "silent"}) {
    ASSERT_EQ(Start(name).status, ControlReply::DONE);
  }
  ASSERT_EQ(manager_->SetLicSn("slots", 77, false).status, ControlReply::DONE);
  manager_->HalDied();
  manager_->HalCame();
  const std::vector<std::string> renewed = {"start" + call, "lic-stop" + call + " 77",
                                            "stop" + call, "start" + call,
                                            "lic-stop" + call + " 77"};
  EXPECT_TRUE(WaitFor([&] { return client_->Calls() == renewed; }));
  // Once for each HAL.
  manager_->CheckPending(call.substr(1, 32));
  for (const char* name : {"slots", "files", "silent"}) {
    EXPECT_EQ(manager_->SetLicSn(name, 42, true).status, ControlReply::DONE);
  }
  EXPECT_EQ(client_->Calls().size(), renewed.size() + 1);
  EXPECT_EQ(files->Calls().size(), 2U);
  EXPECT_EQ(silent->Calls().size(), 2U);
  EXPECT_EQ(Record("slots").session, ClientRecord::RUNNING);
}

TEST_F(CampaignManagerTest, ClientsThatDiedHaveNoSession) {
  const std::string token = Register("radio", client_).token;
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  manager_->ClientDied(token);
  EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "orb-managerd", "client radio died"));
  EXPECT_FALSE(Record("radio").connected);
  EXPECT_EQ(manager_->StopCampaign("radio").message,
            "radio is not connected; its campaign will not start again");
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);

  // One that turns out dead when it is called.
  Register("radio", client_);
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  client_->AnswerWith(android::DEAD_OBJECT);
  EXPECT_EQ(manager_->StopCampaign("radio").status, ControlReply::DONE);
  EXPECT_FALSE(Record("radio").connected);
  EXPECT_EQ(Record("radio").session, ClientRecord::NONE);
}

// A client's lives, one letter each: d dies just within a minute of its campaign's start,
// D a minute after it, s during the start; x leaves in order; b goes with the bus; r refuses the
// campaign and dies; m the manager is another one from here on.
TEST_F(CampaignManagerTest, QuarantinesACampaignOfWhichItsClientDies) {
  const struct {
    const char* lives;
    bool quarantined;
  } kCases[] = {
      {"dd", false},    {"ddd", true},    {"dddx", true},   {"sss", true},
      {"ddDd", false},  {"ddDddd", true}, {"ddxdd", false}, {"dmdmdm", true},
      {"ddrrr", false}, {"ddrd", true},   {"dddmDx", true}, {"bbb", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.lives);
    const std::string name = c.lives;
    const std::string first = Register(name, client_).token;
    ASSERT_EQ(Start(name).status, ControlReply::DONE);
    manager_->Deregister(first);
    for (const char life : name) life == 'm' ? Restart() : Live(name, life);
    EXPECT_EQ(Record(name).session,
              c.quarantined ? ClientRecord::QUARANTINED : ClientRecord::WAITING);
  }
  EXPECT_TRUE(log_.Contains(
      "client ddd died 3 times in a row soon after its campaign's start: campaign 9 is in "
      "quarantine, until orbctl campaign release"));
}

TEST_F(CampaignManagerTest, QuarantineEndsByReleaseOrANewCampaign) {
  Register("radio", client_);
  ASSERT_EQ(Start("radio").status, ControlReply::DONE);
  EXPECT_EQ(manager_->ReleaseCampaign("radio").message, "no campaign of radio is in quarantine");
  EXPECT_EQ(manager_->ReleaseCampaign("nobody").status, ControlReply::REFUSED);
  ASSERT_EQ(manager_->SetLicSn("radio", 77, false).status, ControlReply::DONE);
  for (int i = 0; i < 3; ++i) Live("radio", 'd');
  const sp<FakeClient> again = new FakeClient();
  const std::string token = Register("radio", again).token;
  EXPECT_TRUE(log_.Contains("client radio: campaign 9 stays in quarantine"));
  EXPECT_TRUE(Record("radio").connected);
  EXPECT_EQ(Record("radio").session, ClientRecord::QUARANTINED);
  EXPECT_EQ(manager_->ReleaseCampaign("radio").message, "");
  EXPECT_EQ(Record("radio").session, ClientRecord::RUNNING);
  EXPECT_EQ(Record("radio").stoppedLicSNs, (std::vector<int64_t>{77}));
  manager_->ClientDied(token);
  for (int i = 0; i < 2; ++i) Live("radio", 'd');
  EXPECT_EQ(manager_->ReleaseCampaign("radio").message, "it starts when radio returns");
  EXPECT_EQ(Record("radio").session, ClientRecord::WAITING);
  for (int i = 0; i < 3; ++i) Live("radio", 'd');
  Register("radio", client_);
  EXPECT_EQ(Start("radio", 10).status, ControlReply::DONE);
  EXPECT_EQ(Record("radio").session, ClientRecord::RUNNING);
}

// What follows the method's code is no request: nothing of it may be read for others.
TEST_F(CampaignManagerTest, ControlAnswersOperatorsOnly) {
  const struct {
    uid_t caller;
    android::status_t status;
  } kCases[] = {
      {0, android::BAD_TYPE},
      {getuid(), android::BAD_TYPE},
      {getuid() + 1, android::OK},
      {kNoUser, android::OK},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.caller);
    const sp<ControlService> control = new ControlService(manager_, [&] { return c.caller; });
    android::Parcel reply;
    EXPECT_EQ(control->transact(BnOrbControl::TRANSACTION_startCampaign, {}, &reply), c.status);
    android::binder::Status answer;
    if (c.status != android::OK) continue;
    EXPECT_EQ(answer.readFromParcel(reply), android::OK);
    EXPECT_EQ(answer.exceptionCode(), android::binder::Status::EX_SECURITY);
    EXPECT_TRUE(log_.Contains("control refused to uid " + std::to_string(c.caller)));
  }
}

TEST_F(CampaignManagerTest, LetsAClientCallBackFromItsStart) {
  const KIVClientId id = Register("radio", client_);
  client_->OnStart([&] {
    manager_->CheckPending(id.token);
    EXPECT_TRUE(manager_->Deregister(Register("gps", client_).token));
    EXPECT_EQ(manager_->ListClients().size(), 2U);
    return 0;
  });
  EXPECT_EQ(Start("radio").status, ControlReply::DONE);
}

TEST_F(CampaignManagerTest, KeepsNobodyWaitingForAClientThatHangs) {
  Restart(milliseconds(500));
  std::promise<void> release;
  client_->OnStart([&] {
    release.get_future().wait();
    return 0;
  });
  const std::string token = Register("hung", client_).token;
  Register("radio", new FakeClient());
  const ControlReply reply = Start("hung");
  EXPECT_EQ(reply.status, ControlReply::FAILED);
  EXPECT_EQ(reply.message, "hung has not answered in time; it may still do what was asked");
  EXPECT_EQ(Start("radio").status, ControlReply::DONE);
  EXPECT_EQ(manager_->DumpClient("hung", UniqueFd(memfd_create("dump", 0))).status,
            ControlReply::DONE)
      << "that is when one wants to look";
  EXPECT_TRUE(manager_->Deregister(token));
  EXPECT_FALSE(manager_->StopBy(std::chrono::steady_clock::now()));
  release.set_value();
  EXPECT_TRUE(manager_->StopBy(std::chrono::steady_clock::now() + std::chrono::seconds(20)));
}

TEST_F(CampaignManagerTest, PassesOnWhatAClientSaysOfItself) {
  const std::string token = Register("radio", client_).token;
  const UniqueFd memory(memfd_create("dump", MFD_CLOEXEC));
  const auto dump = [&](const char* name) {
    return manager_->DumpClient(name, UniqueFd(dup(memory.get()))).message;
  };
  dump("radio");
  char text[100] = {};
  EXPECT_GT(pread(memory.get(), text, sizeof text - 1, 0), 0);
  EXPECT_EQ(text, "--token" + token);
  EXPECT_EQ(dump("gps"), "no client is called gps; see orbctl client list");
  client_->AnswerWith(android::NAME_NOT_FOUND);
  EXPECT_EQ(dump("radio"), "radio does not know of its registration yet");
  client_->AnswerWith(android::DEAD_OBJECT);
  EXPECT_EQ(dump("radio"), "radio died");
  EXPECT_EQ(dump("radio"), "radio is not connected");
}

TEST_F(CampaignManagerTest, AnswersWhoWaitsForAClientThatGoes) {
  std::promise<void> entered;
  std::promise<void> release;
  client_->OnStart([&] {
    entered.set_value();
    release.get_future().wait();
    return 0;
  });
  const std::string token = Register("radio", client_).token;
  auto first = std::async(std::launch::async, [&] { return Start("radio"); });
  entered.get_future().wait();
  auto second = std::async(std::launch::async, [&] { return manager_->StopCampaign("radio"); });
  // Whether the second call waits already or comes too late, it is answered.
  manager_->ClientDied(token);
  EXPECT_NE(second.get().status, ControlReply::DONE);
  release.set_value();
}

}  // namespace
}  // namespace orb::manager
