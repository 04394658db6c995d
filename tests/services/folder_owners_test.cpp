// Whose folder it is, also after a restart.
#include "services/hal/folder_owners.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "services/hal/hal.h"
#include "tests/services/upload_bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace orb::hal {
namespace {

using orb::test::ReadFileOrEmpty;
using orb::test::WriteFile;

class FolderOwnersTest : public ::testing::Test {
 protected:
  bool Open(size_t folders_per_user = 2) {
    auto opened = FolderOwners::Open(temp_.path(), folders_per_user);
    if (opened.ok())
      owners_ = *std::move(opened);
    else
      error_ = opened.error().text;
    return opened.ok();
  }
  bool Admit(uid_t user, const std::string& name) { return owners_->Admit({100, user}, name); }
  std::string file() const { return temp_.path() + "/.owners"; }

  LogCapture log_;
  orb::test::TempDir temp_;
  std::unique_ptr<FolderOwners> owners_;
  std::string error_;
};

TEST_F(FolderOwnersTest, AFolderBelongsToTheUserWhoCameFirst) {
  const struct {
    uid_t user;
    const char* name;
    const char* refused;  // Empty: it may.
  } kCases[] = {
      {1000, "/up/7/radio.42", ""},
      {1000, "up/7/radio.43", ""},
      {1001, "/up/7/radio.42", "the folder belongs to uid 1000; "},
      {0, "/up/7", "the folder belongs to uid 1000; "},
      {1001, "/up/70/radio.42", ""},
      {static_cast<uid_t>(-1), "/up/9/x.1", "the caller has left the bus"},
      {1000, "/other", ""},
      {1000, "/up/8/gps.1", "the user has 2 folders already; "},
      {1001, "/other/", ""},  // No name, which is the spool's to refuse.
      {1001, "/other", "the folder belongs to uid 1000; "},
      {1000, "/up/7/gps.1", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.name) + " of " + std::to_string(c.user));
    ASSERT_TRUE(Open());
    log_.Clear();
    EXPECT_EQ(Admit(c.user, c.name), *c.refused == 0) << log_.Dump();
    EXPECT_TRUE(*c.refused == 0 || log_.Contains(c.refused)) << log_.Dump();
  }
  EXPECT_EQ(ReadFileOrEmpty(file()), "1000 other\n1000 up/7\n1001 up/70\n");
}

TEST_F(FolderOwnersTest, StartsOnlyWithAFileThatItUnderstands) {
  for (const char* content : {"1000", "up/7 1000\n", "1000 up/7/radio.42\n", "-1 up/7\n", "1 \n"}) {
    ASSERT_TRUE(WriteFile(file(), content));
    EXPECT_FALSE(Open()) << content;
    EXPECT_EQ(error_, "cannot read " + file() + ": Bad message");
  }
  // A folder stands in the way of the new file: root could write to any other.
  ASSERT_EQ(unlink(file().c_str()), 0);
  ASSERT_EQ(mkdir((file() + ".tmp").c_str(), 0700), 0);
  ASSERT_TRUE(Open());
  EXPECT_TRUE(Admit(1000, "/up/7/radio.42"));
  EXPECT_FALSE(Admit(1001, "/up/7/radio.42"));
  EXPECT_TRUE(log_.Contains("the spool's .owners cannot be written: File exists"));
}

TEST_F(FolderOwnersTest, TheHalStoresNothingInAnothersFolder) {
  ASSERT_TRUE(Open());
  Hal hal(*Spool::Open(temp_.path(), 0), std::move(owners_));
  const std::vector<uint8_t> header = Upload(3, 5, 0);
  const auto store = [&](const Caller& caller) {
    UniqueFd memory(memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    EXPECT_EQ(ftruncate(memory.get(), 8), 0);
    EXPECT_EQ(fcntl(memory.get(), F_ADD_SEALS, F_SEAL_SHRINK), 0);
    const uint32_t token =
        hal.AddChannel(caller, std::move(memory), 0, 8, [](auto...) { return Sent::kYes; });
    return hal.StoreSlot(caller, "/up/7/radio.42", header, static_cast<int32_t>(token), 0, 8);
  };
  EXPECT_EQ(store({100, 1000}), 0);
  EXPECT_EQ(store({200, 1001}), -EACCES);
  EXPECT_EQ(orb::test::ListFiles(temp_.path() + "/up/7/radio.42").size(), 1U);
}

}  // namespace
}  // namespace orb::hal
