// The lines that a gauge prints to the host's standard output, whatever that is.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "kpi/gauge.h"
#include "tests/kpi/kpi_test_support.h"
#include "utility/unique_fd.h"

namespace orb::test {
namespace {

// Replaces the process's standard output by one that the test reads.
class Output {
 public:
  enum Kind { kPipe, kSocket, kTerminal };

  explicit Output(Kind kind) {
    int ends[2] = {-1, -1};
    if (kind == kPipe) {
      EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    }
    if (kind == kSocket) {
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    }
    if (kind == kTerminal) {
      ends[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
      EXPECT_EQ(grantpt(ends[0]) + unlockpt(ends[0]), 0);
      char name[64];
      EXPECT_EQ(ptsname_r(ends[0], name, sizeof name), 0);
      ends[1] = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    reader.reset(ends[0]);
    fflush(stdout);
    before_.reset(dup(STDOUT_FILENO));
    EXPECT_GE(dup2(ends[1], STDOUT_FILENO), 0);
    close(ends[1]);
  }
  ~Output() { dup2(before_.get(), STDOUT_FILENO); }

  // Leaves no room for a line.
  static void Fill() {
    const int flags = fcntl(STDOUT_FILENO, F_GETFL);
    fcntl(STDOUT_FILENO, F_SETFL, flags | O_NONBLOCK);
    const std::string filler(256, 'x');
    while (write(STDOUT_FILENO, filler.data(), filler.size()) > 0) {
    }
    fcntl(STDOUT_FILENO, F_SETFL, flags);
  }
  std::string ReadAll() const {
    fcntl(reader.get(), F_SETFL, O_NONBLOCK);
    std::string all;
    char some[4096];
    for (ssize_t got; (got = read(reader.get(), some, sizeof some)) > 0;) {
      all.append(some, static_cast<size_t>(got));
    }
    return all;
  }

  UniqueFd reader;

 private:
  UniqueFd before_;
};

TEST(GaugePrintTest, NeitherWaitsNorSignals) {
  FakeSerializer serializer;
  Gauge gauge(WithSampleWindow(NumericCfg(GAUGE), 100'000), &serializer);
  for (int i = 0; i < 5000; ++i) gauge.NewTimedSample(100 + i, i);
  const auto count = [](const std::string& text, char c) {
    return std::count(text.begin(), text.end(), c);
  };
  for (const Output::Kind kind : {Output::kPipe, Output::kSocket, Output::kTerminal}) {
    SCOPED_TRACE(kind);
    {
      Output out(kind);
      gauge.Print();  // More than is taken.
      EXPECT_EQ(fcntl(STDOUT_FILENO, F_GETFL) & O_NONBLOCK, 0);
      const std::string printed = out.ReadAll();
      EXPECT_GT(count(printed, '\n'), 20);
      EXPECT_LT(count(printed, '\n'), 4999);
      if (kind != Output::kTerminal) {
        EXPECT_TRUE(printed.ends_with('\n')) << "no line is torn";
      }
    }
    {
      Output out(kind);
      Output::Fill();
      gauge.Print();
      EXPECT_EQ(count(out.ReadAll(), 'I'), 0);
    }
    Output closed(kind);
    closed.reader.reset();
    gauge.Print();
  }
  // A thread of the host that holds the lock of stdout delays nothing.
  Output out(Output::kPipe);
  flockfile(stdout);
  std::thread([&gauge] { gauge.Print(); }).join();
  funlockfile(stdout);
  EXPECT_GT(count(out.ReadAll(), 'I'), 20);
}

}  // namespace
}  // namespace orb::test
