// Backup files: what opens is written back to the same contents, and what is refused gives a sentence. The first byte
// chooses the reader: a whole file, a payload, a typed recovery key, the recogniser of uploaded files.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "base/date.h"
#include "unlock/backup.h"
#include "unlock/backup_canonical_json.h"
#include "unlock/backup_cloud.h"
#include "unlock/backup_json.h"
#include "unlock/backup_recovery_key.h"

namespace {

using namespace sorvane;
using Cursor = unlock::JsonCursor;

void require(bool holds) {
  if (!holds) std::abort();
}

/// The keys of a text in their order, and its other values; dates in the one form that is written.
struct Flat {
  std::vector<std::string> keys, values;
};

void flatten(Cursor& cursor, Flat& flat) {
  if (cursor.kind() == Cursor::Kind::object) {
    cursor.object([&](std::string_view key) {
      flat.keys.emplace_back(key);
      flatten(cursor, flat);
    });
  } else if (cursor.kind() == Cursor::Kind::array) {
    cursor.array([&] { flatten(cursor, flat); });
  } else if (cursor.kind() == Cursor::Kind::string) {
    const std::string text(cursor.string().view());
    const auto date = base::parseIso8601(text);
    flat.values.push_back(date ? base::iso8601(*date) : text);
  } else {
    const std::string_view word = cursor.skip();
    flat.values.emplace_back(word == "-0" ? "0" : word);
  }
}

Flat flattened(std::string_view text) {
  Flat flat;
  Cursor cursor(text);
  flatten(cursor, flat);
  return flat;
}

void writtenBackIsTheSame(const unlock::BackupPayload& payload) {
  const auto first = unlock::encodePayload(payload);
  require(unlock::canonicalJson(first.view()).view() == first.view());
  const auto second = unlock::encodePayload(unlock::decodePayload(first.view()));
  require(first.view() == second.view());
}

/// A payload that has the members which are written, no more and no fewer, says the same when it is written back.
void payload(std::string_view text) {
  const unlock::BackupPayload decoded = unlock::decodePayload(text);
  writtenBackIsTheSame(decoded);
  const auto ours = unlock::canonicalJson(text);
  const Flat before = flattened(ours.view()), after = flattened(unlock::encodePayload(decoded).view());
  require(before.keys != after.keys || before.values == after.values);
}

/// Without a secret: a sealed file stops at the question for one, before anything is derived.
void file(std::string_view text) {
  const unlock::ParsedBackup parsed = unlock::parseBackup(text);
  if (const auto* const envelope = std::get_if<unlock::BackupEnvelope>(&parsed)) {
    if (envelope->version == unlock::kBackupVersion) {
      const auto written = unlock::encodeEnvelope(*envelope);
      const auto again = unlock::parseBackup(written.view());
      require(unlock::encodeEnvelope(std::get<unlock::BackupEnvelope>(again)).view() == written.view());
    }
  }
  writtenBackIsTheSame(unlock::openBackup(parsed, {}).payload);
}

void recoveryKey(std::string_view text) {
  const auto bytes = unlock::recoveryKeyBytes(text);
  if (!bytes) return;
  const auto again = unlock::recoveryKeyBytes(unlock::recoveryKeyText(bytes->bytes()).view());
  require(again && again->view() == bytes->view());
}

/// What is taken for an uploaded file says what opens it, reads the same behind other members, and is never opened.
void uploaded(std::string_view text) {
  const unlock::CloudBackupEnvelope envelope = unlock::parseCloudEnvelope(text);
  require(!envelope.wraps.empty());
  for (const auto& wrap : envelope.wraps) {
    using Kind = unlock::CloudBackupEnvelope::Wrap::Kind;
    require(wrap.params.salt.has_value() || wrap.kind == Kind::account);
    require(wrap.params.memoryKiB.has_value() || wrap.kind != Kind::passphrase);
  }
  const std::string longer = "{\"zz\":[{}]," + std::string(text.substr(text.find('{') + 1));
  const unlock::CloudBackupEnvelope again = unlock::parseCloudEnvelope(longer);
  require(again.vaultId == envelope.vaultId && again.parent == envelope.parent && again.payload == envelope.payload);
  require(again.signature == envelope.signature && again.wraps.size() == envelope.wraps.size());
  unlock::refuseCloudBackup(envelope);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  try {
    if (data[0] % 4 == 0) file(text);
    if (data[0] % 4 == 1 && unlock::isText(text)) payload(text);
    if (data[0] % 4 == 2) recoveryKey(text);
    if (data[0] % 4 == 3 && unlock::isText(text)) uploaded(text);
  } catch (const Cursor::Malformed&) {
    return 0;
  } catch (const base::Error& error) {
    require(!error.sentence().empty());
  }
  return 0;
}
