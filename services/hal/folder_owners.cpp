// Tested by tests/services/folder_owners_test.cpp.
#include "services/hal/folder_owners.h"

#include <fcntl.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <sstream>
#include <vector>

#include "services/common/directory.h"
#include "services/common/durable_file.h"
#include "services/hal/upload_name.h"
#include "utility/error_text.h"
#include "utility/log.h"

namespace orb::hal {
namespace {

constexpr const char* kFile = ".owners";
constexpr size_t kMaxFileBytes = 4U << 20;
// What the bus answers for a caller that has left it.
constexpr uid_t kNoUser = static_cast<uid_t>(-1);

// "up/7" of "/up/7/radio.42"; empty for a name that is no name.
std::string FolderOf(const std::string& name) {
  const Result<std::vector<std::string>> folders = ParseUploadName(name);
  if (!folders.ok()) return "";
  return folders->size() == 1 ? folders->at(0) : folders->at(0) + "/" + folders->at(1);
}

}  // namespace

Result<std::unique_ptr<FolderOwners>> FolderOwners::Open(const std::string& spool,
                                                         size_t folders_per_user) {
  UniqueFd fd = services::OpenDirectory(AT_FDCWD, spool.c_str());
  if (!fd.ok()) return SystemError("cannot use " + spool, errno);
  std::unique_ptr<FolderOwners> owners(new FolderOwners(std::move(fd), folders_per_user));
  MutexLock lock(owners->mutex_);
  const int read = owners->Load();
  if (read != 0) return SystemError("cannot read " + spool + "/" + kFile, read);
  return owners;
}

int FolderOwners::Load() {
  const Result<std::vector<uint8_t>> content =
      services::ReadWholeFile(spool_.get(), kFile, kMaxFileBytes);
  if (!content.ok()) return content.error().number == ENOENT ? 0 : content.error().number;
  std::istringstream lines(std::string(content->begin(), content->end()));
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) continue;
    uid_t user = 0;
    const char* const last = line.data() + line.size();
    const auto [end, ec] = std::from_chars(line.data(), last, user);
    if (ec != std::errc() || end == last || *end != ' ') return EBADMSG;
    const std::string folder(end + 1, last);
    if (folder.empty() || FolderOf(folder) != folder) return EBADMSG;
    if (owners_.emplace(folder, user).second) ++folders_[user];
  }
  return 0;
}

bool FolderOwners::Admit(const Caller& caller, const std::string& name) {
  const std::string folder = FolderOf(name);
  if (folder.empty()) return true;
  MutexLock lock(mutex_);
  const auto found = owners_.find(folder);
  if (found != owners_.end() && found->second == caller.uid) return true;
  const Result<void> given = Give(folder, caller.uid);
  if (given.ok()) return true;
  LOGE("upload %s of %s refused: %s", Printable(name).c_str(), caller.ToString().c_str(),
       given.error().text.c_str());
  return false;
}

Result<void> FolderOwners::Give(const std::string& folder, uid_t user) {
  if (user == kNoUser) return Error{"the caller has left the bus"};
  const auto found = owners_.find(folder);
  if (found != owners_.end()) {
    return Error{"the folder belongs to uid " + std::to_string(found->second) +
                 "; its line in the spool's .owners says so, and can be deleted while orb-hald "
                 "does not run"};
  }
  if (owners_.size() >= kMaxFolders) {
    return Error{"all " + std::to_string(kMaxFolders) + " folders have an owner"};
  }
  size_t& folders = folders_[user];
  if (folders >= folders_per_user_) {
    return Error{"the user has " + std::to_string(folders) +
                 " folders already; --folders-per-user of orb-hald allows more"};
  }
  ++folders;
  owners_[folder] = user;
  Save();
  return {};
}

void FolderOwners::Save() {
  std::string text;
  for (const auto& [folder, user] : owners_) text += std::to_string(user) + " " + folder + "\n";
  const int error = services::ReplaceFile(
      spool_.get(), kFile, {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  if (error == 0) return;
  // The upload may be stored all the same, and the next new folder tries again.
  LOGE(
      "the spool's .owners cannot be written: %s; new folders are their users' only until "
      "orb-hald ends",
      ErrorText(error).c_str());
}

}  // namespace orb::hal
