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

TEST(ServicesTest, OwnTheirNamesUntilASignalEndsThem) {
  Stack stack;
  stack.StartHal();
  stack.StartManager();
  ASSERT_TRUE(WaitFor([&] { return stack.Ctl({"client", "list"}).exit_code == 0; }));
  ASSERT_TRUE(WaitFor([&] {
    return stack.LogOf("orb-hald").find("IOrbsyshal/default is published") != std::string::npos;
  }));
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

  stack.manager().Signal(SIGTERM);
  EXPECT_EQ(stack.manager().Wait(seconds(10)), 0);
  stack.hal().Signal(SIGINT);
  EXPECT_EQ(stack.hal().Wait(seconds(10)), 0);
  EXPECT_THAT(stack.LogOf("orb-managerd"), HasSubstr("ending on signal 15"));
  const CommandResult list = stack.Ctl({"client", "list"});
  EXPECT_EQ(list.exit_code, 1);
  EXPECT_EQ(list.err, "orbctl: the manager is not on the bus; start orb-managerd\n");
}

}  // namespace
}  // namespace orb::test
