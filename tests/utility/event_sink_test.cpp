// The event log of a Linux system: where it is, what happens when several
// processes append and when nothing fits.
#include "utility/event_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>

#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/utility/event_dump.h"
#include "utility/unique_fd.h"

namespace orb {
namespace {

// One entry of two words: header, tag, list of two.
constexpr size_t kEntryBytes = 28 + 4 + 2 + 2 * 5;

class EventSinkTest : public testing::Test {
 protected:
  EventSinkTest() { setenv("ORB_EVENT_LOG", path_.c_str(), 1); }
  static void Write(int32_t a, int32_t b) {
    const int32_t words[] = {a, b};
    WriteEventList(1000004, words, 2);
  }
  std::string Dump() const { return test::ReadFileOrEmpty(path_); }

  test::TempDir dir_;
  const std::string path_ = dir_.path() + "/log";
};

TEST_F(EventSinkTest, EntryTellsItsWriter) {
  Write(0x64636261, 0x68676665);
  const std::vector<DumpEntry> entries = ParseDump(Dump());
  ASSERT_EQ(entries.size(), 1u);
  const DumpHeader header = entries[0].header;
  EXPECT_EQ(header.pid, getpid());
  EXPECT_EQ(header.tid, static_cast<uint32_t>(gettid()));
  EXPECT_NEAR(header.sec, time(nullptr), 5);
  EXPECT_EQ(header.lid, 2u);
  EXPECT_EQ(header.uid, getuid());
  EXPECT_EQ(header.tag, 1000004u);
  EXPECT_EQ(entries[0].bytes, "abcdefgh");
}

TEST_F(EventSinkTest, PlaceComesFromTheEnvironment) {
  const std::string top = dir_.path();
  const struct {
    const char* variable;
    std::string value;
    std::string want;
  } cases[] = {
      // Each takes precedence over the ones above it.
      {"HOME", top, ".local/state/orb/events.bin"},
      {"XDG_STATE_HOME", top + "/xdg", "xdg/orb/events.bin"},
      {"STATE_DIRECTORY", top + "/one:" + top + "/two", "one/events.bin"},
      {"ORB_EVENT_LOG", top + "/log", "log"},
  };
  for (const auto& c : cases) unsetenv(c.variable);
  LogCapture log;
  Write(1, 2);
  EXPECT_TRUE(log.Contains("no place for it")) << log.Dump();
  for (const auto& c : cases) {
    setenv(c.variable, c.value.c_str(), 1);
    Write(1, 2);
    EXPECT_EQ(test::ListFiles(top), std::vector<std::string>{c.want});
    std::filesystem::remove(top + "/" + c.want);
  }
  for (const auto& c : cases) unsetenv(c.variable);
}

TEST_F(EventSinkTest, ProcessesNeverTearAnEntry) {
  constexpr int kProcesses = 4;
  constexpr int kEvents = 200;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t pid = fork();
    if (pid == 0) {
      for (int i = 0; i < kEvents; ++i) Write(p, i);
      _exit(0);
    }
    children.push_back(pid);
  }
  for (const pid_t child : children) waitpid(child, nullptr, 0);
  std::map<int32_t, int32_t> next;  // By pid: its events come in order.
  for (const DumpEntry& entry : ParseDump(Dump())) {
    int32_t words[2];
    ASSERT_EQ(entry.bytes.size(), sizeof words);
    std::memcpy(words, entry.bytes.data(), sizeof words);
    EXPECT_EQ(words[1], next[entry.header.pid]++);
  }
  EXPECT_EQ(next.size(), static_cast<size_t>(kProcesses));
  for (const auto& [pid, count] : next) EXPECT_EQ(count, kEvents) << pid;
}

TEST_F(EventSinkTest, WhatDoesNotFitCostsOneEventAndOneLine) {
  const struct {
    const char* path;
    const char* message;
  } cases[] = {
      {"/dev/full", "Event dropped: /dev/full: No space left on device"},
      {"/nowhere/log", "Event dropped: /nowhere/log: No such file or directory"},
      {"/", "Event dropped: /: Is a directory"},
  };
  for (const auto& c : cases) {
    const LogCapture log;
    setenv("ORB_EVENT_LOG", c.path, 1);
    Write(1, 2);
    EXPECT_EQ(log.Count(c.message), 1u) << log.Dump();
    EXPECT_EQ(log.Lines().size(), 1u) << log.Dump();
  }
  setenv("ORB_EVENT_LOG", path_.c_str(), 1);
  const LogCapture log;
  const std::vector<int32_t> many(256);
  WriteEventList(1000004, many.data(), many.size());
  EXPECT_TRUE(log.Contains("Event of 256 words dropped: too long")) << log.Dump();
  Write(1, 2);
  EXPECT_EQ(ParseDump(Dump()).size(), 1u);
}

// Past the limit a write would end the process by a signal.
TEST_F(EventSinkTest, StopsAtTheFileSizeLimit) {
  const LogCapture log;  // The limit holds for a log that is a file, too.
  const pid_t child = fork();
  if (child == 0) {
    const rlimit limit = {2 * kEntryBytes + 10, 2 * kEntryBytes + 10};
    setrlimit(RLIMIT_FSIZE, &limit);
    for (int i = 0; i < 4; ++i) Write(i, i);
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ParseDump(Dump()).size(), 2u);
}

TEST_F(EventSinkTest, GivesUpOnALockThatNobodyReleases) {
  const UniqueFd holder(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(flock(holder.get(), LOCK_EX), 0);
  LogCapture log;
  Write(1, 2);
  EXPECT_EQ(log.Count("Event dropped: "), 1u) << log.Dump();
  flock(holder.get(), LOCK_UN);
  Write(1, 2);
  EXPECT_EQ(ParseDump(Dump()).size(), 1u);
}

}  // namespace
}  // namespace orb
