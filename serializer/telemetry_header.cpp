// Tested by tests/serializer/telemetry_header_test.cpp.
#include "serializer/telemetry_header.h"

#include "utility/clock.h"
#include "utility/log.h"

// Starts at 0, so that a header made by another library's initialiser works too.
std::atomic<uint64_t> last_timestamp_for_header{0};

namespace {

enum class Access : uint8_t { kSet, kGet, kSetAndGet };

struct Item {
  int number;
  size_t offset;
  size_t bytes;
  Access access;
};

template <typename T>
constexpr Item At(TelemetryHeader::CfgItem number, const orb::header::Field<T>& field,
                  Access access) {
  return {number, field.offset, sizeof(T), access};
}

constexpr Item kItems[] = {
    At(TelemetryHeader::HDR_ITEM_WORD8, orb::header::kClientId, Access::kSetAndGet),
    At(TelemetryHeader::HDR_ITEM_CAMPAIGN_ID, orb::header::kCampaignId, Access::kSetAndGet),
    At(TelemetryHeader::HDR_ITEM_LICSN, orb::header::kLicSn, Access::kSetAndGet),
    At(TelemetryHeader::HDR_ITEM_LENGTH, orb::header::kLength, Access::kSet),
    At(TelemetryHeader::HDR_ITEM_SEQNO, orb::header::kSeqno, Access::kSet),
    At(TelemetryHeader::HDR_ITEM_KIND, orb::header::kKind, Access::kSet),
    At(TelemetryHeader::HDR_ITEM_VERSION, orb::header::kVersion, Access::kSet),
    At(TelemetryHeader::HDR_ITEM_COMPRESSED, orb::header::kCompressed, Access::kSet),
    At(TelemetryHeader::HDR_ITEM_TIMESTAMP, orb::header::kCreated, Access::kGet),
    At(TelemetryHeader::HDR_ITEM_ENCRYPTED, orb::header::kEncrypted, Access::kSetAndGet),
    At(TelemetryHeader::HDR_ITEM_FOOTER_OFFSET, orb::header::kFooterOffset, Access::kSetAndGet),
};

// Null, and a log line, when there is no such item or the access to it is `refused`.
const Item* FindItem(int number, Access refused, const char* operation) {
  for (const Item& item : kItems) {
    if (item.number == number && item.access != refused) return &item;
  }
  LOGE("%s: unknown CfgItem %d", operation, number);
  return nullptr;
}

// Comparing and storing are two steps, so threads that race may get equal stamps. The
// first stamp within a millisecond that is taken repeats the one before it.
uint64_t NextTimestamp() {
  const uint64_t now = veskstats_real_time_ms();
  if (now > last_timestamp_for_header.load()) {
    last_timestamp_for_header.store(now);
    return now;
  }
  return last_timestamp_for_header.fetch_add(1);
}

// No stamp is earlier than the loading of the library, even when the wall clock is set back.
bool SeedTimestamp() {
  if (last_timestamp_for_header.load() == 0) {
    last_timestamp_for_header.store(veskstats_real_time_ms());
  }
  return true;
}
[[maybe_unused]] const bool timestamp_seeded = SeedTimestamp();

}  // namespace

void TelemetryHeader::SetConstantItems() {
  orb::header::kFormat.Store(bytes_.data(), orb::header::kFormatWord);
  orb::header::kSize.Store(bytes_.data(), kBytes);
  orb::header::kConstant.Store(bytes_.data(), orb::header::kConstantByte);
}

void TelemetryHeader::SetTimestampItems() {
  orb::header::kCreated.Store(bytes_.data(), NextTimestamp());
  orb::header::kUptime.Store(bytes_.data(), veskstats_uptime_ms());
  orb::header::kTimeZone.Store(bytes_.data(), static_cast<uint16_t>(veskstats_timezone_min()));
}

void TelemetryHeader::SetItem(int item, uint64_t value) {
  const Item* const found = FindItem(item, Access::kGet, "SetItem");
  if (found == nullptr) return;
  for (size_t i = found->bytes; i-- > 0; value >>= 8) {
    bytes_[found->offset + i] = static_cast<uint8_t>(value);
  }
}

uint64_t TelemetryHeader::GetItem(int item) const {
  const Item* const found = FindItem(item, Access::kSet, "GetItem");
  if (found == nullptr) return UINT64_MAX;
  uint64_t value = 0;
  for (size_t i = 0; i < found->bytes; ++i) value = value << 8 | bytes_[found->offset + i];
  return value;
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
