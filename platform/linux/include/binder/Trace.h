// Trace sections of generated code. They do nothing, because Linux has no tracer for them.
#pragma once

#include <cstdint>

#ifndef ATRACE_TAG_AIDL
#define ATRACE_TAG_AIDL (1ULL << 24)
#endif

namespace android::binder {

namespace os {
inline void trace_begin(uint64_t /*tag*/, const char* /*name*/) {}
inline void trace_end(uint64_t /*tag*/) {}
}  // namespace os

class ScopedTrace {
 public:
  ScopedTrace(uint64_t tag, const char* name) : tag_(tag) { os::trace_begin(tag_, name); }
  ~ScopedTrace() { os::trace_end(tag_); }
  ScopedTrace(const ScopedTrace&) = delete;
  ScopedTrace& operator=(const ScopedTrace&) = delete;

 private:
  uint64_t tag_;
};

}  // namespace android::binder
