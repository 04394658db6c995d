// Campaigns that are given back: to clients that return, that are not ready, whose slots
// went with a HAL, and that die of them.
#include <android/log.h>
#include <gtest/gtest.h>

#include "tests/services/campaign_manager_fixture.h"

namespace orb::manager {
namespace {

using android::sp;
using orb::test::FakeClient;
using orb::test::WaitFor;
using std::chrono::milliseconds;
using Calls = std::vector<std::string>;

std::vector<int64_t> Stopped(const ClientRecord& record) {
  return {record.stopped_lic_sns().begin(), record.stopped_lic_sns().end()};
}

TEST_F(CampaignManagerTest, GivesAReturningClientItsCampaignBack) {
  const std::string first = Run("radio", client_);
  ASSERT_EQ(Switch("radio", 77, false), ControlReply::DONE);
  const ClientRecord record = Record("radio");
  EXPECT_EQ(record.camp_id(), 9);
  EXPECT_EQ(std::vector<int64_t>(record.lic_sns().begin(), record.lic_sns().end()),
            (std::vector<int64_t>{42, 77}));
  EXPECT_EQ(Stopped(record), std::vector<int64_t>{77});
  manager_->Deregister(first);
  EXPECT_EQ(Session("radio"), ClientRecord::WAITING);

  Restart();
  EXPECT_EQ(Session("radio"), ClientRecord::WAITING);
  const sp<FakeClient> again = new FakeClient();
  const std::string call = " " + Register("radio", again).token + " 9";
  ASSERT_TRUE(WaitLastCall(again, "lic-stop" + call + " 77"));
  ASSERT_TRUE(WaitSession("radio", ClientRecord::RUNNING));
  EXPECT_EQ(again->Started(), ToConfig(Campaign(9)));
  EXPECT_EQ(Stopped(Record("radio")), std::vector<int64_t>{77});
  EXPECT_EQ(Switch("radio", 77, true), ControlReply::DONE);
  EXPECT_TRUE(Stopped(Record("radio")).empty());
  EXPECT_EQ(manager_->StopCampaign("radio").status(), ControlReply::DONE);
  EXPECT_EQ(again->Calls(), (Calls{"start" + call, "lic-stop" + call + " 77",
                                   "lic-start" + call + " 77", "stop" + call}));
  EXPECT_EQ(Session("radio"), ClientRecord::NONE);
}

TEST_F(CampaignManagerTest, TriesAgainWhileAClientDoesNotYetKnowItsToken) {
  Run("radio", client_);
  const sp<FakeClient> late = new FakeClient();
  int attempts = 0;  // Only its one thread for calls counts, before the session runs.
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
  Run("radio", client_);
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
  EXPECT_EQ(manager_->StopCampaign("radio").status(), ControlReply::DONE);
  attempts = 0;
  EXPECT_EQ(Start("radio").status(), ControlReply::REFUSED);
  EXPECT_EQ(Session("radio"), ClientRecord::NONE);
}

TEST_F(CampaignManagerTest, OperatorsDoNotWaitForTheNextAttempt) {
  waits_ = {milliseconds(0), std::chrono::hours(1)};
  Restart();
  Run("radio", client_);
  const sp<FakeClient> refuses = new FakeClient();
  std::atomic<int> attempts{0};
  refuses->OnStart([&] { return ++attempts == 1 ? -5 : 0; });
  Register("radio", refuses);
  ASSERT_TRUE(WaitFor([&] { return attempts == 1; }));
  EXPECT_EQ(manager_->SetLicSn("radio", 42, true).message(), "no campaign runs on radio");
  // The HAL that was missing is there: no need to wait.
  manager_->HalCame();
  EXPECT_TRUE(WaitSession("radio", ClientRecord::RUNNING));
  EXPECT_EQ(manager_->StopCampaign("radio").status(), ControlReply::DONE);
}

TEST_F(CampaignManagerTest, RenewsSessionsWhoseSlotsWentWithAHal) {
  manager_->HalCame();
  const sp<FakeClient> files = new FakeClient();
  const sp<FakeClient> silent = new FakeClient();
  client_->Say("client.name: \"slots\"\nclient.mode: slots\n");
  files->Say("client.name: \"files\"\nclient.mode: files\n");
  const std::string call = " " + Run("slots", client_) + " 9";
  Run("files", files);
  Run("silent", silent);
  ASSERT_EQ(Switch("slots", 77, false), ControlReply::DONE);
  manager_->HalDied();
  manager_->HalCame();
  const Calls renewed = {"start" + call, "lic-stop" + call + " 77", "stop" + call, "start" + call,
                         "lic-stop" + call + " 77"};
  EXPECT_TRUE(WaitFor([&] { return client_->Calls() == renewed; }));
  // Once for each HAL.
  manager_->CheckPending(call.substr(1, 32));
  for (const char* name : {"slots", "files", "silent"}) {
    EXPECT_EQ(Switch(name, 42, true), ControlReply::DONE);
  }
  EXPECT_EQ(client_->Calls().size(), renewed.size() + 1);
  EXPECT_EQ(files->Calls().size(), 2U);
  EXPECT_EQ(silent->Calls().size(), 2U);
  EXPECT_EQ(Session("slots"), ClientRecord::RUNNING);
}

TEST_F(CampaignManagerTest, ClientsThatDiedHaveNoSession) {
  manager_->ClientDied(Run("radio", client_));
  EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "orb-managerd", "client radio died"));
  EXPECT_FALSE(Record("radio").connected());
  EXPECT_EQ(manager_->StopCampaign("radio").message(),
            "radio is not connected; its campaign will not start again");
  EXPECT_EQ(Session("radio"), ClientRecord::NONE);

