// The client's way to the HAL: uploads, regions, completions, losing it.
#include <android/log.h>
#include <cutils/ashmem.h>
#include <cutils/native_handle.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/ipc/client_fixture.h"
#include "tests/support/fake_hal.h"
#include "utility/unique_fd.h"

using orb::test::FakeHal;
using Fault = FakeHal::Fault;
using Method = FakeHal::Method;

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

  int Send(const Bytes& header, const Bytes& data, const Bytes& footer) {
    return client_->sendData(
        "tok", "/up/7/radio.1", header.data(), static_cast<uint32_t>(header.size()), data.data(),
        static_cast<uint32_t>(data.size()), footer.data(), static_cast<uint32_t>(footer.size()));
  }
  bool Logged(const std::string& text) { return log_.Has(ANDROID_LOG_ERROR, "orb_sdk", text); }

  std::shared_ptr<FakeHal> hal_;

 private:
  orb::LogCapture all_deaths_;  // Since the HAL was last killed.
};

// What the completion functions of the tests' regions saw.
using Completion = std::tuple<kiv_fd_handle_s*, uint32_t, uint32_t, int>;
std::promise<Completion>* completion;
int NoteCompletion(kiv_fd_handle_s* handle, uint32_t a, uint32_t b, int c) {
  completion->set_value({handle, a, b, c});
  return 0;
}

