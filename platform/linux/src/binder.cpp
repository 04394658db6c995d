// The parts that all binders share, and local binders.
// Tested by tests/platform/contract_test.cpp.
#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>

#include <map>

#include "utility/thread_annotations.h"

namespace android {

namespace {

const String16& EmptyDescriptor() {
  static const String16* const empty = new String16();
  return *empty;
}

}  // namespace

struct IBinder::Attachments {
  struct Entry {
    void* object;
    void* cookie;
    object_cleanup_func cleanup;
  };
  orb::Mutex mutex;
  std::map<const void*, Entry> entries ORB_GUARDED_BY(mutex);
};

IBinder::IBinder() : attachments_(new Attachments) {}

IBinder::~IBinder() {
  std::map<const void*, Attachments::Entry> entries;
  {
    orb::MutexLock lock(attachments_->mutex);
    entries.swap(attachments_->entries);
  }
  for (const auto& [id, entry] : entries) {
    if (entry.cleanup != nullptr) entry.cleanup(id, entry.object, entry.cookie);
  }
  delete attachments_;
}

sp<IInterface> IBinder::queryLocalInterface(const String16&) { return nullptr; }

void* IBinder::attachObject(const void* objectID, void* object, void* cleanupCookie,
                            object_cleanup_func func) {
  orb::MutexLock lock(attachments_->mutex);
  const auto [it, added] =
      attachments_->entries.try_emplace(objectID, Attachments::Entry{object, cleanupCookie, func});
  return added ? nullptr : it->second.object;
}

void* IBinder::findObject(const void* objectID) const {
  orb::MutexLock lock(attachments_->mutex);
  const auto it = attachments_->entries.find(objectID);
  return it == attachments_->entries.end() ? nullptr : it->second.object;
}

void* IBinder::detachObject(const void* objectID) {
  orb::MutexLock lock(attachments_->mutex);
  const auto it = attachments_->entries.find(objectID);
  if (it == attachments_->entries.end()) return nullptr;
  void* const object = it->second.object;
  attachments_->entries.erase(it);
  return object;
}

void IBinder::withLock(const std::function<void()>& doWithLock) {
  orb::MutexLock lock(attachments_->mutex);
  doWithLock();
}

BBinder* IBinder::localBinder() { return nullptr; }
BpBinder* IBinder::remoteBinder() { return nullptr; }

BBinder::BBinder() = default;
BBinder::~BBinder() = default;

const String16& BBinder::getInterfaceDescriptor() const { return EmptyDescriptor(); }
bool BBinder::isBinderAlive() const { return true; }
status_t BBinder::pingBinder() { return OK; }
BBinder* BBinder::localBinder() { return this; }

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
  data.setDataPosition(0);
  const status_t status =
      code == PING_TRANSACTION ? pingBinder() : onTransact(code, data, reply, flags);
  if (reply != nullptr) reply->setDataPosition(0);
  return status;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t) {
  switch (code) {
    case INTERFACE_TRANSACTION:
      if (reply == nullptr) return UNEXPECTED_NULL;
      return reply->writeString16(getInterfaceDescriptor());
    case DUMP_TRANSACTION: {
      const int fd = data.readFileDescriptor();
      Vector<String16> args;
      for (int32_t left = data.readInt32(); left > 0 && data.dataAvail() > 0; left--) {
        args.add(data.readString16());
      }
      return dump(fd, args);
    }
    case SHELL_COMMAND_TRANSACTION:
    case SYSPROPS_TRANSACTION:
      return OK;
    default:
      return UNKNOWN_TRANSACTION;
  }
}

status_t BBinder::linkToDeath(const sp<DeathRecipient>&, void*, uint32_t) {
  return INVALID_OPERATION;
}

status_t BBinder::unlinkToDeath(const wp<DeathRecipient>&, void*, uint32_t, wp<DeathRecipient>*) {
  return INVALID_OPERATION;
}

status_t BBinder::dump(int, const Vector<String16>&) { return OK; }

BpRefBase::BpRefBase(const sp<IBinder>& o) : remote_(o) {
  extendObjectLifetime(OBJECT_LIFETIME_WEAK);
}
BpRefBase::~BpRefBase() = default;

}  // namespace android
