#include "tools/orbctl/output.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>

#include "utility/error_text.h"
#include "utility/terminal_text.h"

namespace orb::orbctl {
namespace {

struct CloseFile {
  void operator()(FILE* file) const { (void)fclose(file); }
};

}  // namespace

void PrintError(const std::string& text) {
  static_cast<void>(fprintf(stderr, "orbctl: %s\n", TerminalText(text).c_str()));
}

int Fail(const std::string& text) {
  PrintError(text);
  return kFailed;
}

void PrintLine(const std::string& text) {
  static_cast<void>(fwrite(text.data(), 1, text.size(), stdout));
  static_cast<void>(fputc('\n', stdout));
}

bool ReadFile(const std::string& path, uint64_t max_bytes, std::string* content,
              std::string* error) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) {
    *error = path + " is a directory";
    return false;
  }
  const std::unique_ptr<FILE, CloseFile> file(fopen(path.c_str(), "rbe"));
  if (file == nullptr) {
    *error = "cannot open " + path + ": " + ErrorText(errno);
    return false;
  }
  content->clear();
  char block[64 << 10];
  size_t got = 0;
  while ((got = fread(block, 1, sizeof block, file.get())) > 0) {
    content->append(block, got);
    if (content->size() > max_bytes) {
      *error = path + ": more than " + std::to_string(max_bytes) + " bytes";
      return false;
    }
  }
  if (ferror(file.get()) != 0) {
    *error = path + ": " + ErrorText(errno);
    return false;
  }
  return true;
}

}  // namespace orb::orbctl
