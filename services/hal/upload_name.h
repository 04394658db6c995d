// The name of an upload, as a client chose it, turned into a place below the
// spool. Nothing a client sends may name anything else.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "utility/result.h"

namespace orb::hal {

inline constexpr size_t kMaxNameBytes = 1024;
inline constexpr size_t kMaxNameFolders = 16;
inline constexpr size_t kMaxFolderBytes = 200;

// Splits "/up/7/radio.42" into "up", "7", "radio.42"; one leading slash is stripped.
// Refuses a name that is empty or too long or deep, has an empty folder, one that starts
// with a dot (the parent, and the spool's own files), one that ends in ".orb" (it would
// stand in the way of a file), or a byte below 0x20 or 0x7F.
Result<std::vector<std::string>> ParseUploadName(std::string_view name);

// The name for a log line: bytes that are no printable ASCII as "?", cut to 80.
std::string Printable(std::string_view name);

}  // namespace orb::hal
