// Tested by tests/services/hal_test.cpp.
#include "services/hal/channel_table.h"

#include <sys/random.h>

#include <algorithm>
#include <utility>

namespace orb::hal {
namespace {

// Tokens stay positive as signed numbers.
constexpr uint32_t kTokenMask = 0x7FFFFFFF;

// A restarted HAL starts elsewhere, so that a token of before does not happen
// to name a new channel of the same client.
uint32_t FirstToken() {
  uint32_t token = 0;
  if (getrandom(&token, sizeof token, 0) != sizeof token) return 1;
  return token & kTokenMask;
}

}  // namespace

bool Channel::Confirm(uint32_t token, uint32_t offset, uint32_t size) {
  // The task owns what it needs: it may outlive the channel's place in the table.
  unconfirmed_->fetch_add(1);
  const bool posted = executor_->Post([done = done_, count = unconfirmed_, token, offset, size] {
    done(static_cast<int32_t>(token), static_cast<int32_t>(offset), static_cast<int32_t>(size), 0);
    count->fetch_sub(1);
  });
  if (!posted) unconfirmed_->fetch_sub(1);
  return posted;
}

ChannelTable::ChannelTable() : next_token_(FirstToken()) {}

uint32_t ChannelTable::Add(const Caller& caller, std::shared_ptr<const SharedRegion> region,
                           SlotDone done) {
  MutexLock lock(mutex_);
  retired_.erase(std::remove_if(retired_.begin(), retired_.end(),
                                [](const std::shared_ptr<services::SerialExecutor>& gone) {
                                  return gone->StoppedBy(std::chrono::steady_clock::now());
                                }),
                 retired_.end());
  const auto own = std::count_if(channels_.begin(), channels_.end(),
                                 [&](const auto& entry) { return entry.second->owner == caller; });
  if (static_cast<size_t>(own) >= kMaxPerCaller ||
      channels_.size() + retired_.size() >= kMaxChannels) {
    return 0;
  }
  do {
    next_token_ = (next_token_ + 1) & kTokenMask;
  } while (next_token_ == 0 || channels_.count(next_token_) != 0);
  channels_[next_token_] = std::make_shared<Channel>(caller, std::move(region), std::move(done));
  return next_token_;
}

std::shared_ptr<Channel> ChannelTable::Find(const Caller& caller, uint32_t token) {
  MutexLock lock(mutex_);
  const auto found = channels_.find(token);
  if (found == channels_.end() || found->second->owner != caller) return nullptr;
  return found->second;
}

bool ChannelTable::Remove(const Caller& caller, uint32_t token) {
  MutexLock lock(mutex_);
  const auto found = channels_.find(token);
  if (found == channels_.end() || found->second->owner != caller) return false;
  Retire(found);
  return true;
}

bool ChannelTable::RemoveDead(uint32_t token) {
  MutexLock lock(mutex_);
  const auto found = channels_.find(token);
  if (found == channels_.end()) return false;
  Retire(found);
  return true;
}

// The region goes at once, with whoever still reads it.
void ChannelTable::Retire(Channels::iterator at) {
  at->second->executor()->Stop();
  retired_.push_back(at->second->executor());
  channels_.erase(at);
}

bool ChannelTable::Has(uint32_t token) const {
  MutexLock lock(mutex_);
  return channels_.count(token) != 0;
}

bool ChannelTable::FinishBy(std::chrono::steady_clock::time_point deadline) {
  std::vector<std::shared_ptr<services::SerialExecutor>> all;
  {
    MutexLock lock(mutex_);
    all = retired_;
    for (const auto& [token, channel] : channels_) all.push_back(channel->executor());
  }
  // A client whose slots stay unconfirmed cannot end its session. Retired ones
  // are stopped already.
  for (const auto& executor : all) executor->Finish();
  return std::all_of(all.begin(), all.end(),
                     [&](const auto& executor) { return executor->StoppedBy(deadline); });
}

}  // namespace orb::hal
