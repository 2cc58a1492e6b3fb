#include "proxy/forwarded_headers.h"

#include <algorithm>
#include <array>

#include "proxy/http_text.h"

namespace sorvane::proxy {
namespace {

// ^\d{4}-\d{2}-\d{2}$
bool isVersion(std::string_view text) {
  if (text.size() != 10) return false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool dash = at == 4 || at == 7;
    if (dash ? text[at] != '-' : !isDigit(text[at])) return false;
  }
  return true;
}

// [a-z0-9][a-z0-9-]{0,63}
bool isBetaName(std::string_view text) {
  const auto plain = [](char byte) { return isDigit(byte) || (byte >= 'a' && byte <= 'z'); };
  return !text.empty() && text.size() <= 64 && plain(text.front()) &&
         std::all_of(text.begin(), text.end(), [&](char byte) { return plain(byte) || byte == '-'; });
}

// One to 16 names with "," or ", " between them.
bool isBetaList(std::string_view text) {
  constexpr int most = 16;
  for (int count = 1; count <= most; ++count) {
    const std::size_t comma = text.find(',');
    if (!isBetaName(text.substr(0, comma))) return false;
    if (comma == std::string_view::npos) return true;
    text.remove_prefix(comma + 1);
    if (text.starts_with(' ')) text.remove_prefix(1);
  }
  return false;
}

// ^[A-Za-z0-9_.:-]{1,128}$
bool isIdentifier(std::string_view text) {
  return !text.empty() && text.size() <= 128 && std::all_of(text.begin(), text.end(), [](char byte) {
    return isAlphanumeric(byte) || std::string_view("_.:-").find(byte) != std::string_view::npos;
  });
}

struct Form {
  std::string_view name;
  bool (*matches)(std::string_view);
};
constexpr std::array kForms{Form{"anthropic-version", &isVersion}, Form{"anthropic-beta", &isBetaList},
                            Form{"idempotency-key", &isIdentifier}, Form{"x-client-request-id", &isIdentifier}};

}  // namespace

std::optional<std::string_view> badForwardedHeader(const ProxyRequestHead& head) {
  for (const Form& form : kForms) {
    const std::string* const value = head.header(form.name);
    if (value != nullptr && !form.matches(*value)) return form.name;
  }
  return std::nullopt;
}

}  // namespace sorvane::proxy
