// What a client may call an upload, and what it may not.
#include "services/hal/upload_name.h"

#include <gtest/gtest.h>

namespace orb::hal {
namespace {

using Folders = std::vector<std::string>;
using std::string_literals::operator""s;

TEST(UploadNameTest, TakesNamesBelowTheSpool) {
  const struct {
    std::string name;
    Folders want;
  } kCases[] = {
      {"/up/7/radio.42", {"up", "7", "radio.42"}},
      {"up/7/radio.42", {"up", "7", "radio.42"}},
      {"radio", {"radio"}},
      {"/a b/\xc3\xbc", {"a b", "\xc3\xbc"}},
      {"/" + std::string(kMaxFolderBytes, 'x'), {std::string(kMaxFolderBytes, 'x')}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Folders folders;
    std::string why;
    EXPECT_TRUE(ParseUploadName(c.name, &folders, &why)) << why;
    EXPECT_EQ(folders, c.want);
  }
}

TEST(UploadNameTest, RefusesNamesThatLeadElsewhere) {
  std::string deep = "a";
  for (size_t i = 0; i < kMaxNameFolders; ++i) deep += "/a";
  const struct {
    const char* what;
    std::string name;
  } kCases[] = {
      {"empty", ""},
      {"only a slash", "/"},
      {"parent", "../etc"},
      {"parent inside", "/up/../../etc/passwd"},
      {"parent at the end", "/up/7/.."},
      {"this folder", "/up/./7"},
      {"absolute twice", "//etc/passwd"},
      {"empty folder", "/up//radio.42"},
      {"trailing slash", "/up/7/"},
      {"the spool's own folder", "/.incoming/x"},
      {"in the way of a file", "/up/7/radio.42/0000000000-1763716800000.orb"},
      {"NUL", "/up/7/ra\0dio"s},
      {"line feed", "/up/7/ra\ndio"},
      {"delete", "/up/7/ra\x7f"},
      {"folder too long", std::string(kMaxFolderBytes + 1, 'x')},
      {"too deep", deep},
      {"too long", std::string(kMaxNameBytes + 2, 'x')},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    Folders folders;
    std::string why;
    EXPECT_FALSE(ParseUploadName(c.name, &folders, &why));
    EXPECT_NE(why, "");
  }
}

TEST(UploadNameTest, PrintsWithoutHarm) {
  EXPECT_EQ(Printable("a\x1b[2J\n\xff"
                      "b"),
            "a?[2J??b");
  EXPECT_EQ(Printable(std::string(500, 'x')).size(), 80U);
}

}  // namespace
}  // namespace orb::hal
