// The option --lic LICSN[:PUB.pem:cbc|gcm]: a data owner of a campaign and the
// key that its data is sealed for.
#pragma once

#include <cstdint>
#include <string>

namespace orb::orbctl {

struct LicOption {
  uint64_t lic_sn = 0;
  std::string key_pem;          // Empty without a key.
  int32_t public_key_algo = 0;  // ORB_PALGO_..., 0 without a key.
  int32_t symmetric_algo = 0;   // ORB_SALGO_..., 0 without a key.
};

// LICSN is decimal, or hexadecimal after 0x. Reads the key's file. False with
// *error, one line, when the text is malformed or the file cannot be read.
bool ParseLicOption(const std::string& text, LicOption* option, std::string* error);

// Whether the library can seal data for the option's key; tries it.
bool CanSealFor(const LicOption& option);

}  // namespace orb::orbctl
