// Uploads for tests of the HAL: a header with the two numbers that name the file.
#pragma once

#include <cstdint>
#include <vector>

#include "serializer/header_layout.h"

namespace orb::hal {

inline std::vector<uint8_t> Upload(uint32_t seqno, uint64_t timestamp_ms, size_t data_bytes) {
  std::vector<uint8_t> upload(header::kBytes + data_bytes, 'd');
  header::kCreated.Store(upload.data(), timestamp_ms);
  header::kSeqno.Store(upload.data(), seqno);
  return upload;
}

}  // namespace orb::hal
