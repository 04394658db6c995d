#include "tools/orbctl/key_command.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "include/orb_encrypt.h"
#include "tests/support/child_process.h"

namespace orb::orbctl {
namespace {

using orb::test::ReadFileOrEmpty;

mode_t ModeOf(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 0777U : 0;
}

TEST(KeyCommandTest, MakesAPairThatSealsAndOpens) {
  const orb::test::TempDir temp;
  const std::string dir = temp.path() + "/new/keys";
  umask(0);
  ASSERT_EQ(NewKey(dir, false), 0);
  EXPECT_EQ(ModeOf(dir + "/private.pem"), 0600U);
  EXPECT_EQ(ModeOf(dir + "/public.pem"), 0644U);

  const uint8_t data[] = {1, 2, 3};
  uint8_t* out[4] = {};
  uint64_t len[4] = {};
  ASSERT_EQ(orb_encrypt(2, 1, ReadFileOrEmpty(dir + "/public.pem").c_str(), data, 3, &out[0],
                        &len[0], &out[1], &len[1], &out[2], &len[2], &out[3], &len[3]),
            0);
  uint8_t* plain = nullptr;
  uint64_t plain_len = 0;
  EXPECT_EQ(orb_decrypt_evp2_ecc_aes_gcm(2, 1, ReadFileOrEmpty(dir + "/private.pem").c_str(),
                                         out[1], len[1], out[0], len[0], out[2], len[2], out[3],
                                         len[3], &plain, &plain_len),
            0);
  EXPECT_EQ(std::vector<uint8_t>(plain, plain + plain_len), (std::vector<uint8_t>{1, 2, 3}));
  for (uint8_t* buffer : out) free(buffer);
  free(plain);
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
