// The client's way to the manager, connecting, registering, losing it; and the
// manager's calls on their way to a collector.
#include <gtest/gtest.h>
#include <orb_platform/no_service_manager.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <thread>
#include <utility>

#include "tests/ipc/client_fixture.h"
#include "tests/support/wait_for.h"
#include "utility/unique_fd.h"

using android::String16;
using android::Vector;
using android::binder::Status;

namespace {

using Lines = std::vector<std::string>;
using ManagerClientTest = orb::test::ClientTest;

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
  EXPECT_EQ(client_->registerClient("radio", 2, 0x1ff, collector), 0);
  EXPECT_EQ(TakeLog(),
            (Lines{
                "I registerClient: called",
                "I registerClient - created threadpool",
                "I initOrbVHandle - getting new instance of orb client binder",
                "I initOrbVHandle - got new instance of orb client binder",
                "I initOrbVHandle: linkToDeath status: 0",
                "I registerClient success. Token received - token-1 , client id received - 41",
            }));
  EXPECT_EQ(collector->Token(), "token-1");
  EXPECT_EQ(collector->ClientId(), 41);
  EXPECT_EQ(manager_->Calls(), Lines{"register radio 2 -1"});  // The low byte, signed.
}

TEST_F(ManagerClientTest, RefusalsAreReportedAndLeaveNoTrace) {
  StartManager();
  kiv_collector* const collector = NewCollector("radio");
  manager_->SetHook([](const std::string&) { return Status::fromServiceSpecificError(3); });
  EXPECT_EQ(client_->registerClient("radio", 2, 0, collector), -1);
  EXPECT_TRUE(Logged("registerClient - failed with error - -8"));
  EXPECT_EQ(collector->Token(), "");
  manager_->SetHook(nullptr);
  EXPECT_EQ(client_->registerClient("radio", 2, 0, collector), 0);
}

TEST_F(ManagerClientTest, DeregistrationForgetsTheTokenWhateverTheAnswer) {
  StartManager();
  for (const bool fails : {false, true}) {
    SCOPED_TRACE(fails);
    kiv_collector* const collector = NewCollector("radio");
    ASSERT_EQ(client_->registerClient("radio", 2, 0, collector), 0);
    const std::string token = collector->Token();
    EXPECT_EQ(manager_->StartSession(token, 1), 0);
    manager_->SetHook([&](const std::string&) {
      return fails ? Status::fromServiceSpecificError(3) : Status::ok();
    });
    EXPECT_EQ(client_->deRegisterClient(token), fails ? -1 : 0);
    EXPECT_EQ(Logged("deRegisterClient - failed with error - -8"), fails);
    EXPECT_EQ(manager_->StartSession(token, 2), -1);
    EXPECT_TRUE(Logged("StartSession - No entry found for token: " + token));
    EXPECT_EQ(manager_->Calls().back(), "deregister " + token);
    manager_->SetHook(nullptr);
  }
}

TEST_F(ManagerClientTest, ManagerDeathReachesEveryCollectorAndEachReturns) {
  StartManager();
  for (const char* name : {"a", "b", "c"}) ASSERT_NE(Register(name), nullptr);
  EXPECT_EQ(manager_->StartSession("token-2", 1), 0);
  const android::sp<orb::test::FakeManager> dead = manager_;
  log_.Clear();
  KillManager();
  EXPECT_TRUE(log_.WaitFor("c::LostConn deleteing client instance for token - ", 3));
  EXPECT_EQ(log_.Count("OrbvDeathRecipient - ORB Server has died"), 1u);
  EXPECT_TRUE(log_.Contains("b: StopCustomSession called for token - token-2"));
  EXPECT_EQ(dead->StartSession("token-1", 1), -1) << "a token is left";

  StartManager();
  EXPECT_TRUE(log_.WaitFor("MGR registration succeeded", 3));
  EXPECT_EQ(manager_->StartSession("token-3", 2), 0);
}

TEST_F(ManagerClientTest, AManagerThatDiesWhenItIsFoundIsNotKept) {
  kiv_collector* const collector = NewCollector("radio");
  Services()->all_dead = true;
  EXPECT_EQ(client_->registerClient("radio", 2, 0, collector), -1);
  EXPECT_TRUE(log_.Contains("initOrbVHandle: linkToDeath status: -32"));
  Services()->all_dead = false;
  StartManager();
  EXPECT_EQ(client_->registerClient("radio", 2, 0, collector), 0);
}

