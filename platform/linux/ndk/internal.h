// The types of the NDK interface's opaque handles.
//
// AIBinder -+- LocalBinder: an object of a class that this process has defined. It is a
//           |  BBinder, so that every transport can call it.
//           `- OtherBinder: the handle of any other binder, one for each.
#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_parcel.h>
#include <android/binder_status.h>
#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

#include <memory>
#include <string>

#include "utility/thread_annotations.h"

struct AStatus {
  android::binder::Status status;
};

struct AParcel {
  // A parcel of its own, for a transaction on `binder` (or none).
  explicit AParcel(const AIBinder* binder)
      : binder(binder), owned(std::make_unique<android::Parcel>()), parcel(owned.get()) {}
  // A borrowed parcel, which must outlive this.
  AParcel(const AIBinder* binder, android::Parcel* borrowed) : binder(binder), parcel(borrowed) {}

  const AIBinder* const binder;  // For comparison only.
  const std::unique_ptr<android::Parcel> owned;
  android::Parcel* const parcel;
};

struct AIBinder_Class {
  const std::string descriptor;
  const android::String16 wide_descriptor;
  const AIBinder_Class_onCreate on_create;
  const AIBinder_Class_onDestroy on_destroy;
  const AIBinder_Class_onTransact on_transact;
};

// Freed with its last strong reference. Thread-safe.
struct AIBinder : public virtual android::RefBase {
  virtual android::sp<android::IBinder> Binder() = 0;
  virtual bool IsRemote() const = 0;
  virtual void* UserData() { return nullptr; }

  bool Associate(const AIBinder_Class* clazz) ORB_EXCLUDES(mutex_);
  const AIBinder_Class* Class() const ORB_EXCLUDES(mutex_);

 protected:
  // Sets the class of an object that has none.
  bool SetClass(const AIBinder_Class* clazz) ORB_EXCLUDES(mutex_);

 private:
  mutable orb::Mutex mutex_;
  const AIBinder_Class* class_ ORB_GUARDED_BY(mutex_) = nullptr;
};

namespace orb_platform {

// The handle of this binder; null for null.
android::sp<AIBinder> HandleOf(const android::sp<android::IBinder>& binder);
// Adds a reference, which the caller of a C function then owns.
AIBinder* NewReference(const android::sp<AIBinder>& handle);

// Turns every value that the NDK interface does not name into one that stands for unknown.
binder_status_t Prune(android::status_t status);
binder_exception_t PruneException(int32_t exception);

}  // namespace orb_platform
