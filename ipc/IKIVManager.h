// The manager service as its clients see it: registered under the name
// "vendor_kivsdkservice", implemented by the system's manager.
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/Status.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ipc/IKIVCallback.h"
#include "ipc/KIVClientId.h"
#include "ipc/KIVClientInfo.h"

class IKIVManager : public ::android::IInterface {
 public:
  DECLARE_META_INTERFACE(KIVManager)

  // Makes a client known; `callback` is what the manager starts and stops its
  // sessions through. The manager may use it before this call has returned.
  virtual ::android::binder::Status registerKIVClient(const ::KIVClientInfo& info,
                                                      const ::android::sp<::IKIVCallback>& callback,
                                                      ::KIVClientId* id) = 0;

  // Asks the manager to start the client's session if one is due. One-way.
  virtual ::android::binder::Status checkForPendingSession(const ::std::string& token) = 0;

  virtual ::android::binder::Status deregisterKIVClient(const ::std::string& token) = 0;

  virtual ::android::binder::Status sendData(const ::std::vector<uint8_t>& data,
                                             const ::std::string& token, bool* _aidl_return) = 0;
};

// Answers UNKNOWN_TRANSACTION to everything: the base of a default
// implementation (setDefaultImpl) that knows only some methods.
class IKIVManagerDefault : public IKIVManager {
 public:
  ::android::IBinder* onAsBinder() override { return nullptr; }
  ::android::binder::Status registerKIVClient(const ::KIVClientInfo&,
                                              const ::android::sp<::IKIVCallback>&,
                                              ::KIVClientId*) override {
    return ::android::binder::Status::fromStatusT(::android::UNKNOWN_TRANSACTION);
  }
  ::android::binder::Status checkForPendingSession(const ::std::string&) override {
    return ::android::binder::Status::fromStatusT(::android::UNKNOWN_TRANSACTION);
  }
  ::android::binder::Status deregisterKIVClient(const ::std::string&) override {
    return ::android::binder::Status::fromStatusT(::android::UNKNOWN_TRANSACTION);
  }
  ::android::binder::Status sendData(const ::std::vector<uint8_t>&, const ::std::string&,
                                     bool*) override {
    return ::android::binder::Status::fromStatusT(::android::UNKNOWN_TRANSACTION);
  }
};
