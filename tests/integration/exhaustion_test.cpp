// A client that has no thread or descriptor left: every call answers, the process stays,
// and what was refused works once there are some again.
#include <gtest/gtest.h>

#include <iostream>

#include "tests/integration/stack.h"

namespace orb::test {
namespace {

// Clang's check of virtual calls opens a pipe each time, and ends a process that cannot.
#if defined(__has_feature)
#if __has_feature(undefined_behavior_sanitizer)
#define ORB_CALLS_NEED_DESCRIPTORS 1
#endif
#endif
#if defined(ORB_CALLS_NEED_DESCRIPTORS)
constexpr int kFilesMax = 0;
#else
constexpr int kFilesMax = 16;
#endif

class ExhaustionTest : public ::testing::Test {
 protected:
  ExhaustionTest() {
    stack_.StartHal();
    // A HAL that the manager finds late makes it renew sessions with slots, in a thread.
    EXPECT_TRUE(WaitFor(
        [&] { return stack_.LogOf("orb-hald").find("is published") != std::string::npos; }));
    stack_.StartManager();
    EXPECT_TRUE(WaitFor([&] { return stack_.Ctl({"client", "list"}).exit_code == 0; }));
    // One attempt, so that what is refused is told at once.
    WriteFile(data_dir_ + "orb_sdk.conf",
              "register_max_retries = 1\nregister_retry_wait_sec = -1\n");
    campaign_ = stack_.WriteCampaign("c.txtpb", {42}, {1}, 1, 4096);
  }
  ~ExhaustionTest() override {
    for (int i = 1; HasFailure() && i <= clients_; ++i) {
      std::cerr << stack_.LogOf("client" + std::to_string(i));
    }
  }
  Client StartClient() {
    ++clients_;
    return stack_.StartClient(true);
  }
  std::string Register(Client& client, const std::string& how) {
    return client.Ask("register radio " + data_dir_ + " " + how);
  }
  bool StartCampaign() { return stack_.StartCampaign("radio", campaign_, {42}, ++campaigns_); }

  Stack stack_;
  const std::string data_dir_ = stack_.MakeDataDir("radio");
  std::string campaign_;
  uint64_t campaigns_ = 0;
  int clients_ = 0;
};

TEST_F(ExhaustionTest, RegistrationAnswersAndARetryWorks) {
  std::vector<std::string> limits = {"threads 1"};
  for (int files = 4; files <= kFilesMax; ++files) {
    limits.push_back("files " + std::to_string(files));
  }
  bool refused_for_files = false;
  for (const std::string& limit : limits) {
    for (const char* how : {"sync", "async"}) {
      SCOPED_TRACE(limit + " " + how);
      Client client = StartClient();
      ASSERT_EQ(client.Ask("limit " + limit), "ok");
      const std::string answer = Register(client, how);
      if (limit == "threads 1") {
        EXPECT_EQ(answer, "null");
      }
      if (answer == "null" && limit != "threads 1") refused_for_files = true;
      if (answer == "ok") client.Ask("deregister radio");
      ASSERT_EQ(client.Ask(limit[0] == 't' ? "limit threads -1" : "limit files 64"), "ok");
      ASSERT_EQ(Register(client, "sync"), "ok");
      // The manager starts it again at each registration.
      if (campaigns_ == 0) {
        EXPECT_TRUE(StartCampaign());
      }
      EXPECT_TRUE(WaitFor([&] { return client.Ask("log radio 1 1 1") == "0"; }));
      EXPECT_EQ(client.Ask("deregister radio"), "0");
      client.process().CloseInput();
      EXPECT_EQ(client.process().Wait(std::chrono::seconds(30)), 0);
    }
  }
  EXPECT_EQ(refused_for_files, kFilesMax > 0);
}

// A campaign is refused as a whole, and the next one finds nothing of it.
TEST_F(ExhaustionTest, ACampaignThatFindsNoThreadIsRefused) {
  Client client = StartClient();
  ASSERT_EQ(Register(client, "sync"), "ok");
  ASSERT_EQ(client.Ask("limit threads 1"), "ok");
  EXPECT_FALSE(StartCampaign());
  EXPECT_EQ(client.Ask("enabled radio 1"), "0");
  EXPECT_EQ(client.Ask("log radio 1 1 1"), "-1");
  EXPECT_EQ(ListFiles(data_dir_), std::vector<std::string>({"orb_sdk.conf"}));
  ASSERT_EQ(client.Ask("limit threads -1"), "ok");
  EXPECT_TRUE(StartCampaign());
  EXPECT_EQ(client.Ask("log radio 1 1 1"), "0");
  EXPECT_EQ(client.Ask("deregister radio"), "0");
  EXPECT_EQ(stack_.Sum(42, 1), 1u);
}

// The end of a session waits for completions, which then need a second thread.
TEST_F(ExhaustionTest, TheEndOfASessionGetsItsCompletionsWithoutAnotherThread) {
  Client client = StartClient();
  ASSERT_EQ(Register(client, "sync slots 4 64"), "ok");
  ASSERT_EQ(client.Ask("limit threads 1"), "ok");
  ASSERT_TRUE(StartCampaign());
  EXPECT_EQ(client.Ask("log radio 1 5 1"), "0");
  EXPECT_EQ(stack_.Ctl({"campaign", "stop", "radio"}).exit_code, 0);
  EXPECT_EQ(client.Ask("deregister radio"), "0");
  EXPECT_EQ(stack_.Sum(42, 1), 5u);
}

}  // namespace
}  // namespace orb::test
