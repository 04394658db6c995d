// Bytes as lower-case hex digits.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace orb::reader {

// Two digits for each byte, `separator` between bytes.
inline std::string Hex(std::string_view bytes, std::string_view separator = "") {
  const auto* const data = reinterpret_cast<const uint8_t*>(bytes.data());
  return fmt::format("{:02x}", fmt::join(data, data + bytes.size(), separator));
}

}  // namespace orb::reader
