// Death notices: who owns a link, and when it reports what.
#include <gtest/gtest.h>

#include <string>

#include "tests/platform_ndk/echo_class.h"
#include "tests/support/wait_for.h"
#include "utility/thread_annotations.h"

namespace {

using ndk::ScopedAIBinder_DeathRecipient;
using ndk::SpAIBinder;

// Records what happened to a link, in order: d for died, u for unlinked.
class Story {
 public:
  static void OnDied(void* story) { static_cast<Story*>(story)->Add('d'); }
  static void OnUnlinked(void* story) { static_cast<Story*>(story)->Add('u'); }

  std::string Now() const {
    orb::MutexLock lock(mutex_);
    return text_;
  }
  // Waits until the text is that long, or for the time-out.
  std::string WaitFor(size_t letters) const {
    orb::test::WaitFor([&] { return Now().size() >= letters; });
    return Now();
  }

 private:
  void Add(char letter) {
    orb::MutexLock lock(mutex_);
    text_ += letter;
  }

  mutable orb::Mutex mutex_;
  std::string text_ ORB_GUARDED_BY(mutex_);
};

class NdkDeathTest : public orb::test::EchoTest {
 protected:
  ~NdkDeathTest() override { recipient_.set(nullptr); }

  static AIBinder_DeathRecipient* NewRecipient() {
    AIBinder_DeathRecipient* recipient = AIBinder_DeathRecipient_new(Story::OnDied);
    AIBinder_DeathRecipient_setOnUnlinked(recipient, Story::OnUnlinked);
    return recipient;
  }
  binder_status_t Link(const SpAIBinder& binder, Story* story) {
    return AIBinder_linkToDeath(binder.get(), recipient_.get(), story);
  }
  binder_status_t Unlink(const SpAIBinder& binder, Story* story) {
    return AIBinder_unlinkToDeath(binder.get(), recipient_.get(), story);
  }

  Story one_, two_;
  SpAIBinder remote_ = Check();
  ScopedAIBinder_DeathRecipient recipient_{NewRecipient()};
};

TEST_F(NdkDeathTest, ARecipientIsToldOnceForEachCookieAndThenLetGo) {
  ASSERT_EQ(Link(remote_, &one_), STATUS_OK);
  ASSERT_EQ(Link(remote_, &one_), STATUS_OK);
  ASSERT_EQ(Link(remote_, &two_), STATUS_OK);
  ASSERT_TRUE(manager_->Kill(kName));
  EXPECT_EQ(one_.WaitFor(3), "duu");
  EXPECT_EQ(two_.WaitFor(2), "du");
  EXPECT_FALSE(AIBinder_isAlive(remote_.get()));
  EXPECT_EQ(Unlink(remote_, &two_), STATUS_NAME_NOT_FOUND);

  Story late;
  EXPECT_EQ(Link(remote_, &late), STATUS_DEAD_OBJECT);
  EXPECT_EQ(late.Now(), "u");  // A failed link is let go at once.
}

TEST_F(NdkDeathTest, UnlinkedLinksAndThoseOfADeletedRecipientAreNotTold) {
  ASSERT_EQ(Link(remote_, &one_), STATUS_OK);
  EXPECT_EQ(Unlink(remote_, &two_), STATUS_NAME_NOT_FOUND);
  EXPECT_EQ(Unlink(remote_, &one_), STATUS_OK);
  EXPECT_EQ(one_.Now(), "u");
  ASSERT_EQ(Link(remote_, &two_), STATUS_OK);
  ASSERT_EQ(Link(remote_, &two_), STATUS_OK);
  recipient_.set(NewRecipient());  // Replaces and deletes.
  EXPECT_EQ(two_.Now(), "uu");
  Story witness;
  ASSERT_EQ(Link(remote_, &witness), STATUS_OK);
  ASSERT_TRUE(manager_->Kill(kName));
  EXPECT_EQ(witness.WaitFor(2), "du");
  EXPECT_EQ(one_.Now(), "u");
  EXPECT_EQ(two_.Now(), "uu");
}

TEST_F(NdkDeathTest, OnlyRemoteObjectsDie) {
  EXPECT_EQ(Link(local_, &one_), STATUS_INVALID_OPERATION);
  EXPECT_EQ(one_.Now(), "u");
  EXPECT_EQ(Link(nullptr, &two_), STATUS_UNEXPECTED_NULL);
  EXPECT_EQ(AIBinder_linkToDeath(remote_.get(), nullptr, &two_), STATUS_UNEXPECTED_NULL);
  EXPECT_EQ(AIBinder_DeathRecipient_new(nullptr), nullptr);
}

}  // namespace
