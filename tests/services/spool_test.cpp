// Uploads become whole files under their names, the oldest go first, and
// nothing lands anywhere else.
#include "services/hal/spool.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "services/hal/upload_name.h"
#include "tests/services/upload_bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace orb::hal {
namespace {

namespace fs = std::filesystem;
using orb::test::ListFiles;
using orb::test::ReadFileOrEmpty;
using Names = std::vector<std::string>;

constexpr const char* kName = "/up/7/radio.42";
constexpr const char* kFirst = "up/7/radio.42/0000000000-1763716800000.orb";

class SpoolTest : public ::testing::Test {
 protected:
  void Open(uint64_t max_bytes) {
    spool_.reset();
    std::string error;
    spool_ = Spool::Open(Dir(), max_bytes, &error);
    ASSERT_NE(spool_, nullptr) << error;
  }
  std::string Dir() const { return temp_.path() + "/spool"; }
  std::string Content(const std::string& file) { return ReadFileOrEmpty(Dir() + "/" + file); }

  LogCapture log_;
  orb::test::TempDir temp_;
  std::unique_ptr<Spool> spool_;
};

TEST_F(SpoolTest, StoresTheBytesAsSentUnderNameNumberAndTime) {
  Open(0);
  const std::vector<uint8_t> upload = Upload(0, 1763716800000, 10);
  EXPECT_TRUE(spool_->Store(kName, upload));
  EXPECT_TRUE(spool_->Store(kName, Upload(0, 1763716800000, 2))) << "another with its number";
  EXPECT_TRUE(spool_->Store(kName, Upload(4294967295, 1763716800001, 1)));
  EXPECT_EQ(ListFiles(Dir()), (Names{"up/7/radio.42/0000000000-1763716800000.1.orb", kFirst,
                                     "up/7/radio.42/4294967295-1763716800001.orb"}));
  EXPECT_EQ(Content(kFirst), std::string(upload.begin(), upload.end()));
}

TEST_F(SpoolTest, RefusesWhatItMustNotStore) {
  Open(1000);
  EXPECT_FALSE(spool_->Store("../escaped", Upload(0, 1, 1)));
  EXPECT_TRUE(log_.Contains("upload refused: a folder that starts with a dot in \"../escaped\""));
  EXPECT_FALSE(spool_->Store(kName, {}));
  EXPECT_FALSE(spool_->Store(kName, std::vector<uint8_t>(TelemetryHeader::kBytes - 1)));
  EXPECT_TRUE(log_.Contains("/up/7/radio.42 has 65 bytes, 66 to "));
  EXPECT_FALSE(spool_->Store(kName, Upload(0, 1, 1000)));
  EXPECT_TRUE(log_.Contains("has 1066 bytes, the whole spool may hold 1000"));
  EXPECT_EQ(ListFiles(temp_.path()), Names{});
}

TEST_F(SpoolTest, FollowsNoLinkOutOfTheSpool) {
  Open(0);
  fs::create_directory(temp_.path() + "/outside");
  fs::create_directory_symlink(temp_.path() + "/outside", Dir() + "/up");
  EXPECT_FALSE(spool_->Store(kName, Upload(0, 1, 1)));
  EXPECT_TRUE(log_.Contains("upload /up/7/radio.42 could not be stored: "));
  EXPECT_TRUE(fs::is_empty(temp_.path() + "/outside"));
  EXPECT_TRUE(fs::is_empty(Dir() + "/.incoming"));
}

TEST_F(SpoolTest, RemovesTheOldestAboveTheQuota) {
  Open(3 * 100);
  for (uint32_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(spool_->Store("/up/" + std::to_string(i) + "/c.1", Upload(i, 5, 100 - 66)));
  }
  EXPECT_EQ(spool_->StoredBytes(), 300U);
  EXPECT_FALSE(log_.Contains("spool full"));
  EXPECT_TRUE(spool_->Store("/up/3/c.1", Upload(3, 5, 101 - 66)));
  EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "orb-hald",
                       "spool full: removed up/0/c.1/0000000000-0000000000005.orb, 100 bytes"));
  EXPECT_EQ(log_.Count("spool full"), 2U);
  EXPECT_EQ(ListFiles(Dir()), (Names{"up/2/c.1/0000000002-0000000000005.orb",
                                     "up/3/c.1/0000000003-0000000000005.orb"}));
  EXPECT_FALSE(fs::exists(Dir() + "/up/0")) << "empty folders stay behind";
}

