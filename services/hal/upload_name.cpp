// Tested by tests/services/spool_test.cpp.
#include "services/hal/upload_name.h"

#include <algorithm>

namespace orb::hal {
namespace {

constexpr size_t kMaxPrintedBytes = 80;

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

// Null when the folder is fine.
const char* FolderFault(std::string_view folder) {
  if (folder.empty()) return "an empty folder";
  if (folder.front() == '.') return "a folder that starts with a dot";
  if (folder.size() > kMaxFolderBytes) return "a folder that is too long";
  if (folder.ends_with(".orb")) return "a folder that ends in .orb";
  if (std::any_of(folder.begin(), folder.end(), IsControl)) return "a control character";
  return nullptr;
}

}  // namespace

Result<std::vector<std::string>> ParseUploadName(std::string_view name) {
  if (name.starts_with('/')) name.remove_prefix(1);
  if (name.empty()) return Error{"an empty name"};
  if (name.size() > kMaxNameBytes) return Error{"a name too long"};
  std::vector<std::string> folders;
  for (;;) {
    const size_t slash = name.find('/');
    const std::string_view folder = name.substr(0, slash);
    if (folders.size() == kMaxNameFolders) return Error{"too many folders"};
    if (const char* const fault = FolderFault(folder)) return Error{fault};
    folders.emplace_back(folder);
    if (slash == std::string_view::npos) return folders;
    name.remove_prefix(slash + 1);
  }
}

std::string Printable(std::string_view name) {
  std::string text(name.substr(0, kMaxPrintedBytes));
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < 0x20 || c > 0x7E; }, '?');
  return text;
}

}  // namespace orb::hal
