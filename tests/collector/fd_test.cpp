#include <atomic>
#include <filesystem>
#include <functional>
#include <future>

#include "tests/collector/collector_fixture.h"

namespace orb::test {
namespace {

struct Done {
  kiv_fd_handle_s* handle;
  uint32_t a;
  uint32_t b;
  int c;
  bool operator==(const Done&) const = default;
};
std::vector<Done> done;

int OnDone(kiv_fd_handle_s* handle, uint32_t a, uint32_t b, int c) {
  done.push_back({handle, a, b, c});
  return 0;
}

using FdTest = CollectorFixture;

TEST_F(FdTest, CompletionsReachEveryHandleOfTheToken) {
  done.clear();
  MakeRegistered();
  kiv_fd_handle_s* first = kiv_set_fd(collector_.get(), 5, 16, 4096, OnDone);
  kiv_fd_handle_s* other = kiv_set_fd(collector_.get(), 6, 0, 64, OnDone);
  kiv_fd_handle_s* second = kiv_set_fd(collector_.get(), 5, 16, 4096, OnDone);
  kiv_fd_handle_s* silent = kiv_set_fd(collector_.get(), 7, 0, 64, nullptr);
  ASSERT_TRUE(first && other && second && silent);
  EXPECT_EQ(client_->Calls()[1], "setupFD 5 16 4096 token-1");
  second->fdToken = first->fdToken.load();

  collector_->FdWriteDone(first->fdToken, 1, 2, -3);
  EXPECT_EQ(done, (std::vector<Done>{{first, 1, 2, -3}, {second, 1, 2, -3}}));
  collector_->FdWriteDone(9999, 1, 2, 3);
  collector_->FdWriteDone(silent->fdToken, 1, 2, 3);
  EXPECT_EQ(done.size(), 2u);

  EXPECT_EQ(kiv_unset_fd(first), 0);
  collector_->FdWriteDone(first->fdToken, 4, 5, 6);
  EXPECT_EQ(done.back(), (Done{second, 4, 5, 6}));
  EXPECT_EQ(done.size(), 3u);
  client_->Fail("UnsetFD", 1, 1, -1);
  EXPECT_EQ(kiv_unset_fd(second), -1) << "the client's status";
  collector_->FdWriteDone(first->fdToken, 7, 8, 9);
  EXPECT_EQ(done.size(), 3u) << "out of use whatever the status";

  // A withdrawn handle's token may name another region by now.
  const size_t before = client_->Calls().size();
  EXPECT_EQ(kiv_log_fd_buf(first, 0, 0, 1), -1);
  ExpectError("FdWrite: no region of this client");
  EXPECT_EQ(kiv_unset_fd(first), -1);
  ExpectError("UnsetFD: no region of this client");
  EXPECT_EQ(client_->Calls().size(), before);
  EXPECT_FALSE(std::filesystem::exists(data_dir_ + "radio.seq")) << "no number is drawn";
  for (kiv_fd_handle_s* handle : {first, other, second, silent}) free(handle);
}

// Dies as soon as it has taken a region.
struct DyingHal : FakeAidlClient {
  int setupFD(int fd, uint32_t offset, uint32_t length, RoutedCollector* collector,
              uint32_t* fdToken) override {
    EXPECT_EQ(FakeAidlClient::setupFD(fd, offset, length, collector, fdToken), 0);
    collector->LoseRegion(*fdToken);
    return 0;
  }
};

TEST_F(FdTest, ARegionWhoseHalDiedMeanwhileIsRefused) {
  client_ = std::make_shared<DyingHal>();
  MakeRegistered();
  EXPECT_EQ(kiv_set_fd(collector_.get(), 5, 0, 64, OnDone), nullptr);
  ExpectError("SetFD: clientIntf->setupFD failed - -1");
}

std::function<void(kiv_fd_handle_s*)> on_done;

// Two handles of one token, for whose completions on_done runs.
class WithdrawalTest : public CollectorFixture {
 protected:
  WithdrawalTest() {
    MakeRegistered();
    for (auto& handle : handles_) {
      handle =
          kiv_set_fd(collector_.get(), 5, 0, 64, [](kiv_fd_handle_s* h, uint32_t, uint32_t, int) {
            on_done(h);
            return 0;
          });
      handle->fdToken = FakeAidlClient::kFirstRegion;
    }
  }
  ~WithdrawalTest() override { on_done = nullptr; }
  void Complete() { collector_->FdWriteDone(FakeAidlClient::kFirstRegion, 0, 1, 0); }
  std::future<void> CompleteElsewhere() {
    return std::async(std::launch::async, [this] { Complete(); });
  }
  static void Withdraw(kiv_fd_handle_s* handle) {
    EXPECT_EQ(kiv_unset_fd(handle), 0);
    free(handle);
  }

