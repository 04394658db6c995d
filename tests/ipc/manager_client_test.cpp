// The client's way to the manager, connecting, registering, losing it; and the
// manager's calls on their way to a collector.
#include <android/log.h>
#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "tests/ipc/client_fixture.h"

using android::binder::Status;
using orb::test::FakeManager;

namespace {

using Lines = std::vector<std::string>;
using ManagerClientTest = orb::test::ClientTest;

KIVCampConfig Campaign(int64_t id) {
  KIVCampConfig config;
  config.campId = id;
  return config;
}

TEST_F(ManagerClientTest, RegistersOnceTheManagerIsThere) {
  kiv_collector* const collector = NewCollector("radio");
  log_.Clear();
  EXPECT_EQ(client_->registerClient("radio", 2, 0x1ff, collector), -1);
  EXPECT_EQ(TakeLog(), (Lines{
                           "I registerClient: called",
                           "I registerClient - created threadpool",
                           "I initOrbVHandle - getting new instance of orb client binder",
                           "E initOrbVHandle - orbsdkservice service not available yet",
                           "E registerClient failed to init IPC",
                       }));
  EXPECT_EQ(client_->deRegisterClient("tok"), -1);
  EXPECT_EQ(TakeLog(), (Lines{
                           "I deRegisterClient called for token - tok",
                           "E deRegisterClient - Failed to get orb manager handle",
                       }));

  StartManager();
  manager_->AssignAlways("tok", 42);
  EXPECT_EQ(client_->registerClient("radio", 2, 0x1ff, collector), 0);
  EXPECT_EQ(TakeLog(),
            (Lines{
                "I registerClient: called",
                "I registerClient - created threadpool",
                "I initOrbVHandle - getting new instance of orb client binder",
                "I initOrbVHandle - got new instance of orb client binder",
                "I initOrbVHandle: linkToDeath status: 0",
                "I registerClient success. Token received - tok , client id received - 42",
            }));
  EXPECT_EQ(collector->Token(), "tok");
  EXPECT_EQ(collector->ClientId(), 42);
  ASSERT_EQ(manager_->Registrations().size(), 1u);
  const KIVClientInfo info = manager_->Registrations()[0].info;
  EXPECT_EQ(info.clientName, "radio");
  EXPECT_EQ(info.clientType, 2);
  EXPECT_EQ(info.clientOption, -1);  // The low byte, signed.
}

TEST_F(ManagerClientTest, RefusalsAreReportedAndLeaveNoTrace) {
  StartManager();
  kiv_collector* const collector = NewCollector("radio");
  const struct {
    Status answer;
    const char* line;
  } kRefusals[] = {
      {Status::fromExceptionCode(Status::EX_ILLEGAL_STATE),
       "registerClient - failed with error - -5"},
      {Status::fromServiceSpecificError(3), "registerClient - failed with error - -8"},
      {Status::fromStatusT(android::FAILED_TRANSACTION),
       "registerClient - failed with error - -129"},
  };
  for (const auto& refusal : kRefusals) {
    SCOPED_TRACE(refusal.line);
    manager_->FailCall(1, refusal.answer);
    EXPECT_EQ(client_->registerClient("radio", 2, 0, collector), -1);
    EXPECT_TRUE(log_.Has(ANDROID_LOG_ERROR, "orb_sdk", refusal.line)) << log_.Dump();
    EXPECT_EQ(collector->Token(), "");
  }
  EXPECT_EQ(client_->registerClient("radio", 2, 0, collector), 0);
}

TEST_F(ManagerClientTest, DeregistrationForgetsTheTokenWhateverTheAnswer) {
  StartManager();
  for (const bool fails : {false, true}) {
    SCOPED_TRACE(fails);
    kiv_collector* const collector = NewCollector("radio");
    ASSERT_EQ(client_->registerClient("radio", 2, 0, collector), 0);
    const std::string token = collector->Token();
    EXPECT_EQ(manager_->StartSession(token, Campaign(1)), 0);
    if (fails) manager_->FailCall(1, Status::fromServiceSpecificError(3));
    EXPECT_EQ(client_->deRegisterClient(token), fails ? -1 : 0);
    EXPECT_EQ(log_.Has(ANDROID_LOG_ERROR, "orb_sdk", "deRegisterClient - failed with error - -8"),
              fails);
    EXPECT_EQ(manager_->StartSession(token, Campaign(2)), -1);
    EXPECT_TRUE(log_.Has(ANDROID_LOG_ERROR, "orb_sdk",
                         "StartSession - No entry found for token: " + token));
  }
  EXPECT_EQ(manager_->Deregistrations(), std::vector<std::string>{"token-1"});
}

TEST_F(ManagerClientTest, ManagerDeathReachesEveryCollectorAndEachReturns) {
  StartManager();
  for (const char* name : {"a", "b", "c"}) ASSERT_NE(Register(name), nullptr);
  EXPECT_EQ(manager_->StartSession("token-2", Campaign(1)), 0);
  const android::sp<IKIVCallback> callback = manager_->Registrations()[0].callback;
  log_.Clear();
  KillManager();
  EXPECT_TRUE(log_.WaitFor("c::LostConn deleteing client instance for token - ", 3));
  EXPECT_EQ(log_.Count("OrbvDeathRecipient - ORB Server has died"), 1u);
  EXPECT_TRUE(log_.Contains("b: StopCustomSession called for token - token-2"));

  // No token is left.
  int32_t result = 0;
  EXPECT_TRUE(callback->StartSession("token-1", Campaign(1), &result).isOk());
  EXPECT_EQ(result, -1);

  StartManager();
  EXPECT_TRUE(manager_->WaitForRegistrations(3));
  EXPECT_TRUE(log_.WaitFor("MGR registration succeeded", 3));
  EXPECT_EQ(manager_->StartSession("token-3", Campaign(2)), 0);
}

TEST_F(ManagerClientTest, AManagerThatDiesWhenItIsFoundIsNotKept) {
  StartManager();
  Services()->KillAfter(2);
  kiv_collector* const collector = NewCollector("radio");
  EXPECT_EQ(client_->registerClient("radio", 2, 0, collector), -1);
  EXPECT_TRUE(log_.Contains("initOrbVHandle: linkToDeath status: -32"));
  StartManager();
  EXPECT_EQ(client_->registerClient("radio", 2, 0, collector), 0);
}

TEST_F(ManagerClientTest, CallsOfTheManagerInsideOurCallsDoNotBlock) {
  StartManager();
  FakeManager* const manager = manager_.get();
  int32_t started = 0;
  manager_->OnRegister([&](const FakeManager::Registration& registration) {
    EXPECT_TRUE(
        registration.callback->StartSession(registration.id.token, Campaign(1), &started).isOk());
  });
  int stopped = -1;
  manager_->OnDeregister(
      [&](const std::string& token) { stopped = manager->StopSession(token, 1); });
  kiv_collector* const collector = Register("radio");
  ASSERT_NE(collector, nullptr);
  EXPECT_EQ(started, -1);
  EXPECT_TRUE(
      log_.Has(ANDROID_LOG_ERROR, "orb_sdk", "StartSession - No entry found for token: token-1"));
  EXPECT_EQ(manager_->StartSession("token-1", Campaign(1)), 0);
  EXPECT_EQ(Deregister(collector), 0);
  EXPECT_EQ(stopped, 0);
}

TEST_F(ManagerClientTest, DeregisterWaitsForACallbackUnderWay) {
  StartManager();
  kiv_collector* const collector = Register("radio");
  ASSERT_NE(collector, nullptr);
  std::promise<void> entered, leave;
  on_start = [&](kiv_collector*) {
    entered.set_value();
    leave.get_future().wait();
    return 7;
  };
  auto start = std::async(std::launch::async,
                          [&] { return manager_->StartSession("token-1", Campaign(1)); });
  entered.get_future().wait();
  auto gone = std::async(std::launch::async, [&] { return Deregister(collector); });
  leave.set_value();
  EXPECT_EQ(start.get(), 7);
  EXPECT_EQ(gone.get(), 0);
}

using KIVCallbackImplTest = orb::test::ClientTest;

TEST_F(KIVCallbackImplTest, UnknownTokensAreAnsweredAndLogged) {
  StartManager();
  ASSERT_NE(Register("radio"), nullptr);
  log_.Clear();
  EXPECT_EQ(manager_->StartSession("other", Campaign(1)), -1);
  EXPECT_EQ(manager_->StopSession("", 1), 0);
  EXPECT_EQ(manager_->StartSessionforLicSN("token-11", 1, 5), 0);
  EXPECT_EQ(manager_->StopSessionforLicSN("token-", 1, 5), 0);
  EXPECT_EQ(TakeLog(), (Lines{
                           "E StartSession - No entry found for token: other",
                           "E StopSession - No entry found for token: ",
                           "E StartSessionforLicSN - No entry found for token: token-11",
                           "E StopSessionforLicSN - No entry found for token: token-",
                       }));
}

TEST_F(KIVCallbackImplTest, EventsAreLoggedAndReachTheCollector) {
  StartManager();
  kiv_collector* const collector = Register("radio");
  ASSERT_NE(collector, nullptr);
  EXPECT_EQ(manager_->StartSession("token-1", Campaign(-2)), 0);
  EXPECT_EQ(collector->GetCampaignId(), 0xfffffffffffffffeu);

  log_.Clear();
  manager_->StartSessionforLicSN("token-1", 77, -1);
  EXPECT_EQ(TakeLog().front(),
            "I StartSessionforLicSN - camp start event received for LicSN - 18446744073709551615"
            " camp id -  77  token - token-1");
  manager_->StopSessionforLicSN("token-1", -77, 5);
  EXPECT_EQ(TakeLog().front(),
            "I StopSessionforLicSN - camp stop event received for LicSN - 5"
            " camp id - -77  token - token-1");

  // The campaign is not compared with the running one.
  manager_->StopSession("token-1", 12345);
  const Lines lines = TakeLog();
  EXPECT_EQ(lines.front(),
            "I StopSession - camp stop event received, camp id -  12345  token - token-1");
  EXPECT_EQ(manager_->StartSession("token-1", Campaign(3)), 0);  // Free again.
}

}  // namespace
