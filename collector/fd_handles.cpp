#include "collector/fd_handles.h"

#include <algorithm>

#include "utility/check.h"
#include "utility/checked.h"

// One call of a `done`; lives on the stack of RunDone.
struct FdHandles::Frame {
  FdHandles* handles;
  uint64_t id;
  const Frame* outer;
};

thread_local const FdHandles::Frame* FdHandles::frames_ = nullptr;

void FdHandles::BeginSetup(Setup* setup) {
  orb::MutexLock lock(mutex_);
  setup->next = setups_;
  setups_ = setup;
}

bool FdHandles::EndSetup(Setup* setup, kiv_fd_handle_s* handle) {
  orb::MutexLock lock(mutex_);
  Setup** link = &setups_;
  while (*link != setup) {
    ORB_CHECK(*link != nullptr);  // BeginSetup() came before.
    link = &(*link)->next;
  }
  *link = setup->next;
  if (handle == nullptr || setup->lost) return false;
  last_id_ = orb::CheckedAdd<uint64_t>(last_id_, 1);
  entries_[last_id_].handle = handle;
  return true;
}

void FdHandles::Remove(kiv_fd_handle_s* handle) {
  uint64_t id = 0;
  {
    orb::MutexLock lock(mutex_);
    const auto is_it = [handle](const auto& entry) { return entry.second.handle == handle; };
    const auto found = std::find_if(entries_.begin(), entries_.end(), is_it);
    if (found == entries_.end()) return;
    id = found->first;
    found->second.handle = nullptr;
    if (found->second.running == 0) {
      entries_.erase(found);
      return;
    }
  }
  // Count the `done`s that this thread is inside of as waiting. A thread that withdraws
  // their handles from inside another `done` then goes on: the two could wait for ever.
  for (const Frame* frame = frames_; frame != nullptr; frame = frame->outer) {
    frame->handles->CountWaiting(frame->id, +1);
  }
  {
    orb::MutexLock lock(mutex_);
    while (MustWait(id)) changed_.Wait(mutex_);
  }
  for (const Frame* frame = frames_; frame != nullptr; frame = frame->outer) {
    frame->handles->CountWaiting(frame->id, -1);
  }
}

void FdHandles::CountWaiting(uint64_t id, int change) {
  orb::MutexLock lock(mutex_);
  const auto entry = entries_.find(id);
  ORB_CHECK(entry != entries_.end());
  entry->second.waiting += static_cast<uint32_t>(change);
  ORB_CHECK(entry->second.waiting <= entry->second.running);
  changed_.NotifyAll();
}

bool FdHandles::MustWait(uint64_t id) const {
  const auto entry = entries_.find(id);
  if (entry == entries_.end()) return false;
  uint32_t running = entry->second.running;
  uint32_t waiting = entry->second.waiting;
  for (const Frame* frame = frames_; frame != nullptr; frame = frame->outer) {
    if (frame->handles != this || frame->id != id) continue;
    --running;
    --waiting;
  }
  return running > (frames_ == nullptr ? 0 : waiting);
}

void FdHandles::RunDone(uint32_t fdToken, uint32_t a, uint32_t b, int c,
                        const std::atomic<bool>& receiver_died) {
  uint64_t last = 0;
  {
    orb::MutexLock lock(mutex_);
    last = last_id_;
  }
  // Read after `last`: handles of the successor are stored only once it is true.
  if (receiver_died) return;
  uint64_t id = 0;
  while (kiv_fd_handle_s* const handle = BeginNext(fdToken, last, &id)) {
    const Frame frame{this, id, frames_};
    frames_ = &frame;
    handle->fn(handle, a, b, c);  // May withdraw and free the handle.
    frames_ = frame.outer;
    End(id);
  }
}

kiv_fd_handle_s* FdHandles::BeginNext(uint32_t fdToken, uint64_t last, uint64_t* id) {
  orb::MutexLock lock(mutex_);
  for (auto it = entries_.upper_bound(*id); it != entries_.end() && it->first <= last; ++it) {
    kiv_fd_handle_s* const handle = it->second.handle;
    if (handle == nullptr || handle->fdToken != fdToken || handle->fn == nullptr) continue;
    it->second.running = orb::CheckedAdd<uint32_t>(it->second.running, 1);
    *id = it->first;
    return handle;
  }
  return nullptr;
}

void FdHandles::End(uint64_t id) {
  orb::MutexLock lock(mutex_);
  const auto entry = entries_.find(id);
  ORB_CHECK(entry != entries_.end());
  entry->second.running = orb::CheckedSub<uint32_t>(entry->second.running, 1);
  if (entry->second.running == 0 && entry->second.handle == nullptr) entries_.erase(entry);
  changed_.NotifyAll();
}

const kiv_fd_handle_s* FdHandles::LoseNext(uint32_t fdToken) {
  orb::MutexLock lock(mutex_);
  for (const auto& [id, entry] : entries_) {
    if (entry.handle == nullptr || entry.handle->fdToken != fdToken) continue;
    entry.handle->fdToken = kiv_fd_handle_s::kNoToken;
    return entry.handle;
  }
  for (Setup* setup = setups_; setup != nullptr; setup = setup->next) {
    if (setup->fdToken == fdToken) setup->lost = true;
  }
  return nullptr;
}

bool FdHandles::Holds(const std::atomic<uint32_t>& fdToken) const {
  orb::MutexLock lock(mutex_);
  return std::any_of(entries_.begin(), entries_.end(), [&fdToken](const auto& entry) {
    return entry.second.handle != nullptr && &entry.second.handle->fdToken == &fdToken;
  });
}
