// Reads back what the event sink wrote, by a parser of its own.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace orb {

struct DumpHeader {
  uint16_t payload_bytes;  // From the tag on.
  uint16_t header_bytes;   // Up to the tag.
  int32_t pid;
  uint32_t tid;
  uint32_t sec;
  uint32_t nsec;
  uint32_t lid;
  uint32_t uid;
  uint32_t tag;
};
static_assert(sizeof(DumpHeader) == 32);

struct DumpEntry {
  DumpHeader header;
  std::string bytes;  // The words of the list, joined.
};

// Fails the test on anything that is no whole entry.
inline std::vector<DumpEntry> ParseDump(std::string dump) {
  std::vector<DumpEntry> entries;
  while (!dump.empty() && !testing::Test::HasFailure()) {
    DumpEntry entry{};
    std::memcpy(&entry.header, dump.data(), std::min(dump.size(), sizeof entry.header));
    const size_t tag_at = sizeof entry.header - sizeof entry.header.tag;
    EXPECT_EQ(entry.header.header_bytes, tag_at);
    EXPECT_LT(entry.header.nsec, 1000000000u);
    const size_t end = tag_at + entry.header.payload_bytes;
    EXPECT_LE(end, dump.size()) << "the dump ends inside an entry";
    std::string payload = dump.substr(0, end).substr(std::min(end, sizeof entry.header));
    dump.erase(0, end);
    size_t words = 1;  // A lone word has no list around it.
    if (payload[0] == 3) {
      words = static_cast<uint8_t>(payload[1]);
      payload.erase(0, 2);
    }
    EXPECT_EQ(payload.size(), words * 5);
    for (size_t at = 0; at < payload.size(); at += 5) {
      EXPECT_EQ(payload[at], 0);
      entry.bytes += payload.substr(at + 1, 4);
    }
    entries.push_back(entry);
  }
  return entries;
}

}  // namespace orb
