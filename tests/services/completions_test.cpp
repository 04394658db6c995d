// Notices to clients that answer, stop answering, fail and die.
#include "services/hal/completions.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/wait_for.h"
#include "utility/thread_annotations.h"

namespace orb::hal {
namespace {

using orb::test::WaitFor;
using std::chrono::milliseconds;
using std::chrono::seconds;

class CompletionsTest : public ::testing::Test {
 protected:
  void Post(pid_t process, int32_t offset, Sent outcome, bool answer) {
    const auto send = [=, this](const Notice& notice, Receipt receipt) {
      MutexLock lock(mutex_);
      sent_[process] += std::to_string(notice.offset) + " ";
      if (!answer) kept_.push_back(std::move(receipt));
      return outcome;
    };
    EXPECT_TRUE(completions_->Post(Caller{process, 1}, {7, offset, 8, 0},
                                   std::make_shared<const SendNotice>(send)));
  }
  bool Silent(pid_t process) { return completions_->Refusal(Caller{process, 1}) != nullptr; }
  bool WaitSent(pid_t process, const std::string& want) {
    return WaitFor([&] {
      MutexLock lock(mutex_);
      return sent_[process] == want;
    });
  }
  std::vector<Receipt> TakeKept() {
    MutexLock lock(mutex_);
    return std::exchange(kept_, {});
  }

  LogCapture log_;
  Mutex mutex_;
  std::map<pid_t, std::string> sent_ ORB_GUARDED_BY(mutex_);
  std::vector<Receipt> kept_ ORB_GUARDED_BY(mutex_);
  std::unique_ptr<Completions> completions_ = std::make_unique<Completions>(milliseconds(1));
};

TEST_F(CompletionsTest, SilentClientsHoldUpNobodyElse) {
  constexpr pid_t kSilent = 200;
  const auto threads = [] {
    const std::filesystem::directory_iterator all("/proc/self/task");
    return std::distance(begin(all), end(all));
  };
  const auto before = threads();
  for (pid_t i = 1; i <= kSilent; ++i) {
    Post(i, 1, Sent::kYes, false);
    Post(i, 2, Sent::kYes, false);
  }
  for (pid_t i = 1; i <= kSilent; ++i) {
    EXPECT_TRUE(WaitFor([&] { return Silent(i); })) << i;
  }
  EXPECT_EQ(threads(), before);
  EXPECT_EQ(log_.Count("does not answer: its slots are refused until it does"), size_t{kSilent});
  Post(900, 1, Sent::kYes, true);
  Post(900, 2, Sent::kYes, true);
  EXPECT_TRUE(WaitSent(900, "1 2 "));
  {
    MutexLock lock(mutex_);
    EXPECT_EQ(sent_[1], "1 ") << "more than one at a time";
  }
  // One that answers at last gets the rest.
  TakeKept();
  EXPECT_TRUE(WaitSent(1, "1 2 "));
  EXPECT_TRUE(log_.Contains("pid 1 uid 1 answers again"));
  EXPECT_TRUE(WaitSent(kSilent, "1 2 "));
}

TEST_F(CompletionsTest, RepeatsWhatCouldNotBeSentButNotToTheDead) {
  const auto outcomes = std::make_shared<std::vector<Sent>>(
      std::vector<Sent>{Sent::kLater, Sent::kLater, Sent::kYes, Sent::kNever});
  const auto attempts = std::make_shared<size_t>(0);
  const auto send = [this, outcomes, attempts](const Notice& notice, const Receipt&) {
    MutexLock lock(mutex_);
    sent_[1] += std::to_string(notice.offset) + " ";
    return outcomes->at((*attempts)++);
  };
  const auto shared = std::make_shared<const SendNotice>(send);
  for (const int32_t offset : {1, 2, 3}) {
    EXPECT_TRUE(completions_->Post(Caller{1, 1}, {7, offset, 8, 0}, shared));
  }
  EXPECT_TRUE(WaitSent(1, "1 1 1 2 "));
  EXPECT_TRUE(completions_->FinishBy(std::chrono::steady_clock::now() + seconds(20)));
  EXPECT_TRUE(WaitSent(1, "1 1 1 2 "));
}

TEST_F(CompletionsTest, SendsWhatWaitsAtTheEnd) {
  completions_ = std::make_unique<Completions>(seconds(1000));
  for (int32_t offset = 1; offset <= 5; ++offset) Post(1, offset, Sent::kYes, false);
  Post(2, 1, Sent::kYes, false);
  EXPECT_TRUE(WaitSent(1, "1 "));
  completions_->Drop(Caller{1, 1}, 8);
  EXPECT_TRUE(completions_->FinishBy(std::chrono::steady_clock::now() + seconds(20)));
  EXPECT_TRUE(WaitSent(1, "1 2 3 4 5 "));
  EXPECT_FALSE(completions_->Post(Caller{3, 1}, {}, nullptr));
  completions_.reset();
  TakeKept();  // Receipts that come too late.
}

TEST_F(CompletionsTest, DropsTheNoticesOfAChannelThatIsGone) {
  completions_ = std::make_unique<Completions>(seconds(1000));
  for (int32_t offset = 1; offset <= 3; ++offset) Post(1, offset, Sent::kYes, false);
  EXPECT_TRUE(WaitSent(1, "1 "));
  completions_->Drop(Caller{1, 1}, 7);
  TakeKept();
  Post(1, 4, Sent::kYes, true);
  EXPECT_TRUE(WaitSent(1, "1 4 "));
}

}  // namespace
}  // namespace orb::hal
