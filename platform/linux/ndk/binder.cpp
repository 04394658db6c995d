// AIBinder: handles, classes and transactions.
// Tested by tests/platform_ndk/binder_test.cpp.
#include <android/binder_stability.h>
#include <android/log.h>
#include <binder/IPCThreadState.h>
#include <binder/Stability.h>

#include <map>

#include "platform/linux/ndk/internal.h"
#include "platform/linux/src/caller.h"

#define NDK_LOGE(...) \
  static_cast<void>(__android_log_print(ANDROID_LOG_ERROR, "binder_ndk", __VA_ARGS__))

using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String8;
using android::wp;
using orb_platform::Prune;

namespace {

bool IsMethod(transaction_code_t code) {
  return code >= FIRST_CALL_TRANSACTION && code <= LAST_CALL_TRANSACTION;
}

class LocalBinder : public AIBinder, public android::BBinder {
 public:
  LocalBinder(const AIBinder_Class* clazz, void* user_data) : clazz_(clazz), user_data_(user_data) {
    SetClass(clazz);
  }

  sp<IBinder> Binder() override { return sp<IBinder>(this); }
  bool IsRemote() const override { return false; }
  void* UserData() override { return user_data_; }
  const android::String16& getInterfaceDescriptor() const override {
    return clazz_->wide_descriptor;
  }

 protected:
  ~LocalBinder() override { clazz_->on_destroy(user_data_); }

  status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
    if (!IsMethod(code)) return BBinder::onTransact(code, data, reply, flags);
    if (!data.checkInterface(this)) return STATUS_BAD_TYPE;
    Parcel unwanted;
    // Nothing writes through this pointer: the class gets a const AParcel.
    const AParcel in(this, const_cast<Parcel*>(&data));
    AParcel out(this, reply != nullptr ? reply : &unwanted);
    return Prune(clazz_->on_transact(this, code, &in, &out));
  }

 private:
  const AIBinder_Class* const clazz_;
  void* const user_data_;
};

// The handle of a binder that is no LocalBinder. A table finds the handle by the binder.
class OtherBinder : public AIBinder {
 public:
  static sp<AIBinder> Of(const sp<IBinder>& binder) {
    Table& table = TheTable();
    orb::MutexLock lock(table.mutex);
    Entry& entry = table.entries[binder.get()];
    sp<OtherBinder> handle = entry.weak.promote();
    if (handle == nullptr) {
      handle = new OtherBinder(binder);
      entry = {handle.get(), handle};
    }
    return handle;
  }

  sp<IBinder> Binder() override { return binder_; }
  bool IsRemote() const override { return binder_->remoteBinder() != nullptr; }

 protected:
  ~OtherBinder() override {
    Table& table = TheTable();
    orb::MutexLock lock(table.mutex);
    const auto entry = table.entries.find(binder_.get());
    // Another handle may have replaced this one after its last reference was freed.
    if (entry != table.entries.end() && entry->second.raw == this) table.entries.erase(entry);
  }

 private:
  struct Entry {
    const OtherBinder* raw = nullptr;
    wp<OtherBinder> weak;
  };
  struct Table {
    orb::Mutex mutex;
    std::map<const IBinder*, Entry> entries ORB_GUARDED_BY(mutex);
  };
  // Never destroyed: handles may outlive static objects.
  static Table& TheTable() {
    static Table* const table = new Table;
    return *table;
  }

  explicit OtherBinder(const sp<IBinder>& binder) : binder_(binder) {}

  const sp<IBinder> binder_;
};

}  // namespace

bool AIBinder::Associate(const AIBinder_Class* clazz) {
  if (clazz == nullptr) return false;
  const AIBinder_Class* now = Class();
  if (now == clazz) return true;
  if (now != nullptr) {
    NDK_LOGE("Cannot associate %s: the binder is of another class, %s", clazz->descriptor.c_str(),
             now->descriptor.c_str());
    return false;
  }
  const sp<IBinder> binder = Binder();
  // Does not ask while this thread serves a call: the object is probably the caller's,
  // whose answer may never come. An object of another class refuses the later calls.
  if (IsRemote() && orb_platform::CallerScope::Current() != nullptr) return SetClass(clazz);
  // Asks a remote object the first time, while no lock is held.
  const android::String16& actual = binder->getInterfaceDescriptor();
  if (actual != clazz->wide_descriptor) {
    if (binder->isBinderAlive()) {
      NDK_LOGE("Expecting binder to have class '%s' but descriptor is actually '%s'",
               clazz->descriptor.c_str(), String8(actual).c_str());
    } else {
      NDK_LOGE("Cannot check class '%s': the binder is dead", clazz->descriptor.c_str());
    }
    return false;
  }
  return SetClass(clazz);
}

bool AIBinder::SetClass(const AIBinder_Class* clazz) {
  orb::MutexLock lock(mutex_);
  if (class_ == nullptr) class_ = clazz;
  return class_ == clazz;
}

const AIBinder_Class* AIBinder::Class() const {
  orb::MutexLock lock(mutex_);
  return class_;
}

