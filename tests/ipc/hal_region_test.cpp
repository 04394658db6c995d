// Regions of shared memory: announced, completed, withdrawn, lost with their HAL.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <future>
#include <tuple>

#include "serializer/kpi_memory_serializer.h"
#include "tests/ipc/hal_fixture.h"

namespace orb::test {
namespace {

using android::binder::Status;
using Answer = FakeHal::Answer;
using Lines = std::vector<std::string>;

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
  EXPECT_TRUE(WaitFor([&] {
    return hal_->Complete(1, 0, 0, 0) && Logged("fd_write_done - No entry found for fd_token: 1");
  }));
  leave.set_value();
  EXPECT_TRUE(done.get());
  EXPECT_EQ(gone.get(), 0);
  free(handle);
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
  EXPECT_EQ(radio->ledger().Copy().owners.at(0).lost[LossCause::kUnconfirmed].events, 1u);

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

}  // namespace
}  // namespace orb::test
