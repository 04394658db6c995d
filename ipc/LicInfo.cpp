// LicInfo := body(licSN:i64 sKeyEncAlgo:i32 pKeyEncAlgo:i32 encryptionPKey:byte[])
// Tested by tests/ipc/parcelable_test.cpp.
#include "ipc/LicInfo.h"

#include "ipc/parcel_body.h"

::android::status_t LicInfo::readFromParcel(const ::android::Parcel* parcel) {
  return orb::ipc::ReadBody(
      parcel, [&] { return parcel->readInt64(&licSN); },
      [&] { return parcel->readInt32(&sKeyEncAlgo); },
      [&] { return parcel->readInt32(&pKeyEncAlgo); },
      [&] { return parcel->readByteVector(&encryptionPKey); });
}

::android::status_t LicInfo::writeToParcel(::android::Parcel* parcel) const {
  return orb::ipc::WriteBody(
      parcel, [&] { return parcel->writeInt64(licSN); },
      [&] { return parcel->writeInt32(sKeyEncAlgo); },
      [&] { return parcel->writeInt32(pKeyEncAlgo); },
      [&] { return parcel->writeByteVector(encryptionPKey); });
}
