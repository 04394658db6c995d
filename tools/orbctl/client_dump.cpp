// Tested by tests/orbctl/commands_test.cpp.
#include "tools/orbctl/client_dump.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>

#include "tools/orbctl/control_client.h"
#include "tools/orbctl/output.h"
#include "utility/terminal_text.h"

namespace orb::orbctl {
namespace {

using Json = nlohmann::ordered_json;

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
  const Result<manager::ControlReply> reply =
      AskManager(RequestOf(manager::ControlRequest::DUMP_CLIENT, client));
  if (!reply.ok()) return Fail(reply.error().text);
  if (reply->status() != manager::ControlReply::DONE) return Fail(reply->message());
  if (reply->dump().empty()) {
    return Fail(client + " says nothing of itself; its library is an older one");
  }
  const std::string text =
      json ? DumpJson(reply->dump()) + "\n" : TerminalText(reply->dump(), "\n");
  (void)fwrite(text.data(), 1, text.size(), stdout);
  return kOk;
}

}  // namespace orb::orbctl
