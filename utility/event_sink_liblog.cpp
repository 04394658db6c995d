// The event sink of a device: liblog's list, handed to the log daemon.
#define ORB_LOG_TAG "ORBEventLogger"

#include <log/log_event_list.h>

#include "utility/event_sink.h"
#include "utility/log.h"

namespace orb {

void WriteEventList(uint32_t tag, const int32_t* words, size_t count) {
  android_log_context list = create_android_logger(tag);
  if (list == nullptr) {
    LOGI("No memory for an event of %lu words", static_cast<unsigned long>(count));
    return;
  }
  for (size_t i = 0; i < count; ++i) android_log_write_int32(list, words[i]);
  const int result = android_log_write_list(list, LOG_ID_EVENTS);
  if (result < 0) LOGI("The event log took no event: %d", result);
  android_log_destroy(&list);
}

}  // namespace orb
