// Proxy of IKIVManager. Every method blocks until the reply but the one-way
// checkForPendingSession, which returns when the call is queued. Any thread.
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>

#include <string>
#include <vector>

#include "ipc/IKIVManager.h"

class BpKIVManager : public ::android::BpInterface<IKIVManager> {
 public:
  explicit BpKIVManager(const ::android::sp<::android::IBinder>& _aidl_impl);
  virtual ~BpKIVManager() = default;

  ::android::binder::Status registerKIVClient(const ::KIVClientInfo& info,
                                              const ::android::sp<::IKIVCallback>& callback,
                                              ::KIVClientId* id) override;
  ::android::binder::Status checkForPendingSession(const ::std::string& token) override;
  ::android::binder::Status deregisterKIVClient(const ::std::string& token) override;
  ::android::binder::Status sendData(const ::std::vector<uint8_t>& data, const ::std::string& token,
                                     bool* _aidl_return) override;
};
