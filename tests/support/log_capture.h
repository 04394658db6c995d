// What the process logs through liblog while an object of this class lives,
// in place of stderr: every priority, also those that are filtered by default.
// Nested captures each see every line.
//
// Thread-safe; lines of one thread keep their order. Threads that log may
// outlive the capture: their later lines go to the capture around it, or back
// to stderr.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "utility/thread_annotations.h"

namespace orb {

struct LogLine {
  int priority;  // ANDROID_LOG_VERBOSE and so on.
  std::string tag;
  std::string text;

  bool operator==(const LogLine&) const = default;
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Whether a line holds `text` anywhere.
  bool Contains(std::string_view text) const { return Count(text) > 0; }
  // Whether this exact line was logged.
  bool Has(int priority, std::string_view tag, std::string_view text) const;
  // Lines that hold `text` anywhere.
  size_t Count(std::string_view text) const ORB_EXCLUDES(mutex_);
  // A copy of all lines so far.
  std::vector<LogLine> Lines() const ORB_EXCLUDES(mutex_);
  // All lines as "priority tag: text", one a line: for failure messages.
  std::string Dump() const;
  // Forgets the lines so far.
  void Clear() ORB_EXCLUDES(mutex_);

  // Waits until at least `count` lines hold `text`; false when `timeout` was first.
  bool WaitFor(std::string_view text, size_t count = 1,
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) const
      ORB_EXCLUDES(mutex_);

  // For the log function only.
  void Add(LogLine line) ORB_EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  std::vector<LogLine> lines_ ORB_GUARDED_BY(mutex_);
};

}  // namespace orb
