// The HAL through its interface: real queues, regions and callbacks, called
// through a proxy.
#include "services/hal/orbsyshal_service.h"

#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbFdCallback.h>
#include <android/binder_manager.h>
#include <binder/IServiceManager.h>
#include <fmq/AidlMessageQueue.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <limits>

#include "orb_platform/local_service_manager.h"
#include "tests/services/upload_bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace orb::hal {
namespace {

using ::aidl::vendor::nuv::orbsyshal_aidl::BnOrbFdCallback;
using ::aidl::vendor::nuv::orbsyshal_aidl::IOrbFdCallback;
using ::aidl::vendor::nuv::orbsyshal_aidl::IOrbsyshal;
using ::aidl::vendor::nuv::orbsyshal_aidl::SetFdResult;
using orb::test::ReadFileOrEmpty;
using Queue = android::AidlMessageQueue<int8_t, android::SynchronizedReadWrite>;

constexpr const char* kName = "/up/7/radio.42";
constexpr const char* kFile = "/up/7/radio.42/0000000003-0000000000005.orb";

class Completions : public BnOrbFdCallback {
 public:
  ::ndk::ScopedAStatus fd_write_done(int32_t token, int32_t a, int32_t b, int32_t c) override {
    MutexLock lock(mutex_);
    done_.push_back({token, a, b, c});
    return ::ndk::ScopedAStatus::ok();
  }
  std::vector<std::vector<int32_t>> Done() {
    MutexLock lock(mutex_);
    return done_;
  }

 private:
  Mutex mutex_;
  std::vector<std::vector<int32_t>> done_ GUARDED_BY(mutex_);
};

class OrbsyshalServiceTest : public ::testing::Test {
 protected:
  OrbsyshalServiceTest() {
    android::setDefaultServiceManager(services_);
    std::string error;
    service_ = ::ndk::SharedRefBase::make<OrbsyshalService>(
        std::make_shared<Hal>(Spool::Open(temp_.path(), 0, &error)));
    EXPECT_EQ(AServiceManager_addService(service_->asBinder().get(), kHalServiceName), EX_NONE);
    hal_ = IOrbsyshal::fromBinder(::ndk::SpAIBinder(AServiceManager_checkService(kHalServiceName)));
  }
  ~OrbsyshalServiceTest() override {
    hal_.reset();
    service_.reset();
    android::setDefaultServiceManager(nullptr);
  }
  IOrbsyshal::NativeHandle Region(const std::string& content, std::vector<int32_t> ints) {
    IOrbsyshal::NativeHandle handle;
    const int fd = memfd_create("region", MFD_CLOEXEC);
    EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    handle.fds.emplace_back(fd);
    handle.ints = std::move(ints);
    return handle;
  }

