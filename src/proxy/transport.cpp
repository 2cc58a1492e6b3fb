#include "proxy/transport.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/environment.h"

namespace sorvane::proxy {
namespace {

constexpr std::array<std::string_view, 8> kCleared = {
    "SSLKEYLOGFILE",  "OPENSSL_CONF", "OPENSSL_MODULES", "OPENSSL_ENGINES",
    "CURL_CA_BUNDLE", "CURL_HOME",    "NETRC",           "QLOGDIR",
};

bool isCleared(std::string_view name) {
  constexpr std::string_view proxy = "_PROXY";
  std::string upper(name);
  std::ranges::transform(upper, upper.begin(),
                         [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
  return upper.ends_with(proxy) || upper.starts_with("SSL_CERT_") ||
         std::ranges::find(kCleared, upper) != kCleared.end();
}

}  // namespace

const std::string* UpstreamHead::header(std::string_view lowerName) const {
  const auto found = std::ranges::find(headers, lowerName, &ProxyHeader::name);
  return found == headers.end() ? nullptr : &found->value;
}

void clearOutboundEnvironment() {
  std::vector<std::string> names;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    const std::string_view text(*variable);
    const std::string_view name = text.substr(0, text.find('='));
    if (isCleared(name)) names.emplace_back(name);
  }
  for (const std::string& name : names) ::unsetenv(name.c_str());
}

}  // namespace sorvane::proxy
