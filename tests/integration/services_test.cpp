// The services as programs: their command lines, signals, names and spool over
// the bus.
#include <gmock/gmock.h>
#include <signal.h>

#include "tests/integration/stack.h"

namespace orb::test {
namespace {

using std::chrono::seconds;
using ::testing::HasSubstr;

TEST(ServicesTest, ExplainThemselves) {
  const struct {
    std::vector<std::string> argv;
    int exit_code;
    const char* out;
  } kCases[] = {
      {{ORB_HALD, "--help"}, 0, "--spool DIR"},
      {{ORB_HALD, "--version"}, 0, "3."},
      {{ORB_HALD}, 2, ""},
      {{ORB_HALD, "--spool", "/dev/null"}, 1, ""},
      {{ORB_HALD, "--spool", "/tmp", "--max-bytes", "many"}, 2, ""},
      {{ORB_MANAGERD, "--help"}, 0, "--state DIR"},
      {{ORB_MANAGERD, "--version"}, 0, "3."},
      {{ORB_MANAGERD, "--state", "/dev/null"}, 1, ""},
      {{ORB_MANAGERD, "--nonsense"}, 2, ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.argv[0] + " " + (c.argv.size() > 1 ? c.argv[1] : ""));
    const CommandResult result = RunCommand(c.argv);
    EXPECT_EQ(result.exit_code, c.exit_code) << result.err;
    EXPECT_THAT(result.out, HasSubstr(c.out));
    EXPECT_EQ(result.err.empty(), c.exit_code == 0) << result.err;
  }
}

TEST(ServicesTest, EndCleanlyOnASignal) {
  Stack stack;
  stack.StartHal();
  stack.StartManager();
  ASSERT_TRUE(WaitFor([&] { return stack.Ctl({"client", "list"}).exit_code == 0; }));
  ASSERT_TRUE(WaitFor([&] {
    return stack.LogOf("orb-hald").find("IOrbsyshal/default is published") != std::string::npos;
  }));
  stack.manager().Signal(SIGTERM);
  EXPECT_EQ(stack.manager().Wait(seconds(10)), 0);
  stack.hal().Signal(SIGINT);
  EXPECT_EQ(stack.hal().Wait(seconds(10)), 0);
  EXPECT_THAT(stack.LogOf("orb-managerd"), HasSubstr("ending on signal 15"));
  const CommandResult list = stack.Ctl({"client", "list"});
  EXPECT_EQ(list.exit_code, 1);
  EXPECT_EQ(list.err, "orbctl: the manager is not on the bus; start orb-managerd\n");
}

TEST(ServicesTest, RefuseANameOfAnotherProcess) {
  Stack stack;
  stack.StartManager();
  ASSERT_TRUE(WaitFor([&] { return stack.Ctl({"client", "list"}).exit_code == 0; }));
  const auto start_second = [&](const char* log_tags) {
    const CommandResult second = RunCommand(
        {ORB_MANAGERD, "--state", stack.path("other")},
        {{"ORB_BUS_ADDRESS", stack.bus().address()}, {"ANDROID_LOG_TAGS", log_tags}}, seconds(20));
    EXPECT_EQ(second.exit_code, 1);
    return second.err;
  };
  EXPECT_THAT(start_second("orb-service:s *:W"),
              HasSubstr("vendor_kivsdkservice is published by another process"));
  EXPECT_EQ(start_second("*:f"), "") << "only what is fatal is asked for";
}

TEST(ServicesTest, ReturnWithABusThatRestarts) {
  Stack stack;
  stack.StartHal();
  stack.StartManager();
  Client client = stack.StartClient();
  ASSERT_EQ(client.Ask("register radio " + stack.MakeDataDir("data") + " async"), "ok");
  ASSERT_TRUE(stack.WaitRegistered("radio"));
  const std::string file = stack.WriteCampaign("c.txtpb", {42}, {1}, 1, 4096);
  ASSERT_TRUE(stack.StartCampaign("radio", file, {42}, 5));
  stack.bus().Kill();
  EXPECT_EQ(stack.Ctl({"client", "list"}).exit_code, 1);
  stack.bus().Start();
  // The names come back, the client registers again and gets its campaign back.
  ASSERT_TRUE(stack.WaitRegistered("radio"));
  ASSERT_TRUE(WaitFor([&] { return client.Ask("enabled radio 1") == "1"; }));
  EXPECT_EQ(client.Ask("log radio 1 1 3"), "0");
  ASSERT_TRUE(WaitFor([&] {
    client.Ask("log radio 1 1 1");
    client.Ask("flush radio");
    return SumOf(stack.DecodeSpool(), 42, 1) > 3;
  }));
  EXPECT_TRUE(stack.manager().Running());
  EXPECT_TRUE(stack.hal().Running());
}

TEST(ServicesTest, KeepSlotsOfAClientThatDiesWithSomeOutstanding) {
  Stack stack;
  stack.StartHal();
  stack.StartManager();
  const std::string file = stack.WriteCampaign("c.txtpb", {42}, {1}, 1, 4096);
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    Client client = stack.StartClient();
    ASSERT_EQ(client.Ask("register radio " + stack.MakeDataDir("data") + " async slots 4 256"),
              "ok");
    ASSERT_TRUE(stack.WaitRegistered("radio"));
    if (round == 0) {
      ASSERT_TRUE(stack.StartCampaign("radio", file, {42}, 5));
    }
    ASSERT_TRUE(WaitFor([&] { return client.Ask("enabled radio 1") == "1"; }));
    const uint64_t before = SumOf(stack.DecodeSpool(), 42, 1);
    ASSERT_TRUE(WaitFor([&] {
      client.Ask("log radio 1 1 20");
      return SumOf(stack.DecodeSpool(), 42, 1) > before;
    }));
    client.process().Signal(SIGKILL);
    client.process().Wait(seconds(5));
    ASSERT_TRUE(WaitFor([&] {
      const std::string log = stack.LogOf("orb-hald");
      const size_t first = log.find("closed: its client died");
      return first != std::string::npos &&
             (round == 0 || log.find("closed: its client died", first + 1) != std::string::npos);
    }));
    ASSERT_TRUE(WaitFor([&] {
      return stack.Ctl({"client", "list"}).out.find("radio") == std::string::npos;
    }));
  }
  EXPECT_TRUE(stack.hal().Running());
}

}  // namespace
}  // namespace orb::test
