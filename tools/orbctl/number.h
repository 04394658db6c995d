// Numbers as people write them: whole, or not at all.
#pragma once

#include <charconv>
#include <chrono>
#include <cstdint>
#include <string_view>

namespace orb::orbctl {

// False unless all of the text is a number of that base of at most `max`.
inline bool ParseNumber(std::string_view text, int base, uint64_t max, uint64_t* number) {
  const char* const end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, *number, base);
  return error == std::errc() && at == end && *number <= max;
}

// Decimal, or hexadecimal after 0x.
inline bool ParseAnyNumber(std::string_view text, uint32_t max, uint32_t* number) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  uint64_t wide = 0;
  if (!ParseNumber(hex ? text.substr(2) : text, hex ? 16 : 10, max, &wide)) return false;
  *number = static_cast<uint32_t>(wide);
  return true;
}

// Seconds with at most nine decimals, of at most ten years.
inline bool ParseSeconds(std::string_view text, std::chrono::nanoseconds* time) {
  constexpr uint64_t kSecondsMax = uint64_t{10} * 366 * 86400;
  const size_t point = text.find('.');
  uint64_t seconds = 0;
  if (!ParseNumber(text.substr(0, point), 10, kSecondsMax, &seconds)) return false;
  uint64_t fraction = 0;
  if (point != text.npos) {
    const std::string_view decimals = text.substr(point + 1);
    if (decimals.size() > 9 || !ParseNumber(decimals, 10, 999'999'999, &fraction)) return false;
    for (size_t i = decimals.size(); i < 9; ++i) fraction *= 10;
  }
  *time = std::chrono::seconds(seconds) + std::chrono::nanoseconds(fraction);
  return true;
}

// A number as above and its unit: ms, s, m or h. At most a year, so that no product
// of these can overflow.
inline bool ParseDuration(std::string_view text, std::chrono::nanoseconds* time) {
  struct Unit {
    std::string_view text;
    int64_t milliseconds;
  };
  // "ms" is looked for before "s".
  constexpr Unit kUnits[] = {{"ms", 1}, {"s", 1000}, {"m", 60'000}, {"h", 3'600'000}};
  constexpr std::chrono::nanoseconds kTimeMax = std::chrono::hours(24 * 366);
  for (const Unit& unit : kUnits) {
    std::chrono::nanoseconds number{0};
    if (!text.ends_with(unit.text)) continue;
    if (!ParseSeconds(text.substr(0, text.size() - unit.text.size()), &number)) return false;
    if (number / 1000 > kTimeMax / unit.milliseconds) return false;
    *time = number / 1000 * unit.milliseconds;
    return true;
  }
  return false;
}

}  // namespace orb::orbctl
