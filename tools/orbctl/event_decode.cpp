// Bytes: see docs/formats/events.md.
// Tested by tests/orbctl/event_decode_test.cpp.
#include "tools/orbctl/event_decode.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string_view>

#include "include/orb_event_log.h"
#include "proto/event_record.pb.h"
#include "reader/hex.h"
#include "tools/orbctl/output.h"

namespace orb::orbctl {
namespace {

constexpr uint64_t kFileBytesMax = uint64_t{1} << 30;
constexpr size_t kHeaderBytesMin = 20;  // Up to the nanoseconds; older dumps end here.
constexpr size_t kHeaderBytesMax = 64;
constexpr uint32_t kEventsLog = 2;
constexpr uint32_t kHashMask = 0x3FFFFFFF;
constexpr uint32_t kDebugBit = 0x40000000;

// By hash, without the bit of debug builds.
using Names = std::map<uint32_t, std::string>;

// Printable ASCII, so that a record can neither drive a terminal nor break JSON.
std::string Printable(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c < 0x20 || c > 0x7E) c = '.';
  }
  return out;
}

template <typename T>
T NumberAt(std::string_view bytes, size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

struct Entry {
  size_t offset = 0;
  int32_t pid = 0;
  uint32_t tid = 0;
  uint32_t sec = 0;
  uint32_t nsec = 0;
  uint32_t log = kEventsLog;
  uint32_t uid = 0;
  std::string_view payload = {};
};

// Takes the entry at *at and moves *at behind it; null, with the reason, when
// nothing behind *at can be trusted.
std::optional<Entry> TakeEntry(std::string_view dump, size_t* at, std::string* reason) {
  const std::string_view rest = dump.substr(*at);
  *reason = "the file ends inside an entry";
  if (rest.size() < kHeaderBytesMin) return std::nullopt;
  const size_t header_bytes = NumberAt<uint16_t>(rest, 2);
  const size_t payload_bytes = NumberAt<uint16_t>(rest, 0);
  if (header_bytes < kHeaderBytesMin || header_bytes > kHeaderBytesMax) {
    *reason = "no entry header: its size says " + std::to_string(header_bytes);
    return std::nullopt;
  }
  if (rest.size() < header_bytes + payload_bytes) return std::nullopt;
  Entry entry;
  entry.offset = *at;
  entry.pid = NumberAt<int32_t>(rest, 4);
  entry.tid = NumberAt<uint32_t>(rest, 8);
  entry.sec = NumberAt<uint32_t>(rest, 12);
  entry.nsec = NumberAt<uint32_t>(rest, 16);
  if (header_bytes >= 24) entry.log = NumberAt<uint32_t>(rest, 20);
  if (header_bytes >= 28) entry.uid = NumberAt<uint32_t>(rest, 24);
  entry.payload = rest.substr(header_bytes, payload_bytes);
  *at += header_bytes + payload_bytes;
  return entry;
}

bool IsOurs(const Entry& entry) {
  return entry.log == kEventsLog && entry.payload.size() >= sizeof(uint32_t) &&
         NumberAt<uint32_t>(entry.payload, 0) == KIV_EVENT_TAG;
}

// The words of the list behind the tag, joined; null when it is no such list.
std::optional<std::string> JoinWords(std::string_view list) {
  size_t words = 1;  // A lone word has no list around it.
  if (list.size() >= 2 && list[0] == 3) {
    words = static_cast<uint8_t>(list[1]);
    list.remove_prefix(2);
  }
  if (list.size() != words * 5) return std::nullopt;
  std::string out;
  for (; !list.empty(); list.remove_prefix(5)) {
    if (list[0] != 0) return std::nullopt;
    out += list.substr(1, 4);
  }
  return out;
}

// The last word is filled with zeros. A zero is no field, so that a record
// parses with none of them, and only then.
bool ParseFilled(const std::string& bytes, orb_event::KivMessage* record) {
  for (size_t fill = 0; fill < 4 && fill < bytes.size(); ++fill) {
    if (record->ParseFromString(bytes.substr(0, bytes.size() - fill))) return true;
    if (bytes[bytes.size() - fill - 1] != 0) return false;
  }
  return false;
}

std::string Time(const Entry& entry) {
  const time_t seconds = entry.sec;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char date[32];
  static_cast<void>(std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc));
  char out[64];
  static_cast<void>(std::snprintf(out, sizeof out, "%s.%09uZ", date, entry.nsec));
  return out;
}

