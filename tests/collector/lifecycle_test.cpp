// Registration and its end, the lost connection, and the refusal of a client
// that cannot register.
#include <atomic>
#include <future>
#include <thread>

#include "tests/collector/collector_fixture.h"

namespace orb::test {
namespace {

using std::chrono::seconds;

class LifecycleTest : public CollectorFixture {
 protected:
  // DeRegister on a thread of its own; it must return.
  std::future<int> DeRegisterLater() {
    return std::async(std::launch::async, [this] { return collector_->DeRegister(); });
  }
  int Get(std::future<int>& result) {
    if (result.wait_for(seconds(30)) != std::future_status::ready) {
      ADD_FAILURE() << "DeRegister does not return\n" << log_.Dump();
      abort();
    }
    return result.get();
  }
};

TEST_F(LifecycleTest, RetriesUntilItGivesUp) {
  const std::string failed =
      "radio: MGR registration failed - waiting for -1 seconds before retrying";
  const struct {
    const char* retries;
    int failures;
    uint32_t client_mode;  // 2: without a client.
    int want;
    size_t want_calls;
    size_t want_failed;
  } cases[] = {{"3", 0, 1, 0, 1, 0},   {"3", 2, 0, 0, 3, 2},   {"3", 99, 0, -1, 3, 3},
               {"1", 99, 0, -1, 1, 1}, {"-1", 0, 0, -1, 0, 0}, {"3", 0, 2, -1, 0, 3}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.retries << " retries, " << c.failures << " failures");
    client_ = std::make_shared<FakeAidlClient>();
    client_->Fail("registerClient", 1, c.failures);
    WriteConf(std::string("register_retry_wait_sec=-1\nregister_max_retries=") + c.retries + "\n");
    cfg_.client_mode = c.client_mode;
    cfg_.registration_arg1 = 3;
    cfg_.registration_arg2 = 0x1FF;
    Make();
    log_.Clear();
    EXPECT_EQ(collector_->Register(), c.want);
    EXPECT_EQ(client_->Count("registerClient"), c.want_calls);
    EXPECT_EQ(log_.Count(failed), c.want_failed);
    EXPECT_EQ(log_.Count("radio: Resetting client ptr"), c.want_calls - (c.want == 0 ? 1 : 0));
    EXPECT_EQ(log_.Count("radio: MGR registration succeeded"), c.want == 0 ? 1u : 0u);
    const std::string last = log_.Lines().back().text;
    EXPECT_EQ(last.rfind("radio: MGR registration given up after " + std::to_string(c.want_failed) +
                             " attempts in 0 seconds - ",
                         0) == 0,
              c.want != 0)
        << last;
    EXPECT_EQ(collector_->Token(), c.want == 0 ? "token-1" : "");
    EXPECT_EQ(collector_->ClientId(), c.want == 0 ? 7 : 0);
    if (c.want_calls > 0) {
      EXPECT_EQ(client_->Calls()[0], "registerClient radio 3 511");
    }
    EXPECT_EQ(collector_->DeRegister(), c.want) << "the manager is told, or there is none";
    EXPECT_EQ(client_->Count("deRegisterClient"), c.want == 0 ? 1u : 0u);
  }
}

// The first registration, and the one after a lost connection.
TEST_F(LifecycleTest, DeRegisterCutsTheRetryWaitShort) {
  for (const bool lost : {false, true}) {
    SCOPED_TRACE(lost);
    client_ = std::make_shared<FakeAidlClient>();
    cfg_.sync_register = lost;
    WriteConf("register_retry_wait_sec=3600\n");
    if (lost) MakeRegistered();
    client_->Fail("registerClient", 1, 99);
    if (lost) {
      collector_->LostConn();
    } else {
      EXPECT_EQ(Make().Register(), 0);
    }
    ASSERT_TRUE(log_.WaitFor("waiting for 3600 seconds"));
    auto result = DeRegisterLater();
    EXPECT_EQ(Get(result), -1) << "there is no connection";
    EXPECT_FALSE(log_.Contains("given up"));
    const std::string thread = lost ? "lostConnThread" : "registerThread";
    ExpectInfo("DeRegister: waiting for " + thread);
    ExpectInfo("DeRegister: " + thread + " exited");
    log_.Clear();
  }
}

TEST_F(LifecycleTest, DeRegisterWaitsForARegistrationUnderWay) {
  cfg_.sync_register = 0;
  std::promise<void> release;
  client_->SetHook("registerClient", [&release] { release.get_future().wait(); });
  Make();
  ASSERT_EQ(collector_->Register(), 0);
  ASSERT_TRUE(client_->WaitForCalls("registerClient", 1));
  auto result = DeRegisterLater();
  ASSERT_TRUE(log_.WaitFor("DeRegister: waiting for registerThread"));
  release.set_value();
  EXPECT_EQ(Get(result), 0);
  EXPECT_EQ(client_->Calls().back(), "deRegisterClient token-1");
}

TEST_F(LifecycleTest, DeRegisterJoinsALostConnectionThatWaits) {
  MakeRegistered();
  std::promise<void> release;
  client_->SetHook("registerClient", [&release] { release.get_future().wait(); });
  collector_->LostConn();
  ASSERT_TRUE(client_->WaitForCalls("registerClient", 2));
  collector_->LostConn();  // Waits for the first one.
  auto result = DeRegisterLater();
  EXPECT_TRUE(log_.WaitFor("DeRegister: waiting for lostConnThread"));
  release.set_value();
  EXPECT_EQ(Get(result), 0);
  EXPECT_EQ(client_->Count("registerClient"), 2u) << "no new attempt while stopping";
}

TEST_F(LifecycleTest, LostConnectionStopsTheSessionAndRegistersAgain) {
  for (const uint8_t sync : {1, 0}) {
    SCOPED_TRACE(static_cast<int>(sync));
    client_ = std::make_shared<FakeAidlClient>();
    cfg_.sync_register = sync;
    MakeRegistered();
    ASSERT_TRUE(log_.WaitFor("MGR registration succeeded"));
    ASSERT_EQ(collector_->StartSession(MakeConfig(MakeCampaign({MakeKpi(1, KPI_STATE)}))), 0);
    log_.Clear();
    collector_->LostConn();
    ASSERT_TRUE(client_->WaitForCalls("registerClient", 2));
    ASSERT_TRUE(log_.WaitFor("MGR registration succeeded"));
    EXPECT_EQ(collector_->IsKPIEnabled(1), 0);
    ExpectInfo("radio: c::LostConn deleteing client instance for token - token-1");
    EXPECT_EQ(collector_->DeRegister(), 0);
  }
}

std::atomic<int> registering;

// While nothing but a registration holds up sessions and other registrations, each finds
// the one before it done.
TEST_F(LifecycleTest, SurvivesAStormOfLostConnections) {
  const KIVCampConfig campaign = MakeConfig(MakeCampaign());
  for (const uint8_t sync : {1, 0}) {
    client_ = std::make_shared<FakeAidlClient>();
    cfg_.sync_register = sync;
    cfg_.start_session_cb = nullptr;
    if (sync) {
      cfg_.start_session_cb = [](kiv_collector*, const uint8_t*, uint32_t) {
        EXPECT_EQ(registering, 0);
        return 0;
      };
      client_->SetHook("registerClient", [] {
        EXPECT_EQ(++registering, 1);
        std::this_thread::yield();
        --registering;
      });
    }
    MakeRegistered();
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] {
        while (!stop) {
          collector_->LostConn();
          collector_->StartSession(campaign);
          collector_->Log(1, 1u);
          kiv_flush(collector_.get());
        }
      });
    }
    ASSERT_TRUE(client_->WaitForCalls("registerClient", 20));
    auto result = DeRegisterLater();
    Get(result);
    const size_t attempts = client_->Count("registerClient");
    collector_->LostConn();
    stop = true;
    for (std::thread& thread : threads) thread.join();
    collector_->DeRegister();
    EXPECT_EQ(client_->Count("registerClient"), attempts) << "nothing starts once stopping";
  }
}

