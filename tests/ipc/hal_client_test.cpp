// The client's way to the HAL: uploads, regions, completions, losing it.
#include <android/binder_stability.h>
#include <cutils/ashmem.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>
#include <tuple>

#include "ipc/orbsyshal_fd_callback.h"
#include "proto/ltc_campaign.pb.h"
#include "serializer/kpi_memory_serializer.h"
#include "tests/ipc/client_fixture.h"
#include "tests/ipc/fake_hal.h"
#include "utility/unique_fd.h"

using android::binder::Status;
using orb::test::FakeHal;
using Answer = FakeHal::Answer;

namespace {

using Lines = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;

class HalClientTest : public orb::test::ClientTest {
 protected:
  ~HalClientTest() override {
    if (hal_ != nullptr) KillHal();
  }

  void StartHal() {
    hal_ = FakeHal::Make();
    ASSERT_TRUE(hal_->Publish());
  }
  // Returns when the client has forgotten it.
  void KillHal() {
    const bool linked = all_deaths_.Contains("Registered orbsyshal death recipient");
    Services()->Kill(FakeHal::kService);
    hal_ = nullptr;
    if (!linked) return;
    EXPECT_TRUE(all_deaths_.WaitFor("OrbsyshalDeathRecipeint - Orbsyshal Server has died"));
    while (!all_deaths_.Contains("UnsetFD: orbsyshal handle is null")) {
      client_->UnsetFD("", 0);
      std::this_thread::yield();
    }
    all_deaths_.Clear();
  }
  // The HAL answers calls of this method so, from now on.
  void Script(const std::string& method, Answer answer) {
    hal_->SetScript(
        [=](const std::string& called) { return called == method ? answer : Answer::kNormal; });
  }

  int Send(const Bytes& header, const Bytes& data, const Bytes& footer) {
    return client_->sendData(
        "tok", "/up/7/radio.1", header.data(), static_cast<uint32_t>(header.size()), data.data(),
        static_cast<uint32_t>(data.size()), footer.data(), static_cast<uint32_t>(footer.size()));
  }
  int Announce(uint32_t region) {
    return client_->FdWrite("tok", region, "name", {7, 8}, 16, 4, COMPRESS_NONE);
  }
  // A region of a registered client, whose completions go to on_complete.
  kiv_fd_handle_s* NewRegion() {
    kiv_collector* const collector = Register("radio");
    EXPECT_NE(collector, nullptr);
    return NewRegion(collector);
  }
  kiv_fd_handle_s* NewRegion(kiv_collector* collector) {
    return kiv_set_fd(collector, fd_.get(), 0, 64,
                      [](kiv_fd_handle_s* h, uint32_t a, uint32_t b, int c) {
                        on_complete(h, a, b, c);
                        return 0;
                      });
  }

  static inline std::function<void(kiv_fd_handle_s*, uint32_t, uint32_t, int)> on_complete;
  const orb::UniqueFd fd_{ashmem_create_region("region", 64)};
  std::shared_ptr<FakeHal> hal_;

