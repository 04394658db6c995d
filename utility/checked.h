// Integer arithmetic that aborts the process on overflow, in every build: a
// count, sum or size that wrapped would be a silent lie in somebody's data.
#pragma once

#include <cstdlib>
#include <limits>
#include <type_traits>

namespace orb {

// Both operands are first converted to T, the type of the result.
template <typename T>
[[nodiscard]] constexpr T CheckedAdd(std::type_identity_t<T> a, std::type_identity_t<T> b) {
  T out{};
  if (__builtin_add_overflow(a, b, &out)) std::abort();
  return out;
}

template <typename T>
[[nodiscard]] constexpr T CheckedSub(std::type_identity_t<T> a, std::type_identity_t<T> b) {
  T out{};
  if (__builtin_sub_overflow(a, b, &out)) std::abort();
  return out;
}

template <typename T>
[[nodiscard]] constexpr T CheckedMul(std::type_identity_t<T> a, std::type_identity_t<T> b) {
  T out{};
  if (__builtin_mul_overflow(a, b, &out)) std::abort();
  return out;
}

// Aborts on division by zero and on the one quotient that does not fit.
template <typename T>
[[nodiscard]] constexpr T CheckedDiv(std::type_identity_t<T> a, std::type_identity_t<T> b) {
  if (b == 0) std::abort();
  if constexpr (std::is_signed_v<T>) {
    if (a == std::numeric_limits<T>::min() && b == -1) std::abort();
  }
  return a / b;
}

// Aborts when the value does not fit into To.
template <typename To, typename From>
[[nodiscard]] constexpr To CheckedCast(From value) {
  To out{};
  if (__builtin_add_overflow(value, From{0}, &out)) std::abort();
  return out;
}

}  // namespace orb
