// A byte buffer from malloc, as the C functions hand them out; freed at the end.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <utility>

namespace orb {

struct MallocBytes {
  MallocBytes() = default;
  ~MallocBytes() { free(data); }
  MallocBytes(MallocBytes&& other) noexcept
      : data(std::exchange(other.data, nullptr)), size(std::exchange(other.size, 0)) {}
  MallocBytes& operator=(MallocBytes&& other) noexcept {
    std::swap(data, other.data);
    std::swap(size, other.size);
    return *this;
  }

  bool empty() const { return data == nullptr || size == 0; }

  uint8_t* data = nullptr;
  uint64_t size = 0;  // Bytes.
};

}  // namespace orb
