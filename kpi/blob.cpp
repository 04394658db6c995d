// Tested by tests/kpi/blob_test.cpp.
#include "kpi/blob.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "serializer/kpi_serializer.h"
#include "utility/blob_segments.h"
#include "utility/checked.h"
#include "utility/conf.h"
#include "utility/contained.h"
#include "utility/log.h"
#include "utility/malloc_bytes.h"

namespace {

// Protobuf neither writes nor reads a message of 2 GiB. The metadata takes at most 64 bytes.
constexpr uint32_t kDataBytesMax = std::numeric_limits<int32_t>::max() - 64;

void CountOne(uint64_t* count) { *count = orb::CheckedAdd<uint64_t>(*count, 1); }

// Copies the segments to `out`, which has room for orb::SegmentBytes(segs, count). False when
// a segment has a length and no bytes.
bool Gather(const kiv_blob_segment_t* segs, uint32_t count, uint8_t* out) {
  for (uint32_t i = 0; i < count; ++i) {
    memcpy(out, &segs[i].len, sizeof segs[i].len);
    out += sizeof segs[i].len;
    if (segs[i].len == 0) continue;  // Its buf may be null.
    if (segs[i].buf == nullptr) return false;
    memcpy(out, segs[i].buf, segs[i].len);
    out += segs[i].len;
  }
  return true;
}

}  // namespace

int Blob::LogBuf(const unsigned char* buf, uint32_t len) {
  CountOne(&samples.logged);
  const uint32_t len_max = cfg.b_cfg().single_sample_size_threshold_bytes();
  if (len > len_max) {
    LOGE("%s: blob size %d greater than singlesamplesizetresholdbytes %d", "LogBuf",
         static_cast<int>(len), static_cast<int>(len_max));
    CountOne(&samples.lost[orb::LossCause::kOversize]);
    return -1;
  }
  if (!FitsRecord(len, "LogBuf")) return -1;
  AddSample();
  return WriteRecord(buf, len);
}

int Blob::LogBufSegs(const kiv_blob_segment_t* segs, uint32_t count) {
  CountOne(&samples.logged);
  AddSample();
  if (Conf::Get().blob_segments_optimized == 1) {
    CountOne(&samples.records);
    return serializer->WriteBlobSegsOptimized(cfg.kpi_id(), static_cast<uint64_t>(Tenths(tsStart)),
                                              static_cast<uint64_t>(Tenths(tsEnd)), numSamples,
                                              segs, count);
  }
  return WriteGathered(segs, count);
}

bool Blob::FitsRecord(uint32_t bytes, const char* operation) {
  if (bytes <= kDataBytesMax) return true;
  LOGE("%s: blob of %u bytes is too long for a record", operation, bytes);
  CountOne(&samples.lost[orb::LossCause::kOversize]);
  return false;
}

int Blob::WriteGathered(const kiv_blob_segment_t* segs, uint32_t count) {
  const uint32_t bytes_max = orb::SegmentBytes(segs, count);
  if (!FitsRecord(bytes_max, "LogBufSegs")) return -1;
  // Other threads of the client may change its array meanwhile. So the array is copied, into
  // the same allocation as the bytes, and only the copy is read from here on.
  const size_t table_bytes = size_t{count} * sizeof *segs;
  // malloc reports a lack of memory, where new could end the host.
  orb::MallocBytes memory;
  memory.data = static_cast<uint8_t*>(malloc(std::max<size_t>(table_bytes + bytes_max, 1)));
  if (memory.data == nullptr) {
    LOGE("Failed to allocate buf");
    CountOne(&samples.lost[orb::LossCause::kMemory]);
    return -1;
  }
  if (table_bytes != 0) memcpy(memory.data, segs, table_bytes);
  const auto* const table = reinterpret_cast<const kiv_blob_segment_t*>(memory.data);
  uint8_t* const gathered = memory.data + table_bytes;
  const uint32_t bytes = orb::SegmentBytes(table, count);
  if (bytes > bytes_max || !Gather(table, count, gathered)) {
    LOGE("%s: segment without bytes, or changed during the call", "LogBufSegs");
    CountOne(&samples.lost[orb::LossCause::kEncode]);
    return -1;
  }
  return WriteRecord(gathered, bytes);
}

int Blob::Aggregate(unsigned int) { return 0; }

void Blob::ResetAggregates() { pending.clear(); }

bool Blob::validCfg() {
  const Conf& conf = Conf::Get();
  const uint32_t size_bytes = cfg.b_cfg().single_sample_size_threshold_bytes();
  return size_bytes >= static_cast<uint32_t>(conf.blob_size_min_bytes) &&
         size_bytes <= static_cast<uint32_t>(conf.blob_size_max_bytes) &&
         cfg.b_cfg().sample_rate() <= static_cast<uint32_t>(conf.blob_sample_rate_max);
}

int Blob::Serialize() { return 0; }

// The metadata of a record counts the samples since the previous record.
int Blob::WriteRecord(const void* bytes, uint32_t len) {
  int result = -1;
  const bool made = orb::Contained("WriteRecord", [&] {
    orbtr::KPIData data;
    orbtr::Blob* blob = data.add_blobs();
    if (len != 0) blob->set_data(bytes, len);
    fillMeta(blob->mutable_meta());
    result = serializer->Write(data, cfg.kpi_id());
  });
  if (!made) {
    CountOne(&samples.lost[orb::LossCause::kMemory]);
    return -1;
  }
  numSamples = 0;
  CountOne(&samples.records);
  return result;
}
