// seq-file := decimal number, line feed
// Tested by tests/collector/next_seqno_test.cpp.
#include "collector/next_seqno.h"

#include <unistd.h>

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "utility/checked.h"

namespace {

// Longer text is no number of ours.
constexpr size_t kTextBytesMax = 64;

// 0 for anything that is not an unsigned 32-bit decimal.
uint32_t ReadNumber(const char* path) {
  FILE* file = fopen(path, "re");
  if (file == nullptr) return 0;
  char text[kTextBytesMax];
  text[fread(text, 1, sizeof text - 1, file)] = '\0';
  fclose(file);
  const char* digits = text;
  while (isspace(static_cast<unsigned char>(*digits))) ++digits;
  if (!isdigit(static_cast<unsigned char>(*digits))) return 0;
  const unsigned long long number = strtoull(digits, nullptr, 10);
  return number > std::numeric_limits<uint32_t>::max() ? 0 : static_cast<uint32_t>(number);
}

}  // namespace

uint32_t next_seqno(const char* path) {
  const uint32_t number = ReadNumber(path);
  if (FILE* file = fopen(path, "we")) {
    fprintf(file, "%" PRIu32 "\n", orb::CheckedAdd<uint32_t>(number, 1));
    fflush(file);
    fsync(fileno(file));
    fclose(file);
  }
  return number;
}
