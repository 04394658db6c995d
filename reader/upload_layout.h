// Where an upload's header has what, for those who read uploads and those who mend them.
#pragma once

#include "reader/upload_reader.h"
#include "serializer/telemetry_header.h"

namespace orb::reader {

inline constexpr uint32_t kHeaderBytes = TelemetryHeader::kBytes;
inline constexpr size_t kFormatAt = 0;
inline constexpr uint32_t kFormat = 9;
inline constexpr size_t kSizeAt = 4;
inline constexpr size_t kLengthAt = 25;
inline constexpr size_t kConstantAt = 29;
inline constexpr size_t kEncryptedAt = 61;
inline constexpr size_t kFooterOffsetAt = 62;

enum class Effort {
  kWhole,  // All of the upload, or nothing.
  kParts,  // What comes before damage behind the header, named in Upload::skipped.
};
Upload OpenUpload(std::span<const uint8_t> file, std::span<const PrivateKey> keys, Effort effort);

}  // namespace orb::reader
