// One campaign, as the manager hands it to a collector at session start.
#pragma once

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

#include <cstdint>
#include <tuple>
#include <vector>

#include "ipc/LicInfo.h"

class KIVCampConfig : public ::android::Parcelable {
 public:
  int64_t campId = 0L;
  ::std::vector<uint8_t> campaignDef;  // Serialized LTCCampaignDef.
  ::std::vector<::LicInfo> licInfo;    // One per LicSN that takes part.

  bool operator==(const KIVCampConfig& other) const {
    return std::tie(campId, campaignDef, licInfo) ==
           std::tie(other.campId, other.campaignDef, other.licInfo);
  }

  ::android::status_t readFromParcel(const ::android::Parcel* parcel) final;
  ::android::status_t writeToParcel(::android::Parcel* parcel) const final;
};
