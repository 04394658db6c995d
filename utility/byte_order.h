// Big-endian loads and stores at any alignment.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace orb {

template <typename T>
[[nodiscard]] constexpr T ByteSwap(T value) {
  static_assert(std::is_unsigned_v<T>);
  if constexpr (sizeof(T) == 1) return value;
  if constexpr (sizeof(T) == 2) return __builtin_bswap16(value);
  if constexpr (sizeof(T) == 4) return __builtin_bswap32(value);
  if constexpr (sizeof(T) == 8) return __builtin_bswap64(value);
}

// `at` points to sizeof(T) writable bytes.
template <typename T>
void StoreBigEndian(uint8_t* at, T value) {
  const T swapped = ByteSwap(value);
  std::memcpy(at, &swapped, sizeof swapped);
}

// `at` points to sizeof(T) readable bytes.
template <typename T>
[[nodiscard]] T LoadBigEndian(const uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return ByteSwap(value);
}

}  // namespace orb
