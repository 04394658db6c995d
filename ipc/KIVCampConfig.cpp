// KIVCampConfig := body(campId:i64 campaignDef:byte[] licInfo:LicInfo[])
// Tested by tests/ipc/parcelable_test.cpp.
#include "ipc/KIVCampConfig.h"

#include "ipc/parcel_body.h"

::android::status_t KIVCampConfig::readFromParcel(const ::android::Parcel* parcel) {
  return orb::ipc::ReadBody(
      parcel, [&] { return parcel->readInt64(&campId); },
      [&] { return parcel->readByteVector(&campaignDef); },
      [&] { return parcel->readParcelableVector(&licInfo); });
}

::android::status_t KIVCampConfig::writeToParcel(::android::Parcel* parcel) const {
  return orb::ipc::WriteBody(
      parcel, [&] { return parcel->writeInt64(campId); },
      [&] { return parcel->writeByteVector(campaignDef); },
      [&] { return parcel->writeParcelableVector(licInfo); });
}
