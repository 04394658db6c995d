// What is logged, by the environment: ANDROID_LOG_TAGS="*:w" leaves warnings and
// errors. liblog of a workstation does not read it, and knows one priority for all
// tags, so only the entry of "*" counts. Read when the library is loaded: a host
// that sets a priority of its own does so later.
// Tested by tests/integration/services_test.cpp.
#include <android/log.h>

#include <cstdlib>
#include <string_view>

namespace {

// In the order of the priorities, from ANDROID_LOG_VERBOSE.
constexpr std::string_view kLetters = "vdiwefs";

[[gnu::constructor]] void ApplyEnvironment() {
  const char* const tags = secure_getenv("ANDROID_LOG_TAGS");
  const std::string_view text = tags == nullptr ? "" : tags;
  const size_t at = text.find("*:");
  if (at == std::string_view::npos || at + 2 >= text.size()) return;
  const char letter = static_cast<char>(text[at + 2] | 0x20);  // Lower case.
  const size_t index = kLetters.find(letter);
  if (index == std::string_view::npos) return;
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE + static_cast<int>(index));
}

}  // namespace