// Android's libraries wait for the service manager in every look-up.
TEST_F(ManagerClientTest, NothingWaitsForAServiceManagerThatIsAbsent) {
  auto absent = std::make_unique<orb_platform::NoServiceManager>();
  const auto fresh = std::make_shared<kivAIDLClient>();
  orb::test::WriteFile(dir_ + "orb_sdk.conf",
                       "register_max_retries=1\nregister_retry_wait_sec=-1\n");
  kiv_collector* const gives_up = NewCollector("radio");
  gives_up->SetClientForTest(fresh);
  EXPECT_EQ(gives_up->Register(), -1) << "attempts are counted";
  EXPECT_TRUE(Logged("initOrbVHandle - orbsdkservice service not available yet"));

  orb::test::WriteFile(dir_ + "orb_sdk.conf", "register_max_retries=1000\n");
  log_.Clear();
  kiv_collector* const waits = NewCollector("radio");
  waits->SetClientForTest(fresh);
  auto registered = std::async(std::launch::async, [&] { return waits->Register(); });
  EXPECT_TRUE(log_.WaitFor("created threadpool"));
  EXPECT_EQ(kiv_set_fd(waits, 0, 0, 64, nullptr), nullptr);
  EXPECT_EQ(waits->DeRegister(), -1);
  EXPECT_EQ(registered.get(), -1);

  absent.reset();
  EXPECT_TRUE(fresh->serviceManager().Await([] { return false; }));
}

// The HAL's process stands still, for example: looking it up takes seconds.
TEST_F(ManagerClientTest, RegistersWhileALookUpOfTheHalWaits) {
  StartManager();
  std::promise<void> answer;
  Services()->on_check = [wait = answer.get_future().share()](const std::string& name) {
    if (name != kManagerService) wait.wait();
  };
  const auto fresh = std::make_shared<kivAIDLClient>();
  EXPECT_EQ(fresh->registerClient("radio", 2, 0, NewCollector("radio")), 0);
  answer.set_value();
  uint32_t region = 0;
  EXPECT_EQ(fresh->setupFD(0, 0, 64, nullptr, &region), -1) << "waits for the look-up's end";
  Services()->on_check = nullptr;
  KillManager();  // While the client is there that hears of it.
}

// The answer of a manager that has died since is void: nothing would tell the
// collector of the death.
TEST_F(ManagerClientTest, ADeathInsideARegistrationIsNotLost) {
  StartManager();
  bool died = false;
  manager_->SetHook([&](const std::string&) {
    if (!std::exchange(died, true)) client_->processLostManagerConn();
    return Status::ok();
  });
  kiv_collector* const collector = Register("radio");
  ASSERT_NE(collector, nullptr);
  EXPECT_TRUE(Logged("registerClient - failed with error - -129"));
  EXPECT_EQ(manager_->Calls(), (Lines{"register radio 2 7", "register radio 2 7"}));
  EXPECT_EQ(manager_->StartSession("token-2", 1), 0);

  // The token of a manager that is gone may be another's by now.
  manager_->SetHook([&](const std::string&) {
    client_->processLostManagerConn();
    client_->routes().Add("token-2", collector);
    return Status::ok();
  });
  EXPECT_EQ(client_->deRegisterClient("token-2"), 0);
  EXPECT_TRUE(client_->routes().Find("token-2"));
}

TEST_F(ManagerClientTest, NoCollectorIsLostWhereverTheManagerDies) {
  orb::test::WriteFile(dir_ + "orb_sdk.conf",
                       "register_max_retries=1000000\nregister_retry_wait_sec=-1\n");
  StartManager();
  std::vector<kiv_collector*> stay;
  for (const char* name : {"a", "b", "c"}) stay.push_back(Register(name));
  std::atomic<bool> stop{false};
  std::vector<std::thread> come_and_go;
  for (int i = 0; i < 2; ++i) {
    come_and_go.emplace_back([&] {
      while (!stop) {
        kiv_cfg_s record = Record("guest");
        kiv_deregister(kiv_register(&record));
      }
    });
  }
  for (int round = 0; round < 20; ++round) {
    const size_t before = log_.Count("MGR registration succeeded");
    Services()->Kill(kManagerService);
    StartManager();
    EXPECT_TRUE(log_.WaitFor("MGR registration succeeded", before + 1));
  }
  stop = true;
  for (std::thread& thread : come_and_go) thread.join();
  for (kiv_collector* const collector : stay) {
    EXPECT_TRUE(orb::test::WaitFor([&] {
      const auto found = client_->routes().Find(collector->Token());
      return found && found.operator->() == collector;
    })) << collector->name();
  }
}