TEST_F(SpoolTest, CountsWhatAnEarlierRunLeftAndSweepsItsTemporaries) {
  Open(0);
  EXPECT_TRUE(spool_->Store("/up/1/old.1", Upload(0, 1, 34)));
  EXPECT_TRUE(spool_->Store("/up/1/new.1", Upload(0, 1, 34)));
  spool_.reset();
  const auto hour_ago = fs::file_time_type::clock::now() - std::chrono::hours(1);
  fs::last_write_time(Dir() + "/up/1/old.1/0000000000-0000000000001.orb", hour_ago);
  ASSERT_TRUE(orb::test::WriteFile(Dir() + "/.incoming/7.tmp", "half of an upl"));
  ASSERT_TRUE(orb::test::WriteFile(Dir() + "/notes.txt", "not an upload"));
  Open(150);
  EXPECT_EQ(spool_->StoredBytes(), 100U);
  EXPECT_EQ(ListFiles(Dir()), (Names{"notes.txt", "up/1/new.1/0000000000-0000000000001.orb"}));
}

TEST_F(SpoolTest, TakesNoNoticeOfFilesThatAReaderRemoved) {
  Open(200);
  EXPECT_TRUE(spool_->Store(kName, Upload(0, 1763716800000, 34)));
  EXPECT_TRUE(spool_->Store(kName, Upload(1, 1763716800000, 34)));
  fs::remove(Dir() + "/" + kFirst);
  EXPECT_TRUE(spool_->Store(kName, Upload(2, 1763716800000, 34)));
  EXPECT_FALSE(log_.Contains("spool full"));
  EXPECT_EQ(ListFiles(Dir()).size(), 2U);
}

TEST_F(SpoolTest, BelongsToOneProcessAtATime) {
  Open(0);
  std::string error;
  EXPECT_EQ(Spool::Open(Dir(), 0, &error), nullptr);
  EXPECT_EQ(error, Dir() + " is in use by another process");
  ASSERT_TRUE(orb::test::WriteFile(temp_.path() + "/file", ""));
  EXPECT_EQ(Spool::Open(temp_.path() + "/file", 0, &error), nullptr);
  EXPECT_EQ(error, "cannot use " + temp_.path() + "/file: Not a directory");
}

TEST_F(SpoolTest, StoresFromManyThreadsAtOnce) {
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kUploads = 25;
  Open(0);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (uint32_t i = 0; i < kUploads; ++i) {
        EXPECT_TRUE(spool_->Store("/up/1/c." + std::to_string(t % 2), Upload(i, 1, t)));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ListFiles(Dir()).size(), size_t{kThreads * kUploads});
}

// The folders of a name, "" for one that is refused.
std::string FoldersOf(const std::string& name) {
  std::vector<std::string> folders;
  std::string why;
  if (!ParseUploadName(name, &folders, &why)) {
    EXPECT_NE(why, "");
    return "";
  }
  std::string text;
  for (const std::string& folder : folders) text += "<" + folder + ">";
  return text;
}

TEST(UploadNameTest, LeadsOnlyBelowTheSpool) {
  const std::string longest(kMaxFolderBytes, 'x');
  std::string deep = "a";
  for (size_t i = 0; i < kMaxNameFolders; ++i) deep += "/a";
  const struct {
    std::string name;
    std::string want;
  } kCases[] = {
      {"/up/7/radio.42", "<up><7><radio.42>"},
      {"up/7/radio.42", "<up><7><radio.42>"},
      {"/a b/\xc3\xbc", "<a b><\xc3\xbc>"},
      {"/" + longest, "<" + longest + ">"},
      {longest + "x", ""},
      {deep, ""},
      {std::string(kMaxNameBytes + 2, 'x'), ""},
      {"/", ""},
      {"/up/7/..", ""},
      {"//etc/passwd", ""},
      {"/up/7/", ""},
      {"/.incoming/x", ""},
      {"/up/7/radio.42/0000000000-1763716800000.orb", ""},  // In the way of a file.
      {std::string("/up/7/ra\0dio", 12), ""},
      {"/up/7/ra\x7f", ""},
  };
  for (const auto& c : kCases) EXPECT_EQ(FoldersOf(c.name), c.want) << c.name;
  EXPECT_EQ(Printable("a\x1b[2J\n\xff_b"), "a?[2J??_b");
  EXPECT_EQ(Printable(std::string(500, 'x')).size(), 80U);
}

}  // namespace
}  // namespace orb::hal
