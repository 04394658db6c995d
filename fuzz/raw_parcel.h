// Parcels as a hostile peer sends them: any bytes, and objects where it says.
#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <unistd.h>

#include "fuzz/fuzz_input.h"
#include "platform/linux/src/parcel_access.h"

namespace orb::fuzz {

// objects := count:u8 (offset:u8 kind:u8)*     offset in words from `start`
// The transport puts objects at offsets that the peer names: those that do not
// fit are left out here, where it refuses the parcel.
inline void AddObjects(Input* input, std::vector<std::pair<uint8_t, uint8_t>>* objects) {
  for (int left = input->Take<uint8_t>() % 4; left > 0; --left) {
    const auto offset = input->Take<uint8_t>();
    objects->emplace_back(offset, input->Take<uint8_t>());
  }
}

// Appends objects, then body := byte*, to the parcel and goes back to its start.
inline void AppendRaw(Input* input, android::Parcel* parcel) {
  std::vector<std::pair<uint8_t, uint8_t>> objects;
  AddObjects(input, &objects);
  const size_t start = parcel->dataSize();
  const std::vector<uint8_t> body = input->Rest();
  FUZZ_CHECK(parcel->write(body.data(), body.size()) == android::OK);
  for (const auto& [offset, kind] : objects) {
    const size_t at = start + size_t{offset} * 4;
    if (kind % 3 == 0) {
      orb_platform::ParcelAccess::AddDescriptor(parcel, at, dup(STDIN_FILENO));
    } else {
      const android::sp<android::IBinder> binder = kind % 3 == 1 ? new android::BBinder : nullptr;
      orb_platform::ParcelAccess::AddBinder(parcel, at, binder);
    }
  }
  parcel->setDataPosition(0);
}

// Checks that a value that could be read can be sent on, and arrives unchanged.
template <typename T>
void ReadParcelable(Input* input) {
  android::Parcel parcel;
  AppendRaw(input, &parcel);
  T value;
  if (value.readFromParcel(&parcel) != android::OK) return;
  android::Parcel first;
  FUZZ_CHECK(value.writeToParcel(&first) == android::OK);
  first.setDataPosition(0);
  T arrived;
  FUZZ_CHECK(arrived.readFromParcel(&first) == android::OK);
  android::Parcel second;
  FUZZ_CHECK(arrived.writeToParcel(&second) == android::OK);
  FUZZ_CHECK(second.dataSize() == first.dataSize());
  FUZZ_CHECK(memcmp(second.data(), first.data(), first.dataSize()) == 0);
}

// Answers every call with the input.
class RawPeer : public android::BBinder {
 public:
  RawPeer(const android::String16& descriptor, Input input)
      : descriptor_(descriptor), input_(input) {}
  const android::String16& getInterfaceDescriptor() const override { return descriptor_; }

 protected:
  android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                               uint32_t flags) override {
    if (code > LAST_CALL_TRANSACTION) return BBinder::onTransact(code, data, reply, flags);
    Input input = input_;
    if (reply != nullptr) AppendRaw(&input, reply);
    return android::OK;
  }

 private:
  const android::String16 descriptor_;
  const Input input_;
};

}  // namespace orb::fuzz
