// Bytes of parcels as the hex text of the golden vectors.
#pragma once

#include <binder/Parcel.h>

#include <string>

#include "tests/support/hex.h"

namespace orb::test {

inline std::string ToHex(const android::Parcel& parcel) {
  return ToHex({reinterpret_cast<const char*>(parcel.data()), parcel.dataSize()});
}

// The parcel holds these bytes and stands at position 0.
inline void Fill(android::Parcel* parcel, const std::string& hex) {
  const std::string bytes = FromHex(hex);
  parcel->setData(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  parcel->setDataPosition(0);
}

}  // namespace orb::test
