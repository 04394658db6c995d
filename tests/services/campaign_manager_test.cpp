// Registrations, operators, and clients that refuse and hang.
#include <android/log.h>
#include <gtest/gtest.h>

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
  EXPECT_TRUE(record.connected());
  EXPECT_EQ(record.client_type(), 3);
  EXPECT_EQ(record.client_option(), -1);
  EXPECT_GT(record.connected_since_ms(), 0);
}

TEST_F(CampaignManagerTest, RefusesHostileRegistrations) {
  const std::string long_name(CampaignManager::kMaxNameBytes + 1, 'x');
  for (const std::string& name : {std::string(), std::string("a\nb"), long_name}) {
    Register(name, client_, false);
  }
  Register("a\xC2\x9B", client_, false);
  Register("radio", nullptr, false);
  EXPECT_EQ(log_.Count("registration refused to uid 1000: "), 5U);
  for (const char* name : {"a/b", "../radio", ".hidden", "."}) Register(name, client_, false);
  EXPECT_EQ(log_.Count("refused to uid 1000: a name with a slash or a dot in front"), 4U);
  Register("a.b\xC3\xBC " + std::string(CampaignManager::kMaxNameBytes - 6, 'x'), client_);
  EXPECT_EQ(manager_->ListClients().size(), 1U);
}

TEST_F(CampaignManagerTest, AnotherUserCannotTakeAName) {
  const std::string token = Run("radio", client_);
  const sp<FakeClient> thief = new FakeClient();
  Register("radio", thief, false, kUser + 1);
  EXPECT_TRUE(
      log_.Contains("registration of radio refused to uid 1001: the name belongs to uid "
                    "1000; orbctl client forget releases it"));
  manager_->Deregister(token);
  Register("radio", thief, false, kUser + 1);
  EXPECT_EQ(Record("radio").owner_uid(), kUser);
  Register("radio", client_);
  EXPECT_TRUE(WaitSession("radio", ClientRecord::RUNNING));
  EXPECT_TRUE(thief->Calls().empty());
}

// A process that records unseen would go on for ever.
TEST_F(CampaignManagerTest, TellsAFormerProcessToStop) {
  const std::string token = Run("radio", client_);
  const sp<FakeClient> second = new FakeClient();
  Register("radio", second);
  EXPECT_TRUE(WaitLastCall(client_, "stop " + token + " 9"));
  ASSERT_TRUE(WaitSession("radio", ClientRecord::RUNNING)) << "the second one, meanwhile";

  // One that is in its start is stopped after it, and its campaign is not kept.
  const sp<FakeClient> third = new FakeClient();
  Gate gate;
  ASSERT_EQ(manager_->StopCampaign("radio").status(), ControlReply::DONE);
  const std::string late = Register("radio", third).token;
  third->OnStart([&] { return gate.Wait(); });
  auto start = std::async(std::launch::async, [&] { return Start("radio", 10); });
  gate.WaitEntered();
  Register("radio", second);
  gate.Release();
  EXPECT_EQ(start.get().message(), "radio has another registration by now");
  EXPECT_TRUE(WaitLastCall(third, "stop " + late + " 10"));
  EXPECT_EQ(Session("radio"), ClientRecord::NONE);
}

TEST_F(CampaignManagerTest, BoundsTheProcessesOfANameThatHang) {
  std::vector<Gate> gates(RegisteredClient::kMaxLeft + 1);
  Run("radio", client_);
  for (Gate& gate : gates) {
    const sp<FakeClient> hung = new FakeClient();
    hung->OnStart([&] { return gate.Wait(); });
    Register("radio", hung);
    gate.WaitEntered();
  }
  Register("radio", client_, false);
  EXPECT_TRUE(log_.Contains("its former registrations have not returned from their calls"));
  Register("gps", client_);
  for (Gate& gate : gates) gate.Release();
}

TEST_F(CampaignManagerTest, ForgetsAClientForRoot) {
  const auto forget = [&](uid_t caller, const char* name, bool force = false) {
    ControlRequest request;
    request.set_call(ControlRequest::FORGET_CLIENT);
    request.set_client(name);
    request.set_force(force);
    const sp<ControlService> control = new ControlService(manager_, [&] { return caller; });
    return control->Handle(request).message();
  };
  const std::string token = Run("radio", client_);
  const int32_t first_id = Record("radio").client_id();
  EXPECT_EQ(forget(kUser, "radio", true), "only root may have a client forgotten; try sudo");
  EXPECT_EQ(forget(0, "gps"), "no client is called gps; see orbctl client list");
  EXPECT_EQ(forget(0, "radio"), "radio is connected; end its daemon first, or give --force");
  EXPECT_EQ(forget(0, "radio", true), "");
  EXPECT_TRUE(WaitLastCall(client_, "stop " + token + " 9"));
  EXPECT_TRUE(manager_->ListClients().empty());
  EXPECT_FALSE(manager_->Deregister(token));

  const KIVClientId second = Register("radio", client_, true, kUser + 1);
  EXPECT_GT(second.clientId, first_id);
  EXPECT_EQ(Record("radio").owner_uid(), kUser + 1);
  EXPECT_EQ(Session("radio"), ClientRecord::NONE);
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
  size_t registered = 0;
  std::vector<std::string> last;
  for (auto& thread : threads) last.push_back(thread.get());
  for (const std::string& token : last) registered += manager_->Deregister(token) ? 1 : 0;
  EXPECT_EQ(registered, 1U);
  EXPECT_FALSE(Record("radio").connected());
}

