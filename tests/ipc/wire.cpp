#include "tests/ipc/wire.h"

namespace orb::test {

std::vector<uint8_t> FromHex(const std::string& hex) {
  const std::string digits = Compact(hex);
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::string ToHex(const uint8_t* bytes, size_t count) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (size_t i = 0; i < count; ++i) {
    hex += kDigits[bytes[i] >> 4];
    hex += kDigits[bytes[i] & 15];
  }
  return hex;
}

std::string ToHex(const android::Parcel& parcel) { return ToHex(parcel.data(), parcel.dataSize()); }

std::string Compact(const std::string& hex) {
  std::string digits;
  for (const char c : hex) {
    if (c != ' ') digits += c;
  }
  return digits;
}

void Fill(android::Parcel* parcel, const std::string& hex) {
  const std::vector<uint8_t> bytes = FromHex(hex);
  parcel->setData(bytes.data(), bytes.size());
  parcel->setDataPosition(0);
}

}  // namespace orb::test
