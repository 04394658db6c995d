// Why a sample, a record or an upload was lost. A dump shows the names, and docs/delivery.md
// explains them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace orb {

enum class LossCause : uint8_t {
  kOversize,     // Above the campaign's limit of a blob, or beyond the shared region.
  kMemory,       // No memory for its record, or for the upload.
  kEncode,       // A scattered blob that the serializer cannot encode.
  kNoRecord,     // Its kind of KPI makes no record of it.
  kDropped,      // Its session was given up before it was written.
  kNoOwner,      // The campaign has no owner.
  kStopped,      // Its owner is stopped.
  kNoFile,       // Its owner's file could not be made.
  kShortWrite,   // The disk took a part of it, or nothing.
  kTorn,         // It was written after a part of a record, where no reader finds it.
  kUnreadable,   // Its file could not be opened or read again.
  kCompress,     // Its file could not be compressed.
  kNoKey,        // Its file is to be sealed, and the owner has no key.
  kEncrypt,      // Sealing its file failed.
  kHal,          // The HAL was away, or refused the upload, or died in it.
  kNoSlot,       // All slots are with the HAL.
  kSlotRefused,  // The HAL was away when its slot was due, or refused it.
  kUnconfirmed,  // The HAL took its slot, and died or was given up before it confirmed it.
};

// The name of the cause in a dump; null for a value that is no cause.
constexpr const char* NameOf(LossCause cause) {
  switch (cause) {
    case LossCause::kOversize:
      return "oversize";
    case LossCause::kMemory:
      return "memory";
    case LossCause::kEncode:
      return "encode";
    case LossCause::kNoRecord:
      return "no_record";
    case LossCause::kDropped:
      return "dropped";
    case LossCause::kNoOwner:
      return "no_owner";
    case LossCause::kStopped:
      return "stopped";
    case LossCause::kNoFile:
      return "no_file";
    case LossCause::kShortWrite:
      return "short_write";
    case LossCause::kTorn:
      return "torn";
    case LossCause::kUnreadable:
      return "unreadable";
    case LossCause::kCompress:
      return "compress";
    case LossCause::kNoKey:
      return "no_key";
    case LossCause::kEncrypt:
      return "encrypt";
    case LossCause::kHal:
      return "hal";
    case LossCause::kNoSlot:
      return "no_slot";
    case LossCause::kSlotRefused:
      return "slot_refused";
    case LossCause::kUnconfirmed:
      return "unconfirmed";
  }
  return nullptr;
}

constexpr size_t CountLossCauses() {
  size_t count = 0;
  while (NameOf(static_cast<LossCause>(count)) != nullptr) ++count;
  return count;
}
inline constexpr size_t kLossCauses = CountLossCauses();

// A value for each cause, zero at first.
template <typename T>
class ByLossCause {
 public:
  T& operator[](LossCause cause) { return values_[static_cast<size_t>(cause)]; }
  const T& operator[](LossCause cause) const { return values_[static_cast<size_t>(cause)]; }

  // Calls visit(cause, value) for each cause, in order.
  template <typename Visit>
  void ForEach(Visit visit) const {
    for (size_t i = 0; i < kLossCauses; ++i) visit(static_cast<LossCause>(i), values_[i]);
  }

 private:
  std::array<T, kLossCauses> values_{};
};

}  // namespace orb
