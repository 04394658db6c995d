// What became of one control operation.
#pragma once

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

#include <cstdint>
#include <string>

class ControlReply : public ::android::Parcelable {
 public:
  enum Status : int32_t {
    DONE = 0,
    REFUSED = 1,  // By the manager or by the client; nothing has changed.
    FAILED = 2,   // The client could not be asked, or has not answered.
  };

  int32_t status = FAILED;
  int32_t result = 0;   // The client's own, when it was asked.
  std::string message;  // One line for a person; may be empty after DONE.

  ::android::status_t readFromParcel(const ::android::Parcel* parcel) final;
  ::android::status_t writeToParcel(::android::Parcel* parcel) const final;
};
