// Sizes, copies and plain values of a Parcel.
// Tested by tests/platform/parcel_test.cpp.
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "platform/linux/src/parcel_access.h"
#include "utility/checked.h"

namespace android {

namespace {

constexpr int32_t kStrictModePenaltyGather = std::numeric_limits<int32_t>::min();
constexpr int32_t kWorkSourceUnset = -1;
constexpr int32_t kHeaderSystem = 0x53595354;  // 'SYST'
constexpr size_t kMaxBytes = std::numeric_limits<int32_t>::max();

size_t Padded(size_t len) { return orb::CheckedAdd<size_t>(len, 3) & ~size_t{3}; }

}  // namespace

Parcel::Parcel() = default;
Parcel::~Parcel() { freeData(); }

void Parcel::freeData() {
  // Empties the list first, because freeing a binder may run code that uses the parcel.
  const std::vector<Object> dropped = std::move(objects_);
  objects_.clear();
  for (const Object& object : dropped) {
    if (object.owns_fd) close(object.fd);
  }
  if (sensitive_) explicit_bzero(data_.data(), data_.size());
  data_ = {};
  pos_ = 0;
  error_ = OK;
}

status_t Parcel::setDataSize(size_t size) {
  if (size > kMaxBytes) return BAD_VALUE;
  if (size < data_.size()) {
    DropObjects(size, std::numeric_limits<size_t>::max());
    if (sensitive_) explicit_bzero(data_.data() + size, data_.size() - size);
  }
  data_.resize(size);
  pos_ = std::min(pos_, size);
  return OK;
}

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
  if (len > kMaxBytes) return BAD_VALUE;
  freeData();
  data_.assign(buffer, buffer + len);
  return OK;
}

status_t Parcel::appendFrom(const Parcel* parcel, size_t start, size_t len) {
  if (len == 0) return OK;
  if (start > parcel->data_.size() || len > parcel->data_.size() - start) return BAD_VALUE;
  const std::vector<uint8_t> bytes(parcel->data_.begin() + static_cast<ptrdiff_t>(start),
                                   parcel->data_.begin() + static_cast<ptrdiff_t>(start + len));
  struct Copies : std::vector<Object> {
    ~Copies() {
      for (const Object& made : *this) {
        if (made.owns_fd) close(made.fd);
      }
    }
  } copies;
  for (const Object& object : parcel->objects_) {
    if (object.offset < start || object.offset + orb_platform::kFlatObjectBytes > start + len) {
      continue;
    }
    Object& copy = copies.emplace_back(Object{object.offset - start, object.binder, -1, false});
    if (object.fd < 0) continue;
    copy.fd = fcntl(object.fd, F_DUPFD_CLOEXEC, 0);
    if (copy.fd < 0) return -errno;
    copy.owns_fd = true;
  }
  objects_.reserve(objects_.size() + copies.size());  // Nothing below throws.
  const size_t at = pos_;
  void* const to = Extend(len);
  if (to == nullptr) return error_;
  memcpy(to, bytes.data(), len);
  for (Object& copy : copies) {
    copy.offset += at;
    if (copy.fd >= 0) orb_platform::PatchDescriptor(data_.data() + copy.offset, copy.fd);
    objects_.push_back(std::move(copy));
  }
  copies.clear();
  std::sort(objects_.begin(), objects_.end(),
            [](const Object& a, const Object& b) { return a.offset < b.offset; });
  return OK;
}

void Parcel::markForBinder(const sp<IBinder>&) {}

binder::Status Parcel::enforceNoDataAvail() const {
  const size_t left = dataAvail();
  if (left == 0) return binder::Status::ok();
  return binder::Status::fromExceptionCode(
      binder::Status::EX_BAD_PARCELABLE,
      String8::format("Parcel data not fully consumed, unread size: %zu", left));
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
  writeInt32(kStrictModePenaltyGather);
  writeInt32(kWorkSourceUnset);
  writeInt32(kHeaderSystem);
  return writeString16(interface);
}

