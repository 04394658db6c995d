// Log lines are formatted, as in real use, and dropped.
#include <android/log.h>

#include "fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  return 0;
}
