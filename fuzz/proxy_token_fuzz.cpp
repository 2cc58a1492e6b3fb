// A token that parses is made again from its parts to the same text, and none with a changed character parses. From
// long enough input a real token is made, which must parse.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "proxy/token.h"

namespace {

using namespace sorvane;

void check(std::string_view text) {
  const auto parts = proxy::parseToken(text);
  if (!parts) return;
  if (proxy::tokenText(parts->kind, parts->lookupId, parts->secret).view() != text) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  check({reinterpret_cast<const char*>(data), size});
  constexpr std::size_t kBytes = proxy::kLookupBytes + proxy::kTokenSecretBytes;
  if (size < kBytes + 3) return 0;
  const proxy::TokenKind kinds[] = {proxy::TokenKind::live, proxy::TokenKind::test, proxy::TokenKind::local};
  const base::SecretText lookup = proxy::base32({data, proxy::kLookupBytes}),
                         secret = proxy::base32({data + proxy::kLookupBytes, proxy::kTokenSecretBytes});
  std::string text(proxy::tokenText(kinds[data[kBytes] % 3], lookup.view(), secret.view()).view());
  const auto parts = proxy::parseToken(text);
  if (!parts || parts->lookupId != lookup.view() || parts->secret != secret.view()) std::abort();
  char& changed = text[data[kBytes + 1] % text.size()];
  const char other = static_cast<char>(data[kBytes + 2]);
  if (other == changed) return 0;
  changed = other;
  if (proxy::parseToken(text)) std::abort();
  return 0;
}
