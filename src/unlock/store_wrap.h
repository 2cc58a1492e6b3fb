#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>

#include "base/secret_text.h"
#include "crypto/passphrase_key.h"
#include "unlock/unlock_configuration.h"

namespace sorvane::unlock {

/// The file beside the credential store that holds its key, sealed under the passphrase, and what must be known before
/// the store opens (docs/store-wrap.md).
inline constexpr std::string_view kWrapName = "store.wrap";
/// A file that is longer is not read.
inline constexpr std::size_t kMaxWrapBytes = 4096;
inline constexpr std::int64_t kWrapFormat = 1;
/// Nonce, key and tag of the sealed store key.
inline constexpr std::size_t kWrappedKeyBytes = 12 + crypto::SymmetricKey::kBytes + 16;

/// StoreWrap is the contents of that file. Only the sealed key and what it is bound to (format, salt, cost) cannot be
/// changed by others unnoticed; the rest is checked against the sealed settings once the store is open.
struct StoreWrap {
  base::Bytes salt;
  crypto::PassphraseCost cost;
  base::Bytes key;                                                  ///< the store key, sealed
  PassphraseRequirement requirement = PassphraseRequirement::only;  ///< never off
  bool followsSession = true;
  /// The salt of the verifier in the settings that belongs to the same passphrase.
  base::Bytes verifierSalt;
  /// A database that waits beside the one in use is the one that this key opens, and takes its place.
  bool newDatabase = false;
  /// The store key may have lain in clear beside the store since it was sealed: it is to be replaced.
  bool keyLayInClear = false;
  std::int64_t failedAttempts = 0;
  std::optional<base::Date> lastFailure;
  bool operator==(const StoreWrap&) const = default;
};

/// JSON with the keys in the order of docs/store-wrap.md.
base::SecretText encodeWrap(const StoreWrap& wrap);

/// Why a file is no wrap.
enum class WrapRefusal { damaged, newerFormat };
/// Reads what encodeWrap writes, and nothing else: no other key, no other length, no cost out of bounds, no requirement
/// "off". Pure; takes foreign bytes.
std::variant<StoreWrap, WrapRefusal> decodeWrap(std::string_view text);
/// What the person is told of such a file.
std::string_view sentenceOf(WrapRefusal refusal);

/// WrappingKey is what a passphrase derives to. Making one takes a moment and throws as crypto::passphraseKey does.
struct WrappingKey {
  base::Bytes salt;
  crypto::PassphraseCost cost;
  crypto::SymmetricKey key;

  /// With a salt of its own.
  static WrappingKey make(std::string_view passphrase, const crypto::PassphraseCost& cost);
};

/// Seals the store key: salt, cost and key of `wrap` are replaced.
void sealStoreKey(StoreWrap& wrap, const WrappingKey& wrapping, const crypto::SymmetricKey& storeKey);
/// The store key, or nullopt for another passphrase or an altered wrap. One derivation; throws as
/// crypto::passphraseKey does.
std::optional<crypto::SymmetricKey> openStoreKey(const StoreWrap& wrap, std::string_view passphrase);

}  // namespace sorvane::unlock
