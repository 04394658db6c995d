// Stub of IKIVCallback: KIVCallbackImpl derives from it.
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>

#include <cstdint>

#include "ipc/IKIVCallback.h"

class BnKIVCallback : public ::android::BnInterface<IKIVCallback> {
 public:
  static constexpr uint32_t TRANSACTION_StartSession =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 0;
  static constexpr uint32_t TRANSACTION_StopSession =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 1;
  static constexpr uint32_t TRANSACTION_StartSessionforLicSN =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 2;
  static constexpr uint32_t TRANSACTION_StopSessionforLicSN =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 3;

  explicit BnKIVCallback();
  ::android::status_t onTransact(uint32_t _aidl_code, const ::android::Parcel& _aidl_data,
                                 ::android::Parcel* _aidl_reply, uint32_t _aidl_flags) override;
};
