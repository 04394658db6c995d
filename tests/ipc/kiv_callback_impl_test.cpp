// The manager's calls, on their way to a collector.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/ipc/client_fixture.h"

namespace {

using Lines = std::vector<std::string>;
using KIVCallbackImplTest = orb::test::ClientTest;

KIVCampConfig Campaign(int64_t id) {
  KIVCampConfig config;
  config.campId = id;
  return config;
}

TEST_F(KIVCallbackImplTest, UnknownTokensAreAnsweredAndLogged) {
  StartManager();
  ASSERT_NE(Register("radio"), nullptr);
  log_.Clear();
  EXPECT_EQ(manager_->StartSession("other", Campaign(1)), -1);
  EXPECT_EQ(manager_->StopSession("", 1), 0);
  EXPECT_EQ(manager_->StartSessionforLicSN("token-11", 1, 5), 0);
  EXPECT_EQ(manager_->StopSessionforLicSN("token-", 1, 5), 0);
  EXPECT_EQ(TakeLog(), (Lines{
                           "E StartSession - No entry found for token: other",
                           "E StopSession - No entry found for token: ",
                           "E StartSessionforLicSN - No entry found for token: token-11",
                           "E StopSessionforLicSN - No entry found for token: token-",
                       }));
}

TEST_F(KIVCallbackImplTest, EventsAreLoggedAndReachTheCollector) {
  StartManager();
  kiv_collector* const collector = Register("radio");
  ASSERT_NE(collector, nullptr);
  EXPECT_EQ(manager_->StartSession("token-1", Campaign(-2)), 0);
  EXPECT_EQ(collector->GetCampaignId(), 0xfffffffffffffffeu);

  log_.Clear();
  manager_->StartSessionforLicSN("token-1", 77, -1);
  EXPECT_EQ(TakeLog().front(),
            "I StartSessionforLicSN - camp start event received for LicSN - 18446744073709551615"
            " camp id -  77  token - token-1");
  manager_->StopSessionforLicSN("token-1", -77, 5);
  EXPECT_EQ(TakeLog().front(),
            "I StopSessionforLicSN - camp stop event received for LicSN - 5"
            " camp id - -77  token - token-1");

  // The campaign is not compared with the running one.
  manager_->StopSession("token-1", 12345);
  const Lines lines = TakeLog();
  EXPECT_EQ(lines.front(),
            "I StopSession - camp stop event received, camp id -  12345  token - token-1");
  EXPECT_EQ(manager_->StartSession("token-1", Campaign(3)), 0);  // Free again.
}

TEST_F(KIVCallbackImplTest, ResultOfTheClientIsPassedThrough) {
  StartManager();
  kiv_collector* const collector = Register("radio");
  ASSERT_NE(collector, nullptr);
  on_start = [](kiv_collector*) { return 1234; };
  EXPECT_EQ(manager_->StartSession("token-1", Campaign(8)), 1234);
  EXPECT_EQ(collector->GetCampaignId(), 8u);  // Kept although refused.
}

}  // namespace
