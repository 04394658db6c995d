// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/load_file.h"

#include <fmt/format.h>

#include <string_view>

#include "tools/orbctl/number.h"
#include "tools/orbctl/output.h"

namespace orb::orbctl {
namespace {

constexpr uint64_t kFileBytesMax = uint64_t{1} << 30;
constexpr uint64_t kBlobBytesMax = uint64_t{64} << 20;
constexpr std::string_view kHeader = "time,kpi,value";

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// True, and the text without the prefix, when it has that.
bool Take(std::string_view prefix, std::string_view* text) {
  if (!text->starts_with(prefix)) return false;
  text->remove_prefix(prefix.size());
  return true;
}

bool FromHex(std::string_view digits, std::string* bytes) {
  if (digits.size() % 2 != 0) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    uint64_t byte = 0;
    if (!ParseNumber(digits.substr(i, 2), 16, 255, &byte)) return false;
    bytes->push_back(static_cast<char>(byte));
  }
  return true;
}

bool ParseValue(std::string_view text, LoadItem* item) {
  const size_t star = text.find('*');
  std::string_view number = text.substr(0, star);
  uint64_t count = 1;
  if (star != std::string_view::npos && !ParseNumber(text.substr(star + 1), 10, UINT32_MAX, &count))
    return false;
  const bool negative = Take("-", &number);
  uint64_t value = 0;
  if (count == 0 || !ParseNumber(number, 10, negative ? uint64_t{1} << 31 : UINT32_MAX, &value))
    return false;
  item->a = static_cast<uint32_t>(negative ? -value : value);
  item->b = static_cast<uint32_t>(count);
  return true;
}

bool ParseState(std::string_view text, LoadItem* item) {
  const size_t slash = text.find('/');
  uint64_t a = 0;
  uint64_t b = 0;
  if (slash == std::string_view::npos || !ParseNumber(text.substr(0, slash), 10, UINT32_MAX, &a) ||
      !ParseNumber(text.substr(slash + 1), 10, UINT32_MAX, &b)) {
    return false;
  }
  item->a = static_cast<uint32_t>(a);
  item->b = static_cast<uint32_t>(b);
  item->call = LoadCall::kState;
  return true;
}

// Why a line is refused.
using Reason = const char*;

class Reader {
 public:
  explicit Reader(Load* load) : load_(*load) {}

  // Null when the line is good.
  Reason Line(std::string_view line, size_t number) {
    if (line.empty() || line.front() == '#') return nullptr;
    if (!header_seen_) {
      header_seen_ = line == kHeader;
      return header_seen_ ? nullptr : "the first line must be time,kpi,value";
    }
    const size_t first = line.find(',');
    const size_t second = first == line.npos ? line.npos : line.find(',', first + 1);
    if (second == line.npos) return "write time,kpi,value";
    LoadItem item;
    if (!ParseSeconds(Trim(line.substr(0, first)), &item.time)) {
      return "time is seconds from the start with at most nine decimals";
    }
    if (!load_.items.empty() && item.time < load_.items.back().time) {
      return "time goes back; sort the file by time";
    }
    if (const Reason reason = Value(Trim(line.substr(second + 1)), &item)) return reason;
    if (item.call != LoadCall::kFlush) {
      if (!ParseAnyNumber(Trim(line.substr(first + 1, second - first - 1)), UINT32_MAX, &item.kpi))
        return "kpi is a number of up to 32 bits";
      load_.samples += item.call == LoadCall::kLog ? item.b : 1;
    }
    item.line = static_cast<uint32_t>(number);
    load_.items.push_back(item);
    return nullptr;
  }

  bool header_seen() const { return header_seen_; }

 private:
  Reason Value(std::string_view text, LoadItem* item) {
    if (text == "flush") {
      item->call = LoadCall::kFlush;
      return nullptr;
    }
    if (Take("state:", &text)) return ParseState(text, item) ? nullptr : "a state is state:A/B";
    std::string blob;
    if (Take("text:", &text)) {
      blob = text;
    } else if (Take("hex:", &text)) {
      if (!FromHex(text, &blob)) return "hex: takes pairs of hexadecimal digits";
    } else if (Take("size:", &text)) {
      uint64_t bytes = 0;
      if (!ParseNumber(text, 10, kBlobBytesMax, &bytes)) return "size: takes a number of bytes";
      blob.assign(bytes, 'x');
    } else {
      return ParseValue(text, item) ? nullptr
                                    : "value is a 32-bit number, NUMBER*COUNT, text:, hex:, size:, "
                                      "state:A/B or flush";
    }
    item->call = LoadCall::kBlob;
    item->a = static_cast<uint32_t>(load_.blobs.size());
    load_.blobs.push_back(std::move(blob));
    return nullptr;
  }

  Load& load_;
  bool header_seen_ = false;
};

}  // namespace

bool ReadLoad(const std::string& path, Load* load, std::string* error) {
  const std::string file = path == "-" ? "/dev/stdin" : path;
  std::string content;
  if (!ReadFile(file, kFileBytesMax, &content, error)) return false;
  Reader reader(load);
  std::string_view rest = content;
  for (size_t number = 1; !rest.empty(); ++number) {
    const size_t end = rest.find('\n');
    if (const Reason reason = reader.Line(Trim(rest.substr(0, end)), number)) {
      *error = fmt::format("{}:{}: {}", file, number, reason);
      return false;
    }
    rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
  }
  if (!load->items.empty()) return true;
  *error = fmt::format(
      "{}: {}", file,
      reader.header_seen() ? "no line to log" : "the first line must be time,kpi,value");
  return false;
}

}  // namespace orb::orbctl
