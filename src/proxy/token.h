#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/secret_text.h"

namespace sorvane::proxy {

// The text of keys and tokens (docs/proxy.md, "The token"): "qzt_" kind "_" lookup id "_" secret and check suffix, in
// the alphabet of RFC 4648 section 6 in lower case, without padding.

enum class TokenKind { live, test, local };
std::string_view word(TokenKind kind);

inline constexpr std::size_t kLookupBytes = 10, kTokenSecretBytes = 32;
inline constexpr std::size_t kLookupCharacters = 16, kTokenSecretCharacters = 52, kSuffixCharacters = 7;
/// What a grant's token is shown as, before its lookup id.
inline constexpr std::string_view kLocalTokenPrefix = "qzt_local_";

/// Lower-case base32 without padding.
base::SecretText base32(std::span<const std::uint8_t> bytes);

/// The whole text of a token with its check suffix. `lookupId` and `secret` are base32 of the lengths above.
base::SecretText tokenText(TokenKind kind, std::string_view lookupId, std::string_view secret);

/// A token's parts; views of the text that was parsed.
struct TokenParts {
  TokenKind kind = TokenKind::local;
  std::string_view lookupId;
  std::string_view secret;
};
/// nullopt unless the text has the form of a token and its suffix is right, so that a mistyped one costs no look-up.
std::optional<TokenParts> parseToken(std::string_view text);

}  // namespace sorvane::proxy
