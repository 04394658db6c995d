// Tested by tests/services/spool_test.cpp.
#include "services/hal/upload_name.h"

#include <algorithm>

namespace orb::hal {
namespace {

constexpr size_t kMaxPrintedBytes = 80;

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

// Empty when the folder is fine.
std::string FolderFault(std::string_view folder) {
  if (folder.empty()) return "an empty folder";
  if (folder.front() == '.') return "a folder that starts with a dot";
  if (folder.size() > kMaxFolderBytes) return "a folder that is too long";
  if (folder.ends_with(".orb")) return "a folder that ends in .orb";
  if (std::any_of(folder.begin(), folder.end(), IsControl)) return "a control character";
  return "";
}

}  // namespace

bool ParseUploadName(std::string_view name, std::vector<std::string>* folders, std::string* why) {
  folders->clear();
  if (!name.empty() && name.front() == '/') name.remove_prefix(1);
  *why = name.empty() ? "an empty name" : name.size() > kMaxNameBytes ? "a name too long" : "";
  while (why->empty()) {
    const size_t slash = name.find('/');
    const std::string_view folder = name.substr(0, slash);
    *why = folders->size() == kMaxNameFolders ? "too many folders" : FolderFault(folder);
    if (!why->empty()) break;
    folders->emplace_back(folder);
    if (slash == std::string_view::npos) return true;
    name.remove_prefix(slash + 1);
  }
  return false;
}

std::string Printable(std::string_view name) {
  std::string text(name.substr(0, kMaxPrintedBytes));
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < 0x20 || c > 0x7E; }, '?');
  return text;
}

}  // namespace orb::hal
