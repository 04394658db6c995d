// Tested by tests/orbctl/verify_command_test.cpp.
#include "tools/orbctl/verify_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>

#include "tools/orbctl/output.h"
#include "tools/orbctl/private_keys.h"
#include "tools/orbctl/spool_check.h"
#include "utility/terminal_text.h"

namespace orb::orbctl {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr char kIncoming[] = ".incoming";  // Where orb-hald writes what it then renames.

void Print(const Json& object, std::ostream* out) {
  *out << object.dump(-1, ' ', true, Json::error_handler_t::replace) << '\n';
}

void PrintJson(const SpoolCheck& check, std::ostream* out) {
  for (const Finding& finding : check.findings()) {
    Json object = {{"finding", KindName(finding.kind)}, {"where", finding.where}};
    if (finding.kind == Finding::Kind::kGap || finding.kind == Finding::Kind::kRepeat) {
      object["first"] = finding.first;
      object["last"] = finding.last;
    }
    object["text"] = finding.text;
    Print(object, out);
  }
  Print({{"clients", check.clients()},
         {"uploads", check.uploads()},
         {"unopened", check.unopened()},
         {"findings", check.findings().size()}},
        out);
}

void PrintText(const SpoolCheck& check, std::ostream* out) {
  for (const Finding& finding : check.findings()) {
    *out << fmt::format("{:<8} {}: {}\n", KindName(finding.kind), TerminalText(finding.where),
                        TerminalText(finding.text));
  }
  *out << fmt::format("{} clients, {} uploads, {} findings\n", check.clients(), check.uploads(),
                      check.findings().size());
  if (check.unopened() != 0) {
    *out << fmt::format("{} sealed uploads were not opened: no --key is given\n", check.unopened());
  }
}

}  // namespace

int VerifyCommand::Run(std::ostream& out) const {
  std::vector<reader::PrivateKey> keys;
  std::vector<std::string> files;
  if (!ReadKeys(key_paths, &keys)) return kFailed;
  std::string error;
  const bool read = reader::AddFolder(directory, &files, &error);
  if (!read) PrintError(error);
  SpoolCheck check(std::move(keys));
  for (const std::string& file : files) check.CheckFile(file);
  std::error_code none;
  std::vector<std::string> incoming;
  for (const auto& entry : fs::directory_iterator(directory + "/" + kIncoming, none)) {
    incoming.push_back(entry.path().string());
  }
  std::sort(incoming.begin(), incoming.end());
  for (const std::string& file : incoming) check.CheckIncoming(file);
  check.Finish();
  if (json) {
    PrintJson(check, &out);
  } else {
    PrintText(check, &out);
  }
  out.flush();
  return read && check.findings().empty() ? kOk : kFailed;
}

}  // namespace orb::orbctl
