// The uploads that the HAL took, one file each, below one directory.
//
// file := header data [footer]      as the client sent them
// path := upload name "/" SEQNO "-" TIMESTAMP [ "." REPEAT ] ".orb"
//
// SEQNO (10 digits) and TIMESTAMP (13, milliseconds) are the header's;
// docs/formats/spool.md tells more.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "services/hal/spool_room.h"
#include "services/hal/upload_source.h"
#include "utility/result.h"
#include "utility/thread_annotations.h"
#include "utility/unique_fd.h"

namespace orb::hal {

// Thread-safe. Uploads are written side by side; only moving them to their
// place is serialized.
class Spool {
 public:
  // Bounds one upload, and so what one client can make the HAL write at a time.
  static constexpr uint32_t kMaxUploadBytes = 64U << 20;

  // Takes the directory for this process, creating it when it is not there, removes what
  // an interrupted run left and applies the quota. `max_bytes` of the disk, 0 for no quota.
  static Result<std::unique_ptr<Spool>> Open(const std::string& directory, uint64_t max_bytes,
                                             StatDisk stat_disk = fstatvfs);

  // Stores one upload; true when it is on the medium under its name. False
  // after one log line: a name or header that is refused, an upload beyond the
  // quota, a disk that stays full without the spool. The oldest files make room,
  // before the disk is full and when it says that it is.
  bool Store(const std::string& name, const UploadSource& upload) ORB_EXCLUDES(mutex_);
  // Stores bytes that this process holds.
  bool Store(const std::string& name, std::span<const uint8_t> upload) ORB_EXCLUDES(mutex_);

  // Bytes of the disk that uploads and folders take, as far as this process knows.
  uint64_t StoredBytes() const ORB_EXCLUDES(mutex_);

 private:
  using Folders = std::vector<std::string>;
  Spool(uint64_t max_bytes, UniqueFd root, UniqueFd incoming, StatDisk stat_disk);

  // The folders of a name under which that many bytes may be stored.
  Result<Folders> Admit(const std::string& name, uint64_t bytes) const;
  // Makes one attempt. 0, or an errno value.
  int Write(const Folders& folders, const UploadSource& upload) ORB_EXCLUDES(mutex_);
  int Place(const std::string& temporary, const Folders& folders, const std::string& stem)
      ORB_REQUIRES(mutex_);
  UniqueFd OpenFolders(const Folders& folders) ORB_REQUIRES(mutex_);
  // Makes the file's time newer than that of all uploads, and reads its *info.
  int Date(const std::string& temporary, struct stat* info) ORB_REQUIRES(mutex_);

  const uint64_t max_bytes_;
  const UniqueFd root_;
  const UniqueFd incoming_;  // Temporary files; below root_, so that a rename is enough.
  std::atomic<uint64_t> next_temporary_{0};
  mutable Mutex mutex_;
  SpoolRoom room_ ORB_GUARDED_BY(mutex_);
};

}  // namespace orb::hal
