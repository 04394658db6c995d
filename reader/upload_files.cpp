// Tested by tests/orbctl/decode_command_test.cpp and verify_command_test.cpp.
#include "reader/upload_files.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <system_error>

namespace orb::reader {
namespace {

namespace fs = std::filesystem;

// Takes a number and `end` behind it off *text.
template <typename T>
bool TakeNumber(char end, std::string_view* text, T* value) {
  const auto [at, error] = std::from_chars(text->data(), text->data() + text->size(), *value);
  if (error != std::errc() || at == text->data() + text->size() || *at != end) return false;
  text->remove_prefix(static_cast<size_t>(at - text->data()) + 1);
  return true;
}

}  // namespace

bool AddFolder(const std::string& folder, std::vector<std::string>* files, std::string* error) {
  std::error_code ec;
  std::vector<std::string> found;
  fs::recursive_directory_iterator at(folder, ec);
  while (!ec && at != fs::end(at)) {
    std::error_code gone;
    if (at->path().filename().string().starts_with(".")) {
      at.disable_recursion_pending();
    } else if (at->path().extension() == ".orb" && at->is_regular_file(gone)) {
      found.push_back(at->path().string());
    }
    at.increment(ec);
  }
  if (ec) *error = folder + ": " + ec.message();
  std::sort(found.begin(), found.end());
  files->insert(files->end(), found.begin(), found.end());
  return !ec;
}

std::string ClientOfPath(const std::string& path) {
  const std::string folder = fs::path(path).parent_path().filename().string();
  const size_t dot = folder.rfind('.');
  if (dot == std::string::npos || dot + 1 == folder.size() ||
      folder.find_first_not_of("0123456789", dot + 1) != std::string::npos) {
    return "";
  }
  return folder.substr(0, dot);
}

UploadPath ParseUploadPath(const std::string& path) {
  UploadPath parts;
  const fs::path file(path);
  const std::string name = file.filename().string();
  std::string_view rest = name;
  if (!TakeNumber('-', &rest, &parts.seqno) || !TakeNumber('.', &rest, &parts.timestamp_ms)) {
    return {};
  }
  parts.folder = file.parent_path().parent_path().string();
  parts.client = ClientOfPath(path);
  return parts;
}

}  // namespace orb::reader
