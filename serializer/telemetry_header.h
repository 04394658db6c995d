// The fixed 66-byte header of every data file and upload. All numbers are
// big-endian; see docs/formats/upload.md for the byte table.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <vector>

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
  static constexpr uint32_t kBytes = 66;
  // Offsets that other code reads or writes directly.
  static constexpr uint32_t kCompressedOffset = 30;

  TelemetryHeader() : bytes_{} {}

  // The two leading words, 9 and 66, and the constant byte at offset 29.
  void SetConstantItems();

  // Creation time (unique per process but for the first repeat within a
  // millisecond), time since boot, time zone.
  void SetTimestampItems();

  // Stores the value cut to the item's width. The timestamp and unknown items
  // are refused with a log line.
  void SetItem(int item, uint64_t value);

  // The item in host order; for items 1, 2, 3, 9, 10 and 11 only, any other
  // logs and gives all bits set.
  uint64_t GetItem(int item) const;

  // A fresh copy of the 66 bytes.
  std::vector<uint8_t> GetHeader() const;

  // Takes 66 bytes from the file's position and goes back to it. Always 0: a
  // short read leaves the bytes it could not get as they were.
  int ParseFromFile(FILE* file);

  static constexpr uint32_t Size() { return kBytes; }

 private:
  std::array<uint8_t, kBytes> bytes_;
};
