#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace sorvane::test {

inline std::filesystem::path corpus(const std::string& name) {
  return std::filesystem::path(SORVANE_CORPORA) / name;
}

inline std::string textOfFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("no such file: " + path.string());
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Rows of a tab-separated file without its heading line.
inline std::vector<std::vector<std::string>> tableOfFile(const std::filesystem::path& path) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("no such file: " + path.string());
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    std::vector<std::string> row;
    std::size_t start = 0;
    for (std::size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
      row.push_back(line.substr(start, tab - start));
    }
    row.push_back(line.substr(start));
    rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace sorvane::test