 private:
  orb::LogCapture all_deaths_;  // Since the HAL was last killed.
};

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

TEST_F(HalClientTest, RegionsAreAnnouncedWrittenAndWithdrawn) {
  StartHal();
  uint32_t region = 0;
  ASSERT_EQ(client_->setupFD(fd_.get(), 8, 56, nullptr, &region), 0);
  EXPECT_EQ(region, 1u);
  EXPECT_TRUE(hal_->Complete(1, 0, 0, 0));
  EXPECT_TRUE(Logged("fd_write_done - No entry found for fd_token: 1"));  // No collector's.
  EXPECT_NE(fcntl(fd_.get(), F_GETFD), -1);                               // Still ours.
  Lines want = {"set_fd 8 56"};
  const std::pair<int, int> kCompress[] = {{0, 0}, {1, 1}, {2, 2}, {3, 0}, {5, 0}, {-1, 0}};
  for (const auto& [given, sent] : kCompress) {
    EXPECT_EQ(client_->FdWrite("tok", 1, "name", {7, 8}, 16, 4, static_cast<CompressType>(given)),
              0);
    want.push_back("fd_write name 0708 1 16 4 " + std::to_string(sent));
  }
  EXPECT_EQ(client_->UnsetFD("tok", 1), 0);
  want.push_back("unset_fd 1");
  EXPECT_EQ(hal_->Taken(), want);
}

TEST_F(HalClientTest, RefusalsAndTransportErrorsOfRegions) {
  StartHal();
  uint32_t region = 99;
  Script("set_fd", Answer::kRefuse);
  EXPECT_EQ(client_->setupFD(fd_.get(), 0, 64, nullptr, &region), FakeHal::kRefused);
  Script("set_fd", Answer::kFail);
  EXPECT_EQ(client_->setupFD(fd_.get(), 0, 64, nullptr, &region), -1);
  EXPECT_TRUE(Logged("setupFD: orbsyshal->set_fd() hidl transport error"));
  EXPECT_EQ(region, 99u);

  Script("fd_write", Answer::kRefuse);
  ASSERT_EQ(client_->setupFD(fd_.get(), 0, 64, nullptr, &region), 0);
  EXPECT_EQ(Announce(region), FakeHal::kRefused);
  Script("fd_write", Answer::kFail);
  EXPECT_EQ(Announce(region), -1);
  EXPECT_TRUE(Logged("FdWrite: orbsyshal->fd_write_to_system_dropbox() HIDL transport error"));
  Script("unset_fd", Answer::kFail);
  EXPECT_EQ(client_->UnsetFD("tok", region), -1);
  EXPECT_TRUE(Logged("UnsetFD: orbsyshal->unset_fd(1) HIDL transport error"));
}

TEST_F(HalClientTest, CompletionsReachARegionUntilItIsUnset) {
  StartManager();
  StartHal();
  kiv_fd_handle_s* const handle = NewRegion();
  ASSERT_NE(handle, nullptr);
  std::tuple<kiv_fd_handle_s*, uint32_t, uint32_t, int> seen;
  on_complete = [&](auto... parts) { seen = {parts...}; };
  // Also inside the announcement, and without a manager.
  hal_->SetScript([&](const std::string&) {
    return std::async(std::launch::async, [&] { return hal_->Complete(1, 16, -1, -3); }).get()
               ? Answer::kNormal
               : Answer::kFail;
  });
  EXPECT_EQ(kiv_log_fd_buf(handle, 0, 16, 4), 0);
  EXPECT_EQ(seen, std::make_tuple(handle, 16u, 0xffffffffu, -3));
  hal_->SetScript(nullptr);
  KillManager();
  EXPECT_TRUE(hal_->Complete(1, 20, 0, 0));
  EXPECT_EQ(std::get<1>(seen), 20u);
  EXPECT_EQ(client_->UnsetFD("token-1", 1), 0);
  EXPECT_TRUE(hal_->Complete(1, 24, 0, 0));
  EXPECT_EQ(std::get<1>(seen), 20u);
  EXPECT_TRUE(Logged("fd_write_done - No entry found for fd_token: 1"));
  free(handle);
}

// The manager's side knows the collector not yet, or no more.
TEST_F(HalClientTest, RegionsNeedNoTokenToFindTheirCollector) {
  StartManager();
  StartHal();
  std::vector<uint32_t> seen;
  on_complete = [&](kiv_fd_handle_s*, uint32_t a, uint32_t, int) { seen.push_back(a); };
  kiv_collector* const collector = NewCollector("radio");
  kiv_fd_handle_s* early = nullptr;
  manager_->SetHook([&](const std::string&) {
    early = NewRegion(collector);
    return Status::ok();
  });
  ASSERT_EQ(collector->Register(), 0);
  ASSERT_NE(early, nullptr);
  EXPECT_TRUE(hal_->Complete(1, 10, 0, 0));

  hal_->SetScript([&](const std::string& method) {
    if (method == "set_fd") KillManager();
    return Answer::kNormal;
  });
  kiv_fd_handle_s* const late = NewRegion(collector);
  ASSERT_NE(late, nullptr);
  EXPECT_TRUE(hal_->Complete(2, 20, 0, 0));
  EXPECT_EQ(seen, (std::vector<uint32_t>{10, 20}));
  for (kiv_fd_handle_s* handle : {early, late}) {
    kiv_unset_fd(handle);
    free(handle);
  }
}

// The manager ends a session and starts one, with an upload each, before it
// answers another client: it serves one call at a time. Here both are even one
// thread's, as where a nested call runs on the thread that waits.
TEST_F(HalClientTest, SessionsStartAndEndInsideAnothersRegistration) {
  StartManager();
  StartHal();
  kiv_collector* const files = Register("files", true);
  ASSERT_NE(files, nullptr);
  ASSERT_TRUE(orb::test::WriteFile(dir_ + "files-7.tmp", std::string(200, '\0')));
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

TEST_F(HalClientTest, ADoneInsideTheAnnouncementMayUnsetItsRegion) {
  StartManager();
  StartHal();
  kiv_fd_handle_s* const handle = NewRegion();
  ASSERT_NE(handle, nullptr);
  int unset = -9;
  on_complete = [&](kiv_fd_handle_s* h, auto...) { unset = kiv_unset_fd(h); };
  hal_->SetScript([&](const std::string& method) {
    if (method != "fd_write") return Answer::kNormal;
    const auto complete = [&] { return hal_->Complete(1, 16, 4, 0); };
    return std::async(std::launch::async, complete).get() ? Answer::kNormal : Answer::kFail;
  });
  EXPECT_EQ(kiv_log_fd_buf(handle, 0, 16, 4), 0);
  EXPECT_EQ(unset, 0);
  EXPECT_EQ(hal_->Taken()[1], "unset_fd 1");
  free(handle);
}

TEST_F(HalClientTest, DeregisterWaitsForACompletionUnderWay) {
  StartManager();
  StartHal();
  kiv_fd_handle_s* const handle = NewRegion();
  ASSERT_NE(handle, nullptr);
  std::promise<void> entered;
  std::promise<void> leave;
  std::atomic<bool> first{true};
  on_complete = [&](kiv_fd_handle_s* h, uint32_t, uint32_t, int) {
    if (!first.exchange(false)) return;
    entered.set_value();
    leave.get_future().wait();
    EXPECT_EQ(h->collector->name(), "radio");  // Not destroyed yet.
  };
  auto done = std::async(std::launch::async, [&] { return hal_->Complete(1, 0, 0, 0); });
  entered.get_future().wait();
  auto gone = std::async(std::launch::async, [&] { return Deregister(handle->collector); });
  // New ones do not find it any more, so only the wait is left.
  EXPECT_TRUE(orb::test::WaitFor([&] {
    return hal_->Complete(1, 0, 0, 0) && Logged("fd_write_done - No entry found for fd_token: 1");
  }));
  leave.set_value();
  EXPECT_TRUE(done.get());
  EXPECT_EQ(gone.get(), 0);
  free(handle);
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

// The next HAL gives its tokens again, to other regions.
TEST_F(HalClientTest, ADeadHalsRegionsAreLostAndItsTokensForgotten) {
  StartManager();
  StartHal();
  kiv_collector* const radio = Register("radio");
  ASSERT_NE(radio, nullptr);
  KPIMemorySerializer slots;
  ASSERT_EQ(slots.Initialize(64, 4, radio), 0);
  kiv_fd_handle_s* const stale = kiv_set_fd(radio, fd_.get(), 0, 64, nullptr);
  ASSERT_NE(stale, nullptr);
  EXPECT_EQ(slots.WriteBuf(reinterpret_cast<const uint8_t*>("a"), 1), 0);
  auto finalized = std::async(std::launch::async, [&] { return slots.Finalize(); });
  ASSERT_TRUE(log_.WaitFor("nof_slots_sent_pending: 1 before waiting"));
  const std::shared_ptr<FakeHal> dead = hal_;
  KillHal();
  EXPECT_EQ(finalized.get(), -1) << "there is no HAL to tell of the end";
  EXPECT_EQ(radio->ledger().Copy().owners.at(0).lost[orb::LossCause::kUnconfirmed].events, 1u);

  StartHal();
  int completions = 0;
  on_complete = [&](auto...) { ++completions; };
  kiv_fd_handle_s* const successors[] = {NewRegion(), NewRegion()};
  EXPECT_TRUE(dead->Complete(1, 0, 0, 0) && dead->Complete(2, 0, 0, 0));
  EXPECT_EQ(completions, 0) << "a late completion, for a region of before";
  EXPECT_EQ(kiv_log_fd_buf(stale, 0, 0, 1), -1);
  EXPECT_EQ(kiv_unset_fd(stale), -1);
  EXPECT_EQ(hal_->Taken(), (Lines{"set_fd 0 64", "set_fd 0 64"}));
  EXPECT_TRUE(hal_->Complete(2, 0, 0, 0));
  EXPECT_EQ(completions, 1);
  for (kiv_fd_handle_s* handle : successors) EXPECT_EQ(kiv_unset_fd(handle), 0);
  for (kiv_fd_handle_s* handle : {stale, successors[0], successors[1]}) free(handle);
}

using HalClientDeathTest = HalClientTest;

TEST_F(HalClientDeathTest, AnUploadPast32BitsAborts) {
  StartHal();
  ASSERT_EQ(Send({1}, {2}, {}), 0);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(client_->sendData("tok", "n", nullptr, 1, nullptr, 0xffffffffu, nullptr, 0), "");
}

}  // namespace
