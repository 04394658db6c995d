// record := KPIData { blobs: Blob { meta: MetaData, data: (length:u32 bytes)* } }
//
// The field numbers are those of proto/kpi_data.proto. Both sub-messages are written even
// when they are empty, as they are for a blob that the generated code encodes.
// Tested by tests/serializer/kpi_memory_serializer_test.cpp.
#include "serializer/blob_segment_encoder.h"

#include <pb.h>
#include <pb_encode.h>

#include "utility/blob_segments.h"

namespace {

struct MetaRecord {
  uint32_t kpi_id;
  uint64_t ts_start;
  uint64_t ts_end;
  uint64_t num_samples;
};

struct BlobRecord {
  bool has_meta;
  MetaRecord meta;
  pb_callback_t data;
};

struct DataRecord {
  bool has_blob;
  BlobRecord blob;
};

#define MetaRecord_FIELDLIST(X, a)            \
  X(a, STATIC, SINGULAR, UINT32, kpi_id, 1)   \
  X(a, STATIC, SINGULAR, UINT64, ts_start, 2) \
  X(a, STATIC, SINGULAR, UINT64, ts_end, 3)   \
  X(a, STATIC, SINGULAR, UINT64, num_samples, 4)
#define MetaRecord_CALLBACK NULL
#define MetaRecord_DEFAULT NULL
PB_BIND(MetaRecord, MetaRecord, AUTO)

#define BlobRecord_FIELDLIST(X, a)         \
  X(a, STATIC, OPTIONAL, MESSAGE, meta, 1) \
  X(a, CALLBACK, SINGULAR, BYTES, data, 2)
#define BlobRecord_CALLBACK pb_default_field_callback
#define BlobRecord_DEFAULT NULL
#define BlobRecord_meta_MSGTYPE MetaRecord
PB_BIND(BlobRecord, BlobRecord, AUTO)

#define DataRecord_FIELDLIST(X, a) X(a, STATIC, OPTIONAL, MESSAGE, blob, 5)
#define DataRecord_CALLBACK NULL
#define DataRecord_DEFAULT NULL
#define DataRecord_blob_MSGTYPE BlobRecord
PB_BIND(DataRecord, DataRecord, AUTO)

struct Pieces {
  const kiv_blob_segment_t* segs;
  uint32_t count;
  uint32_t data_bytes;
};

// nanopb calls this more than once for a record: it finds sizes by encoding into nothing.
bool EncodePieces(pb_ostream_t* stream, const pb_field_iter_t* field, void* const* arg) {
  const auto& pieces = *static_cast<const Pieces*>(*arg);
  if (!pb_encode_tag_for_field(stream, field) || !pb_encode_varint(stream, pieces.data_bytes)) {
    return false;
  }
  for (uint32_t i = 0; i < pieces.count; ++i) {
    const kiv_blob_segment_t& piece = pieces.segs[i];
    if (piece.buf == nullptr && piece.len != 0) PB_RETURN_ERROR(stream, "segment without bytes");
    if (!pb_write(stream, reinterpret_cast<const pb_byte_t*>(&piece.len), sizeof piece.len)) {
      return false;
    }
    if (piece.len != 0 && !pb_write(stream, piece.buf, piece.len)) return false;
  }
  return true;
}

DataRecord MakeRecord(const BlobWindow& window, Pieces* pieces) {
  DataRecord record{};
  record.has_blob = true;
  record.blob.has_meta = true;
  record.blob.meta = {window.kpi_id, window.ts_start, window.ts_end, window.num_samples};
  if (pieces->data_bytes != 0) {
    record.blob.data.funcs.encode = EncodePieces;
    record.blob.data.arg = pieces;
  }
  return record;
}

}  // namespace

BlobSegmentEncoder::BlobSegmentEncoder(const BlobWindow& window, const kiv_blob_segment_t* segs,
                                       uint32_t count)
    : window_(window), segs_(segs), count_(count), data_bytes_(orb::SegmentBytes(segs, count)) {}

bool BlobSegmentEncoder::Measure(size_t* bytes) {
  Pieces pieces{segs_, count_, data_bytes_};
  const DataRecord record = MakeRecord(window_, &pieces);
  pb_ostream_t stream = PB_OSTREAM_SIZING;
  const bool encoded = pb_encode(&stream, &DataRecord_msg, &record);
  if (!encoded) reason_ = PB_GET_ERROR(&stream);
  *bytes = stream.bytes_written;
  return encoded;
}

bool BlobSegmentEncoder::Encode(uint8_t* out, size_t bytes) {
  Pieces pieces{segs_, count_, data_bytes_};
  const DataRecord record = MakeRecord(window_, &pieces);
  pb_ostream_t stream = pb_ostream_from_buffer(out, bytes);
  const bool encoded = pb_encode(&stream, &DataRecord_msg, &record);
  if (!encoded) reason_ = PB_GET_ERROR(&stream);
  return encoded;
}
