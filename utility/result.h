// What a function answers that may fail: a value, or the reason why there is none.
// Tested by tests/utility/result_test.cpp.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "utility/check.h"
#include "utility/error_text.h"

namespace orb {

struct Error {
  std::string text;  // One line for a person, without a full stop.
  int number = 0;    // The errno value that caused it; 0 when no system call failed.
};

// "cannot use /spool: Permission denied", with the errno value.
inline Error SystemError(const std::string& what, int number) {
  return {what + ": " + ErrorText(number), number};
}

// Holds a T or an Error. Taking the one that is not there ends the process. Like any
// value, it is not for two threads at once.
template <typename T>
class [[nodiscard]] Result {
 public:
  // Both implicit, so that a function returns either as it is.
  Result(T value) : held_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : held_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return held_.index() == 0; }

  T& operator*() & { return Get<0>(held_); }
  const T& operator*() const& { return Get<0>(held_); }
  T&& operator*() && { return std::move(Get<0>(held_)); }
  T* operator->() { return &Get<0>(held_); }
  const T* operator->() const { return &Get<0>(held_); }

  const Error& error() const { return Get<1>(held_); }

 private:
  template <size_t kIndex, typename Held>
  static auto& Get(Held& held) {
    auto* const found = std::get_if<kIndex>(&held);
    ORB_CHECK(found != nullptr);
    return *found;
  }

  std::variant<T, Error> held_;
};

// For a function that has nothing to give: `return {};` when it has succeeded.
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)) {}

  bool ok() const { return !error_.has_value(); }

  const Error& error() const {
    ORB_CHECK(!ok());
    return *error_;
  }

 private:
  std::optional<Error> error_;
};

}  // namespace orb
