// A malloc'ed buffer that is overwritten before it is freed, on every path.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace orb {

class WipedBuffer {
 public:
  // Allocates zeros. ok() is false when there is no memory.
  explicit WipedBuffer(size_t bytes)
      : data_(static_cast<uint8_t*>(std::calloc(bytes, 1))), bytes_(bytes) {}
  ~WipedBuffer() {
    if (data_ == nullptr) return;
    OPENSSL_cleanse(data_, bytes_);
    std::free(data_);
  }
  WipedBuffer(const WipedBuffer&) = delete;
  WipedBuffer& operator=(const WipedBuffer&) = delete;
  WipedBuffer(WipedBuffer&& other) noexcept : data_(other.data_), bytes_(other.bytes_) {
    other.data_ = nullptr;
  }

  bool ok() const { return data_ != nullptr; }
  uint8_t* data() { return data_; }
  const uint8_t* data() const { return data_; }
  size_t bytes() const { return bytes_; }

  // Gives the memory to the caller, who frees it with free().
  uint8_t* Release() {
    uint8_t* data = data_;
    data_ = nullptr;
    return data;
  }

 private:
  uint8_t* data_;
  size_t bytes_;
};

}  // namespace orb
