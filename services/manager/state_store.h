// What the manager must still know after a restart: every client's id, and the
// campaign that runs on it. One file per client, replaced whole.
//
// file := "ORBSTAT1" crc32:u32be ClientState      name := CLIENT_ID ".client"
//
// A damaged file is put aside as NAME.damaged and costs only its own client;
// its id is not given out again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "proto/manager_state.pb.h"
#include "utility/thread_annotations.h"
#include "utility/unique_fd.h"

namespace orb::manager {

// Thread-safe. The files are written under the mutex: their order on disk is
// the order of the calls.
class StateStore {
 public:
  // Takes the directory for this process, creating it when it is not there, and
  // reads what it holds. Null, with the reason in *error, when that is impossible.
  static std::unique_ptr<StateStore> Open(const std::string& directory, std::string* error);

  // Names that are remembered; a new one beyond them is refused.
  static constexpr size_t kMaxClients = 4096;

  // The id of this client name, the same ever after; a new name gets a new one.
  // -1 when there are too many names, or the disk did not take the new one (logged).
  int32_t ClientId(const std::string& name) ORB_EXCLUDES(mutex_);

  // Whether the name ever registered.
  bool Knows(const std::string& name) const ORB_EXCLUDES(mutex_);

  // All that is kept, by name.
  std::map<std::string, ClientState> Clients() const ORB_EXCLUDES(mutex_);

  // False when the client is unknown or has no campaign.
  bool GetCampaign(const std::string& name, SavedCampaign* campaign) const ORB_EXCLUDES(mutex_);

  // Of a known client. False when the disk did not take it (logged): then it
  // holds for this process only.
  bool SetCampaign(const std::string& name, const SavedCampaign& campaign) ORB_EXCLUDES(mutex_);
  bool ClearCampaign(const std::string& name) ORB_EXCLUDES(mutex_);

  // Changes what is kept of the client's campaign, in one step. `change` runs under the
  // mutex and answers whether it changed anything. False when there is no campaign or
  // the disk did not take it.
  bool ChangeCampaign(const std::string& name, const std::function<bool(SavedCampaign*)>& change)
      ORB_EXCLUDES(mutex_);

 private:
  explicit StateStore(UniqueFd directory) : directory_(std::move(directory)) {}

  void Load(const std::string& file) ORB_REQUIRES(mutex_);
  bool Save(const ClientState& state) ORB_REQUIRES(mutex_);

  const UniqueFd directory_;
  mutable Mutex mutex_;
  std::map<std::string, ClientState> clients_ ORB_GUARDED_BY(mutex_);
  int32_t last_id_ ORB_GUARDED_BY(mutex_) = 0;
};

}  // namespace orb::manager
