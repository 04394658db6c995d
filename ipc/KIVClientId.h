// What the manager assigns to a collector that registers.
#pragma once

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

#include <cstdint>
#include <string>
#include <tuple>

class KIVClientId : public ::android::Parcelable {
 public:
  ::std::string token;   // Names the collector in every later call, both ways.
  int32_t clientId = 0;  // Stable per client name; part of every upload's name.

  bool operator==(const KIVClientId& other) const {
    return std::tie(token, clientId) == std::tie(other.token, other.clientId);
  }

  ::android::status_t readFromParcel(const ::android::Parcel* parcel) final;
  ::android::status_t writeToParcel(::android::Parcel* parcel) const final;
};
