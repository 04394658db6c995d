// What the manager remembers, and what a damaged file costs.
#include "services/manager/state_store.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

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

class StateStoreTest : public ::testing::Test {
 protected:
  StateStoreTest() { Open(); }
  void Open() {
    store_.reset();
    std::string error;
    store_ = StateStore::Open(Dir(), &error);
    ASSERT_NE(store_, nullptr) << error;
  }
  std::string Dir() const { return temp_.path() + "/state"; }
  std::string Path(const std::string& file) const { return Dir() + "/" + file; }

  LogCapture log_;
  orb::test::TempDir temp_;
  std::unique_ptr<StateStore> store_;
};

TEST_F(StateStoreTest, RemembersIdsAndCampaignsOverARestart) {
  EXPECT_EQ(store_->ClientId("radio"), 1);
  EXPECT_EQ(store_->ClientId("gps"), 2);
  EXPECT_TRUE(store_->SetCampaign("radio", Campaign(77)));
  Open();
  EXPECT_EQ(store_->ClientId("gps"), 2);
  EXPECT_EQ(store_->ClientId("radio"), 1);
  EXPECT_EQ(store_->ClientId("wifi"), 3);
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

TEST_F(StateStoreTest, PutsADamagedFileAsideAndKeepsTheOthers) {
  store_->ClientId("radio");
  store_->ClientId("gps");
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
    EXPECT_EQ(store_->ClientId("radio"), 1);
    EXPECT_FALSE(store_->Knows("gps"));
    EXPECT_EQ(ReadFileOrEmpty(Path("2.client.damaged")), content);
  }
  EXPECT_EQ(store_->ClientId("gps"), 3) << "an id that uploads may carry was given out again";
}

TEST_F(StateStoreTest, LeavesFilesThatAreNoneOfItsOwnAlone) {
  for (const char* file : {"x.client", "0.client", "-4.client", "99999999999.client", "5.txt"}) {
    ASSERT_TRUE(WriteFile(Path(file), "?"));
  }
  ASSERT_TRUE(WriteFile(Path("1.client.tmp"), "half"));  // Interrupted; its id stays taken.
  ASSERT_EQ(mkfifo(Path("7.client").c_str(), 0600), 0);
  Open();
  EXPECT_EQ(store_->ClientId("radio"), 8);
  EXPECT_TRUE(log_.Contains("state 7.client: cannot be read: Invalid argument"));
  EXPECT_EQ(log_.Lines().size(), 1U) << log_.Dump();
}

TEST_F(StateStoreTest, TellsWhenTheDiskDidNotTakeIt) {
  store_->ClientId("radio");
  // A folder in the place of the temporary file: fails for root, too.
  ASSERT_EQ(mkdir(Path("1.client.tmp").c_str(), 0700), 0);
  EXPECT_FALSE(store_->SetCampaign("radio", Campaign(1)));
  EXPECT_TRUE(log_.Contains("state 1.client: cannot be written: File exists"));
  SavedCampaign got;
  EXPECT_TRUE(store_->GetCampaign("radio", &got)) << "holds at least until the end";

  ASSERT_EQ(mkdir(Path("2.client.tmp").c_str(), 0700), 0);
  EXPECT_EQ(store_->ClientId("gps"), -1) << "an id that only this process knows";
  EXPECT_FALSE(store_->Knows("gps"));
  ASSERT_EQ(rmdir(Path("2.client.tmp").c_str()), 0);
  EXPECT_EQ(store_->ClientId("gps"), 2);
}

TEST_F(StateStoreTest, BelongsToOneProcessAtATime) {
  std::string error;
  EXPECT_EQ(StateStore::Open(Dir(), &error), nullptr);
  EXPECT_EQ(error, Dir() + " is in use by another process");
}

}  // namespace
}  // namespace orb::manager
