// What the callback object says of this process's collectors.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include <cerrno>
#include <string>
#include <vector>

#include "ipc/kiv_callback_impl.h"
#include "tests/ipc/client_fixture.h"
#include "utility/unique_fd.h"

namespace {

using android::sp;
using android::String16;
using android::Vector;
using Lines = std::vector<std::string>;
using DumpTest = orb::test::ClientTest;

TEST_F(DumpTest, DescribesItsCollectors) {
  StartManager();
  ASSERT_NE(Register("radio"), nullptr);
  ASSERT_NE(Register("sensor"), nullptr);
  const sp<KIVCallbackImpl> callback(new KIVCallbackImpl());
  const auto dump = [&](const Lines& words, android::status_t want) {
    orb::UniqueFd fd(memfd_create("dump", MFD_CLOEXEC));
    Vector<String16> args;
    for (const std::string& word : words) args.add(String16(word.c_str()));
    EXPECT_EQ(callback->dump(fd.get(), args), want);
    char text[4096];
    const ssize_t got = pread(fd.get(), text, sizeof text, 0);
    return std::string(text, got > 0 ? static_cast<size_t>(got) : 0);
  };
  const std::string all = dump({}, android::OK);
  EXPECT_NE(all.find("client.name: \"radio\"\n"), std::string::npos) << all;
  EXPECT_NE(all.find("client.name: \"sensor\"\n"), std::string::npos) << all;
  const std::string one = dump({"--token", "token-1"}, android::OK);
  EXPECT_NE(one.find("radio"), std::string::npos);
  EXPECT_EQ(one.find("sensor"), std::string::npos);
  EXPECT_EQ(dump({"--token", "other"}, android::NAME_NOT_FOUND), "");
  EXPECT_EQ(dump({"--token"}, android::BAD_VALUE), "");

  // Whoever asked has gone, which is no reason to end the host.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  EXPECT_EQ(callback->dump(ends[1], Vector<String16>()), -EPIPE);
  close(ends[1]);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

}  // namespace
