// object := flat [stability:i32, binders only]
// flat   := type:u32 flags:u32 value:u64 cookie:u64
//
// A binder of this process has its addresses in value and cookie. A proxy has its handle
// in value. A descriptor has its number in value, and 1 in cookie when the parcel owns it.
// A null binder has zeros there, and is not in the list of objects.
// Tested by tests/platform/parcel_test.cpp.
#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <binder/Stability.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/linux/src/parcel_access.h"
#include "utility/unique_fd.h"

namespace orb_platform {

namespace {

constexpr uint32_t kTypeBinder = 0x73622a85;
constexpr uint32_t kTypeHandle = 0x73682a85;
constexpr uint32_t kTypeDescriptor = 0x66642a85;
constexpr uint32_t kFlagsAcceptDescriptors = 0x100;
constexpr uint32_t kFlagsPriority = 0x13;
constexpr uint32_t kFlagsDescriptor = 0x17f;

struct Flat {
  uint32_t type;
  uint32_t flags;
  uint64_t value;
  uint64_t cookie;
};
static_assert(sizeof(Flat) == kFlatObjectBytes);

Flat FlatOf(const android::sp<android::IBinder>& binder) {
  if (binder == nullptr) return {kTypeBinder, kFlagsPriority, 0, 0};
  if (android::BpBinder* proxy = binder->remoteBinder()) {
    return {kTypeHandle, kFlagsPriority, static_cast<uint32_t>(proxy->handle()), 0};
  }
  android::BBinder* local = binder->localBinder();
  return {kTypeBinder, kFlagsAcceptDescriptors | kFlagsPriority,
          reinterpret_cast<uint64_t>(local->getWeakRefs()), reinterpret_cast<uint64_t>(local)};
}

Flat FlatOf(int fd, bool owned) {
  return {kTypeDescriptor, kFlagsDescriptor, static_cast<uint32_t>(fd), owned ? 1u : 0u};
}

}  // namespace

void PatchDescriptor(uint8_t* flat, int fd) {
  const Flat patched = FlatOf(fd, true);
  memcpy(flat, &patched, sizeof patched);
}

ParcelAccess::View ParcelAccess::At(const android::Parcel& parcel, size_t index) {
  const auto& object = parcel.objects_[index];
  return {object.offset, object.binder, object.fd};
}

bool ParcelAccess::Fits(const android::Parcel& parcel, size_t offset) {
  if (offset % 4 != 0 || parcel.data_.size() < kFlatObjectBytes) return false;
  if (offset > parcel.data_.size() - kFlatObjectBytes) return false;
  return parcel.objects_.empty() || offset >= parcel.objects_.back().offset + kFlatObjectBytes;
}

bool ParcelAccess::AddBinder(android::Parcel* parcel, size_t offset,
                             const android::sp<android::IBinder>& binder) {
  if (!Fits(*parcel, offset)) return false;
  const Flat flat = FlatOf(binder);
  memcpy(parcel->data_.data() + offset, &flat, sizeof flat);
  parcel->objects_.push_back({offset, binder, -1, false});
  return true;
}

bool ParcelAccess::AddDescriptor(android::Parcel* parcel, size_t offset, int fd) {
  orb::UniqueFd owned(fd);
  if (!Fits(*parcel, offset)) return false;
  PatchDescriptor(parcel->data_.data() + offset, fd);
  parcel->objects_.push_back({offset, nullptr, fd, true});
  [[maybe_unused]] const int parcels = owned.release();
  return true;
}

}  // namespace orb_platform

