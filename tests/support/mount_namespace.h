// Mounts that only this process sees: a full disk, another /etc.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

#include "tests/support/child_process.h"

namespace orb::test {

// Takes this process to where it may mount and no other process sees it. False where
// that is not allowed.
inline bool EnterMountNamespace() {
  static const bool entered = [] {
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    if (unshare(CLONE_NEWNS) != 0) {
      if (unshare(CLONE_NEWNS | CLONE_NEWUSER) != 0) return false;
      WriteFile("/proc/self/setgroups", "deny");
      WriteFile("/proc/self/uid_map", uid + " " + uid + " 1");
      WriteFile("/proc/self/gid_map", gid + " " + gid + " 1");
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  }();
  return entered;
}

}  // namespace orb::test
