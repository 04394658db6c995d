// Proxy of IKIVCallback. Every method blocks until the reply. Any thread.
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>

#include <cstdint>
#include <string>

#include "ipc/IKIVCallback.h"

class BpKIVCallback : public ::android::BpInterface<IKIVCallback> {
 public:
  explicit BpKIVCallback(const ::android::sp<::android::IBinder>& _aidl_impl);
  virtual ~BpKIVCallback() = default;

  ::android::binder::Status StartSession(const ::std::string& token, const ::KIVCampConfig& config,
                                         int32_t* _aidl_return) override;
  ::android::binder::Status StopSession(const ::std::string& token, int64_t campId) override;
  ::android::binder::Status StartSessionforLicSN(const ::std::string& token, int64_t campId,
                                                 int64_t licSN) override;
  ::android::binder::Status StopSessionforLicSN(const ::std::string& token, int64_t campId,
                                                int64_t licSN) override;
};
