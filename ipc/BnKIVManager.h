// Stub of IKIVManager: a manager derives from it.
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>

#include <cstdint>

#include "ipc/IKIVManager.h"

class BnKIVManager : public ::android::BnInterface<IKIVManager> {
 public:
  static constexpr uint32_t TRANSACTION_registerKIVClient =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 0;
  static constexpr uint32_t TRANSACTION_checkForPendingSession =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 1;
  static constexpr uint32_t TRANSACTION_deregisterKIVClient =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 2;
  static constexpr uint32_t TRANSACTION_sendData = ::android::IBinder::FIRST_CALL_TRANSACTION + 3;

  explicit BnKIVManager();
  ::android::status_t onTransact(uint32_t _aidl_code, const ::android::Parcel& _aidl_data,
                                 ::android::Parcel* _aidl_reply, uint32_t _aidl_flags) override;
};
