// The object that a proxy calls: it lives behind the bus, or in this process.
#pragma once

#include <binder/BpBinder.h>
#include <binder/Parcel.h>

#include <cstdint>

namespace orb_platform {

// The most bytes of a transaction, and of a one-way transaction.
constexpr size_t kMaxTransactionBytes = (size_t{1} << 20) - (size_t{8} << 10);
constexpr size_t kMaxOnewayBytes = kMaxTransactionBytes / 2;

inline bool ExceedsLimit(size_t bytes, bool oneway) {
  return bytes > (oneway ? kMaxOnewayBytes : kMaxTransactionBytes);
}
inline bool ExceedsLimit(const android::Parcel& data, uint32_t flags) {
  return ExceedsLimit(data.dataSize(), (flags & android::IBinder::FLAG_ONEWAY) != 0);
}

// Thread-safe.
class RemoteTarget {
 public:
  virtual ~RemoteTarget() = default;
  virtual android::status_t Transact(uint32_t code, const android::Parcel& data,
                                     android::Parcel* reply, uint32_t flags) = 0;
  // The last strong reference to `proxy` is gone; its destructor comes next.
  virtual void Released(android::BpBinder* proxy) = 0;
  // Runs proxy->sendObituary() on another thread.
  virtual void PostObituary(const android::sp<android::BpBinder>& proxy) = 0;
  // The object itself when it lives in this process, else null.
  virtual android::sp<android::IBinder> LocalObject() const { return nullptr; }
};

}  // namespace orb_platform
