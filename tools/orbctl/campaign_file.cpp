// Tested by tests/orbctl/campaign_lint_test.cpp.
#include "tools/orbctl/campaign_file.h"

#include <fmt/format.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "tools/orbctl/output.h"

namespace orb::orbctl {
namespace {

enum class Encoding { kText, kBinary };

// Far beyond what can be delivered: a mistaken path ends here.
constexpr uint64_t kCampaignBytesMax = uint64_t{64} << 20;

bool EndsWithAny(std::string_view text, std::initializer_list<std::string_view> endings) {
  return std::any_of(endings.begin(), endings.end(),
                     [text](std::string_view ending) { return text.ends_with(ending); });
}

// Serialized campaigns hold tags below 0x20, text does not hold such characters.
Encoding GuessEncoding(const std::string& path, const std::string& content) {
  if (EndsWithAny(path, {".txtpb", ".textproto", ".pbtxt"})) return Encoding::kText;
  if (EndsWithAny(path, {".pb", ".binpb", ".bin"})) return Encoding::kBinary;
  const bool binary = std::any_of(content.begin(), content.end(), [](char c) {
    return static_cast<uint8_t>(c) < 0x20 && (c < '\t' || c > '\r');
  });
  return binary ? Encoding::kBinary : Encoding::kText;
}

// Keeps the first error.
class FirstError : public google::protobuf::io::ErrorCollector {
 public:
  explicit FirstError(const std::string& path) : path_(path) {}

  void AddError(int line, int column, const std::string& message) override {
    if (!text_.empty()) return;
    // Counted from 0, and -1 for the file as a whole.
    text_ = line < 0 ? fmt::format("{}: {}", path_, message)
                     : fmt::format("{}:{}:{}: {}", path_, line + 1, column + 1, message);
  }
  const std::string& text() const { return text_; }

 private:
  const std::string path_;
  std::string text_;
};

// The words after "# max-value " of each such line.
std::vector<std::string> ValueNotes(std::string_view text) {
  constexpr std::string_view kNote = "# max-value ";
  std::vector<std::string> notes;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    if (!line.starts_with(kNote)) continue;
    line.remove_prefix(kNote.size());
    notes.emplace_back(line.substr(0, line.find_last_not_of(" \t\r") + 1));
  }
  return notes;
}

}  // namespace

bool ReadCampaignFile(const std::string& path, LTCCampaignDef* campaign, std::string* error,
                      std::vector<std::string>* value_limits) {
  std::string content;
  if (!ReadFile(path, kCampaignBytesMax, &content, error)) return false;
  if (GuessEncoding(path, content) == Encoding::kBinary) {
    if (campaign->ParseFromString(content)) return true;
    *error = fmt::format("{}: not a serialized LTCCampaignDef", path);
    return false;
  }
  if (value_limits != nullptr) *value_limits = ValueNotes(content);
  FirstError errors(path);
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&errors);
  if (parser.ParseFromString(content, campaign)) return true;
  *error = errors.text();
  return false;
}

}  // namespace orb::orbctl