TEST_F(LifecycleTest, ARecordWithoutNameOrDirectoryIsRefused) {
  for (const std::string missing : {"name", "data_dir"}) {
    log_.Clear();
    kiv_cfg_s record = cfg_;
    if (missing == "name") {
      record.name = nullptr;
    } else {
      record.data_dir = nullptr;
    }
    EXPECT_EQ(kiv_register(&record), nullptr);
    ASSERT_EQ(log_.Lines().size(), 2u) << log_.Dump();
    ExpectError("orb_register: " + missing + " is null");
  }
}

// Through the process-wide client, on a bus that does not exist.
TEST_F(LifecycleTest, FailedSynchronousRegistrationGivesNull) {
  setenv("ORB_BUS_ADDRESS", ("unix:path=" + data_dir_ + "no-bus").c_str(), 1);
  WriteConf("register_max_retries=2\nregister_retry_wait_sec=-1\n");
  cfg_.custom_session_format = 1;
  EXPECT_EQ(kiv_register(&cfg_), nullptr);
  ExpectInfo("orb_register: custom_session_format 1");
  EXPECT_EQ(log_.Count("radio: MGR registration failed"), 2u);
  ExpectError("radio: registration failed -1");
  EXPECT_EQ(kiv_log_buf(nullptr, nullptr, 0), -1);
  ExpectInfo("orb_log_buf: called");
}

}  // namespace
}  // namespace orb::test
