// The contract with the HAL, through proxies and parcels; and the HAL of tests.
#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbFdCallback.h>
#include <android/binder_manager.h>
#include <android/binder_parcel_utils.h>
#include <binder/IServiceManager.h>
#include <fcntl.h>
#include <fmq/AidlMessageQueue.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orb_platform/local_service_manager.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/fake_hal.h"
#include "tests/support/log_capture.h"

namespace {

using aidl::android::hardware::common::NativeHandle;
using aidl::vendor::nuv::orbsyshal_aidl::BnOrbFdCallback;
using aidl::vendor::nuv::orbsyshal_aidl::IOrbFdCallback;
using aidl::vendor::nuv::orbsyshal_aidl::IOrbsyshal;
using aidl::vendor::nuv::orbsyshal_aidl::SetFdResult;
using orb::test::FakeHal;
using Method = FakeHal::Method;
using Fault = FakeHal::Fault;
using Queue = android::AidlMessageQueue<int8_t, android::SynchronizedReadWrite>;
using testing::ElementsAre;

// Keeps the completions that arrive.
class Completions : public BnOrbFdCallback {
 public:
  ndk::ScopedAStatus fd_write_done(int32_t token, int32_t a, int32_t b, int32_t c) override {
    orb::MutexLock lock(mutex_);
    seen_.emplace_back(token, a, b, c);
    return ndk::ScopedAStatus::ok();
  }
  std::vector<std::tuple<int32_t, int32_t, int32_t, int32_t>> seen() {
    orb::MutexLock lock(mutex_);
    return seen_;
  }

 private:
  orb::Mutex mutex_;
  std::vector<std::tuple<int32_t, int32_t, int32_t, int32_t>> seen_ GUARDED_BY(mutex_);
};

class HalContractTest : public testing::Test {
 protected:
  HalContractTest() {
    android::setDefaultServiceManager(manager_);
    EXPECT_TRUE(fake_->Publish());
    hal_ = IOrbsyshal::fromBinder(Check());
  }
  ~HalContractTest() override { android::setDefaultServiceManager(nullptr); }

  static ndk::SpAIBinder Check() {
    return ndk::SpAIBinder(AServiceManager_checkService(FakeHal::kService));
  }

  // The HAL's answer to one upload; -1 when the transport failed.
  int Send(const std::string& name, const std::string& bytes) {
    Queue queue(bytes.size());
    bool done = false;
    if (!hal_->configure_fmq(queue.dupeDesc(), &done).isOk()) return -1;
    if (!done) return 0;
    EXPECT_TRUE(queue.write(reinterpret_cast<const int8_t*>(bytes.data()), bytes.size()));
    const auto status = hal_->request_read(name, static_cast<int32_t>(bytes.size()), &done);
    return status.isOk() ? done : -1;
  }

  // A region of 64 bytes that says "....slot" and so on; its token.
  int32_t Announce() {
    NativeHandle region;
    region.fds.emplace_back(memfd_create("region", MFD_CLOEXEC));
    EXPECT_EQ(pwrite(region.fds[0].get(), "....slot", 8, 0), 8);
    region.ints = {0, 64};
    SetFdResult result;
    EXPECT_TRUE(hal_->set_fd(region, completions_, &result).isOk());
    EXPECT_EQ(result.result, 0);
    return result.fdToken;
  }

  const android::sp<orb_platform::LocalServiceManager> manager_{
      new orb_platform::LocalServiceManager};
  const std::shared_ptr<FakeHal> fake_ = FakeHal::Make();
  const std::shared_ptr<Completions> completions_ = ndk::SharedRefBase::make<Completions>();
  std::shared_ptr<IOrbsyshal> hal_;
};

TEST_F(HalContractTest, AnUploadTravelsByQueue) {
  ASSERT_NE(hal_, nullptr);
  EXPECT_TRUE(hal_->isRemote());
  EXPECT_EQ(Send("up/7/radio.42", "header data"), 1);
  ASSERT_TRUE(fake_->WaitForUploads(1));
  EXPECT_EQ(fake_->uploads()[0].name, "up/7/radio.42");
  const std::vector<uint8_t> bytes = fake_->uploads()[0].bytes;
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "header data");
}

TEST_F(HalContractTest, ARegionIsConsumedPieceByPiece) {
  fake_->HoldCompletions();
  const int32_t token = Announce();
  ASSERT_NE(token, 0);
  int32_t result = -1;
  ASSERT_TRUE(
      hal_->fd_write_to_system_dropbox("slot", {1, 2, 255}, token, 4, 4, 2, &result).isOk());
  EXPECT_EQ(result, 0);
  ASSERT_TRUE(fake_->WaitForSlots(1));
  const FakeHal::Slot slot = fake_->slots()[0];
  EXPECT_EQ(slot.name, "slot");
  EXPECT_THAT(slot.header, ElementsAre(1, 2, 255));
  EXPECT_EQ(std::tuple(slot.token, slot.offset_bytes, slot.size_bytes, slot.compress),
            std::tuple(token, 4, 4, 2));
  EXPECT_THAT(slot.bytes, ElementsAre('s', 'l', 'o', 't'));
  EXPECT_TRUE(completions_->seen().empty());
  fake_->ReleaseCompletions();
  ASSERT_TRUE(fake_->WaitForCompletions(1));
  EXPECT_THAT(completions_->seen(), ElementsAre(std::tuple(token, 4, 4, 0)));

  EXPECT_TRUE(fake_->Complete(token, -1, 7, 8));
  EXPECT_EQ(completions_->seen().back(), std::tuple(token, -1, 7, 8));
  EXPECT_TRUE(hal_->unset_fd(token).isOk());
  EXPECT_FALSE(fake_->regions()[0].open);
}

