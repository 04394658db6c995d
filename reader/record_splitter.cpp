// Tested by tests/reader/record_splitter_test.cpp.
#include "reader/record_splitter.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

namespace orb::reader {
namespace {

constexpr uint64_t kVersionField = 1;
constexpr uint64_t kVarintType = 0;
constexpr uint64_t kLengthType = 2;
constexpr int kVarintBytesMax = 10;
constexpr char kMetaTag = 0x0A;  // The first field of every record.

bool IsRecordField(uint64_t field) {
  return field >= static_cast<uint64_t>(RecordKind::kCounter) &&
         field <= static_cast<uint64_t>(RecordKind::kBlob);
}

// The one record, encoded as the library does: parsed and written again it is the same.
bool IsCanonical(std::string_view bytes) {
  PayloadRecord record;
  if (bytes.size() > static_cast<size_t>(std::numeric_limits<int>::max()) ||
      !record.data.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
    return false;
  }
  record.kind = static_cast<RecordKind>(static_cast<uint8_t>(bytes[0]) >> 3);
  if (record.meta().ts_start() > record.meta().ts_end()) return false;
  record.data.DiscardUnknownFields();
  return record.data.SerializeAsString() == bytes;
}

}  // namespace

const char* KindName(RecordKind kind) {
  switch (kind) {
    case RecordKind::kCounter:
      return "counter";
    case RecordKind::kGauge:
      return "gauge";
    case RecordKind::kHistogram:
      return "histogram";
    case RecordKind::kBlob:
      return "blob";
  }
  return "";
}

const orbtr::MetaData& PayloadRecord::meta() const {
  switch (kind) {
    case RecordKind::kCounter:
      return data.counters(0).meta();
    case RecordKind::kGauge:
      return data.gauges(0).meta();
    case RecordKind::kHistogram:
      return data.histograms(0).meta();
    case RecordKind::kBlob:
      return data.blobs(0).meta();
  }
  return orbtr::MetaData::default_instance();
}

bool RecordSplitter::Next(PayloadRecord* record) {
  while (damage_.empty() && offset_ < payload_.size()) {
    size_t at = offset_;
    uint64_t tag = 0;
    if (!ReadVarint(&at, &tag)) return Damage("the tag of a record is cut off or too long");
    const uint64_t field = tag >> 3;
    const uint64_t type = tag & 7;
    if (field == kVersionField && type == kVarintType) {
      if (!ReadVersion(at)) return false;
      continue;
    }
    if (!IsRecordField(field) || type != kLengthType) {
      return Damage(fmt::format("field {} of wire type {} is no record", field, type));
    }
    return ReadRecord(field, at, record);
  }
  return false;
}

// Moves *at behind the number, little-endian groups of seven bits.
bool RecordSplitter::ReadVarint(size_t* at, uint64_t* value) const {
  *value = 0;
  for (int i = 0; i < kVarintBytesMax && *at < payload_.size(); ++i) {
    const auto byte = static_cast<uint8_t>(payload_[(*at)++]);
    *value |= uint64_t{byte & 0x7Fu} << (7 * i);
    if ((byte & 0x80) == 0) return true;
  }
  return false;
}

bool RecordSplitter::ReadVersion(size_t at) {
  uint64_t version = 0;
  if (!ReadVarint(&at, &version)) return Damage("the version is cut off or too long");
  if (version != orbtr::V1) {
    return Damage(fmt::format("version {} of the records is not known", version));
  }
  version_ = version;
  offset_ = at;
  return true;
}

// `at` is behind the tag.
bool RecordSplitter::ReadRecord(uint64_t field, size_t at, PayloadRecord* record) {
  const auto kind = static_cast<RecordKind>(field);
  uint64_t length = 0;
  if (!ReadVarint(&at, &length)) return Damage("the length of a record is cut off or too long");
  const size_t left = payload_.size() - at;
  if (length > left) {
    return Damage(fmt::format("a {} of {} bytes is cut off: {} bytes are left", KindName(kind),
                              length, left));
  }
  const size_t size_bytes = at + length - offset_;
  if (size_bytes > static_cast<size_t>(std::numeric_limits<int>::max()) ||
      !record->data.ParseFromArray(payload_.data() + offset_, static_cast<int>(size_bytes))) {
    return Damage(fmt::format("a {} of {} bytes is not well-formed", KindName(kind), length));
  }
  const size_t end = offset_ + size_bytes;
  if (trust_ == Trust::kWary && end < payload_.size() && Believable(end) == 0 &&
      (!IsCanonical(payload_.substr(offset_, size_bytes)) || IsOverlapped(at, end))) {
    return Damage(
        fmt::format("a {} of {} bytes is none: no record follows it", KindName(kind), length));
  }
  record->kind = kind;
  record->offset_bytes = offset_;
  record->size_bytes = size_bytes;
  offset_ += size_bytes;
  ++count_;
  return true;
}

size_t RecordSplitter::Resync() {
  const size_t damaged_at = offset_;
  damage_.clear();
  do {
    ++offset_;
  } while (offset_ < payload_.size() && budget_bytes_ != 0 && Believable(offset_) == 0);
  if (budget_bytes_ == 0) offset_ = payload_.size();
  return offset_ - damaged_at;
}

// Size of the record that stands at `at` as a client writes it; 0 for none.
size_t RecordSplitter::Believable(size_t at) {
  const size_t start = at;
  uint64_t tag = 0;
  uint64_t length = 0;
  if (!ReadVarint(&at, &tag) || !IsRecordField(tag >> 3) || (tag & 7) != kLengthType ||
      !ReadVarint(&at, &length) || length > payload_.size() - at || length == 0 ||
      payload_[at] != kMetaTag) {
    return 0;
  }
  const std::string_view bytes = payload_.substr(start, at - start + length);
  budget_bytes_ -= std::min(budget_bytes_, bytes.size());
  return IsCanonical(bytes) ? bytes.size() : 0;
}

// Whether records inside [at, end) go on beyond it. The data of a blob can be anything:
// a torn one takes the next record for its own rest and is well-formed all the same.
bool RecordSplitter::IsOverlapped(size_t at, size_t end) {
  while (at < end && budget_bytes_ != 0) {
    const size_t record_bytes = Believable(at);
    if (at + record_bytes > end) return true;
    at += std::max<size_t>(record_bytes, 1);
  }
  return false;
}

bool RecordSplitter::Damage(std::string reason) {
  damage_ = std::move(reason);
  return false;
}

}  // namespace orb::reader