TEST_F(CampaignManagerTest, TellsOperatorsWhyNot) {
  client_->OnStart([] { return 5; });
  Register("radio", client_);
  manager_->Deregister(Register("gps", client_).token);
  const ControlReply reply = Start("radio");
  EXPECT_EQ(reply.status(), ControlReply::REFUSED);
  EXPECT_EQ(reply.result(), 5);
  EXPECT_EQ(reply.message(), "radio refused the campaign with result 5; its log says why");
  EXPECT_EQ(Session("radio"), ClientRecord::NONE);
  EXPECT_EQ(Record("radio").last_result(), 5);
  const char* const nobody = "no client is called nobody; see orbctl client list";
  EXPECT_EQ(Start("nobody").message(), nobody);
  EXPECT_EQ(manager_->StopCampaign("nobody").message(), nobody);
  EXPECT_EQ(Start("gps").message(), "gps is not connected");
  EXPECT_EQ(manager_->StopCampaign("gps").message(), "no campaign runs on gps");
  EXPECT_EQ(manager_->SetLicSn("radio", 42, true).message(), "no campaign runs on radio");
  client_->OnStart({});
  ASSERT_EQ(Start("radio").status(), ControlReply::DONE);
  EXPECT_EQ(Start("radio", 10).message(), "campaign 9 runs on radio; stop it first");
  EXPECT_EQ(manager_->SetLicSn("radio", 43, true).message(), "campaign 9 of radio has no LicSN 43");
  client_->AnswerWith(android::FAILED_TRANSACTION);
  EXPECT_EQ(manager_->SetLicSn("radio", 42, false).message(),
            "the bus did not carry the call to radio or its answer");
  SavedCampaign large = Campaign(11);
  large.set_definition(std::string(1U << 20, 'x'));
  EXPECT_EQ(manager_->StartCampaign("radio", large).message(),
            "the campaign is too large for one transaction (1 MiB)");
}

TEST_F(CampaignManagerTest, LetsAClientCallBackFromItsStart) {
  const KIVClientId id = Register("radio", client_);
  client_->OnStart([&] {
    manager_->CheckPending(id.token);
    EXPECT_TRUE(manager_->Deregister(Register("gps", client_).token));
    EXPECT_EQ(manager_->ListClients().size(), 2U);
    return 0;
  });
  EXPECT_EQ(Start("radio").status(), ControlReply::DONE);
}

TEST_F(CampaignManagerTest, KeepsNobodyWaitingForAClientThatHangs) {
  Restart(milliseconds(500));
  Gate gate;
  client_->OnStart([&] { return gate.Wait(); });
  const std::string token = Register("hung", client_).token;
  const ControlReply reply = Start("hung");
  EXPECT_EQ(reply.status(), ControlReply::FAILED);
  EXPECT_EQ(reply.message(), "hung has not answered in time; it may still do what was asked");
  Run("radio", new FakeClient());
  EXPECT_EQ(manager_->DumpClient("hung").status(), ControlReply::DONE)
      << "that is when one wants to look";
  auto waits = std::async(std::launch::async, [&] { return manager_->StopCampaign("hung"); });
  EXPECT_TRUE(manager_->Deregister(token));
  EXPECT_NE(waits.get().status(), ControlReply::DONE) << "whether it waited or came too late";
  EXPECT_FALSE(manager_->StopBy(std::chrono::steady_clock::now()));
  gate.Release();
  EXPECT_TRUE(manager_->StopBy(std::chrono::steady_clock::now() + std::chrono::seconds(20)));
}

TEST_F(CampaignManagerTest, PassesOnWhatAClientSaysOfItself) {
  const std::string token = Register("radio", client_).token;
  const auto message = [&](const char* name) { return manager_->DumpClient(name).message(); };
  EXPECT_EQ(manager_->DumpClient("radio").dump(), "--token" + token);
  EXPECT_EQ(message("gps"), "no client is called gps; see orbctl client list");
  client_->Say(std::string((4U << 20) + 1, 'x'));
  EXPECT_EQ(message("radio"), "radio says more of itself than a client of this library does");
  client_->AnswerWith(android::NAME_NOT_FOUND);
  EXPECT_EQ(message("radio"), "radio does not know of its registration yet");
  client_->AnswerWith(android::DEAD_OBJECT);
  EXPECT_EQ(message("radio"), "radio died");
  EXPECT_EQ(message("radio"), "radio is not connected");
}

}  // namespace
}  // namespace orb::manager
