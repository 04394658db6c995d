// Strings and arrays of a Parcel: count:i32 items, -1 for null.
// Tested by tests/platform/parcel_test.cpp.
#include <binder/Parcel.h>
#include <utils/Unicode.h>

#include <cstring>
#include <limits>

namespace android {

namespace {

constexpr int32_t kNull = -1;
constexpr size_t kMaxCount = std::numeric_limits<int32_t>::max();

}  // namespace

status_t Parcel::writeString16(const String16& str) {
  return writeString16(str.string(), str.size());
}

status_t Parcel::writeString16(const char16_t* str, size_t len) {
  if (str == nullptr) return writeInt32(kNull);
  if (len >= kMaxCount / sizeof(char16_t)) return BAD_VALUE;
  const status_t status = writeInt32(static_cast<int32_t>(len));
  if (status != OK) return status;
  const size_t bytes = len * sizeof(char16_t);
  auto* const to = static_cast<uint8_t*>(Extend(bytes + sizeof(char16_t)));
  if (to == nullptr) return error_;
  memcpy(to, str, bytes);
  memset(to + bytes, 0, sizeof(char16_t));
  return OK;
}

// Null for the null string, and also for a string that is cut off. Android's readers do
// not distinguish the two either.
const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
  *outLen = 0;
  int32_t count = 0;
  if (readInt32(&count) != OK || count < 0) return nullptr;
  const size_t len = static_cast<size_t>(count);
  const void* const units = readInplace((len + 1) * sizeof(char16_t));
  if (units == nullptr) return nullptr;
  const auto* const str = static_cast<const char16_t*>(units);
  if (str[len] != 0) return nullptr;
  *outLen = len;
  return str;
}

status_t Parcel::readString16(String16* out) const {
  size_t len = 0;
  const char16_t* const str = readString16Inplace(&len);
  if (str == nullptr) return UNEXPECTED_NULL;
  *out = String16(str, len);
  return OK;
}

String16 Parcel::readString16() const {
  String16 out;
  return readString16(&out) == OK ? out : String16();
}

status_t Parcel::writeUtf8AsUtf16(const std::string& str) {
  if (str.size() >= kMaxCount / sizeof(char16_t)) return BAD_VALUE;
  const auto* const utf8 = reinterpret_cast<const uint8_t*>(str.data());
  const ssize_t units = utf8_to_utf16_length(utf8, str.size());
  if (units < 0) return BAD_VALUE;
  const status_t status = writeInt32(static_cast<int32_t>(units));
  if (status != OK) return status;
  const size_t len = static_cast<size_t>(units);
  void* const to = Extend((len + 1) * sizeof(char16_t));
  if (to == nullptr) return error_;
  utf8_to_utf16(utf8, str.size(), static_cast<char16_t*>(to), len + 1);
  return OK;
}

status_t Parcel::writeUtf8AsUtf16(const std::optional<std::string>& str) {
  return str ? writeUtf8AsUtf16(*str) : writeInt32(kNull);
}

status_t Parcel::readUtf8FromUtf16(std::string* out) const {
  size_t len = 0;
  const char16_t* const str = readString16Inplace(&len);
  if (str == nullptr) return UNEXPECTED_NULL;
  out->clear();
  if (len == 0) return OK;
  const ssize_t bytes = utf16_to_utf8_length(str, len);
  if (bytes < 0) return BAD_VALUE;
  // The conversion writes a terminator after the bytes.
  out->resize(static_cast<size_t>(bytes) + 1);
  utf16_to_utf8(str, len, out->data(), out->size());
  out->resize(static_cast<size_t>(bytes));
  return OK;
}

status_t Parcel::readUtf8FromUtf16(std::optional<std::string>* out) const {
  const size_t start = pos_;
  int32_t count = 0;
  const status_t status = readInt32(&count);
  out->reset();
  if (status != OK || count < 0) return status;
  pos_ = start;
  return readUtf8FromUtf16(&out->emplace());
}

template <typename T>
status_t Parcel::WriteVector(const std::vector<T>& val) {
  if (val.size() > kMaxCount / sizeof(T)) return BAD_VALUE;
  const status_t status = writeInt32(static_cast<int32_t>(val.size()));
  return status == OK ? write(val.data(), val.size() * sizeof(T)) : status;
}

// A count that the bytes left cannot hold is refused before anything is allocated.
template <typename T>
status_t Parcel::ReadVector(std::vector<T>* out) const {
  int32_t count = 0;
  const status_t status = readInt32(&count);
  if (status != OK) return status;
  if (count < 0) return UNEXPECTED_NULL;
  if (static_cast<size_t>(count) > dataAvail() / sizeof(T)) return BAD_VALUE;
  out->resize(static_cast<size_t>(count));
  return read(out->data(), out->size() * sizeof(T));
}

status_t Parcel::writeByteVector(const std::vector<uint8_t>& val) { return WriteVector(val); }
status_t Parcel::writeInt32Vector(const std::vector<int32_t>& val) { return WriteVector(val); }
status_t Parcel::writeInt64Vector(const std::vector<int64_t>& val) { return WriteVector(val); }

status_t Parcel::readByteVector(std::vector<uint8_t>* out) const { return ReadVector(out); }
status_t Parcel::readInt32Vector(std::vector<int32_t>* out) const { return ReadVector(out); }
status_t Parcel::readInt64Vector(std::vector<int64_t>* out) const { return ReadVector(out); }

}  // namespace android
