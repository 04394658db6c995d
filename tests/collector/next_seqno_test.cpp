#include "collector/next_seqno.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/support/child_process.h"

namespace {

using orb::test::ReadFileOrEmpty;
using orb::test::TempDir;
using orb::test::WriteFile;

TEST(NextSeqnoTest, ReturnsTheStoredNumberAndStoresTheNext) {
  const struct {
    std::optional<std::string> text;  // None: no file.
    uint32_t want;
    const char* left;
  } cases[] = {
      {std::nullopt, 0, "1\n"},   {"", 0, "1\n"},
      {"0\n", 0, "1\n"},          {" \n\t41", 41, "42\n"},
      {"7 8\n", 7, "8\n"},        {"seven\n", 0, "1\n"},
      {"-3\n", 0, "1\n"},         {"4294967294\n", 4294967294u, "4294967295\n"},
      {"4294967296\n", 0, "1\n"}, {"99999999999999999999999\n", 0, "1\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.value_or("(none)"));
    TempDir dir;
    const std::string path = dir.path() + "/radio.seq";
    if (c.text) {
      ASSERT_TRUE(WriteFile(path, *c.text));
    }
    EXPECT_EQ(next_seqno(path.c_str()), c.want);
    EXPECT_EQ(ReadFileOrEmpty(path), c.left);
  }
}

TEST(NextSeqnoDeathTest, AbortsPastTheLargestNumber) {
  TempDir dir;
  const std::string path = dir.path() + "/radio.seq";
  ASSERT_TRUE(WriteFile(path, "4294967295\n"));
  EXPECT_DEATH(next_seqno(path.c_str()), "");
}

}  // namespace
