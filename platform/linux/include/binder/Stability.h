// How long the interface of a binder is promised to stay. Every binder of this
// platform is built with the system, so marking only fixes the word on the wire.
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
  static void markVintf(IBinder* binder);
  static void tryMarkCompilationUnit(IBinder* binder);
  // The level on the wire; a binder that nobody marked counts as SYSTEM.
  static int32_t getLevel(IBinder* binder);

 private:
  Stability() = delete;
};

}  // namespace internal
}  // namespace android
