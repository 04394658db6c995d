// What the manager remembers, and what a damaged file costs.
#include "services/manager/state_store.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <cstring>

#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "utility/byte_order.h"

namespace orb::manager {
namespace {

using orb::test::ListFiles;
using orb::test::ReadFileOrEmpty;
using orb::test::WriteFile;
using Names = std::vector<std::string>;

SavedCampaign Campaign(int64_t id) {
  SavedCampaign campaign;
  campaign.set_camp_id(id);
  campaign.set_definition(std::string("\x00\xff\x01", 3));
  return campaign;
}

std::string StateFile(const ClientState& state) {
  const std::string body = state.SerializeAsString();
  std::array<uint8_t, 4> crc{};
  StoreBigEndian<uint32_t>(
      crc.data(), static_cast<uint32_t>(crc32(0, reinterpret_cast<const uint8_t*>(body.data()),
                                              static_cast<uInt>(body.size()))));
  return "ORBSTAT1" + std::string(crc.begin(), crc.end()) + body;
}

class StateStoreTest : public ::testing::Test {
 protected:
  StateStoreTest() { Open(); }
  void Open(size_t names_per_user = 100) {
    store_.reset();
    auto opened = StateStore::Open(Dir(), names_per_user);
    ASSERT_TRUE(opened.ok()) << opened.error().text;
    store_ = *std::move(opened);
  }
  std::string Dir() const { return temp_.path() + "/state"; }
  int32_t ClientId(const std::string& name, uid_t user = 1000) {
    const Result<int32_t> id = store_->ClientId(name, user);
    why_ = id.ok() ? "" : id.error().text;
    return id.ok() ? *id : -1;
  }
  std::string Path(const std::string& file) const { return Dir() + "/" + file; }

