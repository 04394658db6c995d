// What the manager calls in a client's process to start and stop its sessions.
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/Status.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <string>

#include "ipc/KIVCampConfig.h"

class IKIVCallback : public ::android::IInterface {
 public:
  DECLARE_META_INTERFACE(KIVCallback)

  // The client's own result: 0 when the session runs.
  virtual ::android::binder::Status StartSession(const ::std::string& token,
                                                 const ::KIVCampConfig& config,
                                                 int32_t* _aidl_return) = 0;

  virtual ::android::binder::Status StopSession(const ::std::string& token, int64_t campId) = 0;

  virtual ::android::binder::Status StartSessionforLicSN(const ::std::string& token, int64_t campId,
                                                         int64_t licSN) = 0;

  virtual ::android::binder::Status StopSessionforLicSN(const ::std::string& token, int64_t campId,
                                                        int64_t licSN) = 0;
};

// Answers UNKNOWN_TRANSACTION to everything: the base of a default
// implementation (setDefaultImpl) that knows only some methods.
class IKIVCallbackDefault : public IKIVCallback {
 public:
  ::android::IBinder* onAsBinder() override { return nullptr; }
  ::android::binder::Status StartSession(const ::std::string&, const ::KIVCampConfig&,
                                         int32_t*) override {
    return ::android::binder::Status::fromStatusT(::android::UNKNOWN_TRANSACTION);
  }
  ::android::binder::Status StopSession(const ::std::string&, int64_t) override {
    return ::android::binder::Status::fromStatusT(::android::UNKNOWN_TRANSACTION);
  }
  ::android::binder::Status StartSessionforLicSN(const ::std::string&, int64_t, int64_t) override {
    return ::android::binder::Status::fromStatusT(::android::UNKNOWN_TRANSACTION);
  }
  ::android::binder::Status StopSessionforLicSN(const ::std::string&, int64_t, int64_t) override {
    return ::android::binder::Status::fromStatusT(::android::UNKNOWN_TRANSACTION);
  }
};
