// The size of a scattered blob as records carry it: each segment is its length,
// 32 bits, and its bytes.
#pragma once

#include <cstdint>

#include "include/orb_sdk.h"
#include "utility/checked.h"

namespace orb {

// `segs` is [count], borrowed. Aborts when the sum does not fit 32 bits.
inline uint32_t SegmentBytes(const kiv_blob_segment_t* segs, uint32_t count) {
  uint32_t total_bytes = 0;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t piece_bytes = CheckedAdd<uint32_t>(sizeof segs[i].len, segs[i].len);
    total_bytes = CheckedAdd<uint32_t>(total_bytes, piece_bytes);
  }
  return total_bytes;
}

}  // namespace orb
