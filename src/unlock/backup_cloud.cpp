#include "unlock/backup_cloud.h"

#include <algorithm>

#include "base/codec.h"
#include "unlock/backup_error.h"
#include "unlock/backup_json.h"

namespace sorvane::unlock {
namespace {

using Malformed = JsonCursor::Malformed;
using Wrap = CloudBackupEnvelope::Wrap;

constexpr std::int64_t kCloudVersion = 3;
/// Wraps are one each of three kinds; a list beyond that is somebody's joke.
constexpr std::size_t kMaxWraps = 64;

/// Sets a member once.
template <typename T, typename Value>
void once(std::optional<T>& place, Value&& value) {
  if (place) throw Malformed{};
  place.emplace(std::forward<Value>(value));
}

std::string textAt(JsonCursor& cursor) {
  return std::string(cursor.string().view());
}

base::Bytes bytesAt(JsonCursor& cursor) {
  base::SecretText scratch;
  auto bytes = base::parseBase64(cursor.stringView(scratch));
  if (!bytes) throw Malformed{};
  return *std::move(bytes);
}

template <typename T>
T required(std::optional<T>&& value) {
  if (!value) throw Malformed{};
  return *std::move(value);
}

Wrap::Params paramsAt(JsonCursor& cursor) {
  Wrap::Params params;
  cursor.object([&](std::string_view key) {
    if (key == "kdf") {
      once(params.kdf, textAt(cursor));
    } else if (key == "info") {
      once(params.info, textAt(cursor));
    } else if (key == "encoding") {
      once(params.encoding, textAt(cursor));
    } else if (key == "scheme") {
      once(params.scheme, textAt(cursor));
    } else if (key == "salt") {
      once(params.salt, bytesAt(cursor));
    } else if (key == "memoryKiB") {
      once(params.memoryKiB, cursor.integer());
    } else if (key == "iterations") {
      once(params.iterations, cursor.integer());
    } else if (key == "parallelism") {
      once(params.parallelism, cursor.integer());
    } else {
      cursor.skip();
    }
  });
  return params;
}

/// The kind of a wrap whose parameters are those of its kind.
Wrap::Kind kindOf(std::string_view kind, const Wrap::Params& p) {
  if (kind == "passphrase" && p.kdf == "argon2id" && p.salt && p.memoryKiB && p.iterations && p.parallelism == 1) {
    return Wrap::Kind::passphrase;
  }
  if (kind == "recovery" && p.kdf == "hkdf-sha256" && p.salt && p.info == "sorvane-backup/v3/recovery-wrap" &&
      p.encoding == "recovery-kit-base32") {
    return Wrap::Kind::recovery;
  }
  if (kind == "account" && p.scheme == "x25519-hkdf-sha256-aes-256-gcm") return Wrap::Kind::account;
  throw Malformed{};
}

Wrap wrapAt(JsonCursor& cursor) {
  std::optional<std::string> kind;
  std::optional<Wrap::Params> params;
  std::optional<base::Bytes> ct;
  cursor.object([&](std::string_view key) {
    if (key == "kind") {
      once(kind, textAt(cursor));
    } else if (key == "params") {
      once(params, paramsAt(cursor));
    } else if (key == "ct") {
      once(ct, bytesAt(cursor));
    } else {
      cursor.skip();
    }
  });
  Wrap::Params known = required(std::move(params));
  const Wrap::Kind meant = kindOf(required(std::move(kind)), known);
  return {meant, std::move(known), required(std::move(ct))};
}

CloudBackupEnvelope::Signer signerAt(JsonCursor& cursor) {
  std::optional<std::string> kind;
  std::optional<base::Bytes> publicKey;
  cursor.object([&](std::string_view key) {
    if (key == "kind") {
      once(kind, textAt(cursor));
    } else if (key == "publicKey") {
      once(publicKey, bytesAt(cursor));
    } else {
      cursor.skip();
    }
  });
  if (kind != "ed25519") throw Malformed{};
  return {*std::move(kind), required(std::move(publicKey))};
}

std::vector<Wrap> wrapsAt(JsonCursor& cursor) {
  std::vector<Wrap> wraps;
  cursor.array([&] {
    if (wraps.size() == kMaxWraps) throw Malformed{};
    wraps.push_back(wrapAt(cursor));
  });
  if (wraps.empty()) throw Malformed{};  // nothing could ever open it
  return wraps;
}

}  // namespace

CloudBackupEnvelope parseCloudEnvelope(std::string_view text) {
  std::optional<std::string> format, vaultId, parent;
  std::optional<std::int64_t> version;
  std::optional<std::vector<Wrap>> wraps;
  std::optional<CloudBackupEnvelope::Signer> signer;
  std::optional<base::Bytes> payload, signature;
  JsonCursor cursor(text);
  cursor.object([&](std::string_view key) {
    const bool absent = cursor.kind() == JsonCursor::Kind::null;
    if (key == "format") {
      once(format, textAt(cursor));
    } else if (key == "version") {
      once(version, cursor.integer());
    } else if (key == "vaultId") {
      once(vaultId, textAt(cursor));
    } else if (key == "parent" && !absent) {
      once(parent, textAt(cursor));
    } else if (key == "wraps") {
      once(wraps, wrapsAt(cursor));
    } else if (key == "signer" && !absent) {
      once(signer, signerAt(cursor));
    } else if (key == "payload") {
      once(payload, bytesAt(cursor));
    } else if (key == "signature") {
      once(signature, bytesAt(cursor));
    } else {
      cursor.skip();
    }
  });
  cursor.end();
  if ((format && format != kBackupFormat) || (version && version != kCloudVersion)) throw Malformed{};
  return {required(std::move(vaultId)), std::move(parent),
          required(std::move(wraps)),   std::move(signer),
          required(std::move(payload)), required(std::move(signature))};
}

void refuseCloudBackup(const CloudBackupEnvelope& envelope) {
  const bool accountOnly = std::all_of(envelope.wraps.begin(), envelope.wraps.end(),
                                       [](const Wrap& wrap) { return wrap.kind == Wrap::Kind::account; });
  if (accountOnly) throw BackupError(sentence::kNeedsAccount);
  throw CryptoError(CryptoError::Case::untrustedBackup);
}

}  // namespace sorvane::unlock
