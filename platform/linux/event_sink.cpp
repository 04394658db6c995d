// The event log on Linux: a file in the layout of a binary events dump. All processes of
// a system append to it.
//
// entry := len:u16 hdr_size:u16 pid:i32 tid:u32 sec:u32 nsec:u32 lid:u32 uid:u32
//          tag:u32 list                  host byte order; len counts tag and list
// list := 0x03 count:u8 (0x00 i32){count}, or 0x00 i32 alone
//
// Tested by tests/utility/event_sink_test.cpp.
#define ORB_LOG_TAG "ORBEventLogger"

#include "utility/event_sink.h"

#include <fcntl.h>
#include <log/log_event_list.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <system_error>

#include "utility/log.h"
#include "utility/unique_fd.h"

// liblog exports this function but declares it in no public header. *bytes is the list as
// the log daemon would get it, borrowed from the context.
extern "C" int android_log_write_list_buffer(android_log_context list, const char** bytes);

namespace orb {
namespace {

constexpr size_t kWordsMax = 255;         // A list counts its elements in one byte.
constexpr int kLockTries = 100;           // Then the event is dropped, so that a process
constexpr useconds_t kLockWaitUs = 1000;  // which hangs with the lock does not hang the host.

struct EntryHeader {
  uint16_t len;
  uint16_t hdr_size;
  int32_t pid;
  uint32_t tid;
  uint32_t sec;
  uint32_t nsec;
  uint32_t lid;
  uint32_t uid;
};
static_assert(sizeof(EntryHeader) == 28);

std::string Variable(const char* name) {
  const char* value = secure_getenv(name);
  return value != nullptr ? value : "";
}

// Empty when the environment names no place.
std::string StateDirectory() {
  const std::string service = Variable("STATE_DIRECTORY");  // May list several.
  if (!service.empty()) return service.substr(0, service.find(':'));
  const std::string state_home = Variable("XDG_STATE_HOME");
  if (state_home.starts_with('/')) return state_home + "/orb";
  const std::string home = Variable("HOME");
  return home.empty() ? "" : home + "/.local/state/orb";
}

std::string LogPath() {
  std::string named = Variable("ORB_EVENT_LOG");
  if (!named.empty()) return named;
  const std::string directory = StateDirectory();
  if (directory.empty()) return "";
  std::error_code ignored;  // Opening the file reports it.
  std::filesystem::create_directories(directory, ignored);
  return directory + "/events.bin";
}

// Empty when liblog could not build the list.
std::string Serialize(uint32_t tag, const int32_t* words, size_t count) {
  android_log_context list = create_android_logger(tag);
  if (list == nullptr) return "";
  bool built = true;
  for (size_t i = 0; i < count && built; ++i) built = android_log_write_int32(list, words[i]) >= 0;
  const char* bytes = nullptr;
  const int length = built ? android_log_write_list_buffer(list, &bytes) : -1;
  std::string out;
  if (length > 0) out.assign(bytes, static_cast<size_t>(length));
  android_log_destroy(&list);
  return out;
}

std::string MakeEntry(uint32_t tag, const std::string& list) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const EntryHeader header{
      .len = static_cast<uint16_t>(sizeof tag + list.size()),  // Below 1300.
      .hdr_size = sizeof(EntryHeader),
      .pid = getpid(),
      .tid = static_cast<uint32_t>(gettid()),
      .sec = static_cast<uint32_t>(now.tv_sec),
      .nsec = static_cast<uint32_t>(now.tv_nsec),
      .lid = LOG_ID_EVENTS,
      .uid = getuid(),
  };
  std::string entry(sizeof header + sizeof tag, '\0');
  std::memcpy(entry.data(), &header, sizeof header);
  std::memcpy(entry.data() + sizeof header, &tag, sizeof tag);
  return entry + list;
}

bool Lock(int fd) {
  for (int i = 0; i < kLockTries; ++i) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    usleep(kLockWaitUs);
  }
  return false;
}

// Whether the file may grow so far. A write past the limit would end the process by a signal.
bool WithinLimit(off_t size, size_t more) {
  rlimit limit{};
  if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return true;
  return static_cast<rlim_t>(size) + more <= limit.rlim_cur;
}

// Returns 0, or the errno of what failed; then the file is as before. The lock, which ends
// with `fd`, makes it safe to remove half an entry.
int Append(const std::string& path, const std::string& entry) {
  const UniqueFd fd(
      open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0640));
  if (!fd.ok()) return errno;
  if (!Lock(fd.get())) return errno;
  struct stat before {};
  if (fstat(fd.get(), &before) != 0) return errno;
  if (!WithinLimit(before.st_size, entry.size())) return EFBIG;
  const ssize_t written = write(fd.get(), entry.data(), entry.size());
  if (written == static_cast<ssize_t>(entry.size())) return 0;
  const int error = written < 0 ? errno : ENOSPC;
  if (written > 0 && ftruncate(fd.get(), before.st_size) != 0) return errno;
  return error;
}

}  // namespace

void WriteEventList(uint32_t tag, const int32_t* words, size_t count) {
  if (count > kWordsMax) {
    LOGI("Event of %lu words dropped: too long", static_cast<unsigned long>(count));
    return;
  }
  const std::string list = Serialize(tag, words, count);
  const std::string path = LogPath();
  if (list.empty() || path.empty()) {
    LOGI("Event dropped: %s", list.empty() ? "no memory" : "no place for it, set ORB_EVENT_LOG");
    return;
  }
  const int error = Append(path, MakeEntry(tag, list));
  if (error != 0) {
    LOGI("Event dropped: %s: %s", path.c_str(), std::generic_category().message(error).c_str());
  }
}

}  // namespace orb
