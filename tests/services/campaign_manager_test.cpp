// Registrations, operators, and clients that refuse and hang.
#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <future>

#include "tests/services/campaign_manager_fixture.h"

namespace orb::manager {
namespace {

using android::sp;
using orb::test::FakeClient;
using orb::test::WaitFor;
using std::chrono::milliseconds;

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
