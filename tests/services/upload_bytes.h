// Uploads for tests of the HAL: a header with the two numbers that name the file.
#pragma once

#include <cstdint>
#include <vector>

#include "serializer/telemetry_header.h"
#include "utility/byte_order.h"

namespace orb::hal {

inline std::vector<uint8_t> Upload(uint32_t seqno, uint64_t timestamp_ms, size_t data_bytes) {
  std::vector<uint8_t> upload(TelemetryHeader::kBytes + data_bytes, 'd');
  StoreBigEndian<uint64_t>(&upload[17], timestamp_ms);
  StoreBigEndian<uint32_t>(&upload[49], seqno);
  return upload;
}

}  // namespace orb::hal
