// How large a campaign may be that travels from an operator to a client.
#pragma once

#include <binder/Parcel.h>

#include <cstddef>

#include "ipc/KIVCampConfig.h"

// The bus carries 1 MiB - 8 KiB of data a transaction; as much again is left for the
// names and tokens around the campaign.
inline constexpr size_t kMaxCampaignBytes = (size_t{1} << 20) - (size_t{16} << 10);

inline bool FitsTransaction(const KIVCampConfig& config) {
  android::Parcel parcel;
  return parcel.writeParcelable(config) == android::OK && parcel.dataSize() <= kMaxCampaignBytes;
}