TEST_F(HalContractTest, FaultsReachTheCaller) {
  fake_->Inject(Method::kConfigureFmq, Fault::kFail, 1);
  fake_->Inject(Method::kConfigureFmq, Fault::kRefuse, 2);
  EXPECT_EQ(Send("a", "x"), -1);
  EXPECT_EQ(Send("a", "x"), 0);
  EXPECT_EQ(Send("a", "x"), 1);
  fake_->Inject(Method::kRequestRead, Fault::kRefuse);
  EXPECT_EQ(Send("a", "x"), 0);
  int32_t result = 0;
  EXPECT_TRUE(hal_->fd_write_to_system_dropbox("s", {}, 99, 0, 1, 0, &result).isOk());
  EXPECT_EQ(result, FakeHal::kRefused);
  fake_->Inject(Method::kUnsetFd, Fault::kFail);
  EXPECT_EQ(hal_->unset_fd(1).getStatus(), STATUS_FAILED_TRANSACTION);
}

TEST_F(HalContractTest, ASlowHalKeepsItsCallerWaiting) {
  fake_->Pause(Method::kRequestRead);
  std::thread caller([&] { EXPECT_EQ(Send("slow", "x"), 1); });
  EXPECT_TRUE(fake_->WaitUntilPaused(Method::kRequestRead));
  EXPECT_TRUE(fake_->uploads().empty());
  fake_->Resume(Method::kRequestRead);
  caller.join();
  EXPECT_EQ(fake_->uploads().size(), 1u);
}

TEST_F(HalContractTest, NullArgumentsAreRefused) {
  NativeHandle region;
  SetFdResult result;
  EXPECT_EQ(hal_->set_fd(region, nullptr, &result).getStatus(), STATUS_UNEXPECTED_NULL);
  region.fds.emplace_back(-1);
  EXPECT_EQ(hal_->set_fd(region, completions_, &result).getStatus(), STATUS_UNEXPECTED_NULL);
  EXPECT_EQ(fake_->calls(Method::kSetFd), 0u);
}

TEST_F(HalContractTest, OnlyABinderOfTheInterfaceBecomesAProxy) {
  orb::LogCapture quiet;
  EXPECT_EQ(IOrbsyshal::fromBinder(nullptr), nullptr);
  EXPECT_EQ(IOrbsyshal::fromBinder(completions_->asBinder()), nullptr);
  EXPECT_EQ(IOrbFdCallback::fromBinder(Check()), nullptr);
  EXPECT_EQ(IOrbFdCallback::fromBinder(completions_->asBinder()), completions_);
}

TEST_F(HalContractTest, ADeadHalAnswersNoMore) {
  ndk::SpAIBinder binder = Check();
  ASSERT_TRUE(manager_->Kill(FakeHal::kService));
  EXPECT_EQ(hal_->unset_fd(1).getStatus(), STATUS_DEAD_OBJECT);
  EXPECT_EQ(Check().get(), nullptr);
  ASSERT_TRUE(fake_->Publish());
  EXPECT_NE(Check(), binder);
  hal_ = IOrbsyshal::fromBinder(Check());
  EXPECT_EQ(Send("again", "x"), 1);
}

TEST_F(HalContractTest, EveryMethodSurvivesARequestThatEndsAnywhere) {
  const ndk::SpAIBinder binder = Check();
  ASSERT_TRUE(AIBinder_associateClass(binder.get(),
                                      aidl::vendor::nuv::orbsyshal_aidl::BnOrbsyshal::Class()));
  orb::LogCapture quiet;
  const int32_t kWords[] = {1, 4, 0, -1, 12, INT32_MAX};
  for (transaction_code_t code = IOrbsyshal::TRANSACTION_configure_fmq;
       code <= IOrbsyshal::TRANSACTION_fd_write_to_system_dropbox; ++code) {
    for (const int32_t word : kWords) {
      for (int length = 0; length < 8; ++length) {
        AParcel* in = nullptr;
        ASSERT_EQ(AIBinder_prepareTransaction(binder.get(), &in), STATUS_OK);
        for (int i = 0; i < length; ++i) ASSERT_EQ(AParcel_writeInt32(in, word), STATUS_OK);
        ndk::ScopedAParcel out;
        static_cast<void>(AIBinder_transact(binder.get(), code, &in, out.getR(), 0));
      }
    }
  }
  EXPECT_EQ(fake_->calls(Method::kSetFd), 0u);
  EXPECT_TRUE(fake_->uploads().empty());
  EXPECT_TRUE(fake_->slots().empty());
  EXPECT_EQ(Send("still here", "x"), 1);
}

TEST_F(HalContractTest, TheRecordOfARegionHasItsBytes) {
  SetFdResult sent;
  sent.result = -3;
  sent.fdToken = 9;
  ndk::ScopedAParcel parcel(AParcel_create());
  ASSERT_EQ(ndk::AParcel_writeData(parcel.get(), sent), STATUS_OK);
  ASSERT_EQ(AParcel_setDataPosition(parcel.get(), 0), STATUS_OK);
  for (const int32_t want : {1, 12, -3, 9}) {
    int32_t word = 0;
    ASSERT_EQ(AParcel_readInt32(parcel.get(), &word), STATUS_OK);
    EXPECT_EQ(word, want);
  }
}

}  // namespace
