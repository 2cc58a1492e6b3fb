#include "agent/command_words.h"

#include <nlohmann/json.hpp>

#include "base/json.h"

namespace sorvane::agent {

std::optional<std::vector<std::string>> decodeCommandWords(std::string_view json) {
  const auto array = base::parseJson(json);
  if (!array || !array->is_array() || array->empty() || array->size() > kMaxCommandWords) return std::nullopt;
  std::vector<std::string> words;
  for (const base::Json& word : *array) {
    if (!word.is_string()) return std::nullopt;
    words.push_back(word.get<std::string>());
    if (words.back().find('\0') != std::string::npos) return std::nullopt;
  }
  const std::string& program = words.front();
  if (program.empty() || program.front() == '-' || program.find('=') != std::string::npos) return std::nullopt;
  return words;
}

}  // namespace sorvane::agent
