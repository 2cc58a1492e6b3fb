#include "unlock/backup_envelope.h"

#include <algorithm>
#include <array>

#include "base/codec.h"
#include "base/json_writer.h"
#include "crypto/derivation.h"
#include "unlock/backup_cloud.h"
#include "unlock/backup_error.h"
#include "unlock/backup_json.h"
#include "unlock/backup_payload.h"

namespace sorvane::unlock {
namespace {

using Malformed = JsonCursor::Malformed;
using Kind = JsonCursor::Kind;
using Slice = std::optional<std::string_view>;

/// The members of a local file as they stand, before anything of them is decoded.
struct Members {
  Slice argon2Iterations, argon2MemoryKiB, checksum, format, iterations, kdf, passphraseWrap, payload, plaintext,
      protection, recoveryWrap, salt, version;
  bool cloud = false;
};

struct Member {
  std::string_view name;
  Slice Members::*place;
  Kind kind;
};
constexpr std::array kMembers{Member{"argon2Iterations", &Members::argon2Iterations, Kind::number},
                              Member{"argon2MemoryKiB", &Members::argon2MemoryKiB, Kind::number},
                              Member{"checksum", &Members::checksum, Kind::string},
                              Member{"format", &Members::format, Kind::string},
                              Member{"iterations", &Members::iterations, Kind::number},
                              Member{"kdf", &Members::kdf, Kind::string},
                              Member{"passphraseWrap", &Members::passphraseWrap, Kind::string},
                              Member{"payload", &Members::payload, Kind::string},
                              Member{"plaintext", &Members::plaintext, Kind::object},
                              Member{"protection", &Members::protection, Kind::string},
                              Member{"recoveryWrap", &Members::recoveryWrap, Kind::string},
                              Member{"salt", &Members::salt, Kind::string},
                              Member{"version", &Members::version, Kind::number}};

/// Throws Malformed unless the text is an object whose known members are each there once at most, with the right type.
Members membersOf(std::string_view text) {
  Members members;
  JsonCursor cursor(text);
  cursor.object([&](std::string_view key) {
    const auto known = std::find_if(kMembers.begin(), kMembers.end(), [&](const Member& m) { return m.name == key; });
    members.cloud = members.cloud || isCloudMember(key);
    const Kind kind = cursor.kind();
    const std::string_view value = cursor.skip();
    if (known == kMembers.end() || kind == Kind::null) return;
    Slice& place = members.*known->place;
    if (place || kind != known->kind) throw Malformed{};
    place = value;
  });
  cursor.end();
  return members;
}

void require(bool rule) {
  if (!rule) throw CryptoError(CryptoError::Case::malformedBackup);
}

std::string textOf(std::string_view slice) {
  return std::string(JsonCursor(slice).string().view());
}

base::Bytes bytesIn(std::string_view slice) {
  base::SecretText scratch;
  auto bytes = base::parseBase64(JsonCursor(slice).stringView(scratch));
  require(bytes.has_value());
  return *std::move(bytes);
}

/// An integer, or Malformed for a number that is none.
std::optional<std::int64_t> integerIn(const Slice& slice) {
  if (!slice) return std::nullopt;
  return JsonCursor(*slice).integer();
}

bool isBetween(std::int64_t number, std::int64_t low, std::int64_t high) {
  return number >= low && number <= high;
}

/// What the file says of its passphrase key.
struct Derivation {
  std::optional<std::int64_t> iterations, memoryKiB, argon2Iterations;
};

void requireArgon2(const Members& members, const Derivation& derivation, std::int64_t version) {
  require(textOf(*members.kdf) == "argon2id" && version == kBackupVersion);
  require(!derivation.iterations && derivation.memoryKiB && derivation.argon2Iterations);
  require(isBetween(*derivation.memoryKiB, crypto::kMinPassphraseMemoryKiB, crypto::kMaxPassphraseMemoryKiB));
  require(isBetween(*derivation.argon2Iterations, crypto::kMinPassphraseIterations, crypto::kMaxPassphraseIterations));
  require(*derivation.memoryKiB * *derivation.argon2Iterations <= kMaxArgon2Product);
}

BackupEnvelope plainEnvelope(const Members& m, const Derivation& derivation) {
  require(m.plaintext && !m.payload && !m.salt && !m.kdf && !m.passphraseWrap && !m.recoveryWrap);
  require(!derivation.iterations && !derivation.memoryKiB && !derivation.argon2Iterations);
  BackupEnvelope envelope;
  envelope.protection = BackupEnvelope::Protection::none;
  envelope.plaintext.emplace(*m.plaintext);
  if (m.checksum) envelope.checksum = textOf(*m.checksum);
  return envelope;
}

BackupEnvelope encryptedEnvelope(const Members& m, const Derivation& derivation, std::int64_t version) {
  require(!m.plaintext && m.payload);
  BackupEnvelope envelope;
  envelope.version = version;
  if (m.kdf) {
    requireArgon2(m, derivation, version);
    envelope.argon2 = {static_cast<std::uint32_t>(*derivation.memoryKiB),
                       static_cast<std::uint32_t>(*derivation.argon2Iterations)};
  } else {
    require(!derivation.memoryKiB && !derivation.argon2Iterations);
    if (version == kPbkdf2BackupVersion) {
      require(derivation.iterations && isBetween(*derivation.iterations, 1, crypto::kMaxPbkdf2Rounds));
      envelope.iterations = derivation.iterations;
    } else {
      require(!m.salt && !derivation.iterations);
    }
  }
  if (m.kdf || version == kPbkdf2BackupVersion) {
    require(m.salt.has_value());
    envelope.salt = bytesIn(*m.salt);
    require(envelope.salt.size() == crypto::kPassphraseSaltBytes);
  }
  if (m.passphraseWrap) envelope.passphraseWrap = bytesIn(*m.passphraseWrap);
  if (m.recoveryWrap) envelope.recoveryWrap = bytesIn(*m.recoveryWrap);
  envelope.payload = bytesIn(*m.payload);
  return envelope;
}

BackupEnvelope localEnvelope(const Members& members) {
  if (!members.format || !members.version) throw Malformed{};
  const auto version = integerIn(members.version);
  const Derivation derivation{integerIn(members.iterations), integerIn(members.argon2MemoryKiB),
                              integerIn(members.argon2Iterations)};
  require(textOf(*members.format) == kBackupFormat);
  require(version == kPbkdf2BackupVersion || version == kBackupVersion);
  const auto protection = members.protection ? std::optional(textOf(*members.protection)) : std::nullopt;
  if (version == kBackupVersion && protection == "none") return plainEnvelope(members, derivation);
  require(protection == "encrypted" || (version == kPbkdf2BackupVersion && !protection));
  return encryptedEnvelope(members, derivation, *version);
}

}  // namespace

ParsedBackup parseBackup(std::string_view text) try {
  if (text.size() > kMaxBackupBytes) throw BackupError(sentence::kFileTooLarge);
  if (!isText(text)) throw Malformed{};
  const Members members = membersOf(text);
  if (members.cloud) return parseCloudEnvelope(text);
  return localEnvelope(members);
} catch (const Malformed&) {
  throw BackupError(sentence::kNotABackup);
}

base::SecretText encodeEnvelope(const BackupEnvelope& envelope) {
  const bool plain = envelope.protection == BackupEnvelope::Protection::none;
  base::JsonWriter writer;
  writer.reserve(1024 + base::base64Size(envelope.payload.size()) +
                 (envelope.plaintext ? envelope.plaintext->size() : 0));
  writer.beginObject();
  if (envelope.argon2) {
    writer.key("argon2Iterations").integer(envelope.argon2->iterations);
    writer.key("argon2MemoryKiB").integer(envelope.argon2->memoryKiB);
  }
  writer.field("checksum", envelope.checksum);
  writer.field("format", kBackupFormat);
  if (envelope.argon2) writer.field("kdf", "argon2id");
  if (envelope.passphraseWrap) writer.key("passphraseWrap").base64(*envelope.passphraseWrap);
  if (!plain) writer.key("payload").base64(envelope.payload);
  if (envelope.plaintext) writer.key("plaintext").raw(envelope.plaintext->view());
  writer.field("protection", plain ? "none" : "encrypted");
  if (envelope.recoveryWrap) writer.key("recoveryWrap").base64(*envelope.recoveryWrap);
  if (envelope.argon2) writer.key("salt").base64(envelope.salt);
  writer.key("version").integer(kBackupVersion);
  writer.endObject();
  return writer.take();
}

}  // namespace sorvane::unlock