namespace android {

using orb_platform::Flat;
using orb_platform::FlatOf;
using orb_platform::kFlatObjectBytes;

bool Parcel::OverlapsObject(size_t start, size_t end) const {
  if (objects_.empty() || start >= end) return false;
  const auto it =
      std::lower_bound(objects_.begin(), objects_.end(), end,
                       [](const Object& object, size_t value) { return object.offset < value; });
  return it != objects_.begin() && std::prev(it)->offset + kFlatObjectBytes > start;
}

void Parcel::DropObjects(size_t start, size_t end) {
  // Empties the list first, because freeing a binder may run code that uses the parcel.
  std::vector<Object> dropped;
  dropped.reserve(objects_.size());
  const auto gone =
      std::stable_partition(objects_.begin(), objects_.end(), [start, end](const Object& object) {
        return object.offset >= end || object.offset + kFlatObjectBytes <= start;
      });
  std::move(gone, objects_.end(), std::back_inserter(dropped));
  objects_.erase(gone, objects_.end());
  for (const Object& object : dropped) {
    if (object.owns_fd) close(object.fd);
  }
}

status_t Parcel::WriteObject(uint32_t type, uint32_t flags, uint64_t value, uint64_t cookie,
                             Object object) {
  const size_t at = pos_;
  const Flat flat{type, flags, value, cookie};
  const status_t status = write(&flat, sizeof flat);
  if (status != OK) return status;
  object.offset = at;
  if (object.binder == nullptr && object.fd < 0) return OK;
  const auto place = std::upper_bound(
      objects_.begin(), objects_.end(), at,
      [](size_t value_at, const Object& other) { return value_at < other.offset; });
  objects_.insert(place, std::move(object));
  return OK;
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& val) {
  const Flat flat = FlatOf(val);
  const status_t status =
      WriteObject(flat.type, flat.flags, flat.value, flat.cookie, {0, val, -1, false});
  if (status != OK) return status;
  return writeInt32(internal::Stability::getLevel(val.get()));
}

status_t Parcel::ReadObject(const Object** out) const {
  const size_t at = pos_;
  if (at > data_.size() || data_.size() - at < kFlatObjectBytes) return BAD_TYPE;
  const auto it =
      std::lower_bound(objects_.begin(), objects_.end(), at,
                       [](const Object& object, size_t value) { return object.offset < value; });
  *out = it != objects_.end() && it->offset == at ? &*it : nullptr;
  if (*out == nullptr) {
    Flat flat;
    memcpy(&flat, data_.data() + at, sizeof flat);
    if (flat.value != 0 || flat.cookie != 0) return BAD_TYPE;
    if (OverlapsObject(at, at + kFlatObjectBytes)) return BAD_TYPE;
  }
  pos_ = at + kFlatObjectBytes;
  return OK;
}

status_t Parcel::readNullableStrongBinder(sp<IBinder>* val) const {
  const Object* object = nullptr;
  *val = nullptr;
  status_t status = ReadObject(&object);
  if (status != OK) return status;
  if (object != nullptr && object->fd >= 0) return BAD_TYPE;
  int32_t stability = 0;
  status = readInt32(&stability);
  if (status != OK) return status;
  if (object != nullptr) *val = object->binder;
  return OK;
}

status_t Parcel::readStrongBinder(sp<IBinder>* val) const {
  const status_t status = readNullableStrongBinder(val);
  return status == OK && *val == nullptr ? UNEXPECTED_NULL : status;
}

sp<IBinder> Parcel::readStrongBinder() const {
  sp<IBinder> val;
  return readNullableStrongBinder(&val) == OK ? val : nullptr;
}

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
  if (fd < 0) return BAD_VALUE;
  base::unique_fd owned(takeOwnership ? fd : -1);
  const Flat flat = FlatOf(fd, takeOwnership);
  const status_t status =
      WriteObject(flat.type, flat.flags, flat.value, flat.cookie, {0, nullptr, fd, takeOwnership});
  if (status == OK) {
    [[maybe_unused]] const int parcels = owned.release();
  }
  return status;
}

status_t Parcel::writeDupFileDescriptor(int fd) {
  const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  return copy < 0 ? -errno : writeFileDescriptor(copy, true);
}

status_t Parcel::writeParcelFileDescriptor(int fd, bool takeOwnership) {
  const status_t status = writeInt32(0);  // No channel to report a close on.
  return status == OK ? writeFileDescriptor(fd, takeOwnership) : status;
}

status_t Parcel::writeDupParcelFileDescriptor(int fd) {
  const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  return copy < 0 ? -errno : writeParcelFileDescriptor(copy, true);
}

status_t Parcel::writeUniqueFileDescriptor(const base::unique_fd& fd) {
  return writeDupFileDescriptor(fd.get());
}

int Parcel::readFileDescriptor() const {
  const Object* object = nullptr;
  if (ReadObject(&object) != OK || object == nullptr || object->fd < 0) return BAD_TYPE;
  return object->fd;
}

int Parcel::readParcelFileDescriptor() const {
  const int32_t has_channel = readInt32();
  const int fd = readFileDescriptor();
  // The channel's own descriptor is not used, only stepped over.
  if (has_channel != 0) static_cast<void>(readFileDescriptor());
  return fd;
}

status_t Parcel::readUniqueFileDescriptor(base::unique_fd* val) const {
  const int fd = readFileDescriptor();
  if (fd < 0) return BAD_TYPE;
  val->reset(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  return val->get() < 0 ? BAD_VALUE : OK;
}

status_t Parcel::readUniqueParcelFileDescriptor(base::unique_fd* val) const {
  const int fd = readParcelFileDescriptor();
  if (fd < 0) return BAD_TYPE;
  val->reset(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  return val->get() < 0 ? BAD_VALUE : OK;
}

}  // namespace android
