// Where uploads lie.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orb::reader {

// Appends every *.orb below a folder, sorted by path. Hidden folders are left out: the
// spool keeps unfinished files there. False, with one line in *error, when a part of the
// folder cannot be read; what can be read is appended all the same.
bool AddFolder(const std::string& folder, std::vector<std::string>* files, std::string* error);

// "radio" for ".../radio.42/0000000000-1763716800000.orb"; empty for another path.
std::string ClientOfPath(const std::string& path);

// ".../up/7/radio.42/0000000003-1763716800000.orb", taken apart from its end.
struct UploadPath {
  std::string folder;  // ".../up/7"
  std::string client;  // "radio"; empty: the path is not like that, and nothing else holds.
  uint32_t seqno = 0;
  uint64_t timestamp_ms = 0;
};
UploadPath ParseUploadPath(const std::string& path);

}  // namespace orb::reader
