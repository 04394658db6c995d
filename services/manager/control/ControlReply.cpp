// ControlReply := body(status:i32 result:i32 message:String)
// Tested by tests/integration/campaign_test.cpp.
#include "services/manager/control/ControlReply.h"

#include "ipc/parcel_body.h"

::android::status_t ControlReply::readFromParcel(const ::android::Parcel* parcel) {
  return orb::ipc::ReadBody(
      parcel, [&] { return parcel->readInt32(&status); },
      [&] { return parcel->readInt32(&result); },
      [&] { return parcel->readUtf8FromUtf16(&message); });
}

::android::status_t ControlReply::writeToParcel(::android::Parcel* parcel) const {
  return orb::ipc::WriteBody(
      parcel, [&] { return parcel->writeInt32(status); },
      [&] { return parcel->writeInt32(result); },
      [&] { return parcel->writeUtf8AsUtf16(message); });
}
