// Tested by tests/orbctl/commands_test.cpp.
#include "tools/orbctl/client_dump.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>

#include "tools/orbctl/control_client.h"
#include "tools/orbctl/output.h"
#include "utility/error_text.h"
#include "utility/terminal_text.h"
#include "utility/unique_fd.h"

namespace orb::orbctl {
namespace {

using Json = nlohmann::ordered_json;

// A client with more to say is not one of ours: 1,024 KPIs and as many owners take less.
constexpr size_t kMaxDumpBytes = size_t{4} << 20;
constexpr size_t kMaxLines = 16384;
constexpr size_t kMaxItems = 64;  // Of one line.
constexpr int kMaxParts = 8;      // Of one key, as each is a level of the JSON.
constexpr size_t kMaxDigits = 18;

Json WordJson(const std::string& word) {
  const bool number =
      !word.empty() && word.size() <= kMaxDigits &&
      std::all_of(word.begin(), word.end(), [](char c) { return c >= '0' && c <= '9'; });
  return number ? Json(std::stoull(word)) : Json(word);
}

Json ValueJson(const std::string& value) {
  if (value.size() >= 2 && value.front() == '"') return value.substr(1, value.size() - 2);
  if (value.find('=') == std::string::npos) return WordJson(value);
  Json object = Json::object();
  std::istringstream items(value);
  for (std::string item; object.size() < kMaxItems && items >> item;) {
    const size_t equals = std::min(item.find('='), item.size() - 1);
    object[item.substr(0, equals)] = WordJson(item.substr(equals + 1));
  }
  return object;
}

// Where a dotted key belongs. The last part holds the rest of a key with too many.
Json* Place(std::string_view key, Json* root) {
  Json* at = root;
  for (int part = 1; !key.empty(); ++part) {
    const size_t dot = part < kMaxParts ? key.find('.') : key.npos;
    if (!at->is_object()) *at = Json::object();
    at = &(*at)[std::string(key.substr(0, dot))];
    key.remove_prefix(dot == key.npos ? key.size() : dot + 1);
  }
  return at;
}

std::string ReadAll(int fd) {
  std::string text;
  char block[64 << 10];
  ssize_t got = 0;
  while (text.size() <= kMaxDumpBytes &&
         (got = pread(fd, block, sizeof block, static_cast<off_t>(text.size()))) > 0) {
    text.append(block, static_cast<size_t>(got));
  }
  return text;
}

}  // namespace

std::string DumpJson(const std::string& text) {
  Json root = Json::object();
  std::istringstream lines(text);
  size_t count = 0;
  for (std::string line; count < kMaxLines && std::getline(lines, line); ++count) {
    const size_t colon = line.find(": ");
    if (colon == std::string::npos || colon == 0) continue;
    const Json value = ValueJson(line.substr(colon + 2));
    Json* place = Place(std::string_view(line).substr(0, colon), &root);
    if (place->is_object() && value.is_object()) {
      place->update(value);
    } else {
      *place = value;
    }
  }
  return root.dump(-1, ' ', true, Json::error_handler_t::replace);
}

int DumpClient(const std::string& client, bool json) {
  std::string error;
  const android::sp<IOrbControl> manager = ConnectToManager(&error);
  if (manager == nullptr) return Fail(error);
  // Memory, not a pipe: the client never waits for this process.
  const UniqueFd fd(memfd_create("orbctl-dump", MFD_CLOEXEC));
  if (fd.get() < 0) return Fail("no memory for the dump: " + ErrorText(errno));
  ControlReply reply;
  const android::binder::Status status = manager->dumpClient(client, fd, &reply);
  if (!status.isOk()) return Fail(CallError(status));
  if (reply.status != ControlReply::DONE) return Fail(reply.message);
  std::string text = ReadAll(fd.get());
  if (text.empty()) return Fail(client + " says nothing of itself; its library is an older one");
  if (text.size() > kMaxDumpBytes) {
    return Fail(client + " says more of itself than a client of this library does");
  }
  text = json ? DumpJson(text) + "\n" : TerminalText(text, "\n");
  (void)fwrite(text.data(), 1, text.size(), stdout);
  return kOk;
}

}  // namespace orb::orbctl
