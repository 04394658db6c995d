// Encodes a scattered blob as one KPIData record directly where the record belongs, without
// gathering the pieces first. The bytes are the same as those of a gathered blob: each piece
// is its length, 32 bits in host byte order, and its bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "orb_sdk.h"

// The metadata of the record. Times are tenths of a second of the monotonic clock.
struct BlobWindow {
  uint32_t kpi_id;
  uint64_t ts_start;
  uint64_t ts_end;
  uint32_t num_samples;
};

// Not thread-safe. Borrows the segments, which must not change between the
// two calls. Aborts when the pieces together do not fit 32 bits.
class BlobSegmentEncoder {
 public:
  BlobSegmentEncoder(const BlobWindow& window, const kiv_blob_segment_t* segs, uint32_t count);

  // Computes the size of the record. False when it cannot be encoded; reason() says why.
  bool Measure(size_t* bytes);
  // Writes the record to `out`, which has room for the [bytes] that Measure computed. False
  // when it cannot be encoded.
  bool Encode(uint8_t* out, size_t bytes);

  const char* reason() const { return reason_; }

 private:
  const BlobWindow window_;
  const kiv_blob_segment_t* const segs_;  // [count_]
  const uint32_t count_;
  const uint32_t data_bytes_;  // All pieces with their lengths.
  const char* reason_ = "(none)";
};
