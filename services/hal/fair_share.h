// Places that all users share, so that no user can take them all.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>

namespace orb::hal {

// Not thread-safe.
class FairShare {
 public:
  // One user may have half of all places. The last quarter is for users with few.
  static constexpr size_t kFew = 16;

  explicit FairShare(size_t most) : most_(most) {}

  // False when the user gets no further place.
  bool Take(uid_t user) {
    const auto found = users_.find(user);
    const size_t own = found == users_.end() ? 0 : found->second;
    const bool fits = own < kFew ? taken_ < most_ : own < most_ / 2 && taken_ < most_ - most_ / 4;
    if (!fits) return false;
    ++taken_;
    ++users_[user];
    return true;
  }
  // Gives back a place that was taken.
  void Give(uid_t user) {
    --taken_;
    const auto found = users_.find(user);
    if (--found->second == 0) users_.erase(found);
  }
  size_t taken() const { return taken_; }

 private:
  const size_t most_;
  size_t taken_ = 0;
  std::map<uid_t, size_t> users_;  // Those that have places.
};

}  // namespace orb::hal
