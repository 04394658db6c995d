// Lets the transports read a Parcel's objects and add objects that arrived with a message.
#pragma once

#include <binder/Parcel.h>

#include <cstddef>
#include <cstdint>

namespace orb_platform {

// flat := type:u32 flags:u32 value:u64 cookie:u64
constexpr size_t kFlatObjectBytes = 24;

// Writes the number of a descriptor into the flat object at `flat`.
void PatchDescriptor(uint8_t* flat, int fd);

class ParcelAccess {
 public:
  // Borrowed view: a binder (fd -1) or a descriptor (binder null).
  struct View {
    size_t offset;
    const android::sp<android::IBinder>& binder;
    int fd;
  };
  static size_t Count(const android::Parcel& parcel) { return parcel.objects_.size(); }
  static View At(const android::Parcel& parcel, size_t index);

  // Make the flat object at `offset` stand for `binder`, or for `fd`, which the parcel then
  // owns. False unless the place lies after the last object and wholly inside the data;
  // then AddDescriptor closes `fd`.
  static bool AddBinder(android::Parcel* parcel, size_t offset,
                        const android::sp<android::IBinder>& binder);
  static bool AddDescriptor(android::Parcel* parcel, size_t offset, int fd);

 private:
  static bool Fits(const android::Parcel& parcel, size_t offset);
};

}  // namespace orb_platform
