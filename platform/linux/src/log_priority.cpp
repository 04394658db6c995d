// The environment chooses what is logged: ANDROID_LOG_TAGS="*:w" leaves warnings and
// errors. liblog of a workstation does not read the variable and has one priority for all
// tags, so only the entry "*" counts. The library reads it when it is loaded. A priority
// that the host sets itself, before or after, wins.
// Tested by tests/integration/services_test.cpp and tests/crypto/orb_encrypt_test.cpp.
#include <android/log.h>

#include <cstdlib>
#include <string_view>

#include "utility/program_log_limit.h"

namespace {

// The letters of the priorities in ascending order, from ANDROID_LOG_VERBOSE.
constexpr std::string_view kLetters = "vdiwefs";

// The limit that the environment has set. liblog has one limit for environment and
// program, so a program that sets the same one counts as a program that sets none.
int environment_limit = ANDROID_LOG_DEFAULT;

[[gnu::constructor]] void ApplyEnvironment() {
  if (__android_log_get_minimum_priority() != ANDROID_LOG_DEFAULT) return;
  const char* const tags = secure_getenv("ANDROID_LOG_TAGS");
  const std::string_view text = tags == nullptr ? "" : tags;
  const size_t at = text.find("*:");
  if (at == std::string_view::npos || at + 2 >= text.size()) return;
  const char letter = static_cast<char>(text[at + 2] | 0x20);  // Lower case.
  const size_t index = kLetters.find(letter);
  if (index == std::string_view::npos) return;
  environment_limit = ANDROID_LOG_VERBOSE + static_cast<int>(index);
  __android_log_set_minimum_priority(environment_limit);
}

}  // namespace

namespace orb {

int ProgramLogLimit() {
  const int limit = __android_log_get_minimum_priority();
  return limit == environment_limit ? ANDROID_LOG_DEFAULT : limit;
}

}  // namespace orb
