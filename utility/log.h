// The library's log lines, tag "orb_sdk". A filtered priority costs liblog's
// own check and nothing else: arguments are not formatted before it.
#pragma once

#include <android/log.h>

#ifndef ORB_LOG_TAG
#define ORB_LOG_TAG "orb_sdk"
#endif

#define LOGV(...) \
  static_cast<void>(__android_log_print(ANDROID_LOG_VERBOSE, ORB_LOG_TAG, __VA_ARGS__))
#define LOGD(...) \
  static_cast<void>(__android_log_print(ANDROID_LOG_DEBUG, ORB_LOG_TAG, __VA_ARGS__))
#define LOGI(...) static_cast<void>(__android_log_print(ANDROID_LOG_INFO, ORB_LOG_TAG, __VA_ARGS__))
#define LOGW(...) static_cast<void>(__android_log_print(ANDROID_LOG_WARN, ORB_LOG_TAG, __VA_ARGS__))
#define LOGE(...) \
  static_cast<void>(__android_log_print(ANDROID_LOG_ERROR, ORB_LOG_TAG, __VA_ARGS__))

// True if a line of this priority would be written: ask before making arguments that
// are expensive.
#define LOG_ENABLED(priority) \
  (__android_log_is_loggable(priority, ORB_LOG_TAG, ANDROID_LOG_VERBOSE) != 0)
