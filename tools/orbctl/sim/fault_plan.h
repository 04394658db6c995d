// What goes wrong in a trial, and when.
//
// option := fault ("," fault)*
// fault  := NAME [ "=" DURATION ] [ "@" T [ ".." T ] ]     no T: from the start on
// T, DURATION := NUMBER ("ms" | "s" | "m" | "h")
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace orb::orbctl {

enum class Fault {
  kHalSlow,      // hal-slow=DURATION: every upload takes that long.
  kHalDead,      // hal-dead: its process is gone.
  kHalWrong,     // hal-wrong: it answers every upload with a failure.
  kManagerDead,  // manager-dead: its process is gone.
  kDiskFull,     // enospc: the client's data directory takes no byte.
};

struct FaultSpan {
  std::string text;  // As it was given.
  Fault fault = Fault::kHalSlow;
  std::chrono::nanoseconds from{0};
  std::optional<std::chrono::nanoseconds> to;  // None: until the end.
  std::chrono::nanoseconds delay{0};           // Of kHalSlow.
};

// False with *error, one line, when an option is malformed or two spans of one
// fault overlap.
bool ParseFaults(const std::vector<std::string>& options, std::vector<FaultSpan>* spans,
                 std::string* error);

}  // namespace orb::orbctl
