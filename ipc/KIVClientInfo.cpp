// KIVClientInfo := body(clientName:String clientType:i32 clientOption:byte)
// Tested by tests/ipc/parcelable_test.cpp.
#include "ipc/KIVClientInfo.h"

#include "ipc/parcel_body.h"

::android::status_t KIVClientInfo::readFromParcel(const ::android::Parcel* parcel) {
  return orb::ipc::ReadBody(
      parcel, [&] { return parcel->readUtf8FromUtf16(&clientName); },
      [&] { return parcel->readInt32(&clientType); },
      [&] { return parcel->readByte(&clientOption); });
}

::android::status_t KIVClientInfo::writeToParcel(::android::Parcel* parcel) const {
  return orb::ipc::WriteBody(
      parcel, [&] { return parcel->writeUtf8AsUtf16(clientName); },
      [&] { return parcel->writeInt32(clientType); },
      [&] { return parcel->writeByte(clientOption); });
}
