// Classes that own the handles of the NDK binder interface.
#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_parcel.h>
#include <android/binder_status.h>
#include <orb_platform/sp_aibinder.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace ndk {

// Sole owner of a T that Destroy frees; DEFAULT means none. Move only.
template <typename T, void (*Destroy)(T), T DEFAULT>
class ScopedAResource {
 public:
  explicit ScopedAResource(T t = DEFAULT) : value_(t) {}
  ScopedAResource(const ScopedAResource&) = delete;
  ScopedAResource& operator=(const ScopedAResource&) = delete;
  ScopedAResource(ScopedAResource&& other) noexcept
      : value_(std::exchange(other.value_, DEFAULT)) {}
  ScopedAResource& operator=(ScopedAResource&& other) noexcept {
    if (this != &other) set(std::exchange(other.value_, DEFAULT));
    return *this;
  }
  ~ScopedAResource() { set(DEFAULT); }

  // Frees the old value.
  void set(T t) {
    T old = std::exchange(value_, t);
    if (old != DEFAULT) Destroy(old);
  }
  T get() const { return value_; }
  // For functions that return a new value through a pointer.
  T* getR() {
    set(DEFAULT);
    return &value_;
  }
  [[nodiscard]] T release() { return std::exchange(value_, DEFAULT); }

 private:
  T value_;
};

class ScopedAParcel : public ScopedAResource<AParcel*, AParcel_delete, nullptr> {
 public:
  using ScopedAResource::ScopedAResource;
  ScopedAParcel() = default;
};

// The result of a call. Without a status (default constructed) it is not ok.
class ScopedAStatus : public ScopedAResource<AStatus*, AStatus_delete, nullptr> {
 public:
  using ScopedAResource::ScopedAResource;
  ScopedAStatus() = default;

  bool isOk() const { return get() != nullptr && AStatus_isOk(get()); }
  binder_exception_t getExceptionCode() const {
    return get() == nullptr ? EX_TRANSACTION_FAILED : AStatus_getExceptionCode(get());
  }
  int32_t getServiceSpecificError() const {
    return get() == nullptr ? 0 : AStatus_getServiceSpecificError(get());
  }
  binder_status_t getStatus() const {
    return get() == nullptr ? STATUS_UNEXPECTED_NULL : AStatus_getStatus(get());
  }
  const char* getMessage() const { return get() == nullptr ? "" : AStatus_getMessage(get()); }
  std::string getDescription() const {
    if (get() == nullptr) return "(no status)";
    const char* text = AStatus_getDescription(get());
    std::string copy(text);
    AStatus_deleteDescription(text);
    return copy;
  }

  static ScopedAStatus ok() { return ScopedAStatus(AStatus_newOk()); }
  static ScopedAStatus fromExceptionCode(binder_exception_t exception) {
    return ScopedAStatus(AStatus_fromExceptionCode(exception));
  }
  static ScopedAStatus fromServiceSpecificError(int32_t error) {
    return ScopedAStatus(AStatus_fromServiceSpecificError(error));
  }
  static ScopedAStatus fromServiceSpecificErrorWithMessage(int32_t error, const char* message) {
    return ScopedAStatus(AStatus_fromServiceSpecificErrorWithMessage(error, message));
  }
  static ScopedAStatus fromStatus(binder_status_t status) {
    return ScopedAStatus(AStatus_fromStatus(status));
  }
};

class ScopedAIBinder_DeathRecipient
    : public ScopedAResource<AIBinder_DeathRecipient*, AIBinder_DeathRecipient_delete, nullptr> {
 public:
  using ScopedAResource::ScopedAResource;
  ScopedAIBinder_DeathRecipient() = default;
};

class ScopedAIBinder_Weak : public ScopedAResource<AIBinder_Weak*, AIBinder_Weak_delete, nullptr> {
 public:
  using ScopedAResource::ScopedAResource;
  ScopedAIBinder_Weak() = default;

  SpAIBinder promote() const { return SpAIBinder(AIBinder_Weak_promote(get())); }
};

namespace internal {
inline void closeWithoutResult(int fd) { ::close(fd); }
}  // namespace internal

class ScopedFileDescriptor : public ScopedAResource<int, internal::closeWithoutResult, -1> {
 public:
  // Takes the descriptor.
  explicit ScopedFileDescriptor(int fd = -1) : ScopedAResource(fd) {}

  ScopedFileDescriptor dup() const { return ScopedFileDescriptor(::dup(get())); }
};

}  // namespace ndk
