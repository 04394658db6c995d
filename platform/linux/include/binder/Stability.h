// How long the interface of a binder is promised to stay, as a word behind each binder
// on the wire. A call wants the system's level, or the vendor's if it has
// FLAG_PRIVATE_VENDOR, and ends with BAD_TYPE on an object that has less.
#pragma once

#include <cstdint>

namespace android {

class BBinder;
class IBinder;

namespace internal {

class Stability final {
 public:
  enum Level : int32_t {
    UNDECLARED = 0,
    VENDOR = 0b000011,
    SYSTEM = 0b001100,
    VINTF = 0b111111,
  };

  static void markCompilationUnit(IBinder* binder);
  static void markVndk(IBinder* binder);
  static void markVintf(IBinder* binder);
  static void tryMarkCompilationUnit(IBinder* binder);
  // The level on the wire. A binder that nobody marked counts as SYSTEM, and so does a
  // proxy whose owner has not said.
  static int32_t getLevel(IBinder* binder);

 private:
  Stability() = delete;
};

}  // namespace internal
}  // namespace android
