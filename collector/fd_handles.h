// The handles of announced regions of one collector: which of them a completion
// is for, and when one may be freed.
//
// Thread-safe. `done` functions run with no lock held. The one mutex is a leaf;
// Remove also waits for functions of the client, with nothing else held that
// these need.
// Tested by tests/collector/fd_test.cpp.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>

#include "utility/fd_handle.h"
#include "utility/thread_annotations.h"

class FdHandles {
 public:
  // One announcement of a region, kept on the stack of the thread that makes it, so
  // that losing the region meanwhile needs no memory.
  struct Setup {
    // The thread that asks the receiver writes it before LoseNext may be called with it.
    uint32_t fdToken = kiv_fd_handle_s::kNoToken;
    // Only FdHandles uses the next two.
    bool lost = false;
    Setup* next = nullptr;
  };
  // Call them before the receiver is asked and after it has answered. EndSetup stores
  // the handle, which carries the receiver's token and is borrowed until Remove; pass
  // null for an announcement that failed. It returns false, without storing the handle,
  // when the receiver has died since it gave the token.
  void BeginSetup(Setup* setup) ORB_EXCLUDES(mutex_);
  bool EndSetup(Setup* setup, kiv_fd_handle_s* handle) ORB_EXCLUDES(mutex_);

  // Withdraws the handle. No `done` of it begins after this has returned, and none
  // runs, so that it may be freed: waits for those of other threads. A call from
  // inside a `done` does not wait for its own, nor for one that waits here itself.
  void Remove(kiv_fd_handle_s* handle) ORB_EXCLUDES(mutex_);

  // Calls `done` of every handle with this token, in the order in which they were
  // stored. *receiver_died turns true before a successor of the receiver that
  // completes the piece can give a token; then none is called.
  void RunDone(uint32_t fdToken, uint32_t a, uint32_t b, int c,
               const std::atomic<bool>& receiver_died) ORB_EXCLUDES(mutex_);

  // The receiver that gave the token died, and no other has given it since: takes it
  // from one handle that has it and returns that handle, which may be withdrawn and
  // freed as soon as this has returned. Null when no handle is left. Allocates nothing:
  // a region whose loss went unnoticed would be waited for without end.
  const kiv_fd_handle_s* LoseNext(uint32_t fdToken) ORB_EXCLUDES(mutex_);

  // Whether this is the token of a handle that is stored and not withdrawn.
  bool Holds(const std::atomic<uint32_t>& fdToken) const ORB_EXCLUDES(mutex_);

  // Call in the child of a fork(). False when a thread of the parent was inside.
  bool AdoptInChild() ORB_EXCLUDES(mutex_) {
    changed_.ForgetWaiters();
    return mutex_.IsFree();
  }

 private:
  struct Entry {
    kiv_fd_handle_s* handle;  // Null once it is withdrawn; the entry stays while a `done` runs.
    uint32_t running = 0;
    uint32_t waiting = 0;  // How many of the running calls are inside Remove.
  };
  struct Frame;

  // The first handle after *id and up to `last` with this token and a `done`, which
  // counts as running from now on, and its id; null when there is none. Allocates
  // nothing: a completion that was lost would hold its slot for ever.
  kiv_fd_handle_s* BeginNext(uint32_t fdToken, uint64_t last, uint64_t* id) ORB_EXCLUDES(mutex_);
  void End(uint64_t id) ORB_EXCLUDES(mutex_);
  void CountWaiting(uint64_t id, int change) ORB_EXCLUDES(mutex_);
  // Whether a `done` of the handle runs that this thread's Remove waits for.
  bool MustWait(uint64_t id) const ORB_REQUIRES(mutex_);

  // The `done` functions that this thread is inside of, the innermost first.
  static thread_local const Frame* frames_;

  mutable orb::Mutex mutex_;
  orb::CondVar changed_;
  // Ids grow in the order of storing. An id is never used again, unlike the address of
  // a handle that was freed.
  std::map<uint64_t, Entry> entries_ ORB_GUARDED_BY(mutex_);
  uint64_t last_id_ ORB_GUARDED_BY(mutex_) = 0;
  Setup* setups_ ORB_GUARDED_BY(mutex_) = nullptr;  // Set-ups under way.
};
