// One gzip member in memory.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace orb::reader {

bool IsGzip(std::span<const uint8_t> data);

// The fault of a stream that is whole, checksum included, but not alone.
inline constexpr char kTrailingBytes[] = "bytes follow the gzip stream";

// Unzips all of `data` to *out. Empty, or what is wrong; then *fault_at is the
// offset in `data` where it went wrong, and *out what came before. More than
// `max_bytes` of output is a fault, as are bytes behind the member.
std::string Gunzip(std::span<const uint8_t> data, uint64_t max_bytes, std::vector<uint8_t>* out,
                   uint64_t* fault_at);

}  // namespace orb::reader
