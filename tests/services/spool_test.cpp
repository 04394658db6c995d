// Uploads become whole files under their names, the oldest go first, and
// nothing lands anywhere else.
#include "services/hal/spool.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <thread>

#include "services/hal/upload_name.h"
#include "tests/services/upload_bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/mount_namespace.h"

namespace orb::hal {
namespace {

namespace fs = std::filesystem;
using orb::test::ListFiles;
using orb::test::ReadFileOrEmpty;
using Names = std::vector<std::string>;

constexpr const char* kName = "/up/7/radio.42";
// An upload of StoreSmall: a block and two folders of its own.
constexpr uint64_t kSmallBytes = 4096 + kInodeBytes + 2 * kFolderBytes;
constexpr const char* kFirst = "up/7/radio.42/0000000000-1763716800000.orb";

class SpoolTest : public ::testing::Test {
 protected:
  void Open(uint64_t max_bytes, StatDisk stat_disk = fstatvfs) {
    spool_.reset();
    auto opened = Spool::Open(Dir(), max_bytes, stat_disk);
    ASSERT_TRUE(opened.ok()) << opened.error().text;
    spool_ = *std::move(opened);
  }
  // A disk of the spool's own, which only this process sees.
  bool Mount(const std::string& options) {
    fs::create_directory(Dir());
    return orb::test::EnterMountNamespace() &&
           mount("tmpfs", Dir().c_str(), "tmpfs", 0, options.c_str()) == 0;
  }
  bool StoreSmall(uint32_t number) {
    return spool_->Store("/up/" + std::to_string(number) + "/c.1", Upload(number, 5, 10));
  }
  static std::string Small(uint32_t number) {
    char seqno[16];
    static_cast<void>(snprintf(seqno, sizeof seqno, "%010u", number));
    return "up/" + std::to_string(number) + "/c.1/" + seqno + "-0000000000005.orb";
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
  EXPECT_FALSE(spool_->Store(kName, std::vector<uint8_t>()));
  EXPECT_FALSE(spool_->Store(kName, std::vector<uint8_t>(header::kBytes - 1)));
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
  Open(0);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_TRUE(StoreSmall(i));
  const uint64_t three_bytes = spool_->StoredBytes();
  EXPECT_EQ(three_bytes, 3 * kSmallBytes + kFolderBytes) << "and the common folder";
  Open(three_bytes + kSmallBytes / 2);
  EXPECT_EQ(spool_->StoredBytes(), three_bytes) << "counted as it was stored";
  EXPECT_FALSE(log_.Contains("spool full"));
  EXPECT_TRUE(StoreSmall(3));
  EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "orb-hald",
                       "spool full: removed up/0/c.1/0000000000-0000000000005.orb, 4608 bytes"));
  EXPECT_EQ(log_.Count("spool full"), 1U);
  EXPECT_EQ(ListFiles(Dir()), (Names{Small(1), Small(2), Small(3)}));
  EXPECT_FALSE(fs::exists(Dir() + "/up/0")) << "empty folders stay behind";
  Open(three_bytes - 1);
  EXPECT_EQ(ListFiles(Dir()), (Names{Small(2), Small(3)})) << "a lower quota";
}

// By when they were stored, also when the clock is set back: else each new one would go.
TEST_F(SpoolTest, KeepsTheOrderOfAnEarlierRunAndSweepsItsTemporaries) {
  Open(0);
  EXPECT_TRUE(StoreSmall(9));
  EXPECT_TRUE(StoreSmall(8));
  fs::last_write_time(Dir() + "/" + Small(8),
                      fs::file_time_type::clock::now() + std::chrono::hours(1));
  ASSERT_TRUE(orb::test::WriteFile(Dir() + "/.incoming/7.tmp", "half of an upl"));
  ASSERT_TRUE(orb::test::WriteFile(Dir() + "/notes.txt", "not an upload"));
  const uint64_t two_bytes = spool_->StoredBytes();
  Open(two_bytes + kSmallBytes / 2);
  EXPECT_EQ(spool_->StoredBytes(), two_bytes);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_TRUE(StoreSmall(i));
  EXPECT_EQ(ListFiles(Dir()), (Names{"notes.txt", Small(1), Small(2)}));
}

TEST_F(SpoolTest, KeepsWhatIsUnreadWhileAReaderTakesTheRest) {
  Open(0);
  EXPECT_TRUE(StoreSmall(0));
  Open(11 * spool_->StoredBytes());
  for (uint32_t i = 1; i < 100; ++i) {
    EXPECT_TRUE(StoreSmall(i));
    fs::remove(Dir() + "/" + Small(i));
  }
  EXPECT_FALSE(log_.Contains("spool full"));
  EXPECT_EQ(ListFiles(Dir()), Names{Small(0)});
  const fs::directory_iterator folders(Dir() + "/up");
  EXPECT_LE(std::distance(begin(folders), end(folders)), 16) << "of files that are gone";
}

TEST_F(SpoolTest, TakesNoMoreOfTheDiskThanItsQuota) {
  if (!Mount("size=8m")) GTEST_SKIP() << "no mount allowed";
  constexpr uint64_t kQuota = 256 << 10;
  Open(kQuota);
  for (uint32_t i = 0; i < 100; ++i) ASSERT_TRUE(StoreSmall(i));
  struct statvfs disk {};
  ASSERT_EQ(statvfs(Dir().c_str(), &disk), 0);
  EXPECT_LE((disk.f_blocks - disk.f_bfree) * disk.f_frsize, kQuota);
  EXPECT_LE((disk.f_files - disk.f_ffree) * kInodeBytes, kQuota);
  EXPECT_TRUE(fs::exists(Dir() + "/" + Small(99)));
}

// What a quota of the user does: nothing tells of it but the write that fails.
int SaysPlentyIsFree(int fd, struct statvfs* out) {
  const int result = fstatvfs(fd, out);
  out->f_bavail = out->f_blocks = out->f_favail = out->f_files = 1 << 20;
  return result;
}

TEST_F(SpoolTest, KeepsTheNewestOnAFullDisk) {
  const struct {
    const char* options;
    StatDisk stat_disk;
    bool keeps_reserve;
  } kCases[] = {
      {"size=400k", fstatvfs, true},
      {"size=400k", SaysPlentyIsFree, false},
      {"nr_inodes=100", fstatvfs, true},
      {"nr_inodes=100", SaysPlentyIsFree, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.options + std::string(c.keeps_reserve ? "" : ", unannounced"));
    if (!Mount(c.options)) GTEST_SKIP() << "no mount allowed";
    Open(0, c.stat_disk);
    constexpr uint32_t kUploads = 200;
    for (uint32_t i = 0; i < kUploads; ++i) ASSERT_TRUE(StoreSmall(i)) << i;
    EXPECT_TRUE(spool_->Store("/large", Upload(0, 5, 100 << 10)));
    EXPECT_TRUE(fs::exists(Dir() + "/" + Small(kUploads - 1)));
    EXPECT_FALSE(fs::exists(Dir() + "/" + Small(0)));
    EXPECT_GE(ListFiles(Dir()).size(), 20U) << "no more than necessary goes";
    struct statvfs disk {};
    ASSERT_EQ(statvfs(Dir().c_str(), &disk), 0);
    if (c.keeps_reserve) {
      EXPECT_GE(disk.f_bavail, disk.f_blocks / 50);
      EXPECT_GE(disk.f_favail, disk.f_files / 50);
    }
    spool_.reset();
    ASSERT_EQ(umount(Dir().c_str()), 0);
  }
}

TEST_F(SpoolTest, BelongsToOneProcessAtATime) {
  Open(0);
  EXPECT_EQ(Spool::Open(Dir(), 0).error().text, Dir() + " is in use by another process");
  ASSERT_TRUE(orb::test::WriteFile(temp_.path() + "/file", ""));
  EXPECT_EQ(Spool::Open(temp_.path() + "/file", 0).error().text,
            "cannot use " + temp_.path() + "/file: Not a directory");
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
  const auto folders = ParseUploadName(name);
  std::string text;
  if (!folders.ok()) return text;
  for (const std::string& folder : *folders) text += "<" + folder + ">";
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
