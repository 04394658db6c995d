// A reference to an object that may live in another process.
#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

#include <cstdint>
#include <functional>

namespace android {

class BBinder;
class BpBinder;
class IInterface;
class Parcel;
template <typename TYPE>
class Vector;

constexpr uint32_t BinderPackChars(char a, char b, char c, char d) {
  return static_cast<uint32_t>(a) << 24 | static_cast<uint32_t>(b) << 16 |
         static_cast<uint32_t>(c) << 8 | static_cast<uint32_t>(d);
}

// Thread-safe: any method from any thread.
class IBinder : public virtual RefBase {
 public:
  enum : uint32_t {
    FIRST_CALL_TRANSACTION = 0x00000001,
    LAST_CALL_TRANSACTION = 0x00ffffff,

    PING_TRANSACTION = BinderPackChars('_', 'P', 'N', 'G'),
    DUMP_TRANSACTION = BinderPackChars('_', 'D', 'M', 'P'),
    SHELL_COMMAND_TRANSACTION = BinderPackChars('_', 'C', 'M', 'D'),
    INTERFACE_TRANSACTION = BinderPackChars('_', 'N', 'T', 'F'),
    SYSPROPS_TRANSACTION = BinderPackChars('_', 'S', 'P', 'R'),
    EXTENSION_TRANSACTION = BinderPackChars('_', 'E', 'X', 'T'),
    DEBUG_PID_TRANSACTION = BinderPackChars('_', 'P', 'I', 'D'),
    SET_RPC_CLIENT_TRANSACTION = BinderPackChars('_', 'R', 'P', 'C'),

    FLAG_ONEWAY = 0x00000001,
    FLAG_CLEAR_BUF = 0x00000020,
    FLAG_PRIVATE_VENDOR = 0x10000000,
  };

  IBinder();

  // The local implementation of that interface. Null when this is a proxy or implements
  // another interface.
  virtual sp<IInterface> queryLocalInterface(const String16& descriptor);
  // A proxy asks its remote once, which blocks; empty when the remote is dead.
  virtual const String16& getInterfaceDescriptor() const = 0;
  virtual bool isBinderAlive() const = 0;
  virtual status_t pingBinder() = 0;
  // Makes the object write a text about itself for people into fd. The object defines what
  // `args` mean. A proxy sends fd to its remote and waits.
  virtual status_t dump(int fd, const Vector<String16>& args) = 0;
  // Blocks until the reply is there, but with FLAG_ONEWAY only until the call
  // is queued. `reply` may be null. Transport errors: DEAD_OBJECT,
  // FAILED_TRANSACTION (too large); else what onTransact returned.
  virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                            uint32_t flags = 0) = 0;

  class DeathRecipient : public virtual RefBase {
   public:
    // Runs once per link on a pool thread, after isBinderAlive() turned false.
    virtual void binderDied(const wp<IBinder>& who) = 0;
  };

  // The link keeps neither the recipient nor the binder alive. DEAD_OBJECT once
  // the death has been reported; INVALID_OPERATION on a local binder.
  virtual status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                               uint32_t flags = 0) = 0;
  // Removes one link with equal arguments; with a null recipient, only cookie and flags
  // must be equal. NAME_NOT_FOUND when there is none.
  virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                                 uint32_t flags = 0,
                                 wp<DeathRecipient>* outRecipient = nullptr) = 0;

  typedef void (*object_cleanup_func)(const void* id, void* obj, void* cleanupCookie);

  // Attaches `object` to this binder under the key objectID; `func` runs when the binder is
  // destroyed. If the key is taken, changes nothing and returns the object that has it.
  void* attachObject(const void* objectID, void* object, void* cleanupCookie,
                     object_cleanup_func func);
  void* findObject(const void* objectID) const;
  void* detachObject(const void* objectID);
  // Runs `doWithLock` while no other thread can attach or detach objects.
  void withLock(const std::function<void()>& doWithLock);

  virtual BBinder* localBinder();
  virtual BpBinder* remoteBinder();

 protected:
  ~IBinder() override;

 private:
  struct Attachments;
  Attachments* const attachments_;
};

}  // namespace android
