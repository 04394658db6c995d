// The services as programs: their command lines, signals, names and spool over
// the bus.
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>

#include "tests/integration/stack.h"
#include "utility/unique_fd.h"

namespace orb::test {
namespace {

using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::Not;

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

// Where a service manager listens.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path)
      : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  // Whether a message with `text` comes in time; those before it are kept in *passed.
  bool Hears(const std::string& text, std::chrono::milliseconds timeout = seconds(20),
             std::string* passed = nullptr) const {
    const auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      pollfd ready{fd_.get(), POLLIN, 0};
      if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0) return false;
      char message[1024];
      const ssize_t bytes = recv(fd_.get(), message, sizeof message, 0);
      const std::string state(message, static_cast<size_t>(std::max<ssize_t>(bytes, 0)));
      if (state.find(text) != std::string::npos) return true;
      if (passed != nullptr) *passed += state;
    }
  }

 private:
  const UniqueFd fd_;
};

TEST(ServicesTest, TellSystemdWhatTheyAreAt) {
  Stack stack;
  const std::chrono::milliseconds watchdog(400);
  for (const char* name : {"orb-hald", "orb-managerd"}) {
    SCOPED_TRACE(name);
    const NotifySocket systemd(stack.path(name));
    stack.bus().Kill();
    const bool hal = name == std::string("orb-hald");
    ChildProcess service = stack.StartProgram(
        {hal ? ORB_HALD : ORB_MANAGERD, hal ? "--spool" : "--state", stack.path("folder")}, name,
        {{"NOTIFY_SOCKET", stack.path(name)},
         {"WATCHDOG_USEC", std::to_string(watchdog.count() * 1000)}});
    std::string before;
    EXPECT_TRUE(systemd.Hears("cannot be published: no bus can be reached", seconds(20), &before));
    EXPECT_FALSE(systemd.Hears("WATCHDOG=1", 2 * watchdog, &before)) << "nobody can call it";
    stack.bus().Start();
    EXPECT_TRUE(systemd.Hears("STATUS=Serving clients\nREADY=1", seconds(20), &before));
    EXPECT_THAT(before, Not(HasSubstr("READY")));
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(systemd.Hears("WATCHDOG=1"));
    stack.bus().Kill();
    EXPECT_TRUE(systemd.Hears("no bus can be reached"));
    stack.bus().Start();
    EXPECT_TRUE(systemd.Hears("STATUS=Serving clients\n"));
    EXPECT_TRUE(systemd.Hears("WATCHDOG=1"));
    service.Signal(SIGTERM);
    EXPECT_TRUE(systemd.Hears("STOPPING=1"));
    EXPECT_EQ(service.Wait(seconds(10)), 0);
  }
}

}  // namespace
}  // namespace orb::test
