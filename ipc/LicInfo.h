// How the data of one LicSN of a campaign is to be sealed.
#pragma once

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

#include <cstdint>
#include <tuple>
#include <vector>

class LicInfo : public ::android::Parcelable {
 public:
  int64_t licSN = 0L;                     // Names the data owner.
  int32_t sKeyEncAlgo = 0;                // Symmetric algorithm selector.
  int32_t pKeyEncAlgo = 0;                // Public-key algorithm selector.
  ::std::vector<uint8_t> encryptionPKey;  // PEM text.

  bool operator==(const LicInfo& other) const {
    return std::tie(licSN, sKeyEncAlgo, pKeyEncAlgo, encryptionPKey) ==
           std::tie(other.licSN, other.sKeyEncAlgo, other.pKeyEncAlgo, other.encryptionPKey);
  }

  ::android::status_t readFromParcel(const ::android::Parcel* parcel) final;
  ::android::status_t writeToParcel(::android::Parcel* parcel) const final;
};
