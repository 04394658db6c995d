#include "tests/support/log_capture.h"

#include <android/log.h>

#include <algorithm>
#include <utility>

#include "tests/support/wait_for.h"

namespace orb {
namespace {

// The captures that live. Leaked: threads may log while the process exits.
struct Registry {
  Mutex mutex;
  std::vector<LogCapture*> captures ORB_GUARDED_BY(mutex);
};

Registry& GetRegistry() {
  static Registry* const registry = new Registry;
  return *registry;
}

void Log(const __android_logger_data* data, const char* message) {
  Registry& registry = GetRegistry();
  // Held while adding, so that a capture is not destroyed underneath.
  MutexLock lock(registry.mutex);
  if (registry.captures.empty()) return __android_log_stderr_logger(data, message);
  for (LogCapture* capture : registry.captures) {
    capture->Add({data->priority, data->tag != nullptr ? data->tag : "", message});
  }
}

}  // namespace

LogCapture::LogCapture() {
  // Before the registry's lock: liblog calls Log with a lock of its own held.
  // Stays set for good; without captures Log does what liblog does by itself.
  __android_log_set_logger(Log);
  Registry& registry = GetRegistry();
  MutexLock lock(registry.mutex);
  registry.captures.push_back(this);
  // Debug lines count too; outside Android liblog drops them otherwise.
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

LogCapture::~LogCapture() {
  Registry& registry = GetRegistry();
  MutexLock lock(registry.mutex);
  std::erase(registry.captures, this);
  if (registry.captures.empty()) __android_log_set_minimum_priority(ANDROID_LOG_DEFAULT);
}

bool LogCapture::Has(int priority, std::string_view tag, std::string_view text) const {
  MutexLock lock(mutex_);
  return std::any_of(lines_.begin(), lines_.end(), [&](const LogLine& line) {
    return line.priority == priority && line.tag == tag && line.text == text;
  });
}

size_t LogCapture::Count(std::string_view text) const {
  MutexLock lock(mutex_);
  return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const LogLine& line) {
    return line.text.find(text) != std::string::npos;
  }));
}

std::vector<LogLine> LogCapture::Lines() const {
  MutexLock lock(mutex_);
  return lines_;
}

std::string LogCapture::Dump() const {
  std::string out;
  for (const LogLine& line : Lines()) {
    out += std::to_string(line.priority) + " " + line.tag + ": " + line.text + "\n";
  }
  return out;
}

void LogCapture::Clear() {
  MutexLock lock(mutex_);
  lines_.clear();
}

bool LogCapture::WaitFor(std::string_view text, size_t count,
                         std::chrono::milliseconds timeout) const {
  return test::WaitFor([&] { return Count(text) >= count; }, timeout);
}

void LogCapture::Add(LogLine line) {
  MutexLock lock(mutex_);
  lines_.push_back(std::move(line));
}

}  // namespace orb