bool Parcel::enforceInterface(const String16& interface, IPCThreadState*) const {
  int32_t policy = 0;
  int32_t work_source = 0;
  int32_t header = 0;
  if (readInt32(&policy) != OK || readInt32(&work_source) != OK || readInt32(&header) != OK) {
    return false;
  }
  if (header != kHeaderSystem) return false;
  size_t len = 0;
  const char16_t* const name = readString16Inplace(&len);
  return name != nullptr && len == interface.size() &&
         memcmp(name, interface.string(), len * sizeof(char16_t)) == 0;
}

bool Parcel::checkInterface(IBinder* binder) const {
  return enforceInterface(binder->getInterfaceDescriptor());
}

// Makes room for len bytes at the position, zeroes the padding and moves the position.
void* Parcel::Extend(size_t len) {
  if (len > kMaxBytes - 3 || pos_ > kMaxBytes - Padded(len)) {
    error_ = BAD_VALUE;
    return nullptr;
  }
  const size_t padded = Padded(len);
  const size_t at = pos_;
  if (!objects_.empty() && at < data_.size()) DropObjects(at, at + padded);
  if (at + padded > data_.size()) data_.resize(at + padded);
  if (padded > len) memset(data_.data() + at + len, 0, padded - len);
  pos_ = at + padded;
  return data_.data() + at;
}

status_t Parcel::write(const void* data, size_t len) {
  void* const to = Extend(len);
  if (to == nullptr) return error_;
  if (len > 0) memcpy(to, data, len);
  return OK;
}

status_t Parcel::read(void* out, size_t len) const {
  const void* const from = readInplace(len);
  if (from == nullptr)
    return OverlapsObject(pos_, pos_ + len) ? PERMISSION_DENIED : NOT_ENOUGH_DATA;
  if (len > 0) memcpy(out, from, len);
  return OK;
}

const void* Parcel::readInplace(size_t len) const {
  if (len > kMaxBytes - 3 || pos_ > data_.size() || Padded(len) > data_.size() - pos_) {
    return nullptr;
  }
  if (OverlapsObject(pos_, pos_ + Padded(len))) return nullptr;
  const size_t at = pos_;
  pos_ += Padded(len);
  return data_.data() + at;
}

template <typename T>
status_t Parcel::WriteAligned(T val) {
  static_assert(sizeof(T) % 4 == 0);
  return write(&val, sizeof val);
}

template <typename T>
status_t Parcel::ReadAligned(T* out) const {
  static_assert(sizeof(T) % 4 == 0);
  return read(out, sizeof *out);
}

status_t Parcel::writeInt32(int32_t val) { return WriteAligned(val); }
status_t Parcel::writeInt64(int64_t val) { return WriteAligned(val); }
status_t Parcel::writeBool(bool val) { return writeInt32(val ? 1 : 0); }
status_t Parcel::writeByte(int8_t val) { return writeInt32(val); }

status_t Parcel::readInt32(int32_t* out) const { return ReadAligned(out); }
status_t Parcel::readInt64(int64_t* out) const { return ReadAligned(out); }

int32_t Parcel::readInt32() const {
  int32_t val = 0;
  return readInt32(&val) == OK ? val : 0;
}

status_t Parcel::readBool(bool* out) const {
  int32_t val = 0;
  const status_t status = readInt32(&val);
  *out = status == OK && val != 0;
  return status;
}

status_t Parcel::readByte(int8_t* out) const {
  int32_t val = 0;
  const status_t status = readInt32(&val);
  *out = static_cast<int8_t>(val);
  return status;
}

status_t Parcel::writeParcelable(const Parcelable& parcelable) {
  const status_t status = writeInt32(1);
  return status == OK ? parcelable.writeToParcel(this) : status;
}

status_t Parcel::readParcelable(Parcelable* parcelable) const {
  int32_t present = 0;
  const status_t status = readInt32(&present);
  if (status != OK) return status;
  return present == 1 ? parcelable->readFromParcel(this) : UNEXPECTED_NULL;
}

}  // namespace android
