// Tested by tests/services/spool_test.cpp.
#include "services/hal/spool_index.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "utility/checked.h"

namespace orb::hal {

namespace fs = std::filesystem;

bool SpoolIndex::Load(const std::string& directory, std::string* error) {
  std::vector<std::pair<fs::file_time_type, SpooledFile>> found;
  std::error_code ec;
  fs::recursive_directory_iterator at(directory, ec);
  while (!ec && at != fs::end(at)) {
    // A file that a reader removes meanwhile is none of the spool any more.
    std::error_code gone;
    if (at->is_regular_file(gone) && !at->is_symlink(gone) && at->path().extension() == ".orb") {
      const uint64_t bytes = at->file_size(gone);
      const fs::file_time_type time = gone ? fs::file_time_type() : at->last_write_time(gone);
      if (!gone) {
        const std::string path = at->path().lexically_relative(directory).string();
        found.push_back({time, SpooledFile{path, bytes}});
      }
    }
    at.increment(ec);
  }
  if (ec) {
    *error = ec.message();
    return false;
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
    return std::tie(a.first, a.second.path) < std::tie(b.first, b.second.path);
  });
  for (auto& entry : found) Add(std::move(entry.second));
  return true;
}

void SpoolIndex::Add(SpooledFile file) {
  total_bytes_ = CheckedAdd<uint64_t>(total_bytes_, file.bytes);
  files_.push_back(std::move(file));
}

SpooledFile SpoolIndex::TakeOldest() {
  SpooledFile file = std::move(files_.front());
  files_.pop_front();
  total_bytes_ = CheckedSub<uint64_t>(total_bytes_, file.bytes);
  return file;
}

}  // namespace orb::hal
