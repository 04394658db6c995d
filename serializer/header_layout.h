// Where each number of the 66-byte header stands that data files and uploads begin with.
// The numbers are big-endian and have no padding between them. docs/formats/upload.md
// says what they mean.
#pragma once

#include <cstddef>
#include <cstdint>

#include "utility/byte_order.h"

namespace orb::header {

template <typename T>
struct Field {
  size_t offset;

  // `header` points to the first byte of the header.
  T Load(const uint8_t* header) const { return LoadBigEndian<T>(header + offset); }
  void Store(uint8_t* header, T value) const { StoreBigEndian<T>(header + offset, value); }
};

inline constexpr Field<uint32_t> kFormat{0};         // kFormatWord.
inline constexpr Field<uint32_t> kSize{4};           // kBytes.
inline constexpr Field<uint32_t> kClientId{8};       // The manager gave it.
inline constexpr Field<uint8_t> kKind{12};           // 4 unless the client chose another.
inline constexpr Field<uint32_t> kVersion{13};       // 1 unless the client chose another.
inline constexpr Field<uint64_t> kCreated{17};       // Milliseconds since 1970.
inline constexpr Field<uint32_t> kLength{25};        // Bytes that follow the header.
inline constexpr Field<uint8_t> kConstant{29};       // kConstantByte.
inline constexpr Field<uint8_t> kCompressed{30};     // 0 or 1.
inline constexpr Field<uint64_t> kUptime{31};        // Milliseconds from boot to creation.
inline constexpr Field<uint16_t> kTimeZone{39};      // Minutes east of UTC, signed.
inline constexpr Field<uint64_t> kCampaignId{41};    // The manager gave it.
inline constexpr Field<uint32_t> kSeqno{49};         // Counts the client's uploads.
inline constexpr Field<uint64_t> kLicSn{53};         // Whose data it is.
inline constexpr Field<uint8_t> kEncrypted{61};      // 0 or 1.
inline constexpr Field<uint32_t> kFooterOffset{62};  // From the header's start; 0: no footer.

inline constexpr uint32_t kBytes = 66;
inline constexpr uint32_t kFormatWord = 9;
inline constexpr uint8_t kConstantByte = 1;

// Where the last of the fields ends, or 0 when one does not start where the one before it ends.
template <typename... T>
constexpr size_t EndOf(const Field<T>&... fields) {
  size_t end = 0;
  const bool adjoin = ((fields.offset == end && (end += sizeof(T)) != 0) && ...);
  return adjoin ? end : 0;
}
static_assert(EndOf(kFormat, kSize, kClientId, kKind, kVersion, kCreated, kLength, kConstant,
                    kCompressed, kUptime, kTimeZone, kCampaignId, kSeqno, kLicSn, kEncrypted,
                    kFooterOffset) == kBytes);

}  // namespace orb::header
