// Bytes of parcels as the hex text of the golden vectors.
#pragma once

#include <binder/Parcel.h>

#include <cstdint>
#include <string>
#include <vector>

namespace orb::test {

// "0a 0b0c" -> {10, 11, 12}; spaces are for the reader.
std::vector<uint8_t> FromHex(const std::string& hex);

// Lower case, no spaces.
std::string ToHex(const uint8_t* bytes, size_t count);
std::string ToHex(const android::Parcel& parcel);

// The text with the spaces removed, to compare with ToHex.
std::string Compact(const std::string& hex);

// The parcel holds these bytes and stands at position 0.
void Fill(android::Parcel* parcel, const std::string& hex);

}  // namespace orb::test
