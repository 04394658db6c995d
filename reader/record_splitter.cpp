// Tested by tests/reader/record_splitter_test.cpp.
#include "reader/record_splitter.h"

#include <fmt/format.h>
#include <google/protobuf/io/coded_stream.h>

#include <algorithm>
#include <limits>
#include <optional>

namespace orb::reader {
namespace {

constexpr uint64_t kVersionField = 1;
constexpr uint64_t kVarintType = 0;
constexpr uint64_t kLengthType = 2;
constexpr size_t kVarintBytesMax = 10;
constexpr char kMetaTag = 0x0A;  // The first field of every record.

// Which records KPIData has in that field; nothing for another field.
std::optional<KpiKind> KindOfField(uint64_t field) {
  std::optional<KpiKind> kind;
  ForEachRecordRow([&](const auto& row) {
    if (row.field == field) kind = row.kind;
  });
  return kind;
}

// True when the record is encoded as the library does it: parsed and written again it is
// the same.
bool IsCanonical(KpiKind kind, std::string_view bytes) {
  PayloadRecord record;
  if (bytes.size() > static_cast<size_t>(std::numeric_limits<int>::max()) ||
      !record.data.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
    return false;
  }
  record.kind = kind;
  if (record.meta().ts_start() > record.meta().ts_end()) return false;
  record.data.DiscardUnknownFields();
  return record.data.SerializeAsString() == bytes;
}

}  // namespace

const orbtr::MetaData& PayloadRecord::meta() const {
  const orbtr::MetaData* meta = &orbtr::MetaData::default_instance();
  VisitElement([&meta](const auto&, const auto& element) { meta = &element.meta(); });
  return *meta;
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
    const std::optional<KpiKind> kind = KindOfField(field);
    if (!kind || type != kLengthType) {
      return Damage(fmt::format("field {} of wire type {} is no record", field, type));
    }
    return ReadRecord(*kind, at, record);
  }
  return false;
}

// Moves *at to the byte after the number.
bool RecordSplitter::ReadVarint(size_t* at, uint64_t* value) const {
  const std::string_view rest = payload_.substr(*at, kVarintBytesMax);
  google::protobuf::io::CodedInputStream in(reinterpret_cast<const uint8_t*>(rest.data()),
                                            static_cast<int>(rest.size()));
  if (!in.ReadVarint64(value)) return false;
  *at += static_cast<size_t>(in.CurrentPosition());
  return true;
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
bool RecordSplitter::ReadRecord(KpiKind kind, size_t at, PayloadRecord* record) {
  uint64_t length = 0;
  if (!ReadVarint(&at, &length)) return Damage("the length of a record is cut off or too long");
  const size_t left = payload_.size() - at;
  if (length > left) {
    return Damage(
        fmt::format("a {} of {} bytes is cut off: {} bytes are left", NameOf(kind), length, left));
  }
  const size_t size_bytes = at + length - offset_;
  if (size_bytes > static_cast<size_t>(std::numeric_limits<int>::max()) ||
      !record->data.ParseFromArray(payload_.data() + offset_, static_cast<int>(size_bytes))) {
    return Damage(fmt::format("a {} of {} bytes is not well-formed", NameOf(kind), length));
  }
  const size_t end = offset_ + size_bytes;
  if (trust_ == Trust::kWary && end < payload_.size() && Believable(end) == 0 &&
      (!IsCanonical(kind, payload_.substr(offset_, size_bytes)) || IsOverlapped(at, end))) {
    return Damage(
        fmt::format("a {} of {} bytes is none: no record follows it", NameOf(kind), length));
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
  if (!ReadVarint(&at, &tag)) return 0;
  const std::optional<KpiKind> kind = KindOfField(tag >> 3);
  if (!kind || (tag & 7) != kLengthType || !ReadVarint(&at, &length) ||
      length > payload_.size() - at || length == 0 || payload_[at] != kMetaTag) {
    return 0;
  }
  const std::string_view bytes = payload_.substr(start, at - start + length);
  budget_bytes_ -= std::min(budget_bytes_, bytes.size());
  return IsCanonical(*kind, bytes) ? bytes.size() : 0;
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
