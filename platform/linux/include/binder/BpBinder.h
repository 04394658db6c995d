// Proxy of an object that lives elsewhere. All holders in this process share one proxy of
// a remote object while any of them keeps it.
//
// A proxy is alive until this process notices that the remote's process has ended, and
// then dead for ever. A link to its death is armed, then reported once. Linking works until
// the report has run, even when the remote is dead already.
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

  // The level that the owner gave the object; 0, which refuses no call, until it is known.
  // Only transports set it.
  int32_t stability() const;
  void setStability(int32_t level);

  // Only transports call these. markDead() makes isBinderAlive() false and returns whether
  // links are armed. sendObituary(), called later and unlocked, runs these links once, on
  // the calling thread.
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
