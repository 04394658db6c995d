// A whole campaign over the bus, with services and clients that come and go.
#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>

#include "tests/integration/stack.h"

namespace orb::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::HasSubstr;

class CampaignTest : public ::testing::Test {
 protected:
  // One registered client under both services.
  Client Registered(const std::string& name, const std::string& dir) {
    Client client = stack_.StartClient();
    EXPECT_EQ(client.Ask("register " + name + " " + dir + " async"), "ok");
    EXPECT_TRUE(stack_.WaitRegistered(name));
    return client;
  }
  uint64_t Sum(uint64_t lic_sn, uint32_t kpi) { return SumOf(stack_.DecodeSpool(), lic_sn, kpi); }

  Stack stack_;
};

TEST_F(CampaignTest, CarriesSamplesFromLogToDecodedRecords) {
  stack_.StartHal();
  stack_.StartManager();
  Client client = Registered("radio", stack_.MakeDataDir("data"));
  const std::string file = stack_.WriteCampaign("c.txtpb", {42, 77}, {1, 2}, 5, 4096);
  ASSERT_TRUE(stack_.StartCampaign("radio", file, {42, 77}, 9));
  EXPECT_EQ(client.Ask("campaign radio"), "9");
  EXPECT_EQ(client.Ask("enabled radio 1"), "1");
  EXPECT_EQ(client.Ask("log radio 1 3 7"), "0");
  EXPECT_EQ(client.Ask("log radio 3 3 1"), "-1");

  ASSERT_EQ(stack_.Ctl({"campaign", "lic-stop", "radio", "77"}).exit_code, 0);
  EXPECT_EQ(client.Ask("log radio 2 100 5"), "0");
  ASSERT_EQ(stack_.Ctl({"campaign", "stop", "radio"}).exit_code, 0);
  EXPECT_EQ(client.Ask("enabled radio 1"), "0");

  const std::vector<Record> records = stack_.DecodeSpool();
  EXPECT_EQ(SumOf(records, 42, 1), 21u);
  EXPECT_EQ(SumOf(records, 42, 2), 500u);
  EXPECT_EQ(SumOf(records, 77, 2), 0u);
  for (const Record& record : records) {
    EXPECT_EQ(record.client, "radio");
    EXPECT_EQ(record.campaign, 9u);
  }
  EXPECT_EQ(client.Ask("deregister radio"), "0");
}

TEST_F(CampaignTest, SurvivesAHalThatDiesDuringAnUpload) {
  stack_.StartHal();
  stack_.StartManager();
  Client client = Registered("radio", stack_.MakeDataDir("data"));
  const std::string file = stack_.WriteCampaign("c.txtpb", {42}, {1}, 1, 4194304);
  ASSERT_TRUE(stack_.StartCampaign("radio", file, {42}, 5));
  EXPECT_EQ(client.Ask("log radio 1 1 11"), "0");
  // The first upload connects; a HAL that dies before that is one that is not there.
  ASSERT_EQ(client.Ask("flush radio"), "0");
  ASSERT_TRUE(WaitFor([&] { return Sum(42, 1) == 10; }));
  EXPECT_EQ(client.Ask("log radio 1 1 10"), "0");
  // A stopped HAL accepts the call into its queue and never answers.
  stack_.hal().Signal(SIGSTOP);
  ASSERT_EQ(client.Ask("flush radio"), "0");
  std::this_thread::sleep_for(milliseconds(300));
  stack_.hal().Signal(SIGKILL);
  stack_.hal().Wait(seconds(5));
  ASSERT_TRUE(WaitFor([&] {
    return stack_.LogOf("client1").find("Orbsyshal Server has died") != std::string::npos;
  }));
  stack_.StartHal();
  ASSERT_TRUE(WaitFor([&] {
    client.Ask("log radio 1 1 2");
    client.Ask("flush radio");
    return Sum(42, 1) > 10;
  }));
  ASSERT_EQ(stack_.Ctl({"campaign", "stop", "radio"}).exit_code, 0);
}

TEST_F(CampaignTest, SendsLeftOverFilesOfAnEarlierRun) {
  stack_.StartHal();
  stack_.StartManager();
  const std::string dir = stack_.MakeDataDir("data");
  {
    Client client = Registered("radio", dir);
    const std::string file = stack_.WriteCampaign("old.txtpb", {42, 77}, {1}, 1, 4194304);
    ASSERT_TRUE(stack_.StartCampaign("radio", file, {42, 77}, 5));
    EXPECT_EQ(client.Ask("log radio 1 1 11"), "0");
    // Ten records of each LicSN are on disk once the writer has them.
    ASSERT_TRUE(WaitFor([&] {
      return ReadFileOrEmpty(dir + "radio-42.tmp").size() > 150 &&
             ReadFileOrEmpty(dir + "radio-77.tmp").size() ==
                 ReadFileOrEmpty(dir + "radio-42.tmp").size();
    }));
    std::this_thread::sleep_for(milliseconds(200));
    client.process().Signal(SIGKILL);
    client.process().Wait(seconds(5));
  }
  ASSERT_EQ(stack_.Ctl({"campaign", "stop", "radio"}).exit_code, 0)
      << "the campaign of a client that is away can be withdrawn";
  Client client = Registered("radio", dir);
  const std::string file = stack_.WriteCampaign("new.txtpb", {42, 99}, {1}, 1, 4194304);
  ASSERT_TRUE(stack_.StartCampaign("radio", file, {42, 99}, 6));
  // Killed in mid-collection: at most the record being written is lost, and
  // the one in the open window.
  EXPECT_GE(Sum(42, 1), 9u);
  EXPECT_GE(Sum(77, 1), 9u);
  EXPECT_FALSE(std::filesystem::exists(dir + "radio-77.tmp"));
  EXPECT_TRUE(std::filesystem::exists(dir + "radio-99.tmp"));
}

