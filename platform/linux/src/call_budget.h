// Limits the memory and the descriptors that incoming calls hold while they wait or run:
// for each sender, so that a flood uses up only its own share, and in total.
#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace orb_platform {

// Not thread-safe.
class CallBudget {
 public:
  struct Cost {
    size_t bytes = 0;
    size_t descriptors = 0;
  };
  static constexpr size_t kMostBytes = size_t{32} << 20;
  static constexpr size_t kMostBytesOfOne = size_t{4} << 20;
  static constexpr size_t kMostDescriptorsOfOne = 64;
  // The last eighth of each total is reserved for senders that hold little.
  static constexpr size_t kReservedShare = 8;
  static constexpr size_t kLittleBytes = size_t{64} << 10;
  static constexpr size_t kLittleDescriptors = 8;

  // `most_descriptors`: how many all calls together may hold.
  explicit CallBudget(size_t most_descriptors) : most_descriptors_(most_descriptors) {}

  // False, and takes nothing, when the sender or all senders would hold too much.
  bool Take(const std::string& sender, const Cost& cost);
  // Gives back what a Take that was granted took.
  void Give(const std::string& sender, const Cost& cost);
  const Cost& held() const { return held_; }

 private:
  bool Fits(const Cost& own, const Cost& cost) const;

  const size_t most_descriptors_;
  Cost held_;
  std::map<std::string, Cost> senders_;  // Senders that hold something.
};

}  // namespace orb_platform
