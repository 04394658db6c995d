// Reads back what the event sink wrote, by a parser of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace orb {

struct DumpEntry {
  int32_t pid;
  uint32_t tid;
  uint32_t sec;
  uint32_t lid;
  uint32_t uid;
  uint32_t tag;
  std::string bytes;  // The words of the list, joined.
};

template <typename T>
T TakeNumber(std::string* from) {
  T value{};
  if (from->size() < sizeof value) {
    ADD_FAILURE() << "the dump ends inside an entry";
    return value;
  }
  std::memcpy(&value, from->data(), sizeof value);
  from->erase(0, sizeof value);
  return value;
}

// Fails the test on anything that is no whole entry.
inline std::vector<DumpEntry> ParseDump(std::string dump) {
  std::vector<DumpEntry> entries;
  while (!dump.empty() && !testing::Test::HasFailure()) {
    DumpEntry entry{};
    const auto length = TakeNumber<uint16_t>(&dump);
    EXPECT_EQ(TakeNumber<uint16_t>(&dump), 28);
    entry.pid = TakeNumber<int32_t>(&dump);
    entry.tid = TakeNumber<uint32_t>(&dump);
    entry.sec = TakeNumber<uint32_t>(&dump);
    EXPECT_LT(TakeNumber<uint32_t>(&dump), 1000000000u);
    entry.lid = TakeNumber<uint32_t>(&dump);
    entry.uid = TakeNumber<uint32_t>(&dump);
    std::string payload = dump.substr(0, length);
    EXPECT_EQ(payload.size(), length);
    dump.erase(0, length);
    entry.tag = TakeNumber<uint32_t>(&payload);
    size_t words = 1;  // A lone word has no list around it.
    if (payload[0] == 3) {
      words = static_cast<uint8_t>(payload[1]);
      payload.erase(0, 2);
    }
    EXPECT_EQ(payload.size(), words * 5);
    for (size_t i = 0; i < words; ++i) {
      EXPECT_EQ(payload[i * 5], 0);
      entry.bytes += payload.substr(i * 5 + 1, 4);
    }
    entries.push_back(entry);
  }
  return entries;
}

}  // namespace orb
