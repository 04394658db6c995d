#include "tools/orbctl/key_command.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/child_process.h"

namespace orb::orbctl {
namespace {

using orb::test::ReadFileOrEmpty;

mode_t ModeOf(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 0777U : 0;
}

TEST(KeyCommandTest, MakesAPairThatOnlyItsOwnerReads) {
  const orb::test::TempDir temp;
  const std::string dir = temp.path() + "/new/keys";
  umask(0);
  ASSERT_EQ(NewKey(dir, false), 0);
  EXPECT_EQ(ModeOf(dir + "/private.pem"), 0600U);
  EXPECT_EQ(ModeOf(dir + "/public.pem"), 0644U);
}

TEST(KeyCommandTest, ReplacesNothing) {
  const orb::test::TempDir temp;
  ASSERT_TRUE(orb::test::WriteFile(temp.path() + "/public.pem", "mine"));
  EXPECT_EQ(NewKey(temp.path(), false), 1);
  EXPECT_EQ(orb::test::ListFiles(temp.path()), (std::vector<std::string>{"public.pem"}));
  EXPECT_EQ(ReadFileOrEmpty(temp.path() + "/public.pem"), "mine");
}

}  // namespace
}  // namespace orb::orbctl
