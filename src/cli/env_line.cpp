#include "cli/env_line.h"

namespace sorvane::cli {
namespace {

/// The character that stands behind a backslash; nullopt when none may.
std::optional<char> unescaped(char written) {
  switch (written) {
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    case '\\':
    case '"':
    case '$':
    case '`':
      return written;
    default:
      return std::nullopt;
  }
}

std::optional<base::SecretText> quotedValue(std::string_view inside) {
  base::SecretText value;
  value.reserve(inside.size());
  for (std::size_t i = 0; i < inside.size(); ++i) {
    if (inside[i] == '"') return std::nullopt;
    if (inside[i] != '\\') {
      value.push_back(inside[i]);
      continue;
    }
    const auto character = ++i < inside.size() ? unescaped(inside[i]) : std::nullopt;
    if (!character) return std::nullopt;
    value.push_back(*character);
  }
  return value;
}

}  // namespace

std::optional<EnvLine> decodeEnvLine(std::string_view line) {
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos || equals == 0 || line.front() == '#') return std::nullopt;
  const std::string_view written = line.substr(equals + 1);
  if (!written.starts_with('"')) {
    if (written.find_first_of("\"\\\n\r\t `$'#") != std::string_view::npos) return std::nullopt;
    return EnvLine{std::string(line.substr(0, equals)), base::SecretText(written)};
  }
  if (written.size() < 2 || !written.ends_with('"')) return std::nullopt;
  auto value = quotedValue(written.substr(1, written.size() - 2));
  if (!value) return std::nullopt;
  return EnvLine{std::string(line.substr(0, equals)), std::move(*value)};
}

}  // namespace sorvane::cli
