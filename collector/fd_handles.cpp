#include "collector/fd_handles.h"

#include <algorithm>

#include "utility/checked.h"

// One call of a `done`; lives on the stack of RunDone.
struct FdHandles::Frame {
  FdHandles* handles;
  uint64_t id;
  const Frame* outer;
};

thread_local const FdHandles::Frame* FdHandles::frames_ = nullptr;

void FdHandles::BeginSetup() {
  orb::MutexLock lock(mutex_);
  setups_ = orb::CheckedAdd<uint32_t>(setups_, 1);
}

bool FdHandles::EndSetup(kiv_fd_handle_s* handle) {
  orb::MutexLock lock(mutex_);
  setups_ = orb::CheckedSub<uint32_t>(setups_, 1);
  const bool lost = handle != nullptr && lost_in_setup_.erase(handle->fdToken) != 0;
  if (setups_ == 0) lost_in_setup_.clear();
  if (handle == nullptr || lost) return false;
  last_id_ = orb::CheckedAdd<uint64_t>(last_id_, 1);
  entries_.push_back({handle, last_id_});
  return true;
}

void FdHandles::Remove(kiv_fd_handle_s* handle) {
  uint64_t id = 0;
  {
    orb::MutexLock lock(mutex_);
    const auto is_it = [handle](const Entry& entry) { return entry.handle == handle; };
    const auto found = std::find_if(entries_.begin(), entries_.end(), is_it);
    if (found == entries_.end()) return;
    id = found->id;
    entries_.erase(found);
  }
  // A `done` that waits here has begun for certain, so those that wait for it from
  // inside another one need not: they might be waiting for each other.
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
  calls_[id].waiting += change;
  changed_.NotifyAll();
}

bool FdHandles::MustWait(uint64_t id) const {
  const auto calls = calls_.find(id);
  if (calls == calls_.end()) return false;
  Calls others = calls->second;
  for (const Frame* frame = frames_; frame != nullptr; frame = frame->outer) {
    if (frame->handles != this || frame->id != id) continue;
    --others.running;
    --others.waiting;
  }
  return others.running > (frames_ == nullptr ? 0 : others.waiting);
}

void FdHandles::RunDone(uint32_t fdToken, uint32_t a, uint32_t b, int c,
                        const std::atomic<bool>& receiver_died) {
  std::vector<uint64_t> ids;
  {
    orb::MutexLock lock(mutex_);
    for (const Entry& entry : entries_) {
      if (entry.handle->fdToken == fdToken && entry.handle->fn != nullptr) ids.push_back(entry.id);
    }
  }
  // Read after the search: handles of the successor can be found only after it is true.
  if (receiver_died) return;
  for (const uint64_t id : ids) {
    kiv_fd_handle_s* const handle = Begin(id);
    if (handle == nullptr) continue;
    const Frame frame{this, id, frames_};
    frames_ = &frame;
    handle->fn(handle, a, b, c);  // May withdraw and free the handle.
    frames_ = frame.outer;
    End(id);
  }
}

kiv_fd_handle_s* FdHandles::Begin(uint64_t id) {
  orb::MutexLock lock(mutex_);
  for (const Entry& entry : entries_) {
    if (entry.id != id) continue;
    ++calls_[id].running;
    return entry.handle;
  }
  return nullptr;
}

void FdHandles::End(uint64_t id) {
  orb::MutexLock lock(mutex_);
  const auto calls = calls_.find(id);
  if (--calls->second.running == 0) calls_.erase(calls);
  changed_.NotifyAll();
}

std::vector<const kiv_fd_handle_s*> FdHandles::Lose(uint32_t fdToken) {
  std::vector<const kiv_fd_handle_s*> lost;
  orb::MutexLock lock(mutex_);
  for (const Entry& entry : entries_) {
    if (entry.handle->fdToken != fdToken) continue;
    entry.handle->fdToken = kiv_fd_handle_s::kNoToken;
    lost.push_back(entry.handle);
  }
  if (lost.empty() && setups_ != 0) lost_in_setup_.insert(fdToken);
  return lost;
}
