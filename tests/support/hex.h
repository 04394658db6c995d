// Bytes as hex text: lower case, and without spaces.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orb::test {

inline std::string ToHex(std::string_view bytes) {
  std::string hex;
  for (const char c : bytes) {
    hex += "0123456789abcdef"[static_cast<uint8_t>(c) >> 4];
    hex += "0123456789abcdef"[c & 15];
  }
  return hex;
}

// The text with the spaces removed, to compare with ToHex.
inline std::string Compact(std::string_view hex) {
  std::string digits;
  for (const char c : hex) {
    if (c != ' ') digits += c;
  }
  return digits;
}

// "0a 0b0c" -> 10, 11, 12; spaces are for the reader.
inline std::string FromHex(std::string_view hex) {
  const std::string digits = Compact(hex);
  std::string bytes;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoul(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

}  // namespace orb::test
