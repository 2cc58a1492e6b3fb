#include "cli/output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "base/unicode.h"
#include "cli/session.h"

namespace sorvane::cli {
namespace {

void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) std::exit(fd == STDOUT_FILENO ? 1 : 0);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::string textOf(const base::Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_null()) return "";
  if (!value.is_array()) return value.dump();
  std::string text;
  for (const base::Json& item : value) text += (text.empty() ? "" : ", ") + textOf(item);
  return text;
}

}  // namespace

void print(std::string_view text) {
  writeAll(STDOUT_FILENO, text);
}

void printLine(std::string_view text) {
  print(std::string(text) + "\n");
}

void note(std::string_view text) {
  writeAll(STDERR_FILENO, base::escapedForDisplay(text) + "\n");
}

void printJson(const base::Json& document) {
  printLine(document.dump(2, ' ', false, base::Json::error_handler_t::replace));
}

std::string cell(const base::Json& object, const char* name) {
  const auto found = object.find(name);
  return found == object.end() ? "" : textOf(*found);
}

const base::Json& items(const base::Json& document, const char* name) {
  const auto found = document.is_object() ? document.find(name) : document.end();
  if (found == document.end() || !found->is_array()) throw notUnderstood();
  return *found;
}

void printTable(const std::vector<std::string>& headings, const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const std::string& heading : headings) widths.push_back(base::displayWidth(heading));
  std::vector<std::vector<std::string>> shown{headings};
  for (const auto& row : rows) {
    auto& cells = shown.emplace_back();
    for (std::size_t i = 0; i < row.size(); ++i) {
      cells.push_back(base::escapedForDisplay(row[i]));
      widths[i] = std::max(widths[i], base::displayWidth(cells.back()));
    }
  }
  std::string text;
  for (const auto& row : shown) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - base::displayWidth(row[i]) + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  print(text);
}

void printValue(const base::SecretText& value) {
  print(value.view());
  if (::isatty(STDOUT_FILENO) != 0 && !value.view().ends_with('\n')) print("\n");
}

}  // namespace sorvane::cli