namespace orb_platform {

sp<AIBinder> HandleOf(const sp<IBinder>& binder) {
  if (binder == nullptr) return nullptr;
  if (auto* local = dynamic_cast<LocalBinder*>(binder->localBinder())) return sp<AIBinder>(local);
  return OtherBinder::Of(binder);
}

AIBinder* NewReference(const sp<AIBinder>& handle) {
  AIBinder_incStrong(handle.get());
  return handle.get();
}

}  // namespace orb_platform

AIBinder_Class* AIBinder_Class_define(const char* descriptor, AIBinder_Class_onCreate on_create,
                                      AIBinder_Class_onDestroy on_destroy,
                                      AIBinder_Class_onTransact on_transact) {
  if (descriptor == nullptr || on_create == nullptr || on_destroy == nullptr ||
      on_transact == nullptr) {
    return nullptr;
  }
  return new AIBinder_Class{descriptor, android::String16(descriptor), on_create, on_destroy,
                            on_transact};
}

const char* AIBinder_Class_getDescriptor(const AIBinder_Class* clazz) {
  return clazz->descriptor.c_str();
}

AIBinder* AIBinder_new(const AIBinder_Class* clazz, void* args) {
  if (clazz == nullptr) {
    NDK_LOGE("AIBinder_new needs a class");
    return nullptr;
  }
  return orb_platform::NewReference(new LocalBinder(clazz, clazz->on_create(args)));
}

bool AIBinder_isRemote(const AIBinder* binder) { return binder != nullptr && binder->IsRemote(); }

bool AIBinder_isAlive(const AIBinder* binder) {
  return binder != nullptr && const_cast<AIBinder*>(binder)->Binder()->isBinderAlive();
}

binder_status_t AIBinder_ping(AIBinder* binder) {
  return binder == nullptr ? STATUS_UNEXPECTED_NULL : Prune(binder->Binder()->pingBinder());
}

void AIBinder_incStrong(AIBinder* binder) {
  if (binder != nullptr) binder->incStrong(nullptr);
}

void AIBinder_decStrong(AIBinder* binder) {
  if (binder != nullptr) binder->decStrong(nullptr);
}

bool AIBinder_associateClass(AIBinder* binder, const AIBinder_Class* clazz) {
  return binder != nullptr && binder->Associate(clazz);
}

const AIBinder_Class* AIBinder_getClass(AIBinder* binder) {
  return binder == nullptr ? nullptr : binder->Class();
}

void* AIBinder_getUserData(AIBinder* binder) {
  return binder == nullptr ? nullptr : binder->UserData();
}

uid_t AIBinder_getCallingUid() { return android::IPCThreadState::self()->getCallingUid(); }

pid_t AIBinder_getCallingPid() { return android::IPCThreadState::self()->getCallingPid(); }

binder_status_t AIBinder_prepareTransaction(AIBinder* binder, AParcel** in) {
  if (binder == nullptr || in == nullptr) return STATUS_UNEXPECTED_NULL;
  *in = nullptr;
  const AIBinder_Class* clazz = binder->Class();
  if (clazz == nullptr) {
    NDK_LOGE("Cannot prepare a transaction on a binder without a class");
    return STATUS_INVALID_OPERATION;
  }
  auto parcel = std::make_unique<AParcel>(binder);
  parcel->parcel->markForBinder(binder->Binder());
  const status_t status = parcel->parcel->writeInterfaceToken(clazz->wide_descriptor);
  if (status == android::OK) *in = parcel.release();
  return Prune(status);
}

binder_status_t AIBinder_transact(AIBinder* binder, transaction_code_t code, AParcel** in,
                                  AParcel** out, binder_flags_t flags) {
  if (in == nullptr) return STATUS_UNEXPECTED_NULL;
  const std::unique_ptr<AParcel> request(*in);
  *in = nullptr;
  if (out != nullptr) *out = nullptr;
  if (!IsMethod(code)) return STATUS_UNKNOWN_TRANSACTION;
  if (binder == nullptr || request == nullptr || out == nullptr) return STATUS_UNEXPECTED_NULL;
  constexpr binder_flags_t kKnownFlags = uint32_t{FLAG_ONEWAY} | FLAG_PRIVATE_VENDOR;
  if (request->binder != binder || (flags & ~kKnownFlags) != 0) return STATUS_BAD_VALUE;

  auto reply = std::make_unique<AParcel>(binder);
  const status_t status = binder->Binder()->transact(code, *request->parcel, reply->parcel, flags);
  if (status == android::OK) *out = reply.release();
  return Prune(status);
}

void AIBinder_markVendorStability(AIBinder* binder) {
  android::internal::Stability::markVndk(binder->Binder().get());
}

void AIBinder_markVintfStability(AIBinder* binder) {
  android::internal::Stability::markVintf(binder->Binder().get());
}

struct AIBinder_Weak {
  const wp<AIBinder> binder;
};

AIBinder_Weak* AIBinder_Weak_new(AIBinder* binder) {
  return binder == nullptr ? nullptr : new AIBinder_Weak{wp<AIBinder>(binder)};
}

void AIBinder_Weak_delete(AIBinder_Weak* weak) { delete weak; }

AIBinder* AIBinder_Weak_promote(AIBinder_Weak* weak) {
  return weak == nullptr ? nullptr : orb_platform::NewReference(weak->binder.promote());
}