  LogCapture log_;
  orb::test::TempDir temp_;
  std::unique_ptr<StateStore> store_;
  std::string why_;  // The last name was refused.
};

TEST_F(StateStoreTest, RemembersIdsAndCampaignsOverARestart) {
  EXPECT_EQ(ClientId("radio"), 1);
  EXPECT_EQ(ClientId("gps"), 2);
  EXPECT_TRUE(store_->SetCampaign("radio", Campaign(77)));
  Open();
  EXPECT_EQ(ClientId("gps"), 2);
  EXPECT_EQ(ClientId("radio"), 1);
  EXPECT_EQ(ClientId("wifi"), 3);
  SavedCampaign got;
  ASSERT_TRUE(store_->GetCampaign("radio", &got));
  EXPECT_EQ(got.SerializeAsString(), Campaign(77).SerializeAsString());
  EXPECT_FALSE(store_->GetCampaign("gps", &got));
  const auto die = [](SavedCampaign* campaign) {
    campaign->set_early_deaths(2);
    return true;
  };
  EXPECT_TRUE(store_->ChangeCampaign("radio", die));
  EXPECT_FALSE(store_->ChangeCampaign("gps", die));
  Open();
  ASSERT_TRUE(store_->GetCampaign("radio", &got));
  EXPECT_EQ(got.early_deaths(), 2);
  EXPECT_TRUE(store_->ClearCampaign("radio"));
  Open();
  EXPECT_FALSE(store_->GetCampaign("radio", &got));
  EXPECT_TRUE(store_->Knows("radio"));
  EXPECT_FALSE(store_->SetCampaign("nobody", Campaign(1)));
  EXPECT_EQ(ListFiles(Dir()), (Names{"1.client", "2.client", "3.client"}));
}

TEST_F(StateStoreTest, GivesANameToTheUserWhoCameFirst) {
  ClientState old;
  old.set_name("old");
  old.set_client_id(1);
  ASSERT_TRUE(WriteFile(Path("1.client"), StateFile(old)));
  Open(2);
  // In this order, with the id that is wanted; -1 with the reason.
  const struct {
    const char* name;
    uid_t user;
    int32_t id;
    const char* why;
  } kCases[] = {
      {"radio", 1000, 2, ""},
      {"radio", 1001, -1, "the name belongs to uid 1000; orbctl client forget releases it"},
      {"radio", 0, -1, "the name belongs to uid 1000; orbctl client forget releases it"},
      {"gps", 1000, 3, ""},
      {"wifi", 1000, -1, "the user has 2 names already; "},
      {"old", 1000, 1, ""},
      {"old", 1001, -1, "the name belongs to uid 1000"},
      {"wifi", 1001, 4, ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.name) + " of " + std::to_string(c.user));
    EXPECT_EQ(ClientId(c.name, c.user), c.id);
    EXPECT_EQ(why_.substr(0, strlen(c.why)), c.why);
    Open(2);
  }
  // Only what is forgotten makes room, and its id stays taken, also over a restart.
  store_->SetCampaign("wifi", Campaign(1));
  for (const int32_t id : {5, 6}) {
    ASSERT_TRUE(store_->Forget("wifi"));
    EXPECT_FALSE(store_->Knows("wifi"));
    Open(2);
    EXPECT_EQ(ClientId("wifi", 1002), id);
    SavedCampaign none;
    EXPECT_FALSE(store_->GetCampaign("wifi", &none));
  }
  ASSERT_EQ(mkdir(Path("6.client.forgotten.tmp").c_str(), 0700), 0);
  EXPECT_FALSE(store_->Forget("wifi"));
  EXPECT_EQ(ClientId("wifi", 1002), 6);
  Open();
  EXPECT_EQ(ListFiles(Dir()), (Names{"1.client", "2.client", "3.client", "6.client"}));
}

TEST_F(StateStoreTest, PutsADamagedFileAsideAndKeepsTheOthers) {
  ClientId("radio");
  ClientId("gps");
  store_->SetCampaign("gps", Campaign(5));
  const std::string good = ReadFileOrEmpty(Path("2.client"));
  std::string flipped = good;
  flipped[20] = static_cast<char>(flipped[20] ^ 1);
  const std::pair<const char*, std::string> kCases[] = {
      {"cut in the prefix", good.substr(0, 11)},
      {"cut in the body", good.substr(0, good.size() - 1)},
      {"one bit", flipped},
      {"another format", "ORBSTAT2" + good.substr(8)},
      {"another client's", ReadFileOrEmpty(Path("1.client"))},
  };
  for (const auto& [what, content] : kCases) {
    SCOPED_TRACE(what);
    log_.Clear();
    ASSERT_TRUE(WriteFile(Path("2.client"), content));
    Open();
    EXPECT_TRUE(log_.Has(ANDROID_LOG_ERROR, "orb-managerd",
                         "state 2.client: damaged, kept as 2.client.damaged; its client starts "
                         "without a campaign"))
        << log_.Dump();
    EXPECT_EQ(ClientId("radio"), 1);
    EXPECT_FALSE(store_->Knows("gps"));
    EXPECT_EQ(ReadFileOrEmpty(Path("2.client.damaged")), content);
  }
  EXPECT_EQ(ClientId("gps"), 3) << "an id that uploads may carry was given out again";
}

TEST_F(StateStoreTest, LeavesFilesThatAreNoneOfItsOwnAlone) {
  for (const char* file : {"x.client", "0.client", "-4.client", "99999999999.client", "5.txt"}) {
    ASSERT_TRUE(WriteFile(Path(file), "?"));
  }
  ASSERT_TRUE(WriteFile(Path("1.client.tmp"), "half"));  // Interrupted; its id stays taken.
  ASSERT_EQ(mkfifo(Path("7.client").c_str(), 0600), 0);
  Open();
  EXPECT_EQ(ClientId("radio"), 8);
  EXPECT_TRUE(log_.Contains("state 7.client: cannot be read: Invalid argument"));
  EXPECT_EQ(log_.Lines().size(), 1U) << log_.Dump();
}

TEST_F(StateStoreTest, TellsWhenTheDiskDidNotTakeIt) {
  ClientId("radio");
  // A folder in the place of the temporary file: fails for root, too.
  ASSERT_EQ(mkdir(Path("1.client.tmp").c_str(), 0700), 0);
  EXPECT_FALSE(store_->SetCampaign("radio", Campaign(1)));
  EXPECT_TRUE(log_.Contains("state 1.client: cannot be written: File exists"));
  SavedCampaign got;
  EXPECT_TRUE(store_->GetCampaign("radio", &got)) << "holds at least until the end";

  ASSERT_EQ(mkdir(Path("2.client.tmp").c_str(), 0700), 0);
  EXPECT_EQ(ClientId("gps"), -1) << "an id that only this process knows";
  EXPECT_FALSE(store_->Knows("gps"));
  ASSERT_EQ(rmdir(Path("2.client.tmp").c_str()), 0);
  EXPECT_EQ(ClientId("gps"), 2);
}

TEST_F(StateStoreTest, BelongsToOneProcessAtATime) {
  EXPECT_EQ(StateStore::Open(Dir()).error().text, Dir() + " is in use by another process");
}

}  // namespace
}  // namespace orb::manager
