// A queue that takes turns between those who fill it, so that one who comes often makes
// only himself wait. First come, first served within one's own.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace orb_platform {

// Not thread-safe.
template <typename T>
class FairQueue {
 public:
  // Throws when there is no memory, and has not taken the item then.
  void Push(const std::string& owner, T item) {
    std::deque<T>& own = items_[owner];
    if (own.empty()) turns_.push_back(owner);
    own.push_back(std::move(item));
  }

  // Of the owner whose turn it is; nothing when the queue is empty.
  std::optional<T> Pop() {
    std::optional<T> item;
    while (!item && !turns_.empty()) {
      std::deque<T>& own = items_[turns_.front()];
      if (own.size() > 1) turns_.push_back(turns_.front());
      if (!own.empty()) {  // Else there was no memory for its item.
        item = std::move(own.front());
        own.pop_front();
      }
      if (own.empty()) items_.erase(turns_.front());
      turns_.pop_front();
    }
    return item;
  }

 private:
  std::map<std::string, std::deque<T>> items_;
  std::deque<std::string> turns_;  // Each owner of items, once.
};

}  // namespace orb_platform
