// Owners of what the binding counts references of. They free with a plain decrement, so
// everything but the bench's and the tests' own connections needs the bus's lock for it.
#pragma once

#include <systemd/sd-bus.h>

#include <utility>

namespace orb_platform {

// One reference to a T, or none; `Unref` gives it back. Move only.
template <typename T, T* (*Unref)(T*)>
class BusOwner {
 public:
  BusOwner() = default;
  // Takes over the caller's reference.
  explicit BusOwner(T* object) : object_(object) {}
  BusOwner(BusOwner&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  BusOwner& operator=(BusOwner&& other) noexcept {
    if (this != &other) Unref(std::exchange(object_, std::exchange(other.object_, nullptr)));
    return *this;
  }
  ~BusOwner() { Unref(object_); }

  T* get() const { return object_; }
  // For functions that give a new reference through a pointer; frees the old one.
  T** out() {
    *this = BusOwner();
    return &object_;
  }
  bool operator==(std::nullptr_t) const { return object_ == nullptr; }

 private:
  T* object_ = nullptr;
};

using BusMessage = BusOwner<sd_bus_message, sd_bus_message_unref>;
using BusSlot = BusOwner<sd_bus_slot, sd_bus_slot_unref>;

}  // namespace orb_platform
