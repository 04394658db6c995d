// What the manager must still know after a restart: every client's id, and the
// campaign that runs on it. One file per client, replaced whole.
//
// file := "ORBSTAT1" crc32:u32be ClientState      name := CLIENT_ID ".client"
//
// A damaged file is put aside as NAME.damaged and costs only its own client;
// its id is not given out again. The ids of forgotten clients are not given out again
// either: an empty file CLIENT_ID.client.forgotten keeps the highest of them taken.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "proto/manager_state.pb.h"
#include "utility/result.h"
#include "utility/thread_annotations.h"
#include "utility/unique_fd.h"

namespace orb::manager {

// Thread-safe. The files are written under the mutex: their order on disk is
// the order of the calls.
class StateStore {
 public:
  // Names that are remembered, of all users and of each; a new one beyond them is refused.
  static constexpr size_t kMaxClients = 4096;
  static constexpr size_t kNamesPerUser = 256;

  // Takes the directory for this process, creating it when it is not there, and
  // reads what it holds.
  static Result<std::unique_ptr<StateStore>> Open(const std::string& directory,
                                                  size_t names_per_user = kNamesPerUser);

  // The id of this client name, the same ever after; a new name gets a new one, and
  // belongs to the user from then on. Fails when the name is another user's, there are too
  // many names, or the disk did not take the new one.
  Result<int32_t> ClientId(const std::string& name, uid_t user) ORB_EXCLUDES(mutex_);

  // Forgets a known name with its user and campaign. False when the disk did not take it
  // (logged): then nothing has changed.
  bool Forget(const std::string& name) ORB_EXCLUDES(mutex_);

  // Whether the name ever registered.
  bool Knows(const std::string& name) const ORB_EXCLUDES(mutex_);

  // All that is kept, by name.
  std::map<std::string, ClientState> Clients() const ORB_EXCLUDES(mutex_);

  // False when the client is unknown or has no campaign.
  bool GetCampaign(const std::string& name, SavedCampaign* campaign) const ORB_EXCLUDES(mutex_);

  // Keeps or clears the campaign of a known client. False when the disk did not take that
  // (logged): then it holds for this process only.
  bool SetCampaign(const std::string& name, const SavedCampaign& campaign) ORB_EXCLUDES(mutex_);
  bool ClearCampaign(const std::string& name) ORB_EXCLUDES(mutex_);

  // Changes what is kept of the client's campaign, in one step. `change` runs under the
  // mutex and answers whether it changed anything. False when there is no campaign or
  // the disk did not take it.
  bool ChangeCampaign(const std::string& name, const std::function<bool(SavedCampaign*)>& change)
      ORB_EXCLUDES(mutex_);

 private:
  StateStore(UniqueFd directory, size_t names_per_user)
      : directory_(std::move(directory)), names_per_user_(names_per_user) {}

  void Load(const std::string& file) ORB_REQUIRES(mutex_);
  // Whether the user may have one name more.
  Result<void> CheckRoom(uid_t user) const ORB_REQUIRES(mutex_);
  bool Save(const ClientState& state) ORB_REQUIRES(mutex_);

  const UniqueFd directory_;
  const size_t names_per_user_;
  mutable Mutex mutex_;
  std::map<std::string, ClientState> clients_ ORB_GUARDED_BY(mutex_);
  int32_t last_id_ ORB_GUARDED_BY(mutex_) = 0;
};

}  // namespace orb::manager
