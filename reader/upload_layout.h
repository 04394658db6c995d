// What those share who read uploads and those who mend them.
#pragma once

#include "reader/upload_reader.h"
#include "serializer/header_layout.h"

namespace orb::reader {

inline constexpr uint32_t kHeaderBytes = header::kBytes;

enum class Effort {
  kWhole,  // All of the upload, or nothing.
  kParts,  // What comes before damage behind the header, named in Upload::skipped.
};
Upload OpenUpload(std::span<const uint8_t> file, std::span<const PrivateKey> keys, Effort effort);

}  // namespace orb::reader
