// What a collector tells the manager about itself when it registers.
#pragma once

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

#include <cstdint>
#include <string>
#include <tuple>

class KIVClientInfo : public ::android::Parcelable {
 public:
  ::std::string clientName;
  int32_t clientType = 0;
  int8_t clientOption = 0;

  bool operator==(const KIVClientInfo& other) const {
    return std::tie(clientName, clientType, clientOption) ==
           std::tie(other.clientName, other.clientType, other.clientOption);
  }

  ::android::status_t readFromParcel(const ::android::Parcel* parcel) final;
  ::android::status_t writeToParcel(::android::Parcel* parcel) const final;
};
