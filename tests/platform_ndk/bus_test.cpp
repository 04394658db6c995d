// The NDK half against a HAL in another process, over a real bus.
#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbFdCallback.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/IOrbsyshal.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <fmq/AidlMessageQueue.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/fake_hal.h"
#include "tests/support/private_bus.h"

namespace {

using aidl::vendor::nuv::orbsyshal_aidl::BnOrbFdCallback;
using aidl::vendor::nuv::orbsyshal_aidl::IOrbsyshal;
using aidl::vendor::nuv::orbsyshal_aidl::SetFdResult;
using orb::test::ChildProcess;
using orb::test::FakeHal;
using orb::test::WaitFor;
using Queue = android::AidlMessageQueue<int8_t, android::SynchronizedReadWrite>;

class CountingCallback : public BnOrbFdCallback {
 public:
  ndk::ScopedAStatus fd_write_done(int32_t token, int32_t, int32_t, int32_t) override {
    last_token = token;
    count++;
    return ndk::ScopedAStatus::ok();
  }
  std::atomic<int> count{0};
  std::atomic<int32_t> last_token{0};
};

class NdkBusTest : public testing::Test {
 protected:
  NdkBusTest() {
    bus_.SetEnvironment();
    StartPeer();
    ABinderProcess_startThreadPool();
  }

  void StartPeer() {
    peer_ = ChildProcess({HAL_PEER});
    EXPECT_EQ(Line(), "ready 1");
  }
  std::string Line() { return peer_.ReadLine(std::chrono::seconds(20)).value_or("(none)"); }
  std::string Ask(const char* question) {
    peer_.Send(question);
    return Line();
  }
  static ndk::SpAIBinder Check() {
    return ndk::SpAIBinder(AServiceManager_checkService(FakeHal::kService));
  }

  orb::test::PrivateBus bus_;
  ChildProcess peer_;
};

TEST_F(NdkBusTest, AQueueIsSharedAcrossProcesses) {
  const auto hal = IOrbsyshal::fromBinder(Check());
  ASSERT_NE(hal, nullptr);
  EXPECT_EQ(Check(), hal->asBinder());
  const std::string bytes = "across the bus";
  Queue queue(bytes.size());
  bool done = false;
  ASSERT_TRUE(hal->configure_fmq(queue.dupeDesc(), &done).isOk());
  ASSERT_TRUE(queue.write(reinterpret_cast<const int8_t*>(bytes.data()), bytes.size()));
  ASSERT_TRUE(hal->request_read("up", static_cast<int32_t>(bytes.size()), &done).isOk());
  EXPECT_TRUE(done);
  EXPECT_EQ(queue.availableToRead(), 0u);
  EXPECT_EQ(Ask("last"), "up across the bus");
}

TEST_F(NdkBusTest, CompletionsComeBack) {
  const auto hal = IOrbsyshal::fromBinder(Check());
  ASSERT_NE(hal, nullptr);
  const auto callback = ndk::SharedRefBase::make<CountingCallback>();
  IOrbsyshal::NativeHandle region;
  region.fds.emplace_back(memfd_create("region", MFD_CLOEXEC));
  region.ints = {0, 64};
  SetFdResult result;
  ASSERT_TRUE(hal->set_fd(region, callback, &result).isOk());
  ASSERT_EQ(result.result, 0);
  for (int i = 0; i < 3; ++i) {
    int32_t answer = -1;
    ASSERT_TRUE(hal->fd_write_to_system_dropbox("s", {7}, result.fdToken, 0, 8, 0, &answer).isOk());
    EXPECT_EQ(answer, 0);
  }
  EXPECT_TRUE(WaitFor([&] { return callback->count == 3; }));
  EXPECT_EQ(callback->last_token, result.fdToken);
  EXPECT_EQ(Ask("slots"), "3");
}

TEST_F(NdkBusTest, ADeadPeerIsReportedOnceAndItsSuccessorIsAnotherBinder) {
  static std::atomic<int> deaths;
  deaths = 0;
  ndk::ScopedAIBinder_DeathRecipient recipient(
      AIBinder_DeathRecipient_new([](void*) { deaths++; }));
  const auto hal = IOrbsyshal::fromBinder(Check());
  ASSERT_NE(hal, nullptr);
  ASSERT_EQ(AIBinder_linkToDeath(hal->asBinder().get(), recipient.get(), nullptr), STATUS_OK);
  peer_.Signal(SIGKILL);
  ASSERT_TRUE(WaitFor([] { return deaths > 0; }));
  EXPECT_FALSE(AIBinder_isAlive(hal->asBinder().get()));
  EXPECT_EQ(hal->unset_fd(1).getStatus(), STATUS_DEAD_OBJECT);
  EXPECT_EQ(Check().get(), nullptr);

  StartPeer();
  const auto successor = IOrbsyshal::fromBinder(Check());
  ASSERT_NE(successor, nullptr);
  EXPECT_NE(successor->asBinder(), hal->asBinder());
  EXPECT_TRUE(successor->unset_fd(1).isOk());
  EXPECT_FALSE(AIBinder_isAlive(hal->asBinder().get()));
  EXPECT_EQ(deaths, 1);
}

}  // namespace
