// Ciphertext in CBC mode whose end is damaged or missing.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace orb::reader {

// Decrypts the whole blocks of `data` and leaves the padding in; empty when the keys
// are none or the data less than a block. A wrong key gives noise: nothing is checked.
std::vector<uint8_t> DecryptCbcBlocks(std::span<const uint8_t> data,
                                      const std::string& ephemeral_pem, const std::string& iv,
                                      const std::string& private_pem);

}  // namespace orb::reader
