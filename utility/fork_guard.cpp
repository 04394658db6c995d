// Tested by tests/collector/fork_test.cpp.
#include "utility/fork_guard.h"

#include <pthread.h>

#include <cstdio>

#include "utility/child_log.h"

namespace orb::fork_guard {
namespace {

std::atomic<bool> watched{false};
std::atomic<bool> told{false};

// Runs in the child before fork() returns there. A child of the child logs its own line.
void EnterChild() {
  internal::in_child.store(true, std::memory_order_relaxed);
  told.store(false, std::memory_order_relaxed);
}

}  // namespace

std::atomic<bool> internal::in_child{false};

bool Watch() {
  // Two threads may both install it: the second time changes nothing.
  if (!watched && pthread_atfork(nullptr, nullptr, EnterChild) == 0) watched = true;
  return watched;
}

bool internal::Tell(const char* function) {
  if (!told.exchange(true)) {
    char text[160];
    (void)snprintf(text, sizeof text,
                   "%s: refused in the child of a fork - fork before the first registration",
                   function);
    LogErrorInChild(text);
  }
  return true;
}

}  // namespace orb::fork_guard
