// Where uploads lie.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orb::orbctl {

// Appends every *.orb below a folder, sorted by path. The spool's own hidden folders
// hold none. False when some of it cannot be read; that is told on standard error.
bool AddFolder(const std::string& folder, std::vector<std::string>* files);

// ".../up/7/radio.42/0000000003-1763716800000.orb", taken apart from its end.
struct UploadPath {
  std::string folder;  // ".../up/7"
  std::string client;  // "radio"; empty: the path is not like that, and nothing else holds.
  uint32_t seqno = 0;
  uint64_t timestamp_ms = 0;
};
UploadPath ParseUploadPath(const std::string& path);

}  // namespace orb::orbctl
