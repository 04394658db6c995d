#pragma once

#include <binder/Stability.h>
#include <utils/Errors.h>
#include <utils/String16.h>

namespace android {

class Parcel;

// A value that writes itself into a Parcel and reads itself back.
class Parcelable {
 public:
  enum class Stability : int32_t { STABILITY_LOCAL, STABILITY_VINTF };

  virtual ~Parcelable() = default;
  Parcelable() = default;
  Parcelable(const Parcelable&) = default;
  Parcelable& operator=(const Parcelable&) = default;

  virtual status_t writeToParcel(Parcel* parcel) const = 0;
  virtual status_t readFromParcel(const Parcel* parcel) = 0;
  virtual Stability getStability() const { return Stability::STABILITY_LOCAL; }
};

}  // namespace android