std::string NameOf(uint32_t hash, const Names& names) {
  const auto found = names.find(hash & kHashMask);
  if (found != names.end()) return found->second;
  char out[16];
  static_cast<void>(std::snprintf(out, sizeof out, "0x%08x", hash));
  return out;
}

void PrintText(const Entry& entry, const orb_event::KivMessage& record, const Names& names,
               std::ostream& out) {
  const orb_event::KivHeader& header = record.header();
  const std::string& data = record.payload().data();
  out << Time(entry) << " pid " << entry.pid << " tid " << entry.tid << " uid " << entry.uid
      << " module " << NameOf(header.module_id(), names) << " event "
      << NameOf(header.event_id(), names) << " type " << header.type() << " size "
      << header.payload_size();
  if (!data.empty()) out << " payload " << reader::Hex(data) << " \"" << Printable(data) << '"';
  if ((header.module_id() & kDebugBit) != 0) out << " debug-build";
  out << '\n';
}

void PrintJson(const Entry& entry, const orb_event::KivMessage& record, const Names& names,
               std::ostream& out) {
  const orb_event::KivHeader& header = record.header();
  const std::string& data = record.payload().data();
  nlohmann::ordered_json line = {
      {"time", Time(entry)},
      {"pid", entry.pid},
      {"tid", entry.tid},
      {"uid", entry.uid},
      {"module_id", header.module_id()},
      {"module", NameOf(header.module_id(), names)},
      {"event_id", header.event_id()},
      {"event", NameOf(header.event_id(), names)},
      {"type", header.type()},
      {"payload_size", header.payload_size()},
      {"payload_hex", reader::Hex(data)},
      {"payload_text", Printable(data)},
      {"debug_build", (header.module_id() & kDebugBit) != 0},
  };
  out << line.dump() << '\n';
}

bool ReadNames(const std::string& path, Names* names, std::string* error) {
  std::string content;
  if (path.empty()) return true;
  if (!ReadFile(path, kFileBytesMax, &content, error)) return false;
  std::istringstream lines(content);
  for (std::string name; std::getline(lines, name);) {
    if (!name.empty() && name.back() == '\r') name.pop_back();
    if (name.empty()) continue;
    const uint32_t hash =
        KIVCommonHashFn(reinterpret_cast<const uint8_t*>(name.data()), name.size());
    names->emplace(hash & kHashMask, Printable(name));
  }
  return true;
}

}  // namespace

int RunEventDecode(const EventDecodeOptions& options, std::ostream& out, std::ostream& err) {
  std::string dump;
  std::string reason;
  Names names;
  if (!ReadNames(options.names, &names, &reason) ||
      !ReadFile(options.file, kFileBytesMax, &dump, &reason)) {
    err << "orbctl: " << reason << '\n';
    return kFailed;
  }
  int result = kOk;
  const auto damaged = [&](size_t offset, const std::string& what) {
    err << "orbctl: " << options.file << ": entry at offset " << offset << ": " << what << '\n';
    result = kFailed;
  };
  for (size_t at = 0; at < dump.size();) {
    const std::optional<Entry> entry = TakeEntry(dump, &at, &reason);
    if (!entry) {
      damaged(at, reason);
      break;
    }
    if (!IsOurs(*entry)) continue;
    const std::optional<std::string> bytes = JoinWords(entry->payload.substr(sizeof(uint32_t)));
    orb_event::KivMessage record;
    if (!bytes) {
      damaged(entry->offset, "no list of 32-bit words");
    } else if (!ParseFilled(*bytes, &record)) {
      damaged(entry->offset, "no event record");
    } else if (options.json) {
      PrintJson(*entry, record, names, out);
    } else {
      PrintText(*entry, record, names, out);
    }
  }
  return result;
}

}  // namespace orb::orbctl