  kiv_fd_handle_s* handles_[2];
};

TEST_F(WithdrawalTest, ADoneMayWithdrawItselfAndTheNext) {
  int calls = 0;
  on_done = [&](kiv_fd_handle_s*) {
    ++calls;
    for (kiv_fd_handle_s* handle : handles_) Withdraw(handle);
  };
  Complete();
  Complete();
  EXPECT_EQ(calls, 1);
}

// It was found, with the first one, before it was withdrawn.
TEST_F(WithdrawalTest, NoDoneBeginsAfterwards) {
  std::promise<void> entered;
  std::promise<void> leave;
  on_done = [&](kiv_fd_handle_s* handle) {
    ASSERT_EQ(handle, handles_[0]);
    entered.set_value();
    leave.get_future().wait();
  };
  const std::future<void> completion = CompleteElsewhere();
  entered.get_future().wait();
  Withdraw(handles_[1]);
  leave.set_value();
  completion.wait();
  Withdraw(handles_[0]);
}

TEST_F(WithdrawalTest, WaitsForADoneOfAnotherThread) {
  std::promise<void> entered;
  std::atomic<bool> finished{false};
  on_done = [&](kiv_fd_handle_s* handle) {
    if (handle != handles_[0]) return;
    entered.set_value();
    EXPECT_TRUE(client_->WaitForCalls("UnsetFD", 1));
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    finished = true;
  };
  const std::future<void> completion = CompleteElsewhere();
  entered.get_future().wait();
  Withdraw(handles_[0]);
  EXPECT_TRUE(finished);
  completion.wait();
  Withdraw(handles_[1]);
}

TEST_F(WithdrawalTest, DonesThatWithdrawEachOtherDoNotWaitForEver) {
  std::atomic<int> inside{0};
  handles_[1]->fdToken = FakeAidlClient::kFirstRegion + 1;
  on_done = [&](kiv_fd_handle_s* handle) {
    ++inside;
    EXPECT_TRUE(WaitFor([&] { return inside == 2; }));
    EXPECT_EQ(kiv_unset_fd(handles_[handle == handles_[0] ? 1 : 0]), 0);
  };
  const std::future<void> completion = CompleteElsewhere();
  collector_->FdWriteDone(FakeAidlClient::kFirstRegion + 1, 0, 1, 0);
  completion.wait();
  for (kiv_fd_handle_s* handle : handles_) free(handle);
}

TEST_F(FdTest, PiecesCarryTheHeaderTheNameAndTheCompression) {
  const struct {
    uint32_t loc;
    uint32_t type;
    const char* want_compressed;
    CompressType want_ctype;
  } cases[] = {{0, 0, "1", COMPRESS_NONE},
               {0, 2, "1", COMPRESS_TYPE_1},
               {1, 0, "0", COMPRESS_TYPE_1},
               {3, 2, "0", COMPRESS_TYPE_1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.loc << " " << c.type);
    client_ = std::make_shared<FakeAidlClient>();
    cfg_.fd_arg3 = c.loc;
    cfg_.fd_arg4 = c.type;
    unlink((data_dir_ + "radio.seq").c_str());
    MakeRegistered().SetCampaignId(77);
    log_.Clear();
    kiv_fd_handle_s* handle = kiv_set_fd(collector_.get(), 5, 0, 4096, OnDone);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(kiv_log_fd_buf(handle, 12345, 0x100000020u, 1000), 0);
    client_->Fail("FdWrite", 1, 1, 9);
    EXPECT_EQ(kiv_log_fd_buf(handle, 0, 0, 1), 9) << "the receiver's own result";

    const FakeAidlClient::Piece piece = client_->Pieces()[0];
    EXPECT_EQ(piece.token, FakeAidlClient::kToken);
    EXPECT_EQ(piece.fdToken, FakeAidlClient::kFirstRegion);
    EXPECT_EQ(piece.offset, 0x20u) << "only the low 32 bits count";
    EXPECT_EQ(piece.size, 1000u);
    EXPECT_EQ(piece.compress, c.want_ctype);
    EXPECT_EQ(HeaderText(piece.header),
              std::string("9 66 client 7 kind 4 version 1 length 1000 1 compressed ") +
                  c.want_compressed + " campaign 77 number 0 owner 0 sealed 0 footer at 0");
    EXPECT_NE(HeaderText(client_->Pieces()[1].header).find(" number 1 "), std::string::npos);
    EXPECT_EQ(piece.name,
              "/up/7/radio." + std::to_string(header::kCreated.Load(piece.header.data())));
    const std::string settings = "FdWrite: compress.loc " + std::to_string(c.loc) +
                                 " compress.type " + std::to_string(c.type);
    ExpectError("SetItem: unknown CfgItem 9");
    ExpectDebug(settings);
    ExpectDebug(settings + " ctype " + std::to_string(static_cast<int>(c.want_ctype)));
    free(handle);
  }
}

TEST_F(FdTest, RefusedAndUnreachableRegionsLeaveNoHandle) {
  MakeRegistered();
  client_->Fail("setupFD", 1, 1, 3);
  EXPECT_EQ(kiv_set_fd(collector_.get(), 5, 0, 64, OnDone), nullptr);
  ExpectError("SetFD: clientIntf->setupFD failed - 3");

  Make();  // Not registered: there is no client.
  EXPECT_EQ(kiv_set_fd(collector_.get(), 5, 0, 64, OnDone), nullptr);
  ExpectError("SetFD: clientIntf->setupFD failed - -1");
}

}  // namespace
}  // namespace orb::test
