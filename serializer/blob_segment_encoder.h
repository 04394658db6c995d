// Encodes a scattered blob as one KPIData record straight into its place,
// without gathering the pieces first. The bytes are those of a record whose
// blob data was gathered: every piece as its length, 32 bits in host byte
// order, and its bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "orb_sdk.h"

// Windows in tenths of a second of the monotonic clock.
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

  // Bytes of the record. False when it cannot be encoded; reason() says why.
  bool Measure(size_t* bytes);
  // Writes the record to the [bytes] at `out`, as many as Measure told. False as above.
  bool Encode(uint8_t* out, size_t bytes);

  const char* reason() const { return reason_; }

 private:
  const BlobWindow window_;
  const kiv_blob_segment_t* const segs_;  // [count_]
  const uint32_t count_;
  const uint32_t data_bytes_;  // All pieces with their lengths.
  const char* reason_ = "(none)";
};