TEST_F(HalClientTest, ConnectsOnceTheHalIsThere) {
  EXPECT_EQ(Send({1}, {2}, {}), -1);
  EXPECT_EQ(TakeLog(), (Lines{
                           "E initOrbsyshalHandle: getting new instance of IOrbsyshal",
                           "E [ERROR] orbsyshal service doesn't exist",
                           "E sendData: could not initialize orbsyshal handle",
                       }));
  uint32_t region = 0;
  EXPECT_EQ(client_->setupFD(0, 0, 0, "tok", &region), -1);
  EXPECT_TRUE(Logged("setupFD: could not initialize orbsyshal handle"));
  log_.Clear();
  EXPECT_EQ(client_->FdWrite("tok", 1, "n", {}, 0, 0, COMPRESS_NONE), -1);
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
  EXPECT_EQ(Send({1, 2}, {}, {6}), 0);
  EXPECT_EQ(Send(Bytes(66, 1), Bytes(3 << 20, 2), {}), 0);
  const std::vector<FakeHal::Upload> uploads = hal_->uploads();
  ASSERT_EQ(uploads.size(), 3u);
  EXPECT_EQ(uploads[0].name, "/up/7/radio.1");
  EXPECT_EQ(uploads[0].bytes, (Bytes{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(uploads[1].bytes, (Bytes{1, 2, 6}));
  EXPECT_EQ(uploads[2].bytes.size(), size_t{66} + (3 << 20));
}

TEST_F(HalClientTest, FailedUploadsSayWhatFailed) {
  StartHal();
  ASSERT_EQ(Send({1}, {2}, {}), 0);
  const struct {
    const char* name;
    Method method;
    Fault fault;
    Lines want;
  } kCases[] = {
      {"no transport for the queue", Method::kConfigureFmq, Fault::kFail, {}},
      {"queue refused",
       Method::kConfigureFmq,
       Fault::kRefuse,
       {"E [ERROR] Failed to configure fmq"}},
      {"no transport for the request",
       Method::kRequestRead,
       Fault::kFail,
       {"E [ERROR] orbsyshal->request_read() failed"}},
      {"request refused",
       Method::kRequestRead,
       Fault::kRefuse,
       {"E [ERROR] orbsyshal->request_read() failed"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    hal_->Inject(c.method, c.fault);
    log_.Clear();
    EXPECT_EQ(Send({1}, {2}, {3}), -1);
    EXPECT_EQ(TakeLog(), c.want);
  }
  EXPECT_EQ(hal_->uploads().size(), 1u);
  EXPECT_EQ(Send({1}, {2}, {}), 0);
}

TEST_F(HalClientTest, AnUploadOfNothingFails) {
  StartHal();
  EXPECT_EQ(Send({}, {}, {}), -1);
  EXPECT_TRUE(Logged("[ERROR] Failed to write data to fmq header 0 data 0 footer 1"));
  EXPECT_EQ(hal_->calls(Method::kRequestRead), 0u);
}

TEST_F(HalClientTest, RegionsAreAnnouncedWrittenAndWithdrawn) {
  StartManager();
  StartHal();
  ASSERT_NE(Register("radio"), nullptr);
  const orb::UniqueFd fd(ashmem_create_region("region", 64));
  uint32_t region = 0;
  ASSERT_EQ(client_->setupFD(fd.get(), 8, 56, "token-1", &region), 0);
  EXPECT_EQ(region, 1u);
  ASSERT_EQ(hal_->regions().size(), 1u);
  EXPECT_EQ(hal_->regions()[0].offset_bytes, 8);
  EXPECT_EQ(hal_->regions()[0].size_bytes, 56);
  EXPECT_NE(fcntl(fd.get(), F_GETFD), -1);  // Still ours.

  const std::pair<int, int> kCompress[] = {{0, 0}, {1, 1}, {2, 2}, {3, 0}, {5, 0}, {-1, 0}};
  for (const auto& [given, sent] : kCompress) {
    SCOPED_TRACE(given);
    EXPECT_EQ(client_->FdWrite("token-1", region, "name", {7, 8}, 16, 4,
                               static_cast<CompressType>(given)),
              0);
    const FakeHal::Slot slot = hal_->slots().back();
    EXPECT_EQ(slot.compress, sent);
    EXPECT_EQ(slot.name, "name");
    EXPECT_EQ(slot.header, (Bytes{7, 8}));
    EXPECT_EQ(slot.offset_bytes, 16);
    EXPECT_EQ(slot.size_bytes, 4);
  }
  EXPECT_EQ(client_->UnsetFD("token-1", region), 0);
  EXPECT_FALSE(hal_->regions()[0].open);
}

TEST_F(HalClientTest, RefusalsAndTransportErrorsOfRegions) {
  StartHal();
  const orb::UniqueFd fd(ashmem_create_region("region", 64));
  uint32_t region = 99;
  hal_->Inject(Method::kSetFd, Fault::kRefuse);
  EXPECT_EQ(client_->setupFD(fd.get(), 0, 64, "tok", &region), FakeHal::kRefused);
  hal_->Inject(Method::kSetFd, Fault::kFail);
  EXPECT_EQ(client_->setupFD(fd.get(), 0, 64, "tok", &region), -1);
  EXPECT_TRUE(Logged("setupFD: orbsyshal->set_fd() hidl transport error"));
  EXPECT_EQ(region, 99u);

  ASSERT_EQ(client_->setupFD(fd.get(), 0, 64, "tok", &region), 0);
  hal_->Inject(Method::kFdWrite, Fault::kRefuse);
  EXPECT_EQ(client_->FdWrite("tok", region, "n", {}, 0, 1, COMPRESS_NONE), FakeHal::kRefused);
  hal_->Inject(Method::kFdWrite, Fault::kFail);
  EXPECT_EQ(client_->FdWrite("tok", region, "n", {}, 0, 1, COMPRESS_NONE), -1);
  EXPECT_TRUE(Logged("FdWrite: orbsyshal->fd_write_to_system_dropbox() HIDL transport error"));
  hal_->Inject(Method::kUnsetFd, Fault::kFail);
  EXPECT_EQ(client_->UnsetFD("tok", region), -1);
  EXPECT_TRUE(Logged("UnsetFD: orbsyshal->unset_fd(1) HIDL transport error"));
}

TEST_F(HalClientTest, CompletionMayComeInsideTheAnnouncement) {
  StartManager();
  StartHal();
  kiv_collector* const collector = Register("radio");
  ASSERT_NE(collector, nullptr);
  std::promise<Completion> seen;
  completion = &seen;
  const orb::UniqueFd fd(ashmem_create_region("region", 64));
  kiv_fd_handle_s* const handle = kiv_set_fd(collector, fd.get(), 0, 64, NoteCompletion);
  ASSERT_NE(handle, nullptr);

  hal_->Pause(Method::kFdWrite);
  auto announce = std::async(std::launch::async, [&] { return kiv_log_fd_buf(handle, 0, 16, 4); });
  ASSERT_TRUE(hal_->WaitUntilPaused(Method::kFdWrite));
  EXPECT_TRUE(hal_->Complete(static_cast<int32_t>(handle->fdToken), 16, -1, -3));
  EXPECT_EQ(seen.get_future().get(), Completion(handle, 16, 0xffffffffu, -3));
  hal_->Resume(Method::kFdWrite);
  EXPECT_EQ(announce.get(), 0);
  EXPECT_EQ(kiv_unset_fd(handle), 0);
  free(handle);
}

TEST_F(HalClientTest, DeregisterWaitsForACompletionUnderWay) {
  StartManager();
  StartHal();
  kiv_collector* const collector = Register("radio");
  ASSERT_NE(collector, nullptr);
  static std::promise<void>* entered;
  static std::promise<void>* leave;
  std::promise<void> entered_here, leave_here;
  entered = &entered_here;
  leave = &leave_here;
  const orb::UniqueFd fd(ashmem_create_region("region", 64));
  kiv_fd_handle_s* const handle =
      kiv_set_fd(collector, fd.get(), 0, 64, [](kiv_fd_handle_s* h, uint32_t, uint32_t, int) {
        entered->set_value();
        leave->get_future().wait();
        EXPECT_EQ(h->collector->name(), "radio");  // Not destroyed yet.
        return 0;
      });
  ASSERT_NE(handle, nullptr);
  const auto token = static_cast<int32_t>(handle->fdToken);
  auto done = std::async(std::launch::async, [&] { return hal_->Complete(token, 0, 0, 0); });
  entered_here.get_future().wait();
  auto gone = std::async(std::launch::async, [&] { return Deregister(collector); });
  // The manager has been told, so only the wait for the completion is left.
  while (manager_->Deregistrations().empty()) std::this_thread::yield();
  leave_here.set_value();
  EXPECT_TRUE(done.get());
  EXPECT_EQ(gone.get(), 0);
  EXPECT_TRUE(hal_->Complete(token, 0, 0, 0));
  EXPECT_TRUE(Logged("fd_write_done - No entry found for fd_token: 1"));
  free(handle);
}

TEST_F(HalClientTest, ReconnectsAfterTheHalsDeath) {
  StartHal();
  ASSERT_EQ(Send({1}, {2}, {}), 0);
  KillHal();
  EXPECT_EQ(client_->FdWrite("tok", 1, "n", {}, 0, 1, COMPRESS_NONE), -1);
  EXPECT_TRUE(Logged("FdWrite: orbsyshal handle is null"));
  StartHal();
  EXPECT_EQ(client_->FdWrite("tok", 1, "n", {}, 0, 1, COMPRESS_NONE), -1);
  EXPECT_EQ(hal_->calls(Method::kFdWrite), 0u);
  EXPECT_EQ(Send({1}, {2}, {}), 0);
  EXPECT_EQ(client_->FdWrite("tok", 1, "n", {}, 0, 1, COMPRESS_NONE), FakeHal::kRefused);
}

using HalClientDeathTest = HalClientTest;

TEST_F(HalClientDeathTest, AnUploadPast32BitsAborts) {
  StartHal();
  ASSERT_EQ(Send({1}, {2}, {}), 0);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(client_->sendData("tok", "n", nullptr, 1, nullptr, 0xffffffffu, nullptr, 0), "");
}

}  // namespace
