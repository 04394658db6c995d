// Directories that a service keeps its files in.
#pragma once

#include <string>

#include "utility/result.h"
#include "utility/unique_fd.h"

namespace orb::services {

// Opens a directory below `at` (AT_FDCWD: the working directory), following links. Not
// ok, with errno set, on failure.
UniqueFd OpenDirectory(int at, const char* path);

// Opens the directory for this process alone, creating it when it is not there. It stays
// locked until the descriptor is closed.
Result<UniqueFd> TakeDirectory(const std::string& path);

}  // namespace orb::services
