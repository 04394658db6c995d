// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/library_log.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <string_view>

#include "tools/orbctl/sim/sim_clock.h"
#include "utility/error_text.h"

namespace orb::orbctl {
namespace {

// Of the writer thread, one of these a record and owner; nobody else logs them.
constexpr std::string_view kRecord = "add_to_file: licsn - ";
constexpr std::string_view kNoFile = "prepare_file: fout not found for lic SN: ";
constexpr std::string_view kFileGone = "add_to_file: error: fout is NULL";
constexpr std::string_view kShort = "add_to_file: error writing to file";

// Of priority ERROR, and nothing is wrong.
constexpr std::string_view kRoutine[] = {"initOrbsyshalHandle: getting new instance",
                                         "SLOT_USAGE: ", "SetItem: unknown CfgItem"};

// Threads of the library may log while the log goes away.
struct Current {
  Mutex mutex;
  LibraryLog* log ORB_GUARDED_BY(mutex) = nullptr;
};

Current& TheCurrent() {
  static auto* const current = new Current();
  return *current;
}

// So that one message about many files is one.
std::string WithoutNumbers(std::string_view text) {
  std::string plain;
  for (const char c : text) {
    if (!isdigit(static_cast<unsigned char>(c))) {
      plain.push_back(c);
    } else if (plain.empty() || plain.back() != '#') {
      plain.push_back('#');
    }
  }
  return plain;
}

bool IsProblem(const LibraryLog::Message& message) {
  return message.priority >= ANDROID_LOG_WARN &&
         std::none_of(std::begin(kRoutine), std::end(kRoutine),
                      [&](std::string_view routine) { return message.text.starts_with(routine); });
}

char Letter(int priority) {
  constexpr std::string_view kLetters = "??VDIWEF";
  return kLetters[static_cast<size_t>(std::clamp(priority, 0, 7))];
}

uint64_t NumberBehind(std::string_view prefix, const std::string& text) {
  return strtoull(text.c_str() + prefix.size(), nullptr, 10);
}

}  // namespace

std::unique_ptr<LibraryLog> LibraryLog::Open(const std::string& path, std::string* error) {
  FILE* const file = fopen(path.c_str(), "we");
  if (file == nullptr) {
    *error = "cannot make " + path + ": " + ErrorText(errno);
    return nullptr;
  }
  return std::unique_ptr<LibraryLog>(new LibraryLog(file));
}

LibraryLog::LibraryLog(FILE* file) : file_(file) {
  {
    Current& current = TheCurrent();
    MutexLock lock(current.mutex);
    current.log = this;
  }
  __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
  __android_log_set_logger(&LibraryLog::Receive);
}

LibraryLog::~LibraryLog() {
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  Current& current = TheCurrent();
  MutexLock lock(current.mutex);
  current.log = nullptr;
}

void LibraryLog::Receive(const __android_logger_data* data, const char* text) {
  Current& current = TheCurrent();
  MutexLock lock(current.mutex);
  if (current.log != nullptr) current.log->Add(*data, text);
}

void LibraryLog::Add(const __android_logger_data& data, const std::string& text) {
  const auto now = SimClock::Get().Now();
  MutexLock lock(mutex_);
  CountRecord(text);
  if (data.priority < ANDROID_LOG_INFO) return;
  const std::string tag = data.tag != nullptr ? data.tag : "";
  (void)fprintf(file_.get(), "%12.6f %c %s: %s\n", static_cast<double>(now.count()) / 1e9,
                Letter(data.priority), tag.c_str(), text.c_str());
  Message& message = messages_[tag + ": " + WithoutNumbers(text)];
  if (message.count++ > 0) return;
  message.priority = data.priority;
  message.tag = tag;
  message.text = WithoutNumbers(text);
  message.first = now;
}

void LibraryLog::CountRecord(const std::string& text) {
  const std::string_view view = text;
  if (view.starts_with(kRecord)) {
    owner_ = NumberBehind(kRecord, text);
    ++records_[owner_].first;
  } else if (view.starts_with(kNoFile)) {
    auto& [all, lost] = records_[NumberBehind(kNoFile, text)];
    ++all;
    ++lost;
  } else if (view.starts_with(kFileGone) || view == kShort) {
    ++records_[owner_].second;
  }
}

void LibraryLog::Flush() {
  MutexLock lock(mutex_);
  (void)fflush(file_.get());
}

uint64_t LibraryLog::Count(const std::string& text) const {
  MutexLock lock(mutex_);
  uint64_t count = 0;
  for (const auto& [key, message] : messages_) {
    if (key.find(text) != key.npos) count += message.count;
  }
  return count;
}

std::map<uint64_t, std::pair<uint64_t, uint64_t>> LibraryLog::Records() const {
  MutexLock lock(mutex_);
  return records_;
}

std::vector<LibraryLog::Message> LibraryLog::Problems() const {
  std::vector<Message> problems;
  {
    MutexLock lock(mutex_);
    for (const auto& [key, message] : messages_) {
      if (IsProblem(message)) problems.push_back(message);
    }
  }
  std::sort(problems.begin(), problems.end(),
            [](const Message& a, const Message& b) { return a.first < b.first; });
  return problems;
}

}  // namespace orb::orbctl
