// tests/support/table.h -- Cases from a file: a line each, columns between " | ", # for comments.
#pragma once

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace qora::test {

inline std::vector<std::vector<std::string>> readTable(const std::string& path) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    rows.emplace_back();
    for (size_t bar; (bar = line.find(" | ")) != std::string::npos; line.erase(0, bar + 3)) {
      rows.back().push_back(line.substr(0, bar));
    }
    rows.back().push_back(line);
  }
  return rows;
}

inline std::vector<std::string> splitWords(const std::string& text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

}  // namespace qora::test
