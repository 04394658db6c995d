// A queue whose owners take turns, so that an owner with many items delays only itself.
// Items of one owner leave in the order in which they came.
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
  // Throws std::bad_alloc; then the item is not queued.
  void Push(const std::string& owner, T item) {
    std::deque<T>& own = items_[owner];
    if (own.empty()) turns_.push_back(owner);
    own.push_back(std::move(item));
  }

  // Removes the next item of the owner whose turn it is; nothing when the queue is empty.
  std::optional<T> Pop() {
    std::optional<T> item;
    while (!item && !turns_.empty()) {
      std::deque<T>& own = items_[turns_.front()];
      if (own.size() > 1) turns_.push_back(turns_.front());
      if (!own.empty()) {  // Memory ran out in Push() when it is empty.
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
  std::deque<std::string> turns_;  // Every owner of items, once.
};

}  // namespace orb_platform
