// Text of others that goes to a terminal or a log: UTF-8 without anything that drives a
// terminal or hides what it says.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace orb {

// Bytes of the character that `text` begins with; 0 when that is a control character (C0,
// DEL, C1), a mark that is invisible or turns the direction of writing, or no valid UTF-8.
inline size_t PrintableBytes(std::string_view text) {
  static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  if (text.empty()) return 0;
  const auto first = static_cast<uint8_t>(text[0]);
  const size_t bytes = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (bytes == 1) return first >= 0x20 && first != 0x7F ? 1 : 0;
  if (first < 0xC0 || first > 0xF7 || text.size() < bytes) return 0;
  uint32_t code = first & (0x7FU >> bytes);
  for (size_t i = 1; i < bytes; ++i) {
    const auto next = static_cast<uint8_t>(text[i]);
    if ((next & 0xC0) != 0x80) return 0;
    code = code << 6 | (next & 0x3FU);
  }
  const auto within = [code](uint32_t from, uint32_t to) { return code >= from && code <= to; };
  const bool valid = code >= kLeast[bytes] && code <= 0x10FFFF && !within(0xD800, 0xDFFF);
  const bool hidden = within(0x80, 0x9F) || within(0x200B, 0x200F) || within(0x2028, 0x202E) ||
                      within(0x2060, 0x206F) || code == 0xFEFF;
  return valid && !hidden ? bytes : 0;
}

inline bool IsPrintable(std::string_view text) {
  while (!text.empty()) {
    const size_t bytes = PrintableBytes(text);
    if (bytes == 0) return false;
    text.remove_prefix(bytes);
  }
  return true;
}

// The text with a "?" for each byte that is not printable; bytes of `kept` stay.
inline std::string TerminalText(std::string_view text, std::string_view kept = "") {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    size_t bytes = PrintableBytes(text);
    const bool keep = bytes != 0 || kept.find(text[0]) != std::string_view::npos;
    if (bytes == 0) bytes = 1;
    out += keep ? text.substr(0, bytes) : "?";
    text.remove_prefix(bytes);
  }
  return out;
}

}  // namespace orb
