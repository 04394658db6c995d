// AParcel over android::Parcel.
// Tested by tests/platform_ndk/parcel_test.cpp.
#include <climits>
#include <cstring>
#include <optional>
#include <string>

#include "platform/linux/ndk/internal.h"

using android::Parcel;
using orb_platform::Prune;

namespace {

// Reads the length of an array; -1 means null. A length beyond the data is
// STATUS_NO_MEMORY, as on Android, but allocates nothing.
binder_status_t ReadLength(const Parcel& parcel, size_t item_bytes, int32_t* length) {
  const android::status_t status = parcel.readInt32(length);
  if (status != android::OK) return Prune(status);
  if (*length < -1) return STATUS_BAD_VALUE;
  const bool fits = *length < 0 || static_cast<size_t>(*length) <= parcel.dataAvail() / item_bytes;
  return fits ? STATUS_OK : STATUS_NO_MEMORY;
}

template <typename T>
binder_status_t WriteArray(AParcel* to, const T* items, int32_t length) {
  if (items == nullptr) {
    return length == -1 ? Prune(to->parcel->writeInt32(-1)) : STATUS_BAD_VALUE;
  }
  if (length < 0) return STATUS_BAD_VALUE;
  const android::status_t status = to->parcel->writeInt32(length);
  if (status != android::OK || length == 0) return Prune(status);
  return Prune(to->parcel->write(items, static_cast<size_t>(length) * sizeof(T)));
}

template <typename T>
binder_status_t ReadArray(const AParcel* from, void* data, bool (*allocate)(void*, int32_t, T**)) {
  int32_t length = 0;
  const binder_status_t status = ReadLength(*from->parcel, sizeof(T), &length);
  if (status != STATUS_OK) return status;
  T* items = nullptr;
  if (length < 0) return allocate(data, -1, &items) ? STATUS_OK : STATUS_UNEXPECTED_NULL;
  if (!allocate(data, length, &items)) return STATUS_NO_MEMORY;
  if (length == 0) return STATUS_OK;
  if (items == nullptr) return STATUS_NO_MEMORY;
  return Prune(from->parcel->read(items, static_cast<size_t>(length) * sizeof(T)));
}

}  // namespace

AParcel* AParcel_create() { return new AParcel(nullptr); }

void AParcel_delete(AParcel* parcel) { delete parcel; }

binder_status_t AParcel_setDataPosition(const AParcel* parcel, int32_t position) {
  if (position < 0) return STATUS_BAD_VALUE;
  parcel->parcel->setDataPosition(static_cast<size_t>(position));
  return STATUS_OK;
}

int32_t AParcel_getDataPosition(const AParcel* parcel) {
  return static_cast<int32_t>(parcel->parcel->dataPosition());
}

int32_t AParcel_getDataSize(const AParcel* parcel) {
  return static_cast<int32_t>(parcel->parcel->dataSize());
}

binder_status_t AParcel_reset(AParcel* parcel) {
  parcel->parcel->freeData();
  return STATUS_OK;
}

binder_status_t AParcel_writeStrongBinder(AParcel* parcel, AIBinder* binder) {
  return Prune(parcel->parcel->writeStrongBinder(binder == nullptr ? nullptr : binder->Binder()));
}

binder_status_t AParcel_readStrongBinder(const AParcel* parcel, AIBinder** binder) {
  android::sp<android::IBinder> object;
  const android::status_t status = parcel->parcel->readNullableStrongBinder(&object);
  if (status != android::OK) return Prune(status);
  *binder = orb_platform::NewReference(orb_platform::HandleOf(object));
  return STATUS_OK;
}

binder_status_t AParcel_writeParcelFileDescriptor(AParcel* parcel, int fd) {
  if (fd < -1) return STATUS_UNKNOWN_ERROR;
  const android::status_t status = parcel->parcel->writeInt32(fd == -1 ? 0 : 1);
  if (status != android::OK || fd == -1) return Prune(status);
  return Prune(parcel->parcel->writeDupParcelFileDescriptor(fd));
}

