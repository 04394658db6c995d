#include "tools/orbctl/campaign_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tools/orbctl/client_command.h"

namespace orb::orbctl {
namespace {

using ::testing::HasSubstr;

TEST(CampaignCommandTest, ListsEveryOwnerOfTheCampaign) {
  LTCCampaignDef campaign;
  campaign.set_threshold_size(2048);
  for (const uint64_t lic_sn : {uint64_t{42}, UINT64_MAX, uint64_t{42}}) {
    campaign.add_lic_sn_kpi_maps()->set_lic_sn(lic_sn);
  }
  LicOption keyed;
  keyed.lic_sn = 42;
  keyed.key_pem = "PEM";
  keyed.symmetric_algo = 2;
  keyed.public_key_algo = 1;
  LicOption extra;
  extra.lic_sn = 7;
  const KIVCampConfig config = MakeConfig(campaign, 9, {extra, keyed});
  EXPECT_EQ(config.campId, 9);
  EXPECT_EQ(std::string(config.campaignDef.begin(), config.campaignDef.end()),
            campaign.SerializeAsString());
  ASSERT_EQ(config.licInfo.size(), 3U);
  EXPECT_EQ(config.licInfo[0].licSN, 7);
  EXPECT_TRUE(config.licInfo[0].encryptionPKey.empty());
  EXPECT_EQ(config.licInfo[1].licSN, 42);
  EXPECT_EQ(config.licInfo[1].sKeyEncAlgo, 2);
  EXPECT_EQ(config.licInfo[1].pKeyEncAlgo, 1);
  EXPECT_EQ(config.licInfo[1].encryptionPKey, (std::vector<uint8_t>{'P', 'E', 'M'}));
  EXPECT_EQ(config.licInfo[2].licSN, -1);
  EXPECT_EQ(config.licInfo[2].sKeyEncAlgo, 0);
}

TEST(ClientCommandTest, ShowsClientsToPeopleAndPrograms) {
  ClientRecord radio;
  radio.name = "radio";
  radio.clientId = 7;
  radio.connected = true;
  radio.connectedSinceMs = 1763716800000;
  radio.session = ClientRecord::RUNNING;
  radio.sessionSinceMs = 1763716801000;
  radio.campId = 9;
  radio.licSNs = {42, -1};
  radio.stoppedLicSNs = {-1};
  ClientRecord away;
  away.name = "a-longer-name";
  away.session = ClientRecord::WAITING;
  away.campId = 3;

  const std::string table = ClientTable({radio, away});
  EXPECT_THAT(table, HasSubstr("radio              7  2025-11-21T09:20:00Z  2025-11-21T09:20:01Z  "
                               "9 running -18446744073709551615\n"));
  EXPECT_THAT(table, HasSubstr("a-longer-name      0  away                  -                     "
                               "3 waiting\n"));
  const nlohmann::json json = nlohmann::json::parse(ClientJson({radio}), nullptr, false);
  EXPECT_EQ(json["name"], "radio");
  EXPECT_EQ(json["session"], "running");
  EXPECT_EQ(json["campaign"], 9);
  EXPECT_EQ(json["lic_sns"], (std::vector<uint64_t>{42, UINT64_MAX}));
}

}  // namespace
}  // namespace orb::orbctl
