// The HAL on a bus, with clients that stop in the middle of its calls.
#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbFdCallback.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <cutils/ashmem.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <future>

#include "services/hal/orbsyshal_service.h"
#include "tests/services/upload_bytes.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait_for.h"

namespace orb::hal {
namespace {

using ::aidl::vendor::nuv::orbsyshal_aidl::BnOrbFdCallback;
using ::aidl::vendor::nuv::orbsyshal_aidl::IOrbsyshal;
using orb::test::WaitFor;

struct Callback : BnOrbFdCallback {
  explicit Callback(std::function<void()> on_done) : on_done(std::move(on_done)) {}
  ::ndk::ScopedAStatus fd_write_done(int32_t, int32_t, int32_t, int32_t) override {
    on_done();
    return ::ndk::ScopedAStatus::ok();
  }
  const std::function<void()> on_done;
};

// One slot on its way to the HAL; false when that refuses. It is told of it only if this
// process has a thread pool.
bool Announce(const std::function<void()>& on_done) {
  std::shared_ptr<IOrbsyshal> hal;
  if (!WaitFor([&] {
        hal = IOrbsyshal::fromBinder(
            ::ndk::SpAIBinder(AServiceManager_checkService(kHalServiceName)));
        return hal != nullptr;
      })) {
    return false;
  }
  IOrbsyshal::NativeHandle region;
  region.fds.emplace_back(ashmem_create_region("region", 8));
  region.ints = {0, 8};
  ::aidl::vendor::nuv::orbsyshal_aidl::SetFdResult channel;
  if (!hal->set_fd(region, ::ndk::SharedRefBase::make<Callback>(on_done), &channel).isOk()) {
    return false;
  }
  int32_t result = -1;
  return channel.result == 0 &&
         hal->fd_write_to_system_dropbox("/up/7/radio.42", Upload(3, 5, 0), channel.fdToken, 0, 8,
                                         0, &result)
             .isOk() &&
         result == 0;
}

// A process of its own that runs `body` and ends with 0 when that is true.
pid_t Fork(const std::function<bool()>& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body() ? 0 : 1);
  return child;
}

std::shared_ptr<OrbsyshalService> Publish(const orb::test::TempDir& spool) {
  auto service = ::ndk::SharedRefBase::make<OrbsyshalService>(
      std::make_shared<Hal>(*Spool::Open(spool.path(), 0)));
  ABinderProcess_startThreadPool();
  EXPECT_EQ(AServiceManager_addService(service->asBinder().get(), kHalServiceName), EX_NONE);
  return service;
}

TEST(HalBusTest, AsksNothingOfAClientWhoseCallItServes) {
  const orb::test::PrivateBus bus;
  bus.SetEnvironment();
  const pid_t client = Fork([] { return Announce([] {}); });
  const orb::test::TempDir spool;
  const auto service = Publish(spool);
  int status = -1;
  const bool ended = WaitFor([&] { return waitpid(client, &status, WNOHANG) == client; });
  EXPECT_EQ(status, 0);
  if (!ended) kill(client, SIGKILL);
}

TEST(HalBusTest, StoppedClientsHoldUpNobodyElse) {
  constexpr int kStopped = 6;
  const orb::test::PrivateBus bus("<limit name=\"max_replies_per_connection\">4</limit>");
  bus.SetEnvironment();
  std::vector<pid_t> stopped;
  for (int i = 0; i < kStopped; ++i) {
    stopped.push_back(Fork([] {
      ABinderProcess_startThreadPool();
      return Announce([] { raise(SIGSTOP); }) && WaitFor([] { return false; });
    }));
  }
  int go[2] = {-1, -1};
  ASSERT_EQ(pipe(go), 0);
  const pid_t honest = Fork([&] {
    char byte = 0;
    std::promise<void> told;
    ABinderProcess_startThreadPool();
    return read(go[0], &byte, 1) == 1 && Announce([&] { told.set_value(); }) &&
           told.get_future().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  });

  const orb::test::TempDir spool;
  const auto service = Publish(spool);
  int status = 0;
  for (const pid_t client : stopped) {
    ASSERT_EQ(waitpid(client, &status, WUNTRACED), client);
    EXPECT_TRUE(WIFSTOPPED(status)) << status;
  }
  ASSERT_EQ(write(go[1], "g", 1), 1);
  ASSERT_EQ(waitpid(honest, &status, 0), honest);
  EXPECT_EQ(status, 0);
  for (const pid_t client : stopped) {
    kill(client, SIGKILL);
    waitpid(client, &status, 0);
  }
}

}  // namespace
}  // namespace orb::hal
