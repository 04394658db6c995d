// What a client's dump says, by key and name.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <sstream>
#include <string>

namespace orb::test {

class DumpLines {
 public:
  explicit DumpLines(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      const size_t colon = line.find(": ");
      if (colon != std::string::npos) values_[line.substr(0, colon)] = line.substr(colon + 2);
    }
  }

  // The whole value; "" when there is none.
  std::string Value(const std::string& key) const {
    const auto found = values_.find(key);
    return found == values_.end() ? "" : found->second;
  }
  // The number behind "name="; 0 when there is none.
  uint64_t Number(const std::string& key, const std::string& name) const {
    std::istringstream items(Value(key));
    for (std::string item; items >> item;) {
      if (item.rfind(name + '=', 0) == 0) return std::stoull(item.substr(name.size() + 1));
    }
    return 0;
  }
  std::set<std::string> Owners() const {
    std::set<std::string> owners;
    for (const auto& [key, value] : values_) {
      if (key.rfind("owner.", 0) == 0) owners.insert(key.substr(0, key.find('.', 6)));
    }
    return owners;
  }
  // Samples of an owner that are somewhere.
  uint64_t AccountedFor(const std::string& owner) const {
    uint64_t sum = 0;
    for (const char* place : {".open", ".under_way", ".sent", ".lost"}) {
      sum += Number(owner + place, "samples");
    }
    return sum;
  }

 private:
  std::map<std::string, std::string> values_;
};

}  // namespace orb::test
