// Tested by tests/services/hal_test.cpp.
#include "services/hal/channel_table.h"

#include <sys/random.h>

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

ChannelTable::ChannelTable(size_t most) : places_(most), next_token_(FirstToken()) {}

uint32_t ChannelTable::Add(Channel channel) {
  MutexLock lock(mutex_);
  const auto own = own_.find(channel.owner);
  if (own != own_.end() && own->second >= kMaxPerCaller) return 0;
  if (!places_.Take(channel.owner.uid)) return 0;
  ++own_[channel.owner];
  do {
    next_token_ = (next_token_ + 1) & kTokenMask;
  } while (next_token_ == 0 || channels_.count(next_token_) != 0);
  channels_[next_token_] = std::make_shared<const Channel>(std::move(channel));
  return next_token_;
}

std::shared_ptr<const Channel> ChannelTable::Find(const Caller& caller, uint32_t token) {
  MutexLock lock(mutex_);
  const auto found = channels_.find(token);
  if (found == channels_.end() || found->second->owner != caller) return nullptr;
  return found->second;
}

bool ChannelTable::Remove(const Caller& caller, uint32_t token) {
  return Find(caller, token) != nullptr && RemoveDead(token) != nullptr;
}

std::shared_ptr<const Channel> ChannelTable::RemoveDead(uint32_t token) {
  MutexLock lock(mutex_);
  const auto found = channels_.find(token);
  if (found == channels_.end()) return nullptr;
  std::shared_ptr<const Channel> channel = std::move(found->second);
  channels_.erase(found);
  places_.Give(channel->owner.uid);
  const auto own = own_.find(channel->owner);
  if (--own->second == 0) own_.erase(own);
  return channel;
}

bool ChannelTable::Has(uint32_t token) const {
  MutexLock lock(mutex_);
  return channels_.count(token) != 0;
}

}  // namespace orb::hal
