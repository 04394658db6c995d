// What fuzz targets share: taking an input apart, and failing.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// Ends the process, so that the fuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                        \
  do {                                                                               \
    if (!(condition)) {                                                              \
      fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
      abort();                                                                       \
    }                                                                                \
  } while (false)

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace orb::fuzz {

// Reads an input from its front; what is missing at the end reads as zeros.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  size_t left() const { return size_; }

  // Host order.
  template <typename T>
  T Take() {
    T value{};
    const size_t count = std::min(sizeof value, size_);
    if (count > 0) memcpy(&value, data_, count);
    Skip(count);
    return value;
  }

  std::string TakeText(size_t count) {
    const std::vector<uint8_t> bytes = TakeBytes(count);
    return {bytes.begin(), bytes.end()};
  }
  // Fewer when fewer are left.
  std::vector<uint8_t> TakeBytes(size_t count) {
    count = std::min(count, size_);
    std::vector<uint8_t> bytes(data_, data_ + count);
    Skip(count);
    return bytes;
  }
  std::vector<uint8_t> Rest() { return TakeBytes(size_); }

 private:
  void Skip(size_t count) {
    if (count == 0) return;
    data_ += count;
    size_ -= count;
  }

  const uint8_t* data_;
  size_t size_;
};

}  // namespace orb::fuzz
