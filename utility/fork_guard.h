// Tells whether this process is the child of a fork() whose parent uses the library. The
// parent's threads are not there, its locks may be held for ever, and its files,
// regions and connections are its own: in the child the library does nothing.
#pragma once

#include <atomic>

namespace orb::fork_guard {

// From the first call on, a child of fork() knows that it is one. (One of vfork() or
// posix_spawn() only executes a program.) Any thread. False without memory for it.
bool Watch();

namespace internal {
[[gnu::visibility("hidden")]] extern std::atomic<bool> in_child;
bool Tell(const char* function);
}  // namespace internal

// On the hot path: one load of a word that is written by fork() only.
inline bool InChild() { return internal::in_child.load(std::memory_order_relaxed); }

// Like InChild(), for the C function of that name: the first call that is refused in a
// process leaves an error line.
inline bool Refuses(const char* function) { return InChild() && internal::Tell(function); }

}  // namespace orb::fork_guard
