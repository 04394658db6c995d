// Integer arithmetic that aborts the process on overflow, in every build: a
// count, sum or size that wrapped would be a silent lie in somebody's data. The last
// line of the log names the function and line of the caller.
#pragma once

#include <limits>
#include <type_traits>

#include "utility/check.h"

namespace orb {

// Filled in by the compiler at each call.
#define ORB_CALLER const char *function = __builtin_FUNCTION(), int line = __builtin_LINE()

// Both operands are first converted to T, the type of the result.
template <typename T>
[[nodiscard]] constexpr T CheckedAdd(std::type_identity_t<T> a, std::type_identity_t<T> b,
                                     ORB_CALLER) {
  T out{};
  if (__builtin_add_overflow(a, b, &out)) CheckFailed("a + b fits", function, line);
  return out;
}

template <typename T>
[[nodiscard]] constexpr T CheckedSub(std::type_identity_t<T> a, std::type_identity_t<T> b,
                                     ORB_CALLER) {
  T out{};
  if (__builtin_sub_overflow(a, b, &out)) CheckFailed("a - b fits", function, line);
  return out;
}

template <typename T>
[[nodiscard]] constexpr T CheckedMul(std::type_identity_t<T> a, std::type_identity_t<T> b,
                                     ORB_CALLER) {
  T out{};
  if (__builtin_mul_overflow(a, b, &out)) CheckFailed("a * b fits", function, line);
  return out;
}

// Aborts on division by zero and on the one quotient that does not fit.
template <typename T>
[[nodiscard]] constexpr T CheckedDiv(std::type_identity_t<T> a, std::type_identity_t<T> b,
                                     ORB_CALLER) {
  if (b == 0) CheckFailed("b != 0", function, line);
  if constexpr (std::is_signed_v<T>) {
    if (a == std::numeric_limits<T>::min() && b == -1) CheckFailed("a / b fits", function, line);
  }
  return a / b;
}

// Aborts when the value does not fit into To.
template <typename To, typename From>
[[nodiscard]] constexpr To CheckedCast(From value, ORB_CALLER) {
  To out{};
  if (__builtin_add_overflow(value, From{0}, &out)) CheckFailed("value fits", function, line);
  return out;
}

#undef ORB_CALLER

}  // namespace orb