TEST_F(CampaignTest, KeepsTwoClientsOfOneProcessApart) {
  stack_.StartHal();
  stack_.StartManager();
  Client client = Registered("radio", stack_.MakeDataDir("radio"));
  ASSERT_EQ(client.Ask("register sensor " + stack_.MakeDataDir("sensor") + " sync"), "ok");
  const std::string one = stack_.WriteCampaign("one.txtpb", {42}, {1}, 100, 4096);
  const std::string two = stack_.WriteCampaign("two.txtpb", {43}, {1}, 100, 4096);
  ASSERT_TRUE(stack_.StartCampaign("radio", one, {42}, 1));
  ASSERT_TRUE(stack_.StartCampaign("sensor", two, {43}, 2));
  EXPECT_EQ(client.Ask("log radio 1 1 5"), "0");
  EXPECT_EQ(client.Ask("log sensor 1 10 5"), "0");
  EXPECT_EQ(client.Ask("deregister radio"), "0");
  EXPECT_EQ(client.Ask("log sensor 1 10 5"), "0");
  EXPECT_EQ(client.Ask("deregister sensor"), "0");
  EXPECT_EQ(Sum(42, 1), 5u);
  EXPECT_EQ(Sum(43, 1), 100u);
}

TEST_F(CampaignTest, DeregistersWithinOneRetryAtEveryStageOfRegistration) {
  const std::string dir = stack_.MakeDataDir("data");
  Client client = stack_.StartClient();
  const auto register_and_leave = [&](milliseconds stay) {
    ASSERT_EQ(client.Ask("register radio " + dir + " async"), "ok");
    std::this_thread::sleep_for(stay);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_NE(client.Ask("deregister radio", seconds(20)), "gone");
    EXPECT_LT(std::chrono::steady_clock::now() - before, seconds(5));
  };
  for (int stay_ms : {0, 1, 20, 500, 1100}) register_and_leave(milliseconds(stay_ms));
  stack_.StartManager();
  for (int stay_ms : {0, 1, 5, 20, 300, 1100}) register_and_leave(milliseconds(stay_ms));
  // A manager that hangs inside the registration, and then dies.
  stack_.manager().Signal(SIGSTOP);
  ASSERT_EQ(client.Ask("register radio " + dir + " async"), "ok");
  std::this_thread::sleep_for(milliseconds(1200));
  ASSERT_TRUE(client.process().Send("deregister radio"));
  stack_.manager().Signal(SIGKILL);
  EXPECT_TRUE(client.process().ReadLine(seconds(20)).has_value());
}

TEST_F(CampaignTest, RefusesBadInputWithAReason) {
  stack_.StartHal();
  stack_.StartManager();
  Client client = Registered("radio", stack_.MakeDataDir("data"));
  const std::string good = stack_.WriteCampaign("good.txtpb", {42}, {1}, 1, 4096);
  const std::string small = stack_.WriteCampaign("small.txtpb", {42}, {1}, 1, 99);
  WriteFile(stack_.path("bad.txtpb"), "threshold_size: \"many\"\n");
  const struct {
    const char* name;
    std::vector<std::string> args;
    int exit_code;
    const char* reason;
  } kCases[] = {
      {"no such client", {"campaign", "start", "gps", good, "--lic", "42"}, 1, "gps"},
      {"not a campaign",
       {"campaign", "start", "radio", stack_.path("bad.txtpb"), "--lic", "42"},
       1,
       "bad.txtpb"},
      {"below a limit", {"campaign", "start", "radio", small, "--lic", "42"}, 1, "-1"},
      {"no such file", {"campaign", "start", "radio", "/nonexistent", "--lic", "42"}, 1, "open"},
      {"nothing to stop", {"campaign", "stop", "gps"}, 1, "gps"},
      {"no verb", {"campaign"}, 2, "orbctl campaign --help"},
      {"no such verb", {"campaign", "strat", "radio", good}, 2, "strat"},
      {"no public key",
       {"campaign", "start", "radio", good, "--lic", "42:" + good + ":gcm"},
       2,
       "no P-256 public key"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const CommandResult result = stack_.Ctl(c.args);
    EXPECT_EQ(result.exit_code, c.exit_code) << result.err;
    EXPECT_THAT(result.err, HasSubstr(c.reason));
  }
  EXPECT_TRUE(stack_.StartCampaign("radio", good, {42}, 1)) << "the refusals left no trace";
}

}  // namespace
}  // namespace orb::test
