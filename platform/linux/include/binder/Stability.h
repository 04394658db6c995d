// A stability level says how long a binder's interface is promised to stay. On the wire
// it follows each binder. A call needs the system's level, or the vendor's if it has
// FLAG_PRIVATE_VENDOR, and fails with BAD_TYPE on an object without that level.
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
  // The level to write on the wire. A local binder without a mark gets SYSTEM, and so does
  // a proxy whose owner's level is unknown.
  static int32_t getLevel(IBinder* binder);

 private:
  Stability() = delete;
};

}  // namespace internal
}  // namespace android