binder_status_t AParcel_readParcelFileDescriptor(const AParcel* parcel, int* fd) {
  *fd = -1;
  int32_t present = 0;
  android::status_t status = parcel->parcel->readInt32(&present);
  if (status != android::OK || present == 0) return Prune(status);
  android::base::unique_fd copy;
  status = parcel->parcel->readUniqueParcelFileDescriptor(&copy);
  if (status == android::OK) *fd = copy.release();
  return Prune(status);
}

binder_status_t AParcel_writeStatusHeader(AParcel* parcel, const AStatus* status) {
  return Prune(status->status.writeToParcel(parcel->parcel));
}

binder_status_t AParcel_readStatusHeader(const AParcel* parcel, AStatus** status) {
  android::binder::Status read;
  const android::status_t result = read.readFromParcel(*parcel->parcel);
  if (result == android::OK) *status = new AStatus{read};
  return Prune(result);
}

binder_status_t AParcel_writeString(AParcel* parcel, const char* string, int32_t length) {
  if (string == nullptr) {
    return length == -1 ? Prune(parcel->parcel->writeInt32(-1)) : STATUS_BAD_VALUE;
  }
  if (length < 0) return STATUS_BAD_VALUE;
  return Prune(parcel->parcel->writeUtf8AsUtf16(std::string(string, static_cast<size_t>(length))));
}

binder_status_t AParcel_readString(const AParcel* parcel, void* data,
                                   AParcel_stringAllocator allocate) {
  std::optional<std::string> string;
  const android::status_t status = parcel->parcel->readUtf8FromUtf16(&string);
  // A string that is cut off is null, as on Android.
  if (status == android::UNEXPECTED_NULL)
    string.reset();
  else if (status != android::OK)
    return Prune(status);
  if (!string) return allocate(data, -1, nullptr) ? STATUS_OK : STATUS_UNEXPECTED_NULL;
  const size_t bytes = string->size() + 1;
  char* buffer = nullptr;
  if (bytes > INT32_MAX || !allocate(data, static_cast<int32_t>(bytes), &buffer) ||
      buffer == nullptr) {
    return STATUS_NO_MEMORY;
  }
  std::memcpy(buffer, string->c_str(), bytes);
  return STATUS_OK;
}

binder_status_t AParcel_writeInt32(AParcel* parcel, int32_t value) {
  return Prune(parcel->parcel->writeInt32(value));
}

binder_status_t AParcel_writeInt64(AParcel* parcel, int64_t value) {
  return Prune(parcel->parcel->writeInt64(value));
}

binder_status_t AParcel_writeBool(AParcel* parcel, bool value) {
  return Prune(parcel->parcel->writeBool(value));
}

binder_status_t AParcel_writeByte(AParcel* parcel, int8_t value) {
  return Prune(parcel->parcel->writeByte(value));
}

binder_status_t AParcel_readInt32(const AParcel* parcel, int32_t* value) {
  return Prune(parcel->parcel->readInt32(value));
}

binder_status_t AParcel_readInt64(const AParcel* parcel, int64_t* value) {
  return Prune(parcel->parcel->readInt64(value));
}

binder_status_t AParcel_readBool(const AParcel* parcel, bool* value) {
  return Prune(parcel->parcel->readBool(value));
}

binder_status_t AParcel_readByte(const AParcel* parcel, int8_t* value) {
  return Prune(parcel->parcel->readByte(value));
}

binder_status_t AParcel_writeByteArray(AParcel* parcel, const int8_t* bytes, int32_t length) {
  return WriteArray(parcel, bytes, length);
}

binder_status_t AParcel_readByteArray(const AParcel* parcel, void* data,
                                      AParcel_byteArrayAllocator allocate) {
  return ReadArray(parcel, data, allocate);
}

binder_status_t AParcel_writeInt32Array(AParcel* parcel, const int32_t* items, int32_t length) {
  return WriteArray(parcel, items, length);
}

binder_status_t AParcel_readInt32Array(const AParcel* parcel, void* data,
                                       AParcel_int32ArrayAllocator allocate) {
  return ReadArray(parcel, data, allocate);
}