TEST_F(ManagerClientTest, CallsOfTheManagerInsideOurCallsDoNotBlock) {
  StartManager();
  int32_t started = 0;
  manager_->SetHook([&](const std::string& token) {
    started = manager_->StartSession(token, 1);
    return Status::ok();
  });
  kiv_collector* const collector = Register("radio");
  ASSERT_NE(collector, nullptr);
  EXPECT_EQ(started, -1);
  EXPECT_EQ(manager_->StartSession("token-1", 1), 0);
  int stopped = -1;
  manager_->SetHook([&](const std::string& token) {
    stopped = manager_->Callback()->StopSession(token, 1).exceptionCode();
    return Status::ok();
  });
  EXPECT_EQ(Deregister(collector), 0);
  EXPECT_EQ(stopped, 0);
}

using KIVCallbackImplTest = orb::test::ClientTest;

TEST_F(KIVCallbackImplTest, UnknownTokensAreAnsweredAndLogged) {
  StartManager();
  ASSERT_NE(Register("radio"), nullptr);
  log_.Clear();
  EXPECT_EQ(manager_->StartSession("other", 1), -1);
  EXPECT_TRUE(manager_->Callback()->StopSession("", 1).isOk());
  EXPECT_TRUE(manager_->Callback()->StartSessionforLicSN("token-11", 1, 5).isOk());
  EXPECT_TRUE(manager_->Callback()->StopSessionforLicSN("token-", 1, 5).isOk());
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
  EXPECT_EQ(manager_->StartSession("token-1", -2), 0);
  EXPECT_EQ(collector->GetCampaignId(), 0xfffffffffffffffeu);

  log_.Clear();
  manager_->Callback()->StartSessionforLicSN("token-1", 77, -1);
  EXPECT_EQ(TakeLog().front(),
            "I StartSessionforLicSN - camp start event received for LicSN - 18446744073709551615"
            " camp id -  77  token - token-1");
  manager_->Callback()->StopSessionforLicSN("token-1", -77, 5);
  EXPECT_EQ(TakeLog().front(),
            "I StopSessionforLicSN - camp stop event received for LicSN - 5"
            " camp id - -77  token - token-1");

  // The campaign is not compared with the running one.
  manager_->Callback()->StopSession("token-1", 12345);
  EXPECT_EQ(TakeLog().front(),
            "I StopSession - camp stop event received, camp id -  12345  token - token-1");
  EXPECT_EQ(manager_->StartSession("token-1", 3), 0);  // Free again.
}

TEST_F(KIVCallbackImplTest, DumpDescribesTheCollectors) {
  StartManager();
  ASSERT_NE(Register("radio"), nullptr);
  ASSERT_NE(Register("sensor"), nullptr);
  // The names in the dump, or the error.
  const auto dump = [&](const orb::UniqueFd& fd, const Lines& words) -> std::string {
    Vector<String16> args;
    for (const std::string& word : words) args.add(String16(word.c_str()));
    const auto callback = android::IInterface::asBinder(manager_->Callback());
    const android::status_t status = callback->dump(fd.get(), args);
    if (status != android::OK) return std::to_string(status);
    char bytes[4096];
    const ssize_t got = pread(fd.get(), bytes, sizeof bytes, 0);
    const std::string text(bytes, got > 0 ? static_cast<size_t>(got) : 0);
    std::string names;
    for (const char* name : {"radio", "sensor"}) {
      if (text.find("client.name: \"" + std::string(name)) != std::string::npos) names += name;
    }
    return names;
  };
  const auto memory = [] { return orb::UniqueFd(memfd_create("dump", MFD_CLOEXEC)); };
  EXPECT_EQ(dump(memory(), {}), "radiosensor");
  EXPECT_EQ(dump(memory(), {"--token", "token-1"}), "radio");
  EXPECT_EQ(dump(memory(), {"--token", "other"}), std::to_string(android::NAME_NOT_FOUND));
  EXPECT_EQ(dump(memory(), {"--token"}), std::to_string(android::BAD_VALUE));

  // Whoever asked has gone, which is no reason to end the host.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  EXPECT_EQ(dump(orb::UniqueFd(ends[1]), {}), std::to_string(-EPIPE));
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

}  // namespace
