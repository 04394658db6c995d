// Bytes, binders and descriptors of one call.
//
// Layout: little endian, every item padded to four bytes with zeros. A binder or a
// descriptor is a flat object of 24 bytes. The parcel lists the places of its objects
// apart from the bytes, so forged bytes never become an object, and it owns the objects'
// references and descriptors.
//
// Readers return NOT_ENOUGH_DATA past the end, and PERMISSION_DENIED when they read plain
// data where an object lies. Not thread-safe.
#pragma once

#include <android-base/unique_fd.h>
#include <binder/IInterface.h>
#include <binder/Parcelable.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace orb_platform {
class ParcelAccess;
}

namespace android {

class IPCThreadState;
namespace binder {
class Status;
}

class Parcel {
 public:
  Parcel();
  ~Parcel();
  Parcel(const Parcel&) = delete;
  Parcel& operator=(const Parcel&) = delete;

  const uint8_t* data() const { return data_.data(); }
  size_t dataSize() const { return data_.size(); }
  size_t dataAvail() const { return pos_ < data_.size() ? data_.size() - pos_ : 0; }
  size_t dataPosition() const { return pos_; }
  status_t setDataSize(size_t size);
  void setDataPosition(size_t pos) const { pos_ = pos; }
  status_t setData(const uint8_t* buffer, size_t len);
  // Copies also the objects that lie wholly inside the range, and duplicates descriptors.
  status_t appendFrom(const Parcel* parcel, size_t start, size_t len);
  void freeData();

  size_t objectsCount() const { return objects_.size(); }
  status_t errorCheck() const { return error_; }
  void markForBinder(const sp<IBinder>& binder);
  // Has the bytes wiped before they are freed.
  void markSensitive() const { sensitive_ = true; }
  binder::Status enforceNoDataAvail() const;

  status_t writeInterfaceToken(const String16& interface);
  bool enforceInterface(const String16& interface, IPCThreadState* threadState = nullptr) const;
  bool checkInterface(IBinder* binder) const;

  status_t write(const void* data, size_t len);
  status_t writeInt32(int32_t val);
  status_t writeInt64(int64_t val);
  status_t writeBool(bool val);
  status_t writeByte(int8_t val);
  status_t writeString16(const String16& str);
  status_t writeString16(const char16_t* str, size_t len);
  status_t writeUtf8AsUtf16(const std::string& str);
  status_t writeUtf8AsUtf16(const std::optional<std::string>& str);
  status_t writeByteVector(const std::vector<uint8_t>& val);
  status_t writeInt32Vector(const std::vector<int32_t>& val);
  status_t writeInt64Vector(const std::vector<int64_t>& val);
  status_t writeStrongBinder(const sp<IBinder>& val);
  template <typename T, std::enable_if_t<std::is_base_of_v<IInterface, T>, bool> = true>
  status_t writeStrongBinder(const sp<T>& val) {
    return writeStrongBinder(IInterface::asBinder(val));
  }
  status_t writeParcelable(const Parcelable& parcelable);
  template <typename T>
  status_t writeParcelableVector(const std::vector<T>& val);

  // With takeOwnership the parcel closes `fd`. Otherwise `fd` is borrowed and must stay open
  // until the parcel is destroyed.
  status_t writeFileDescriptor(int fd, bool takeOwnership = false);
  status_t writeDupFileDescriptor(int fd);
  status_t writeParcelFileDescriptor(int fd, bool takeOwnership = false);
  status_t writeDupParcelFileDescriptor(int fd);
  status_t writeUniqueFileDescriptor(const base::unique_fd& fd);

  status_t read(void* out, size_t len) const;
  // [len] bytes inside the parcel, valid as long as it is not changed; null on error.
  const void* readInplace(size_t len) const;
  int32_t readInt32() const;
  status_t readInt32(int32_t* out) const;
  status_t readInt64(int64_t* out) const;
  status_t readBool(bool* out) const;
  status_t readByte(int8_t* out) const;
  // UNEXPECTED_NULL for a null string.
  String16 readString16() const;
  status_t readString16(String16* out) const;
  // Units inside the parcel, terminated; null for a null string or an error.
  const char16_t* readString16Inplace(size_t* outLen) const;
  status_t readUtf8FromUtf16(std::string* out) const;
  status_t readUtf8FromUtf16(std::optional<std::string>* out) const;
  status_t readByteVector(std::vector<uint8_t>* out) const;
  status_t readInt32Vector(std::vector<int32_t>* out) const;
  status_t readInt64Vector(std::vector<int64_t>* out) const;
  // A null binder gives UNEXPECTED_NULL; the form without a status returns null.
  sp<IBinder> readStrongBinder() const;
  status_t readStrongBinder(sp<IBinder>* val) const;
  status_t readNullableStrongBinder(sp<IBinder>* val) const;
  template <typename T>
  status_t readStrongBinder(sp<T>* val) const;
  status_t readParcelable(Parcelable* parcelable) const;
  template <typename T>
  status_t readParcelableVector(std::vector<T>* val) const;

  // A descriptor that the parcel still owns, or BAD_TYPE, which is negative.
  int readFileDescriptor() const;
  int readParcelFileDescriptor() const;
  // Duplicates, owned by the caller.
  status_t readUniqueFileDescriptor(base::unique_fd* val) const;
  status_t readUniqueParcelFileDescriptor(base::unique_fd* val) const;

 private:
  friend class orb_platform::ParcelAccess;
  // A binder (fd is -1) or a descriptor (binder is null) at `offset`.
  struct Object {
    size_t offset;
    sp<IBinder> binder;
    int fd;
    bool owns_fd;
  };

  template <typename T>
  status_t WriteAligned(T val);
  template <typename T>
  status_t ReadAligned(T* out) const;
  template <typename T>
  status_t WriteVector(const std::vector<T>& val);
  template <typename T>
  status_t ReadVector(std::vector<T>* out) const;
  void* Extend(size_t len);
  status_t WriteObject(uint32_t type, uint32_t flags, uint64_t value, uint64_t cookie,
                       Object object);
  status_t ReadObject(const Object** out) const;
  bool OverlapsObject(size_t start, size_t end) const;
  void DropObjects(size_t start, size_t end);

  std::vector<uint8_t> data_;
  std::vector<Object> objects_;  // By offset, ascending.
  mutable size_t pos_ = 0;
  mutable bool sensitive_ = false;
  status_t error_ = OK;
};

}  // namespace android

#include <binder/ParcelTemplates.h>
