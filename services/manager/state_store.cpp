// Tested by tests/services/state_store_test.cpp.
#include "services/manager/state_store.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "services/common/directory.h"
#include "services/common/durable_file.h"
#include "utility/byte_order.h"
#include "utility/checked.h"
#include "utility/error_text.h"
#include "utility/log.h"

namespace orb::manager {
namespace {

namespace fs = std::filesystem;

constexpr char kMagic[] = "ORBSTAT1";
constexpr size_t kMagicBytes = sizeof kMagic - 1;
constexpr size_t kPrefixBytes = kMagicBytes + sizeof(uint32_t);
constexpr std::string_view kSuffix = ".client";
constexpr std::string_view kForgotten = ".client.forgotten";
// A transaction, and so a campaign, has less than a MiB.
constexpr size_t kMaxFileBytes = 4U << 20;

uint32_t Crc(const uint8_t* data, size_t bytes) {
  return static_cast<uint32_t>(crc32(0, data, CheckedCast<uInt>(bytes)));
}

// The number before the suffix; 0 for a file that the store did not write. Files that were
// put aside have their number as well, so that their ids stay taken.
int32_t IdOf(const std::string& file) {
  int32_t id = 0;
  const auto [end, ec] = std::from_chars(file.data(), file.data() + file.size(), id);
  const std::string_view rest(end, static_cast<size_t>(file.data() + file.size() - end));
  return ec == std::errc() && id > 0 && rest.starts_with(kSuffix) ? id : 0;
}

bool Parse(const std::vector<uint8_t>& content, ClientState* state) {
  if (content.size() < kPrefixBytes) return false;
  if (memcmp(content.data(), kMagic, kMagicBytes) != 0) return false;
  const uint8_t* body = content.data() + kPrefixBytes;
  const size_t body_bytes = content.size() - kPrefixBytes;
  return LoadBigEndian<uint32_t>(content.data() + kMagicBytes) == Crc(body, body_bytes) &&
         state->ParseFromArray(body, CheckedCast<int>(body_bytes));
}

}  // namespace

Result<std::unique_ptr<StateStore>> StateStore::Open(const std::string& directory,
                                                     size_t names_per_user) {
  Result<UniqueFd> fd = services::TakeDirectory(directory);
  if (!fd.ok()) return fd.error();
  std::unique_ptr<StateStore> store(new StateStore(*std::move(fd), names_per_user));
  MutexLock lock(store->mutex_);
  std::error_code ec;
  fs::directory_iterator at(directory, ec);
  std::vector<std::string> files;
  for (; !ec && at != fs::end(at); at.increment(ec)) files.push_back(at->path().filename());
  if (ec) return Error{"cannot read " + directory + ": " + ec.message(), ec.value()};
  std::sort(files.begin(), files.end());
  for (const std::string& file : files) store->Load(file);
  for (const std::string& file : files) {
    // A higher id keeps those below it taken.
    if (file.ends_with(kForgotten) && IdOf(file) < store->last_id_) {
      unlinkat(store->directory_.get(), file.c_str(), 0);
    }
  }
  return store;
}

void StateStore::Load(const std::string& file) {
  const int32_t id = IdOf(file);
  if (id == 0) return;
  last_id_ = std::max(last_id_, id);
  if (file != std::to_string(id) + std::string(kSuffix)) return;
  const Result<std::vector<uint8_t>> content =
      services::ReadWholeFile(directory_.get(), file, kMaxFileBytes);
  ClientState state;
  if (!content.ok()) {
    LOGE("state %s: cannot be read: %s", file.c_str(), content.error().text.c_str());
  } else if (!Parse(*content, &state) || state.client_id() != id || clients_.count(state.name())) {
    const std::string aside = file + ".damaged";
    renameat(directory_.get(), file.c_str(), directory_.get(), aside.c_str());
    LOGE("state %s: damaged, kept as %s; its client starts without a campaign", file.c_str(),
         aside.c_str());
  } else {
    clients_[state.name()] = state;
  }
}

Result<int32_t> StateStore::ClientId(const std::string& name, uid_t user) {
  MutexLock lock(mutex_);
  const auto found = clients_.find(name);
  ClientState state;
  if (found != clients_.end()) {
    state = found->second;
    if (state.has_owner_uid() && state.owner_uid() == user) return state.client_id();
    if (state.has_owner_uid()) {
      return Error{"the name belongs to uid " + std::to_string(state.owner_uid()) +
                   "; orbctl client forget releases it"};
    }
  } else {
    const Result<void> room = CheckRoom(user);
    if (!room.ok()) return room.error();
    state.set_name(name);
    state.set_client_id(CheckedAdd<int32_t>(last_id_, 1));
  }
  state.set_owner_uid(user);
  // Else the id, or the user, would be another one after a restart.
  if (!Save(state)) return Error{"the manager cannot write its state"};
  last_id_ = std::max(last_id_, state.client_id());
  clients_[name] = state;
  return state.client_id();
}

Result<void> StateStore::CheckRoom(uid_t user) const {
  if (clients_.size() >= kMaxClients) {
    return Error{"all " + std::to_string(kMaxClients) +
                 " names are taken; orbctl client forget releases one"};
  }
  const auto names =
      static_cast<size_t>(std::count_if(clients_.begin(), clients_.end(), [&](const auto& client) {
        return client.second.has_owner_uid() && client.second.owner_uid() == user;
      }));
  if (names < names_per_user_) return {};
  return Error{"the user has " + std::to_string(names) +
               " names already; orbctl client forget releases one, --names-per-user of "
               "orb-managerd allows more"};
}

bool StateStore::Forget(const std::string& name) {
  MutexLock lock(mutex_);
  const auto found = clients_.find(name);
  if (found == clients_.end()) return true;
  const std::string id = std::to_string(found->second.client_id());
  int error = 0;
  if (found->second.client_id() == last_id_) {
    error = services::ReplaceFile(directory_.get(), id + std::string(kForgotten), {});
  }
  const std::string file = id + std::string(kSuffix);
  if (error == 0 && unlinkat(directory_.get(), file.c_str(), 0) != 0 && errno != ENOENT) {
    error = errno;
  }
  if (error == 0 && fsync(directory_.get()) != 0) error = errno;
  if (error != 0) {
    LOGE("state %s: cannot be forgotten: %s", file.c_str(), ErrorText(error).c_str());
    return false;
  }
  clients_.erase(found);
  return true;
}

bool StateStore::Knows(const std::string& name) const {
  MutexLock lock(mutex_);
  return clients_.count(name) != 0;
}

std::map<std::string, ClientState> StateStore::Clients() const {
  MutexLock lock(mutex_);
  return clients_;
}

bool StateStore::GetCampaign(const std::string& name, SavedCampaign* campaign) const {
  MutexLock lock(mutex_);
  const auto found = clients_.find(name);
  if (found == clients_.end() || !found->second.has_campaign()) return false;
  *campaign = found->second.campaign();
  return true;
}

bool StateStore::SetCampaign(const std::string& name, const SavedCampaign& campaign) {
  MutexLock lock(mutex_);
  const auto found = clients_.find(name);
  if (found == clients_.end()) return false;
  *found->second.mutable_campaign() = campaign;
  return Save(found->second);
}

bool StateStore::ClearCampaign(const std::string& name) {
  MutexLock lock(mutex_);
  const auto found = clients_.find(name);
  if (found == clients_.end()) return false;
  if (!found->second.has_campaign()) return true;
  found->second.clear_campaign();
  return Save(found->second);
}

bool StateStore::ChangeCampaign(const std::string& name,
                                const std::function<bool(SavedCampaign*)>& change) {
  MutexLock lock(mutex_);
  const auto found = clients_.find(name);
  if (found == clients_.end() || !found->second.has_campaign()) return false;
  return !change(found->second.mutable_campaign()) || Save(found->second);
}

bool StateStore::Save(const ClientState& state) {
  const std::string body = state.SerializeAsString();
  std::vector<uint8_t> content(kPrefixBytes + body.size());
  memcpy(content.data(), kMagic, kMagicBytes);
  if (!body.empty()) memcpy(content.data() + kPrefixBytes, body.data(), body.size());
  StoreBigEndian<uint32_t>(content.data() + kMagicBytes,
                           Crc(content.data() + kPrefixBytes, body.size()));
  const std::string file = std::to_string(state.client_id()) + std::string(kSuffix);
  const int error = services::ReplaceFile(directory_.get(), file, content);
  if (error != 0) LOGE("state %s: cannot be written: %s", file.c_str(), ErrorText(error).c_str());
  return error == 0;
}

}  // namespace orb::manager
