#include "vault/env_value.h"

#include "base/unicode.h"

namespace sorvane::vault {
namespace {

constexpr std::string_view kQuotedCharacters = "#=\"'$`\\";

bool mayStandBare(std::string_view value) {
  if (value.empty()) return false;
  while (!value.empty()) {
    const base::Decoded decoded = base::decodeUtf8(value);
    if (base::isWhiteSpace(decoded.character) || base::isControl(decoded.character)) return false;
    if (decoded.size == 1 && kQuotedCharacters.find(value.front()) != std::string_view::npos) return false;
    value.remove_prefix(decoded.size);
  }
  return true;
}

}  // namespace

void appendEnvLine(base::SecretText& out, std::string_view name, std::string_view value) {
  out.append(name);
  out.push_back('=');
  if (mayStandBare(value)) {
    out.append(value);
    return;
  }
  out.push_back('"');
  for (const char c : value) {
    switch (c) {
      case '\\':
        out.append("\\\\");
        break;
      case '"':
        out.append("\\\"");
        break;
      case '$':
        out.append("\\$");
        break;
      case '`':
        out.append("\\`");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      case '\t':
        out.append("\\t");
        break;
      default:
        out.push_back(c);
    }
  }
  out.push_back('"');
}

base::SecretText envLineValue(std::string_view written) {
  if (written.size() < 2 || written.front() != '"' || written.back() != '"') return base::SecretText(written);
  written = written.substr(1, written.size() - 2);
  base::SecretText value;
  value.reserve(written.size());
  for (std::size_t i = 0; i < written.size(); ++i) {
    if (written[i] != '\\' || i + 1 == written.size()) {
      value.push_back(written[i]);
      continue;
    }
    switch (const char escaped = written[++i]) {
      case 'n':
        value.push_back('\n');
        break;
      case 'r':
        value.push_back('\r');
        break;
      case 't':
        value.push_back('\t');
        break;
      default:
        value.push_back(escaped);
    }
  }
  return value;
}

}  // namespace sorvane::vault
