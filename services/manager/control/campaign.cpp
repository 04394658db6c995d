// Tested by tests/services/campaign_manager_test.cpp.
#include "services/manager/control/campaign.h"

#include <binder/Parcel.h>

namespace orb::manager {

KIVCampConfig ToConfig(const SavedCampaign& campaign) {
  KIVCampConfig config;
  config.campId = campaign.camp_id();
  config.campaignDef.assign(campaign.definition().begin(), campaign.definition().end());
  for (const LicKey& key : campaign.lic_keys()) {
    LicInfo lic;
    lic.licSN = key.lic_sn();
    lic.sKeyEncAlgo = key.symmetric_algo();
    lic.pKeyEncAlgo = key.public_key_algo();
    lic.encryptionPKey.assign(key.public_key().begin(), key.public_key().end());
    config.licInfo.push_back(lic);
  }
  return config;
}

bool FitsTransaction(const SavedCampaign& campaign) {
  android::Parcel parcel;
  return parcel.writeParcelable(ToConfig(campaign)) == android::OK &&
         parcel.dataSize() <= kMaxCampaignBytes;
}

}  // namespace orb::manager
