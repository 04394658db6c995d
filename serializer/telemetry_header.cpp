// Numbers are big-endian, without padding; docs/formats/upload.md has the table.
// Tested by tests/serializer/telemetry_header_test.cpp.
#include "serializer/telemetry_header.h"

#include "utility/byte_order.h"
#include "utility/clock.h"
#include "utility/log.h"

// Starts at 0, so that a header made by another library's initialiser works too.
std::atomic<uint64_t> last_timestamp_for_header{0};

namespace {

constexpr uint32_t kFormatWord = 9;
constexpr uint8_t kConstantByte = 1;

constexpr uint32_t kFormatOffset = 0;
constexpr uint32_t kSizeOffset = 4;
constexpr uint32_t kTimestampOffset = 17;
constexpr uint32_t kConstantByteOffset = 29;
constexpr uint32_t kUptimeOffset = 31;
constexpr uint32_t kTimezoneOffset = 39;

struct Field {
  uint32_t offset;
  uint32_t width_bytes;  // 0: no such item.
};

constexpr Field FieldOf(int item) {
  switch (item) {
    case TelemetryHeader::HDR_ITEM_WORD8:
      return {8, 4};
    case TelemetryHeader::HDR_ITEM_CAMPAIGN_ID:
      return {41, 8};
    case TelemetryHeader::HDR_ITEM_LICSN:
      return {53, 8};
    case TelemetryHeader::HDR_ITEM_LENGTH:
      return {25, 4};
    case TelemetryHeader::HDR_ITEM_SEQNO:
      return {49, 4};
    case TelemetryHeader::HDR_ITEM_KIND:
      return {12, 1};
    case TelemetryHeader::HDR_ITEM_VERSION:
      return {13, 4};
    case TelemetryHeader::HDR_ITEM_COMPRESSED:
      return {TelemetryHeader::kCompressedOffset, 1};
    case TelemetryHeader::HDR_ITEM_TIMESTAMP:
      return {kTimestampOffset, 8};
    case TelemetryHeader::HDR_ITEM_ENCRYPTED:
      return {61, 1};
    case TelemetryHeader::HDR_ITEM_FOOTER_OFFSET:
      return {62, 4};
    default:
      return {0, 0};
  }
}

// Only these are ever read back by a sender.
bool Readable(int item) {
  switch (item) {
    case TelemetryHeader::HDR_ITEM_WORD8:
    case TelemetryHeader::HDR_ITEM_CAMPAIGN_ID:
    case TelemetryHeader::HDR_ITEM_LICSN:
    case TelemetryHeader::HDR_ITEM_TIMESTAMP:
    case TelemetryHeader::HDR_ITEM_ENCRYPTED:
    case TelemetryHeader::HDR_ITEM_FOOTER_OFFSET:
      return true;
    default:
      return false;
  }
}

void LogUnknown(const char* operation, int item) {
  LOGE("%s: unknown CfgItem %d", operation, item);
}

// The look and the update are two steps: threads that race may get equal
// stamps. The first stamp within a used millisecond repeats the one before.
uint64_t NextTimestamp() {
  const uint64_t now = veskstats_real_time_ms();
  if (now > last_timestamp_for_header.load()) {
    last_timestamp_for_header.store(now);
    return now;
  }
  return last_timestamp_for_header.fetch_add(1);
}

// Stamps never lie before the library was loaded, whatever happens to the wall clock.
bool SeedTimestamp() {
  if (last_timestamp_for_header.load() == 0) {
    last_timestamp_for_header.store(veskstats_real_time_ms());
  }
  return true;
}
[[maybe_unused]] const bool timestamp_seeded = SeedTimestamp();

}  // namespace

void TelemetryHeader::SetConstantItems() {
  orb::StoreBigEndian<uint32_t>(&bytes_[kFormatOffset], kFormatWord);
  orb::StoreBigEndian<uint32_t>(&bytes_[kSizeOffset], kBytes);
  bytes_[kConstantByteOffset] = kConstantByte;
}

void TelemetryHeader::SetTimestampItems() {
  orb::StoreBigEndian<uint64_t>(&bytes_[kTimestampOffset], NextTimestamp());
  orb::StoreBigEndian<uint64_t>(&bytes_[kUptimeOffset], veskstats_uptime_ms());
  orb::StoreBigEndian<uint16_t>(&bytes_[kTimezoneOffset],
                                static_cast<uint16_t>(veskstats_timezone_min()));
}

void TelemetryHeader::SetItem(int item, uint64_t value) {
  const Field field = FieldOf(item);
  if (item == HDR_ITEM_TIMESTAMP || field.width_bytes == 0) return LogUnknown("SetItem", item);
  switch (field.width_bytes) {
    case 1:
      bytes_[field.offset] = static_cast<uint8_t>(value);
      break;
    case 4:
      orb::StoreBigEndian<uint32_t>(&bytes_[field.offset], static_cast<uint32_t>(value));
      break;
    default:
      orb::StoreBigEndian<uint64_t>(&bytes_[field.offset], value);
  }
}

uint64_t TelemetryHeader::GetItem(int item) const {
  if (!Readable(item)) {
    LogUnknown("GetItem", item);
    return UINT64_MAX;
  }
  const Field field = FieldOf(item);
  switch (field.width_bytes) {
    case 1:
      return bytes_[field.offset];
    case 4:
      return orb::LoadBigEndian<uint32_t>(&bytes_[field.offset]);
    default:
      return orb::LoadBigEndian<uint64_t>(&bytes_[field.offset]);
  }
}

std::vector<uint8_t> TelemetryHeader::GetHeader() const {
  return std::vector<uint8_t>(bytes_.begin(), bytes_.end());
}

int TelemetryHeader::ParseFromFile(FILE* file) {
  const long position = ftell(file);
  [[maybe_unused]] const size_t got = fread(bytes_.data(), 1, bytes_.size(), file);
  static_cast<void>(fseek(file, position, SEEK_SET));
  return 0;
}
