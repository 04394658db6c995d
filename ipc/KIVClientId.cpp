// KIVClientId := body(token:String clientId:i32)
// Tested by tests/ipc/transaction_test.cpp.
#include "ipc/KIVClientId.h"

#include "ipc/parcel_body.h"

::android::status_t KIVClientId::readFromParcel(const ::android::Parcel* parcel) {
  return orb::ipc::ReadBody(
      parcel, [&] { return parcel->readUtf8FromUtf16(&token); },
      [&] { return parcel->readInt32(&clientId); });
}

::android::status_t KIVClientId::writeToParcel(::android::Parcel* parcel) const {
  return orb::ipc::WriteBody(
      parcel, [&] { return parcel->writeUtf8AsUtf16(token); },
      [&] { return parcel->writeInt32(clientId); });
}
