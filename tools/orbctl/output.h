// How every command of the tool speaks: results on standard output, one line
// on standard error for what went wrong and what to do about it.
#pragma once

#include <cstdint>
#include <string>

namespace orb::orbctl {

inline constexpr int kOk = 0;
inline constexpr int kFailed = 1;  // Refused, or failed.
inline constexpr int kUsage = 2;

// Prints "orbctl: TEXT" to standard error; what could drive a terminal becomes "?".
void PrintError(const std::string& text);
// The same; returns kFailed.
int Fail(const std::string& text);

// Prints the text and a line feed to standard output.
void PrintLine(const std::string& text);

// Reads a file of at most `max_bytes`. False, with the reason in *error.
bool ReadFile(const std::string& path, uint64_t max_bytes, std::string* content,
              std::string* error);

}  // namespace orb::orbctl