  LogCapture log_;
  orb::test::TempDir temp_;
  const android::sp<orb_platform::LocalServiceManager> services_{
      new orb_platform::LocalServiceManager()};
  std::shared_ptr<OrbsyshalService> service_;
  std::shared_ptr<IOrbsyshal> hal_;
};

TEST_F(OrbsyshalServiceTest, StoresWhatARealQueueHolds) {
  ASSERT_NE(hal_, nullptr);
  const std::vector<uint8_t> upload = Upload(3, 5, 1000);
  Queue queue(upload.size());
  bool ok = false;
  ASSERT_TRUE(hal_->configure_fmq(queue.dupeDesc(), &ok).isOk());
  EXPECT_TRUE(ok);
  ASSERT_TRUE(queue.write(reinterpret_cast<const int8_t*>(upload.data()), upload.size()));
  ok = false;
  ASSERT_TRUE(hal_->request_read(kName, static_cast<int32_t>(upload.size()), &ok).isOk());
  EXPECT_TRUE(ok) << log_.Dump();
  EXPECT_EQ(ReadFileOrEmpty(temp_.path() + kFile), std::string(upload.begin(), upload.end()));
  EXPECT_TRUE(hal_->request_read(kName, 1, &ok).isOk());
  EXPECT_FALSE(ok);
}

TEST_F(OrbsyshalServiceTest, TakesARegionAndConfirmsItsSlots) {
  const auto completions = ::ndk::SharedRefBase::make<Completions>();
  SetFdResult channel;
  ASSERT_TRUE(hal_->set_fd(Region("0123456789", {2, 8}), completions, &channel).isOk());
  EXPECT_EQ(channel.result, 0);
  ASSERT_NE(channel.fdToken, 0);
  const std::vector<uint8_t> header = Upload(3, 5, 0);
  int32_t result = -1;
  ASSERT_TRUE(
      hal_->fd_write_to_system_dropbox(kName, header, channel.fdToken, 4, 4, 1, &result).isOk());
  EXPECT_EQ(result, 0) << log_.Dump();
  EXPECT_EQ(ReadFileOrEmpty(temp_.path() + kFile),
            std::string(header.begin(), header.end()) + "6789");
  EXPECT_TRUE(orb::test::WaitFor([&] { return completions->Done().size() == 1; }));
  EXPECT_EQ(completions->Done()[0], (std::vector<int32_t>{channel.fdToken, 4, 4, 0}));

  EXPECT_TRUE(hal_->unset_fd(channel.fdToken).isOk());
  EXPECT_EQ(hal_->unset_fd(channel.fdToken).getExceptionCode(), EX_ILLEGAL_ARGUMENT);
  ASSERT_TRUE(
      hal_->fd_write_to_system_dropbox(kName, header, channel.fdToken, 0, 4, 1, &result).isOk());
  EXPECT_NE(result, 0);
}

TEST_F(OrbsyshalServiceTest, RefusesHandlesOfAnotherShape) {
  const auto completions = ::ndk::SharedRefBase::make<Completions>();
  const auto refused = [&](const IOrbsyshal::NativeHandle& handle) {
    SetFdResult channel;
    EXPECT_TRUE(hal_->set_fd(handle, completions, &channel).isOk());
    return channel.result != 0 && channel.fdToken == 0;
  };
  EXPECT_TRUE(refused(Region("0123", {0})));
  EXPECT_TRUE(refused(Region("0123", {0, 4, 0})));
  EXPECT_TRUE(refused(Region("0123", {0, 5})));
  EXPECT_TRUE(refused(Region("0123", {-1, 4})));
  EXPECT_TRUE(refused(Region("0123", {0, std::numeric_limits<int32_t>::min()})));
  IOrbsyshal::NativeHandle two = Region("0123", {0, 4});
  two.fds.emplace_back(dup(two.fds[0].get()));
  EXPECT_TRUE(refused(two));
  EXPECT_TRUE(refused(IOrbsyshal::NativeHandle()));
  EXPECT_EQ(log_.Count("refused: "), 7U) << log_.Dump();
  SetFdResult channel;
  EXPECT_EQ(hal_->set_fd(two, nullptr, &channel).getStatus(), STATUS_UNEXPECTED_NULL);
  two.fds[0].set(-1);
  EXPECT_EQ(hal_->set_fd(two, completions, &channel).getStatus(), STATUS_UNEXPECTED_NULL);
}

TEST_F(OrbsyshalServiceTest, OnlyABinderOfTheInterfaceBecomesAProxy) {
  const auto completions = ::ndk::SharedRefBase::make<Completions>();
  EXPECT_EQ(IOrbsyshal::fromBinder(nullptr), nullptr);
  EXPECT_EQ(IOrbsyshal::fromBinder(completions->asBinder()), nullptr);
  EXPECT_EQ(IOrbFdCallback::fromBinder(hal_->asBinder()), nullptr);
  EXPECT_EQ(IOrbFdCallback::fromBinder(completions->asBinder()), completions);
}

}  // namespace
}  // namespace orb::hal
