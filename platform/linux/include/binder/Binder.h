// A local object that others call, and the base of typed proxies.
#pragma once

#include <binder/IBinder.h>
#include <utils/Vector.h>

#include <atomic>

namespace android {

class BBinder : public IBinder {
 public:
  BBinder();

  const String16& getInterfaceDescriptor() const override;
  bool isBinderAlive() const override;
  status_t pingBinder() override;
  status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;
  // Both return INVALID_OPERATION: a local object cannot die before its holder.
  status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                       uint32_t flags = 0) override;
  status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;

  // Writes nothing and returns OK.
  status_t dump(int fd, const Vector<String16>& args) override;
  BBinder* localBinder() override;

  // Stability level written with the object; 0 until it is first flattened.
  int32_t stability() const { return stability_.load(std::memory_order_relaxed); }
  void setStability(int32_t level) { stability_.store(level, std::memory_order_relaxed); }

 protected:
  ~BBinder() override;
  virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0);

 private:
  BBinder(const BBinder&) = delete;
  BBinder& operator=(const BBinder&) = delete;

  std::atomic<int32_t> stability_{0};
};

// Holds the binder that a typed proxy calls.
class BpRefBase : public virtual RefBase {
 protected:
  explicit BpRefBase(const sp<IBinder>& o);
  ~BpRefBase() override;

  IBinder* remote() const { return remote_.get(); }
  sp<IBinder> remoteStrong() const { return remote_; }

 private:
  BpRefBase(const BpRefBase&) = delete;
  BpRefBase& operator=(const BpRefBase&) = delete;

  const sp<IBinder> remote_;
};

}  // namespace android
