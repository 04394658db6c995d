// Stub of IOrbControl: the manager derives from it.
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>

#include <cstdint>

#include "services/manager/control/IOrbControl.h"

class BnOrbControl : public ::android::BnInterface<IOrbControl> {
 public:
  static constexpr uint32_t TRANSACTION_listClients = ::android::IBinder::FIRST_CALL_TRANSACTION;
  static constexpr uint32_t TRANSACTION_startCampaign =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 1;
  static constexpr uint32_t TRANSACTION_stopCampaign =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 2;
  static constexpr uint32_t TRANSACTION_startLicSN = ::android::IBinder::FIRST_CALL_TRANSACTION + 3;
  static constexpr uint32_t TRANSACTION_stopLicSN = ::android::IBinder::FIRST_CALL_TRANSACTION + 4;
  static constexpr uint32_t TRANSACTION_dumpClient = ::android::IBinder::FIRST_CALL_TRANSACTION + 5;
  static constexpr uint32_t TRANSACTION_releaseCampaign =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 6;
  static constexpr uint32_t TRANSACTION_forgetClient =
      ::android::IBinder::FIRST_CALL_TRANSACTION + 7;

  explicit BnOrbControl();
  ::android::status_t onTransact(uint32_t _aidl_code, const ::android::Parcel& _aidl_data,
                                 ::android::Parcel* _aidl_reply, uint32_t _aidl_flags) override;
};
