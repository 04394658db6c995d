// The client's way to the HAL: connecting, uploads, losing it.
#include <android/binder_stability.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "ipc/orbsyshal_fd_callback.h"
#include "proto/ltc_campaign.pb.h"
#include "tests/ipc/hal_fixture.h"

namespace orb::test {
namespace {

using android::binder::Status;
using Answer = FakeHal::Answer;
using Lines = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;

// A vendor's HAL calls with FLAG_PRIVATE_LOCAL, the system's without.
TEST_F(HalClientTest, CompletionsComeFromVendorAndSystem) {
  using aidl::vendor::nuv::orbsyshal_aidl::IOrbFdCallback;
  constexpr char kName[] = "orb.test.Callback/default";
  const auto callback = ndk::SharedRefBase::make<OrbsyshalFDCallback>();
  ASSERT_EQ(AServiceManager_addService(callback->asBinder().get(), kName), EX_NONE);
  const ndk::SpAIBinder remote(AServiceManager_checkService(kName));
  ASSERT_NE(IOrbFdCallback::fromBinder(remote), nullptr);
  for (const binder_flags_t flags : {binder_flags_t{FLAG_PRIVATE_LOCAL}, binder_flags_t{0}}) {
    AParcel* in = nullptr;
    ndk::ScopedAParcel out;
    ASSERT_EQ(AIBinder_prepareTransaction(remote.get(), &in), STATUS_OK);
    for (const int32_t value : {7, 0, 0, 0}) EXPECT_EQ(AParcel_writeInt32(in, value), STATUS_OK);
    EXPECT_EQ(AIBinder_transact(remote.get(), IOrbFdCallback::TRANSACTION_fd_write_done, &in,
                                out.getR(), flags),
              STATUS_OK);
  }
  EXPECT_EQ(log_.Count("No entry found for fd_token: 7"), 2u);
  Services()->Kill(kName);
}

TEST_F(HalClientTest, CallsReachAHalOfTheVendorAlone) {
  hal_ = FakeHal::Make();
  const ndk::SpAIBinder binder = hal_->asBinder();
  AIBinder_markVendorStability(binder.get());
  ASSERT_TRUE(hal_->Publish());
  EXPECT_EQ(Send({1}, {2}, {3}), 0);
}

TEST_F(HalClientTest, ConnectsOnceTheHalIsThere) {
  EXPECT_EQ(Send({1}, {2}, {}), -1);
  EXPECT_EQ(TakeLog(), (Lines{
                           "E initOrbsyshalHandle: getting new instance of IOrbsyshal",
                           "E [ERROR] orbsyshal service doesn't exist",
                           "E sendData: could not initialize orbsyshal handle",
                       }));
  uint32_t region = 0;
  EXPECT_EQ(client_->setupFD(0, 0, 0, nullptr, &region), -1);
  EXPECT_TRUE(Logged("setupFD: could not initialize orbsyshal handle"));
  log_.Clear();
  EXPECT_EQ(Announce(1), -1);
  EXPECT_EQ(client_->UnsetFD("tok", 1), -1);
  EXPECT_EQ(TakeLog(), (Lines{
                           "E FdWrite: orbsyshal handle is null",
                           "E UnsetFD: orbsyshal handle is null",
                       }));

  StartHal();
  EXPECT_EQ(Send({1}, {2}, {}), 0);
  EXPECT_EQ(TakeLog(), (Lines{
                           "E initOrbsyshalHandle: getting new instance of IOrbsyshal",
                           "I initOrbsyshalHandle: got new instance of IOrbsyshal",
                           "I Registered orbsyshal death recipient",
                           "D orbsyshal->request_read() succeeded",
                       }));
}

TEST_F(HalClientTest, AServiceOfAnotherKindIsNotTheHal) {
  StartManager();
  Services()->addService(android::String16(FakeHal::kService), manager_);
  EXPECT_EQ(Send({1}, {2}, {}), -1);
  EXPECT_TRUE(Logged("[ERROR] Failed to bind orbsyshal service"));
  Services()->Remove(FakeHal::kService);
}

TEST_F(HalClientTest, UploadsArriveInOnePiece) {
  StartHal();
  EXPECT_EQ(Send({1, 2}, {3, 4, 5}, {6}), 0);
  EXPECT_EQ(hal_->Upload(), (Bytes{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(Send({1, 2}, {}, {6}), 0);
  EXPECT_EQ(hal_->Upload(), (Bytes{1, 2, 6}));
  EXPECT_EQ(Send({}, Bytes(3 << 20, 2), {}), 0);
  EXPECT_EQ(hal_->Upload(), Bytes(3 << 20, 2));
  EXPECT_EQ(hal_->Taken().back(), "request_read /up/7/radio.1 3145728");
}

TEST_F(HalClientTest, FailedUploadsSayWhatFailed) {
  StartHal();
  ASSERT_EQ(Send({1}, {2}, {}), 0);
  const struct {
    const char* method;
    Answer answer;
    Lines want;
  } kCases[] = {
      {"configure_fmq", Answer::kFail, {}},
      {"configure_fmq", Answer::kRefuse, {"E [ERROR] Failed to configure fmq"}},
      {"request_read", Answer::kFail, {"E [ERROR] orbsyshal->request_read() failed"}},
      {"request_read", Answer::kRefuse, {"E [ERROR] orbsyshal->request_read() failed"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.method);
    Script(c.method, c.answer);
    log_.Clear();
    EXPECT_EQ(Send({1}, {2}, {3}), -1);
    EXPECT_EQ(TakeLog(), c.want);
  }
  hal_->SetScript(nullptr);
  EXPECT_EQ(Send({}, {}, {}), -1);
  EXPECT_TRUE(Logged("[ERROR] Failed to write data to fmq header 0 data 0 footer 1"));
  EXPECT_EQ(hal_->Taken().back(), "configure_fmq");
  EXPECT_EQ(Send({1}, {2}, {}), 0);
}

// The manager ends a session and starts one, with an upload each, before it
// answers another client: it serves one call at a time. Here both are even one
// thread's, as where a nested call runs on the thread that waits.
TEST_F(HalClientTest, SessionsStartAndEndInsideAnothersRegistration) {
  StartManager();
  StartHal();
  kiv_collector* const files = Register("files", true);
  ASSERT_NE(files, nullptr);
  ASSERT_TRUE(WriteFile(dir_ + "files-7.tmp", std::string(200, '\0')));
  LTCCampaignDef def;
  def.set_threshold_size(4096);
  def.set_threshold_time(60);
  const std::string bytes = def.SerializeAsString();
  KIVCampConfig config;
  config.campaignDef.assign(bytes.begin(), bytes.end());
  config.licInfo.emplace_back().licSN = 5;
  manager_->SetHook([&](const std::string& token) {
    manager_->SetHook(nullptr);
    EXPECT_EQ(token, "token-2");
    EXPECT_EQ(manager_->StartSession("token-1", config), 0);
    EXPECT_EQ(kiv_log_buf(files, reinterpret_cast<const uint8_t*>("record"), 6), 0);
    EXPECT_TRUE(manager_->Callback()->StopSession("token-1", 1).isOk());
    return Status::ok();
  });
  EXPECT_NE(Register("other"), nullptr);
  const Lines taken = hal_->Taken();
  EXPECT_EQ(std::count(taken.begin(), taken.end(), "configure_fmq"), 2) << log_.Dump();
}

TEST_F(HalClientTest, ReconnectsAfterTheHalsDeath) {
  StartHal();
  ASSERT_EQ(Send({1}, {2}, {}), 0);
  KillHal();
  EXPECT_EQ(Announce(1), -1);
  EXPECT_TRUE(Logged("FdWrite: orbsyshal handle is null"));
  StartHal();
  EXPECT_EQ(Announce(1), -1);
  EXPECT_EQ(hal_->Taken(), Lines());
  EXPECT_EQ(Send({1}, {2}, {}), 0);
  EXPECT_EQ(Announce(1), FakeHal::kRefused);
}

using HalClientDeathTest = HalClientTest;

TEST_F(HalClientDeathTest, AnUploadPast32BitsAborts) {
  StartHal();
  ASSERT_EQ(Send({1}, {2}, {}), 0);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(client_->sendData("tok", "n", nullptr, 1, nullptr, 0xffffffffu, nullptr, 0), "");
}

}  // namespace
}  // namespace orb::test
