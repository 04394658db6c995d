// SpAIBinder. Include <android/binder_auto_utils.h> instead.
#pragma once

#include <android/binder_ibinder.h>

#include <cstddef>
#include <utility>

namespace ndk {

// A strong reference to a binder object, or none.
class SpAIBinder {
 public:
  SpAIBinder() = default;
  SpAIBinder(std::nullptr_t) : SpAIBinder() {}  // NOLINT: implicit, like the other null handles.
  // Takes over the caller's reference.
  explicit SpAIBinder(AIBinder* binder) : binder_(binder) {}
  SpAIBinder(const SpAIBinder& other) { *this = other; }
  SpAIBinder(SpAIBinder&& other) noexcept : binder_(std::exchange(other.binder_, nullptr)) {}
  ~SpAIBinder() { set(nullptr); }

  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): takes before it gives up.
  SpAIBinder& operator=(const SpAIBinder& other) {
    if (other.binder_ != nullptr) AIBinder_incStrong(other.binder_);
    set(other.binder_);
    return *this;
  }
  SpAIBinder& operator=(SpAIBinder&& other) noexcept {
    if (this != &other) set(std::exchange(other.binder_, nullptr));
    return *this;
  }

  // Takes over the caller's reference. Frees the old one last, because that may destroy the
  // owner of this object.
  void set(AIBinder* binder) {
    AIBinder* old = std::exchange(binder_, binder);
    if (old != nullptr) AIBinder_decStrong(old);
  }
  AIBinder* get() const { return binder_; }
  // For functions that return a new reference through a pointer.
  AIBinder** getR() {
    set(nullptr);
    return &binder_;
  }

  bool operator==(const SpAIBinder& other) const { return binder_ == other.binder_; }
  bool operator!=(const SpAIBinder& other) const { return binder_ != other.binder_; }
  bool operator<(const SpAIBinder& other) const { return binder_ < other.binder_; }

 private:
  AIBinder* binder_ = nullptr;
};

}  // namespace ndk
