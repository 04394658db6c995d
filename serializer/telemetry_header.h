// Builds the 66-byte header of a data file or an upload; header_layout.h says what
// stands where.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "serializer/header_layout.h"

// Latest timestamp given to a header of this process, milliseconds.
extern std::atomic<uint64_t> last_timestamp_for_header;

// Not thread-safe: its owner guards it.
class TelemetryHeader {
 public:
  enum CfgItem : int {
    HDR_ITEM_WORD8 = 1,
    HDR_ITEM_CAMPAIGN_ID = 2,
    HDR_ITEM_LICSN = 3,
    HDR_ITEM_LENGTH = 4,
    HDR_ITEM_SEQNO = 5,
    HDR_ITEM_KIND = 6,
    HDR_ITEM_VERSION = 7,
    HDR_ITEM_COMPRESSED = 8,
    HDR_ITEM_TIMESTAMP = 9,
    HDR_ITEM_ENCRYPTED = 10,
    HDR_ITEM_FOOTER_OFFSET = 11,
  };
  static constexpr uint32_t kBytes = orb::header::kBytes;

  TelemetryHeader() : bytes_{} {}

  // Sets format, size and the constant byte, which are the same in every header.
  void SetConstantItems();

  // Sets creation time, time since boot and time zone. Creation times of a process
  // differ, except that the first repeat within a millisecond is equal to it.
  void SetTimestampItems();

  // Stores the value cut to the item's width. The timestamp and unknown items
  // are refused with a log line.
  void SetItem(int item, uint64_t value);

  // The item in host order. Only items 1, 2, 3, 9, 10 and 11 can be read: any other
  // logs and gives all bits set.
  uint64_t GetItem(int item) const;

  // A copy of the 66 bytes.
  std::vector<uint8_t> GetHeader() const;

  // Reads 66 bytes at the file's position and returns to that position. After a short
  // read the bytes that are missing keep their values. Always 0.
  int ParseFromFile(FILE* file);

  static constexpr uint32_t Size() { return kBytes; }

 private:
  std::array<uint8_t, kBytes> bytes_;
};
