// AParcel_writeData and AParcel_readData take a C++ value of any type that an interface
// may have as an argument. The older functions take one type each.
//
// Types: bool, int8_t, int32_t, int64_t, enums of these, std::string, byte
// vectors, ScopedFileDescriptor, std::shared_ptr of an interface, parcelables
// (classes with readFromParcel and writeToParcel), and vectors of all of them.
// No value may be null: STATUS_UNEXPECTED_NULL.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_interface_utils.h>
#include <android/binder_parcel.h>
#include <orb_platform/parcel_values.h>

#include <climits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace ndk {

template <typename T>
binder_status_t AParcel_writeData(AParcel* parcel, const T& value);
template <typename T>
binder_status_t AParcel_readData(const AParcel* parcel, T* value);

template <typename T>
binder_status_t AParcel_writeVector(AParcel* parcel, const std::vector<T>& values) {
  if (values.size() > INT32_MAX) return STATUS_BAD_VALUE;
  const auto count = static_cast<int32_t>(values.size());
  if constexpr (sizeof(T) == 1 && std::is_integral_v<T> && !std::is_same_v<T, bool>) {
    // An empty array must not become null, whatever data() returns.
    static constexpr int8_t kNone = 0;
    const void* bytes = values.empty() ? &kNone : static_cast<const void*>(values.data());
    return AParcel_writeByteArray(parcel, static_cast<const int8_t*>(bytes), count);
  } else {
    binder_status_t status = AParcel_writeInt32(parcel, count);
    for (size_t i = 0; i < values.size() && status == STATUS_OK; ++i) {
      status = AParcel_writeData<T>(parcel, values[i]);
    }
    return status;
  }
}

template <typename T>
binder_status_t AParcel_readVector(const AParcel* parcel, std::vector<T>* values) {
  if constexpr (sizeof(T) == 1 && std::is_integral_v<T> && !std::is_same_v<T, bool>) {
    const auto allocate = [](void* data, int32_t length, int8_t** bytes) {
      if (length < 0) return false;
      auto* vector = static_cast<std::vector<T>*>(data);
      vector->resize(static_cast<size_t>(length));
      *bytes = reinterpret_cast<int8_t*>(vector->data());
      return true;
    };
    return AParcel_readByteArray(parcel, values, allocate);
  } else {
    int32_t count = 0;
    binder_status_t status = AParcel_readInt32(parcel, &count);
    if (status != STATUS_OK) return status;
    if (count < 0) return STATUS_UNEXPECTED_NULL;
    // Every item takes at least four bytes, so a forged count allocates little.
    if (count > (AParcel_getDataSize(parcel) - AParcel_getDataPosition(parcel)) / 4) {
      return std::is_arithmetic_v<T> ? STATUS_NO_MEMORY : STATUS_NOT_ENOUGH_DATA;
    }
    values->clear();
    values->resize(static_cast<size_t>(count));
    for (size_t i = 0; i < values->size() && status == STATUS_OK; ++i) {
      status = AParcel_readData<T>(parcel, &(*values)[i]);
    }
    return status;
  }
}

namespace internal {
template <typename T>
struct IsVector : std::false_type {};
template <typename T>
struct IsVector<std::vector<T>> : std::true_type {};
template <typename T>
struct IsInterface : std::false_type {};
template <typename T>
struct IsInterface<std::shared_ptr<T>> : std::is_base_of<ICInterface, T> {};
}  // namespace internal

template <typename T>
binder_status_t AParcel_writeData(AParcel* parcel, const T& value) {
  if constexpr (std::is_enum_v<T>) {
    return AParcel_writeData(parcel, static_cast<std::underlying_type_t<T>>(value));
  } else if constexpr (std::is_same_v<T, bool>) {
    return AParcel_writeBool(parcel, value);
  } else if constexpr (std::is_same_v<T, int8_t>) {
    return AParcel_writeByte(parcel, value);
  } else if constexpr (std::is_same_v<T, int32_t>) {
    return AParcel_writeInt32(parcel, value);
  } else if constexpr (std::is_same_v<T, int64_t>) {
    return AParcel_writeInt64(parcel, value);
  } else if constexpr (std::is_same_v<T, std::string>) {
    return AParcel_writeString(parcel, value);
  } else if constexpr (std::is_same_v<T, ScopedFileDescriptor>) {
    return AParcel_writeRequiredParcelFileDescriptor(parcel, value);
  } else if constexpr (internal::IsVector<T>::value) {
    return AParcel_writeVector(parcel, value);
  } else if constexpr (internal::IsInterface<T>::value) {
    if (value == nullptr) return STATUS_UNEXPECTED_NULL;
    return T::element_type::writeToParcel(parcel, value);
  } else {
    return AParcel_writeParcelable(parcel, value);
  }
}

template <typename T>
binder_status_t AParcel_readData(const AParcel* parcel, T* value) {
  if constexpr (std::is_enum_v<T>) {
    std::underlying_type_t<T> number{};
    const binder_status_t status = AParcel_readData(parcel, &number);
    if (status == STATUS_OK) *value = static_cast<T>(number);
    return status;
  } else if constexpr (std::is_same_v<T, bool>) {
    return AParcel_readBool(parcel, value);
  } else if constexpr (std::is_same_v<T, int8_t>) {
    return AParcel_readByte(parcel, value);
  } else if constexpr (std::is_same_v<T, int32_t>) {
    return AParcel_readInt32(parcel, value);
  } else if constexpr (std::is_same_v<T, int64_t>) {
    return AParcel_readInt64(parcel, value);
  } else if constexpr (std::is_same_v<T, std::string>) {
    return AParcel_readString(parcel, value);
  } else if constexpr (std::is_same_v<T, ScopedFileDescriptor>) {
    return AParcel_readRequiredParcelFileDescriptor(parcel, value);
  } else if constexpr (internal::IsVector<T>::value) {
    return AParcel_readVector(parcel, value);
  } else if constexpr (internal::IsInterface<T>::value) {
    const binder_status_t status = T::element_type::readFromParcel(parcel, value);
    return status == STATUS_OK && *value == nullptr ? STATUS_UNEXPECTED_NULL : status;
  } else {
    return AParcel_readParcelable(parcel, value);
  }
}

}  // namespace ndk
