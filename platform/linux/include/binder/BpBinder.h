// Proxy of an object that lives elsewhere: the same remote is the same proxy
// while one is held in this process.
//
// A proxy is alive until its remote's process is seen gone, and dead for ever
// after. Links to its death go: armed -> (remote dies) -> reported; linking is
// allowed until the report has run, also when the remote is dead already.
#pragma once

#include <binder/IBinder.h>

#include <memory>

namespace orb_platform {
class RemoteTarget;
}

namespace android {

class BpBinder : public IBinder {
 public:
  // For the transports; use checkService or read it from a Parcel.
  static sp<BpBinder> create(std::shared_ptr<orb_platform::RemoteTarget> target);

  const String16& getInterfaceDescriptor() const override;
  bool isBinderAlive() const override;
  status_t pingBinder() override;
  status_t dump(int fd, const Vector<String16>& args) override;
  status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) override;
  status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                       uint32_t flags = 0) override;
  status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;
  BpBinder* remoteBinder() override;

  // Unique in this process, never 0 and never used again.
  int32_t handle() const;

  // The level that the owner gave the object; 0 until it has said, and no call is
  // refused until then. For the transports to set.
  int32_t stability() const;
  void setStability(int32_t level);

  // For the transports. markDead() turns isBinderAlive() false and tells
  // whether links are armed; sendObituary(), later and unlocked, runs them on
  // the calling thread, once.
  bool markDead();
  void sendObituary();
  const std::shared_ptr<orb_platform::RemoteTarget>& target() const;

 protected:
  ~BpBinder() override;
  void onLastStrongRef(const void* id) override;

 private:
  struct State;
  explicit BpBinder(std::shared_ptr<orb_platform::RemoteTarget> target);

  const std::unique_ptr<State> state_;
};

}  // namespace android
