// What the manager knows of one client.
#pragma once

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

#include <cstdint>
#include <string>
#include <vector>

class ClientRecord : public ::android::Parcelable {
 public:
  enum Session : int32_t {
    NONE = 0,
    RUNNING = 1,
    WAITING = 2,      // Kept on disk: starts when the client returns.
    REFUSED = 3,      // Kept on disk, but the client did not take it back.
    QUARANTINED = 4,  // Kept on disk, but the client died of it again and again.
  };

  std::string name;
  int32_t clientId = 0;
  int32_t clientType = 0;
  int32_t clientOption = 0;
  bool connected = false;
  int64_t connectedSinceMs = 0;  // Since the epoch; 0 while away.
  int32_t session = NONE;
  int64_t campId = 0;
  int64_t sessionSinceMs = 0;  // 0 unless it runs.
  int32_t lastResult = 0;      // Of the client's last start.
  std::vector<int64_t> licSNs;
  std::vector<int64_t> stoppedLicSNs;
  int64_t ownerUid = -1;  // The user that may register the name; -1: the next one.

  ::android::status_t readFromParcel(const ::android::Parcel* parcel) final;
  ::android::status_t writeToParcel(::android::Parcel* parcel) const final;
};