  // One that turns out dead when it is called.
  Run("radio", client_);
  client_->AnswerWith(android::DEAD_OBJECT);
  EXPECT_EQ(manager_->StopCampaign("radio").status(), ControlReply::DONE);
  EXPECT_FALSE(Record("radio").connected());
  EXPECT_EQ(Session("radio"), ClientRecord::NONE);
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
    manager_->Deregister(Run(name, client_));
    for (const char life : name) life == 'm' ? Restart() : Live(name, life);
    EXPECT_EQ(Session(name), c.quarantined ? ClientRecord::QUARANTINED : ClientRecord::WAITING);
  }
  EXPECT_TRUE(log_.Contains(
      "client ddd died 3 times in a row soon after its campaign's start: campaign 9 is in "
      "quarantine, until orbctl campaign release"));
}

TEST_F(CampaignManagerTest, QuarantineEndsByReleaseOrANewCampaign) {
  const auto release = [&] { return manager_->ReleaseCampaign("radio").message(); };
  const auto live = [&](const char* lives) {
    while (*lives != 0) Live("radio", *lives++);
  };
  Run("radio", client_);
  EXPECT_EQ(release(), "no campaign of radio is in quarantine");
  EXPECT_EQ(manager_->ReleaseCampaign("nobody").status(), ControlReply::REFUSED);
  ASSERT_EQ(Switch("radio", 77, false), ControlReply::DONE);
  live("ddd");
  const std::string token = Register("radio", client_).token;
  EXPECT_TRUE(log_.Contains("client radio: campaign 9 stays in quarantine"));
  EXPECT_TRUE(Record("radio").connected());
  EXPECT_EQ(Session("radio"), ClientRecord::QUARANTINED);
  EXPECT_EQ(release(), "");
  EXPECT_EQ(Session("radio"), ClientRecord::RUNNING);
  EXPECT_EQ(Stopped(Record("radio")), std::vector<int64_t>{77});
  manager_->ClientDied(token);
  live("dd");
  EXPECT_EQ(release(), "it starts when radio returns");
  EXPECT_EQ(Session("radio"), ClientRecord::WAITING);
  live("ddd");
  Register("radio", client_);
  EXPECT_EQ(Start("radio", 10).status(), ControlReply::DONE);
  EXPECT_EQ(Session("radio"), ClientRecord::RUNNING);
}

}  // namespace
}  // namespace orb::manager
