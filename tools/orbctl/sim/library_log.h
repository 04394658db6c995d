// What the library and the services log in a trial: into a file, with the time
// of the trial, and counted for the report.
#pragma once

#include <android/log.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "utility/thread_annotations.h"

namespace orb::orbctl {

// Takes the process's log while it lives; one at a time. Thread-safe.
class LibraryLog {
 public:
  // A message, its numbers replaced by "#".
  struct Message {
    int priority = 0;
    std::string tag;
    std::string text;
    uint64_t count = 0;
    std::chrono::nanoseconds first{0};
  };

  // Null with *error when the file cannot be made. Lines of priority INFO and
  // above go to it.
  static std::unique_ptr<LibraryLog> Open(const std::string& path, std::string* error);
  ~LibraryLog();

  // Writes out what the file's buffer holds.
  void Flush() ORB_EXCLUDES(mutex_);
  // Lines with this text in them, of any priority.
  uint64_t Count(const std::string& text) const ORB_EXCLUDES(mutex_);
  // Records that the library took in hand for an owner's file, and those of
  // them that did not get there whole.
  std::map<uint64_t, std::pair<uint64_t, uint64_t>> Records() const ORB_EXCLUDES(mutex_);
  // Warnings and errors, in the order of their first time; without those that
  // the library logs when all is well.
  std::vector<Message> Problems() const ORB_EXCLUDES(mutex_);

 private:
  struct CloseFile {
    void operator()(FILE* file) const { (void)fclose(file); }
  };

  explicit LibraryLog(FILE* file);
  static void Receive(const __android_logger_data* data, const char* text);
  void Add(const __android_logger_data& data, const std::string& text) ORB_EXCLUDES(mutex_);
  void CountRecord(const std::string& text) ORB_REQUIRES(mutex_);

  mutable Mutex mutex_;
  const std::unique_ptr<FILE, CloseFile> file_ ORB_PT_GUARDED_BY(mutex_);
  std::map<std::string, Message> messages_ ORB_GUARDED_BY(mutex_);
  uint64_t owner_ ORB_GUARDED_BY(mutex_) = 0;  // Of the record that is being written.
  std::map<uint64_t, std::pair<uint64_t, uint64_t>> records_ ORB_GUARDED_BY(mutex_);
};

}  // namespace orb::orbctl
