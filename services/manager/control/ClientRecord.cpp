// ClientRecord := body(fields in the order of the class)
// Tested by tests/integration/campaign_test.cpp.
#include "services/manager/control/ClientRecord.h"

#include "ipc/parcel_body.h"

::android::status_t ClientRecord::readFromParcel(const ::android::Parcel* parcel) {
  return orb::ipc::ReadBody(
      parcel, [&] { return parcel->readUtf8FromUtf16(&name); },
      [&] { return parcel->readInt32(&clientId); }, [&] { return parcel->readInt32(&clientType); },
      [&] { return parcel->readInt32(&clientOption); },
      [&] { return parcel->readBool(&connected); },
      [&] { return parcel->readInt64(&connectedSinceMs); },
      [&] { return parcel->readInt32(&session); }, [&] { return parcel->readInt64(&campId); },
      [&] { return parcel->readInt64(&sessionSinceMs); },
      [&] { return parcel->readInt32(&lastResult); },
      [&] { return parcel->readInt64Vector(&licSNs); },
      [&] { return parcel->readInt64Vector(&stoppedLicSNs); },
      [&] { return parcel->readInt64(&ownerUid); });
}

::android::status_t ClientRecord::writeToParcel(::android::Parcel* parcel) const {
  return orb::ipc::WriteBody(
      parcel, [&] { return parcel->writeUtf8AsUtf16(name); },
      [&] { return parcel->writeInt32(clientId); }, [&] { return parcel->writeInt32(clientType); },
      [&] { return parcel->writeInt32(clientOption); },
      [&] { return parcel->writeBool(connected); },
      [&] { return parcel->writeInt64(connectedSinceMs); },
      [&] { return parcel->writeInt32(session); }, [&] { return parcel->writeInt64(campId); },
      [&] { return parcel->writeInt64(sessionSinceMs); },
      [&] { return parcel->writeInt32(lastResult); },
      [&] { return parcel->writeInt64Vector(licSNs); },
      [&] { return parcel->writeInt64Vector(stoppedLicSNs); },
      [&] { return parcel->writeInt64(ownerUid); });
}
