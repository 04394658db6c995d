// seq-file := decimal number, line feed
// Rewritten in place: a file that was emptied first would begin again at 0 when
// the disk is full, or when the process ends in between.
// Tested by tests/collector/next_seqno_test.cpp.
#include "collector/next_seqno.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "utility/checked.h"
#include "utility/files.h"
#include "utility/unique_fd.h"

namespace {

// Longer text was not written by this code.
constexpr size_t kTextBytesMax = 64;
constexpr mode_t kMode = 0666;

// 0 for anything that is not an unsigned 32-bit decimal.
uint32_t ReadNumber(const char* path) {
  FILE* file = orb::Files::Open(path, "re");
  if (file == nullptr) return 0;
  char text[kTextBytesMax];
  text[fread(text, 1, sizeof text - 1, file)] = '\0';
  (void)fclose(file);  // It was only read.
  const char* digits = text;
  while (isspace(static_cast<unsigned char>(*digits))) ++digits;
  if (!isdigit(static_cast<unsigned char>(*digits))) return 0;
  const unsigned long long number = strtoull(digits, nullptr, 10);
  return number > std::numeric_limits<uint32_t>::max() ? 0 : static_cast<uint32_t>(number);
}

}  // namespace

uint32_t next_seqno(const char* path) {
  const uint32_t number = ReadNumber(path);
  char text[kTextBytesMax];
  const int bytes =
      snprintf(text, sizeof text, "%" PRIu32 "\n", orb::CheckedAdd<uint32_t>(number, 1));
  const orb::UniqueFd file(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, kMode));
  // Only a damaged file can be longer than the new number; ftruncate cuts its tail off.
  if (file.ok() && pwrite(file.get(), text, static_cast<size_t>(bytes), 0) == bytes) {
    if (ftruncate(file.get(), bytes) == 0) orb::Files::Sync(file.get());
  }
  return number;
}
