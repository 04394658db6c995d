// Which user stores in which folder of the spool: the one that stored there first.
//
// folder := the first two folders of an upload's name, "up/CLIENT-ID"
// file   := (UID " " folder "\n")*        SPOOL/.owners, replaced whole
//
// A line stays when readers or the quota remove its folder. An operator releases a folder
// by deleting its line while no HAL runs.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "services/hal/caller.h"
#include "utility/result.h"
#include "utility/thread_annotations.h"
#include "utility/unique_fd.h"

namespace orb::hal {

// Thread-safe.
class FolderOwners {
 public:
  // Folders that have an owner, of all users and of each; further ones are refused.
  static constexpr size_t kMaxFolders = 4096;
  static constexpr size_t kFoldersPerUser = 256;

  // Reads what is kept in the spool. Fails when that cannot be read: the HAL would let
  // anybody in.
  static Result<std::unique_ptr<FolderOwners>> Open(const std::string& spool,
                                                    size_t folders_per_user = kFoldersPerUser);

  // Whether the caller may store under this name, whose folder is its user's from then on.
  // False after one log line. Root has no more rights than others. True for a name that
  // the spool refuses anyway.
  bool Admit(const Caller& caller, const std::string& name) ORB_EXCLUDES(mutex_);

 private:
  FolderOwners(UniqueFd spool, size_t folders_per_user)
      : spool_(std::move(spool)), folders_per_user_(folders_per_user) {}

  // 0, or an errno value; EBADMSG for a line that is none.
  int Load() ORB_REQUIRES(mutex_);
  void Save() ORB_REQUIRES(mutex_);
  // Makes the folder the user's, unless somebody has it or the user has too many.
  Result<void> Give(const std::string& folder, uid_t user) ORB_REQUIRES(mutex_);

  const UniqueFd spool_;
  const size_t folders_per_user_;
  Mutex mutex_;
  std::map<std::string, uid_t> owners_ ORB_GUARDED_BY(mutex_);
  std::map<uid_t, size_t> folders_ ORB_GUARDED_BY(mutex_);  // Number of each user's.
};

}  // namespace orb::hal
