// Text with one JSON value a line, as orbctl prints it.
#pragma once

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace orb::test {

inline std::vector<nlohmann::json> JsonLines(const std::string& text) {
  std::vector<nlohmann::json> values;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) values.push_back(nlohmann::json::parse(line));
  return values;
}

}  // namespace orb::test
